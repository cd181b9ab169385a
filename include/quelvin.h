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

/* 255 - v over the whole buffer, padding included; a 4-channel pixel keeps its fourth sample. */
QV_API int QV_Invert(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride);
/* Gamma curve ((i * 0.003921569f) ^ Gamma) * 255, truncated, on the first three samples (3 or 4 channels). */
QV_API int QV_GammaCorrection(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                              float Gamma);
/* v > Threshold (clamped to 0..254) gives 255, else 0, every sample alike (1 or 3 channels). */
QV_API int QV_Threshold(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                        int Threshold);
/* Colour look-up through a 512 x 512 table of 3-byte pixels (786432 bytes), 3 or 4 channels. */
QV_API int QV_Lut2D(const unsigned char* Src, const unsigned char* Table, unsigned char* Dest, int Width, int Height,
                    int Stride);
/* Saturating Src1 + Src2, Src1 - Src2, |Src1 - Src2|, and the linear-light blend of Src2 over Src1. */
QV_API int QV_AddImage(const unsigned char* Src1, const unsigned char* Src2, unsigned char* Dest, int Width, int Height,
                       int Stride);
QV_API int QV_SubtractImage(const unsigned char* Src1, const unsigned char* Src2, unsigned char* Dest, int Width,
                            int Height, int Stride);
QV_API int QV_AbsDiffImage(const unsigned char* Src1, const unsigned char* Src2, unsigned char* Dest, int Width,
                           int Height, int Stride);
QV_API int QV_BlendTwoImage_LinearLight(const unsigned char* Src1, const unsigned char* Src2, unsigned char* Dest,
                                        int Width, int Height, int Stride);
/* Solarisation: samples above 127 become 255 - v. */
QV_API int QV_Exposal(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride);
/* Noise from rand() (not seeded here); Dest only, padding untouched. */
QV_API int QV_WhiteNoise(unsigned char* Dest, int Width, int Height, int Stride);

/* ---- brightness, contrast, vibrance -------------------------------------- */

/* Contrast (-100..100) around the image mean and Brightness (-255..255); 1, 3 or 4 channels. */
QV_API int QV_AdjustBrightnessAndContrast(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                          int Stride, int Brightness, int Contrast);
/* Saturation boost (Amount > 0) or mute (< 0), clamped to -100..100; 3 or 4 channels. */
QV_API int QV_Vibrance(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Amount);

/* ---- histogram adjustments ----------------------------------------------- */

/* Per-channel stretch between limits clipping a fraction Cutoff of the pixels at each end,
 * or a power curve taking the mean to mid-gray when AdjustGamma is set; 1, 3 or 4 channels. */
QV_API int QV_AutoLevel(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, float Cutoff,
                        unsigned char AdjustGamma);
/* As QV_AutoLevel with one pair of limits common to all channels, so hues are kept. */
QV_API int QV_AutoContrast(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                           float Cutoff, unsigned char AdjustGamma);
/* Pushes each colour sample away from the pixel's brightness by a quarter; 3 or 4 channels. */
QV_API int QV_AutoEnhanceColors(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride);
/* Equalisation by square roots of the counts (or the counts when Linear is set), mixed
 * with the identity by Strength percent; 1 or 3 channels (4 is walked as 3-byte pixels). */
QV_API int QV_HistEqualize(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                           unsigned char Linear, int Strength);
/* Maps each channel onto a caller's 256-bin target histogram (TargetB only for gray). */
QV_API int QV_HistgramMatching(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                               const int* TargetB, const int* TargetG, const int* TargetR);

/* ---- luminance, desaturation --------------------------------------------- */

/* One luminance byte per pixel, (1867 b + 9617 g + 4900 r + 8192) >> 14; rows of
 * Width bytes, or of ((Width * 8 + 31) / 32) * 4 bytes when RowPadded is set. */
QV_API int QV_GetLuminance(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                           unsigned char RowPadded);
/* Gray (max + min) / 2 in the three colour samples; 3 or 4 channels. */
QV_API int QV_Desaturate(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride);

