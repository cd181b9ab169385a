// Solarisation: the row walk with its unprocessed 3-channel bytes and the
// tail samples that are not stored, against a model of exactly that walk.

#include "support/support.h"

namespace {

qvt::Bytes ExposalModel(const qvt::Image& src, qvt::Bytes dest) {
  const int c = src.Channel, w = src.Width;
  auto flip = [](int v) { return static_cast<unsigned char>(v > 127 ? 255 - v : v); };
  for (int y = 0; y < src.Height; ++y) {
    const unsigned char* s = &src.data[size_t(y) * src.Stride];
    unsigned char* d = &dest[size_t(y) * src.Stride];
    if (c == 4) {
      const int b = w / 4 * 4;
      for (int i = 0; i < 4 * b; ++i) d[i] = i % 4 == 3 ? s[i] : flip(s[i]);
      for (int x = b; x < w; ++x) {
        for (int k = 0; k < 3; ++k)
          if (s[4 * x + k] > 127) d[4 * x + k] = flip(s[4 * x + k]);
        d[4 * x + 3] = s[4 * x + 3];
      }
    } else {
      const int b = c * w / 16 * 16;
      for (int i = 0; i < b; ++i) d[i] = flip(s[i]);
      for (int i = b; i < w; ++i)
        if (s[i] > 127) d[i] = flip(s[i]);
    }
  }
  return dest;
}

TEST(Exposal, MatchesRowWalkModelOnEveryShape) {
  for (const auto& s : qvt::TailShapes({1, 3, 4})) {
    auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    const auto expect = ExposalModel(src, dst.data);
    ASSERT_EQ(QV_Exposal(src.ptr(), dst.ptr(), s.Width, s.Height, src.Stride), STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(expect, dst.data, dst.Stride)) << qvt::ToString(s);
    const auto in_place = ExposalModel(src, src.data);
    ASSERT_EQ(QV_Exposal(src.ptr(), src.ptr(), s.Width, s.Height, src.Stride), STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(in_place, src.data, src.Stride)) << qvt::ToString(s);
  }
}

TEST(Exposal, ThreeChannelRowEndIsNotProcessed) {
  // Width 100: 300 bytes, blocks up to 288, tail compared with Width stops
  // at once; bytes 288..299 keep Dest's content, in place they stay bright.
  qvt::Bytes src(300, 200), dst(300, 9);
  ASSERT_EQ(QV_Exposal(src.data(), dst.data(), 100, 1, 300), STATUS_OK);
  for (int i = 0; i < 288; ++i) ASSERT_EQ(dst[i], 55) << i;
  for (int i = 288; i < 300; ++i) ASSERT_EQ(dst[i], 9) << i;
  ASSERT_EQ(QV_Exposal(src.data(), src.data(), 100, 1, 300), STATUS_OK);
  EXPECT_EQ(src[287], 55);
  EXPECT_EQ(src[288], 200);
}

TEST(Exposal, GrayTailStoresOnlyChangedSamples) {
  qvt::Bytes src(17, 100), dst(17, 9);
  ASSERT_EQ(QV_Exposal(src.data(), dst.data(), 17, 1, 17), STATUS_OK);
  EXPECT_EQ(dst[15], 100);  // block: stored unchanged
  EXPECT_EQ(dst[16], 9);    // tail: 100 is not stored
  src[16] = 130;
  ASSERT_EQ(QV_Exposal(src.data(), dst.data(), 17, 1, 17), STATUS_OK);
  EXPECT_EQ(dst[16], 125);
}

TEST(Exposal, FrameOrder) {
  unsigned char buf[64];
  std::fill(buf, buf + 64, 5);
  struct Case {
    const char* what;
    bool null_src, null_dst;
    int w, h, stride, expect;
  } cases[] = {
      {"null src before sizes", true, false, 3, 0, 9, STATUS_NULL_REFERENCE},
      {"null dest before sizes", false, true, 3, 0, 9, STATUS_NULL_REFERENCE},
      {"height 0", false, false, 3, 0, 9, STATUS_INVALID_PARAMETER},
      {"channel 2", false, false, 4, 1, 8, STATUS_INVALID_PARAMETER},
      {"channel 5", false, false, 3, 1, 15, STATUS_INVALID_PARAMETER},
  };
  for (auto& c : cases) {
    EXPECT_EQ(QV_Exposal(c.null_src ? nullptr : buf, c.null_dst ? nullptr : buf, c.w, c.h, c.stride), c.expect)
        << c.what;
    EXPECT_TRUE(std::all_of(buf, buf + 64, [](int v) { return v == 5; })) << c.what << ": Dest touched";
  }
}

TEST(ExposalDeathTest, ZeroWidthFaults) {
  qvt::ExpectDivideFault([&](int w) { return QV_Exposal(nullptr, nullptr, w, 0, 4); });
}

}  // namespace
