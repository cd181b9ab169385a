// Box mean against a scalar model that puts the rounding (vector) and the
// truncating (scalar) conversion at exactly the pixels the design gives each,
// plus its frame, allocation failures and the documented wraps.
#include "smooth/box.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "frame/border.h"
#include "support/support.h"

namespace {

enum class Path { Small, Large };

// Window sum of one sample: rows mirror with the edge row repeated, columns
// reflect once without the edge column.
long long WindowSum(const qvt::Image& im, int x, int y, int c, int R) {
  long long s = 0;
  for (int dy = -R; dy <= R; ++dy) {
    const int yy = qv::MirrorIndex(im.Height, y + dy);
    for (int dx = -R; dx <= R; ++dx) {
      int xx = x + dx;
      if (xx < 0) xx = -xx;
      if (xx >= im.Width) xx = 2 * im.Width - 2 - xx;
      s += im.at(xx, yy, c);
    }
  }
  return s;
}

// Vector conversion: float sum times the float reciprocal, ties to even,
// saturated to 16 bits, then to 0..255.
unsigned char VectorConvert(float sum, float invf) {
  long long r = std::llrint(sum * invf);  // the default rounding mode: ties to even
  if (r < -32768) r = -32768;
  if (r > 32767) r = 32767;
  return static_cast<unsigned char>(r < 0 ? 0 : (r > 255 ? 255 : r));
}
// Scalar conversion: double product truncated, then ClampToByte.
unsigned char ScalarConvert(double sum, double inv) {
  return static_cast<unsigned char>(qv::ClampToByte(int(sum * inv)));
}

// Is pixel x of a row done by a vector block?
bool IsVectorPixel(Path p, int Channel, int x, int W) {
  if (p == Path::Small) {
    if (x == 0) return false;
    return Channel == 1 ? x < ((W - 1) / 8) * 8 + 1 : x < ((W - 2) / 2) * 2 + 1;
  }
  if (Channel == 1) return x != 0 && x < ((W - 1) / 4) * 4 + 1;
  return x < (Channel == 3 ? ((W - 1) / 2) * 2 : ((W - 2) / 2) * 2);
}

// The model: Dest starts as `dest` (padding must survive), Radius as passed.
qvt::Bytes BoxModel(const qvt::Image& src, const qvt::Bytes& dest, int Radius, Path p) {
  const int W = src.Width, H = src.Height, C = src.Channel;
  int R = Radius;
  if (R > W - 1) R = W - 1;
  if (R > H - 1) R = H - 1;
  const double inv = 1.0 / ((2 * R + 1) * (2 * R + 1));
  const float invf = float(inv);
  qvt::Bytes out = dest;
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x)
      for (int c = 0; c < C; ++c) {
        const long long s = WindowSum(src, x, y, c, R);
        // 16-bit sums are unsigned and wrap; 32-bit sums wrap as signed values.
        const double sum = p == Path::Small ? double(uint16_t(s)) : double(int32_t(uint32_t(s)));
        out[size_t(y) * src.Stride + size_t(x) * C + c] =
            IsVectorPixel(p, C, x, W) ? VectorConvert(float(sum), invf) : ScalarConvert(sum, inv);
      }
  return out;
}

TEST(BoxBlur, MatchesModelOnEveryShape) {
  for (const auto& s : qvt::TailShapes({1, 3, 4})) {
    auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    for (int r : {1, 2, 3, 5, 6, 7, 40}) {
      auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      const auto expect = BoxModel(src, dst.data, r, r >= 6 ? Path::Large : Path::Small);
      ASSERT_EQ(QV_BoxBlur(src.ptr(), dst.ptr(), s.Width, s.Height, src.Stride, r), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(expect, dst.data, src.Stride)) << qvt::ToString(s) << " radius " << r;
    }
  }
}

TEST(BoxBlur, TallAndNaturalImages) {
  for (int c : {1, 3, 4})
    for (int r : {1, 4, 5, 6, 9}) {
      auto src = qvt::MakeNaturalImage(37, 29, c, 2);
      auto dst = qvt::MakeImage(37, 29, c, 2);
      const auto expect = BoxModel(src, dst.data, r, r >= 6 ? Path::Large : Path::Small);
      ASSERT_EQ(QV_BoxBlur(src.ptr(), dst.ptr(), 37, 29, src.Stride, r), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(expect, dst.data, src.Stride)) << "channels " << c << " radius " << r;
    }
}

