// Exponential blur against a scalar model of its fixed-point steps: the row
// half (16-row groups restart at the turn, remaining rows carry the fraction),
// the column half with its tail reading Dest, and the composed export.
#include "smooth/expblur.h"

#include <cmath>
#include <csignal>

#include "support/support.h"

namespace {

int ModelAlpha(int Radius) {
  const double a = (1.0 - std::exp(-2.3 / (Radius + 1.0))) * 65536.0;
  const int alpha = static_cast<int>(a);
  return alpha > 32768 ? 32767 : alpha;
}

int ModelStep(int A, int X, int Alpha) {
  const long long p = static_cast<long long>(X * 128 - A) * Alpha;
  return A + static_cast<int>(std::floor(static_cast<double>(p) / 65536.0));
}

qvt::Bytes RowsModel(const qvt::Image& src, int Radius) {
  const int alpha = ModelAlpha(Radius), W = src.Width, C = src.Channel;
  qvt::Bytes out = src.data;
  for (int y = 0; y < src.Height; ++y) {
    // Single-channel rows past the last full group of 16 keep A over the turn.
    const bool carry = C == 1 && y >= (src.Height / 16) * 16;
    for (int c = 0; c < C; ++c) {
      auto px = [&](int x) -> unsigned char& { return out[size_t(y) * src.Stride + size_t(x) * C + c]; };
      int a = px(0) << 7;
      for (int x = 0; x < W; ++x) {
        a = ModelStep(a, px(x), alpha);
        px(x) = static_cast<unsigned char>(a >> 7);
      }
      if (!carry) a = px(W - 1) << 7;
      for (int x = W - 1; x >= 0; --x) {
        a = ModelStep(a, px(x), alpha);
        px(x) = static_cast<unsigned char>(a >> 7);
      }
    }
  }
  return out;
}

// Columns from src into dst (dst holds what it held before the call).
qvt::Bytes ColumnsModel(const qvt::Bytes& src, qvt::Bytes dst, const qvt::Image& shape, int Radius) {
  const int alpha = ModelAlpha(Radius), n = shape.Width * shape.Channel, H = shape.Height, S = shape.Stride;
  const int block_end = (n / 16) * 16;
  std::vector<int> a(n);
  for (int j = 0; j < n; ++j) a[j] = src[j] << 7;
  for (int i = 0; i < 2 * H; ++i) {
    const int y = i < H ? i : 2 * H - 1 - i;
    for (int j = 0; j < n; ++j) {
      const size_t k = size_t(y) * S + j;
      const int in = (i < H && j < block_end) ? src[k] : dst[k];
      a[j] = ModelStep(a[j], in, alpha);
      dst[k] = static_cast<unsigned char>(a[j] >> 7);
    }
  }
  return dst;
}

std::vector<qvt::Shape> ExpShapes() {
  std::vector<qvt::Shape> out;
  for (int c : {1, 3, 4}) {
    for (int w = 1; w <= 40; ++w)
      for (int h : {1, 3, 4, 5, 16, 17, 35}) {
        out.push_back({w, h, c, 0});
        if (w > 3) out.push_back({w, h, c, (w + h) % 3 + 1});
      }
    for (int w : {63, 64, 65, 255, 333})
      for (int h : {2, 16, 19}) out.push_back({w, h, c, w % 3});
  }
  return out;
}

TEST(ExpBlur, AlphaTable) {
  const int radius[] = {1, 2, 3, 5, 10, 100};
  const int alpha[] = {32767, 32767, 28658, 20867, 12365, 1475};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(qv::ExpBlurAlpha(radius[i]), alpha[i]) << radius[i];
  EXPECT_GT(qv::ExpBlurAlpha(150730), 0);
  EXPECT_EQ(qv::ExpBlurAlpha(150731), 0);
}

TEST(ExpBlur, HalvesAndExportMatchModel) {
  for (const auto& s : ExpShapes())
    for (int radius : {1, 3, 40}) {
      auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      const auto rows = RowsModel(src, radius);
      auto got = dst;
      ASSERT_EQ(qv::ExpBlurRows(src.ptr(), got.ptr(), s.Width, s.Height, src.Stride, radius), STATUS_OK);
      // The padding keeps what Dest held.
      auto expect = rows;
      for (int y = 0; y < s.Height; ++y)
        for (int p = s.Width * s.Channel; p < src.Stride; ++p)
          expect[size_t(y) * src.Stride + p] = dst.data[size_t(y) * src.Stride + p];
      ASSERT_TRUE(qvt::SameBytes(expect, got.data, src.Stride)) << "rows " << qvt::ToString(s) << " r=" << radius;

      // Columns from a separate Src: the tail samples read the old Dest.
      got = dst;
      ASSERT_EQ(qv::ExpBlurColumns(src.ptr(), got.ptr(), s.Width, s.Height, src.Stride, radius), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(ColumnsModel(src.data, dst.data, src, radius), got.data, src.Stride))
          << "columns " << qvt::ToString(s) << " r=" << radius;

      // The export is rows into Dest, then columns in place; Src may be Dest.
      got = dst;
      ASSERT_EQ(QV_ExpBlur(src.ptr(), got.ptr(), s.Width, s.Height, src.Stride, radius), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(ColumnsModel(expect, expect, src, radius), got.data, src.Stride))
          << "export " << qvt::ToString(s) << " r=" << radius;
      auto in_place = src;
      ASSERT_EQ(QV_ExpBlur(in_place.ptr(), in_place.ptr(), s.Width, s.Height, src.Stride, radius), STATUS_OK);
      for (int y = 0; y < s.Height; ++y)
        for (int p = 0; p < s.Width * s.Channel; ++p)
          ASSERT_EQ(in_place.data[size_t(y) * src.Stride + p], got.data[size_t(y) * src.Stride + p])
              << qvt::ToString(s);
    }
}

// Taller images: single-channel groups of sixteen rows run in pairs, an odd
// group alone, and the rows past the last group by themselves.
TEST(ExpBlur, TallImagesMatchModel) {
  for (int c : {1, 3, 4})
    for (int w : {1, 16, 17, 70})
      for (int h : {48, 50, 64, 81}) {
        auto src = qvt::MakeImage(w, h, c, 0);
        auto got = src;
        ASSERT_EQ(qv::ExpBlurRows(src.ptr(), got.ptr(), w, h, src.Stride, 2), STATUS_OK);
        ASSERT_TRUE(qvt::SameBytes(RowsModel(src, 2), got.data)) << w << "x" << h << "x" << c;
      }
}

// Row 16 of a 17-row image runs alone and keeps its fraction at the turn,
// so it ends a level above the identical rows that ran in a group of 16.
TEST(ExpBlur, RowsPastTheGroupCarryTheFraction) {
  const unsigned char row[8] = {45, 45, 45, 45, 45, 0, 0, 0};
  const unsigned char grouped[8] = {44, 43, 41, 37, 29, 14, 7, 5};
  const unsigned char alone[8] = {44, 43, 41, 37, 30, 15, 8, 5};
  qvt::Bytes src(8 * 17), dst(8 * 17);
  for (int y = 0; y < 17; ++y) std::copy(row, row + 8, src.begin() + 8 * y);
  ASSERT_EQ(qv::ExpBlurRows(src.data(), dst.data(), 8, 17, 8, 2), STATUS_OK);
  for (int y = 0; y < 17; ++y)
    for (int x = 0; x < 8; ++x) EXPECT_EQ(dst[8 * y + x], y < 16 ? grouped[x] : alone[x]) << x << "," << y;
}

TEST(ExpBlur, FlatStaysFlat) {
  for (int c : {1, 3, 4})
    for (int v : {0, 1, 128, 254, 255}) {
      auto im = qvt::MakeImage(37, 21, c, 0, false);
      std::fill(im.data.begin(), im.data.end(), static_cast<unsigned char>(v));
      auto out = im;
      ASSERT_EQ(QV_ExpBlur(im.ptr(), out.ptr(), 37, 21, im.Stride, 9), STATUS_OK);
      EXPECT_TRUE(qvt::SameBytes(im.data, out.data)) << "c=" << c << " v=" << v;
    }
}

// The floor lets A fall all the way but stops it rising a fraction short:
// with Radius 100 a long run of 255 after a dark start settles at 254.
TEST(ExpBlur, FloorLeansDark) {
  auto im = qvt::MakeImage(1000, 1, 1, 0, false);
  std::fill(im.data.begin() + 10, im.data.end(), 255);
  auto out = im;
  ASSERT_EQ(qv::ExpBlurRows(im.ptr(), out.ptr(), 1000, 1, 1000, 100), STATUS_OK);
  EXPECT_EQ(out.data[500], 254);
  std::fill(im.data.begin(), im.data.end(), 255);
  std::fill(im.data.begin() + 10, im.data.end(), 0);
  ASSERT_EQ(qv::ExpBlurRows(im.ptr(), out.ptr(), 1000, 1, 1000, 100), STATUS_OK);
  EXPECT_EQ(out.data[500], 0);
}

// Alpha 0: every sweep holds its start, so the image takes its top-left pixel.
TEST(ExpBlur, HugeRadiusCopiesTopLeft) {
  for (int c : {1, 3, 4}) {
    auto src = qvt::MakeImage(23, 19, c, 1);
    auto dst = src;
    ASSERT_EQ(QV_ExpBlur(src.ptr(), dst.ptr(), 23, 19, src.Stride, 150731), STATUS_OK);
    for (int y = 0; y < 19; ++y)
      for (int x = 0; x < 23; ++x)
        for (int k = 0; k < c; ++k) ASSERT_EQ(dst.at(x, y, k), src.at(0, 0, k)) << x << "," << y;
  }
}

TEST(ExpBlur, FrameOrder) {
  using Fn = int (*)(const unsigned char*, unsigned char*, int, int, int, int);
  const Fn fns[] = {qv::ExpBlurRows, qv::ExpBlurColumns, QV_ExpBlur};
  unsigned char buf[64];
  struct Case {
    const char* what;
    bool null_src, null_dst;
    int w, h, stride, radius, expect;
  } cases[] = {
      {"null src before sizes", true, false, 3, 0, 9, 1, STATUS_NULL_REFERENCE},
      {"null dest before sizes", false, true, 3, 0, 9, 0, STATUS_NULL_REFERENCE},
      {"height 0", false, false, 3, 0, 9, 1, STATUS_INVALID_PARAMETER},
      {"width negative", false, false, -3, 1, -9, 1, STATUS_INVALID_PARAMETER},
      {"radius 0", false, false, 3, 2, 9, 0, STATUS_INVALID_PARAMETER},
      {"radius before channel", false, false, 4, 2, 8, 0, STATUS_INVALID_PARAMETER},
      {"channel 2", false, false, 4, 2, 8, 1, STATUS_NOT_SUPPORTED},
      {"channel 0", false, false, 4, 1, 3, 1, STATUS_NOT_SUPPORTED},
      {"channel 5", false, false, 3, 1, 15, 1, STATUS_NOT_SUPPORTED},
  };
  for (Fn fn : fns)
    for (auto& c : cases) {
      qvt::Bytes src(64, 9);
      std::fill(buf, buf + 64, 77);
      EXPECT_EQ(fn(c.null_src ? nullptr : src.data(), c.null_dst ? nullptr : buf, c.w, c.h, c.stride, c.radius),
                c.expect)
          << c.what;
      EXPECT_TRUE(std::all_of(buf, buf + 64, [](unsigned char v) { return v == 77; })) << c.what << ": Dest touched";
    }
}

TEST(ExpBlurDeathTest, ZeroWidthFaults) {
  unsigned char buf[16] = {};
  volatile int w = 0;
  EXPECT_EXIT(QV_ExpBlur(nullptr, buf, w, 0, 4, 1), ::testing::KilledBySignal(SIGFPE), "");
  EXPECT_EXIT(qv::ExpBlurColumns(nullptr, buf, w, 0, 4, 1), ::testing::KilledBySignal(SIGFPE), "");
}

TEST(ExpBlur, AllocationFailures) {
  auto src = qvt::MakeImage(45, 18, 3, 2);
  const auto before = qvt::MakeImage(45, 18, 3, 2);
  auto dst = before;
  for (auto fn : {qv::ExpBlurRows, qv::ExpBlurColumns}) {
    const int n = qvt::CheckEveryAllocationFailure(
        [&] { return fn(src.ptr(), dst.ptr(), 45, 18, src.Stride, 4); }, STATUS_OUT_OF_MEMORY,
        [&] { EXPECT_TRUE(qvt::SameBytes(before.data, dst.data)) << "Dest touched"; });
    EXPECT_EQ(n, 1);
    dst = before;
  }
  // A failing column half leaves the finished row half in Dest.
  auto rows = before;
  ASSERT_EQ(qv::ExpBlurRows(src.ptr(), rows.ptr(), 45, 18, src.Stride, 4), STATUS_OK);
  qvt::AllocHook hook(2);
  EXPECT_EQ(QV_ExpBlur(src.ptr(), dst.ptr(), 45, 18, src.Stride, 4), STATUS_OUT_OF_MEMORY);
  EXPECT_TRUE(qvt::SameBytes(rows.data, dst.data));
  EXPECT_EQ(hook.Live(), 0);
}

}  // namespace
