// The registry table. Each export is one entry, grouped under the same family
// lines as the public header so that parallel additions merge cleanly.
#include "registry.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quelvin.h"

namespace qvtool {

namespace {

bool SameName(const char* a, const char* b) {
  for (; *a && *b; ++a, ++b)
    if (std::tolower(static_cast<unsigned char>(*a)) != std::tolower(static_cast<unsigned char>(*b))) return false;
  return *a == *b;
}

int ParamIndex(const std::vector<Param>& params, const char* name) {
  for (size_t k = 0; k < params.size(); ++k)
    if (SameName(params[k].name, name)) return int(k);
  // A registry entry asking for a parameter it did not declare is a bug in the table.
  std::fprintf(stderr, "internal error: registry entry uses undeclared parameter %s\n", name);
  std::abort();
}

using P = Param;
constexpr auto kInt = ParamType::Int;
constexpr auto kFloat = ParamType::Float;
constexpr auto kBool = ParamType::Bool;
constexpr auto kImage = ParamType::Image;

// A 512 x 512 colour table (blue picks the 64 x 64 tile, green the row, red
// the column), samples stored blue first: a warm, slightly faded tone.
Image WarmLut() {
  Image t = MakeImage(512, 512, 3);
  auto clamp = [](double v) { return static_cast<unsigned char>(v < 0 ? 0 : v > 255 ? 255 : v + 0.5); };
  for (int b6 = 0; b6 < 64; ++b6)
    for (int g6 = 0; g6 < 64; ++g6)
      for (int r6 = 0; r6 < 64; ++r6) {
        const double b = b6 * 255.0 / 63, g = g6 * 255.0 / 63, r = r6 * 255.0 / 63;
        unsigned char* p = t.ptr() + ((size_t((b6 / 8) * 64 + g6) * 512) + (b6 % 8) * 64 + r6) * 3;
        p[0] = clamp(12 + b * 0.80);
        p[1] = clamp(8 + g * 0.95);
        p[2] = clamp(20 + r * 1.02);
      }
  return t;
}

// The right-angle turns write a new size; quarter turns swap the sides.
int Turn(Call& c, int (*fn)(const unsigned char*, unsigned char*, int, int, int, int, int, int), bool quarter) {
  const int w = quarter ? c.H() : c.W(), h = quarter ? c.W() : c.H();
  c.dest = MakeImage(w, h, c.src.Channel);
  return fn(c.in(), c.out(), c.W(), c.H(), c.S(), w, h, c.dest.Stride());
}

// The global thresholds measure; the gallery shows the image cut at the value.
int MeasureThreshold(Call& c, int (*fn)(const unsigned char*, int, int, int, int*)) {
  constexpr int kUnwritten = -1;
  int t = kUnwritten;
  const int status = fn(c.in(), c.W(), c.H(), c.S(), &t);
  if (status != STATUS_OK) return status;
  if (t == kUnwritten) {
    c.result = "no threshold written (the operator leaves it alone for this histogram)";
    return status;
  }
  c.result = "threshold " + std::to_string(t);
  for (size_t i = 0; i < c.dest.data.size(); ++i) c.dest.data[i] = c.src.data[i] > t ? 255 : 0;
  c.illustrated = true;
  return status;
}

}  // namespace

int Call::Int(const char* name) const { return static_cast<int>(values[ParamIndex(params, name)]); }
float Call::Float(const char* name) const { return static_cast<float>(values[ParamIndex(params, name)]); }
unsigned char Call::Flag(const char* name) const { return values[ParamIndex(params, name)] != 0 ? 1 : 0; }
const Image& Call::Img(const char* name) const { return images[ParamIndex(params, name)]; }

const std::vector<Operator>& Registry() {
  static const std::vector<Operator> table = {
      // ---- point operators
      {"Invert",
       "point operators",
       "134",
       "255 - v on every sample; the fourth sample is kept",
       {},
       [](Call& c) { return QV_Invert(c.in(), c.out(), c.W(), c.H(), c.S()); }},
      {"GammaCorrection",
       "point operators",
       "34",
       "power curve on the three colour samples; Gamma below 1 brightens",
       {{"Gamma", kFloat, 0.05, 20, 1, "exponent of (v / 255)"}},
       [](Call& c) { return QV_GammaCorrection(c.in(), c.out(), c.W(), c.H(), c.S(), c.Float("Gamma")); },
       "Gamma=0.6"},
      {"Threshold",
       "point operators",
       "13",
       "v > Threshold gives 255, else 0, each sample alike",
       {{"Threshold", kInt, 0, 255, 127, "samples above it turn white (255 acts as 254)"}},
       [](Call& c) { return QV_Threshold(c.in(), c.out(), c.W(), c.H(), c.S(), c.Int("Threshold")); }},
      {"Lut2D",
       "point operators",
       "34",
       "colour look-up through a 512 x 512 table image (8 x 8 tiles of 64 x 64)",
       {{"Table", kImage, 3, 0, 1, "512 x 512 colour table; without it a built-in warm tone"}},
       [](Call& c) {
         const Image table = c.Given("Table") ? c.Img("Table") : WarmLut();
         if (table.Width != 512 || table.Height != 512 || table.Channel != 3)
           return c.Refuse("Table must be a 512 x 512 colour image");
         c.Restart();
         return QV_Lut2D(c.in(), table.ptr(), c.out(), c.W(), c.H(), c.S());
       }},
      {"AddImage",
       "point operators",
       "134",
       "saturating sum of two images",
       {{"Src2", kImage, 0, 0, 0, "second image, same size"}},
       [](Call& c) { return QV_AddImage(c.in(), c.Img("Src2").ptr(), c.out(), c.W(), c.H(), c.S()); }},
      {"SubtractImage",
       "point operators",
       "134",
       "saturating difference Src - Src2",
       {{"Src2", kImage, 0, 0, 0, "second image, same size"}},
       [](Call& c) { return QV_SubtractImage(c.in(), c.Img("Src2").ptr(), c.out(), c.W(), c.H(), c.S()); }},
      {"AbsDiffImage",
       "point operators",
       "134",
       "absolute difference of two images",
       {{"Src2", kImage, 0, 0, 0, "second image, same size"}},
       [](Call& c) { return QV_AbsDiffImage(c.in(), c.Img("Src2").ptr(), c.out(), c.W(), c.H(), c.S()); }},
      {"BlendTwoImage_LinearLight",
       "point operators",
       "134",
       "linear-light blend of Src2 over the image",
       {{"Src2", kImage, 0, 0, 0, "blend layer, same size"}},
       [](Call& c) { return QV_BlendTwoImage_LinearLight(c.in(), c.Img("Src2").ptr(), c.out(), c.W(), c.H(), c.S()); }},
      {"Exposal",
       "point operators",
       "134",
       "solarisation: samples above 127 become 255 - v",
       {},
       [](Call& c) { return QV_Exposal(c.in(), c.out(), c.W(), c.H(), c.S()); }},
      {"WhiteNoise",
       "point operators",
       "134",
       "fills the image with noise from rand() (the input gives only the size)",
       {},
       [](Call& c) { return QV_WhiteNoise(c.out(), c.W(), c.H(), c.S()); }},

      // ---- brightness, contrast, vibrance
      {"AdjustBrightnessAndContrast",
       "brightness, contrast, vibrance",
       "134",
       "brightness shift and contrast around the image mean",
       {{"Brightness", kInt, -255, 255, 0, "added to every sample"},
        {"Contrast", kInt, -100, 100, 20, "-100 flattens to the mean, 100 thresholds at it"}},
       [](Call& c) {
         return QV_AdjustBrightnessAndContrast(c.in(), c.out(), c.W(), c.H(), c.S(), c.Int("Brightness"),
                                               c.Int("Contrast"));
       },
       "Brightness=10 Contrast=40"},
      {"Vibrance",
       "brightness, contrast, vibrance",
       "34",
       "saturation change that favours weakly coloured pixels",
       {{"Amount", kInt, -100, 100, 50, "positive boosts, negative mutes"}},
       [](Call& c) { return QV_Vibrance(c.in(), c.out(), c.W(), c.H(), c.S(), c.Int("Amount")); },
       "Amount=80"},

      // ---- histogram adjustments
      {"AutoLevel",
       "histogram adjustments",
       "134",
       "stretches each channel between its clipped extremes",
       {{"Cutoff", kFloat, 0, 0.5, 0.005, "fraction of pixels clipped at each end"},
        {"AdjustGamma", kBool, 0, 1, 0, "power curve that brings the mean to mid-gray"}},
       [](Call& c) {
         return QV_AutoLevel(c.in(), c.out(), c.W(), c.H(), c.S(), c.Float("Cutoff"), c.Flag("AdjustGamma"));
       },
       "Cutoff=0.01"},
      {"AutoContrast",
       "histogram adjustments",
       "134",
       "stretches all channels alike between common clipped extremes",
       {{"Cutoff", kFloat, 0, 0.5, 0.005, "fraction of pixels clipped at each end"},
        {"AdjustGamma", kBool, 0, 1, 0, "power curve that brings the mean to mid-gray"}},
       [](Call& c) {
         return QV_AutoContrast(c.in(), c.out(), c.W(), c.H(), c.S(), c.Float("Cutoff"), c.Flag("AdjustGamma"));
       },
       "Cutoff=0.01"},
      {"AutoEnhanceColors",
       "histogram adjustments",
       "34",
       "pushes each colour sample away from the pixel's lightness",
       {},
       [](Call& c) { return QV_AutoEnhanceColors(c.in(), c.out(), c.W(), c.H(), c.S()); }},
      {"HistEqualize",
       "histogram adjustments",
       "134",
       "histogram equalisation per channel, mixed with the identity",
       {{"Linear", kBool, 0, 1, 0, "use the plain counts (0 damps peaks by a square root)"},
        {"Strength", kInt, 0, 100, 100, "percent of the equalising curve"}},
       [](Call& c) {
         return QV_HistEqualize(c.in(), c.out(), c.W(), c.H(), c.S(), c.Flag("Linear"), c.Int("Strength"));
       }},
      {"HistgramMatching",
       "histogram adjustments",
       "134",
       "maps each channel onto the histogram of a second image",
       {{"Target", kImage, 0, 0, 0, "image whose histograms are matched"}},
       [](Call& c) {
         int hist[4][256] = {};
         const Image& t = c.Img("Target");
         for (size_t i = 0; i < t.data.size(); ++i) ++hist[i % t.Channel][t.data[i]];
         c.Restart();
         return QV_HistgramMatching(c.in(), c.out(), c.W(), c.H(), c.S(), hist[0], hist[t.Channel > 1 ? 1 : 0],
                                    hist[t.Channel > 1 ? 2 : 0]);
       }},

      // ---- luminance, desaturation
      {"GetLuminance",
       "luminance, desaturation",
       "134",
       "one luminance byte per pixel (a gray image)",
       {{"RowPadded", kBool, 0, 1, 0, "rows padded to 4 bytes in the library's output (the file is packed)"}},
       [](Call& c) {
         const int step = c.Flag("RowPadded") ? ((c.W() * 8 + 31) / 32) * 4 : c.W();
         Image padded = MakeImage(step, c.H(), 1);
         const int status = QV_GetLuminance(c.in(), padded.ptr(), c.W(), c.H(), c.S(), c.Flag("RowPadded"));
         c.dest = MakeImage(c.W(), c.H(), 1);
         for (int y = 0; y < c.H(); ++y)
           std::copy_n(padded.ptr() + size_t(y) * step, c.W(), c.out() + size_t(y) * c.W());
         return status;
       }},
      {"Desaturate",
       "luminance, desaturation",
       "34",
       "gray (max + min) / 2 in the colour samples",
       {},
       [](Call& c) { return QV_Desaturate(c.in(), c.out(), c.W(), c.H(), c.S()); }},

      // ---- white balance
      {"AWB_GrayWorld",
       "white balance",
       "34",
       "gray-world white balance over the weakly coloured pixels",
       {{"Percent", kInt, 0, 100, 100, "pixels counted when (max - min) < max * Percent / 100; 100 all, 0 none"}},
       [](Call& c) { return QV_AWB_GrayWorld(c.in(), c.out(), c.W(), c.H(), c.S(), c.Int("Percent")); },
       "Percent=30"},

      // ---- box mean
      {"BoxBlur",
       "box mean",
       "134",
       "mean of the square window, cost independent of the radius",
       {{"Radius", kInt, 1, 1000, 5, "window half-side (limited to the image)"}},
       [](Call& c) { return QV_BoxBlur(c.in(), c.out(), c.W(), c.H(), c.S(), c.Int("Radius")); },
       "Radius=6"},
      {"AverageBlur",
       "box mean",
       "134",
       "every pixel becomes the image's mean colour",
       {},
       [](Call& c) { return QV_AverageBlur(c.in(), c.out(), c.W(), c.H(), c.S()); }},

      // ---- exponential and Gaussian blur
      {"ExpBlur",
       "exponential and Gaussian blur",
       "134",
       "recursive one-pole blur along rows and columns",
       {{"Radius", kInt, 1, 1000, 5, "decay length in pixels"}},
       [](Call& c) { return QV_ExpBlur(c.in(), c.out(), c.W(), c.H(), c.S(), c.Int("Radius")); },
       "Radius=6"},
      {"GaussBlur",
       "exponential and Gaussian blur",
       "134",
       "recursive Gaussian blur",
       {{"Radius", kFloat, 0.01, 1000, 3, "standard deviation in pixels"}},
       [](Call& c) { return QV_GaussBlur(c.in(), c.out(), c.W(), c.H(), c.S(), c.Float("Radius")); },
       "Radius=4"},

      // ---- median
      {"MedianBlur",
       "median",
       "134",
       "percentile of the square window; 50 is the median",
       {{"Radius", kInt, 1, 1000, 2, "window half-side"},
        {"Percent", kInt, 0, 100, 50, "rank as a percentile (0 minimum, 100 maximum)"}},
       [](Call& c) { return QV_MedianBlur(c.in(), c.out(), c.W(), c.H(), c.S(), c.Int("Radius"), c.Int("Percent")); },
       "Radius=3"},

      // ---- guided filters
      {"GuidedFilter",
       "guided filters",
       "134",
       "edge-preserving smoothing that keeps the edges of a guide image",
       {{"Guide", kImage, 0, 0, 0, "guide image, same size"},
        {"Radius", kInt, 1, 10000, 8, "window radius (raised to 4, limited to the image)"},
        {"ScaleRatio", kInt, 10, 100, 50, "working grid in percent of the image size"},
        {"Eps", kFloat, 0, 255, 20, "regularisation as a deviation in grey levels"}},
       [](Call& c) {
         return QV_GuidedFilter(c.in(), c.Img("Guide").ptr(), c.out(), c.W(), c.H(), c.S(), c.Int("Radius"),
                                c.Int("ScaleRatio"), c.Float("Eps"));
       }},
      {"SelfGuidedFilter",
       "guided filters",
       "134",
       "edge-preserving smoothing guided by the image itself",
       {{"Radius", kInt, 1, 10000, 8, "window radius (raised to 4, limited to the image)"},
        {"ScaleRatio", kInt, 10, 100, 50, "working grid in percent of the image size"},
        {"Eps", kFloat, 0, 255, 20, "regularisation as a deviation in grey levels"}},
       [](Call& c) {
         return QV_SelfGuidedFilter(c.in(), c.out(), c.W(), c.H(), c.S(), c.Int("Radius"), c.Int("ScaleRatio"),
                                    c.Float("Eps"));
       }},

      // ---- global thresholds
      {"GetOSTUThreshold",
       "global thresholds",
       "1",
       "Otsu's threshold: the largest between-class variance",
       {},
       [](Call& c) { return MeasureThreshold(c, QV_GetOSTUThreshold); },
       "",
       Output::Measure},
      {"GetMaxEntropyThreshold",
       "global thresholds",
       "1",
       "threshold of the largest summed entropy of the two classes",
       {},
       [](Call& c) { return MeasureThreshold(c, QV_GetMaxEntropyThreshold); },
       "",
       Output::Measure},
      {"GetIterativeBestThreshold",
       "global thresholds",
       "1",
       "threshold at the mean of the two class means, iterated",
       {},
       [](Call& c) { return MeasureThreshold(c, QV_GetIterativeBestThreshold); },
       "",
       Output::Measure},
      {"GetMinimumThreshold",
       "global thresholds",
       "1",
       "threshold at the valley of the smoothed bimodal histogram",
       {},
       [](Call& c) { return MeasureThreshold(c, QV_GetMinimumThreshold); },
       "",
       Output::Measure},
      {"GetHuangFuzzyThreshold",
       "global thresholds",
       "1",
       "Huang's fuzzy-entropy threshold",
       {},
       [](Call& c) { return MeasureThreshold(c, QV_GetHuangFuzzyThreshold); },
       "",
       Output::Measure},
      {"GetTriangleThreshold",
       "global thresholds",
       "1",
       "triangle threshold: farthest bin from the peak-to-end line",
       {},
       [](Call& c) { return MeasureThreshold(c, QV_GetTriangleThreshold); },
       "",
       Output::Measure},
      {"GetSimpleStatisticsThreshold",
       "global thresholds",
       "1",
       "mean weighted by the local gradient",
       {},
       [](Call& c) { return MeasureThreshold(c, QV_GetSimpleStatisticsThreshold); },
       "",
       Output::Measure},

      // ---- gray morphology
      {"MaxFilter",
       "gray morphology",
       "134",
       "largest sample of the square window (gray dilation)",
       {{"Radius", kInt, 0, 1000, 3, "window half-side"}},
       [](Call& c) { return QV_MaxFilter(c.in(), c.out(), c.W(), c.H(), c.S(), c.Int("Radius")); }},
      {"MinFilter",
       "gray morphology",
       "134",
       "smallest sample of the square window (gray erosion)",
       {{"Radius", kInt, 0, 1000, 3, "window half-side"}},
       [](Call& c) { return QV_MinFilter(c.in(), c.out(), c.W(), c.H(), c.S(), c.Int("Radius")); }},
      {"Open",
       "gray morphology",
       "134",
       "opening: minimum then maximum filter, removes bright details",
       {{"Radius", kInt, 0, 1000, 3, "window half-side"}},
       [](Call& c) { return QV_Open(c.in(), c.out(), c.W(), c.H(), c.S(), c.Int("Radius")); }},
      {"Close",
       "gray morphology",
       "134",
       "closing: maximum then minimum filter, removes dark details",
       {{"Radius", kInt, 0, 1000, 3, "window half-side"}},
       [](Call& c) { return QV_Close(c.in(), c.out(), c.W(), c.H(), c.S(), c.Int("Radius")); }},
      {"RangeFilter",
       "gray morphology",
       "134",
       "local range (maximum - minimum) of the window, scaled",
       {{"Radius", kInt, 0, 1000, 2, "window half-side"}, {"Amount", kInt, 0, 1000, 100, "percent of the range"}},
       [](Call& c) { return QV_RangeFilter(c.in(), c.out(), c.W(), c.H(), c.S(), c.Int("Radius"), c.Int("Amount")); },
       "Radius=2 Amount=200"},

      // ---- copy, flip, rotate, transpose
      {"Transpose",
       "copy, flip, rotate, transpose",
       "134",
       "swaps rows and columns",
       {},
       [](Call& c) {
         c.dest = MakeImage(c.H(), c.W(), c.src.Channel);
         return QV_Transpose(c.in(), c.out(), c.W(), c.H(), c.S(), c.H(), c.W(), c.dest.Stride());
       }},
      {"BitBlt",
       "copy, flip, rotate, transpose",
       "34",
       "copies a rectangle of a second image onto the image (alpha-composed with 4 channels)",
       {{"Src2", kImage, 0, 0, 0, "source image, same size"},
        {"DestX", kInt, -100000, 100000, 0, "left of the rectangle in the image"},
        {"DestY", kInt, -100000, 100000, 0, "top of the rectangle in the image"},
        {"BlitWidth", kInt, 0, 100000, 128, "rectangle width (clipped to both images)"},
        {"BlitHeight", kInt, 0, 100000, 128, "rectangle height (clipped to both images)"},
        {"SrcX", kInt, -100000, 100000, 0, "left of the rectangle in Src2"},
        {"SrcY", kInt, -100000, 100000, 0, "top of the rectangle in Src2"}},
       [](Call& c) {
         ImageRecord dest{c.dest.Width, c.dest.Height, c.dest.Stride(), c.out()};
         Image src2 = c.Img("Src2");  // the record's pointer is not const
         const ImageRecord src{src2.Width, src2.Height, src2.Stride(), src2.ptr()};
         c.Restart();
         return QV_BitBlt(&dest, c.Int("DestX"), c.Int("DestY"), c.Int("BlitWidth"), c.Int("BlitHeight"), &src,
                          c.Int("SrcX"), c.Int("SrcY"));
       },
       "DestX=96 DestY=64 BlitWidth=192 BlitHeight=128 SrcX=96 SrcY=64"},
      {"FlipLeftRight",
       "copy, flip, rotate, transpose",
       "134",
       "mirror image, left to right",
       {},
       [](Call& c) { return QV_FlipLeftRight(c.in(), c.out(), c.W(), c.H(), c.S()); }},
      {"FlipTopBottom",
       "copy, flip, rotate, transpose",
       "134",
       "mirror image, top to bottom",
       {},
       [](Call& c) { return QV_FlipTopBottom(c.in(), c.out(), c.W(), c.H(), c.S()); }},
      {"Rotate90",
       "copy, flip, rotate, transpose",
       "134",
       "quarter turn clockwise",
       {},
       [](Call& c) { return Turn(c, QV_Rotate90, true); }},
      {"Rotate180",
       "copy, flip, rotate, transpose",
       "134",
       "half turn",
       {},
       [](Call& c) { return Turn(c, QV_Rotate180, false); }},
      {"Rotate270",
       "copy, flip, rotate, transpose",
       "134",
       "quarter turn counter-clockwise",
       {},
       [](Call& c) { return Turn(c, QV_Rotate270, true); }},

      // ---- resample
      {"Resample",
       "resample",
       "134",
       "scales the image: nearest, bilinear or bicubic",
       {{"DestWidth", kInt, 0, 32768, 0, "output width; 0 from Scale (or DestHeight, keeping the aspect)"},
        {"DestHeight", kInt, 0, 32768, 0, "output height; 0 from Scale (or DestWidth, keeping the aspect)"},
        {"Scale", kFloat, 0.01, 16, 2, "size factor where neither size is given"},
        {"Mode", kInt, 0, 2, 1, "0 nearest, 1 bilinear, 2 bicubic"}},
       [](Call& c) {
         int w = c.Int("DestWidth"), h = c.Int("DestHeight");
         const double aspect = double(c.W()) / c.H();
         if (w == 0 && h == 0) w = int(c.W() * c.Float("Scale") + 0.5), h = int(c.H() * c.Float("Scale") + 0.5);
         if (w == 0) w = int(h * aspect + 0.5);
         if (h == 0) h = int(w / aspect + 0.5);
         w = std::max(w, 1), h = std::max(h, 1);
         if (int64_t(w) * c.src.Channel * h > INT_MAX) return c.Refuse("the output would be too large");
         c.dest = MakeImage(w, h, c.src.Channel);
         return QV_Resample(c.in(), c.out(), c.W(), c.H(), c.S(), w, h, c.dest.Stride(), c.Int("Mode"));
       },
       "Scale=0.2 Mode=0"},

      // ---- dehazing

      // ---- Retinex

      // ---- frequency filters
      {"ShowFFT",
       "frequency filters",
       "13",
       "log magnitude of the centred spectrum, stretched to 0..255",
       {},
       [](Call& c) { return QV_ShowFFT(c.in(), c.out(), c.W(), c.H(), c.S()); }},
      {"ShowFFT_Precise",
       "frequency filters",
       "134",
       "|Re| / 255 of the centred spectrum, unpadded",
       {},
       [](Call& c) { return QV_ShowFFT_Precise(c.in(), c.out(), c.W(), c.H(), c.S()); }},
      {"ButterworthLowPass",
       "frequency filters",
       "13",
       "Butterworth low pass in the frequency domain",
       {{"CutOff", kInt, 1, 10000, 30, "cut-off radius in frequency bins"}},
       [](Call& c) { return QV_ButterworthLowPass(c.in(), c.out(), c.W(), c.H(), c.S(), c.Int("CutOff")); },
       "CutOff=20"},
      {"HomomorphicFiltering",
       "frequency filters",
       "13",
       "log-domain filter of the luminance: evens the lighting, lifts detail",
       {{"CutOff", kFloat, 0.01, 10000, 30, "cut-off radius in frequency bins"},
        {"GammaHigh", kFloat, 0, 10, 1.5, "gain of high frequencies"},
        {"GammaLow", kFloat, 0, 10, 0.5, "gain of low frequencies"},
        {"Sharpness", kFloat, 0.01, 100, 1, "steepness of the transition"}},
       [](Call& c) {
         return QV_HomomorphicFiltering(c.in(), c.out(), c.W(), c.H(), c.S(), c.Float("CutOff"), c.Float("GammaHigh"),
                                        c.Float("GammaLow"), c.Float("Sharpness"));
       }},
      {"HighFrequencyEmphasizeFilter",
       "frequency filters",
       "13",
       "high-frequency emphasis: offset plus boosted high pass",
       {{"CutOff", kInt, 1, 10000, 30, "cut-off radius in frequency bins"},
        {"GainOffset", kInt, -1000, 1000, 50, "gain at frequency 0, in hundredths"},
        {"GainScale", kInt, -1000, 1000, 150, "added gain of high frequencies, in hundredths"}},
       [](Call& c) {
         return QV_HighFrequencyEmphasizeFilter(c.in(), c.out(), c.W(), c.H(), c.S(), c.Int("CutOff"),
                                                c.Int("GainOffset"), c.Int("GainScale"));
       }},
      {"BandPassFilter",
       "frequency filters",
       "13",
       "Gaussian band pass between two structure sizes, stretched",
       {{"FilterLarge", kInt, 1, 10000, 40, "structures larger than this (pixels) are removed"},
        {"FilterSmall", kInt, 0, 10000, 3, "structures smaller than this (pixels) are removed"},
        {"StripeMode", kInt, 0, 2, 0, "stripe suppression: 0 none, 1 columns, 2 rows"},
        {"StripeTolerance", kInt, 0, 100, 5, "stripe tolerance in percent"}},
       [](Call& c) {
         return QV_BandPassFilter(c.in(), c.out(), c.W(), c.H(), c.S(), c.Int("FilterLarge"), c.Int("FilterSmall"),
                                  c.Int("StripeMode"), c.Int("StripeTolerance"));
       }},

      // ---- pyramids

      // ---- sharpening

      // ---- edges and saliency
  };
  return table;
}

const Operator* FindOperator(const std::string& name) {
  const char* n = name.c_str();
  if ((n[0] == 'Q' || n[0] == 'q') && (n[1] == 'V' || n[1] == 'v') && n[2] == '_') n += 3;
  for (const Operator& op : Registry())
    if (SameName(op.name, n)) return &op;
  return nullptr;
}

bool AcceptsChannel(const Operator& op, int Channel) {
  return Channel >= 1 && Channel <= 9 && std::strchr(op.channels, '0' + Channel) != nullptr;
}

const char* StatusName(int status) {
  switch (status) {
    case STATUS_OK:
      return "STATUS_OK";
    case STATUS_INVALID_PARAMETER:
      return "STATUS_INVALID_PARAMETER";
    case STATUS_OUT_OF_MEMORY:
      return "STATUS_OUT_OF_MEMORY";
    case STATUS_NULL_REFERENCE:
      return "STATUS_NULL_REFERENCE";
    case STATUS_UNKNOWN_MODE:
      return "STATUS_UNKNOWN_MODE";
    case STATUS_NOT_SUPPORTED:
      return "STATUS_NOT_SUPPORTED";
    default:
      return "unknown status";
  }
}

RunResult RunOperator(const Operator& op, const Image& src, const std::vector<double>& values,
                      const std::vector<Image>& images, int repeat) {
  RunResult r;
  for (int k = 0; k < (repeat < 1 ? 1 : repeat); ++k) {
    Image dest = src;
    Call call{src, dest, op.params, values, images, {}, false, {}};
    call.Restart();
    const int status = op.run(call);
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - call.start).count();
    if (k == 0 || ms < r.ms) r.ms = ms;
    r.status = status;
    r.result = call.result;
    r.illustrated = call.illustrated;
    r.refusal = call.refusal;
    r.dest = std::move(dest);
    if (status != STATUS_OK) break;
  }
  return r;
}

}  // namespace qvtool
