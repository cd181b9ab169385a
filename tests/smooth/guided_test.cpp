// Guided filters against a double-precision model of their steps; the float
// box means against a model in their summation order; the nearest-sample
// reduction and the model evaluation with its two conversions; frames,
// stated special cases and allocation failures.
#include "smooth/guided.h"

#include <array>
#include <cmath>
#include <cstring>

#include "frame/border.h"
#include "frame/rows.h"
#include "support/support.h"

namespace {

using Floats = std::vector<float>;
using Doubles = std::vector<double>;

bool SameFloats(const Floats& a, const Floats& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

// ---- float box mean in its summation order ------------------------------------------
// Column sums: first row by adding rows 0..2R in order, then C + (new - old);
// columns reflect without the edge, rows repeat it. Channel 1: the first
// window from SumRowF32, running sums in float over the vector blocks of 4,
// in double afterwards. Channels 3, 4: lane sums of the first 2R pixels, then
// add, output, remove; float over blocks of 2 pixels, double afterwards.
Floats BoxFloatModel(const Floats& src, int w, int h, int stride, int radius) {
  const int ch = stride / w;
  const int r = std::min(radius, std::min(w - 1, h - 1));
  const double inv_d = 1.0 / (double(2 * r + 1) * (2 * r + 1));
  const float inv_f = float(inv_d);
  Floats out(src.size(), -1.0f);
  Floats col(size_t(w + 2 * r) * ch + 4, 0.0f);
  auto row_of = [&](int k) { return qv::MirrorIndex(h, k); };
  for (int y = 0; y < h; ++y) {
    float* c = col.data() + r * ch;
    for (int i = 0; i < w * ch; ++i) {
      if (y == 0) {
        c[i] = 0;
        for (int k = -r; k <= r; ++k) c[i] = c[i] + src[size_t(row_of(k)) * stride + i];
      } else {
        c[i] = c[i] + (src[size_t(row_of(y + r)) * stride + i] - src[size_t(row_of(y - r - 1)) * stride + i]);
      }
    }
    for (int k = 1; k <= r; ++k)
      for (int q = 0; q < ch; ++q) {
        c[-k * ch + q] = c[k * ch + q];
        c[(w - 1 + k) * ch + q] = c[(w - 1 - k) * ch + q];
      }
    const float* C = col.data();
    float* o = out.data() + size_t(y) * stride;
    if (ch == 1) {
      double s = qv::SumRowF32(C, 2 * r + 1);
      o[0] = float(s * inv_d);
      const int block_end = ((w - 1) / 4) * 4 + 1;
      float sf = float(s);
      int x = 1;
      for (; x < block_end; ++x) {
        sf = sf + (C[x + 2 * r] - C[x - 1]);
        o[x] = sf * inv_f;
      }
      if (block_end > 1) s = sf;
      for (; x < w; ++x) {
        s += double(C[x + 2 * r]) - double(C[x - 1]);
        o[x] = float(s * inv_d);
      }
    } else {
      float sf[4] = {0, 0, 0, 0};
      for (int p = 0; p < 2 * r; ++p)
        for (int q = 0; q < ch; ++q) sf[q] += C[p * ch + q];
      const int vector_end = ch == 3 ? ((w - 1) / 2) * 2 : ((w - 2) / 2) * 2;
      int x = 0;
      for (; x < vector_end; ++x)
        for (int q = 0; q < ch; ++q) {
          sf[q] = sf[q] + C[(x + 2 * r) * ch + q];
          o[x * ch + q] = sf[q] * inv_f;
          sf[q] = sf[q] - C[x * ch + q];
        }
      double s[4] = {sf[0], sf[1], sf[2], sf[3]};
      for (; x < w; ++x)
        for (int q = 0; q < ch; ++q) {
          s[q] += double(C[(x + 2 * r) * ch + q]);
          o[x * ch + q] = float(s[q] * inv_d);
          s[q] -= double(C[x * ch + q]);
        }
    }
  }
  return out;
}

Floats RandomFloats(size_t n, bool whole, std::mt19937& rng) {
  std::uniform_real_distribution<float> d(0.0f, 255.0f);
  Floats v(n);
  for (auto& f : v) f = whole ? std::floor(d(rng)) : d(rng) * d(rng);
  return v;
}

TEST(BoxBlurFloat, MatchesModelInSummationOrder) {
  std::mt19937 rng(5);
  for (int ch : {1, 3, 4})
    for (int w = 1; w <= 37; ++w)
      for (int h : {1, 2, 5, 23})
        for (int radius : {1, 2, 3, 7, 40}) {
          const int pad = (w + h) % 3 == 0 && w > 2 ? 2 : 0;  // padded rows, in floats
          const int stride = w * ch + pad;
          const Floats src = RandomFloats(size_t(stride) * h, (w + radius) % 2 == 0, rng);
          Floats out(src.size(), -1.0f);
          ASSERT_EQ(qv::BoxBlurFloat(src.data(), out.data(), w, h, stride, radius), STATUS_OK);
          const Floats want = BoxFloatModel(src, w, h, stride, radius);
          for (int y = 0; y < h; ++y)
            for (int i = 0; i < w * ch; ++i) {
              const size_t k = size_t(y) * stride + i;
              ASSERT_EQ(out[k], want[k]) << "C=" << ch << " W=" << w << " H=" << h << " R=" << radius << " y=" << y
                                         << " i=" << i;
            }
        }
}

// A loose check against plain double window means: the filter does its job.
TEST(BoxBlurFloat, CloseToExactMeans) {
  std::mt19937 rng(6);
  const int w = 61, h = 47, ch = 3, radius = 6;
  const Floats src = RandomFloats(size_t(w) * h * ch, true, rng);
  Floats out(src.size());
  ASSERT_EQ(qv::BoxBlurFloat(src.data(), out.data(), w, h, w * ch, radius), STATUS_OK);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int c = 0; c < ch; ++c) {
        double s = 0;
        for (int dy = -radius; dy <= radius; ++dy)
          for (int dx = -radius; dx <= radius; ++dx)
            s += src[size_t(qv::MirrorIndex(h, y + dy)) * w * ch + qv::Reflect101Index(w, x + dx) * ch + c];
        ASSERT_NEAR(out[size_t(y) * w * ch + x * ch + c], s / 169.0, 1e-3);
      }
}

TEST(BoxBlurFloat, FrameAndAllocation) {
  Floats a(64, 1.0f), b(64, 2.0f);
  EXPECT_EQ(qv::BoxBlurFloat(nullptr, b.data(), 4, 2, 4, 1), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::BoxBlurFloat(a.data(), nullptr, 4, 2, 4, 1), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::BoxBlurFloat(a.data(), b.data(), 4, 0, 4, 1), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::BoxBlurFloat(a.data(), b.data(), 4, 2, 4, 0), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::BoxBlurFloat(a.data(), b.data(), 4, 2, 8, 1), STATUS_NOT_SUPPORTED);
  EXPECT_TRUE(SameFloats(b, Floats(64, 2.0f)));
  qvt::CheckEveryAllocationFailure([&] { return qv::BoxBlurFloat(a.data(), b.data(), 4, 4, 12, 1); });
}

TEST(BoxBlurFloatFractional, PicksOrBlendsIntegerRadii) {
  std::mt19937 rng(8);
  const int w = 19, h = 13;
  for (int ch : {1, 3, 4}) {
    const int stride = w * ch;
    const Floats src = RandomFloats(size_t(stride) * h, false, rng);
    auto box = [&](int r) {
      Floats o(src.size());
      EXPECT_EQ(qv::BoxBlurFloat(src.data(), o.data(), w, h, stride, r), STATUS_OK);
      return o;
    };
    auto frac = [&](float r) {
      Floats o(src.size());
      EXPECT_EQ(qv::BoxBlurFloatFractional(src.data(), o.data(), w, h, stride, r), STATUS_OK) << r;
      return o;
    };
    EXPECT_TRUE(SameFloats(frac(3.0f), box(3)));
    EXPECT_TRUE(SameFloats(frac(3.09f), box(3)));  // within 0.1 below
    EXPECT_TRUE(SameFloats(frac(2.91f), box(3)));  // more than 0.9 above 2
    EXPECT_TRUE(SameFloats(frac(0.95f), box(1)));
    for (float r : {2.11f, 2.5f, 2.89f, 1.4f}) {
      const int ri = int(r);
      const float f = r - float(ri);
      const Floats lo = box(ri), hi = box(ri + 1);
      Floats want(src.size());
      for (size_t i = 0; i < want.size(); ++i) want[i] = lo[i] * float(1 - f) + hi[i] * float(f);
      EXPECT_TRUE(SameFloats(frac(r), want)) << r;
    }
  }
  // A radius that truncates to 0 reaches BoxBlurFloat with 0, which refuses it.
  Floats a(12, 1.0f), b(12, 0.0f);
  EXPECT_EQ(qv::BoxBlurFloatFractional(a.data(), b.data(), 4, 3, 4, 0.5f), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::BoxBlurFloatFractional(a.data(), b.data(), 4, 3, 4, 0.05f), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::BoxBlurFloatFractional(a.data(), b.data(), 4, 3, 4, 0.0f), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::BoxBlurFloatFractional(nullptr, b.data(), 4, 3, 4, 2.0f), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::BoxBlurFloatFractional(a.data(), b.data(), 2, 3, 4, 2.0f), STATUS_NOT_SUPPORTED);
  Floats big(32 * 9, 3.0f), dst(big.size());
  qvt::CheckEveryAllocationFailure([&] { return qv::BoxBlurFloatFractional(big.data(), dst.data(), 32, 9, 32, 2.5f); });
}

// ---- reduction and model evaluation ---------------------------------------------------

TEST(ResampleToFloat, NearestSamples) {
  for (int ch : {1, 3, 4})
    for (auto [w, h, sw, sh] : {std::array<int, 4>{20, 9, 6, 5}, {7, 7, 7, 7}, {33, 17, 8, 4}, {5, 3, 1, 1}}) {
      const auto src = qvt::MakeImage(w, h, ch, w > 3 ? 2 : 0);
      Floats out(size_t(sw) * sh * ch, -1.0f);
      ASSERT_EQ(qv::ResampleToFloat(src.ptr(), out.data(), w, h, sw, sh, src.Stride), STATUS_OK);
      for (int j = 0; j < sh; ++j)
        for (int i = 0; i < sw; ++i)
          for (int c = 0; c < ch; ++c)
            ASSERT_EQ(out[(size_t(j) * sw + i) * ch + c], float(src.at(i * w / sw, j * h / sh, c)));
    }
  unsigned char b[64] = {};
  float f[64];
  EXPECT_EQ(qv::ResampleToFloat(nullptr, f, 4, 4, 2, 2, 4), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::ResampleToFloat(b, nullptr, 4, 4, 2, 2, 4), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::ResampleToFloat(b, f, 4, 4, 0, 2, 4), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::ResampleToFloat(b, f, 4, 4, 2, 2, 8), STATUS_NOT_SUPPORTED);
}

// Model evaluation in double: enlargement by a step of (SmallWidth - 1) /
// Width, rows at y * (SmallHeight - 1) / Height, q = a * G + b.
Doubles ModelQ(const unsigned char* guide, const Doubles& a, const Doubles& b, int sw, int sh, int w, int h,
               int stride) {
  const int ch = stride / w;
  Doubles q(size_t(h) * w * ch);
  auto at = [&](const Doubles& p, double fx, double fy, int c) {
    const int ix = int(fx), iy = int(fy);
    const int jx = std::min(ix + 1, sw - 1), jy = std::min(iy + 1, sh - 1);
    const double u = fx - ix, v = fy - iy;
    auto s = [&](int x, int y) { return p[(size_t(y) * sw + x) * ch + c]; };
    // The rows are enlarged first and stored as float.
    const double r0 = float(s(ix, iy) * (1 - u) + s(jx, iy) * u), r1 = float(s(ix, jy) * (1 - u) + s(jx, jy) * u);
    return r0 * (1 - v) + r1 * v;
  };
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int c = 0; c < ch; ++c) {
        const double fx = x * ((sw - 1.0) / w), fy = y * (sh - 1.0) / h;
        q[(size_t(y) * w + x) * ch + c] = at(a, fx, fy, c) * guide[size_t(y) * stride + x * ch + c] + at(b, fx, fy, c);
      }
  return q;
}

