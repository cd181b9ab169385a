// One row per implemented export (several rows where paths differ): how to
// call it on a given image, the shape of its Dest, whether it may run beside
// other calls, and how it reports exhausted memory. Shared by the reliability
// tests so that a new export is one new line here.
#pragma once

#include <vector>

#include "quelvin.h"

namespace qvr {

// One call's arguments. Src2 doubles as the guide or second source; Out takes
// a numeric result. Dest has its own sizes for the operators that take two.
struct Call {
  const unsigned char* Src;
  const unsigned char* Src2;
  unsigned char* Dest;
  int Width, Height, Stride;
  int DestWidth, DestHeight, DestStride;
  int* Out;
  const unsigned char* Table;  // the 512 x 512 colour table of QV_Lut2D
  const int* Target;           // three 256-bin histograms of QV_HistgramMatching
};

// Dest geometry: as Src; turned (sizes swapped, rows packed); scaled to other
// sizes; a single-channel plane of Width x Height; Dest is Src (in place).
enum class Shape { Same, Turned, Scaled, Plane, InPlace };

// Process-wide state per Part of the library: the FFT engine's tables, and
// the runtime library's random generator.
enum class Share { None, FFT, Random };

// How a failed allocation is reported.
enum class Oom {
  Status2,         // 2 and Dest untouched (the library's rule)
  Status2Partial,  // 2; an earlier stage may already have written Dest
  ExpBlur,         // 2; the first failure leaves Dest untouched, later ones the row half
  NullRef,         // 3 and Dest untouched (bicubic resample)
  Fft,             // the plane: 2, Dest untouched; the engine's own tables: unreported (0 or 2)
  RangeFilter,     // its own buffers: 0, nothing done; the nested filters: 2, both buffers lost
  Status2Or3,      // its planes: 2; the nested colour conversion's scratch: 3; Dest untouched
};

struct Export {
  const char* Name;
  Shape Geometry;
  Share Shared;
  Oom Memory;
  int (*Run)(const Call&);
};

inline const std::vector<Export>& Exports() {
  using S = Shape;
  using M = Oom;
  static const std::vector<Export> table = {
      // point operators
      {"QV_Invert", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_Invert(c.Src, c.Dest, c.Width, c.Height, c.Stride); }},
      {"QV_GammaCorrection", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_GammaCorrection(c.Src, c.Dest, c.Width, c.Height, c.Stride, 0.6f); }},
      {"QV_Threshold", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_Threshold(c.Src, c.Dest, c.Width, c.Height, c.Stride, 100); }},
      {"QV_Lut2D", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_Lut2D(c.Src, c.Table, c.Dest, c.Width, c.Height, c.Stride); }},
      {"QV_AddImage", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_AddImage(c.Src, c.Src2, c.Dest, c.Width, c.Height, c.Stride); }},
      {"QV_SubtractImage", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_SubtractImage(c.Src, c.Src2, c.Dest, c.Width, c.Height, c.Stride); }},
      {"QV_AbsDiffImage", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_AbsDiffImage(c.Src, c.Src2, c.Dest, c.Width, c.Height, c.Stride); }},
      {"QV_BlendTwoImage_LinearLight", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_BlendTwoImage_LinearLight(c.Src, c.Src2, c.Dest, c.Width, c.Height, c.Stride); }},
      {"QV_Exposal", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_Exposal(c.Src, c.Dest, c.Width, c.Height, c.Stride); }},
      {"QV_WhiteNoise", S::Same, Share::Random, M::Status2,
       [](const Call& c) { return QV_WhiteNoise(c.Dest, c.Width, c.Height, c.Stride); }},
      // brightness, contrast, vibrance
      {"QV_AdjustBrightnessAndContrast", S::Same, Share::None, M::Status2,
       [](const Call& c) {
         return QV_AdjustBrightnessAndContrast(c.Src, c.Dest, c.Width, c.Height, c.Stride, 20, 40);
       }},
      {"QV_Vibrance", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_Vibrance(c.Src, c.Dest, c.Width, c.Height, c.Stride, 60); }},
      // histogram adjustments
      {"QV_AutoLevel", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_AutoLevel(c.Src, c.Dest, c.Width, c.Height, c.Stride, 0.01f, 1); }},
      {"QV_AutoContrast", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_AutoContrast(c.Src, c.Dest, c.Width, c.Height, c.Stride, 0.02f, 0); }},
      {"QV_AutoEnhanceColors", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_AutoEnhanceColors(c.Src, c.Dest, c.Width, c.Height, c.Stride); }},
      {"QV_HistEqualize", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_HistEqualize(c.Src, c.Dest, c.Width, c.Height, c.Stride, 0, 70); }},
      {"QV_HistgramMatching", S::Same, Share::None, M::Status2,
       [](const Call& c) {
         return QV_HistgramMatching(c.Src, c.Dest, c.Width, c.Height, c.Stride, c.Target, c.Target + 256,
                                    c.Target + 512);
       }},
      // luminance, desaturation, white balance
      {"QV_GetLuminance", S::Plane, Share::None, M::Status2,
       [](const Call& c) { return QV_GetLuminance(c.Src, c.Dest, c.Width, c.Height, c.Stride, 0); }},
      {"QV_Desaturate", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_Desaturate(c.Src, c.Dest, c.Width, c.Height, c.Stride); }},
      {"QV_AWB_GrayWorld", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_AWB_GrayWorld(c.Src, c.Dest, c.Width, c.Height, c.Stride, 30); }},
      // smoothing
      {"QV_BoxBlur", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_BoxBlur(c.Src, c.Dest, c.Width, c.Height, c.Stride, 3); }},
      {"QV_AverageBlur", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_AverageBlur(c.Src, c.Dest, c.Width, c.Height, c.Stride); }},
      {"QV_ExpBlur", S::Same, Share::None, M::ExpBlur,
       [](const Call& c) { return QV_ExpBlur(c.Src, c.Dest, c.Width, c.Height, c.Stride, 4); }},
      {"QV_ExpBlur in place", S::InPlace, Share::None, M::ExpBlur,
       [](const Call& c) { return QV_ExpBlur(c.Dest, c.Dest, c.Width, c.Height, c.Stride, 4); }},
      {"QV_GaussBlur", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_GaussBlur(c.Src, c.Dest, c.Width, c.Height, c.Stride, 2.5f); }},
      {"QV_GaussBlur in place", S::InPlace, Share::None, M::Status2,
       [](const Call& c) { return QV_GaussBlur(c.Dest, c.Dest, c.Width, c.Height, c.Stride, 2.5f); }},
      {"QV_MedianBlur", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_MedianBlur(c.Src, c.Dest, c.Width, c.Height, c.Stride, 3, 50); }},
      {"QV_MedianBlur radius 1", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_MedianBlur(c.Src, c.Dest, c.Width, c.Height, c.Stride, 1, 30); }},
      {"QV_GuidedFilter", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_GuidedFilter(c.Src, c.Src2, c.Dest, c.Width, c.Height, c.Stride, 6, 30, 20.0f); }},
      {"QV_SelfGuidedFilter", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_SelfGuidedFilter(c.Src, c.Dest, c.Width, c.Height, c.Stride, 5, 100, 10.0f); }},
      // global thresholds (the result goes to Out)
      {"QV_GetOSTUThreshold", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_GetOSTUThreshold(c.Src, c.Width, c.Height, c.Stride, c.Out); }},
      {"QV_GetMaxEntropyThreshold", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_GetMaxEntropyThreshold(c.Src, c.Width, c.Height, c.Stride, c.Out); }},
      {"QV_GetIterativeBestThreshold", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_GetIterativeBestThreshold(c.Src, c.Width, c.Height, c.Stride, c.Out); }},
      {"QV_GetMinimumThreshold", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_GetMinimumThreshold(c.Src, c.Width, c.Height, c.Stride, c.Out); }},
      {"QV_GetHuangFuzzyThreshold", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_GetHuangFuzzyThreshold(c.Src, c.Width, c.Height, c.Stride, c.Out); }},
      {"QV_GetTriangleThreshold", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_GetTriangleThreshold(c.Src, c.Width, c.Height, c.Stride, c.Out); }},
      {"QV_GetSimpleStatisticsThreshold", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_GetSimpleStatisticsThreshold(c.Src, c.Width, c.Height, c.Stride, c.Out); }},
      // gray morphology
      {"QV_MaxFilter", S::Same, Share::None, M::Status2Partial,
       [](const Call& c) { return QV_MaxFilter(c.Src, c.Dest, c.Width, c.Height, c.Stride, 3); }},
      {"QV_MinFilter in place", S::InPlace, Share::None, M::Status2Partial,
       [](const Call& c) { return QV_MinFilter(c.Dest, c.Dest, c.Width, c.Height, c.Stride, 2); }},
      {"QV_Open", S::Same, Share::None, M::Status2Partial,
       [](const Call& c) { return QV_Open(c.Src, c.Dest, c.Width, c.Height, c.Stride, 2); }},
      {"QV_Close", S::Same, Share::None, M::Status2Partial,
       [](const Call& c) { return QV_Close(c.Src, c.Dest, c.Width, c.Height, c.Stride, 1); }},
      {"QV_RangeFilter", S::Same, Share::None, M::RangeFilter,
       [](const Call& c) { return QV_RangeFilter(c.Src, c.Dest, c.Width, c.Height, c.Stride, 2, 150); }},
      // geometry
      {"QV_BitBlt", S::Scaled, Share::None, M::Status2,
       [](const Call& c) {
         ImageRecord d{c.DestWidth, c.DestHeight, c.DestStride, c.Dest};
         ImageRecord s{c.Width, c.Height, c.Stride, const_cast<unsigned char*>(c.Src)};
         return QV_BitBlt(&d, 3, 2, c.Width - 2, c.Height, &s, 0, 1);
       }},
      {"QV_FlipLeftRight", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_FlipLeftRight(c.Src, c.Dest, c.Width, c.Height, c.Stride); }},
      {"QV_FlipLeftRight in place", S::InPlace, Share::None, M::Status2,
       [](const Call& c) { return QV_FlipLeftRight(c.Dest, c.Dest, c.Width, c.Height, c.Stride); }},
      {"QV_FlipTopBottom in place", S::InPlace, Share::None, M::Status2,
       [](const Call& c) { return QV_FlipTopBottom(c.Dest, c.Dest, c.Width, c.Height, c.Stride); }},
      {"QV_Rotate90", S::Turned, Share::None, M::Status2,
       [](const Call& c) {
         return QV_Rotate90(c.Src, c.Dest, c.Width, c.Height, c.Stride, c.DestWidth, c.DestHeight, c.DestStride);
       }},
      {"QV_Rotate180 in place", S::InPlace, Share::None, M::Status2,
       [](const Call& c) {
         return QV_Rotate180(c.Dest, c.Dest, c.Width, c.Height, c.Stride, c.Width, c.Height, c.Stride);
       }},
      {"QV_Rotate270", S::Turned, Share::None, M::Status2,
       [](const Call& c) {
         return QV_Rotate270(c.Src, c.Dest, c.Width, c.Height, c.Stride, c.DestWidth, c.DestHeight, c.DestStride);
       }},
      {"QV_Transpose", S::Turned, Share::None, M::Status2,
       [](const Call& c) {
         return QV_Transpose(c.Src, c.Dest, c.Width, c.Height, c.Stride, c.DestWidth, c.DestHeight, c.DestStride);
       }},
      {"QV_Resample nearest", S::Scaled, Share::None, M::Status2,
       [](const Call& c) {
         return QV_Resample(c.Src, c.Dest, c.Width, c.Height, c.Stride, c.DestWidth, c.DestHeight, c.DestStride, 0);
       }},
      {"QV_Resample bilinear", S::Scaled, Share::None, M::Status2,
       [](const Call& c) {
         return QV_Resample(c.Src, c.Dest, c.Width, c.Height, c.Stride, c.DestWidth, c.DestHeight, c.DestStride, 1);
       }},
      {"QV_Resample bicubic", S::Scaled, Share::None, M::NullRef,
       [](const Call& c) {
         return QV_Resample(c.Src, c.Dest, c.Width, c.Height, c.Stride, c.DestWidth, c.DestHeight, c.DestStride, 2);
       }},
      // frequency filters
      {"QV_ShowFFT", S::Same, Share::FFT, M::Fft,
       [](const Call& c) { return QV_ShowFFT(c.Src, c.Dest, c.Width, c.Height, c.Stride); }},
      {"QV_ShowFFT_Precise", S::Same, Share::FFT, M::Fft,
       [](const Call& c) { return QV_ShowFFT_Precise(c.Src, c.Dest, c.Width, c.Height, c.Stride); }},
      {"QV_ButterworthLowPass", S::Same, Share::FFT, M::Fft,
       [](const Call& c) { return QV_ButterworthLowPass(c.Src, c.Dest, c.Width, c.Height, c.Stride, 9); }},
      {"QV_HomomorphicFiltering", S::Same, Share::FFT, M::Fft,
       [](const Call&
              c) { return QV_HomomorphicFiltering(c.Src, c.Dest, c.Width, c.Height, c.Stride, 12.0f, 1.6f, 0.6f, 1.0f); }},
      {"QV_HighFrequencyEmphasizeFilter", S::Same, Share::FFT, M::Fft,
       [](const Call&
              c) { return QV_HighFrequencyEmphasizeFilter(c.Src, c.Dest, c.Width, c.Height, c.Stride, 10, 50, 150); }},
      {"QV_BandPassFilter", S::Same, Share::FFT, M::Fft,
       [](const Call& c) { return QV_BandPassFilter(c.Src, c.Dest, c.Width, c.Height, c.Stride, 20, 3, 1, 5); }},
      // pyramids
      {"LaplacePyramidTest", S::Same, Share::None, M::Status2,
       [](const Call& c) { return LaplacePyramidTest(c.Src, c.Dest, c.Width, c.Height, c.Stride, 4); }},
      // edges and saliency
      {"QV_Sobel", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_Sobel(c.Src, c.Dest, c.Width, c.Height, c.Stride); }},
      {"QV_Sobel in place", S::InPlace, Share::None, M::Status2,
       [](const Call& c) { return QV_Sobel(c.Dest, c.Dest, c.Width, c.Height, c.Stride); }},
      {"QV_Canny", S::Same, Share::None, M::Status2,
       [](const Call& c) { return QV_Canny(c.Src, c.Dest, c.Width, c.Height, c.Stride, 30, 90, 0, 1, 1); }},
      {"QV_Canny L2", S::InPlace, Share::None, M::Status2,
       [](const Call& c) { return QV_Canny(c.Dest, c.Dest, c.Width, c.Height, c.Stride, 20, 60, 1, 0, 1); }},
      {"QV_SalientRegionDetection_FT", S::Plane, Share::None, M::Status2Or3,
       [](const Call& c) { return QV_SalientRegionDetection_FT(c.Src, c.Dest, c.Width, c.Height, c.Stride, 0); }},
  };
  return table;
}

}  // namespace qvr
