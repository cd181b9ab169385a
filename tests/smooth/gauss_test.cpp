// Gaussian blur against a scalar model of its precision chain: float lanes in
// the row groups, double on the single rows, the per-path byte conversions,
// separately rounded vertical halves added with saturation; the float plane
// version lane for lane; a loose check against the Gaussian itself.
#include "smooth/gauss.h"

#include <cmath>
#include <cstring>
#include <limits>

#include "support/support.h"

namespace {

struct Coefs {
  float a0, a1, a2, a3, cp, cn, b1f, b2f;
  double b1, b2;
};

Coefs ModelCoefs(float radius_in) {
  // Through a volatile so that the compiler cannot fold exp at build time,
  // whose rounding may differ from the run-time library's in the last bit.
  volatile float keep = radius_in;
  float radius = keep;
  if (radius < 0.01f) radius = 0.01f;
  const double alpha = 1.695f / double(radius);
  const double e1 = std::exp(-alpha), e2 = std::exp(-2 * alpha);
  const double k = (1 - e1) * (1 - e1) / (1 + 2 * alpha * e1 - e2);
  Coefs c;
  c.a0 = float(k);
  c.a1 = float(k * (alpha - 1) * e1);
  c.a2 = float(k * (alpha + 1) * e1);
  c.a3 = float(-k * e2);
  c.b1 = -2 * e1;
  c.b2 = e2;
  c.b1f = float(c.b1);
  c.b2f = float(c.b2);
  volatile float a1 = c.a1, a3 = c.a3;  // keeps the optimiser from using the unrounded values
  c.cp = float((k + double(a1)) / (1 + c.b1 + c.b2));
  c.cn = float((k * (alpha + 1) * e1 + double(a3)) / (1 + c.b1 + c.b2));
  return c;
}

// One line through both recursions in float lanes: y + z in float.
std::vector<float> LineFloat(const std::vector<float>& x, const Coefs& c) {
  const int n = int(x.size());
  std::vector<float> y(n), out(n);
  float xp = x[0], y1 = x[0] * c.cp, y2 = y1;
  for (int i = 0; i < n; ++i) {
    y[i] = (c.a0 * x[i] + c.a1 * xp) - (c.b1f * y1 + c.b2f * y2);
    y2 = y1, y1 = y[i], xp = x[i];
  }
  float xn1 = x[n - 1], xn2 = xn1, z1 = xn1 * c.cn, z2 = z1;
  for (int i = n - 1; i >= 0; --i) {
    const float z = (c.a2 * xn1 + c.a3 * xn2) - (c.b1f * z1 + c.b2f * z2);
    out[i] = y[i] + z;
    xn2 = xn1, xn1 = x[i], z2 = z1, z1 = z;
  }
  return out;
}

// Saturating round to nearest even, as the vector conversions do.
int RoundSat(float v) {
  const float r = std::nearbyint(v);
  if (!(r > -32768.0f)) return 0;
  return r > 255.0f ? 255 : int(r);
}
int Trunc(double v) { return (v > -2147483649.0 && v < 2147483648.0) ? int(v) : std::numeric_limits<int>::min(); }
int Clamp(int v) { return v < 0 ? 0 : v > 255 ? 255 : v; }

qvt::Bytes GaussModel(const qvt::Image& src, float radius) {
  const Coefs c = ModelCoefs(radius);
  const int W = src.Width, H = src.Height, C = src.Channel, n = W * C, S = src.Stride;
  qvt::Bytes temp(src.data.size()), out(src.data);
  // Horizontal pass, per row and channel.
  for (int y = 0; y < H; ++y)
    for (int ch = 0; ch < C; ++ch) {
      auto at = [&](int x) { return size_t(y) * S + size_t(x) * C + ch; };
      std::vector<float> x(W);
      for (int i = 0; i < W; ++i) x[i] = src.data[at(i)];
      if (C == 1 && y >= (H / 8) * 8) {
        // A row by itself: double recursion, float stores, truncated sum.
        std::vector<float> yf(W);
        double xp = x[0], y1 = xp * double(c.cp), y2 = y1;
        for (int i = 0; i < W; ++i) {
          const double v = (double(c.a0) * x[i] + double(c.a1) * xp) - (c.b1 * y1 + c.b2 * y2);
          yf[i] = float(v);
          y2 = y1, y1 = v, xp = x[i];
        }
        double xn1 = x[W - 1], xn2 = xn1, z1 = xn1 * double(c.cn), z2 = z1;
        for (int i = W - 1; i >= 0; --i) {
          const double v = (double(c.a2) * xn1 + double(c.a3) * xn2) - (c.b1 * z1 + c.b2 * z2);
          temp[at(i)] = static_cast<unsigned char>(Trunc(double(yf[i]) + double(float(v))));
          xn2 = xn1, xn1 = x[i], z2 = z1, z1 = v;
        }
        continue;
      }
      const auto v = LineFloat(x, c);
      for (int i = 0; i < W; ++i) {
        int b;
        if (C == 1)
          b = i < (W / 8) * 8 ? RoundSat(v[i]) : Clamp(Trunc(v[i] + 0.5f));
        else if (C == 3)
          b = i < ((W - 2) / 4) * 4 ? RoundSat(v[i]) : static_cast<unsigned char>(Trunc(v[i] + 0.5f));
        else
          b = i * 4 + ch < (n / 16) * 16 ? RoundSat(v[i]) : Clamp(Trunc(v[i] + 0.5f + 0.5f));
        temp[at(i)] = static_cast<unsigned char>(b);
      }
    }
  // Vertical pass, per sample column: the last n mod 4 in double.
  auto to_byte = [&](int j, float v) { return j < (n / 16) * 16 ? RoundSat(v) : Clamp(Trunc(v + 0.5f + 0.5f)); };
  for (int j = 0; j < n; ++j) {
    const bool dbl = j >= (n / 4) * 4;
    auto x = [&](int y) { return float(temp[size_t(y) * S + j]); };
    auto rec = [&](float ca, float cb, float x0, float x1, float r1, float r2) -> float {
      if (dbl) return float((double(ca) * x0 + double(cb) * x1) - (c.b1 * r1 + c.b2 * r2));
      return (ca * x0 + cb * x1) - (c.b1f * r1 + c.b2f * r2);
    };
    float xp = x(0), y1 = x(0) * c.cp, y2 = y1;
    for (int y = 0; y < H; ++y) {
      const float v = rec(c.a0, c.a1, x(y), xp, y1, y2);
      out[size_t(y) * S + j] = static_cast<unsigned char>(to_byte(j, v));
      y2 = y1, y1 = v, xp = x(y);
    }
    float xn1 = x(H - 1), xn2 = xn1, z1 = xn1 * c.cn, z2 = z1;
    for (int y = H - 1; y >= 0; --y) {
      const float v = rec(c.a2, c.a3, xn1, xn2, z1, z2);
      const int s = out[size_t(y) * S + j] + to_byte(j, v);
      out[size_t(y) * S + j] = static_cast<unsigned char>(s > 255 ? 255 : s);
      xn2 = xn1, xn1 = x(y), z2 = z1, z1 = v;
    }
  }
  return out;
}

std::vector<qvt::Shape> GaussShapes() {
  std::vector<qvt::Shape> out;
  for (int c : {1, 3, 4}) {
    for (int w = 1; w <= 40; ++w)
      for (int h : {1, 2, 3, 7, 8, 9, 17}) {
        out.push_back({w, h, c, 0});
        if (w > 3) out.push_back({w, h, c, (w + h) % 3 + 1});
      }
    // Heights around the row groupings: 16 gray rows or 4 colour rows at
    // once, then a group of 8 (or 2, or 1), then the scalar rows.
    for (int w : {63, 64, 65, 255, 333})
      for (int h : {5, 16, 19, 24, 30, 41}) out.push_back({w, h, c, w % 3});
  }
  return out;
}

TEST(GaussBlur, MatchesModelOnEveryShape) {
  for (const auto& s : GaussShapes())
    for (float radius : {0.6f, 2.0f, 13.5f}) {
      auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      auto dst = src;
      ASSERT_EQ(QV_GaussBlur(src.ptr(), dst.ptr(), s.Width, s.Height, src.Stride, radius), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(GaussModel(src, radius), dst.data, src.Stride)) << qvt::ToString(s) << " r=" << radius;
      // In place: Src is read only by the rows, Dest written only by the columns.
      auto in_place = src;
      ASSERT_EQ(QV_GaussBlur(in_place.ptr(), in_place.ptr(), s.Width, s.Height, src.Stride, radius), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(dst.data, in_place.data, src.Stride)) << qvt::ToString(s);
    }
}

// Below the 0.01 floor the filter is the identity in float, so the body keeps
// every byte while in the tail of each row both vertical halves get their
// two halves of 0.5: the forward byte comes out one higher and the backward
// one, nearly 0, comes out 1. Four channels take the same tail once more in
// the rows.
TEST(GaussBlur, FloorAndTailBias) {
  for (int c : {1, 3, 4}) {
    auto src = qvt::MakeImage(21, 11, c, 2);
    for (auto& v : src.data) v = v > 250 ? 250 : v;
    auto a = src, b = src;
    ASSERT_EQ(QV_GaussBlur(src.ptr(), a.ptr(), 21, 11, src.Stride, 0.005f), STATUS_OK);
    ASSERT_EQ(QV_GaussBlur(src.ptr(), b.ptr(), 21, 11, src.Stride, 0.01f), STATUS_OK);
    EXPECT_TRUE(qvt::SameBytes(a.data, b.data));
    const int n = 21 * c;
    for (int y = 0; y < 11; ++y)
      for (int j = 0; j < n; ++j) {
        const size_t k = size_t(y) * src.Stride + j;
        ASSERT_EQ(a.data[k], src.data[k] + (j >= (n / 16) * 16 ? (c == 4 ? 3 : 2) : 0))
            << "c=" << c << " y=" << y << " j=" << j;
      }
  }
}

TEST(GaussBlur, FrameOrder) {
  unsigned char buf[64];
  const float nan = std::numeric_limits<float>::quiet_NaN();
  struct Case {
    const char* what;
    bool null_src, null_dst;
    int w, h, stride;
    float radius;
    int expect;
  } cases[] = {
      {"null src before sizes", true, true, 3, 0, 9, 0, STATUS_NULL_REFERENCE},
      {"null dest before sizes", false, true, 3, 0, 9, 0, STATUS_NULL_REFERENCE},
      {"height 0", false, false, 3, 0, 9, 1, STATUS_INVALID_PARAMETER},
      {"width negative", false, false, -3, 1, -9, 1, STATUS_INVALID_PARAMETER},
      {"radius 0", false, false, 3, 2, 9, 0, STATUS_INVALID_PARAMETER},
      {"radius negative before channel", false, false, 4, 2, 8, -1, STATUS_INVALID_PARAMETER},
      {"channel 2", false, false, 4, 2, 8, 1, STATUS_NOT_SUPPORTED},
      {"channel 0", false, false, 4, 1, 3, 1, STATUS_NOT_SUPPORTED},
      {"channel 5", false, false, 3, 1, 15, 1, STATUS_NOT_SUPPORTED},
      {"NaN passes", false, false, 3, 2, 9, nan, STATUS_OK},
  };
  for (auto& c : cases) {
    qvt::Bytes src(64, 9);
    std::fill(buf, buf + 64, 77);
    EXPECT_EQ(QV_GaussBlur(c.null_src ? nullptr : src.data(), c.null_dst ? nullptr : buf, c.w, c.h, c.stride, c.radius),
              c.expect)
        << c.what;
    if (c.expect != STATUS_OK) {
      EXPECT_TRUE(std::all_of(buf, buf + 64, [](unsigned char v) { return v == 77; })) << c.what << ": Dest touched";
    }
  }
  float f[16] = {};
  EXPECT_EQ(qv::GaussBlurFloat(nullptr, f, 0, 0, 0, 0), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::GaussBlurFloat(f, nullptr, 0, 0, 0, 0), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::GaussBlurFloat(f, f, 0, 1, 0, 1), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::GaussBlurFloat(f, f, 2, 0, 0, 1), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::GaussBlurFloat(f, f, 2, 2, 0, 0), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::GaussBlurFloat(f, f, 2, 2, 12345, 1), STATUS_OK);  // Reserved is not read
}

TEST(GaussBlurDeathTest, ZeroWidthFaults) {
  unsigned char buf[16] = {};
  qvt::ExpectDivideFault([&](int w) { return QV_GaussBlur(nullptr, buf, w, 0, 4, 1.0f); });
}

TEST(GaussBlur, AllocationFailures) {
  for (int c : {1, 3}) {
    auto src = qvt::MakeImage(45, 18, c, 2);
    const auto before = qvt::MakeImage(45, 18, c, 2);
    auto dst = before;
    const int n = qvt::CheckEveryAllocationFailure(
        [&] { return QV_GaussBlur(src.ptr(), dst.ptr(), 45, 18, src.Stride, 3.0f); }, STATUS_OUT_OF_MEMORY,
        [&] { EXPECT_TRUE(qvt::SameBytes(before.data, dst.data)) << "Dest touched"; });
    EXPECT_EQ(n, 4);
  }
  std::vector<float> fs(45 * 18, 1.0f), fd(45 * 18, 5.0f);
  const int n = qvt::CheckEveryAllocationFailure(
      [&] { return qv::GaussBlurFloat(fs.data(), fd.data(), 45, 18, 45, 3.0f); }, STATUS_OUT_OF_MEMORY,
      [&] { EXPECT_TRUE(std::all_of(fd.begin(), fd.end(), [](float v) { return v == 5.0f; })); });
  EXPECT_EQ(n, 4);
}

// The float plane: every row and column through the same float recursion.
TEST(GaussBlurFloat, MatchesModel) {
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> d(0.0f, 255.0f);
  for (int w : {1, 2, 3, 4, 5, 7, 8, 9, 13, 16, 17, 40, 67})
    for (int h : {1, 2, 7, 8, 9, 17, 20})
      for (float radius : {0.8f, 4.0f, 30.0f}) {
        std::vector<float> src(size_t(w) * h), dst(src.size());
        for (auto& v : src) v = d(rng);
        const Coefs c = ModelCoefs(radius);
        std::vector<float> expect(src.size());
        for (int y = 0; y < h; ++y) {
          std::vector<float> line(src.begin() + y * w, src.begin() + (y + 1) * w);
          const auto r = LineFloat(line, c);
          std::copy(r.begin(), r.end(), expect.begin() + y * w);
        }
        for (int x = 0; x < w; ++x) {
          std::vector<float> col(h);
          for (int y = 0; y < h; ++y) col[y] = expect[size_t(y) * w + x];
          const auto r = LineFloat(col, c);
          for (int y = 0; y < h; ++y) expect[size_t(y) * w + x] = r[y];
        }
        ASSERT_EQ(qv::GaussBlurFloat(src.data(), dst.data(), w, h, 0, radius), STATUS_OK);
        ASSERT_EQ(0, std::memcmp(expect.data(), dst.data(), dst.size() * sizeof(float)))
            << "w=" << w << " h=" << h << " r=" << radius;
        ASSERT_EQ(qv::GaussBlurFloat(src.data(), src.data(), w, h, 0, radius), STATUS_OK);
        ASSERT_EQ(0, std::memcmp(src.data(), dst.data(), dst.size() * sizeof(float))) << "in place";
      }
}

// Loosely, the impulse response is the sampled Gaussian of sigma Radius
// (the recursion approximates it within a tenth of its peak) and keeps its sum.
TEST(GaussBlurFloat, ApproximatesTheGaussian) {
  for (float sigma : {2.0f, 5.0f, 12.0f}) {
    const double peak = 1.0 / (sigma * std::sqrt(2 * M_PI));
    const int w = 201;
    std::vector<float> src(w, 0.0f), dst(w);
    src[100] = 1.0f;
    ASSERT_EQ(qv::GaussBlurFloat(src.data(), dst.data(), w, 1, w, sigma), STATUS_OK);
    double sum = 0;
    for (int x = 0; x < w; ++x) {
      const double g = std::exp(-(x - 100.0) * (x - 100.0) / (2.0 * sigma * sigma)) / (sigma * std::sqrt(2 * M_PI));
      EXPECT_NEAR(dst[x], g, 0.1 * peak) << "sigma " << sigma << " x " << x;
      sum += dst[x];
    }
    EXPECT_NEAR(sum, 1.0, 1e-3);
  }
}

}  // namespace
