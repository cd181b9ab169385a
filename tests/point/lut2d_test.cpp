// Colour table look-up: tile addressing, interpolation along the first
// sample's axis only, fourth sample not written.

#include "support/support.h"

namespace {

constexpr size_t kTableBytes = 512 * 512 * 3;

const unsigned char* TablePixel(const qvt::Bytes& t, int b6, int g6, int r6) {
  const int tile_row = b6 / 8, tile_col = b6 % 8;
  return &t[3 * (size_t(tile_row * 64 + g6) * 512 + tile_col * 64 + r6)];
}

qvt::Bytes LutModel(const qvt::Image& src, qvt::Bytes dest, const qvt::Bytes& t) {
  for (int y = 0; y < src.Height; ++y)
    for (int x = 0; x < src.Width; ++x) {
      const int b = src.at(x, y, 0), g6 = src.at(x, y, 1) / 4, r6 = src.at(x, y, 2) / 4, f = b % 4;
      const unsigned char* p = TablePixel(t, b / 4, g6, r6);
      const unsigned char* q = TablePixel(t, std::min(b / 4 + 1, 63), g6, r6);
      unsigned char* d = &dest[size_t(y) * src.Stride + size_t(x) * src.Channel];
      for (int c = 0; c < 3; ++c) d[c] = static_cast<unsigned char>(f == 0 ? p[c] : (q[c] * f + p[c] * (4 - f)) / 4);
    }
  return dest;
}

TEST(Lut2D, MatchesModelOnEveryShape) {
  qvt::Bytes table(kTableBytes);
  qvt::FillRandom(table);
  for (const auto& s : qvt::TailShapes({3, 4}, 2)) {
    auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    const auto expect = LutModel(src, dst.data, table);
    ASSERT_EQ(QV_Lut2D(src.ptr(), table.data(), dst.ptr(), s.Width, s.Height, src.Stride), STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(expect, dst.data, dst.Stride)) << qvt::ToString(s);
    const auto in_place = LutModel(src, src.data, table);
    ASSERT_EQ(QV_Lut2D(src.ptr(), table.data(), src.ptr(), s.Width, s.Height, src.Stride), STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(in_place, src.data, src.Stride)) << qvt::ToString(s);
  }
}

TEST(Lut2D, IdentityTableInterpolatesOnlyTheFirstAxis) {
  qvt::Bytes table(kTableBytes);
  for (int b6 = 0; b6 < 64; ++b6)
    for (int g6 = 0; g6 < 64; ++g6)
      for (int r6 = 0; r6 < 64; ++r6) {
        unsigned char* p = const_cast<unsigned char*>(TablePixel(table, b6, g6, r6));
        p[0] = static_cast<unsigned char>(4 * b6), p[1] = static_cast<unsigned char>(4 * g6);
        p[2] = static_cast<unsigned char>(4 * r6);
      }
  qvt::Bytes px(256 * 3), out(256 * 3);
  for (int i = 0; i < 256; ++i) px[3 * i] = px[3 * i + 1] = px[3 * i + 2] = static_cast<unsigned char>(i);
  ASSERT_EQ(QV_Lut2D(px.data(), table.data(), out.data(), 256, 1, 256 * 3), STATUS_OK);
  for (int i = 0; i < 256; ++i) {
    EXPECT_EQ(out[3 * i], i < 252 ? i : 252) << i;  // tile 63 interpolates with itself
    EXPECT_EQ(out[3 * i + 1], i & ~3) << i;
    EXPECT_EQ(out[3 * i + 2], i & ~3) << i;
  }
}

TEST(Lut2D, FrameOrder) {
  unsigned char buf[64], table[16] = {};
  std::fill(buf, buf + 64, 5);
  struct Case {
    const char* what;
    int null_which;  // 0 none, 1 Src, 2 Table, 3 Dest
    int w, h, stride, expect;
  } cases[] = {
      {"null src before sizes", 1, 3, 0, 9, STATUS_NULL_REFERENCE},
      {"null table before sizes", 2, 3, 0, 9, STATUS_NULL_REFERENCE},
      {"null dest before sizes", 3, 3, 0, 9, STATUS_NULL_REFERENCE},
      {"height 0", 0, 3, 0, 9, STATUS_INVALID_PARAMETER},
      {"gray", 0, 4, 1, 4, STATUS_INVALID_PARAMETER},
      {"channel 5", 0, 3, 1, 15, STATUS_INVALID_PARAMETER},
  };
  for (auto& c : cases) {
    EXPECT_EQ(QV_Lut2D(c.null_which == 1 ? nullptr : buf, c.null_which == 2 ? nullptr : table,
                       c.null_which == 3 ? nullptr : buf, c.w, c.h, c.stride),
              c.expect)
        << c.what;
    EXPECT_TRUE(std::all_of(buf, buf + 64, [](int v) { return v == 5; })) << c.what << ": Dest touched";
  }
}

TEST(Lut2DDeathTest, ZeroWidthFaults) {
  qvt::ExpectDivideFault([&](int w) { return QV_Lut2D(nullptr, nullptr, nullptr, w, 0, 4); });
}

}  // namespace
