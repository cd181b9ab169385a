// Luminance, desaturation, luminance put-back, mask blend and the image
// measures, each against a plain model written from its formulas.
#include "point/luminance.h"

#include <cmath>
#include <csignal>

#include "support/support.h"

namespace {

int Luma(int b, int g, int r) { return (1867 * b + 9617 * g + 4900 * r + 8192) >> 14; }
int Clamp(int v) { return v < 0 ? 0 : v > 255 ? 255 : v; }

TEST(GetLuminance, MatchesModelOnEveryShape) {
  for (const auto& s : qvt::TailShapes({1, 3, 4})) {
    auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    for (unsigned char padded : {0, 1}) {
      const int step = padded ? ((s.Width * 8 + 31) / 32) * 4 : s.Width;
      qvt::Bytes dst(size_t(step) * s.Height);
      qvt::FillRandom(dst);
      auto expect = dst;
      for (int y = 0; y < s.Height; ++y)
        for (int x = 0; x < s.Width; ++x)
          expect[size_t(y) * step + x] = static_cast<unsigned char>(
              s.Channel == 1 ? src.at(x, y, 0) : Luma(src.at(x, y, 0), src.at(x, y, 1), src.at(x, y, 2)));
      ASSERT_EQ(QV_GetLuminance(src.ptr(), dst.data(), s.Width, s.Height, src.Stride, padded), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(expect, dst, step)) << qvt::ToString(s) << " padded=" << int(padded);
    }
  }
}

TEST(GetLuminance, WhiteBlackAndPaddedStep) {
  auto im = qvt::MakeImage(5, 2, 3, 0, false);
  for (int x = 0; x < 5; ++x)
    for (int c = 0; c < 3; ++c) im.at(x, 1, c) = 255;
  unsigned char out[16];
  std::fill(out, out + 16, 77);
  ASSERT_EQ(QV_GetLuminance(im.ptr(), out, 5, 2, 15, 1), STATUS_OK);
  for (int x = 0; x < 5; ++x) {
    EXPECT_EQ(out[x], 0);
    EXPECT_EQ(out[8 + x], 255);
  }
  for (int x = 5; x < 8; ++x) EXPECT_EQ(out[x], 77) << "padding written";
}

TEST(Desaturate, BlockRoundsTailTruncates) {
  for (const auto& s : qvt::TailShapes({3, 4})) {
    auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    auto expect = dst.data;
    for (int y = 0; y < s.Height; ++y)
      for (int x = 0; x < s.Width; ++x) {
        const int b = src.at(x, y, 0), g = src.at(x, y, 1), r = src.at(x, y, 2);
        const int m = std::max({b, g, r}), n = std::min({b, g, r});
        const int v = x < (s.Width & ~15) ? (m + n + 1) >> 1 : (m + n) >> 1;
        unsigned char* p = &expect[size_t(y) * dst.Stride + size_t(x) * s.Channel];
        p[0] = p[1] = p[2] = static_cast<unsigned char>(v);
        if (s.Channel == 4) p[3] = src.at(x, y, 3);
      }
    ASSERT_EQ(QV_Desaturate(src.ptr(), dst.ptr(), s.Width, s.Height, src.Stride), STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(expect, dst.data, dst.Stride)) << qvt::ToString(s);
    // In place: padding of Src stays, the rest as above.
    auto inplace = src.data;
    for (int y = 0; y < s.Height; ++y)
      for (int i = 0; i < s.Width * s.Channel; ++i)
        inplace[size_t(y) * src.Stride + i] = expect[size_t(y) * src.Stride + i];
    ASSERT_EQ(QV_Desaturate(src.ptr(), src.ptr(), s.Width, s.Height, src.Stride), STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(inplace, src.data, src.Stride)) << qvt::ToString(s);
  }
}

TEST(Desaturate, OddSumOneDarkerInTail) {
  qvt::Bytes row(17 * 3);
  for (int x = 0; x < 17; ++x) row[3 * x] = 10, row[3 * x + 1] = 20, row[3 * x + 2] = 31;
  ASSERT_EQ(QV_Desaturate(row.data(), row.data(), 17, 1, 51), STATUS_OK);
  EXPECT_EQ(row[15 * 3], 21);  // block loop
  EXPECT_EQ(row[16 * 3], 20);  // tail
}

// The put-back formulas, 3-byte pixels whatever the channel count.
void PutBackModel(const unsigned char* s, int y, unsigned char* d) {
  const int b = s[0], g = s[1], r = s[2];
  const int u = (3571 * b - 2366 * g - 1205 * r + 4096) >> 13;
  const int v = (5037 * r - 4218 * g - 819 * b + 4096) >> 13;
  d[0] = static_cast<unsigned char>(Clamp(((16647 * u + 4096) >> 13) + y));
  d[1] = static_cast<unsigned char>(Clamp(((-3232 * u - 4756 * v + 4096) >> 13) + y));
  d[2] = static_cast<unsigned char>(Clamp(((9337 * v + 4096) >> 13) + y));
}

TEST(ApplyLuminancePlane, MatchesModelOnEveryShape) {
  for (const auto& s : qvt::TailShapes({1, 3, 4})) {
    auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    const int lstride = s.Width + 5;
    qvt::Bytes lum(size_t(lstride) * s.Height);
    qvt::FillRandom(lum);
    auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    auto expect = dst.data;
    for (int y = 0; y < s.Height; ++y)
      for (int x = 0; x < s.Width; ++x) {
        const size_t o = size_t(y) * src.Stride;
        if (s.Channel == 1)
          expect[o + x] = lum[size_t(y) * lstride + x];
        else  // 4 channels too are walked as 3-byte pixels
          PutBackModel(&src.data[o + 3 * x], lum[size_t(y) * lstride + x], &expect[o + 3 * x]);
      }
    ASSERT_EQ(qv::ApplyLuminancePlane(src.ptr(), lum.data(), dst.ptr(), s.Width, s.Height, src.Stride, lstride),
              STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(expect, dst.data, dst.Stride)) << qvt::ToString(s);
  }
}

TEST(ApplyLuminancePlane, OwnLuminanceGivesSourceBack) {
  auto src = qvt::MakeNaturalImage(37, 5, 3);
  qvt::Bytes lum(37 * 5), dst(src.data.size());
  ASSERT_EQ(QV_GetLuminance(src.ptr(), lum.data(), 37, 5, src.Stride, 0), STATUS_OK);
  ASSERT_EQ(qv::ApplyLuminancePlane(src.ptr(), lum.data(), dst.data(), 37, 5, src.Stride, 37), STATUS_OK);
  for (size_t i = 0; i < dst.size(); ++i) ASSERT_NEAR(dst[i], src.data[i], 2) << i;
}

TEST(BlendByMask, BlockSevenBitWeightsTailByteWeights) {
  for (const auto& s : qvt::TailShapes({3})) {
    auto src = qvt::MakeImage(s.Width, s.Height, 3, s.Pad);
    auto dst = qvt::MakeImage(s.Width, s.Height, 3, s.Pad);
    qvt::Bytes mask(size_t(s.Width) * s.Height);
    qvt::FillRandom(mask);
    auto expect = dst.data;
    for (int y = 0; y < s.Height; ++y)
      for (int x = 0; x < s.Width; ++x)
        for (int c = 0; c < 3; ++c) {
          const size_t o = size_t(y) * dst.Stride + 3 * x + c;
          const int sv = src.data[o], dv = dst.data[o], m = mask[size_t(y) * s.Width + x];
          if (x < (s.Width & ~15)) {
            const int w = ((m > 0 ? m - 1 : 0) + 1) >> 1;
            expect[o] = static_cast<unsigned char>(((127 - w) * sv + w * dv) >> 7);
          } else {
            const int t = (dv - sv) * m;
            expect[o] = static_cast<unsigned char>(sv + ((t + 1 + (t >> 8)) >> 8));
          }
        }
    ASSERT_EQ(qv::BlendByMask(src.ptr(), dst.ptr(), mask.data(), s.Width, s.Height, src.Stride), STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(expect, dst.data, dst.Stride)) << qvt::ToString(s);
  }
  // 1 and 4 channels are accepted and left alone.
  for (int c : {1, 4}) {
    auto src = qvt::MakeImage(20, 2, c), dst = qvt::MakeImage(20, 2, c);
    auto before = dst.data;
    qvt::Bytes mask(40, 200);
    EXPECT_EQ(qv::BlendByMask(src.ptr(), dst.ptr(), mask.data(), 20, 2, src.Stride), STATUS_OK);
    EXPECT_EQ(dst.data, before);
  }
}

// Reference measures in plain arithmetic over the real samples.
struct Measures {
  int mean[4], dev[4];
};
Measures ModelMeasures(const qvt::Image& a, const qvt::Image* b) {
  Measures r{};
  const double n = double(a.Width) * a.Height;
  for (int c = 0; c < 4; ++c) {
    const int cc = a.Channel == 1 ? 0 : c;
    if (cc >= a.Channel) continue;
    long long sum = 0;
    for (int y = 0; y < a.Height; ++y)
      for (int x = 0; x < a.Width; ++x) sum += a.at(x, y, cc);
    r.mean[c] = static_cast<int>(double(sum) / n + 0.5);
    double sq = 0;
    for (int y = 0; y < a.Height; ++y)
      for (int x = 0; x < a.Width; ++x) {
        const int d = a.at(x, y, cc) - (b ? b->at(x, y, cc) : r.mean[c]);
        sq += double(d) * d;
      }
    r.dev[c] = static_cast<int>(std::sqrt(sq / n));
  }
  return r;
}

TEST(ImageMeasures, MeansAndDeviationsMatchModel) {
  for (const auto& s : qvt::TailShapes({1, 3, 4})) {
    auto a = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    auto b = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    const Measures one = ModelMeasures(a, nullptr), two = ModelMeasures(a, &b);
    int m[4] = {-1, -1, -1, -1}, d[4] = {-1, -1, -1, -1}, p[4] = {-1, -1, -1, -1};
    ASSERT_EQ(qv::ImageChannelMeans(a.ptr(), s.Width, s.Height, a.Stride, &m[0], &m[1], &m[2], &m[3]), STATUS_OK);
    ASSERT_EQ(qv::ImageChannelDeviation(a.ptr(), s.Width, s.Height, a.Stride, &d[0], &d[1], &d[2], &d[3]), STATUS_OK);
    ASSERT_EQ(qv::ImagePairDeviation(a.ptr(), b.ptr(), s.Width, s.Height, a.Stride, &p[0], &p[1], &p[2], &p[3]),
              STATUS_OK);
    for (int c = 0; c < 4; ++c) {
      ASSERT_EQ(m[c], one.mean[c]) << qvt::ToString(s) << " channel " << c;
      ASSERT_EQ(d[c], one.dev[c]) << qvt::ToString(s) << " channel " << c;
      ASSERT_EQ(p[c], two.dev[c]) << qvt::ToString(s) << " channel " << c;
    }
  }
  unsigned char px = 200;
  int m[4];
  ASSERT_EQ(qv::ImageChannelMeans(&px, 1, 1, 1, &m[0], &m[1], &m[2], &m[3]), STATUS_OK);
  for (int v : m) EXPECT_EQ(v, 200);
}

TEST(ImageMeasures, IntegralImagesMatchModel) {
  for (const auto& s : qvt::TailShapes({1, 3, 4})) {
    auto a = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    auto b = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    const size_t pitch = size_t(s.Width + 1) * s.Channel, total = pitch * (s.Height + 1);
    std::vector<unsigned> sum(total, 0xDEADBEEF), expect(total, 0);
    std::vector<float> sq(total, -1.0f), expect_sq(total, 0.0f);
    const int block_end = s.Width & ~7;
    for (int y = 0; y < s.Height; ++y)
      for (int c = 0; c < s.Channel; ++c) {
        unsigned run = 0;
        int run_sq = 0;
        for (int x = 0; x < s.Width; ++x) {
          const size_t e = (y + 1) * pitch + (x + 1) * s.Channel + c, up = e - pitch;
          run += a.at(x, y, c);
          expect[e] = expect[up] + run;
          // Past the blocks of 8 the running sum is formed again from the
          // float entries, truncated.
          if (x == block_end && x > 0) run_sq = static_cast<int>(expect_sq[e - s.Channel] - expect_sq[up - s.Channel]);
          const int d = a.at(x, y, c) - b.at(x, y, c);
          run_sq += d * d;
          expect_sq[e] = expect_sq[up] + float(run_sq);
        }
      }
    ASSERT_EQ(qv::IntegralImage(a.ptr(), sum.data(), s.Width, s.Height, a.Stride), STATUS_OK);
    ASSERT_EQ(sum, expect) << qvt::ToString(s);
    ASSERT_EQ(qv::IntegralSquaredDifference(a.ptr(), b.ptr(), sq.data(), s.Width, s.Height, a.Stride), STATUS_OK);
    ASSERT_EQ(sq, expect_sq) << qvt::ToString(s);
  }
}

TEST(ImageMeasures, SquaredIntegralTailLosesWhatFloatLoses) {
  // Sums past 2^24 are inexact in float: the tail's running sum, formed again
  // from two float entries, differs from the exact one.
  const int w = 9, h = 300;
  qvt::Bytes a(size_t(w) * h, 255), b(size_t(w) * h, 0);
  a[size_t(h - 1) * w + 7] = 254;  // makes the exact block sum odd
  std::vector<float> sq(size_t(w + 1) * (h + 1));
  ASSERT_EQ(qv::IntegralSquaredDifference(a.data(), b.data(), sq.data(), w, h, w), STATUS_OK);
  const float* last = &sq[size_t(h) * (w + 1)];
  const float* above = last - (w + 1);
  const int exact = 7 * 65025 + 254 * 254;
  const int formed = static_cast<int>(last[8] - above[8]);
  EXPECT_NE(formed, exact);
  EXPECT_EQ(last[9], above[9] + float(formed + 65025));
}

TEST(LuminanceFrames, StatusTables) {
  unsigned char buf[64] = {}, out[64] = {};
  int v[4];
  std::vector<unsigned> isum(64);
  std::vector<float> fsum(64);
  struct Case {
    const char* what;
    bool null;
    int w, h, stride;
    int lum, desat, apply, blend, means, integral;
  } cases[] = {
      {"null before sizes", true, 3, 0, 9, 3, 3, 3, 3, 3, 3}, {"height 0", false, 3, 0, 9, 1, 1, 1, 1, 1, 1},
      {"negative width", false, -3, 1, 9, 1, 1, 1, 1, 1, 1},  {"channel 1", false, 4, 1, 4, 0, 1, 0, 0, 0, 0},
      {"channel 2", false, 4, 1, 8, 1, 1, 1, 1, 5, 5},        {"channel 5", false, 3, 1, 15, 1, 1, 1, 1, 5, 5},
  };
  for (auto& c : cases) {
    const unsigned char* s = c.null ? nullptr : buf;
    std::fill(out, out + 64, 9);
    EXPECT_EQ(QV_GetLuminance(s, out, c.w, c.h, c.stride, 0), c.lum) << c.what;
    if (c.lum) {
      EXPECT_TRUE(std::all_of(out, out + 64, [](int x) { return x == 9; })) << c.what;
    }
    std::fill(out, out + 64, 9);
    EXPECT_EQ(QV_Desaturate(s, out, c.w, c.h, c.stride), c.desat) << c.what;
    if (c.desat) {
      EXPECT_TRUE(std::all_of(out, out + 64, [](int x) { return x == 9; })) << c.what;
    }
    EXPECT_EQ(qv::ApplyLuminancePlane(s, buf, out, c.w, c.h, c.stride, 4), c.apply) << c.what;
    EXPECT_EQ(qv::BlendByMask(s, out, buf, c.w, c.h, c.stride), c.blend) << c.what;
    EXPECT_EQ(qv::ImageChannelMeans(s, c.w, c.h, c.stride, &v[0], &v[1], &v[2], &v[3]), c.means) << c.what;
    EXPECT_EQ(qv::ImageChannelDeviation(s, c.w, c.h, c.stride, &v[0], &v[1], &v[2], &v[3]), c.means) << c.what;
    EXPECT_EQ(qv::ImagePairDeviation(buf, s, c.w, c.h, c.stride, &v[0], &v[1], &v[2], &v[3]), c.means) << c.what;
    EXPECT_EQ(qv::IntegralImage(s, isum.data(), c.w, c.h, c.stride), c.integral) << c.what;
    EXPECT_EQ(qv::IntegralSquaredDifference(buf, s, fsum.data(), c.w, c.h, c.stride), c.integral) << c.what;
  }
  // Each routine's own untested or tested pointers.
  EXPECT_EQ(QV_GetLuminance(buf, nullptr, 3, 0, 9, 0), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::ApplyLuminancePlane(buf, nullptr, out, 3, 0, 9, 3), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::BlendByMask(buf, out, nullptr, 4, 1, 4), STATUS_OK);  // Mask not tested
  EXPECT_EQ(qv::IntegralImage(buf, nullptr, 3, 0, 9), STATUS_NULL_REFERENCE);
}

TEST(LuminanceDeathTest, ZeroWidthFaultsFirst) {
  unsigned char buf[16] = {};
  int v[4];
  unsigned isum[4];
  qvt::ExpectDivideFault([&](int w) { return QV_GetLuminance(nullptr, buf, w, 0, 4, 0); });
  qvt::ExpectDivideFault([&](int w) { return QV_Desaturate(nullptr, buf, w, 0, 4); });
  qvt::ExpectDivideFault([&](int w) { return qv::ApplyLuminancePlane(nullptr, buf, buf, w, 0, 4, 4); });
  qvt::ExpectDivideFault([&](int w) { return qv::BlendByMask(nullptr, buf, buf, w, 0, 4); });
  qvt::ExpectDivideFault([&](int w) { return qv::ImageChannelMeans(nullptr, w, 0, 4, &v[0], &v[1], &v[2], &v[3]); });
  qvt::ExpectDivideFault([&](int w) { return qv::IntegralImage(nullptr, isum, w, 0, 4); });
}

}  // namespace
