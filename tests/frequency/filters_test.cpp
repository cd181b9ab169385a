// Frequency filters against double-precision models of their formulas
// (replicated padding, centred gains, normalisations), their frames, the
// stated differences between vector body and scalar tail, and memory paths.
#include <xmmintrin.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <functional>

#include "frequency/fft.h"
#include "support/support.h"

namespace {

using CD = std::complex<double>;

struct Grid {
  int w = 0, h = 0;
  std::vector<CD> v;
  CD& at(int x, int y) { return v[size_t(y) * w + x]; }
};

void Dft(Grid& g, bool Inverse) {
  const double sign = Inverse ? 1.0 : -1.0;
  auto pass = [&](int n, int count, auto index) {
    std::vector<CD> roots(n), tmp(n);
    for (int k = 0; k < n; ++k) roots[k] = std::polar(1.0, sign * 2 * M_PI * k / n);
    for (int c = 0; c < count; ++c) {
      for (int u = 0; u < n; ++u) {
        CD s = 0;
        for (int x = 0; x < n; ++x) s += g.v[index(c, x)] * roots[(int64_t(u) * x) % n];
        tmp[u] = Inverse ? s / double(n) : s;
      }
      for (int u = 0; u < n; ++u) g.v[index(c, u)] = tmp[u];
    }
  };
  pass(g.w, g.h, [&](int row, int x) { return size_t(row) * g.w + x; });
  pass(g.h, g.w, [&](int col, int y) { return size_t(y) * g.w + col; });
}

void Shift(Grid& g, bool Forward) {
  const int sx = Forward ? (g.w + 1) / 2 : g.w / 2, sy = Forward ? (g.h + 1) / 2 : g.h / 2;
  Grid out = g;
  for (int y = 0; y < g.h; ++y)
    for (int x = 0; x < g.w; ++x) out.at(x, y) = g.v[size_t((y + sy) % g.h) * g.w + (x + sx) % g.w];
  g = out;
}

// The stated frame of the four filters, in double: replicated padding,
// forward, shift, gain at centred coordinates (column c passed along so a
// model can tell body from tail), inverse shift, inverse. Returns the plane.
using GainFn = std::function<double(int x, int y, int c, int PadWidth)>;
Grid FilterModel(const qvt::Image& im, int channel, const GainFn& Gain, bool LogInput = false) {
  Grid g;
  g.w = qv::OptimalFFTSize(im.Width);
  g.h = qv::OptimalFFTSize(im.Height);
  g.v.resize(size_t(g.w) * g.h);
  const int left = (g.w - im.Width) / 2, top = (g.h - im.Height) / 2;
  for (int y = 0; y < g.h; ++y)
    for (int x = 0; x < g.w; ++x) {
      const int sx = std::min(std::max(x - left, 0), im.Width - 1), sy = std::min(std::max(y - top, 0), im.Height - 1);
      const int v = im.at(sx, sy, channel);
      g.at(x, y) = LogInput ? double(float(std::log(double(v + 1)))) : double(v);
    }
  Dft(g, false);
  Shift(g, true);
  for (int y = 0; y < g.h; ++y)
    for (int x = 0; x < g.w; ++x) g.at(x, y) *= Gain(x - g.w / 2, y - g.h / 2, x, g.w);
  Shift(g, false);
  Dft(g, true);
  return g;
}

// Counts the bytes that differ by more than Tolerance, and those of the
// vector body (columns below Width rounded down to 8) that differ at all:
// the scalar tails truncate, where float noise around an integer flips the
// result, so only the body is held to mostly exact.
struct Diff {
  int Over = 0, BodyOff = 0, BodyTotal = 0;
};
Diff Compare(const qvt::Image& expect, const qvt::Image& got, int Channels, int Tolerance = 1) {
  Diff d;
  for (int y = 0; y < got.Height; ++y)
    for (int x = 0; x < got.Width; ++x)
      for (int c = 0; c < Channels; ++c) {
        const int e = expect.at(x, y, c), g = got.at(x, y, c);
        if (std::abs(e - g) > Tolerance) d.Over++;
        if (x < (got.Width & ~7)) {
          d.BodyTotal++;
          if (e != g) d.BodyOff++;
        }
      }
  return d;
}
#define EXPECT_CLOSE(d, what)                                                      \
  do {                                                                             \
    EXPECT_EQ((d).Over, 0) << what;                                                \
    EXPECT_LE((d).BodyOff * 20, (d).BodyTotal) << what << ": too many off by one"; \
  } while (0)

int RoundEven(double v) {
  const double r = std::nearbyint(v);
  return int(std::min(255.0, std::max(0.0, r)));
}
int TruncClamp(double v) { return std::min(255, std::max(0, int(std::trunc(v)))); }

// Real parts as they stand: body rounds to even and saturates, tail truncates and clamps.
void RealToBytes(Grid& g, qvt::Image& out, int channel) {
  const int left = (g.w - out.Width) / 2, top = (g.h - out.Height) / 2;
  for (int y = 0; y < out.Height; ++y)
    for (int x = 0; x < out.Width; ++x) {
      const double v = g.at(left + x, top + y).real();
      out.at(x, y, channel) = static_cast<unsigned char>(x < (out.Width & ~7) ? RoundEven(v) : TruncClamp(v));
    }
}

// Stretch of the crop by the extremes of the whole plane: body rounds to
// even, tail truncates.
void StretchToBytes(const std::vector<double>& vals, int pw, int left, int top, qvt::Image& out, int channel) {
  double lo = 1e300, hi = -1e300;
  for (double v : vals) lo = std::min(lo, v), hi = std::max(hi, v);
  for (int y = 0; y < out.Height; ++y)
    for (int x = 0; x < out.Width; ++x) {
      const double s = (vals[size_t(top + y) * pw + left + x] - lo) * 255.0 / (hi - lo);
      out.at(x, y, channel) = static_cast<unsigned char>(x < (out.Width & ~7) ? RoundEven(s) : TruncClamp(s));
    }
}

const std::vector<std::array<int, 2>> kSizes = {{1, 1}, {5, 3}, {13, 7}, {20, 12}, {9, 16}, {33, 9}, {101, 3}};

TEST(ButterworthLowPass, MatchesModel) {
  for (const auto& sz : kSizes)
    for (int channels : {1, 3})
      for (int cutoff : {1, 3, 10}) {
        const auto src = qvt::MakeNaturalImage(sz[0], sz[1], channels, sz[0] > 4 ? 2 : 0);
        auto dst = qvt::MakeImage(sz[0], sz[1], channels, src.Stride - sz[0] * channels);
        auto expect = dst;
        ASSERT_EQ(QV_ButterworthLowPass(src.ptr(), dst.ptr(), sz[0], sz[1], src.Stride, cutoff), STATUS_OK);
        for (int c = 0; c < channels; ++c) {
          // The body takes the processor's approximate reciprocal; the tail divides.
          const float k = 0.414f / float(cutoff * cutoff);
          auto g = FilterModel(src, c, [&](int x, int y, int col, int pw) {
            const float d = 1.0f + float(x * x + y * y) * k;
            return col < (pw & ~3) ? double(_mm_cvtss_f32(_mm_rcp_ss(_mm_set_ss(d)))) : 1.0 / double(d);
          });
          RealToBytes(g, expect, c);
        }
        EXPECT_CLOSE(Compare(expect, dst, channels), sz[0] << "x" << sz[1] << " c" << channels << " cut " << cutoff);
        for (int y = 0; y < sz[1]; ++y)
          for (int x = sz[0] * channels; x < dst.Stride; ++x)
            ASSERT_EQ(dst.data[size_t(y) * dst.Stride + x], expect.data[size_t(y) * dst.Stride + x]) << "padding";
      }
}

TEST(ButterworthLowPass, SinglePixelAndZeroCutOff) {
  unsigned char px = 77, out = 0;
  ASSERT_EQ(QV_ButterworthLowPass(&px, &out, 1, 1, 1, 5), STATUS_OK);
  EXPECT_EQ(out, 77);
  // CutOff 0: gain 0 off centre and not-a-number at it, which spreads over
  // the plane and comes out as 0 in body and tail alike.
  auto src = qvt::MakeNaturalImage(19, 6, 1);
  auto dst = qvt::MakeImage(19, 6, 1);
  ASSERT_EQ(QV_ButterworthLowPass(src.ptr(), dst.ptr(), 19, 6, 19, 0), STATUS_OK);
  for (auto v : dst.data) ASSERT_EQ(v, 0);
}

TEST(HighFrequencyEmphasizeFilter, MatchesModel) {
  const int params[][3] = {{5, 50, 150}, {2, 100, 0}, {12, 80, 300}, {3, -20, 120}};
  for (const auto& sz : kSizes)
    for (const auto& p : params) {
      const auto src = qvt::MakeNaturalImage(sz[0], sz[1], 1);
      auto dst = qvt::MakeImage(sz[0], sz[1], 1);
      auto expect = dst;
      ASSERT_EQ(QV_HighFrequencyEmphasizeFilter(src.ptr(), dst.ptr(), sz[0], sz[1], sz[0], p[0], p[1], p[2]),
                STATUS_OK);
      const double K = double(p[0] * p[0]) * 0.414;
      auto g = FilterModel(src, 0, [&](int x, int y, int, int) {
        const double r2 = x * x + y * y;
        return p[1] * 0.01 + (r2 == 0 ? 0.0 : p[2] * 0.01 / (1.0 + K / r2));
      });
      RealToBytes(g, expect, 0);
      EXPECT_CLOSE(Compare(expect, dst, 1), sz[0] << "x" << sz[1] << " params " << p[0] << " " << p[1] << " " << p[2]);
    }
}

TEST(HighFrequencyEmphasizeFilter, BodyRoundsTailTruncates) {
  // A flat 9 at gain 0.3 is 2.7 everywhere: 3 in the body, 2 in the tail.
  auto src = qvt::MakeImage(12, 5, 1, 0, false);
  std::fill(src.data.begin(), src.data.end(), 9);
  auto dst = qvt::MakeImage(12, 5, 1);
  ASSERT_EQ(QV_HighFrequencyEmphasizeFilter(src.ptr(), dst.ptr(), 12, 5, 12, 4, 30, 0), STATUS_OK);
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 12; ++x) ASSERT_EQ(dst.at(x, y, 0), x < 8 ? 3 : 2) << x << "," << y;
}

