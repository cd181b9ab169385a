// Histogram adjustments against plain models written from their definitions,
// over every tail length, channel count and padded rows; the exact 16-bit
// division for every divisor and dividend; the frames as tables.
#include "point/histogram.h"

#include <cmath>
#include <csignal>
#include <cstring>

#include "support/support.h"

namespace {

using qvt::Bytes;
using qvt::Image;

int Clamp(int v) { return v < 0 ? 0 : v > 255 ? 255 : v; }
// Truncation as the processor does it: NaN and overflow give INT_MIN.
int Trunc(double v) { return std::isnan(v) || v >= 2147483648.0 || v < -2147483648.0 ? INT32_MIN : int(v); }

// An image whose samples lie in [Lo, Hi], so the limits vary from image to image.
Image RangeImage(int W, int H, int C, int Pad, int Lo, int Hi) {
  Image im = qvt::MakeImage(W, H, C, Pad);
  for (auto& v : im.data) v = static_cast<unsigned char>(Lo + v % (Hi - Lo + 1));
  return im;
}

// ---- models ----------------------------------------------------------------

void Hist(const Image& im, int Step, int c, int* h) {
  std::fill(h, h + 256, 0);
  for (int y = 0; y < im.Height; ++y)
    for (int x = 0; x < im.Width; ++x) ++h[im.data[size_t(y) * im.Stride + x * Step + c]];
}

void Limits(const int* h, double cut, int& low, int& high) {
  low = 0, high = 255;
  long long s = 0;
  for (int i = 0; i < 256; ++i)
    if ((s += h[i]) >= cut) {
      low = i;
      break;
    }
  s = 0;
  for (int i = 255; i >= 0; --i)
    if ((s += h[i]) >= cut) {
      high = i;
      break;
    }
}

// The block loop packs the exact quotient with signed 16-bit saturation.
int StretchBlock(int v, int low, int range) {
  const int q = 255 * std::max(v - low, 0) / range;
  return q > 32767 ? 0 : std::min(q, 255);
}
int StretchTail(int v, int low, int range) { return Clamp((v - low) * 255 / range); }

void GammaCurve(const int* h, int low, int high, bool flat, unsigned char* curve) {
  double g = 1;
  if (!flat) {
    double sum = 0, n = 0;
    for (int i = 0; i < 256; ++i) sum += double(i) * h[i], n += h[i];
    g = std::log(0.5) / std::log((sum / n - low) / (high - low));
    if (g < 0.1) g = 0.1;
    if (g > 10) g = 10;
  }
  for (int i = 0; i < 256; ++i)
    curve[i] = i < low ? 0 : i > high ? 255 : Clamp(Trunc(255 * std::pow(double(i - low) / (high - low), g)));
}

Bytes AutoLevelModel(const Image& s, const Bytes& dest, float cutoff, bool gamma) {
  Bytes out = dest;
  const int W = s.Width, H = s.Height, C = s.Channel, block = W & ~15;
  const double cut = double(W) * H * cutoff;
  int h[3][256], low[3], high[3];
  for (int c = 0; c < (C == 1 ? 1 : 3); ++c) Hist(s, C, c, h[c]), Limits(h[c], cut, low[c], high[c]);
  if (C == 1) {
    if (high[0] <= low[0]) return Bytes(out.size(), static_cast<unsigned char>(low[0]));
    if (gamma) {
      unsigned char curve[256];
      GammaCurve(h[0], low[0], high[0], false, curve);
      for (size_t i = 0; i < out.size(); ++i) out[i] = curve[s.data[i]];
      return out;
    }
    for (int y = 0; y < H; ++y)
      for (int x = 0; x < W; ++x) {
        const size_t i = size_t(y) * s.Stride + x;
        out[i] = (x < block ? StretchBlock : StretchTail)(s.data[i], low[0], high[0] - low[0]);
      }
    return out;
  }
  unsigned char curve[3][256];
  for (int c = 0; c < 3; ++c) GammaCurve(h[c], low[c], high[c], high[c] <= low[c], curve[c]);
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x)
      for (int c = 0; c < C; ++c) {
        const size_t i = size_t(y) * s.Stride + x * C + c;
        const int v = s.data[i];
        if (c == 3)
          out[i] = v;
        else if (gamma)
          out[i] = curve[c][v];
        else if (high[c] <= low[c])
          out[i] = v;
        else
          out[i] = (x < block ? StretchBlock : StretchTail)(v, low[c], high[c] - low[c]);
      }
  return out;
}

