// Transpose, right-angle turns and flips against plain index models, for
// every channel count, odd sizes and both strides; their frames as tables.
#include <csignal>
#include <functional>

#include "support/support.h"

namespace {

using qvt::Image;
using Turn = int (*)(const unsigned char*, unsigned char*, int, int, int, int, int, int);

// Dest(r, c) = Src(where(r, c)) for every pixel; padding keeps Dest's bytes.
Image IndexModel(const Image& src, const Image& dest_before,
                 const std::function<std::pair<int, int>(int, int)>& where) {
  Image out = dest_before;
  for (int r = 0; r < out.Height; ++r)
    for (int c = 0; c < out.Width; ++c) {
      const auto [sy, sx] = where(r, c);
      for (int k = 0; k < src.Channel; ++k) out.at(c, r, k) = src.at(sx, sy, k);
    }
  return out;
}

// Sizes around every tile edge (8, 16 and 4 with the "- 2" counts).
const int kSides[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 15, 16, 17, 18, 23, 24, 25, 33, 40};

// Pads for source and destination: packed, and (1 and 3 channels only) padded.
std::vector<std::pair<int, int>> Pads(int Channel, int SrcWidth, int DestWidth) {
  std::vector<std::pair<int, int>> p = {{0, 0}};
  if (Channel != 4) {
    if (SrcWidth > 2) p.push_back({SrcWidth - 1, 0});
    if (DestWidth > 2) p.push_back({0, 2});
    if (SrcWidth > 2 && DestWidth > 2) p.push_back({1, DestWidth - 1});
  }
  return p;
}

void CheckQuarterTurn(Turn f, const char* name, bool Clockwise, int c, int sw, int sh) {
  for (auto [spad, dpad] : Pads(c, sw, sh)) {
    auto src = qvt::MakeImage(sw, sh, c, spad);
    auto dst = qvt::MakeImage(sh, sw, c, dpad);
    const bool cw = Clockwise || (c == 1 && sw <= sh);  // the single-channel exception of the 270 turn
    const auto expect = IndexModel(src, dst, [&](int r, int col) {
      return cw ? std::make_pair(sh - 1 - col, r) : std::make_pair(col, sw - 1 - r);
    });
    const std::string what =
        std::string(name) + " src " + qvt::ToString({sw, sh, c, spad}) + " dest pad " + std::to_string(dpad);
    ASSERT_EQ(f(src.ptr(), dst.ptr(), sw, sh, src.Stride, sh, sw, dst.Stride), STATUS_OK) << what;
    ASSERT_TRUE(qvt::SameBytes(expect.data, dst.data, dst.Stride)) << what;
  }
}

TEST(Turns, TransposeMatchesIndexModel) {
  for (int c : {1, 3, 4})
    for (int sw : kSides)
      for (int sh : kSides)
        for (auto [spad, dpad] : Pads(c, sw, sh)) {
          auto src = qvt::MakeImage(sw, sh, c, spad);
          auto dst = qvt::MakeImage(sh, sw, c, dpad);
          const auto expect = IndexModel(src, dst, [](int r, int col) { return std::make_pair(col, r); });
          const std::string what = "src " + qvt::ToString({sw, sh, c, spad}) + " dest pad " + std::to_string(dpad);
          ASSERT_EQ(QV_Transpose(src.ptr(), dst.ptr(), sw, sh, src.Stride, sh, sw, dst.Stride), STATUS_OK) << what;
          ASSERT_TRUE(qvt::SameBytes(expect.data, dst.data, dst.Stride)) << what;
        }
  for (int c : {1, 3, 4})  // several groups of tiles, with partial ones at both edges
    for (auto [sw, sh] : {std::pair<int, int>{131, 77}, {64, 64}, {69, 130}}) {
      auto src = qvt::MakeImage(sw, sh, c);
      auto dst = qvt::MakeImage(sh, sw, c);
      const auto expect = IndexModel(src, dst, [](int r, int col) { return std::make_pair(col, r); });
      ASSERT_EQ(QV_Transpose(src.ptr(), dst.ptr(), sw, sh, src.Stride, sh, sw, dst.Stride), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(expect.data, dst.data, dst.Stride)) << sw << "x" << sh << " c " << c;
    }
}

TEST(Turns, QuarterTurnsMatchIndexModel) {
  for (int c : {1, 3, 4})
    for (int sw : kSides)
      for (int sh : kSides) {
        CheckQuarterTurn(QV_Rotate90, "Rotate90", true, c, sw, sh);
        CheckQuarterTurn(QV_Rotate270, "Rotate270", false, c, sw, sh);
      }
  for (int c : {1, 3, 4}) {  // a few large ones, many tiles
    CheckQuarterTurn(QV_Rotate90, "Rotate90", true, c, 131, 77);
    CheckQuarterTurn(QV_Rotate270, "Rotate270", false, c, 131, 77);
    CheckQuarterTurn(QV_Rotate270, "Rotate270", false, c, 77, 131);
  }
}

TEST(Turns, Rotate270OfSingleChannelTurnsByShape) {
  // Square or portrait: the clockwise turn; landscape: counter-clockwise.
  auto sq = qvt::MakeImage(10, 10, 1);
  auto a = sq, b = sq;
  ASSERT_EQ(QV_Rotate270(sq.ptr(), a.ptr(), 10, 10, 10, 10, 10, 10), STATUS_OK);
  ASSERT_EQ(QV_Rotate90(sq.ptr(), b.ptr(), 10, 10, 10, 10, 10, 10), STATUS_OK);
  EXPECT_TRUE(qvt::SameBytes(b.data, a.data));
  auto wide = qvt::MakeImage(11, 10, 1);
  auto d = qvt::MakeImage(10, 11, 1);
  ASSERT_EQ(QV_Rotate270(wide.ptr(), d.ptr(), 11, 10, 11, 10, 11, 10), STATUS_OK);
  EXPECT_EQ(d.at(0, 0, 0), wide.at(10, 0, 0));  // top-right corner goes to the top-left
  EXPECT_EQ(d.at(9, 10, 0), wide.at(0, 9, 0));  // bottom-left to the bottom-right
}

TEST(Turns, FourChannelTransposeTakesPitchesFromWidths) {
  // With padded rows the tiles step rows by 4 * width inside a tile and by
  // the strides between tiles, and the strips step source rows by
  // 4 * DestHeight: the model follows those addresses (tiles, then strips).
  for (int sw : {4, 5, 9, 12})
    for (int sh : {4, 7, 8})
      for (int spad : {0, 3})
        for (int dpad : {0, 2}) {
          auto src = qvt::MakeImage(sw, sh, 4, spad);
          auto dst = qvt::MakeImage(sh, sw, 4, dpad);
          auto expect = dst;
          const int w = sh, h = sw, tw = w / 4, th = h / 4;
          auto copy = [&](size_t s, size_t d) {
            for (int k = 0; k < 4; ++k) expect.data[d + k] = src.data[s + k];
          };
          for (int ty = 0; ty < th; ++ty)
            for (int tx = 0; tx < tw; ++tx)
              for (int i = 0; i < 4; ++i)
                for (int j = 0; j < 4; ++j)  // dest row i, column j of the tile
                  copy(size_t(tx) * 4 * src.Stride + size_t(j) * 4 * sw + (ty * 4 + i) * 4,
                       size_t(ty) * 4 * dst.Stride + size_t(i) * 4 * w + (tx * 4 + j) * 4);
          for (int r = 0; r < h; ++r)
            for (int col = (r < th * 4 ? tw * 4 : 0); col < w; ++col)
              copy(size_t(col) * 4 * h + r * 4, size_t(r) * dst.Stride + col * 4);
          ASSERT_EQ(QV_Transpose(src.ptr(), dst.ptr(), sw, sh, src.Stride, w, h, dst.Stride), STATUS_OK);
          ASSERT_TRUE(qvt::SameBytes(expect.data, dst.data, dst.Stride)) << sw << "x" << sh << " " << spad << dpad;
        }
}

TEST(Turns, TransposeIsDrivenByDestSizesOnly) {
  // SrcHeight is never read: a wrong value changes nothing.
  auto src = qvt::MakeImage(13, 9, 3);
  auto a = qvt::MakeImage(9, 13, 3), b = a;
  ASSERT_EQ(QV_Transpose(src.ptr(), a.ptr(), 13, 9, src.Stride, 9, 13, a.Stride), STATUS_OK);
  ASSERT_EQ(QV_Transpose(src.ptr(), b.ptr(), 13, -77, src.Stride, 9, 13, b.Stride), STATUS_OK);
  EXPECT_TRUE(qvt::SameBytes(a.data, b.data));
}

TEST(Turns, HalfTurnInAndOutOfPlace) {
  std::vector<int> widths(std::begin(kSides), std::end(kSides));
  widths.insert(widths.end(), {47, 63, 64, 65, 81});  // the 64-byte and 20-pixel steps of the row kernel
  for (int c : {1, 3, 4})
    for (int w : widths)
      for (int h : {1, 2, 3, 4, 7})
        for (int pad : {0, w > 3 ? 3 : 0}) {
          auto src = qvt::MakeImage(w, h, c, pad);
          auto dst = qvt::MakeImage(w, h, c, pad);
          const auto expect =
              IndexModel(src, dst, [&](int r, int col) { return std::make_pair(h - 1 - r, w - 1 - col); });
          const std::string what = qvt::ToString({w, h, c, pad});
          ASSERT_EQ(QV_Rotate180(src.ptr(), dst.ptr(), w, h, src.Stride, w, h, dst.Stride), STATUS_OK) << what;
          ASSERT_TRUE(qvt::SameBytes(expect.data, dst.data, dst.Stride)) << what;
          auto inplace = src;
          const auto expect_in =
              IndexModel(src, src, [&](int r, int col) { return std::make_pair(h - 1 - r, w - 1 - col); });
          ASSERT_EQ(QV_Rotate180(inplace.ptr(), inplace.ptr(), w, h, src.Stride, w, h, src.Stride), STATUS_OK) << what;
          ASSERT_TRUE(qvt::SameBytes(expect_in.data, inplace.data, src.Stride)) << what << " in place";
        }
}

TEST(Turns, FlipsMatchIndexModel) {
  for (const auto& s : qvt::TailShapes({1, 3, 4}, 4)) {
    auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    const int w = s.Width, h = s.Height;
    // Left-right: pixels of each row reversed, Dest's padding left alone.
    auto expect = IndexModel(src, dst, [&](int r, int c) { return std::make_pair(r, w - 1 - c); });
    ASSERT_EQ(QV_FlipLeftRight(src.ptr(), dst.ptr(), w, h, src.Stride), STATUS_OK) << qvt::ToString(s);
    ASSERT_TRUE(qvt::SameBytes(expect.data, dst.data, src.Stride)) << qvt::ToString(s);
    auto inplace = src;
    expect = IndexModel(src, src, [&](int r, int c) { return std::make_pair(r, w - 1 - c); });
    ASSERT_EQ(QV_FlipLeftRight(inplace.ptr(), inplace.ptr(), w, h, src.Stride), STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(expect.data, inplace.data, src.Stride)) << qvt::ToString(s) << " in place";
    // Top-bottom moves whole strides, padding included, in and out of place.
    qvt::Bytes rows(src.data.size());
    for (int y = 0; y < h; ++y)
      std::copy_n(src.data.begin() + size_t(h - 1 - y) * src.Stride, src.Stride, rows.begin() + size_t(y) * src.Stride);
    ASSERT_EQ(QV_FlipTopBottom(src.ptr(), dst.ptr(), w, h, src.Stride), STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(rows, dst.data, src.Stride)) << qvt::ToString(s);
    inplace = src;
    ASSERT_EQ(QV_FlipTopBottom(inplace.ptr(), inplace.ptr(), w, h, src.Stride), STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(rows, inplace.data, src.Stride)) << qvt::ToString(s) << " in place";
  }
}

TEST(Turns, FramesAsTables) {
  unsigned char buf[256] = {5};
  struct Case {
    const char* what;
    Turn f;
    const unsigned char* src;
    unsigned char* dst;
    int sw, sh, ss, dw, dh, ds, expect;
  } cases[] = {
      {"90 null dest", QV_Rotate90, buf, nullptr, 4, 4, 4, 4, 4, 4, STATUS_NULL_REFERENCE},
      {"90 null before sizes", QV_Rotate90, nullptr, buf, 4, 4, 4, 5, 4, 4, STATUS_NULL_REFERENCE},
      {"90 sizes before channel", QV_Rotate90, buf, buf + 128, 4, 3, 8, 4, 3, 8, STATUS_INVALID_PARAMETER},
      {"90 channel 2", QV_Rotate90, buf, buf + 128, 4, 3, 8, 3, 4, 6, STATUS_NOT_SUPPORTED},
      {"270 unfit sizes", QV_Rotate270, buf, buf + 128, 4, 3, 4, 4, 3, 4, STATUS_INVALID_PARAMETER},
      {"270 channel 5", QV_Rotate270, buf, buf + 128, 2, 3, 10, 3, 2, 10, STATUS_NOT_SUPPORTED},
      {"180 unfit sizes", QV_Rotate180, buf, buf + 128, 4, 3, 4, 3, 4, 4, STATUS_INVALID_PARAMETER},
      {"180 channel 2", QV_Rotate180, buf, buf + 128, 4, 3, 8, 4, 3, 8, STATUS_NOT_SUPPORTED},
      {"180 height 0 is a success", QV_Rotate180, buf, buf + 128, 4, 0, 4, 4, 0, 4, STATUS_OK},
      {"transpose null", QV_Transpose, nullptr, buf, 4, 4, 4, 4, 4, 4, STATUS_NULL_REFERENCE},
      {"transpose channel 2, sizes unread", QV_Transpose, buf, buf + 128, 4, 3, 8, 9, 9, 8, STATUS_NOT_SUPPORTED},
      {"transpose channel 0", QV_Transpose, buf, buf + 128, 4, 3, 3, 3, 4, 3, STATUS_NOT_SUPPORTED},
  };
  for (auto& c : cases) {
    unsigned char before[256];
    std::copy(buf, buf + 256, before);
    EXPECT_EQ(c.f(c.src, c.dst, c.sw, c.sh, c.ss, c.dw, c.dh, c.ds), c.expect) << c.what;
    EXPECT_TRUE(std::equal(buf, buf + 256, before)) << c.what << ": Dest touched";
  }
  using Flip = int (*)(const unsigned char*, unsigned char*, int, int, int);
  for (Flip f : {QV_FlipLeftRight, QV_FlipTopBottom}) {
    EXPECT_EQ(f(nullptr, buf, 3, 0, 9), STATUS_NULL_REFERENCE);
    EXPECT_EQ(f(buf, nullptr, 3, 1, 9), STATUS_NULL_REFERENCE);
    EXPECT_EQ(f(buf, buf, 3, 0, 9), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(f(buf, buf, 4, 3, 8), STATUS_INVALID_PARAMETER);  // channel 2: 1 here, 5 in the turns
  }
}

TEST(Turns, InPlaceFlipsReportExhaustedMemory) {
  auto im = qvt::MakeImage(21, 5, 3);
  const auto before = im.data;
  EXPECT_EQ(
      qvt::CheckEveryAllocationFailure([&] { return QV_FlipLeftRight(im.ptr(), im.ptr(), 21, 5, 63); },
                                       STATUS_OUT_OF_MEMORY, [&] { EXPECT_TRUE(qvt::SameBytes(before, im.data)); }),
      1);
  im.data = before;
  EXPECT_EQ(
      qvt::CheckEveryAllocationFailure([&] { return QV_FlipTopBottom(im.ptr(), im.ptr(), 21, 5, 63); },
                                       STATUS_OUT_OF_MEMORY, [&] { EXPECT_TRUE(qvt::SameBytes(before, im.data)); }),
      1);
  auto out = im;
  qvt::AllocHook none;
  EXPECT_EQ(QV_FlipLeftRight(im.ptr(), out.ptr(), 21, 5, 63), STATUS_OK);
  EXPECT_EQ(QV_FlipTopBottom(im.ptr(), out.ptr(), 21, 5, 63), STATUS_OK);
  EXPECT_EQ(none.Requests(), 0);  // out of place allocates nothing
}

TEST(TurnsDeathTest, ZeroWidthFaults) {
  unsigned char buf[16] = {};
  volatile int w = 0;
  EXPECT_EXIT(QV_Transpose(nullptr, buf, w, 0, 4, 0, 0, 4), ::testing::KilledBySignal(SIGFPE), "");
  EXPECT_EXIT(QV_Rotate90(nullptr, buf, w, 0, 4, 0, 0, 4), ::testing::KilledBySignal(SIGFPE), "");
  EXPECT_EXIT(QV_Rotate180(nullptr, buf, w, 0, 4, 0, 0, 4), ::testing::KilledBySignal(SIGFPE), "");
  EXPECT_EXIT(QV_Rotate270(nullptr, buf, w, 0, 4, 0, 0, 4), ::testing::KilledBySignal(SIGFPE), "");
  EXPECT_EXIT(QV_FlipLeftRight(nullptr, buf, w, 0, 4), ::testing::KilledBySignal(SIGFPE), "");
  EXPECT_EXIT(QV_FlipTopBottom(nullptr, buf, w, 0, 4), ::testing::KilledBySignal(SIGFPE), "");
}

}  // namespace
