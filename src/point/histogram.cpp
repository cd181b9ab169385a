// Histogram-driven tone corrections: automatic levels and contrast, colour
// push away from each pixel's brightness, equalisation, histogram matching.
// Stands on the 16-bit lane division and the equalising curve of histogram.h.
#include "point/histogram.h"

#include <smmintrin.h>

#include <cfloat>
#include <cmath>
#include <cstring>

#include "frame/border.h"
#include "frame/frame.h"
#include "point/convert.h"
#include "point/pixel_planes.h"
#include "point/shuffle3.h"

namespace qv {

void PrepareDivideU16(int Divisor, uint16_t* Multiplier, int* Shift1, int* Shift2) {
  const unsigned d = static_cast<uint16_t>(Divisor);
  if (d <= 2) {
    *Multiplier = d == 0 ? 0 : 1;
    *Shift1 = d == 2 ? 1 : 0;
    *Shift2 = 0;
    return;
  }
  const int l = 31 - __builtin_clz(d - 1);  // top bit of d - 1
  // Wide intermediate: for l = 15 the product reaches 2^32.
  *Multiplier = static_cast<uint16_t>((((uint64_t(1) << (l + 1)) - d) * 65536u) / d + 1);
  *Shift1 = 1;
  *Shift2 = l;
}

void BuildEqualizeCurve(const int* Histogram, unsigned char* Curve, int Linear) {
  double c[256];
  for (int i = 0; i < 256; ++i)
    c[i] = (Histogram[i] >= 2 && Linear == 0) ? std::sqrt(static_cast<double>(Histogram[i])) : Histogram[i];
  double inner = 0;
  for (int i = 1; i < 255; ++i) inner += c[i];
  const double total = c[0] + 2 * inner + c[255];
  const double scale = 255 / total;
  Curve[0] = 0;
  Curve[255] = 255;
  // Each bin is mapped at the middle of its own share of the range. An empty
  // histogram gives NaN here, which truncates to the most negative integer
  // and stores as 0.
  double acc = c[0];
  for (int i = 1; i < 255; ++i) {
    acc += c[i];
    Curve[i] = static_cast<unsigned char>(TruncateToInt(scale * acc + 0.4999999));
    acc += c[i];
  }
}

}  // namespace qv

namespace {

using qv::ClampToByte;
using qv::TruncateToInt;

// Counts the Width samples of each row; four partial tables break the
// store-to-load chains of runs of equal samples.
void GrayHistogram(const unsigned char* Src, int Width, int Height, int Stride, int* Hist) {
  int part[4][256] = {};
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    int x = 0;
    for (; x + 8 <= Width; x += 8) {
      uint64_t v;
      std::memcpy(&v, s + x, 8);
      ++part[0][v & 255];
      ++part[1][(v >> 8) & 255];
      ++part[2][(v >> 16) & 255];
      ++part[3][(v >> 24) & 255];
      ++part[0][(v >> 32) & 255];
      ++part[1][(v >> 40) & 255];
      ++part[2][(v >> 48) & 255];
      ++part[3][v >> 56];
    }
    for (; x < Width; ++x) ++part[0][s[x]];
  }
  for (int i = 0; i < 256; ++i) Hist[i] = part[0][i] + part[1][i] + part[2][i] + part[3][i];
}

// Histograms of the first three samples of Width pixels of Step bytes a row;
// even and odd pixels count into separate tables, as in GrayHistogram.
void ColourHistograms(const unsigned char* Src, int Width, int Height, int Stride, int Step, int (*Hist)[256]) {
  int part[2][3][256] = {};
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    int x = 0;
    for (; x + 2 <= Width; x += 2, s += 2 * Step) {
      ++part[0][0][s[0]];
      ++part[0][1][s[1]];
      ++part[0][2][s[2]];
      ++part[1][0][s[Step]];
      ++part[1][1][s[Step + 1]];
      ++part[1][2][s[Step + 2]];
    }
    if (x < Width) {
      ++part[0][0][s[0]];
      ++part[0][1][s[1]];
      ++part[0][2][s[2]];
    }
  }
  for (int c = 0; c < 3; ++c)
    for (int i = 0; i < 256; ++i) Hist[c][i] = part[0][c][i] + part[1][c][i];
}

