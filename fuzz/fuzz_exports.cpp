// Fuzz driver over every implemented export: the input picks the export, the
// sizes, strides, channel count, parameters (in and out of range, NaN) and
// whether Src is Dest, on heap buffers of exactly Height * Stride bytes.
// Built for libFuzzer, or with QV_FUZZ_STANDALONE as a seeded random driver.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "quelvin.h"

namespace {

// Reads the fuzzer's bytes as a stream of choices; once they run out every
// choice is its lowest value, so any input decodes to some call.
class Decoder {
 public:
  Decoder(const uint8_t* Data, size_t Size) : data_(Data), size_(Size) {}

  uint32_t Bits32() {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v = (v << 8) | Byte();
    return v;
  }
  // Uniform enough in [lo, hi] (hi - lo below 2^32).
  int Range(int lo, int hi) {
    const uint64_t span = static_cast<uint64_t>(static_cast<int64_t>(hi) - lo) + 1;
    uint32_t v = span <= 256 ? Byte() : (span <= 65536 ? (Byte() << 8 | Byte()) : Bits32());
    return static_cast<int>(lo + static_cast<int64_t>(v % span));
  }
  bool Chance(int OneIn) { return Range(0, OneIn - 1) == 0; }
  uint8_t Byte() { return pos_ < size_ ? data_[pos_++] : 0; }
  bool Exhausted() const { return pos_ >= size_; }

