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

/* ---- copy, flip, rotate, transpose ----------------------------------------- */

/* Dest(row r, column c) = Src(row c, column r) for DestHeight rows and
 * DestWidth columns; SrcHeight is not read. Four-channel images must be packed. */
QV_API int QV_Transpose(const unsigned char* Src, unsigned char* Dest, int SrcWidth, int SrcHeight, int SrcStride,
                        int DestWidth, int DestHeight, int DestStride);

/* ---- resample -------------------------------------------------------------- */

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
