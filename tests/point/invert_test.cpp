// Inversion against a plain model over every tail length, plus its frame.

#include "support/support.h"

namespace {

// The model walks the run byte by byte; with 4 channels the kept place is
// the run offset mod 4, which slips by row when Stride is not a multiple of 4.
qvt::Bytes InvertModel(const qvt::Bytes& src, int Channel) {
  qvt::Bytes out(src.size());
  for (size_t i = 0; i < src.size(); ++i)
    out[i] = (Channel == 4 && i % 4 == 3) ? src[i] : static_cast<unsigned char>(255 - src[i]);
  return out;
}

TEST(Invert, MatchesModelOnEveryShape) {
  for (const auto& s : qvt::TailShapes({1, 3, 4})) {
    auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    ASSERT_EQ(QV_Invert(src.ptr(), dst.ptr(), s.Width, s.Height, src.Stride), STATUS_OK) << qvt::ToString(s);
    ASSERT_TRUE(qvt::SameBytes(InvertModel(src.data, s.Channel), dst.data, src.Stride)) << qvt::ToString(s);
    // In place gives the same bytes.
    ASSERT_EQ(QV_Invert(src.ptr(), src.ptr(), s.Width, s.Height, src.Stride), STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(dst.data, src.data)) << qvt::ToString(s);
  }
}

TEST(Invert, FourthSampleSlipsWithOddStride) {
  // Width 4, Stride 17: Channel 4 with one padding byte; row 1 starts at 17.
  auto src = qvt::MakeImage(4, 2, 4, 1);
  auto dst = src;
  ASSERT_EQ(QV_Invert(src.ptr(), dst.ptr(), 4, 2, 17), STATUS_OK);
  EXPECT_EQ(dst.data[3], src.data[3]);            // row 0 sample 3 kept
  EXPECT_EQ(dst.data[17 + 2], src.data[17 + 2]);  // row 1: run offset 19 is kept
  EXPECT_EQ(dst.data[17 + 3], 255 - src.data[17 + 3]);
}

TEST(Invert, FrameOrder) {
  unsigned char buf[64] = {1, 2, 3};
  const qvt::FrameCase cases[] = {
      {"null src before sizes", nullptr, buf, 3, 0, 9, STATUS_NULL_REFERENCE},
      {"null dest not tested", buf, nullptr, 3, 0, 9, STATUS_INVALID_PARAMETER},
      {"height 0", buf, buf, 3, 0, 9, STATUS_INVALID_PARAMETER},
      {"negative width", buf, buf, -3, 1, 9, STATUS_INVALID_PARAMETER},
      {"channel 2", buf, buf, 4, 1, 8, STATUS_NOT_SUPPORTED},
      {"channel 0", buf, buf, 4, 1, 3, STATUS_NOT_SUPPORTED},
      {"channel 5", buf, buf, 3, 1, 15, STATUS_NOT_SUPPORTED},
  };
  qvt::CheckStatusTable(cases, buf, 64, [&](const auto& c) { return QV_Invert(c.src, c.dst, c.w, c.h, c.stride); });
}

TEST(InvertDeathTest, ZeroWidthFaults) {
  unsigned char buf[16] = {};
  qvt::ExpectDivideFault([&](int w) { return QV_Invert(nullptr, buf, w, 0, 4); });
}

}  // namespace