Bytes AutoContrastModel(const Image& s, const Bytes& dest, float cutoff, bool gamma) {
  if (s.Channel == 1) return AutoLevelModel(s, dest, cutoff, gamma);
  const double cut = double(s.Width) * s.Height * cutoff;
  int h[3][256], sum[256] = {}, low = 255, high = 0;
  for (int c = 0; c < 3; ++c) {
    int l, hi;
    Hist(s, s.Channel, c, h[c]);
    Limits(h[c], cut, l, hi);
    low = std::min(low, l), high = std::max(high, hi);
    for (int i = 0; i < 256; ++i) sum[i] += h[c][i];
  }
  Bytes out(dest.size());
  if (high <= low) return Bytes(out.size(), static_cast<unsigned char>(low));
  unsigned char curve[256];
  GammaCurve(sum, low, high, false, curve);
  const size_t block = out.size() & ~size_t(15);
  for (size_t i = 0; i < out.size(); ++i)
    out[i] = gamma ? curve[s.data[i]] : (i < block ? StretchBlock : StretchTail)(s.data[i], low, high - low);
  return out;
}

void EqualizeCurveModel(const int* h, bool linear, unsigned char* curve) {
  double c[256], total = 0;
  for (int i = 0; i < 256; ++i) c[i] = (!linear && h[i] >= 2) ? std::sqrt(double(h[i])) : h[i];
  for (int i = 0; i < 256; ++i) total += (i == 0 || i == 255 ? 1 : 2) * c[i];
  double acc = c[0];
  curve[0] = 0, curve[255] = 255;
  for (int i = 1; i < 255; ++i) {
    acc += c[i];
    curve[i] = static_cast<unsigned char>(Trunc(255 / total * acc + 0.4999999));
    acc += c[i];
  }
}

// Pixels of Step bytes over the first Step * Width bytes of each row (3 for
// four channels too); Channel 1 maps the whole run, padding included.
Bytes MapModel(const Image& s, const Bytes& dest, int Step, unsigned char (*curve)[256]) {
  Bytes out = dest;
  if (s.Channel == 1) {
    for (size_t i = 0; i < out.size(); ++i) out[i] = curve[0][s.data[i]];
    return out;
  }
  for (int y = 0; y < s.Height; ++y)
    for (int x = 0; x < s.Width * Step; ++x) {
      const size_t i = size_t(y) * s.Stride + x;
      out[i] = curve[x % Step][s.data[i]];
    }
  return out;
}

Bytes HistEqualizeModel(const Image& s, const Bytes& dest, bool linear, int strength) {
  const int step = s.Channel == 1 ? 1 : 3;
  unsigned char curve[3][256];
  for (int c = 0; c < step; ++c) {
    int h[256];
    Hist(s, step, c, h);
    EqualizeCurveModel(h, linear, curve[c]);
    for (int i = 0; i < 256; ++i)
      curve[c][i] = static_cast<unsigned char>((curve[c][i] * strength + i * (100 - strength)) / 100);
  }
  return MapModel(s, dest, step, curve);
}

void MatchCurveModel(const int* h, int n, const int* target, unsigned char* curve) {
  float F[256], G[256];
  int t = 0;
  for (int i = 0; i < 256; ++i) t += target[i];
  for (int i = 0; i < 256; ++i) {
    F[i] = float(double(h[i]) / n + (i ? F[i - 1] : 0.0));
    G[i] = float(double(target[i]) / t + (i ? G[i - 1] : 0.0));
  }
  for (int i = 0; i < 256; ++i) {
    int best = 0;
    for (int j = 1; j < 256; ++j)
      if (std::fabs(F[i] - G[j]) <= std::fabs(F[i] - G[best])) best = j;
    curve[i] = static_cast<unsigned char>(best);
  }
}