TEST(BandPassFilter, MatchesModel) {
  const int params[][4] = {{40, 3, 0, 5}, {10, 1, 1, 5}, {25, 2, 2, 30}, {6, 0, 1, 90}};
  for (const auto& sz : kSizes) {
    if (sz[0] * sz[1] < 12) continue;
    for (const auto& p : params) {
      const auto src = qvt::MakeNaturalImage(sz[0], sz[1], 1);
      auto dst = qvt::MakeImage(sz[0], sz[1], 1);
      auto expect = dst;
      ASSERT_EQ(QV_BandPassFilter(src.ptr(), dst.ptr(), sz[0], sz[1], sz[0], p[0], p[1], p[2], p[3]), STATUS_OK);
      double P = 1;
      while (P < 1.5 * std::max(sz[0], sz[1])) P *= 2;
      const double a = std::pow(2.0 * p[0] / P, 2), b = std::pow(2.0 * p[1] / P, 2);
      const double s = (100.0 - p[3]) * (100.0 - p[3]) * 0.0001;
      auto g = FilterModel(src, 0, [&](int x, int y, int, int) {
        const double r2 = x * x + y * y;
        double t = 1;
        if (p[2] == 1) t = 1 - std::exp(-s * x * x);
        if (p[2] == 2) t = 1 - std::exp(-s * y * y);
        return (1 - std::exp(-a * r2)) * std::exp(-b * r2) * t;
      });
      std::vector<double> re;
      for (const auto& v : g.v) re.push_back(v.real());
      StretchToBytes(re, g.w, (g.w - sz[0]) / 2, (g.h - sz[1]) / 2, expect, 0);
      EXPECT_CLOSE(Compare(expect, dst, 1), sz[0] << "x" << sz[1] << " params " << p[0] << " " << p[1] << " " << p[2]);
    }
  }
}