// Vector body (first (n / 8) * 8 samples of a row): nearest, ties to even,
// saturated. Tail: trunc(q + 0.5) capped at 255 only, low byte kept.
unsigned char ByteOf(double q, bool tail) {
  if (!tail) return static_cast<unsigned char>(std::min(255.0, std::max(0.0, std::nearbyint(q))));
  const double t = q + 0.5;
  if (!(t > -2147483649.0)) return 0;
  return static_cast<unsigned char>(t >= 255 ? 255 : static_cast<int>(t));
}

// Every byte must be what the model's q gives, allowing for q moving by Slack
// (float drift in the library's planes).
::testing::AssertionResult MatchesQ(const qvt::Image& out, const Doubles& q, double Slack) {
  const int n = out.Width * out.Channel;
  for (int y = 0; y < out.Height; ++y)
    for (int i = 0; i < n; ++i) {
      const bool tail = i >= (n / 8) * 8;
      const double v = q[size_t(y) * n + i];
      const unsigned char got = out.data[size_t(y) * out.Stride + i];
      if (got != ByteOf(v - Slack, tail) && got != ByteOf(v + Slack, tail))
        return ::testing::AssertionFailure() << "row " << y << " sample " << i << ": q " << v << ", got " << int(got);
    }
  return ::testing::AssertionSuccess();
}