Bytes MatchingModel(const Image& s, const Bytes& dest, const int (*target)[256]) {
  const int step = s.Channel == 1 ? 1 : 3;
  unsigned char curve[3][256];
  for (int c = 0; c < step; ++c) {
    int h[256];
    Hist(s, step, c, h);
    MatchCurveModel(h, s.Width * s.Height, target[c], curve[c]);
  }
  return MapModel(s, dest, step, curve);
}

Bytes EnhanceColorsModel(const Image& s, const Bytes& dest) {
  Bytes out = dest;
  for (int y = 0; y < s.Height; ++y)
    for (int x = 0; x < s.Width; ++x) {
      const unsigned char* p = &s.data[size_t(y) * s.Stride + x * s.Channel];
      unsigned char* q = &out[size_t(y) * s.Stride + x * s.Channel];
      const int l = (p[0] + 2 * p[1] + p[2]) >> 2;
      for (int c = 0; c < 3; ++c) q[c] = Clamp(p[c] + ((p[c] - l) >> 2));
      if (s.Channel == 4) q[3] = p[3];
    }
  return out;
}

// Runs Call on a fresh Dest of random bytes and in place, comparing both with
// the model (which starts from Dest's old bytes).
template <typename Call, typename Model>
void CheckShapes(std::initializer_list<int> channels, Call call, Model model, int ranges = 3, int max_height = 3) {
  for (const auto& sh : qvt::TailShapes(channels, max_height)) {
    for (int range = 0; range < ranges; ++range) {
      static const int lo[] = {0, 40, 100}, hi[] = {255, 200, 103};
      Image src = RangeImage(sh.Width, sh.Height, sh.Channel, sh.Pad, lo[range], hi[range]);
      Image dst = qvt::MakeImage(sh.Width, sh.Height, sh.Channel, sh.Pad);
      const Bytes expect = model(src, dst.data);
      ASSERT_EQ(call(src.ptr(), dst.ptr(), src), STATUS_OK) << qvt::ToString(sh);
      ASSERT_TRUE(qvt::SameBytes(expect, dst.data, src.Stride)) << qvt::ToString(sh) << " range " << range;
      const Bytes in_place = model(src, src.data);
      ASSERT_EQ(call(src.ptr(), src.ptr(), src), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(in_place, src.data, src.Stride)) << qvt::ToString(sh) << " in place";
    }
  }
}

// ---- the division and the curve -------------------------------------------

TEST(PrepareDivideU16, StatedConstants) {
  struct {
    int d, m, s1, s2;
  } rows[] = {{0, 0, 0, 0}, {1, 1, 0, 0}, {2, 1, 1, 0}, {3, 21846, 1, 1}, {255, 258, 1, 7}, {256, 1, 1, 7}};
  for (auto& r : rows) {
    uint16_t m;
    int s1, s2;
    qv::PrepareDivideU16(r.d, &m, &s1, &s2);
    EXPECT_EQ(m, r.m) << r.d;
    EXPECT_EQ(s1, r.s1) << r.d;
    EXPECT_EQ(s2, r.s2) << r.d;
  }
}

TEST(PrepareDivideU16, ExactForEveryDividendUpTo65025) {
  for (int d = 1; d <= 1024; ++d) {
    uint16_t m;
    int s1, s2;
    qv::PrepareDivideU16(d, &m, &s1, &s2);
    for (unsigned t = 0; t <= 65025; ++t)
      if (qv::DivideU16(t, m, s1, s2) != t / d) FAIL() << t << " / " << d;
  }
  // Larger divisors, on a sieve of dividends with every boundary q * d - 1, q * d.
  for (int d = 1025; d <= 65535; d += 97) {
    uint16_t m;
    int s1, s2;
    qv::PrepareDivideU16(d, &m, &s1, &s2);
    for (unsigned q = 0; q * d <= 65535; ++q)
      for (unsigned t : {q * d, q * d + d - 1})
        if (t <= 65535 && qv::DivideU16(t, m, s1, s2) != t / d) FAIL() << t << " / " << d;
  }
}