// Low: first bin from 0 where the running sum reaches Cut; High likewise from
// 255. A Cutoff of 0 stops at once, one over 1 never: 0 and 255 either way.
void HistogramLimits(const int* Hist, double Cut, int* Low, int* High) {
  *Low = 0;
  int64_t sum = 0;
  for (int i = 0; i < 256; ++i) {
    sum += Hist[i];
    if (sum >= Cut) {
      *Low = i;
      break;
    }
  }
  *High = 255;
  sum = 0;
  for (int i = 255; i >= 0; --i) {
    sum += Hist[i];
    if (sum >= Cut) {
      *High = i;
      break;
    }
  }
}

// The power that takes the histogram's mean to mid-gray between the limits.
double HistogramGamma(const int* Hist, int Low, int High) {
  double weighted = 0, count = 0;  // exact: every 32-bit image fits 53 bits
  for (int i = 0; i < 256; ++i) {
    weighted += static_cast<double>(i) * Hist[i];
    count += Hist[i];
  }
  const double mean = weighted / count;
  const double x = (mean - Low) / (High - Low);
  double gamma = std::log(0.5) / std::log(x);
  // A mean below Low gives NaN, which passes both clamps as it stands.
  if (gamma < 0.1) gamma = 0.1;
  if (gamma > 10) gamma = 10;
  return gamma;
}

// 0 below Low, 255 above High, the power curve between. At Low = High the
// ratio is 0 / 0: NaN truncates to the most negative integer and clamps to 0.
void PowerCurve(int Low, int High, double Gamma, unsigned char* Curve) {
  for (int i = 0; i < 256; ++i) {
    if (i < Low)
      Curve[i] = 0;
    else if (i > High)
      Curve[i] = 255;
    else
      Curve[i] = static_cast<unsigned char>(
          ClampToByte(TruncateToInt(255 * std::pow(static_cast<double>(i - Low) / (High - Low), Gamma))));
  }
}

// Table look-up over a run, four samples a step to spare loop overhead.
void ApplyCurveRun(const unsigned char* Src, unsigned char* Dest, size_t Count, const unsigned char* Curve) {
  size_t i = 0;
  for (; i + 4 <= Count; i += 4) {
    const unsigned char a = Curve[Src[i]], b = Curve[Src[i + 1]], c = Curve[Src[i + 2]], d = Curve[Src[i + 3]];
    Dest[i] = a;
    Dest[i + 1] = b;
    Dest[i + 2] = c;
    Dest[i + 3] = d;
  }
  for (; i < Count; ++i) Dest[i] = Curve[Src[i]];
}

// Three curves on the first three samples of Width pixels of Step bytes a
// row; CopyFourth also copies the fourth sample of each pixel.
void ApplyPixelCurves(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Step,
                      bool CopyFourth, const unsigned char (*Curve)[256]) {
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    unsigned char* d = Dest + size_t(y) * Stride;
    for (int x = 0; x < Width; ++x, s += Step, d += Step) {
      d[0] = Curve[0][s[0]];
      d[1] = Curve[1][s[1]];
      d[2] = Curve[2][s[2]];
      if (CopyFourth) d[3] = s[3];
    }
  }
}

// Linear stretch of 16 samples: (v - Low) saturated, times 255 as (w << 8) - w,
// divided exactly in 16-bit lanes, packed with signed 16-bit saturation (so a
// quotient above 32767, possible only for a range of 1, packs to 0).
inline __m128i StretchBlock(__m128i v, __m128i Low, const qv::DivideU16Lanes& Div) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i w = _mm_subs_epu8(v, Low);
  __m128i lo = _mm_unpacklo_epi8(w, zero), hi = _mm_unpackhi_epi8(w, zero);
  lo = _mm_sub_epi16(_mm_slli_epi16(lo, 8), lo);
  hi = _mm_sub_epi16(_mm_slli_epi16(hi, 8), hi);
  return _mm_packus_epi16(qv::DivideLanesU16(lo, Div), qv::DivideLanesU16(hi, Div));
}

inline unsigned char StretchSample(int v, int Low, int Range) {
  return static_cast<unsigned char>(ClampToByte((v - Low) * 255 / Range));
}