TEST(ApplyGuidedModel, MatchesDoubleEnlargement) {
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> ra(-0.5, 1.5), rb(-60, 300);
  for (int ch : {1, 3, 4})
    for (auto [w, h, sw, sh] :
         {std::array<int, 4>{23, 9, 6, 5}, {7, 5, 7, 5}, {1, 6, 1, 6}, {9, 1, 9, 1}, {40, 31, 9, 7}}) {
      Doubles a(size_t(sw) * sh * ch), b(a.size());
      Floats fa(a.size()), fb(a.size());
      for (size_t k = 0; k < a.size(); ++k) fa[k] = float(ra(rng)), fb[k] = float(rb(rng)), a[k] = fa[k], b[k] = fb[k];
      const auto guide = qvt::MakeImage(w, h, ch, w > 3 ? 1 : 0);
      auto out = qvt::MakeImage(w, h, ch, w > 3 ? 1 : 0);
      ASSERT_EQ(qv::ApplyGuidedModel(guide.ptr(), fa.data(), fb.data(), out.ptr(), sw, sh, w, h, guide.Stride),
                STATUS_OK);
      EXPECT_TRUE(MatchesQ(out, ModelQ(guide.ptr(), a, b, sw, sh, w, h, guide.Stride), 1e-3))
          << "C=" << ch << " " << w << "x" << h << " from " << sw << "x" << sh;
    }
}