TEST(BoxBlur, SmallPathSumsWrapAtSixteenBits) {
  // Called directly with a radius past its range, the 16-bit path wraps:
  // 17 * 17 * 255 = 73695 is taken modulo 65536.
  for (int c : {1, 3, 4}) {
    auto src = qvt::MakeImage(30, 20, c, 1);
    for (auto& v : src.data) v = uint8_t(200 + v % 56);
    auto dst = qvt::MakeImage(30, 20, c, 1);
    const auto expect = BoxModel(src, dst.data, 8, Path::Small);
    ASSERT_EQ(qv::BoxBlurSmallRadius(src.ptr(), dst.ptr(), 30, 20, src.Stride, 8), STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(expect, dst.data, src.Stride)) << "channels " << c;
  }
}

TEST(BoxBlur, LargePathSumsWrapAtThirtyTwoBits) {
  // 255 * 2903^2 passes 2^31 at radius 1451: a white image turns black.
  const int n = 1452;
  auto src = qvt::MakeImage(n, n, 1, 0, false);
  std::memset(src.ptr(), 255, src.data.size());
  auto dst = qvt::MakeImage(n, n, 1, 0, false);
  ASSERT_EQ(QV_BoxBlur(src.ptr(), dst.ptr(), n, n, n, 1451), STATUS_OK);
  EXPECT_EQ(*std::max_element(dst.data.begin(), dst.data.end()), 0);
  ASSERT_EQ(QV_BoxBlur(src.ptr(), dst.ptr(), n, n, n, 1450), STATUS_OK);
  const double area = 2901.0 * 2901.0;
  EXPECT_EQ(dst.data[0], int(255 * area * (1.0 / area)));  // scalar pixel 0
  EXPECT_EQ(dst.data[1], 255);                             // a vector pixel
}

// All 100 but pixels (0, 0) and (0, 4) = 119: at radius 4 on 5x5 the corner
// window weighs row 0 twice, row 4 once and column 0 once, so its sum is
// 81 * 100 + 3 * 19 and its mean 100.70: rounded 101, truncated 100.
TEST(BoxBlur, FirstPixelRoundedOnlyOnLargePathColours) {
  for (int c : {1, 3, 4}) {
    auto src = qvt::MakeImage(5, 5, c, 0, false);
    std::memset(src.ptr(), 100, src.data.size());
    for (int k = 0; k < c; ++k) src.at(0, 0, k) = src.at(0, 4, k) = 119;
    auto small = qvt::MakeImage(5, 5, c, 0, false), large = small;
    ASSERT_EQ(QV_BoxBlur(src.ptr(), small.ptr(), 5, 5, src.Stride, 4), STATUS_OK);
    ASSERT_EQ(QV_BoxBlur(src.ptr(), large.ptr(), 5, 5, src.Stride, 10), STATUS_OK);  // limited to 4
    for (int k = 0; k < c; ++k) {
      EXPECT_EQ(small.at(0, 0, k), 100) << "channels " << c;
      EXPECT_EQ(large.at(0, 0, k), c == 1 ? 100 : 101) << "channels " << c;
    }
  }
}

TEST(BoxBlur, RowsRepeatTheEdgeColumnsDoNot) {
  // Radius 1 at the corner: pixel (1, 0) weighs 2 * 2, pixel (0, 1) 1 * 1.
  auto a = qvt::MakeImage(4, 4, 1, 0, false), b = a, out = a;
  a.at(1, 0, 0) = 100;
  b.at(0, 1, 0) = 100;
  ASSERT_EQ(QV_BoxBlur(a.ptr(), out.ptr(), 4, 4, 4, 1), STATUS_OK);
  EXPECT_EQ(out.at(0, 0, 0), 44);  // 400 / 9
  ASSERT_EQ(QV_BoxBlur(b.ptr(), out.ptr(), 4, 4, 4, 1), STATUS_OK);
  EXPECT_EQ(out.at(0, 0, 0), 11);  // 100 / 9
}