TEST(PrepareDivideU16, LanesMatchScalar) {
  for (int d = 1; d <= 255; ++d) {
    const auto lanes = qv::MakeDivideU16Lanes(d);
    for (unsigned t0 = 0; t0 <= 65025; t0 += 8 * 37) {
      alignas(16) uint16_t in[8], out[8];
      for (int k = 0; k < 8; ++k) in[k] = static_cast<uint16_t>(std::min(t0 + k * 37u, 65025u));
      _mm_store_si128(reinterpret_cast<__m128i*>(out),
                      qv::DivideLanesU16(_mm_load_si128(reinterpret_cast<const __m128i*>(in)), lanes));
      for (int k = 0; k < 8; ++k) ASSERT_EQ(out[k], in[k] / d) << in[k] << " / " << d;
    }
  }
}

TEST(BuildEqualizeCurve, MatchesModel) {
  std::mt19937 rng(3);
  for (int trial = 0; trial < 300; ++trial) {
    int h[256];
    const int top = trial % 3 == 0 ? 3 : 5000;  // many bins of 0, 1 and 2
    for (int& v : h) v = std::uniform_int_distribution<int>(0, top)(rng);
    for (int linear : {0, 1, 7}) {
      unsigned char got[256], expect[256];
      qv::BuildEqualizeCurve(h, got, linear);
      EqualizeCurveModel(h, linear != 0, expect);
      ASSERT_EQ(0, std::memcmp(got, expect, 256)) << trial << " linear " << linear;
    }
  }
}

TEST(BuildEqualizeCurve, EqualCountsGiveIdentity) {
  // Each bin's value is taken at the middle of its share: equal counts map i to i,
  // for counts of 1 (kept) and 9 (square root 3) alike.
  for (int count : {1, 9}) {
    int h[256];
    std::fill(h, h + 256, count);
    unsigned char curve[256];
    qv::BuildEqualizeCurve(h, curve, 0);
    for (int i = 0; i < 256; ++i) ASSERT_EQ(curve[i], i) << count;
  }
}

// ---- operators against their models ------------------------------------------

TEST(AutoLevel, MatchesModelOnEveryShape) {
  for (float cutoff : {0.0f, 0.01f, 0.2f})
    for (unsigned char gamma : {0, 1})
      CheckShapes(
          {1, 3, 4},
          [&](const unsigned char* s, unsigned char* d, const Image& im) {
            return QV_AutoLevel(s, d, im.Width, im.Height, im.Stride, cutoff, gamma);
          },
          [&](const Image& s, const Bytes& d) { return AutoLevelModel(s, d, cutoff, gamma != 0); });
}

TEST(AutoContrast, MatchesModelOnEveryShape) {
  for (float cutoff : {0.0f, 0.05f})
    for (unsigned char gamma : {0, 1})
      CheckShapes(
          {1, 3, 4},
          [&](const unsigned char* s, unsigned char* d, const Image& im) {
            return QV_AutoContrast(s, d, im.Width, im.Height, im.Stride, cutoff, gamma);
          },
          [&](const Image& s, const Bytes& d) { return AutoContrastModel(s, d, cutoff, gamma != 0); });
}

TEST(AutoEnhanceColors, MatchesModelOnEveryShape) {
  CheckShapes(
      {3, 4},
      [](const unsigned char* s, unsigned char* d, const Image& im) {
        return QV_AutoEnhanceColors(s, d, im.Width, im.Height, im.Stride);
      },
      EnhanceColorsModel);
}

TEST(HistEqualize, MatchesModelOnEveryShape) {
  for (unsigned char linear : {0, 1})
    for (int strength : {100, 37, 0, 150, -20})
      CheckShapes(
          {1, 3, 4},
          [&](const unsigned char* s, unsigned char* d, const Image& im) {
            return QV_HistEqualize(s, d, im.Width, im.Height, im.Stride, linear, strength);
          },
          [&](const Image& s, const Bytes& d) { return HistEqualizeModel(s, d, linear != 0, strength); });
}