TEST(BandPassFilter, FlatImageAndStripeModes) {
  // The mean is removed and nothing else is left: a flat plane of zeros,
  // whose stretch is not a number and comes out 0.
  auto flat = qvt::MakeImage(21, 10, 1, 0, false);
  std::fill(flat.data.begin(), flat.data.end(), 140);
  auto dst = qvt::MakeImage(21, 10, 1);
  ASSERT_EQ(QV_BandPassFilter(flat.ptr(), dst.ptr(), 21, 10, 21, 40, 3, 0, 5), STATUS_OK);
  for (auto v : dst.data) ASSERT_EQ(v, 0);
  // Stripe modes other than 1 and 2 are mode 0.
  const auto src = qvt::MakeNaturalImage(30, 14, 1);
  auto m0 = qvt::MakeImage(30, 14, 1), m3 = m0, m7 = m0;
  ASSERT_EQ(QV_BandPassFilter(src.ptr(), m0.ptr(), 30, 14, 30, 20, 2, 0, 50), STATUS_OK);
  ASSERT_EQ(QV_BandPassFilter(src.ptr(), m3.ptr(), 30, 14, 30, 20, 2, 3, 50), STATUS_OK);
  ASSERT_EQ(QV_BandPassFilter(src.ptr(), m7.ptr(), 30, 14, 30, 20, 2, -7, 50), STATUS_OK);
  EXPECT_TRUE(qvt::SameBytes(m0.data, m3.data));
  EXPECT_TRUE(qvt::SameBytes(m0.data, m7.data));
}