TEST(BoxBlur, OnePixelImagesCopy) {
  for (int c : {1, 3, 4})
    for (int r : {1, 5, 6, 1000}) {
      auto src = qvt::MakeImage(1, 1, c);
      auto dst = qvt::MakeImage(1, 1, c, 0, false);
      ASSERT_EQ(QV_BoxBlur(src.ptr(), dst.ptr(), 1, 1, c, r), STATUS_OK);
      EXPECT_TRUE(qvt::SameBytes(src.data, dst.data)) << c << " " << r;
      // One pixel wide, any height: the window is the sample itself.
      auto col = qvt::MakeImage(1, 9, c);
      auto out = qvt::MakeImage(1, 9, c, 0, false);
      ASSERT_EQ(QV_BoxBlur(col.ptr(), out.ptr(), 1, 9, c, r), STATUS_OK);
      EXPECT_TRUE(qvt::SameBytes(col.data, out.data)) << c << " " << r;
    }
}

TEST(BoxBlur, FlatImageKeepsValueUpToScalarTruncation) {
  for (int v : {1, 3, 7, 49, 100, 255})
    for (int r : {1, 2, 3, 4, 5, 6, 11}) {
      auto src = qvt::MakeImage(19, 14, 1, 0, false);
      std::memset(src.ptr(), v, src.data.size());
      auto dst = src;
      ASSERT_EQ(QV_BoxBlur(src.ptr(), dst.ptr(), 19, 14, 19, r), STATUS_OK);
      const double area = double((2 * r + 1) * (2 * r + 1));
      const int scalar = int(v * area * (1.0 / area));  // v, or v - 1 when the product falls short
      const Path p = r >= 6 ? Path::Large : Path::Small;
      for (int x = 0; x < 19; ++x) EXPECT_EQ(dst.at(x, 7, 0), IsVectorPixel(p, 1, x, 19) ? v : scalar) << v << " " << r;
    }
}

TEST(BoxBlur, FrameOrder) {
  unsigned char src[256], dst[256];
  for (int r : {3, 10}) {
    struct Case {
      const char* what;
      const unsigned char* s;
      unsigned char* d;
      int w, h, stride, radius, expect;
    } cases[] = {
        {"null src first", nullptr, nullptr, 4, 0, 8, 0, STATUS_NULL_REFERENCE},
        {"null dest before sizes", src, nullptr, 4, 0, 8, 0, STATUS_NULL_REFERENCE},
        {"height 0 before channel", src, dst, 4, 0, 8, r, STATUS_INVALID_PARAMETER},
        {"negative width", src, dst, -4, 2, 8, r, STATUS_INVALID_PARAMETER},
        {"radius 0 before channel", src, dst, 4, 2, 8, 0, STATUS_INVALID_PARAMETER},
        {"negative radius", src, dst, 4, 2, 4, -r, STATUS_INVALID_PARAMETER},
        {"channel 2", src, dst, 4, 2, 8, r, STATUS_NOT_SUPPORTED},
        {"channel 0", src, dst, 4, 2, 3, r, STATUS_NOT_SUPPORTED},
        {"channel 5", src, dst, 4, 2, 20, r, STATUS_NOT_SUPPORTED},
    };
    for (auto& c : cases) {
      std::memset(dst, 0xA5, sizeof dst);
      EXPECT_EQ(QV_BoxBlur(c.s, c.d, c.w, c.h, c.stride, c.radius), c.expect) << c.what << " radius " << r;
      for (unsigned char v : dst) ASSERT_EQ(v, 0xA5) << c.what << ": Dest touched";
    }
  }
}

TEST(BoxBlur, AllocationFailures) {
  for (int r : {2, 8})
    for (int c : {1, 3, 4}) {
      auto src = qvt::MakeImage(23, 9, c, 1);
      auto dst = qvt::MakeImage(23, 9, c, 1);
      const auto before = dst.data;
      const int n = qvt::CheckEveryAllocationFailure(
          [&] { return QV_BoxBlur(src.ptr(), dst.ptr(), 23, 9, src.Stride, r); }, STATUS_OUT_OF_MEMORY,
          [&] { EXPECT_TRUE(qvt::SameBytes(before, dst.data)) << "Dest touched"; });
      EXPECT_EQ(n, 2);
    }
}

TEST(BoxBlurDeathTest, ZeroWidthFaultsOnBothPaths) {
  unsigned char buf[16] = {};
  qvt::ExpectDivideFault([&](int w) { return QV_BoxBlur(nullptr, buf, w, 0, 4, 3); });
  qvt::ExpectDivideFault([&](int w) { return QV_BoxBlur(nullptr, buf, w, 0, 4, 9); });
}