// The two conversions side by side: 9 samples a row, 8 in the vector body
// and 1 in the tail, with a = 0 so that q = b.
TEST(ApplyGuidedModel, VectorBodyAndTailConvertDifferently) {
  struct Case {
    float b;
    int body, tail;
  } cases[] = {
      {-3.0f, 0, 254},     // saturated versus wrapped: trunc(-2.5) = -2
      {-0.4f, 0, 0},       // trunc(0.1)
      {100.5f, 100, 101},  // ties to even versus half up
      {101.5f, 102, 102}, {254.7f, 255, 255}, {300.0f, 255, 255}, {NAN, 0, 0},  // a 0 / 0 of a flat image without Eps
  };
  for (const auto& c : cases) {
    const auto guide = qvt::MakeImage(9, 3, 1);
    auto out = qvt::MakeImage(9, 3, 1);
    Floats a(9 * 3, 0.0f), b(9 * 3, c.b);
    ASSERT_EQ(qv::ApplyGuidedModel(guide.ptr(), a.data(), b.data(), out.ptr(), 9, 3, 9, 3, 9), STATUS_OK);
    for (int y = 0; y < 3; ++y) {
      for (int x = 0; x < 8; ++x) EXPECT_EQ(out.at(x, y, 0), c.body) << c.b;
      EXPECT_EQ(out.at(8, y, 0), c.tail) << c.b;
    }
  }
}

