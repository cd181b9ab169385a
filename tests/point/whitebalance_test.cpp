// Gray-world white balance against a model written from its definition over
// every tail length, both channel counts and padded rows; the stated cases,
// the block and tail rounding, and the frame.
#include "point/whitebalance.h"

#include <cmath>

#include "support/support.h"

namespace {

using qvt::Bytes;
using qvt::Image;

void MeansModel(const Image& s, int percent, int* m) {
  long long sum[3] = {};
  long long n = 0;
  for (int y = 0; y < s.Height; ++y)
    for (int x = 0; x < s.Width; ++x) {
      const int a = s.at(x, y, 0), b = s.at(x, y, 1), c = s.at(x, y, 2);
      const int mx = std::max({a, b, c}), mn = std::min({a, b, c});
      if (percent == 100 || (mx - mn) * 100LL < mx * (long long)percent) sum[0] += a, sum[1] += b, sum[2] += c, ++n;
    }
  for (int c = 0; c < 3; ++c) m[c] = n ? int(double(sum[c]) / n + 0.5) : 0;
}

// The first Width rounded down to 4 pixels divide in float, rounding to even;
// the rest divide integers, truncating.
Bytes GrayWorldModel(const Image& s, const Bytes& dest, int percent) {
  if (percent == 0) return s.data;
  int m[4];
  MeansModel(s, percent, m);
  const int gray = (m[0] + 2 * m[1] + m[2]) / 4;
  if (gray == 0) return dest;
  for (int c = 0; c < 3; ++c)
    if (m[c] == 0) m[c] = gray;
  m[3] = gray;
  Bytes out = dest;
  for (int y = 0; y < s.Height; ++y)
    for (int x = 0; x < s.Width; ++x)
      for (int c = 0; c < s.Channel; ++c) {
        const int v = s.at(x, y, c);
        const int q = x < (s.Width & ~3) ? int(std::nearbyint(float(v * gray) / float(m[c]))) : v * gray / m[c];
        out[size_t(y) * s.Stride + x * s.Channel + c] = static_cast<unsigned char>(std::min(std::max(q, 0), 255));
      }
  return out;
}

TEST(AWB_GrayWorld, MatchesModelOnEveryShape) {
  for (const auto& sh : qvt::TailShapes({3, 4}))
    for (int percent : {100, 50, 10, 1, 0, 150, -5}) {
      Image s = qvt::MakeNaturalImage(sh.Width, sh.Height, sh.Channel, sh.Pad, sh.Width + percent);
      Image d = qvt::MakeImage(sh.Width, sh.Height, sh.Channel, sh.Pad);
      const Bytes expect = GrayWorldModel(s, d.data, percent);
      ASSERT_EQ(QV_AWB_GrayWorld(s.ptr(), d.ptr(), s.Width, s.Height, s.Stride, percent), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(expect, d.data, s.Stride)) << qvt::ToString(sh) << " percent " << percent;
      const Bytes in_place = GrayWorldModel(s, s.data, percent);
      ASSERT_EQ(QV_AWB_GrayWorld(s.ptr(), s.ptr(), s.Width, s.Height, s.Stride, percent), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(in_place, s.data, s.Stride)) << qvt::ToString(sh) << " in place";
    }
}

TEST(AWB_GrayWorld, StatedCases) {
  // A gray image stays, at every Percent.
  Image g = qvt::MakeImage(23, 3, 4, 2);
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 23; ++x) g.at(x, y, 1) = g.at(x, y, 2) = g.at(x, y, 0);
  for (int percent : {100, 30}) {
    Image out = g;
    ASSERT_EQ(QV_AWB_GrayWorld(g.ptr(), out.ptr(), 23, 3, g.Stride, percent), STATUS_OK);
    EXPECT_EQ(out.data, g.data) << percent;
  }
  // Percent 1 on a saturated image: no pixel counts, gray 0, Dest untouched.
  Image sat = qvt::MakeImage(9, 2, 3, 0, false);
  for (int x = 0; x < 9; ++x) sat.at(x, 0, 2) = sat.at(x, 1, 1) = 200;
  Image out = qvt::MakeImage(9, 2, 3, 0);
  const Bytes before = out.data;
  ASSERT_EQ(QV_AWB_GrayWorld(sat.ptr(), out.ptr(), 9, 2, 27, 1), STATUS_OK);
  EXPECT_EQ(out.data, before);
  // No blue at Percent 100: its mean 0 becomes gray and blue stays 0.
  Image nb = qvt::MakeImage(17, 2, 3, 0);
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 17; ++x) nb.at(x, y, 0) = 0;
  Image nbo = nb;
  ASSERT_EQ(QV_AWB_GrayWorld(nb.ptr(), nbo.ptr(), 17, 2, 51, 100), STATUS_OK);
  for (int x = 0; x < 17; ++x) EXPECT_EQ(nbo.at(x, 1, 0), 0);
  // Percent 0 copies the whole run, padding included.
  Image p = qvt::MakeImage(7, 3, 3, 2);
  Image c = qvt::MakeImage(7, 3, 3, 2);
  ASSERT_EQ(QV_AWB_GrayWorld(p.ptr(), c.ptr(), 7, 3, p.Stride, 0), STATUS_OK);
  EXPECT_EQ(c.data, p.data);
}