TEST(HistgramMatching, MatchesModelOnEveryShape) {
  int target[3][256];
  std::mt19937 rng(5);
  for (auto& t : target)
    for (int i = 0; i < 256; ++i) t[i] = i % 5 == 0 ? 0 : std::uniform_int_distribution<int>(0, 900)(rng);
  CheckShapes(
      {1, 3, 4},
      [&](const unsigned char* s, unsigned char* d, const Image& im) {
        return QV_HistgramMatching(s, d, im.Width, im.Height, im.Stride, target[0], target[1], target[2]);
      },
      [&](const Image& s, const Bytes& d) { return MatchingModel(s, d, target); }, 2, 1);  // the curve search is slow
}

// ---- stated behaviour -----------------------------------------------------------

TEST(AutoLevel, RangeOfOneSplitsBlockAndTail) {
  // Low 10, High 11 (cut 5 of 20 pixels); a 200 gives w = 190: the block loop's
  // quotient 48450 packs to 0, the tail clamps it to 255.
  unsigned char src[20], dst[20];
  for (int x = 0; x < 20; ++x) src[x] = x % 2 ? 11 : 10;
  src[3] = src[17] = 200;
  ASSERT_EQ(QV_AutoLevel(src, dst, 20, 1, 20, 0.25f, 0), STATUS_OK);
  EXPECT_EQ(dst[3], 0);     // block
  EXPECT_EQ(dst[17], 255);  // tail
  EXPECT_EQ(dst[0], 0);
  EXPECT_EQ(dst[1], 255);
}

TEST(AutoLevel, GrayHistogramSkipsPadding) {
  // Rows of 8 samples (50 or 60) and 3 padding bytes of 250: counted, the
  // padding would make High 250; it is not, so 50 -> 0 and 60 -> 255.
  Image im = qvt::MakeImage(8, 4, 1, 3, false);
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 11; ++x) im.data[y * 11 + x] = x >= 8 ? 250 : x % 2 ? 60 : 50;
  Image out = qvt::MakeImage(8, 4, 1, 3, false);
  ASSERT_EQ(QV_AutoLevel(im.ptr(), out.ptr(), 8, 4, 11, 0.1f, 0), STATUS_OK);
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 11; ++x) EXPECT_EQ(out.data[y * 11 + x], x >= 8 ? 0 : x % 2 ? 255 : 0);
}

TEST(AutoLevel, CutoffZeroKeepsTheImage) {
  Image src = qvt::MakeImage(37, 5, 3, 2);
  Image dst = src;
  ASSERT_EQ(QV_AutoLevel(src.ptr(), dst.ptr(), 37, 5, src.Stride, 0.0f, 0), STATUS_OK);
  EXPECT_TRUE(qvt::SameBytes(src.data, dst.data));
}

TEST(AutoLevel, FlatImages) {
  // Gray: Low = High = 100, the whole run (padding too) is filled with 100.
  Image gray = qvt::MakeImage(21, 3, 1, 3);
  for (int y = 0; y < 3; ++y) std::memset(&gray.at(0, y, 0), 100, 21);
  Image out = qvt::MakeImage(21, 3, 1, 3);
  ASSERT_EQ(QV_AutoLevel(gray.ptr(), out.ptr(), 21, 3, gray.Stride, 0.01f, 0), STATUS_OK);
  EXPECT_EQ(out.data, Bytes(out.data.size(), 100));
  // Colour: unchanged in the linear mode, black through the gamma step curve.
  Image col = qvt::MakeImage(21, 3, 3, 0);
  std::memset(col.ptr(), 100, col.data.size());
  Image res = col;
  ASSERT_EQ(QV_AutoLevel(col.ptr(), res.ptr(), 21, 3, col.Stride, 0.01f, 0), STATUS_OK);
  EXPECT_EQ(res.data, col.data);
  ASSERT_EQ(QV_AutoLevel(col.ptr(), res.ptr(), 21, 3, col.Stride, 0.01f, 1), STATUS_OK);
  EXPECT_EQ(res.data, Bytes(res.data.size(), 0));
}

