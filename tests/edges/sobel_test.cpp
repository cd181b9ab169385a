// Sobel magnitude against a plain model over every tail length and channel
// count, in place, at the borders, and its frame.
#include <cmath>

#include "support/support.h"

namespace {

// Repeated edge pixels and edge rows; the first (Width * Channel) & ~15
// samples of a row round a float root to nearest even, the rest truncate a
// double root.
qvt::Bytes SobelModel(const qvt::Image& im) {
  qvt::Bytes out = im.data;
  const int C = im.Channel, n = im.Width * C, body = n & ~15;
  auto at = [&](int x, int y, int c) {
    x = x < 0 ? 0 : x >= im.Width ? im.Width - 1 : x;
    y = y < 0 ? 0 : y >= im.Height ? im.Height - 1 : y;
    return int(im.at(x, y, c));
  };
  for (int y = 0; y < im.Height; ++y)
    for (int i = 0; i < n; ++i) {
      const int x = i / C, c = i % C;
      const int gx = 2 * (at(x - 1, y, c) - at(x + 1, y, c)) + at(x - 1, y - 1, c) - at(x + 1, y - 1, c) +
                     at(x - 1, y + 1, c) - at(x + 1, y + 1, c);
      const int gy = 2 * (at(x, y + 1, c) - at(x, y - 1, c)) + at(x - 1, y + 1, c) + at(x + 1, y + 1, c) -
                     at(x - 1, y - 1, c) - at(x + 1, y - 1, c);
      const int s = gx * gx + gy * gy;
      int v = i < body ? int(std::nearbyint(std::sqrt(float(s)))) : int(std::sqrt(double(s)));
      out[size_t(y) * im.Stride + i] = uint8_t(v > 255 ? 255 : v);
    }
  return out;
}

TEST(Sobel, MatchesModelOnEveryShape) {
  for (const auto& s : qvt::TailShapes({1, 3, 4})) {
    auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    const auto expect = [&] {
      auto e = SobelModel(src);
      for (int y = 0; y < s.Height; ++y)  // padding of Dest is not written
        for (int p = s.Width * s.Channel; p < src.Stride; ++p)
          e[size_t(y) * src.Stride + p] = dst.data[size_t(y) * src.Stride + p];
      return e;
    }();
    ASSERT_EQ(QV_Sobel(src.ptr(), dst.ptr(), s.Width, s.Height, src.Stride), STATUS_OK) << qvt::ToString(s);
    ASSERT_TRUE(qvt::SameBytes(expect, dst.data, src.Stride)) << qvt::ToString(s);
    // In place gives the same bytes.
    ASSERT_EQ(QV_Sobel(src.ptr(), src.ptr(), s.Width, s.Height, src.Stride), STATUS_OK);
    for (int y = 0; y < s.Height; ++y)
      for (int p = 0; p < s.Width * s.Channel; ++p)
        ASSERT_EQ(src.data[size_t(y) * src.Stride + p], dst.data[size_t(y) * src.Stride + p]) << qvt::ToString(s);
  }
}

TEST(Sobel, BodyRoundsWhereTailTruncates) {
  // A lone 5 in row 0 of a dark 20 x 2 image: its left neighbour has
  // gx = -15, gy = -5, a root of 15.81. Column 5 lies in the 16-byte body
  // (rounded: 16), column 18 in the tail (truncated: 15).
  auto im = qvt::MakeImage(20, 2, 1, 0, false);
  im.at(6, 0, 0) = 5, im.at(19, 0, 0) = 5;
  auto out = im;
  ASSERT_EQ(QV_Sobel(im.ptr(), out.ptr(), 20, 2, 20), STATUS_OK);
  EXPECT_EQ(out.at(5, 0, 0), 16);
  EXPECT_EQ(out.at(18, 0, 0), 15);
}

TEST(Sobel, FlatImageAndFourthChannel) {
  auto flat = qvt::MakeImage(37, 5, 4, 0, false);
  std::fill(flat.data.begin(), flat.data.end(), 200);
  auto out = qvt::MakeImage(37, 5, 4);
  ASSERT_EQ(QV_Sobel(flat.ptr(), out.ptr(), 37, 5, flat.Stride), STATUS_OK);
  for (auto v : out.data) ASSERT_EQ(v, 0);
  // Only the fourth sample varies: only it has a gradient.
  for (int x = 0; x < 37; ++x) flat.at(x, 2, 3) = uint8_t(x * 6);
  ASSERT_EQ(QV_Sobel(flat.ptr(), out.ptr(), 37, 5, flat.Stride), STATUS_OK);
  int nonzero = 0;
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 37; ++x) {
      for (int c = 0; c < 3; ++c) ASSERT_EQ(out.at(x, y, c), 0);
      nonzero += out.at(x, y, 3) != 0;
    }
  EXPECT_GT(nonzero, 37);
}

TEST(Sobel, FrameOrderAndFailures) {
  unsigned char buf[64] = {1, 2, 3};
  const qvt::FrameCase cases[] = {
      {"null src before sizes", nullptr, buf, 3, 0, 9, STATUS_NULL_REFERENCE},
      {"null dest", buf, nullptr, 3, 1, 9, STATUS_NULL_REFERENCE},
      {"height 0", buf, buf, 3, 0, 9, STATUS_INVALID_PARAMETER},
      {"channel 2 is 1, not 5", buf, buf, 4, 1, 8, STATUS_INVALID_PARAMETER},
      {"channel 0", buf, buf, 4, 1, 3, STATUS_INVALID_PARAMETER},
  };
  qvt::CheckStatusTable(cases, buf, 64, [&](const auto& c) { return QV_Sobel(c.src, c.dst, c.w, c.h, c.stride); });
  auto im = qvt::MakeImage(21, 4, 3);
  auto out = qvt::MakeImage(21, 4, 3);
  const auto keep = out.data;
  EXPECT_EQ(qvt::CheckEveryAllocationFailure([&] { return QV_Sobel(im.ptr(), out.ptr(), 21, 4, im.Stride); },
                                             STATUS_OUT_OF_MEMORY, [&] { EXPECT_EQ(out.data, keep); }),
            1);
}

TEST(SobelDeathTest, ZeroWidthFaults) {
  unsigned char buf[16] = {};
  qvt::ExpectDivideFault([&](int w) { return QV_Sobel(nullptr, buf, w, 0, 4); });
}

}  // namespace
