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

/* One-pole recursive blur, both ways along rows then columns; 16-bit fixed
 * point. Radius >= 1. Src may equal Dest. */
QV_API int QV_ExpBlur(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius);

/* Recursive Gaussian blur, Radius is the sigma (> 0). Src may equal Dest. */
QV_API int QV_GaussBlur(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, float Radius);

/* ---- median ---------------------------------------------------------------- */

/* Rank filter: each sample becomes the Percent (0..100) percentile of its
 * square window of side 2 * Radius + 1; 50 is the median. Src must not be
 * Dest. */
QV_API int QV_MedianBlur(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius,
                         int Percent);

/* ---- guided filters -------------------------------------------------------- */

/* ---- global thresholds ----------------------------------------------------- */

/* ---- gray morphology ------------------------------------------------------- */

/* ---- copy, flip, rotate, transpose ----------------------------------------- */

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