// Stretch of a run of bytes with one pair of limits, 16 a block, scalar tail.
void StretchRun(const unsigned char* Src, unsigned char* Dest, size_t Count, int Low, int High) {
  const qv::DivideU16Lanes div = qv::MakeDivideU16Lanes(High - Low);
  const __m128i low = _mm_set1_epi8(static_cast<char>(Low));
  const size_t block_end = Count & ~size_t(15);
  for (size_t i = 0; i < block_end; i += 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src + i));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + i), StretchBlock(v, low, div));
  }
  for (size_t i = block_end; i < Count; ++i) Dest[i] = StretchSample(Src[i], Low, High - Low);
}

// Per-channel stretch of 3 or 4-channel rows; a channel with High <= Low
// passes unchanged, the fourth sample is copied.
template <int Channel>
void StretchPixels(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, const int* Low,
                   const int* High) {
  bool pass[3];
  for (int c = 0; c < 3; ++c) pass[c] = High[c] <= Low[c];
  auto divider = [&](int c) { return qv::MakeDivideU16Lanes(pass[c] ? 1 : High[c] - Low[c]); };
  auto low = [&](int c) { return _mm_set1_epi8(static_cast<char>(Low[c])); };
  auto keep = [&](int c) { return pass[c] ? _mm_set1_epi8(-1) : _mm_setzero_si128(); };
  const qv::DivideU16Lanes div0 = divider(0), div1 = divider(1), div2 = divider(2);
  const __m128i low0 = low(0), low1 = low(1), low2 = low(2);
  const __m128i keep0 = keep(0), keep1 = keep(1), keep2 = keep(2);
  const int block_end = Width & ~15;
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    unsigned char* d = Dest + size_t(y) * Stride;
    for (int x = 0; x < block_end; x += 16) {
      __m128i p0, p1, p2, p3;
      if (Channel == 3) {
        const qv::Planes3 q = qv::Load3Planes(s + 3 * x);
        p0 = q.p0, p1 = q.p1, p2 = q.p2;
      } else
        qv::SplitPixels4(s + 4 * x, p0, p1, p2, p3);
      p0 = _mm_blendv_epi8(StretchBlock(p0, low0, div0), p0, keep0);
      p1 = _mm_blendv_epi8(StretchBlock(p1, low1, div1), p1, keep1);
      p2 = _mm_blendv_epi8(StretchBlock(p2, low2, div2), p2, keep2);
      if (Channel == 3)
        qv::Store3Planes(d + 3 * x, p0, p1, p2);
      else
        qv::MergePixels4(d + 4 * x, p0, p1, p2, p3);
    }
    for (int x = block_end; x < Width; ++x) {
      const unsigned char* sp = s + x * Channel;
      unsigned char* dp = d + x * Channel;
      for (int c = 0; c < 3; ++c) dp[c] = pass[c] ? sp[c] : StretchSample(sp[c], Low[c], High[c] - Low[c]);
      if (Channel == 4) dp[3] = sp[3];
    }
  }
}

// Curve entry (Curve * Strength + i * (100 - Strength)) / 100 in 32-bit
// arithmetic, truncating, stored as a byte: Strength outside 0..100 wraps.
// The products wrap through unsigned arithmetic for absurd Strength values.
void MixWithIdentity(unsigned char* Curve, int Strength) {
  const uint32_t s = static_cast<uint32_t>(Strength);
  for (uint32_t i = 0; i < 256; ++i) {
    const int32_t v = static_cast<int32_t>(Curve[i] * s + i * (100u - s));
    Curve[i] = static_cast<unsigned char>(v / 100);
  }
}

// Running distribution in double, stored as float at each step.
void Distribution(const int* Hist, double Total, float* F) {
  F[0] = static_cast<float>(Hist[0] / Total);
  for (int i = 1; i < 256; ++i) F[i] = static_cast<float>(Hist[i] / Total + F[i - 1]);
}