TEST(AutoContrast, CommonLimitsKeepHues) {
  // Channel 0 spans 10..200, the others 50..100: all are stretched by 10..200.
  Image im = qvt::MakeImage(20, 1, 3, 0, false);
  for (int x = 0; x < 20; ++x) {
    im.at(x, 0, 0) = static_cast<unsigned char>(x == 0 ? 10 : x == 1 ? 200 : 100);
    im.at(x, 0, 1) = im.at(x, 0, 2) = static_cast<unsigned char>(x % 2 ? 50 : 100);
  }
  Image out = im;
  ASSERT_EQ(QV_AutoContrast(im.ptr(), out.ptr(), 20, 1, 60, 0.0001f, 0), STATUS_OK);
  EXPECT_EQ(out.at(0, 0, 0), 0);
  EXPECT_EQ(out.at(1, 0, 0), 255);
  EXPECT_EQ(out.at(1, 0, 1), (50 - 10) * 255 / 190);
  EXPECT_EQ(out.at(2, 0, 2), (100 - 10) * 255 / 190);
}

TEST(AutoEnhanceColors, GrayPixelsStay) {
  Image im = qvt::MakeImage(35, 2, 4, 1);
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 35; ++x) im.at(x, y, 1) = im.at(x, y, 2) = im.at(x, y, 0);
  Image out = im;
  ASSERT_EQ(QV_AutoEnhanceColors(im.ptr(), out.ptr(), 35, 2, im.Stride), STATUS_OK);
  EXPECT_EQ(out.data, im.data);
}

TEST(HistEqualize, StrengthZeroIsIdentityAndFourChannelsWalkAsThree) {
  for (int c : {1, 3}) {
    Image im = qvt::MakeImage(29, 3, c, 0);
    Image out = qvt::MakeImage(29, 3, c, 0);
    ASSERT_EQ(QV_HistEqualize(im.ptr(), out.ptr(), 29, 3, im.Stride, 0, 0), STATUS_OK);
    EXPECT_EQ(out.data, im.data) << c;
  }
  // Four channels: the last Width bytes of each row are not written.
  Image im = qvt::MakeImage(10, 2, 4, 0);
  Image out = qvt::MakeImage(10, 2, 4, 0);
  const Bytes before = out.data;
  ASSERT_EQ(QV_HistEqualize(im.ptr(), out.ptr(), 10, 2, 40, 0, 0), STATUS_OK);
  for (int y = 0; y < 2; ++y)
    for (int i = 0; i < 40; ++i) EXPECT_EQ(out.data[y * 40 + i], i < 30 ? im.data[y * 40 + i] : before[y * 40 + i]);
}

TEST(HistgramMatching, SelfTargetAndEmptyTarget) {
  // Samples 10, 20, 30: with its own histogram as target, an empty stretch of G
  // maps to its last bin, so 10 -> 19, 20 -> 29, 30 -> 255.
  unsigned char src[12] = {10, 20, 30, 10, 20, 30, 10, 20, 30, 10, 20, 30}, dst[12];
  int target[256] = {};
  target[10] = target[20] = target[30] = 4;
  ASSERT_EQ(QV_HistgramMatching(src, dst, 12, 1, 12, target, nullptr, nullptr), STATUS_OK);
  for (int i = 0; i < 12; ++i) EXPECT_EQ(dst[i], src[i] == 10 ? 19 : src[i] == 20 ? 29 : 255) << i;
  // A target of total 0: every distance is NaN and the curve is all 0.
  int empty[256] = {};
  ASSERT_EQ(QV_HistgramMatching(src, dst, 12, 1, 12, empty, nullptr, nullptr), STATUS_OK);
  for (int i = 0; i < 12; ++i) EXPECT_EQ(dst[i], 0);
}

// ---- frames ------------------------------------------------------------------------

struct FrameCase {
  const char* what;
  bool null_src, null_dst;
  int w, h, stride, expect;
};

