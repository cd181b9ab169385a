// Curve applicator and gamma correction: table built from the stated double
// arithmetic, applied to the first three samples only, Channel-first frame.
#include "point/curves.h"

#include <climits>
#include <cmath>

#include "support/support.h"

namespace {

// The gamma table as written: double product with the float constant,
// truncation, out-of-range values as the processor converts them (INT_MIN).
void GammaTable(float Gamma, unsigned char* t) {
  for (int i = 0; i < 256; ++i) {
    const double q = std::pow(i * double(0.003921569f), double(Gamma)) * 255;
    const int v = (q > -2147483649.0 && q < 2147483648.0) ? int(q) : INT_MIN;
    t[i] = static_cast<unsigned char>(v < 0 ? 0 : v > 255 ? 255 : v);
  }
}

qvt::Bytes CurvesModel(const qvt::Image& src, qvt::Bytes dest, const unsigned char* b, const unsigned char* g,
                       const unsigned char* r) {
  for (int y = 0; y < src.Height; ++y)
    for (int x = 0; x < src.Width; ++x) {
      unsigned char* p = &dest[size_t(y) * src.Stride + size_t(x) * src.Channel];
      p[0] = b[src.at(x, y, 0)], p[1] = g[src.at(x, y, 1)], p[2] = r[src.at(x, y, 2)];
    }
  return dest;
}

TEST(Curves, ThreeCurvesOnEveryShape) {
  unsigned char cb[256], cg[256], cr[256];
  for (int i = 0; i < 256; ++i) cb[i] = 255 - i, cg[i] = i / 2, cr[i] = (i * 7) & 255;
  for (const auto& s : qvt::TailShapes({3, 4})) {
    auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    const auto expect = CurvesModel(src, dst.data, cb, cg, cr);
    ASSERT_EQ(qv::ApplyChannelCurves(src.ptr(), dst.ptr(), s.Width, s.Height, src.Stride, cb, cg, cr), STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(expect, dst.data, dst.Stride)) << qvt::ToString(s);
  }
}

TEST(GammaCorrection, MatchesTableModelInPlaceAndNot) {
  for (float gamma : {0.45f, 1.0f, 2.2f, 0.0f, -0.5f, 7.3f}) {
    unsigned char t[256];
    GammaTable(gamma, t);
    for (const auto& s : qvt::TailShapes({3, 4}, 2)) {
      auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      const auto expect = CurvesModel(src, dst.data, t, t, t);
      ASSERT_EQ(QV_GammaCorrection(src.ptr(), dst.ptr(), s.Width, s.Height, src.Stride, gamma), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(expect, dst.data, dst.Stride)) << qvt::ToString(s) << " gamma " << gamma;
      const auto in_place = CurvesModel(src, src.data, t, t, t);
      ASSERT_EQ(QV_GammaCorrection(src.ptr(), src.ptr(), s.Width, s.Height, src.Stride, gamma), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(in_place, src.data, src.Stride)) << qvt::ToString(s);
    }
  }
}

TEST(GammaCorrection, StatedTableEdges) {
  unsigned char px[8] = {0, 1, 128, 77, 254, 255, 3, 99};
  unsigned char out[8];
  std::fill(out, out + 8, 42);
  // Gamma 1 copies the colour samples; the fourth sample of Dest stays.
  ASSERT_EQ(QV_GammaCorrection(px, out, 2, 1, 8, 1.0f), STATUS_OK);
  const unsigned char identity[8] = {0, 1, 128, 42, 254, 255, 3, 42};
  EXPECT_TRUE(std::equal(out, out + 8, identity));
  // Gamma 0: every entry 255, 0^0 included.
  ASSERT_EQ(QV_GammaCorrection(px, out, 2, 1, 8, 0.0f), STATUS_OK);
  EXPECT_EQ(out[0], 255);
  EXPECT_EQ(out[2], 255);
  // Negative gamma: entry 0 is infinite and ends as 0; 255 * 0.003921569f is
  // a hair above 1, so its inverse truncates entry 255 to 254.
  ASSERT_EQ(QV_GammaCorrection(px, out, 2, 1, 8, -1.0f), STATUS_OK);
  EXPECT_EQ(out[0], 0);
  EXPECT_EQ(out[5], 254);
  EXPECT_EQ(out[1], 255);  // 255 * 255.0 is in range and clamps to 255
}

TEST(Curves, FrameOrderChannelFirst) {
  unsigned char buf[64], t[256] = {};
  std::fill(buf, buf + 64, 5);
  struct Case {
    const char* what;
    bool null;
    int w, h, stride, expect;
  } cases[] = {
      {"gray refused before the pointers", true, 4, 1, 4, STATUS_INVALID_PARAMETER},
      {"channel 0 before the pointers", true, 4, 0, 3, STATUS_INVALID_PARAMETER},
      {"null before sizes", true, 3, 0, 9, STATUS_NULL_REFERENCE},
      {"height 0", false, 3, 0, 9, STATUS_INVALID_PARAMETER},
      {"channel 5", false, 3, 1, 15, STATUS_INVALID_PARAMETER},
      {"negative width, stride gives 3", false, -3, 1, -9, STATUS_INVALID_PARAMETER},
  };
  for (auto& c : cases) {
    unsigned char* p = c.null ? nullptr : buf;
    EXPECT_EQ(qv::ApplyChannelCurves(p, buf, c.w, c.h, c.stride, t, t, t), c.expect) << c.what;
    EXPECT_EQ(qv::ApplyChannelCurves(buf, p, c.w, c.h, c.stride, t, t, t), c.expect) << c.what;
    EXPECT_EQ(QV_GammaCorrection(p, buf, c.w, c.h, c.stride, 2.0f), c.expect) << c.what;
    EXPECT_TRUE(std::all_of(buf, buf + 64, [](int v) { return v == 5; })) << c.what << ": Dest touched";
  }
}

TEST(CurvesDeathTest, ZeroWidthFaultsAfterTheTable) {
  unsigned char buf[16] = {}, t[256] = {};
  qvt::ExpectDivideFault([&](int w) { return QV_GammaCorrection(nullptr, nullptr, w, 0, 4, 1.0f); });
  qvt::ExpectDivideFault([&](int w) { return qv::ApplyChannelCurves(nullptr, buf, w, 0, 4, t, t, t); });
}

}  // namespace