TEST(AWB_GrayWorld, BodyRoundsTailTruncatesAndTheProductIsUnsigned) {
  // Blue 100, 101, 100, 100, 101 (mean 100), green 150, red 200: gray 150.
  // 101 * 150 / 100 = 151.5: the body rounds to even (152), the tail truncates (151).
  Image im = qvt::MakeImage(5, 1, 3, 0, false);
  for (int x = 0; x < 5; ++x) im.at(x, 0, 0) = x == 1 || x == 4 ? 101 : 100, im.at(x, 0, 1) = 150, im.at(x, 0, 2) = 200;
  Image out = im;
  ASSERT_EQ(QV_AWB_GrayWorld(im.ptr(), out.ptr(), 5, 1, 15, 100), STATUS_OK);
  EXPECT_EQ(out.at(1, 0, 0), 152);
  EXPECT_EQ(out.at(4, 0, 0), 151);
  // Means 192 all, gray 192: 255 * 192 = 48960 passes 32767 and must be taken
  // as unsigned in the body to give 255.
  Image w = qvt::MakeImage(4, 1, 3, 0, false);
  for (int x = 0; x < 4; ++x)
    for (int c = 0; c < 3; ++c) w.at(x, 0, c) = x == 3 ? 3 : 255;
  Image wo = w;
  ASSERT_EQ(QV_AWB_GrayWorld(w.ptr(), wo.ptr(), 4, 1, 12, 100), STATUS_OK);
  EXPECT_EQ(wo.data, w.data);
}

TEST(GrayPixelMeans, CountsOnlyWeaklySaturatedPixels) {
  // (100, 90, 100) at Percent 10: 10 * 100 is not below 100 * 10, so it does
  // not count; (100, 91, 100) does. Black never counts.
  const unsigned char px[] = {100, 90, 100, 100, 91, 100, 0, 0, 0};
  int m[4];
  ASSERT_EQ(qv::GrayPixelMeans(px, 3, 1, 9, 10, &m[0], &m[1], &m[2], &m[3]), STATUS_OK);
  EXPECT_EQ(m[0], 100);
  EXPECT_EQ(m[1], 91);
  EXPECT_EQ(m[2], 100);
  EXPECT_EQ(m[3], 255);
  ASSERT_EQ(qv::GrayPixelMeans(px, 3, 1, 9, -7, &m[0], &m[1], &m[2], &m[3]), STATUS_OK);
  EXPECT_EQ(m[0] | m[1] | m[2] | m[3], 0);
}

TEST(AWB_GrayWorld, FrameOrder) {
  unsigned char src[64] = {1, 2, 3}, dst[64];
  std::fill(dst, dst + 64, 7);
  struct {
    const char* what;
    bool null_src, null_dst;
    int w, h, stride, expect;
  } cases[] = {
      {"null dest before sizes", false, true, 3, 0, 9, STATUS_NULL_REFERENCE},
      {"null src", true, false, 3, 1, 9, STATUS_NULL_REFERENCE},
      {"height 0", false, false, 3, 0, 9, STATUS_INVALID_PARAMETER},
      {"channel 1", false, false, 4, 1, 4, STATUS_NOT_SUPPORTED},
      {"channel 5", false, false, 3, 1, 15, STATUS_NOT_SUPPORTED},
  };
  for (auto& c : cases)
    for (int percent : {0, 50, 100})
      EXPECT_EQ(QV_AWB_GrayWorld(c.null_src ? nullptr : src, c.null_dst ? nullptr : dst, c.w, c.h, c.stride, percent),
                c.expect)
          << c.what << " percent " << percent;
  EXPECT_TRUE(std::all_of(dst, dst + 64, [](unsigned char v) { return v == 7; })) << "Dest touched";
}

TEST(AWB_GrayWorldDeathTest, ZeroWidthFaultsFirst) {
  unsigned char buf[16] = {};
  qvt::ExpectDivideFault([&](int w) { return QV_AWB_GrayWorld(nullptr, buf, w, 0, 4, 50); });
}

}  // namespace
