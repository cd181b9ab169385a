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
#if defined(QV_BUILDING_LIBRARY)
#define QV_API __declspec(dllexport)
#else
#define QV_API __declspec(dllimport)
#endif
#else
#define QV_API __attribute__((visibility("default")))
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

/* Single-channel only (Stride / Width must be 1; Width 0 is status 1). The
 * threshold is written through ThresholdOut, which is not tested. */
QV_API int QV_GetOSTUThreshold(const unsigned char* Src, int Width, int Height, int Stride, int* ThresholdOut);
QV_API int QV_GetMaxEntropyThreshold(const unsigned char* Src, int Width, int Height, int Stride, int* ThresholdOut);
QV_API int QV_GetIterativeBestThreshold(const unsigned char* Src, int Width, int Height, int Stride, int* ThresholdOut);
QV_API int QV_GetMinimumThreshold(const unsigned char* Src, int Width, int Height, int Stride, int* ThresholdOut);
QV_API int QV_GetHuangFuzzyThreshold(const unsigned char* Src, int Width, int Height, int Stride, int* ThresholdOut);
QV_API int QV_GetTriangleThreshold(const unsigned char* Src, int Width, int Height, int Stride, int* ThresholdOut);
QV_API int QV_GetSimpleStatisticsThreshold(const unsigned char* Src, int Width, int Height, int Stride,
                                           int* ThresholdOut);

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