/* ---- white balance -------------------------------------------------------- */

/* Gray-world white balance over the pixels whose saturation is below Percent; 3 or 4 channels. */
QV_API int QV_AWB_GrayWorld(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                            int Percent);

/* ---- box mean ------------------------------------------------------------- */

/* Mean of the (2 * Radius + 1)^2 window of every sample (Radius >= 1, limited
 * to Width - 1 and Height - 1); rows repeat the edge, columns reflect without it.
 * Src and Dest must be different buffers. */
QV_API int QV_BoxBlur(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius);
/* Every pixel becomes the rounded mean of its channel over the image; a fourth
 * channel is kept from Src. */
QV_API int QV_AverageBlur(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride);

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

/* Fast guided filters on a grid reduced to ScaleRatio percent (10..100).
 * Radius is raised to 4 and lowered to min(Width, Height); Eps is a standard
 * deviation in grey levels. Src, Guide and Dest may coincide; Guide is not
 * tested by the frame (a null one is refused by the reduction, status 3). */
QV_API int QV_GuidedFilter(const unsigned char* Src, const unsigned char* Guide, unsigned char* Dest, int Width,
                           int Height, int Stride, int Radius, int ScaleRatio, float Eps);
QV_API int QV_SelfGuidedFilter(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                               int Radius, int ScaleRatio, float Eps);

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

/* Dark-channel prior: atmospheric light from the top percent of the dark channel (each limited to
 * AtmosphericLimit), transmission 1 - Omega * dark / A refined by a guided filter on a 20% grid and held
 * above MinTransmission (0..1), recovery, then a gamma curve; 3 or 4 channels (the fourth byte is kept).
 * GuideRadius below 5 is refused by the guided filter (status 1) unless the image is too small to reduce.
 * Src may equal Dest. */
QV_API int QV_HazeRemovalBasedOnDarkChannelPrior(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                                 int Stride, int DarkRadius, int GuideRadius, int AtmosphericLimit,
                                                 float Omega, float MinTransmission, float Gamma);

/* ---- Retinex --------------------------------------------------------------- */

/* Multi-scale Retinex on the luminance: ScaleCount Gaussian surrounds up to MaxSigma, log ratio clipped
 * at the ClipShare (fraction of 1) percentiles at both ends, brought back to colour with a gain of at
 * most 4; 1, 3 or 4 channels (4 is walked as 3-byte pixels). */
QV_API int QV_Retinex(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int MaxSigma,
                      int ScaleCount, float ClipShare);
/* Adaptive logarithmic tone mapping of the luminance around its log mean; ClipShare as in QV_Retinex,
 * 0 skips the clipping. */
QV_API int QV_ALTM_Retinex(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                           float ClipShare);
/* Iterative ratio-product-reset-average Retinex per channel on 16-bit log planes (Iterations >= 1);
 * 1 or 3 channels. Exhausted memory returns STATUS_OK with Dest unwritten. */
QV_API int QV_FrankleMccannRetinex(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                   int Iterations);

/* ---- frequency filters ----------------------------------------------------- */

/* Spectrum view: log magnitude of the padded transform, centred, stretched to 0..255. */
QV_API int QV_ShowFFT(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride);
/* Spectrum view without padding: |Re| / 255 of the centred transform (samples 0 and 1 share one plane). */
QV_API int QV_ShowFFT_Precise(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride);
/* Low pass with gain 1 / (1 + 0.414 r^2 / CutOff^2), r in bins of the padded plane. */
QV_API int QV_ButterworthLowPass(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                 int CutOff);
/* Log-domain filter of the luminance: gain (GammaHigh - GammaLow)(1 - exp(-Sharpness r^2 / (2 CutOff^2))) + GammaLow. */
QV_API int QV_HomomorphicFiltering(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                   float CutOff, float GammaHigh, float GammaLow, float Sharpness);
/* Gain GainOffset / 100 + GainScale / 100 / (1 + 0.414 CutOff^2 / r^2). */
QV_API int QV_HighFrequencyEmphasizeFilter(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                           int Stride, int CutOff, int GainOffset, int GainScale);
/* Gaussian band pass between structure sizes FilterSmall and FilterLarge (pixels), optional stripe suppression
 * (StripeMode 1 columns, 2 rows; StripeTolerance 0..100), result stretched to 0..255. */