double Schraudolph(double x) {
  const int64_t i = int64_t(std::trunc(1512775.0 * x + 1072632448.0 + 0.5));
  const uint64_t bits = uint64_t(uint32_t(int32_t(i))) << 32;
  double d;
  std::memcpy(&d, &bits, 8);
  return d;
}

// Homomorphic model: the gain's tail columns and the last (count mod 4)
// values of the back-conversion use the coarse bit-pattern exponential.
qvt::Image HomomorphicModel(const qvt::Image& src, float cut, float gh, float gl, float sharp) {
  auto out = qvt::MakeImage(src.Width, src.Height, 1);
  const double m = double(sharp / (cut * cut * 2.0f));
  auto g = FilterModel(
      src, 0,
      [&](int x, int y, int c, int pw) {
        const double r2 = x * x + y * y;
        const double e = c < (pw & ~3) ? std::exp(-m * r2) : Schraudolph(-float(m) * float(r2));
        return (double(gh) - gl) * (1 - e) + gl;
      },
      true);
  std::vector<double> vals(g.v.size());
  for (size_t i = 0; i < vals.size(); ++i)
    vals[i] = i < (vals.size() & ~size_t(3)) ? std::exp(g.v[i].real()) - 1 : Schraudolph(g.v[i].real()) - 1;
  StretchToBytes(vals, g.w, (g.w - src.Width) / 2, (g.h - src.Height) / 2, out, 0);
  return out;
}

TEST(HomomorphicFiltering, MatchesModel) {
  const float params[][4] = {{10, 2.0f, 0.5f, 1.0f}, {3, 1.5f, 0.25f, 2.0f}, {30, 1.2f, 0.8f, 0.5f}};
  for (const auto& sz : std::vector<std::array<int, 2>>{{5, 3}, {13, 7}, {20, 12}, {15, 9}, {33, 9}}) {
    for (const auto& p : params) {
      const auto src = qvt::MakeNaturalImage(sz[0], sz[1], 1);
      auto dst = qvt::MakeImage(sz[0], sz[1], 1);
      ASSERT_EQ(QV_HomomorphicFiltering(src.ptr(), dst.ptr(), sz[0], sz[1], sz[0], p[0], p[1], p[2], p[3]), STATUS_OK);
      EXPECT_CLOSE(Compare(HomomorphicModel(src, p[0], p[1], p[2], p[3]), dst, 1),
                   sz[0] << "x" << sz[1] << " cut " << p[0]);
    }
  }
}