TEST(ApplyGuidedModel, LastPixelFallsShortOfLastInput) {
  // A ramp b = 10 * column at full size: pixel x sits at x * (W - 1) / W.
  const int w = 16;
  const auto guide = qvt::MakeImage(w, 1, 1);
  auto out = qvt::MakeImage(w, 1, 1);
  Floats a(w, 0.0f), b(w);
  for (int x = 0; x < w; ++x) b[x] = 10.0f * x;
  ASSERT_EQ(qv::ApplyGuidedModel(guide.ptr(), a.data(), b.data(), out.ptr(), w, 1, w, 1, w), STATUS_OK);
  EXPECT_EQ(out.at(0, 0, 0), 0);
  EXPECT_EQ(out.at(15, 0, 0), 141);  // 150 * 15 / 16 = 140.625, not 150
}

// ---- the filters against a double-precision model -----------------------------------------

struct ModelGrid {
  int sw, sh;
  float scale, radius;
};
ModelGrid GridOf(int w, int h, int radius, int ratio) {
  float scale = ratio * 0.01f;
  int sw = int(double(w * scale) + 0.5), sh = int(double(h * scale) + 0.5);
  if (sw <= 5 || sh <= 4) sw = w, sh = h, scale = 1.0f;
  radius = std::min(std::max(radius, 4), std::min(w, h));
  return {sw, sh, scale, scale * float(radius)};
}

// Exact window means (rows repeat the edge, columns do not), the fractional
// radius as a blend of the two neighbouring integer radii.
Doubles BoxDouble(const Doubles& p, int w, int h, int ch, int r) {
  r = std::min(r, std::min(w - 1, h - 1));
  Doubles out(p.size());
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int c = 0; c < ch; ++c) {
        double s = 0;
        for (int dy = -r; dy <= r; ++dy)
          for (int dx = -r; dx <= r; ++dx)
            s += p[(size_t(qv::MirrorIndex(h, y + dy)) * w + qv::Reflect101Index(w, x + dx)) * ch + c];
        out[(size_t(y) * w + x) * ch + c] = s / ((2 * r + 1) * (2 * r + 1));
      }
  return out;
}
Doubles BoxFractionalDouble(const Doubles& p, int w, int h, int ch, float radius) {
  const int r = int(radius);
  const float d = std::fabs(float(r) - radius);
  if (d < 0.1f) return BoxDouble(p, w, h, ch, r);
  if (d > 0.9f) return BoxDouble(p, w, h, ch, r + 1);
  const Doubles lo = BoxDouble(p, w, h, ch, r), hi = BoxDouble(p, w, h, ch, r + 1);
  const double f = radius - r;
  Doubles out(p.size());
  for (size_t k = 0; k < p.size(); ++k) out[k] = lo[k] * (1 - f) + hi[k] * f;
  return out;
}

Doubles Reduce(const qvt::Image& im, int sw, int sh) {
  Doubles out(size_t(sw) * sh * im.Channel);
  for (int j = 0; j < sh; ++j)
    for (int i = 0; i < sw; ++i)
      for (int c = 0; c < im.Channel; ++c)
        out[(size_t(j) * sw + i) * im.Channel + c] = im.at(i * im.Width / sw, j * im.Height / sh, c);
  return out;
}

Doubles GuidedQ(const qvt::Image& src, const qvt::Image& guide, int radius, int ratio, float eps) {
  const ModelGrid g = GridOf(src.Width, src.Height, radius, ratio);
  const int ch = src.Channel;
  const Doubles p = Reduce(src, g.sw, g.sh), i = Reduce(guide, g.sw, g.sh);
  Doubles ip(p.size()), ii(p.size());
  for (size_t k = 0; k < p.size(); ++k) ip[k] = i[k] * p[k], ii[k] = i[k] * i[k];
  auto box = [&](const Doubles& v) { return BoxFractionalDouble(v, g.sw, g.sh, ch, g.radius); };
  const Doubles mp = box(p), mi = box(i), mii = box(ii), mip = box(ip);
  Doubles a(p.size()), b(p.size());
  const double e2 = double(eps) * eps;
  for (size_t k = 0; k < p.size(); ++k) {
    a[k] = (mip[k] - mp[k] * mi[k]) / ((mii[k] - mi[k] * mi[k]) + e2);
    b[k] = mp[k] - a[k] * mi[k];
  }
  return ModelQ(guide.ptr(), box(a), box(b), g.sw, g.sh, src.Width, src.Height, src.Stride);
}

