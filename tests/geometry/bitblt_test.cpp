// Rectangular copy with alpha composition against a scalar model of the
// clipping, the placement and the four paths (block rounding versus tail
// truncation), plus the pinned cases and its frame.
#include <cmath>
#include <csignal>

#include "support/support.h"

namespace {

struct Rec {
  qvt::Image im;
  ImageRecord rec() { return ImageRecord{im.Width, im.Height, im.Stride, im.ptr()}; }
};

int Div255(int v) { return (v + 1 + (v >> 8)) >> 8; }

// The whole operation written from its definition, one pixel at a time.
qvt::Bytes BlitModel(const qvt::Image& dst, const qvt::Image& src, int DestX, int DestY, int BW, int BH, int SrcX,
                     int SrcY) {
  qvt::Bytes out = dst.data;
  const int dl0 = std::max(0, DestX), dt0 = std::max(0, DestY);
  const int dr0 = std::min(dst.Width, DestX + BW), db0 = std::min(dst.Height, DestY + BH);
  const int sx = dl0 - DestX + SrcX, sy = dt0 - DestY + SrcY;
  const int sl = std::max(0, sx), st = std::max(0, sy);
  const int sr = std::min(src.Width, SrcX + BW + (dr0 - (DestX + BW)));
  const int sb = std::min(src.Height, SrcY + BH + (db0 - (DestY + BH)));
  const int dl = dl0 + (sl - sx), dt = dt0 + (st - sy);
  if (sr <= sl || sb <= st) return out;
  const int width = sr - sl, sc = src.Channel, dc = dst.Channel;
  const long end = long(dst.Height - 1) * dst.Stride + long(dst.Width) * dc;
  for (int y = st; y < sb; ++y) {
    const long row = long(dt + y - st) * dst.Stride;
    const int first = (sc == 3 && dc == 3) ? dl : dl - sl;  // the 4-channel paths subtract S.left
    bool all255 = false, all0 = false;
    for (int x = 0; x < width; ++x) {
      const unsigned char* s = &src.data[size_t(y) * src.Stride + size_t(sl + x) * sc];
      const long off = row + long(first + x) * dc;
      const bool block = x < width / 8 * 8;
      if (block && x % 8 == 0 && sc == 4) {
        all255 = all0 = true;
        for (int k = 0; k < 8; ++k) {
          all255 = all255 && s[4 * k + 3] == 255;
          all0 = all0 && s[4 * k + 3] == 0;
        }
      }
      if (off < 0 || off + dc > end) continue;  // bytes that do not exist are skipped
      unsigned char* d = &out[off];
      if (sc == 3) {
        for (int c = 0; c < 3; ++c) d[c] = s[c];
        if (dc == 4) d[3] = 255;
      } else if (dc == 3) {
        for (int c = 0; c < 3; ++c) d[c] = static_cast<unsigned char>(Div255(s[c] * s[3] + d[c] * (255 - s[3])));
      } else if (block) {
        if (all255) {
          for (int c = 0; c < 4; ++c) d[c] = s[c];
        } else if (!all0) {
          const int a = s[3], da = d[3], t = da - Div255(a * da), outa = a + t;
          for (int c = 0; c < 3; ++c)
            d[c] = outa == 0 ? 0 : static_cast<unsigned char>(std::nearbyint(float(a * s[c] + t * d[c]) / float(outa)));
          d[3] = static_cast<unsigned char>(outa);
        }
      } else {
        const int a = s[3], da = d[3];
        if (a == 255) {
          for (int c = 0; c < 3; ++c) d[c] = s[c];
          d[3] = 255;
        } else if (a != 0) {
          const int t = da - Div255(a * da), outa = a + t;
          for (int c = 0; c < 3; ++c) d[c] = static_cast<unsigned char>((a * s[c] + t * d[c]) / outa);
          d[3] = static_cast<unsigned char>(outa);
        }
      }
    }
  }
  return out;
}

// Random alpha with many 0 and 255 runs, so whole blocks of each occur.
void ShapeAlpha(qvt::Image& im, std::mt19937& rng) {
  if (im.Channel != 4) return;
  for (int y = 0; y < im.Height; ++y)
    for (int x = 0; x < im.Width; x += 8) {
      const int kind = rng() % 4;
      for (int k = x; k < std::min(im.Width, x + 8); ++k)
        if (kind < 2)
          im.at(k, y, 3) = kind == 0 ? 0 : 255;
        else if (kind == 2 && rng() % 2)
          im.at(k, y, 3) = rng() % 2 ? 0 : 255;
    }
}

TEST(BitBlt, MatchesModelOnRandomPlacements) {
  std::mt19937 rng(99);
  for (int trial = 0; trial < 3000; ++trial) {
    const int sc = 3 + int(rng() % 2), dc = 3 + int(rng() % 2);
    const int dw = 1 + rng() % 40, dh = 1 + rng() % 6, sw = 1 + rng() % 40, sh = 1 + rng() % 6;
    auto dst = qvt::MakeImage(dw, dh, dc, dw > 3 ? int(rng() % 3) : 0);
    auto src = qvt::MakeImage(sw, sh, sc, sw > 3 ? int(rng() % 3) : 0);
    ShapeAlpha(dst, rng);
    ShapeAlpha(src, rng);
    const int dx = int(rng() % 50) - 10, dy = int(rng() % 8) - 2, bw = int(rng() % 45), bh = int(rng() % 8);
    const int sx = int(rng() % 50) - 10, sy = int(rng() % 8) - 2;
    const auto expect = BlitModel(dst, src, dx, dy, bw, bh, sx, sy);
    ImageRecord d{dw, dh, dst.Stride, dst.ptr()}, s{sw, sh, src.Stride, src.ptr()};
    ASSERT_EQ(QV_BitBlt(&d, dx, dy, bw, bh, &s, sx, sy), STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(expect, dst.data, dst.Stride))
        << sc << " to " << dc << " dest " << dw << "x" << dh << " src " << sw << "x" << sh << " at " << dx << "," << dy
        << " size " << bw << "x" << bh << " from " << sx << "," << sy;
  }
}

TEST(BitBlt, FourChannelPathsLandSLeftPixelsFurtherLeft) {
  for (int dc : {3, 4}) {
    auto src3 = qvt::MakeImage(12, 1, 3), src4 = qvt::MakeImage(12, 1, 4);
    for (int x = 0; x < 12; ++x) src4.at(x, 0, 3) = 255;
    auto dst = qvt::MakeImage(20, 1, dc, 0, false);
    ImageRecord d{20, 1, dst.Stride, dst.ptr()};
    ImageRecord s3{12, 1, 36, src3.ptr()}, s4{12, 1, 48, src4.ptr()};
    ASSERT_EQ(QV_BitBlt(&d, 10, 0, 3, 1, dc == 3 ? &s3 : &s4, 5, 0), STATUS_OK);
    // 3 to 3 lands at DestX; the others at DestX - 5.
    const int at = dc == 3 ? 10 : 5;
    const auto& s = dc == 3 ? src3 : src4;
    EXPECT_EQ(dst.at(at, 0, 0), s.at(5, 0, 0)) << dc;
    EXPECT_EQ(dst.at(at + 2, 0, 2), s.at(7, 0, 2)) << dc;
    if (dc == 4) EXPECT_EQ(dst.at(10, 0, 0), 0);
  }
  // 3 to 4: alpha 255 wherever written, also over a lower alpha.
  auto src = qvt::MakeImage(9, 1, 3);
  auto dst = qvt::MakeImage(9, 1, 4, 0, false);
  ImageRecord d{9, 1, 36, dst.ptr()}, s{9, 1, 27, src.ptr()};
  ASSERT_EQ(QV_BitBlt(&d, 0, 0, 9, 1, &s, 0, 0), STATUS_OK);
  for (int x = 0; x < 9; ++x) EXPECT_EQ(dst.at(x, 0, 3), 255);
}

TEST(BitBlt, BlockRoundsWhereTailTruncates) {
  // a = da = 128: e = 64, t = 64, outA = 192; colour 100 over 0 is 66.67.
  auto src = qvt::MakeImage(13, 1, 4, 0, false), dst = qvt::MakeImage(13, 1, 4, 0, false);
  for (int x = 0; x < 13; ++x) {
    src.at(x, 0, 0) = 100;
    src.at(x, 0, 3) = 128;
    dst.at(x, 0, 3) = 128;
  }
  ImageRecord d{13, 1, 52, dst.ptr()}, s{13, 1, 52, src.ptr()};
  ASSERT_EQ(QV_BitBlt(&d, 0, 0, 13, 1, &s, 0, 0), STATUS_OK);
  for (int x = 0; x < 13; ++x) {
    EXPECT_EQ(dst.at(x, 0, 0), x < 8 ? 67 : 66) << x;
    EXPECT_EQ(dst.at(x, 0, 3), 192) << x;
  }
}

TEST(BitBlt, ZeroAlphaBlocksAndPixels) {
  auto src = qvt::MakeImage(10, 2, 4), dst = qvt::MakeImage(10, 2, 4);
  for (int x = 0; x < 10; ++x) {
    src.at(x, 0, 3) = 0;               // row 0: a whole block of alpha 0
    src.at(x, 1, 3) = x == 0 ? 9 : 0;  // row 1: a mixed block
    dst.at(x, 1, 3) = 0;               // and both alphas 0 in it
  }
  const auto before = dst;
  ImageRecord d{10, 2, 40, dst.ptr()}, s{10, 2, 40, src.ptr()};
  ASSERT_EQ(QV_BitBlt(&d, 0, 0, 10, 2, &s, 0, 0), STATUS_OK);
  for (int x = 0; x < 10; ++x)
    for (int c = 0; c < 4; ++c) EXPECT_EQ(dst.at(x, 0, c), before.at(x, 0, c));
  for (int x = 1; x < 8; ++x)
    for (int c = 0; c < 4; ++c) EXPECT_EQ(dst.at(x, 1, c), 0) << x;  // cleared in the block
  for (int x = 8; x < 10; ++x)
    for (int c = 0; c < 4; ++c) EXPECT_EQ(dst.at(x, 1, c), before.at(x, 1, c)) << x;  // kept in the tail
}

TEST(BitBlt, FrameAsTable) {
  unsigned char a[48] = {1}, b[48] = {2};
  struct Case {
    const char* what;
    ImageRecord dest, src;
    int bw, bh, expect;
  } cases[] = {
      {"negative width before pointers", {4, 1, 12, nullptr}, {4, 1, 12, nullptr}, -1, 1, STATUS_OK},
      {"negative height", {4, 1, 12, a}, {4, 1, 8, b}, 2, -1, STATUS_OK},
      {"null source data", {4, 1, 12, a}, {4, 1, 12, nullptr}, 2, 1, STATUS_NULL_REFERENCE},
      {"null dest data", {4, 1, 12, nullptr}, {4, 1, 12, b}, 2, 1, STATUS_NULL_REFERENCE},
      {"same data before channels", {4, 1, 4, a}, {4, 1, 4, a}, 2, 1, STATUS_NOT_SUPPORTED},
      {"same data", {4, 1, 16, a}, {4, 1, 12, a}, 2, 1, STATUS_NOT_SUPPORTED},
      {"one channel source", {4, 1, 12, a}, {4, 1, 4, b}, 2, 1, STATUS_INVALID_PARAMETER},
      {"one channel dest", {4, 1, 4, a}, {4, 1, 12, b}, 2, 1, STATUS_INVALID_PARAMETER},
      {"two channels", {4, 1, 8, a}, {4, 1, 12, b}, 2, 1, STATUS_INVALID_PARAMETER},
  };
  for (auto& c : cases) {
    unsigned char before[48];
    std::copy(a, a + 48, before);
    EXPECT_EQ(QV_BitBlt(&c.dest, 0, 0, c.bw, c.bh, &c.src, 0, 0), c.expect) << c.what;
    EXPECT_TRUE(std::equal(a, a + 48, before)) << c.what;
  }
}

TEST(BitBltDeathTest, ZeroWidthFaults) {
  unsigned char a[16] = {};
  ImageRecord zero{0, 1, 4, a}, fine{1, 1, 3, a};
  EXPECT_EXIT(QV_BitBlt(&fine, 0, 0, -1, 1, &zero, 0, 0), ::testing::KilledBySignal(SIGFPE), "");
  EXPECT_EXIT(QV_BitBlt(&zero, 0, 0, -1, 1, &fine, 0, 0), ::testing::KilledBySignal(SIGFPE), "");
}

}  // namespace