TEST(HomomorphicFiltering, ZeroGammasPassThroughTheExponential) {
  // Both gammas 0: every bin is 0 and so is the whole plane after the
  // inverse. exp(v) - 1 is then 0 in the groups of four, but the coarse
  // exponential of the last (bins mod 4) values gives about -0.03 there, and
  // the stretch makes those 0 and everything else 255. 14 by 6 pads to 15 by
  // 6: 90 bins, the last two at the end of the bottom row, one in the crop.
  const auto src = qvt::MakeNaturalImage(14, 6, 1);
  auto dst = qvt::MakeImage(14, 6, 1);
  ASSERT_EQ(QV_HomomorphicFiltering(src.ptr(), dst.ptr(), 14, 6, 14, 5, 0, 0, 1), STATUS_OK);
  for (int y = 0; y < 6; ++y)
    for (int x = 0; x < 14; ++x) ASSERT_EQ(dst.at(x, y, 0), (x == 13 && y == 5) ? 0 : 255) << x << "," << y;
  // With a multiple of four bins the plane is flat, its stretch not a
  // number, and the bytes 0.
  const auto even = qvt::MakeNaturalImage(16, 6, 1);
  auto out = qvt::MakeImage(16, 6, 1);
  ASSERT_EQ(QV_HomomorphicFiltering(even.ptr(), out.ptr(), 16, 6, 16, 5, 0, 0, 1), STATUS_OK);
  for (auto v : out.data) ASSERT_EQ(v, 0);
}

// Colour: filter the luminance, then c' = ((F c) / L + F + c - L) / 2, body
// by four pixels (ratio rounded to even, (F + c) / 2 where L is 0), scalar
// tail truncating (0 where L is 0).
TEST(HomomorphicFiltering, ColourThroughLuminance) {
  for (const auto& sz : std::vector<std::array<int, 2>>{{7, 5}, {16, 9}, {23, 4}}) {
    for (bool gammas_zero : {false, true}) {
      auto src = qvt::MakeNaturalImage(sz[0], sz[1], 3, 1);
      src.at(0, 0, 0) = src.at(0, 0, 1) = src.at(0, 0, 2) = 0;                          // a zero luminance in the body
      src.at(sz[0] - 1, 1, 0) = src.at(sz[0] - 1, 1, 1) = src.at(sz[0] - 1, 1, 2) = 0;  // and in the tail
      const float gh = gammas_zero ? 0.0f : 1.8f, gl = gammas_zero ? 0.0f : 0.6f;
      auto dst = qvt::MakeImage(sz[0], sz[1], 3, 1);
      auto expect = dst;
      ASSERT_EQ(QV_HomomorphicFiltering(src.ptr(), dst.ptr(), sz[0], sz[1], src.Stride, 8, gh, gl, 1), STATUS_OK);
      auto lum = qvt::MakeImage(sz[0], sz[1], 1), filt = lum;
      ASSERT_EQ(QV_GetLuminance(src.ptr(), lum.ptr(), sz[0], sz[1], src.Stride, 0), STATUS_OK);
      ASSERT_EQ(QV_HomomorphicFiltering(lum.ptr(), filt.ptr(), sz[0], sz[1], sz[0], 8, gh, gl, 1), STATUS_OK);
      for (int y = 0; y < sz[1]; ++y)
        for (int x = 0; x < sz[0]; ++x)
          for (int c = 0; c < 3; ++c) {
            const int L = lum.at(x, y, 0), F = filt.at(x, y, 0), v = src.at(x, y, c);
            int r;
            if (x < (sz[0] & ~3)) {
              const int q = L == 0 ? 0 : int(std::nearbyint(float(F * v) / float(L)));
              r = std::min(255, std::max(0, std::min(65535, q + F + v - L)) >> 1);
            } else {
              r = L == 0 ? 0 : std::max(0, std::min(255, (F * v / L + F + v - L) >> 1));
            }
            expect.at(x, y, c) = static_cast<unsigned char>(r);
          }
      EXPECT_TRUE(qvt::SameBytes(expect.data, dst.data, src.Stride)) << sz[0] << "x" << sz[1] << " " << gammas_zero;
    }
  }
}

