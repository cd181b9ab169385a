// Fixed threshold: whole-run walk, clamped threshold, frame with separate
// Width and Height tests.

#include "support/support.h"

namespace {

TEST(Threshold, MatchesModelOnEveryShape) {
  for (int t : {-5, 0, 1, 100, 127, 128, 200, 254, 255, 1000}) {
    const int tc = t < 0 ? 0 : t > 254 ? 254 : t;
    for (const auto& s : qvt::TailShapes({1, 3}, 2)) {
      auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      qvt::Bytes expect(src.data.size());
      for (size_t i = 0; i < expect.size(); ++i) expect[i] = src.data[i] > tc ? 255 : 0;  // padding too
      ASSERT_EQ(QV_Threshold(src.ptr(), dst.ptr(), s.Width, s.Height, src.Stride, t), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(expect, dst.data, dst.Stride)) << qvt::ToString(s) << " t=" << t;
      ASSERT_EQ(QV_Threshold(src.ptr(), src.ptr(), s.Width, s.Height, src.Stride, t), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(expect, src.data)) << qvt::ToString(s);
    }
  }
}

TEST(Threshold, ExtremesKeepBlackAndWhite) {
  qvt::Bytes v(256), out(256);
  for (int i = 0; i < 256; ++i) v[i] = static_cast<unsigned char>(i);
  ASSERT_EQ(QV_Threshold(v.data(), out.data(), 256, 1, 256, 255), STATUS_OK);
  for (int i = 0; i < 256; ++i) ASSERT_EQ(out[i], i == 255 ? 255 : 0) << i;
  ASSERT_EQ(QV_Threshold(v.data(), out.data(), 256, 1, 256, -5), STATUS_OK);
  for (int i = 0; i < 256; ++i) ASSERT_EQ(out[i], i == 0 ? 0 : 255) << i;
}

TEST(Threshold, FrameOrder) {
  unsigned char buf[64];
  std::fill(buf, buf + 64, 5);
  struct Case {
    const char* what;
    bool null_src, null_dst;
    int w, h, stride, expect;
  } cases[] = {
      {"null src before sizes", true, false, 3, 0, 9, STATUS_NULL_REFERENCE},
      {"null dest before sizes", false, true, 3, 0, 9, STATUS_NULL_REFERENCE},
      {"width -1", false, false, -1, 1, 9, STATUS_INVALID_PARAMETER},
      {"height 0", false, false, 3, 0, 9, STATUS_INVALID_PARAMETER},
      {"channel 4 refused", false, false, 4, 1, 16, STATUS_INVALID_PARAMETER},
      {"channel 2", false, false, 4, 1, 8, STATUS_INVALID_PARAMETER},
  };
  for (auto& c : cases) {
    EXPECT_EQ(QV_Threshold(c.null_src ? nullptr : buf, c.null_dst ? nullptr : buf, c.w, c.h, c.stride, 9), c.expect)
        << c.what;
    EXPECT_TRUE(std::all_of(buf, buf + 64, [](int v) { return v == 5; })) << c.what << ": Dest touched";
  }
}

TEST(ThresholdDeathTest, ZeroWidthFaults) {
  qvt::ExpectDivideFault([&](int w) { return QV_Threshold(nullptr, nullptr, w, 0, 4, 9); });
}

}  // namespace