struct FilterCase {
  int w, h, ch, pad, radius, ratio;
  float eps;
};
const FilterCase kFilterCases[] = {
    {64, 48, 1, 0, 8, 25, 20.0f},   {64, 48, 3, 1, 8, 25, 20.0f},  {61, 37, 4, 0, 5, 50, 10.0f},
    {33, 21, 1, 2, 3, 100, 15.0f},  {40, 40, 3, 0, 16, 20, 30.0f}, {24, 20, 4, 3, 6, 25, 20.0f},
    {20, 20, 1, 0, 4, 25, 20.0f},   {1, 9, 1, 0, 4, 100, 20.0f},   {13, 1, 3, 0, 4, 100, 20.0f},
    {100, 60, 1, 0, 20, 10, 25.0f},
};

TEST(GuidedFilter, MatchesDoubleModel) {
  for (const auto& c : kFilterCases) {
    const auto src = qvt::MakeNaturalImage(c.w, c.h, c.ch, c.pad, 3);
    auto guide = qvt::MakeImage(c.w, c.h, c.ch, c.pad);
    // A guide with real edges: a blocky pattern plus the source.
    for (int y = 0; y < c.h; ++y)
      for (int x = 0; x < c.w; ++x)
        for (int k = 0; k < c.ch; ++k)
          guide.at(x, y, k) = ((x / 7 + y / 5) % 2) ? src.at(x, y, k) : 255 - src.at(x, y, k);
    auto out = qvt::MakeImage(c.w, c.h, c.ch, c.pad);
    ASSERT_EQ(QV_GuidedFilter(src.ptr(), guide.ptr(), out.ptr(), c.w, c.h, src.Stride, c.radius, c.ratio, c.eps),
              STATUS_OK);
    EXPECT_TRUE(MatchesQ(out, GuidedQ(src, guide, c.radius, c.ratio, c.eps), 0.02))
        << c.w << "x" << c.h << " C=" << c.ch << " r=" << c.radius << " ratio " << c.ratio;
    // The self-guided form is the guided one with Src as its guide.
    auto self = qvt::MakeImage(c.w, c.h, c.ch, c.pad);
    ASSERT_EQ(QV_SelfGuidedFilter(src.ptr(), self.ptr(), c.w, c.h, src.Stride, c.radius, c.ratio, c.eps), STATUS_OK);
    EXPECT_TRUE(MatchesQ(self, GuidedQ(src, src, c.radius, c.ratio, c.eps), 0.02))
        << "self " << c.w << "x" << c.h << " C=" << c.ch;
  }
}

TEST(GuidedFilter, InPlaceGivesTheSameBytes) {
  const auto src = qvt::MakeNaturalImage(45, 30, 3, 2);
  auto ref = src;
  ASSERT_EQ(QV_GuidedFilter(src.ptr(), src.ptr(), ref.ptr(), 45, 30, src.Stride, 6, 50, 20.0f), STATUS_OK);
  auto inplace = src;
  ASSERT_EQ(QV_GuidedFilter(inplace.ptr(), inplace.ptr(), inplace.ptr(), 45, 30, src.Stride, 6, 50, 20.0f), STATUS_OK);
  EXPECT_TRUE(qvt::SameBytes(ref.data, inplace.data));
  auto self = src;
  ASSERT_EQ(QV_SelfGuidedFilter(self.ptr(), self.ptr(), 45, 30, src.Stride, 6, 50, 20.0f), STATUS_OK);
  EXPECT_TRUE(qvt::SameBytes(ref.data, self.data));
}