TEST(ShowFFT, MatchesModel) {
  for (const auto& sz : kSizes)
    for (int channels : {1, 3}) {
      const auto src = qvt::MakeNaturalImage(sz[0], sz[1], channels);
      auto dst = qvt::MakeImage(sz[0], sz[1], channels);
      auto expect = dst;
      ASSERT_EQ(QV_ShowFFT(src.ptr(), dst.ptr(), sz[0], sz[1], src.Stride), STATUS_OK);
      for (int c = 0; c < channels; ++c) {
        Grid g;
        g.w = qv::OptimalFFTSize(sz[0]);
        g.h = qv::OptimalFFTSize(sz[1]);
        g.v.assign(size_t(g.w) * g.h, 0.0);
        for (int y = 0; y < sz[1]; ++y)
          for (int x = 0; x < sz[0]; ++x) g.at(x, y) = src.at(x, y, c);
        Dft(g, false);
        Shift(g, true);
        std::vector<double> vals;
        for (const auto& v : g.v) vals.push_back(std::log(1.0 + std::abs(v)));
        StretchToBytes(vals, g.w, (g.w - sz[0]) / 2, (g.h - sz[1]) / 2, expect, c);
      }
      if (sz[0] * sz[1] == 1) continue;  // a flat one-bin plane: 0 either way
      EXPECT_CLOSE(Compare(expect, dst, channels), sz[0] << "x" << sz[1] << " c" << channels);
    }
}

TEST(ShowFFT, FlatImageHasOneBinInTheMiddle) {
  auto src = qvt::MakeImage(16, 12, 1, 0, false);
  std::fill(src.data.begin(), src.data.end(), 200);
  auto dst = qvt::MakeImage(16, 12, 1);
  ASSERT_EQ(QV_ShowFFT(src.ptr(), dst.ptr(), 16, 12, 16), STATUS_OK);
  for (int y = 0; y < 12; ++y)
    for (int x = 0; x < 16; ++x) ASSERT_EQ(dst.at(x, y, 0), (x == 8 && y == 6) ? 255 : 0) << x << "," << y;
}

TEST(ShowFFTPrecise, MatchesModel) {
  for (const auto& sz : std::vector<std::array<int, 2>>{{1, 1}, {7, 13}, {10, 6}, {11, 11}, {17, 4}})
    for (int channels : {1, 3, 4}) {
      const auto src = qvt::MakeNaturalImage(sz[0], sz[1], channels);
      auto dst = qvt::MakeImage(sz[0], sz[1], channels);
      auto expect = dst;
      ASSERT_EQ(QV_ShowFFT_Precise(src.ptr(), dst.ptr(), sz[0], sz[1], src.Stride), STATUS_OK);
      Grid a, b;
      a.w = b.w = sz[0];
      a.h = b.h = sz[1];
      a.v.resize(size_t(sz[0]) * sz[1]);
      b.v = a.v;
      for (int y = 0; y < sz[1]; ++y)
        for (int x = 0; x < sz[0]; ++x) {
          a.at(x, y) = channels == 1 ? CD(src.at(x, y, 0), 0) : CD(src.at(x, y, 0), src.at(x, y, 1));
          if (channels > 1) b.at(x, y) = src.at(x, y, 2);
        }
      for (Grid* g : {&a, &b}) {
        Dft(*g, false);
        Shift(*g, true);
      }
      const double k = 0.00392156886;
      for (int y = 0; y < sz[1]; ++y)
        for (int x = 0; x < sz[0]; ++x) {
          expect.at(x, y, 0) = TruncClamp(std::fabs(a.at(x, y).real()) * k);
          if (channels > 1) {
            expect.at(x, y, 1) = TruncClamp(std::fabs(a.at(x, y).imag()) * k);
            expect.at(x, y, 2) = TruncClamp(std::fabs(b.at(x, y).real()) * k);
          }
        }
      EXPECT_CLOSE(Compare(expect, dst, channels), sz[0] << "x" << sz[1] << " c" << channels);
      // The fourth sample is never written.
      if (channels == 4) {
        for (int y = 0; y < sz[1]; ++y)
          for (int x = 0; x < sz[0]; ++x) ASSERT_EQ(dst.at(x, y, 3), expect.at(x, y, 3));
      }
    }
}