QV_API int QV_BandPassFilter(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                             int FilterLarge, int FilterSmall, int StripeMode, int StripeTolerance);

/* ---- pyramids -------------------------------------------------------------- */

/* Number of pyramid levels (halvings of min(Width, Height) while the half is
 * at least MinSize, plus one); 0 when an argument is below 1 or the image is
 * smaller than MinSize. Returns a count, not a status. */
QV_API int QV_GetMaxPyramidLevel(int Width, int Height, int MinSize);
/* Experimental detail boost: a float Laplace pyramid of up to Levels levels
 * whose bands become 4 * sign(x) * |x|^0.6, collapsed again. Src is not
 * tested; rows are walked as three samples a pixel whatever the layout. */
QV_API int LaplacePyramidTest(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                              int Levels);

/* ---- sharpening ------------------------------------------------------------ */

/* 3x3 sharpen from the four diagonal neighbours, (8 c - nw - ne - sw - se) >> 2;
 * edges replicated. Src may equal Dest. */
QV_API int QV_Sharpen(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride);
/* Pushes each sample by the gap between the 3x3 neighbours nearest to and
 * farthest from their mean; Amount 0..100 (limited). Src may equal Dest. */
QV_API int QV_RadiusSharpen3X3(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                               int Amount);
/* Src - exponential blur + 128 over the whole run. Src must not be Dest. */
QV_API int QV_HighPass(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius);
/* High pass (desaturated when in colour) overlaid on Src. Src must not be Dest. */
QV_API int QV_HighPassSharpen(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                              int Radius);
/* Unsharp mask on the exponential blur, detail weighted by the square root of
 * the headroom; Amount in per cent, Threshold in levels. Src must not be Dest. */
QV_API int QV_UnsharpMask(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius,
                          int Amount, int Threshold);
/* Unsharp mask with a threshold, Amount 0..4096 per cent (limited). Src must
 * not be Dest. */
QV_API int QV_UnsharpMask_PS(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                             int Radius, int Amount, int Threshold);
/* Detail of three exponential blurs (Radius, 2 Radius, 4 Radius) added back.
 * Src may equal Dest. */
QV_API int QV_MultiScaleSharpen(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                int Radius);
/* Detail over the self-guided filter amplified about (Amount + 100) / 100 times;
 * Amount >= 0, limited to 3996. Src must not be Dest. */
QV_API int QV_EdgePreservedSharpen(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                   int Amount);

/* ---- edges and saliency ---------------------------------------------------- */

/* Sobel gradient magnitude of every sample (1, 3 or 4 channels, the fourth
 * too); the edge pixels and rows are repeated. Src may equal Dest. */
QV_API int QV_Sobel(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride);
/* Canny edges (0 or 255) of a single-channel image, without smoothing.
 * Thresholds compare with |gx| + |gy|, or with the Euclidean norm when
 * UseL2Norm is set; InterpolateNms == 1 interpolates the suppression; a
 * non-zero TrackEdges follows weak chains from strong pixels. Width 0 is
 * status 1. Src may equal Dest. */
QV_API int QV_Canny(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int LowThreshold,
                    int HighThreshold, unsigned char UseL2Norm, unsigned char InterpolateNms, unsigned char TrackEdges);
/* Frequency-tuned saliency map of a 3-channel image into a single-channel
 * Dest with rows of Width bytes, or of Width rounded up to 4 when RowPadded
 * is set. A 4-channel image gives status 1, other layouts 5. */
QV_API int QV_SalientRegionDetection_FT(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                        int Stride, unsigned char RowPadded);

#ifdef __cplusplus
}
#endif

#endif /* QUELVIN_H */