// ---- whole-image mean ---------------------------------------------------------

// Means as rounded doubles of 32-bit sums; the fill rules per channel count.
qvt::Bytes AverageModel(const qvt::Image& src, const qvt::Bytes& dest) {
  const int W = src.Width, H = src.Height, C = src.Channel;
  int mean[4];
  for (int c = 0; c < C; ++c) {
    uint32_t s = 0;
    for (int y = 0; y < H; ++y)
      for (int x = 0; x < W; ++x) s += src.at(x, y, c);
    mean[c] = int(double(int32_t(s)) / (double(W) * H) + 0.5);
  }
  qvt::Bytes out = dest;
  if (C == 1) {
    std::fill(out.begin(), out.end(), uint8_t(mean[0]));  // padding too
  } else if (C == 3) {
    for (int x = 0; x < W; ++x)
      for (int c = 0; c < 3; ++c) out[3 * x + c] = uint8_t(mean[c]);
    for (int y = 1; y < H; ++y) std::copy(out.begin(), out.begin() + src.Stride, out.begin() + size_t(y) * src.Stride);
  } else {
    for (int y = 0; y < H; ++y)
      for (int x = 0; x < W; ++x)
        for (int c = 0; c < 4; ++c)
          out[size_t(y) * src.Stride + 4 * x + c] = c == 3 ? src.at(x, y, 3) : uint8_t(mean[c]);
  }
  return out;
}

TEST(AverageBlur, MatchesModelOnEveryShape) {
  for (const auto& s : qvt::TailShapes({1, 3, 4})) {
    auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    const auto expect = AverageModel(src, dst.data);
    ASSERT_EQ(QV_AverageBlur(src.ptr(), dst.ptr(), s.Width, s.Height, src.Stride), STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(expect, dst.data, src.Stride)) << qvt::ToString(s);
  }
}

TEST(AverageBlur, PaddingRules) {
  // Channel 1 overwrites padding; Channel 3 repeats row 0's padding below;
  // Channel 4 keeps the fourth sample where QV_BoxBlur filters it.
  auto g = qvt::MakeImage(5, 3, 1, 2), gd = qvt::MakeImage(5, 3, 1, 2);
  ASSERT_EQ(QV_AverageBlur(g.ptr(), gd.ptr(), 5, 3, 7), STATUS_OK);
  EXPECT_EQ(gd.data[5], gd.data[0]);
  auto c3 = qvt::MakeImage(5, 3, 3, 2), c3d = qvt::MakeImage(5, 3, 3, 2);
  const uint8_t pad0 = c3d.data[15];
  ASSERT_EQ(QV_AverageBlur(c3.ptr(), c3d.ptr(), 5, 3, 17), STATUS_OK);
  EXPECT_EQ(c3d.data[2 * 17 + 15], pad0);
  auto c4 = qvt::MakeImage(6, 2, 4), c4d = qvt::MakeImage(6, 2, 4);
  ASSERT_EQ(QV_AverageBlur(c4.ptr(), c4d.ptr(), 6, 2, 24), STATUS_OK);
  for (int x = 0; x < 6; ++x) EXPECT_EQ(c4d.at(x, 1, 3), c4.at(x, 1, 3));
}

TEST(AverageBlur, FrameOrder) {
  unsigned char src[64] = {}, dst[64];
  const qvt::FrameCase cases[] = {
      {"null src before sizes", nullptr, dst, 4, 0, 8, STATUS_NULL_REFERENCE},
      {"null dest before sizes", src, nullptr, 4, 0, 8, STATUS_NULL_REFERENCE},
      {"height 0 before channel", src, dst, 4, 0, 8, STATUS_INVALID_PARAMETER},
      {"channel 2", src, dst, 4, 2, 8, STATUS_NOT_SUPPORTED},
      {"channel 5", src, dst, 2, 2, 10, STATUS_NOT_SUPPORTED},
  };
  qvt::CheckStatusTable(cases, dst, sizeof dst,
                        [](const qvt::FrameCase& c) { return QV_AverageBlur(c.src, c.dst, c.w, c.h, c.stride); });
}

TEST(AverageBlurDeathTest, ZeroWidthFaults) {
  unsigned char buf[16] = {};
  qvt::ExpectDivideFault([&](int w) { return QV_AverageBlur(nullptr, buf, w, 0, 4); });
}

}  // namespace