TEST(ShowFFTPrecise, FlatImage) {
  auto src = qvt::MakeImage(7, 5, 1, 0, false);
  std::fill(src.data.begin(), src.data.end(), 200);
  auto dst = qvt::MakeImage(7, 5, 1);
  ASSERT_EQ(QV_ShowFFT_Precise(src.ptr(), dst.ptr(), 7, 5, 7), STATUS_OK);
  // trunc(200 * 35 / 255) = 27 at the centre bin, 0 elsewhere.
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 7; ++x) ASSERT_EQ(dst.at(x, y, 0), (x == 3 && y == 2) ? 27 : 0);
}

// Every operator by one signature for the shared tests.
struct Op {
  const char* name;
  std::function<int(const unsigned char*, unsigned char*, int, int, int)> call;
};
std::vector<Op> Ops() {
  return {
      {"ShowFFT", [](auto s, auto d, int w, int h, int st) { return QV_ShowFFT(s, d, w, h, st); }},
      {"ShowFFT_Precise", [](auto s, auto d, int w, int h, int st) { return QV_ShowFFT_Precise(s, d, w, h, st); }},
      {"Butterworth", [](auto s, auto d, int w, int h, int st) { return QV_ButterworthLowPass(s, d, w, h, st, 4); }},
      {"Homomorphic",
       [](auto s, auto d, int w, int h, int st) { return QV_HomomorphicFiltering(s, d, w, h, st, 6, 1.6f, 0.5f, 1); }},
      {"HighFrequency", [](auto s, auto d, int w, int h,
                           int st) { return QV_HighFrequencyEmphasizeFilter(s, d, w, h, st, 5, 60, 150); }},
      {"BandPass",
       [](auto s, auto d, int w, int h, int st) { return QV_BandPassFilter(s, d, w, h, st, 30, 2, 1, 20); }},
  };
}

TEST(FrequencyFrames, StatusesInOrder) {
  unsigned char buf[256] = {5, 6, 7};
  for (const auto& op : Ops()) {
    const bool precise = std::string(op.name) == "ShowFFT_Precise";
    const bool homo = std::string(op.name) == "Homomorphic";
    struct Case {
      const char* what;
      const unsigned char* s;
      unsigned char* d;
      int w, h, stride, expect;
    } cases[] = {
        {"null src before sizes", nullptr, buf, 3, 0, 9, precise ? STATUS_INVALID_PARAMETER : STATUS_NULL_REFERENCE},
        {"null dest", buf, nullptr, 3, 0, 9, precise ? STATUS_INVALID_PARAMETER : STATUS_NULL_REFERENCE},
        {"height 0", buf, buf, 3, 0, 9, STATUS_INVALID_PARAMETER},
        {"negative width", buf, buf, -3, 2, 9, STATUS_INVALID_PARAMETER},
        {"channel 2", buf, buf, 4, 2, 8, STATUS_INVALID_PARAMETER},
        {"channel 0", buf, buf, 4, 2, 3, STATUS_INVALID_PARAMETER},
        {"channel 5", buf, buf, 3, 2, 15, STATUS_INVALID_PARAMETER},
        {"channel 4", buf, buf, 4, 2, 16, homo ? STATUS_NOT_SUPPORTED : STATUS_OK},
    };
    for (const auto& c : cases) {
      unsigned char before[256];
      std::memcpy(before, buf, sizeof buf);
      EXPECT_EQ(op.call(c.s, c.d, c.w, c.h, c.stride), c.expect) << op.name << ": " << c.what;
      if (!precise) {
        EXPECT_EQ(0, std::memcmp(before, buf, sizeof buf)) << op.name << ": " << c.what << " wrote";
      }
    }
  }
}