template <typename Call>
void CheckFrame(const char* op, Call call, std::initializer_list<FrameCase> cases) {
  unsigned char src[64] = {1, 2, 3}, dst[64];
  std::fill(dst, dst + 64, 7);
  for (auto& c : cases) {
    EXPECT_EQ(call(c.null_src ? nullptr : src, c.null_dst ? nullptr : dst, c.w, c.h, c.stride), c.expect)
        << op << ": " << c.what;
    EXPECT_TRUE(std::all_of(dst, dst + 64, [](unsigned char v) { return v == 7; })) << op << ": Dest touched";
  }
}

// Src-only frames with bad Channel 5: AutoLevel, AutoContrast, HistEqualize, HistgramMatching.
const std::initializer_list<FrameCase> kSrcOnly = {
    {"null src before sizes", true, false, 3, 0, 9, STATUS_NULL_REFERENCE},
    {"null dest untested", false, true, 3, 0, 9, STATUS_INVALID_PARAMETER},
    {"height 0", false, false, 3, 0, 9, STATUS_INVALID_PARAMETER},
    {"negative width", false, false, -3, 1, 9, STATUS_INVALID_PARAMETER},
    {"channel 2", false, false, 4, 1, 8, STATUS_NOT_SUPPORTED},
    {"channel 0", false, false, 4, 1, 3, STATUS_NOT_SUPPORTED},
    {"channel 5", false, false, 3, 1, 15, STATUS_NOT_SUPPORTED},
};

TEST(HistogramFrames, StatusTables) {
  int target[256] = {1};
  CheckFrame(
      "AutoLevel", [](auto s, auto d, int w, int h, int st) { return QV_AutoLevel(s, d, w, h, st, 0.1f, 0); },
      kSrcOnly);
  CheckFrame(
      "AutoContrast", [](auto s, auto d, int w, int h, int st) { return QV_AutoContrast(s, d, w, h, st, 0.1f, 1); },
      kSrcOnly);
  CheckFrame(
      "HistEqualize", [](auto s, auto d, int w, int h, int st) { return QV_HistEqualize(s, d, w, h, st, 0, 100); },
      kSrcOnly);
  CheckFrame(
      "HistgramMatching",
      [&](auto s, auto d, int w, int h, int st) { return QV_HistgramMatching(s, d, w, h, st, target, target, target); },
      kSrcOnly);
  CheckFrame("AutoEnhanceColors",
             [](auto s, auto d, int w, int h, int st) { return QV_AutoEnhanceColors(s, d, w, h, st); },
             {
                 {"null dest before sizes", false, true, 3, 0, 9, STATUS_NULL_REFERENCE},
                 {"null src", true, false, 3, 1, 9, STATUS_NULL_REFERENCE},
                 {"width 0 after channel", false, false, -1, 1, -3, STATUS_INVALID_PARAMETER},
                 {"channel 1", false, false, 4, 1, 4, STATUS_INVALID_PARAMETER},
                 {"channel 2", false, false, 4, 1, 8, STATUS_INVALID_PARAMETER},
                 {"channel 5", false, false, 3, 1, 15, STATUS_INVALID_PARAMETER},
             });
}

TEST(HistogramFramesDeathTest, ZeroWidthFaultsFirst) {
  unsigned char buf[16] = {};
  int target[256] = {};
  qvt::ExpectDivideFault([&](int w) { return QV_AutoLevel(nullptr, buf, w, 0, 4, 0.1f, 0); });
  qvt::ExpectDivideFault([&](int w) { return QV_AutoContrast(nullptr, buf, w, 0, 4, 0.1f, 0); });
  qvt::ExpectDivideFault([&](int w) { return QV_AutoEnhanceColors(nullptr, buf, w, 0, 4); });
  qvt::ExpectDivideFault([&](int w) { return QV_HistEqualize(nullptr, buf, w, 0, 4, 0, 100); });
  qvt::ExpectDivideFault([&](int w) { return QV_HistgramMatching(nullptr, buf, w, 0, 4, target, target, target); });
}

}  // namespace
