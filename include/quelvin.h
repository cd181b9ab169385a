/* Quelvin: fast 8-bit image operators.
 *
 * Images are caller-owned byte buffers given as (pointer, Width, Height,
 * Stride); samples are interleaved blue, green, red[, fourth]. The channel
 * count is never passed: each call derives it as Stride / Width (1, 3 or 4).
 * Every export returns a status (QV_Status) unless its comment says otherwise.
 */
#ifndef QUELVIN_H
#define QUELVIN_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(_WIN32)
#  if defined(QV_BUILDING_LIBRARY)
#    define QV_API __declspec(dllexport)
#  else
#    define QV_API __declspec(dllimport)
#  endif
#else
#  define QV_API __attribute__((visibility("default")))
#endif

typedef enum QV_Status {
  STATUS_OK = 0,
  STATUS_INVALID_PARAMETER = 1,
  STATUS_OUT_OF_MEMORY = 2,
  STATUS_NULL_REFERENCE = 3,
  STATUS_UNKNOWN_MODE = 4,
  STATUS_NOT_SUPPORTED = 5
} QV_Status;

/* ---- point operators ---------------------------------------------------- */

QV_API int QV_Invert(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride);

/* ---- brightness, contrast, vibrance -------------------------------------- */

/* ---- histogram adjustments ----------------------------------------------- */

/* ---- luminance, desaturation --------------------------------------------- */

/* ---- white balance -------------------------------------------------------- */

/* ---- box mean ------------------------------------------------------------- */

/* ---- exponential and Gaussian blur ---------------------------------------- */

/* ---- median ---------------------------------------------------------------- */

/* ---- guided filters -------------------------------------------------------- */

/* ---- global thresholds ----------------------------------------------------- */

/* ---- gray morphology ------------------------------------------------------- */

/* Square-window extrema at a cost independent of Radius; 1, 3 or 4 channels.
 * The window is clipped at the image; Src may equal Dest. */
QV_API int QV_MaxFilter(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius);
QV_API int QV_MinFilter(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius);
/* Opening (minimum then maximum) and closing (maximum then minimum). */
QV_API int QV_Open(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius);
QV_API int QV_Close(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius);
/* Local range max - min scaled by Amount percent (100 is the plain range),
 * over whole rows padding included. Exhausted memory returns STATUS_OK. */
QV_API int QV_RangeFilter(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius,
                          int Amount);

/* ---- copy, flip, rotate, transpose ----------------------------------------- */

/* An image described by one record, for QV_BitBlt; its channel count is
 * Stride / Width. */
typedef struct ImageRecord {
  int Width;
  int Height;
  int Stride;
  unsigned char* Data;
} ImageRecord;

/* Copies the rectangle (SrcX, SrcY, BlitWidth, BlitHeight) of Src to (DestX,
 * DestY) of Dest, clipped to both. 3 or 4 channels each side: 3 to 3 copies,
 * 3 to 4 sets alpha 255, 4 to 3 blends over Dest, 4 to 4 composes with both
 * alphas. Src->Data equal to Dest->Data returns STATUS_NOT_SUPPORTED. */
QV_API int QV_BitBlt(ImageRecord* Dest, int DestX, int DestY, int BlitWidth, int BlitHeight, const ImageRecord* Src,
                     int SrcX, int SrcY);
/* Mirror images; Src may equal Dest. */
QV_API int QV_FlipLeftRight(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride);
QV_API int QV_FlipTopBottom(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride);
/* Right-angle turns (90 clockwise, 270 counter-clockwise except for single-
 * channel images not wider than high, which turn clockwise). Only
 * QV_Rotate180 may run in place. Four-channel images must be packed. */
QV_API int QV_Rotate90(const unsigned char* Src, unsigned char* Dest, int SrcWidth, int SrcHeight, int SrcStride,
                       int DestWidth, int DestHeight, int DestStride);
QV_API int QV_Rotate180(const unsigned char* Src, unsigned char* Dest, int SrcWidth, int SrcHeight, int SrcStride,
                        int DestWidth, int DestHeight, int DestStride);
QV_API int QV_Rotate270(const unsigned char* Src, unsigned char* Dest, int SrcWidth, int SrcHeight, int SrcStride,
                        int DestWidth, int DestHeight, int DestStride);
/* Dest(row r, column c) = Src(row c, column r) for DestHeight rows and
 * DestWidth columns; SrcHeight is not read. Four-channel images must be packed. */
QV_API int QV_Transpose(const unsigned char* Src, unsigned char* Dest, int SrcWidth, int SrcHeight, int SrcStride,
                        int DestWidth, int DestHeight, int DestStride);

/* ---- resample -------------------------------------------------------------- */

/* Scales Src to DestWidth x DestHeight; Mode 0 nearest, 1 bilinear, 2 bicubic.
 * Equal sizes copy whatever the Mode; an unknown Mode returns STATUS_OK and
 * writes nothing. Src and Dest must not overlap. */
QV_API int QV_Resample(const unsigned char* Src, unsigned char* Dest, int SrcWidth, int SrcHeight, int SrcStride,
                       int DestWidth, int DestHeight, int DestStride, int Mode);

/* ---- dehazing -------------------------------------------------------------- */

/* ---- Retinex --------------------------------------------------------------- */

/* ---- frequency filters ----------------------------------------------------- */

/* ---- pyramids -------------------------------------------------------------- */

/* ---- sharpening ------------------------------------------------------------ */

/* ---- edges and saliency ---------------------------------------------------- */

#ifdef __cplusplus
}
#endif

#endif /* QUELVIN_H */