  // An integer argument: mostly in its range, sometimes at or past its ends,
  // sometimes anything at all.
  int Int(int lo, int hi) {
    switch (Range(0, 15)) {
      case 0:
        return static_cast<int>(Bits32());
      case 1:
        return lo > std::numeric_limits<int>::min() + 1000 ? lo - Range(1, 1000) : lo;
      case 2:
        return hi < std::numeric_limits<int>::max() - 1000 ? hi + Range(1, 1000) : hi;
      case 3:
        return lo;
      case 4:
        return hi;
      default:
        return Range(lo, hi);
    }
  }
  // A float argument: mostly in range, sometimes NaN, infinities, negatives,
  // or any bit pattern.
  float Float(float lo, float hi) {
    switch (Range(0, 15)) {
      case 0:
        return std::numeric_limits<float>::quiet_NaN();
      case 1:
        return std::numeric_limits<float>::infinity();
      case 2:
        return -std::numeric_limits<float>::infinity();
      case 3: {
        uint32_t b = Bits32();
        float f;
        std::memcpy(&f, &b, sizeof f);
        return f;
      }
      case 4:
        return -Range(0, 1000) / 7.0f;
      case 5:
        return lo;
      case 6:
        return hi;
      default:
        return lo + (hi - lo) * (Range(0, 65535) / 65535.0f);
    }
  }
  unsigned char Flag() {
    return Chance(8) ? static_cast<unsigned char>(Byte()) : static_cast<unsigned char>(Range(0, 1));
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

// A heap block of exactly Bytes bytes (a zero-sized block for sizes that
// describe no memory), so the address sanitizer sees any access outside it.
struct Block {
  unsigned char* p = nullptr;
  size_t n = 0;
  Block() = default;
  explicit Block(long long Bytes, uint32_t Seed) {
    n = Bytes > 0 ? static_cast<size_t>(Bytes) : 0;
    p = static_cast<unsigned char*>(std::malloc(n));
    uint32_t s = Seed * 2654435761u + 1;
    for (size_t i = 0; i < n; ++i) {
      s = s * 1664525u + 1013904223u;
      p[i] = static_cast<unsigned char>(s >> 24);
    }
    // Flat stretches as well as noise: many operators branch on flat input.
    if (n > 0 && (Seed & 3) == 0) std::memset(p, static_cast<int>(Seed >> 8), n / 2);
  }
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;
  ~Block() { std::free(p); }
};

// One image: sizes as passed and the block that backs them.
struct Image {
  int Width = 1, Height = 1, Stride = 1;
  Block* Mem = nullptr;
  unsigned char* Data() const { return Mem->p; }
};

// Which frame a row has: the frames that divide first fault on a Width of 0
// and must never be given one; the guarded ones take it.
enum Frame { kDivides, kGuarded };

struct Context {
  Decoder& In;
  Image Src, Src2, Dest;  // Dest may be Src (in place)
  int Out;
};

using Runner = int (*)(Context&);

struct Row {
  const char* Name;
  Frame Kind;
  bool InPlace;  // Src may be Dest
  // Dest geometry: 0 as Src, 1 turned (sizes swapped), 2 free sizes, 3 single-channel
  // plane, 4 plane of Width bytes or rows padded to 4
  int DestShape;
  Runner Run;
};

#define SRC c.Src.Data(), c.Dest.Data(), c.Src.Width, c.Src.Height, c.Src.Stride
#define SRC2 c.Src.Data(), c.Src2.Data(), c.Dest.Data(), c.Src.Width, c.Src.Height, c.Src.Stride
#define TWO \
  c.Src.Data(), c.Dest.Data(), c.Src.Width, c.Src.Height, c.Src.Stride, c.Dest.Width, c.Dest.Height, c.Dest.Stride

const Row kRows[] = {
    // point operators
    {"QV_Invert", kDivides, true, 0, [](Context& c) { return QV_Invert(SRC); }},
    {"QV_GammaCorrection", kDivides, true, 0, [](Context& c) { return QV_GammaCorrection(SRC, c.In.Float(0.1f, 5)); }},
    {"QV_Threshold", kDivides, true, 0, [](Context& c) { return QV_Threshold(SRC, c.In.Int(0, 255)); }},
    {"QV_Lut2D", kDivides, true, 0,
     [](Context& c) {
       // The table is exactly its 786432 bytes on the heap.
       Block table(512 * 512 * 3, c.In.Byte());
       return QV_Lut2D(c.Src.Data(), table.p, c.Dest.Data(), c.Src.Width, c.Src.Height, c.Src.Stride);
     }},
    {"QV_AddImage", kDivides, true, 0, [](Context& c) { return QV_AddImage(SRC2); }},
    {"QV_SubtractImage", kDivides, true, 0, [](Context& c) { return QV_SubtractImage(SRC2); }},
    {"QV_AbsDiffImage", kDivides, true, 0, [](Context& c) { return QV_AbsDiffImage(SRC2); }},
    {"QV_BlendTwoImage_LinearLight", kDivides, true, 0, [](Context& c) { return QV_BlendTwoImage_LinearLight(SRC2); }},
    {"QV_Exposal", kDivides, true, 0, [](Context& c) { return QV_Exposal(SRC); }},
    {"QV_WhiteNoise", kDivides, false, 0,
     [](Context& c) { return QV_WhiteNoise(c.Dest.Data(), c.Src.Width, c.Src.Height, c.Src.Stride); }},
    // brightness, contrast, vibrance
    {"QV_AdjustBrightnessAndContrast", kDivides, true, 0,
     [](Context& c) {
       const int b = c.In.Int(-255, 255);
       return QV_AdjustBrightnessAndContrast(SRC, b, c.In.Int(-100, 100));
     }},
    {"QV_Vibrance", kDivides, true, 0, [](Context& c) { return QV_Vibrance(SRC, c.In.Int(-100, 100)); }},
    // histogram adjustments
    {"QV_AutoLevel", kDivides, true, 0,
     [](Context& c) {
       const float cut = c.In.Float(0, 0.1f);
       return QV_AutoLevel(SRC, cut, c.In.Flag());
     }},
    {"QV_AutoContrast", kDivides, true, 0,
     [](Context& c) {
       const float cut = c.In.Float(0, 0.1f);
       return QV_AutoContrast(SRC, cut, c.In.Flag());
     }},
    {"QV_AutoEnhanceColors", kDivides, true, 0, [](Context& c) { return QV_AutoEnhanceColors(SRC); }},
    {"QV_HistEqualize", kDivides, true, 0,
     [](Context& c) {
       const unsigned char linear = c.In.Flag();
       return QV_HistEqualize(SRC, linear, c.In.Int(0, 100));
     }},
    {"QV_HistgramMatching", kDivides, true, 0,
     [](Context& c) {
       // Three heap histograms of exactly 256 bins each.
       int* t[3];
       for (auto& h : t) {
         h = static_cast<int*>(std::malloc(256 * sizeof(int)));
         const int top = c.In.Chance(4) ? c.In.Int(0, 1 << 20) : c.In.Range(0, 1000);
         for (int i = 0; i < 256; ++i) h[i] = c.In.Chance(16) ? c.In.Int(-1000, top) : c.In.Range(0, top > 0 ? top : 0);
       }
       const int r = QV_HistgramMatching(SRC, t[0], t[1], t[2]);
       for (auto& h : t) std::free(h);
       return r;
     }},
    // luminance, desaturation, white balance
    {"QV_GetLuminance", kDivides, false, 4,
     [](Context& c) { return QV_GetLuminance(SRC, c.Dest.Stride != c.Src.Width); }},
    {"QV_Desaturate", kDivides, true, 0, [](Context& c) { return QV_Desaturate(SRC); }},
    {"QV_AWB_GrayWorld", kDivides, true, 0, [](Context& c) { return QV_AWB_GrayWorld(SRC, c.In.Int(0, 100)); }},
    // smoothing
    {"QV_BoxBlur", kDivides, false, 0, [](Context& c) { return QV_BoxBlur(SRC, c.In.Int(1, 100)); }},
    {"QV_AverageBlur", kDivides, true, 0, [](Context& c) { return QV_AverageBlur(SRC); }},
    {"QV_ExpBlur", kDivides, true, 0, [](Context& c) { return QV_ExpBlur(SRC, c.In.Int(1, 100)); }},
    {"QV_GaussBlur", kDivides, true, 0, [](Context& c) { return QV_GaussBlur(SRC, c.In.Float(0.1f, 60)); }},
    {"QV_MedianBlur", kDivides, false, 0,
     [](Context& c) {
       const int r = c.In.Int(1, 60);
       return QV_MedianBlur(SRC, r, c.In.Int(0, 100));
     }},
    {"QV_GuidedFilter", kDivides, true, 0,
     [](Context& c) {
       const int r = c.In.Int(1, 60), scale = c.In.Int(10, 100);
       const unsigned char* guide = c.In.Chance(4) ? c.Src.Data() : c.Src2.Data();
       return QV_GuidedFilter(c.Src.Data(), guide, c.Dest.Data(), c.Src.Width, c.Src.Height, c.Src.Stride, r, scale,
                              c.In.Float(0, 100));
     }},
    {"QV_SelfGuidedFilter", kDivides, true, 0,
     [](Context& c) {
       const int r = c.In.Int(1, 60), scale = c.In.Int(10, 100);
       return QV_SelfGuidedFilter(SRC, r, scale, c.In.Float(0, 100));
     }},
    // global thresholds: guarded frames, the result through an untested pointer
    {"QV_GetOSTUThreshold", kGuarded, false, 0,
     [](Context& c) { return QV_GetOSTUThreshold(c.Src.Data(), c.Src.Width, c.Src.Height, c.Src.Stride, &c.Out); }},
    {"QV_GetMaxEntropyThreshold", kGuarded, false, 0,
     [](Context& c) {
       return QV_GetMaxEntropyThreshold(c.Src.Data(), c.Src.Width, c.Src.Height, c.Src.Stride, &c.Out);
     }},
    {"QV_GetIterativeBestThreshold", kGuarded, false, 0,
     [](Context& c) {
       return QV_GetIterativeBestThreshold(c.Src.Data(), c.Src.Width, c.Src.Height, c.Src.Stride, &c.Out);
     }},
    {"QV_GetMinimumThreshold", kGuarded, false, 0,
     [](Context& c) { return QV_GetMinimumThreshold(c.Src.Data(), c.Src.Width, c.Src.Height, c.Src.Stride, &c.Out); }},
    {"QV_GetHuangFuzzyThreshold", kGuarded, false, 0,
     [](Context& c) {
       return QV_GetHuangFuzzyThreshold(c.Src.Data(), c.Src.Width, c.Src.Height, c.Src.Stride, &c.Out);
     }},
    {"QV_GetTriangleThreshold", kGuarded, false, 0,
     [](Context& c) { return QV_GetTriangleThreshold(c.Src.Data(), c.Src.Width, c.Src.Height, c.Src.Stride, &c.Out); }},
    {"QV_GetSimpleStatisticsThreshold", kGuarded, false, 0,
     [](Context& c) {
       return QV_GetSimpleStatisticsThreshold(c.Src.Data(), c.Src.Width, c.Src.Height, c.Src.Stride, &c.Out);
     }},
    // gray morphology
    {"QV_MaxFilter", kDivides, true, 0, [](Context& c) { return QV_MaxFilter(SRC, c.In.Int(0, 100)); }},
    {"QV_MinFilter", kDivides, true, 0, [](Context& c) { return QV_MinFilter(SRC, c.In.Int(0, 100)); }},
    {"QV_Open", kDivides, false, 0, [](Context& c) { return QV_Open(SRC, c.In.Int(0, 100)); }},
    {"QV_Close", kDivides, false, 0, [](Context& c) { return QV_Close(SRC, c.In.Int(0, 100)); }},
    {"QV_RangeFilter", kDivides, false, 0,
     [](Context& c) {
       const int r = c.In.Int(0, 100);
       return QV_RangeFilter(SRC, r, c.In.Int(0, 400));
     }},
    // geometry
    {"QV_BitBlt", kDivides, false, 2,
     [](Context& c) {
       ImageRecord d{c.Dest.Width, c.Dest.Height, c.Dest.Stride, c.Dest.Data()};
       ImageRecord s{c.Src.Width, c.Src.Height, c.Src.Stride, c.Src.Data()};
       const int dx = c.In.Int(-80, 200), dy = c.In.Int(-80, 200), bw = c.In.Int(-5, 300), bh = c.In.Int(-5, 300);
       const int sx = c.In.Int(-80, 200), sy = c.In.Int(-80, 200);
       return QV_BitBlt(&d, dx, dy, bw, bh, &s, sx, sy);
     }},
    {"QV_FlipLeftRight", kDivides, true, 0, [](Context& c) { return QV_FlipLeftRight(SRC); }},
    {"QV_FlipTopBottom", kDivides, true, 0, [](Context& c) { return QV_FlipTopBottom(SRC); }},
    {"QV_Rotate90", kDivides, false, 1, [](Context& c) { return QV_Rotate90(TWO); }},
    {"QV_Rotate180", kDivides, true, 0,
     [](Context& c) {
       return QV_Rotate180(c.Src.Data(), c.Dest.Data(), c.Src.Width, c.Src.Height, c.Src.Stride, c.Dest.Width,
                           c.Dest.Height, c.Dest.Stride);
     }},
    {"QV_Rotate270", kDivides, false, 1, [](Context& c) { return QV_Rotate270(TWO); }},
    {"QV_Transpose", kDivides, false, 1, [](Context& c) { return QV_Transpose(TWO); }},
    {"QV_Resample", kDivides, false, 2, [](Context& c) { return QV_Resample(TWO, c.In.Int(0, 2)); }},
    // frequency filters
    {"QV_ShowFFT", kDivides, false, 0, [](Context& c) { return QV_ShowFFT(SRC); }},
    {"QV_ShowFFT_Precise", kDivides, false, 0, [](Context& c) { return QV_ShowFFT_Precise(SRC); }},
    {"QV_ButterworthLowPass", kDivides, false, 0,
     [](Context& c) { return QV_ButterworthLowPass(SRC, c.In.Int(1, 200)); }},
    {"QV_HomomorphicFiltering", kDivides, false, 0,
     [](Context& c) {
       const float cut = c.In.Float(1, 200), hi = c.In.Float(0, 3), lo = c.In.Float(0, 1);
       return QV_HomomorphicFiltering(SRC, cut, hi, lo, c.In.Float(0, 5));
     }},
    {"QV_HighFrequencyEmphasizeFilter", kDivides, false, 0,
     [](Context& c) {
       const int cut = c.In.Int(1, 200), off = c.In.Int(0, 300);
       return QV_HighFrequencyEmphasizeFilter(SRC, cut, off, c.In.Int(0, 300));
     }},
    {"QV_BandPassFilter", kDivides, false, 0,
     [](Context& c) {
       const int large = c.In.Int(1, 200), small = c.In.Int(0, 50), mode = c.In.Int(0, 2);
       return QV_BandPassFilter(SRC, large, small, mode, c.In.Int(0, 100));
     }},
    // pyramids
    {"QV_GetMaxPyramidLevel", kGuarded, false, 0,
     [](Context& c) {
       const int levels = QV_GetMaxPyramidLevel(c.Src.Width, c.Src.Height, c.In.Int(1, 64));
       return levels >= 0 && levels <= 32 ? STATUS_OK : -1;  // a count, not a status
     }},
    {"LaplacePyramidTest", kDivides, true, 0, [](Context& c) { return LaplacePyramidTest(SRC, c.In.Int(1, 12)); }},
    // edges and saliency
    {"QV_Sobel", kDivides, true, 0, [](Context& c) { return QV_Sobel(SRC); }},
    {"QV_Canny", kGuarded, true, 0,
     [](Context& c) {
       const int low = c.In.Int(0, 1000), high = c.In.Int(0, 1000);
       const unsigned char l2 = c.In.Flag(), interpolate = c.In.Flag();
       return QV_Canny(SRC, low, high, l2, interpolate, c.In.Flag());
     }},
    {"QV_SalientRegionDetection_FT", kDivides, false, 4,
     [](Context& c) { return QV_SalientRegionDetection_FT(SRC, c.Dest.Stride != c.Src.Width); }},
};
constexpr int kRowCount = sizeof(kRows) / sizeof(kRows[0]);

#undef SRC
#undef SRC2
#undef TWO

// Sizes of one image: Width and Height, a channel count (mostly 1, 3, 4,
// sometimes one no operator takes), and padding below Width.
void DecodeSizes(Decoder& in, Frame Kind, bool Packed, bool BigOk, int& Width, int& Height, int& Stride) {
  const bool big = in.Chance(16) && BigOk;
  Width = in.Range(1, big ? 1100 : 70);
  Height = in.Range(1, big ? 300 : 40);
  static const int kChannels[] = {1, 3, 4, 1, 3, 4, 1, 3, 4, 2, 5, 0};
  const int channel = kChannels[in.Range(0, 11)];
  const int pad = Packed || in.Chance(2) ? 0 : in.Range(0, Width - 1);
  Stride = Width * channel + pad;
  switch (in.Range(0, 31)) {  // sizes no image has: every frame must refuse them untouched
    case 0:
      Height = -in.Range(0, 5);
      break;
    case 1:
      Width = -in.Range(1, 5);  // a negative Width divides without a fault
      break;
    case 2:
      if (Kind == kGuarded) Width = 0;  // only the guarded frames take a Width of 0
      break;
    case 3:
      Stride = -Stride;
      break;
    default:
      break;
  }
}

long long Bytes(int Height, int Stride) {
  return Height > 0 && Stride > 0 ? static_cast<long long>(Height) * Stride : 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  Decoder in(Data, Size);
  const Row& row = kRows[in.Range(0, kRowCount - 1)];
  Context c{in, {}, {}, {}, -777};
  const bool packed = row.DestShape == 1;  // four-channel turns need packed rows
  // The unpadded spectrum view transforms prime lengths directly, in time
  // quadratic in the side: large images would only measure that.
  const bool big_ok = std::strcmp(row.Name, "QV_ShowFFT_Precise") != 0;
  DecodeSizes(in, row.Kind, packed, big_ok, c.Src.Width, c.Src.Height, c.Src.Stride);
  const uint32_t seed = in.Bits32();
  Block src(Bytes(c.Src.Height, c.Src.Stride), seed);
  Block src2(Bytes(c.Src.Height, c.Src.Stride), seed + 1);
  c.Src.Mem = &src;
  c.Src2 = c.Src;
  c.Src2.Mem = &src2;

  // Dest: the same sizes, or Src itself, or sizes of its own.
  c.Dest = c.Src;
  const int channel = c.Src.Width > 0 ? c.Src.Stride / c.Src.Width : 0;
  switch (row.DestShape) {
    case 1:
      // The turns read DestWidth rows of Src and write DestHeight rows:
      // sizes that fit, or (for the rotations, which compare them) do not.
      c.Dest.Width = c.Src.Height;
      c.Dest.Height = c.Src.Width;
      if (std::strcmp(row.Name, "QV_Transpose") == 0 && in.Chance(4)) {
        c.Dest.Width = in.Range(1, c.Src.Height > 0 ? c.Src.Height : 1);
        c.Dest.Height = in.Range(1, c.Src.Width > 0 ? c.Src.Width : 1);
      } else if (in.Chance(8)) {
        c.Dest.Width += in.Range(-1, 1);
        c.Dest.Height += in.Range(-1, 1);
      }
      if (std::strcmp(row.Name, "QV_Transpose") == 0) {
        // QV_Transpose compares no sizes: its Src must hold DestWidth rows of
        // DestHeight pixels, which is the caller's side of its contract.
        c.Dest.Width = std::min(c.Dest.Width, c.Src.Height);
        c.Dest.Height = std::min(c.Dest.Height, c.Src.Width);
      }
      c.Dest.Stride = c.Dest.Width * channel;
      break;
    case 2: {
      int w, h, s;
      DecodeSizes(in, row.Kind, false, true, w, h, s);
      c.Dest.Width = w;
      c.Dest.Height = h;
      // The destination's channel count is the source's (keeping the padding
      // drawn), except for the blit, whose two images have their own.
      // A drawn stride may be negative: keep the padding in 0 .. w - 1.
      c.Dest.Stride = std::strcmp(row.Name, "QV_BitBlt") == 0 || w <= 0 ? s : w * channel + ((s % w) + w) % w;
      break;
    }
    case 3:
      c.Dest.Stride = c.Src.Width;
      break;
    case 4:  // a plane of Width bytes a row, or rows padded to 4 bytes
      c.Dest.Stride = in.Chance(2) ? c.Src.Width : ((c.Src.Width * 8 + 31) / 32) * 4;
      break;
    default:
      break;
  }
  Block dest(Bytes(c.Dest.Height, c.Dest.Stride), seed + 2);
  c.Dest.Mem = &dest;
  if (row.InPlace && row.DestShape == 0 && in.Chance(3)) c.Dest.Mem = &src;

  // A Width of 0 faults by design in the frames that divide first; never
  // hand them one. (DecodeSizes gives it to guarded frames only.)
  if (row.Kind == kDivides && (c.Src.Width == 0 || c.Dest.Width == 0)) return 0;
  static const bool trace = std::getenv("QV_FUZZ_TRACE") != nullptr;
  if (trace)
    std::fprintf(stderr, "%s Src %d x %d stride %d, Dest %d x %d stride %d%s\n", row.Name, c.Src.Width, c.Src.Height,
                 c.Src.Stride, c.Dest.Width, c.Dest.Height, c.Dest.Stride, c.Dest.Mem == &src ? ", in place" : "");
  const int status = row.Run(c);
  if (status < 0 || status > 5) {
    std::fprintf(stderr, "%s returned %d\n", row.Name, status);
    std::abort();
  }
  return 0;
}

#if defined(QV_FUZZ_STANDALONE)
// Without libFuzzer: random inputs from a seed, or the files named.
//   fuzz_exports [-seed=N] [-runs=N] [-max_total_time=S] [file...]
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

int main(int argc, char** argv) {
  unsigned long seed = 1;
  long runs = -1;
  double seconds = 60;
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a.rfind("-seed=", 0) == 0)
      seed = std::stoul(a.substr(6));
    else if (a.rfind("-runs=", 0) == 0)
      runs = std::stol(a.substr(6));
    else if (a.rfind("-max_total_time=", 0) == 0)
      seconds = std::stod(a.substr(16));
    else if (a[0] != '-' && std::filesystem::is_regular_file(a))
      files.push_back(a);  // directories are libFuzzer's corpora: not ours
  }
  for (const auto& f : files) {
    std::ifstream in(f, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  if (!files.empty()) return 0;
  std::mt19937_64 rng(seed);
  const auto start = std::chrono::steady_clock::now();
  long done = 0;
  std::vector<uint8_t> input;
  for (; runs < 0 || done < runs; ++done) {
    if (std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() > seconds) break;
    input.resize(rng() % 512);
    for (auto& b : input) b = static_cast<uint8_t>(rng());
    LLVMFuzzerTestOneInput(input.data(), input.size());
  }
  std::printf("fuzz_exports: %ld inputs from seed %lu\n", done, seed);
  return 0;
}
#endif