TEST(GuidedFilter, StatedCases) {
  // A flat image stays flat.
  for (int ch : {1, 3, 4}) {
    auto flat = qvt::MakeImage(37, 29, ch, 1, false);
    for (int y = 0; y < 29; ++y)
      for (int x = 0; x < 37; ++x)
        for (int c = 0; c < ch; ++c) flat.at(x, y, c) = static_cast<unsigned char>(90 + 40 * c);
    auto out = flat;
    ASSERT_EQ(QV_SelfGuidedFilter(flat.ptr(), out.ptr(), 37, 29, flat.Stride, 5, 40, 10.0f), STATUS_OK);
    EXPECT_TRUE(qvt::SameBytes(flat.data, out.data));
    ASSERT_EQ(QV_GuidedFilter(flat.ptr(), flat.ptr(), out.ptr(), 37, 29, flat.Stride, 5, 100, 10.0f), STATUS_OK);
    EXPECT_TRUE(qvt::SameBytes(flat.data, out.data));
  }
  // Eps 0 on a flat black image: 0 / 0 in every sample, body and tail give 0.
  auto black = qvt::MakeImage(11, 7, 1, 0, false);
  auto out = qvt::MakeImage(11, 7, 1, 0);
  ASSERT_EQ(QV_SelfGuidedFilter(black.ptr(), out.ptr(), 11, 7, 11, 4, 100, 0.0f), STATUS_OK);
  EXPECT_TRUE(qvt::SameBytes(black.data, out.data));

  // Radius 1, 2 and 3 act as 4.
  const auto src = qvt::MakeNaturalImage(40, 30, 1, 0);
  auto r4 = src;
  ASSERT_EQ(QV_SelfGuidedFilter(src.ptr(), r4.ptr(), 40, 30, 40, 4, 100, 20.0f), STATUS_OK);
  for (int r : {1, 2, 3}) {
    auto o = src;
    ASSERT_EQ(QV_SelfGuidedFilter(src.ptr(), o.ptr(), 40, 30, 40, r, 100, 20.0f), STATUS_OK);
    EXPECT_TRUE(qvt::SameBytes(r4.data, o.data)) << r;
  }

  // 20 x 20 at 25 percent is a grid of 5 wide: full size, as at 100.
  const auto sq = qvt::MakeNaturalImage(20, 20, 3, 0);
  auto at25 = sq, at100 = sq;
  ASSERT_EQ(QV_SelfGuidedFilter(sq.ptr(), at25.ptr(), 20, 20, 60, 8, 25, 20.0f), STATUS_OK);
  ASSERT_EQ(QV_SelfGuidedFilter(sq.ptr(), at100.ptr(), 20, 20, 60, 8, 100, 20.0f), STATUS_OK);
  EXPECT_TRUE(qvt::SameBytes(at100.data, at25.data));
  // 24 x 20 at 25 percent is 6 by 5 and stays reduced (the model test checks
  // its bytes); it is not the full-size result.
  const auto wide = qvt::MakeNaturalImage(24, 20, 1, 0);
  auto w25 = wide, w100 = wide;
  ASSERT_EQ(QV_SelfGuidedFilter(wide.ptr(), w25.ptr(), 24, 20, 24, 8, 25, 20.0f), STATUS_OK);
  ASSERT_EQ(QV_SelfGuidedFilter(wide.ptr(), w100.ptr(), 24, 20, 24, 8, 100, 20.0f), STATUS_OK);
  EXPECT_FALSE(qvt::SameBytes(w100.data, w25.data));

  // Radius 4 at 10 percent is a small radius of 0.4: refused by the box
  // mean after the tests, Dest untouched. Radius 20 there is about 2 and runs.
  const auto big = qvt::MakeNaturalImage(60, 50, 1, 0);
  auto keep = qvt::MakeImage(60, 50, 1, 0);
  const auto before = keep.data;
  EXPECT_EQ(QV_SelfGuidedFilter(big.ptr(), keep.ptr(), 60, 50, 60, 4, 10, 20.0f), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(QV_GuidedFilter(big.ptr(), big.ptr(), keep.ptr(), 60, 50, 60, 4, 10, 20.0f), STATUS_INVALID_PARAMETER);
  EXPECT_TRUE(qvt::SameBytes(before, keep.data));
  EXPECT_EQ(QV_SelfGuidedFilter(big.ptr(), keep.ptr(), 60, 50, 60, 20, 10, 20.0f), STATUS_OK);
}

TEST(GuidedFilter, Frame) {
  unsigned char buf[256];
  for (int i = 0; i < 256; ++i) buf[i] = static_cast<unsigned char>(i * 7);
  unsigned char dst[256] = {};
  struct Case {
    const char* what;
    const unsigned char *src, *guide;
    unsigned char* dst;
    int w, h, stride, radius, ratio, expect;
  } cases[] = {
      {"null src before sizes", nullptr, buf, dst, 8, 0, 8, 4, 50, STATUS_NULL_REFERENCE},
      {"null dest before sizes", buf, buf, nullptr, 8, 0, 8, 4, 50, STATUS_NULL_REFERENCE},
      {"height 0", buf, buf, dst, 8, 0, 8, 4, 50, STATUS_INVALID_PARAMETER},
      {"radius 0", buf, buf, dst, 8, 8, 8, 0, 50, STATUS_INVALID_PARAMETER},
      {"channel 2 before ratio", buf, buf, dst, 8, 8, 16, 4, 9, STATUS_NOT_SUPPORTED},
      {"ratio 9", buf, buf, dst, 8, 8, 8, 4, 9, STATUS_INVALID_PARAMETER},
      {"ratio 101", buf, buf, dst, 8, 8, 8, 4, 101, STATUS_INVALID_PARAMETER},
      {"null guide reaches the reduction", buf, nullptr, dst, 8, 8, 8, 4, 50, STATUS_NULL_REFERENCE},
      {"ratio 10 runs", buf, buf, dst, 16, 16, 16, 40, 10, STATUS_OK},
  };
  for (const auto& c : cases) {
    std::memset(dst, 0xA5, sizeof(dst));
    EXPECT_EQ(QV_GuidedFilter(c.src, c.guide, c.dst, c.w, c.h, c.stride, c.radius, c.ratio, 20.0f), c.expect) << c.what;
    if (c.expect != STATUS_OK) {
      for (unsigned char v : dst) ASSERT_EQ(v, 0xA5) << c.what << ": Dest touched";
    }
    if (c.guide != nullptr) {
      EXPECT_EQ(QV_SelfGuidedFilter(c.src, c.dst, c.w, c.h, c.stride, c.radius, c.ratio, 20.0f), c.expect) << c.what;
    }
  }
}

using GuidedFilterDeathTest = ::testing::Test;
TEST_F(GuidedFilterDeathTest, ZeroWidthFaults) {
  unsigned char buf[16] = {};
  qvt::ExpectDivideFault([&](int w) { return QV_GuidedFilter(nullptr, buf, buf, w, 1, 4, 4, 50, 1.0f); });
  qvt::ExpectDivideFault([&](int w) { return QV_SelfGuidedFilter(nullptr, buf, w, 1, 4, 4, 50, 1.0f); });
}

TEST(GuidedFilter, AllocationFailures) {
  const auto src = qvt::MakeNaturalImage(50, 40, 3, 1);
  auto dst = qvt::MakeImage(50, 40, 3, 1);
  const auto before = dst.data;
  const auto untouched = [&] { EXPECT_TRUE(qvt::SameBytes(before, dst.data)); };
  // A fractional small radius (8 * 0.3 = 2.4) takes the blending path too.
  EXPECT_GT(qvt::CheckEveryAllocationFailure(
                [&] { return QV_GuidedFilter(src.ptr(), src.ptr(), dst.ptr(), 50, 40, src.Stride, 8, 30, 20.0f); },
                STATUS_OUT_OF_MEMORY, untouched),
            10);
  dst.data = before;
  EXPECT_GT(qvt::CheckEveryAllocationFailure(
                [&] { return QV_SelfGuidedFilter(src.ptr(), dst.ptr(), 50, 40, src.Stride, 8, 30, 20.0f); },
                STATUS_OUT_OF_MEMORY, untouched),
            10);
}

}  // namespace