// Entry i is the j with the least |F[i] - G[j]|, a later j winning ties. A
// target of total 0 gives NaN distances, no comparison holds: all 0.
void MatchingCurve(const int* Hist, int Count, const int* Target, unsigned char* Curve) {
  uint32_t total = 0;  // any total is accepted; a wrap stays defined
  for (int i = 0; i < 256; ++i) total += static_cast<uint32_t>(Target[i]);
  float f[256], g[256];
  Distribution(Hist, Count, f);
  Distribution(Target, static_cast<int32_t>(total), g);
  for (int i = 0; i < 256; ++i) {
    int best = 0;
    float best_dist = FLT_MAX;
    for (int j = 0; j < 256; ++j) {
      const float dist = std::fabs(f[i] - g[j]);
      if (dist <= best_dist) {
        best_dist = dist;
        best = j;
      }
    }
    Curve[i] = static_cast<unsigned char>(best);
  }
}

}  // namespace

extern "C" QV_API int QV_AutoLevel(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                   float Cutoff, unsigned char AdjustGamma) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr) return STATUS_NULL_REFERENCE;  // Dest is not tested
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;

  const double cut = static_cast<double>(Width) * Height * Cutoff;
  if (Channel == 1) {
    int hist[256];
    GrayHistogram(Src, Width, Height, Stride, hist);
    int low, high;
    HistogramLimits(hist, cut, &low, &high);
    if (high <= low) {
      std::memset(Dest, low, qv::RunBytes(Height, Stride));
      return STATUS_OK;
    }
    if (AdjustGamma == 0) {
      for (int y = 0; y < Height; ++y)
        StretchRun(Src + size_t(y) * Stride, Dest + size_t(y) * Stride, size_t(Width), low, high);
    } else {
      unsigned char curve[256];
      PowerCurve(low, high, HistogramGamma(hist, low, high), curve);
      ApplyCurveRun(Src, Dest, qv::RunBytes(Height, Stride), curve);
    }
    return STATUS_OK;
  }

  int hist[3][256];
  ColourHistograms(Src, Width, Height, Stride, Channel, hist);
  int low[3], high[3];
  for (int c = 0; c < 3; ++c) HistogramLimits(hist[c], cut, &low[c], &high[c]);
  if (AdjustGamma == 0) {
    if (Channel == 3)
      StretchPixels<3>(Src, Dest, Width, Height, Stride, low, high);
    else
      StretchPixels<4>(Src, Dest, Width, Height, Stride, low, high);
  } else {
    // A flat channel takes gamma 1 and becomes a step at Low, unlike the
    // linear mode, where it passes unchanged.
    unsigned char curve[3][256];
    for (int c = 0; c < 3; ++c)
      PowerCurve(low[c], high[c], low[c] < high[c] ? HistogramGamma(hist[c], low[c], high[c]) : 1.0, curve[c]);
    ApplyPixelCurves(Src, Dest, Width, Height, Stride, Channel, Channel == 4, curve);
  }
  return STATUS_OK;
}

extern "C" QV_API int QV_AutoContrast(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                      float Cutoff, unsigned char AdjustGamma) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr) return STATUS_NULL_REFERENCE;  // Dest is not tested
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;
  if (Channel == 1) return QV_AutoLevel(Src, Dest, Width, Height, Stride, Cutoff, AdjustGamma);

  int hist[3][256];
  ColourHistograms(Src, Width, Height, Stride, Channel, hist);
  const double cut = static_cast<double>(Width) * Height * Cutoff;
  int low = 255, high = 0;
  for (int c = 0; c < 3; ++c) {
    int l, h;
    HistogramLimits(hist[c], cut, &l, &h);
    if (l < low) low = l;
    if (h > high) high = h;
  }
  const size_t n = qv::RunBytes(Height, Stride);
  if (high <= low) {
    std::memset(Dest, low, n);
    return STATUS_OK;
  }
  // Both modes walk the whole run: the fourth sample and the padding too.
  if (AdjustGamma == 0) {
    StretchRun(Src, Dest, n, low, high);
  } else {
    int sum[256];
    for (int i = 0; i < 256; ++i) sum[i] = hist[0][i] + hist[1][i] + hist[2][i];
    unsigned char curve[256];
    PowerCurve(low, high, HistogramGamma(sum, low, high), curve);
    ApplyCurveRun(Src, Dest, n, curve);
  }
  return STATUS_OK;
}

