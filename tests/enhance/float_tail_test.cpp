// The float plane tail against plain models: percentile clip, stretch to
// bytes (vector rounding versus scalar tail), colour transfer, maxima, e^x.
#include "enhance/float_tail.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "support/support.h"

namespace {

std::vector<float> RandomFloats(size_t n, unsigned Seed, float Lo = -3.0f, float Hi = 5.0f) {
  std::mt19937 rng(Seed);
  std::uniform_real_distribution<float> d(Lo, Hi);
  std::vector<float> v(n);
  for (auto& x : v) x = d(rng);
  return v;
}

// The clip as described: 1-in-25 grid, sorted, percentile indices, then a
// float reciprocal on groups of four and a double division on the rest.
std::vector<float> ClipModel(const std::vector<float>& in, int w, int h, float low, float high) {
  const int sw = std::max(1, int(w * 0.2f + 0.5f)), sh = std::max(1, int(h * 0.2f + 0.5f));
  std::vector<float> s;
  for (int gy = 0; gy < sh; ++gy)
    for (int gx = 0; gx < sw; ++gx) s.push_back(in[size_t(gy * h / sh) * w + gx * w / sw]);
  std::sort(s.begin(), s.end());
  const int count = int(s.size());
  auto share = [&](float f) {
    const float p = float(sw) * f * float(sh);
    if (!(p > 0)) return 0;
    return std::min(count - 1, p >= float(count) ? count - 1 : int(p));
  };
  const float hi = s[count - share(high) - 1], lo = s[share(low)];
  std::vector<float> out(in.size(), 0.5f);
  if (!(lo < hi)) return out;
  const size_t body = in.size() & ~size_t(3);
  const float inv = 1.0f / (hi - lo);
  for (size_t i = 0; i < in.size(); ++i) {
    if (i < body) {
      out[i] = std::max(std::min((in[i] - lo) * inv, 1.0f), 0.0f);
    } else {
      const double v = (double(in[i]) - lo) / (double(hi) - lo);
      out[i] = float(std::max(0.0, std::min(1.0, v)));
    }
  }
  return out;
}

TEST(ClipNormalizeFloat, MatchesModel) {
  const float shares[][2] = {{0.0f, 0.0f}, {0.01f, 0.01f}, {0.05f, 0.2f}, {0.3f, 0.0f}};
  for (int w : {1, 2, 3, 5, 7, 13, 24, 37})
    for (int h : {1, 3, 4, 11, 20}) {
      const auto in = RandomFloats(size_t(w) * h, unsigned(w * 31 + h));
      for (const auto& s : shares) {
        std::vector<float> out(in.size(), -9.0f);
        ASSERT_EQ(qv::ClipNormalizeFloat(in.data(), out.data(), w, h, s[0], s[1]), STATUS_OK);
        const auto expect = ClipModel(in, w, h, s[0], s[1]);
        ASSERT_EQ(0, std::memcmp(expect.data(), out.data(), out.size() * sizeof(float)))
            << w << "x" << h << " shares " << s[0] << " " << s[1];
        // In place gives the same values.
        auto same = in;
        ASSERT_EQ(qv::ClipNormalizeFloat(same.data(), same.data(), w, h, s[0], s[1]), STATUS_OK);
        ASSERT_EQ(0, std::memcmp(expect.data(), same.data(), out.size() * sizeof(float)));
      }
    }
}

TEST(ClipNormalizeFloat, SharesOutsideTheUnitAreHeldInside) {
  const int w = 23, h = 17;
  const auto in = RandomFloats(size_t(w) * h, 4);
  for (float s : {-1.0f, 1.0f, 2.0f, 1e30f, -1e30f, NAN, 0.9999999f}) {
    std::vector<float> out(in.size());
    ASSERT_EQ(qv::ClipNormalizeFloat(in.data(), out.data(), w, h, s, s), STATUS_OK) << s;
    const auto expect = ClipModel(in, w, h, s, s);
    EXPECT_EQ(0, std::memcmp(expect.data(), out.data(), out.size() * sizeof(float))) << s;
  }
  // Low share 1 (clamped to the top sample) against high share 0: lo >= hi.
  std::vector<float> out(in.size());
  ASSERT_EQ(qv::ClipNormalizeFloat(in.data(), out.data(), w, h, 1.0f, 0.0f), STATUS_OK);
  for (float v : out) ASSERT_EQ(v, 0.5f);
}

TEST(ClipNormalizeFloat, FlatPlaneAndFailures) {
  std::vector<float> flat(35, 2.0f), out(35);
  ASSERT_EQ(qv::ClipNormalizeFloat(flat.data(), out.data(), 7, 5, 0.01f, 0.01f), STATUS_OK);
  for (float v : out) EXPECT_EQ(v, 0.5f);
  EXPECT_EQ(qv::ClipNormalizeFloat(nullptr, out.data(), 7, 5, 0, 0), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::ClipNormalizeFloat(flat.data(), out.data(), 0, 5, 0, 0), STATUS_INVALID_PARAMETER);
  const auto in = RandomFloats(35, 1);
  std::vector<float> dst(35, 7.0f);
  EXPECT_EQ(
      qvt::CheckEveryAllocationFailure([&] { return qv::ClipNormalizeFloat(in.data(), dst.data(), 7, 5, 0.1f, 0.1f); },
                                       STATUS_OUT_OF_MEMORY, [&] { EXPECT_EQ(dst[0], 7.0f); }),
      2);
}

TEST(FloatPlaneToBytes, MatchesModelOnEveryTail) {
  for (int n = 2; n <= 40; ++n) {
    const auto in = RandomFloats(size_t(n), unsigned(n));
    float lo = in[0], hi = in[0];
    for (float v : in) lo = std::min(lo, v), hi = std::max(hi, v);
    const float scale = float(255.0 / double(hi - lo));
    qvt::Bytes out(size_t(n), 1);
    ASSERT_EQ(qv::FloatPlaneToBytes(in.data(), out.data(), n, 1), STATUS_OK);
    for (int i = 0; i < n; ++i) {
      const float v = (in[i] - lo) * scale;
      const int expect = i < (n & ~7) ? int(std::nearbyint(v)) : int(v + 0.5f);
      ASSERT_EQ(out[i], expect) << "n " << n << " i " << i;
    }
  }
}

TEST(FloatPlaneToBytes, BodyRoundsHalfToEvenTailRoundsUp) {
  // min 0, max 255: scale 1, so 2.5 and 4.5 land exactly on halves.
  std::vector<float> in = {0, 255, 2.5f, 4.5f, 1, 1, 1, 1, 2.5f, 4.5f};
  qvt::Bytes out(in.size());
  ASSERT_EQ(qv::FloatPlaneToBytes(in.data(), out.data(), 5, 2), STATUS_OK);
  EXPECT_EQ(out[2], 2);  // body
  EXPECT_EQ(out[3], 4);
  EXPECT_EQ(out[8], 3);  // tail
  EXPECT_EQ(out[9], 5);
  std::vector<float> flat(9, -4.0f);
  ASSERT_EQ(qv::FloatPlaneToBytes(flat.data(), out.data(), 3, 3), STATUS_OK);
  for (int i = 0; i < 9; ++i) EXPECT_EQ(out[i], 128);
}

TEST(MinMaxFloat, FindsExtremes) {
  for (int n : {1, 3, 4, 9, 33}) {
    auto in = RandomFloats(size_t(n), unsigned(n) + 100);
    in[n / 2] = 1e30f;
    in[n - 1] = -1e30f;
    float lo, hi;
    qv::MinMaxFloat(in.data(), n, &lo, &hi);
    EXPECT_EQ(lo, -1e30f);
    EXPECT_EQ(hi, n == 1 ? -1e30f : 1e30f);
  }
}

// Colour transfer: vector blocks of four pixels round the ratio to even and
// give (c + n) / 2 where y is 0; the scalar tail truncates and gives 0 there.
qvt::Bytes TransferModel(const qvt::Image& src, const qvt::Bytes& Y, const qvt::Bytes& N, int Limit,
                         const qvt::Bytes& Before) {
  qvt::Bytes out = Before;
  for (int r = 0; r < src.Height; ++r)
    for (int x = 0; x < src.Width; ++x) {
      const int y = Y[size_t(r) * src.Width + x];
      int n = N[size_t(r) * src.Width + x];
      if (Limit > 0) n = std::min(n, Limit * y);
      for (int k = 0; k < 3; ++k) {
        const int c = src.data[size_t(r) * src.Stride + 3 * x + k];
        int v;
        if (x < (src.Width & ~3)) {
          const int q = y == 0 ? 0 : int(std::nearbyint(float(c * n) / float(y)));
          v = std::min(255, std::max(0, std::min(65535, q + c + n - y)) >> 1);
        } else {
          v = y == 0 ? 0 : std::max(0, std::min(255, (c * n / y + c + n - y) >> 1));
        }
        out[size_t(r) * src.Stride + 3 * x + k] = static_cast<unsigned char>(v);
      }
    }
  return out;
}

TEST(ColourTransfer, MatchesModel) {
  for (const auto& s : qvt::TailShapes({3, 4}, 2)) {
    if (s.Width > 70) continue;
    const auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    qvt::Bytes Y(size_t(s.Width) * s.Height), N(Y.size());
    qvt::FillRandom(Y);
    qvt::FillRandom(N);
    for (size_t i = 0; i < Y.size(); i += 5) Y[i] = 0;  // both sides of the y = 0 difference
    for (int limit : {0, 4}) {
      auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      const auto expect = TransferModel(src, Y, N, limit, dst.data);
      ASSERT_EQ(qv::ColourTransfer(src.ptr(), dst.ptr(), s.Width, s.Height, src.Stride, Y.data(), N.data(), limit),
                STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(expect, dst.data, src.Stride)) << qvt::ToString(s) << " limit " << limit;
    }
  }
}

TEST(ColourTransfer, ZeroLuminanceDiffersBetweenBodyAndTail) {
  // Five pixels: four in the block, one in the tail, all with y = 0, n = 100.
  auto src = qvt::MakeImage(5, 1, 3, 0, false);
  std::fill(src.data.begin(), src.data.end(), 60);
  qvt::Bytes Y(5, 0), N(5, 100), dst(15, 9);
  ASSERT_EQ(qv::ColourTransfer(src.ptr(), dst.data(), 5, 1, 15, Y.data(), N.data(), 0), STATUS_OK);
  EXPECT_EQ(dst[0], 80);  // (60 + 100) / 2
  EXPECT_EQ(dst[12], 0);  // tail
  ASSERT_EQ(qv::ColourTransfer(src.ptr(), dst.data(), 5, 1, 15, Y.data(), N.data(), 4), STATUS_OK);
  EXPECT_EQ(dst[0], 30);  // the limit forces n to 0
}

TEST(Maxima, PlaneAndChannels) {
  for (const auto& s : qvt::TailShapes({1, 3, 4}, 3)) {
    auto im = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    for (auto& v : im.data) v = v / 2;  // leave room above the samples
    // Padding bytes hold the largest values and must not count.
    for (int y = 0; y < s.Height; ++y)
      for (int x = s.Width * s.Channel; x < im.Stride; ++x) im.data[size_t(y) * im.Stride + x] = 255;
    int m[3] = {0, 0, 0};
    for (int y = 0; y < s.Height; ++y)
      for (int x = 0; x < s.Width; ++x)
        for (int c = 0; c < std::min(3, s.Channel); ++c) m[c] = std::max(m[c], int(im.at(x, y, c)));
    int got[3] = {-1, -1, -1};
    ASSERT_EQ(qv::ChannelMaxima(im.ptr(), s.Width, s.Height, im.Stride, &got[0], &got[1], &got[2]), STATUS_OK);
    EXPECT_EQ(got[0], m[0]) << qvt::ToString(s);
    if (s.Channel > 1) {
      EXPECT_EQ(got[1], m[1]) << qvt::ToString(s);
      EXPECT_EQ(got[2], m[2]) << qvt::ToString(s);
    } else {
      EXPECT_EQ(got[1], -1);
      EXPECT_EQ(qv::MaxOfPlane(im.ptr(), s.Width, s.Height, im.Stride), m[0]) << qvt::ToString(s);
    }
  }
  unsigned char b[8] = {};
  int a = 0;
  EXPECT_EQ(qv::ChannelMaxima(nullptr, 2, 1, 2, &a, &a, &a), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::ChannelMaxima(b, 2, 0, 2, &a, &a, &a), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::ChannelMaxima(b, 2, 1, 4, &a, &a, &a), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::ChannelMaxima(b, 0, 1, 4, &a, &a, &a), STATUS_INVALID_PARAMETER);
}

TEST(ExpVector4, CloseToExpAndClamped) {
  for (double x = -87.0; x <= 88.0; x += 0.0137) {
    float out[4];
    const float in[4] = {float(x), float(-x * 0.5), float(x * 0.01), float(x * 0.25)};
    _mm_storeu_ps(out, qv::ExpVector4(_mm_loadu_ps(in)));
    for (int k = 0; k < 4; ++k) {
      const double e = std::exp(double(in[k]));
      ASSERT_NEAR(out[k], e, e * 4e-7) << in[k];
    }
  }
  float out[4];
  _mm_storeu_ps(out, qv::ExpVector4(_mm_setr_ps(0.0f, 100.0f, 1000.0f, -1000.0f)));
  EXPECT_EQ(out[0], 1.0f);
  EXPECT_EQ(out[1], out[2]);  // both clamped to +88.3762589
  EXPECT_TRUE(std::isfinite(out[1]));
  EXPECT_NEAR(out[1], std::exp(88.3762589), 1e32);
  EXPECT_LT(out[3], 1e-37f);
}

}  // namespace