TEST(FrequencyFrames, FourChannelsLeaveDestAlone) {
  const auto src = qvt::MakeNaturalImage(10, 6, 4);
  for (const auto& op : Ops()) {
    if (std::string(op.name) == "Homomorphic" || std::string(op.name) == "ShowFFT_Precise") continue;
    auto dst = qvt::MakeImage(10, 6, 4);
    const auto before = dst.data;
    EXPECT_EQ(op.call(src.ptr(), dst.ptr(), 10, 6, src.Stride), STATUS_OK) << op.name;
    EXPECT_TRUE(qvt::SameBytes(before, dst.data)) << op.name;
  }
}

TEST(FrequencyFrames, InPlaceEqualsOutOfPlace) {
  for (const auto& op : Ops())
    for (int channels : {1, 3}) {
      const auto src = qvt::MakeNaturalImage(27, 10, channels, 2);
      auto dst = qvt::MakeImage(27, 10, channels, 2);
      auto same = src;
      ASSERT_EQ(op.call(src.ptr(), dst.ptr(), 27, 10, src.Stride), STATUS_OK);
      ASSERT_EQ(op.call(same.ptr(), same.ptr(), 27, 10, src.Stride), STATUS_OK);
      for (int y = 0; y < 10; ++y)
        for (int x = 0; x < 27; ++x)
          for (int c = 0; c < channels; ++c) ASSERT_EQ(dst.at(x, y, c), same.at(x, y, c)) << op.name;
    }
}

TEST(FrequencyFramesDeathTest, ZeroWidthFaults) {
  unsigned char buf[16] = {};
  for (const auto& op : Ops()) qvt::ExpectDivideFault([&](int w) { return op.call(nullptr, buf, w, 0, 4); });
}

TEST(FrequencyFramesDeathTest, ShowFFTPreciseDoesNotTestPointers) {
  unsigned char buf[64] = {};
  EXPECT_DEATH(QV_ShowFFT_Precise(nullptr, buf, 4, 4, 4), "");
}

// A missing plane or scratch is status 2 with Dest untouched; allocations
// inside the engine (tables, rows) are not reported and the call goes on.
TEST(FrequencyFrames, AllocationFailures) {
  for (const auto& op : Ops())
    for (int channels : {1, 3}) {
      const auto src = qvt::MakeNaturalImage(13, 7, channels);
      for (int n = 1;; ++n) {
        auto dst = qvt::MakeImage(13, 7, channels);
        const auto before = dst.data;
        qvt::AllocHook hook(n);
        const int status = op.call(src.ptr(), dst.ptr(), 13, 7, src.Stride);
        const bool reached = hook.Requests() >= n;
        EXPECT_EQ(hook.Live(), 0) << op.name << " allocation " << n;
        if (!reached) break;
        EXPECT_TRUE(status == STATUS_OK || status == STATUS_OUT_OF_MEMORY) << op.name << " " << status;
        if (status != STATUS_OK) {
          EXPECT_TRUE(qvt::SameBytes(before, dst.data)) << op.name << " allocation " << n;
        }
        if (n == 1) {
          EXPECT_EQ(status, STATUS_OUT_OF_MEMORY) << op.name << ": the first plane is reported";
        }
        ASSERT_LT(n, 500);
      }
    }
}

}  // namespace