extern "C" QV_API int QV_AutoEnhanceColors(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                           int Stride) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel34(Channel)) return STATUS_INVALID_PARAMETER;

  const __m128i zero = _mm_setzero_si128();
  const int block_end = Width & ~15;
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    unsigned char* d = Dest + size_t(y) * Stride;
    for (int x = 0; x < block_end; x += 16) {
      __m128i p[4];
      qv::LoadPixels16(s + Channel * x, Channel, p);
      __m128i w[2][3];
      for (int c = 0; c < 3; ++c) {
        w[0][c] = _mm_unpacklo_epi8(p[c], zero);
        w[1][c] = _mm_unpackhi_epi8(p[c], zero);
      }
      for (int half = 0; half < 2; ++half) {
        const __m128i l = _mm_srli_epi16(
            _mm_add_epi16(_mm_add_epi16(w[half][0], w[half][2]), _mm_add_epi16(w[half][1], w[half][1])), 2);
        for (int c = 0; c < 3; ++c)
          w[half][c] = _mm_add_epi16(w[half][c], _mm_srai_epi16(_mm_sub_epi16(w[half][c], l), 2));
      }
      for (int c = 0; c < 3; ++c) p[c] = _mm_packus_epi16(w[0][c], w[1][c]);
      if (Channel == 3)
        qv::Store3Planes(d + 3 * x, p[0], p[1], p[2]);
      else
        qv::MergePixels4(d + 4 * x, p[0], p[1], p[2], p[3]);
    }
    for (int x = block_end; x < Width; ++x) {
      const unsigned char* sp = s + x * Channel;
      unsigned char* dp = d + x * Channel;
      const int l = (sp[0] + 2 * sp[1] + sp[2]) >> 2;
      const int b = sp[0], g = sp[1], r = sp[2];
      dp[0] = static_cast<unsigned char>(ClampToByte(b + ((b - l) >> 2)));
      dp[1] = static_cast<unsigned char>(ClampToByte(g + ((g - l) >> 2)));
      dp[2] = static_cast<unsigned char>(ClampToByte(r + ((r - l) >> 2)));
      if (Channel == 4) dp[3] = sp[3];
    }
  }
  return STATUS_OK;
}

extern "C" QV_API int QV_HistEqualize(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                      unsigned char Linear, int Strength) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr) return STATUS_NULL_REFERENCE;  // Dest is not tested
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;

  if (Channel == 1) {
    int hist[256];
    GrayHistogram(Src, Width, Height, Stride, hist);
    unsigned char curve[256];
    qv::BuildEqualizeCurve(hist, curve, Linear);
    MixWithIdentity(curve, Strength);
    ApplyCurveRun(Src, Dest, qv::RunBytes(Height, Stride), curve);
    return STATUS_OK;
  }
  // Four channels are walked as three-byte pixels over the first 3 * Width
  // bytes of each row, in the histograms and the mapping alike.
  int hist[3][256];
  ColourHistograms(Src, Width, Height, Stride, 3, hist);
  unsigned char curve[3][256];
  for (int c = 0; c < 3; ++c) {
    qv::BuildEqualizeCurve(hist[c], curve[c], Linear);
    MixWithIdentity(curve[c], Strength);
  }
  ApplyPixelCurves(Src, Dest, Width, Height, Stride, 3, false, curve);
  return STATUS_OK;
}

extern "C" QV_API int QV_HistgramMatching(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                          int Stride, const int* TargetB, const int* TargetG, const int* TargetR) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr) return STATUS_NULL_REFERENCE;  // Dest and the targets are not tested
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;

  const int count = Width * Height;
  if (Channel == 1) {
    int hist[256];
    GrayHistogram(Src, Width, Height, Stride, hist);
    unsigned char curve[256];
    MatchingCurve(hist, count, TargetB, curve);
    ApplyCurveRun(Src, Dest, qv::RunBytes(Height, Stride), curve);
    return STATUS_OK;
  }
  // Four channels are walked as three-byte pixels, as in the equalisation.
  int hist[3][256];
  ColourHistograms(Src, Width, Height, Stride, 3, hist);
  unsigned char curve[3][256];
  MatchingCurve(hist[0], count, TargetB, curve[0]);
  MatchingCurve(hist[1], count, TargetG, curve[1]);
  MatchingCurve(hist[2], count, TargetR, curve[2]);
  ApplyPixelCurves(Src, Dest, Width, Height, Stride, 3, false, curve);
  return STATUS_OK;
}
