// Resampling against scalar models of each engine's fixed-point arithmetic
// (nearest table and row repeats, bilinear 15-bit positions with the tail's
// byte wrap, bicubic 16-bit positions with clamped taps); frame and memory.
#include <csignal>
#include <cstring>

#include "support/support.h"

namespace {

using qvt::Image;

qvt::Bytes NearestModel(const Image& src, const Image& dst) {
  qvt::Bytes out = dst.data;
  const int c = src.Channel, dw = dst.Width;
  int last = -1;
  for (int y = 0; y < dst.Height; ++y) {
    int sy = static_cast<int>((y + 0.5) * src.Height / dst.Height);
    sy = std::min(std::max(sy, 0), src.Height - 1);
    unsigned char* d = &out[size_t(y) * dst.Stride];
    if (sy == last) {
      const size_t back = c == 3 ? dst.Stride : size_t(c) * dw;  // packed for 1 and 4 channels
      std::memmove(d, d - back, dst.Stride);
      continue;
    }
    last = sy;
    for (int x = 0; x < dw; ++x) {
      int sx = static_cast<int>((x + 0.5) * src.Width / dw);
      sx = std::min(std::max(sx, 0), src.Width - 1);
      for (int k = 0; k < c; ++k) d[x * c + k] = src.at(sx, sy, k);
    }
  }
  return out;
}

qvt::Bytes BilinearModel(const Image& src, const Image& dst) {
  qvt::Bytes out = dst.data;
  const int sw = src.Width, sh = src.Height, dw = dst.Width, c = src.Channel;
  const int sx = int((int64_t(sw) << 15) / dw), sy = int((int64_t(sh) << 15) / dst.Height);
  const int px0 = (sx >> 1) - 16384, py0 = (sy >> 1) - 16384;
  int first = -1, lastx = dw;
  for (int x = 0; x < dw; ++x) {
    const int px = px0 + x * sx;
    if (first < 0 && px >= 0) first = x;
    if (lastx == dw && (px >> 15) >= sw - 1) lastx = x;
  }
  if (first < 0) first = dw;
  for (int y = 0; y < dst.Height; ++y) {
    const int py = py0 + y * sy, wy = (py >> 7) & 255;
    const int ty = std::min(std::max(py >> 15, 0), sh - 1), by = std::min(std::max((py >> 15) + 1, 0), sh - 1);
    for (int x = 0; x < dw; ++x) {
      const int px = px0 + x * sx, wx = (px >> 8) & 127;
      const int l = x < first ? 0 : (x >= lastx ? sw - 1 : px >> 15);
      const int r = x < first ? 0 : (x >= lastx ? sw - 1 : (px >> 15) + 1);
      for (int k = 0; k < c; ++k) {
        const int top = src.at(l, ty, k) * (128 - wx) + src.at(r, ty, k) * wx;
        const int bot = src.at(l, by, k) * (128 - wx) + src.at(r, by, k) * wx;
        const int v = ((top * (256 - wy) + 16384) >> 15) + ((bot * wy + 16384) >> 15);
        // The 8-pixel blocks saturate; the last DestWidth mod 8 wrap in a byte.
        out[size_t(y) * dst.Stride + x * c + k] = static_cast<unsigned char>(x < dw / 8 * 8 ? std::min(v, 255) : v);
      }
    }
  }
  return out;
}

int Kernel(int i) {
  const double t = i / 256.0;
  const double v = t <= 1 ? t * t * t - 2 * t * t + 1 : -t * t * t + 5 * t * t - 8 * t + 4;
  return static_cast<int>(256 * v + 0.5);
}

qvt::Bytes BicubicModel(const Image& src, const Image& dst) {
  qvt::Bytes out = dst.data;
  const int sw = src.Width, sh = src.Height, c = src.Channel;
  const int sx = (sw << 16) / dst.Width, sy = (sh << 16) / dst.Height;
  const int px0 = (sx >> 1) - 32768, py0 = (sy >> 1) - 32768;
  auto taps = [](int p, int* w) {
    const int f = (p >> 8) & 255;
    w[0] = Kernel(256 + f), w[1] = Kernel(f), w[2] = Kernel(256 - f), w[3] = Kernel(512 - f);
  };
  for (int y = 0; y < dst.Height; ++y)
    for (int x = 0; x < dst.Width; ++x) {
      const int px = px0 + x * sx, py = py0 + y * sy;
      int wx[4], wy[4];
      taps(px, wx);
      taps(py, wy);
      for (int k = 0; k < c; ++k) {
        int sum = 0;
        for (int j = 0; j < 4; ++j) {
          const int yy = std::min(std::max((py >> 16) - 1 + j, 0), sh - 1);
          int row = 0;
          for (int i = 0; i < 4; ++i) row += wx[i] * src.at(std::min(std::max((px >> 16) - 1 + i, 0), sw - 1), yy, k);
          sum += row * wy[j];
        }
        out[size_t(y) * dst.Stride + x * c + k] = static_cast<unsigned char>(std::min(std::max(sum >> 16, 0), 255));
      }
    }
  return out;
}

const int kSizes[] = {1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 23, 31, 40};

TEST(Resample, EnginesMatchTheirModels) {
  using Model = qvt::Bytes (*)(const Image&, const Image&);
  const Model models[] = {NearestModel, BilinearModel, BicubicModel};
  for (int mode = 0; mode < 3; ++mode)
    for (int c : {1, 3, 4})
      for (int sw : kSizes)
        for (int dw : kSizes) {
          if (sw == dw) continue;
          const int sh = 1 + (sw * 3 + dw) % 9, dh = 1 + (dw * 5 + sw) % 11;
          // Padded destinations only for 3 channels, where the repeat honours them.
          const int spad = sw > 3 ? sw % 3 : 0, dpad = (c == 3 && dw > 3) ? 1 : 0;
          auto src = qvt::MakeNaturalImage(sw, sh, c, spad, sw + dw);
          qvt::FillRandom(src.data);
          auto dst = qvt::MakeImage(dw, dh, c, dpad);
          const auto expect = models[mode](src, dst);
          const std::string what = "mode " + std::to_string(mode) + " src " + qvt::ToString({sw, sh, c, spad}) +
                                   " dest " + qvt::ToString({dw, dh, c, dpad});
          ASSERT_EQ(QV_Resample(src.ptr(), dst.ptr(), sw, sh, src.Stride, dw, dh, dst.Stride, mode), STATUS_OK) << what;
          ASSERT_TRUE(qvt::SameBytes(expect, dst.data, dst.Stride)) << what;
        }
}

TEST(Resample, LargerScalesMatchTheirModels) {
  for (int mode = 0; mode < 3; ++mode)
    for (int c : {1, 3, 4})
      for (auto [sw, sh, dw, dh] : {std::array<int, 4>{64, 48, 128, 96}, {64, 48, 32, 24}, {101, 37, 47, 83}}) {
        auto src = qvt::MakeNaturalImage(sw, sh, c);
        auto dst = qvt::MakeImage(dw, dh, c);
        const auto expect = mode == 0   ? NearestModel(src, dst)
                            : mode == 1 ? BilinearModel(src, dst)
                                        : BicubicModel(src, dst);
        ASSERT_EQ(QV_Resample(src.ptr(), dst.ptr(), sw, sh, src.Stride, dw, dh, dst.Stride, mode), STATUS_OK);
        ASSERT_TRUE(qvt::SameBytes(expect, dst.data, dst.Stride)) << mode << " " << c << " " << sw << "->" << dw;
      }
}

TEST(Resample, BilinearExactHalvingMatchesModel) {
  // SrcWidth = 2 * DestWidth takes its own blocks: widths around the 8-pixel
  // block and the 16-sample pairs of blocks, rows halved exactly or not, and
  // an all-white source, whose last DestWidth mod 8 columns wrap to 0 when
  // wy is 128.
  std::vector<int> widths;
  for (int w = 1; w <= 40; ++w) widths.push_back(w);
  for (int w : {63, 64, 65, 127, 129}) widths.push_back(w);
  const std::array<int, 2> heights[] = {{2, 1}, {6, 3}, {8, 4}, {7, 3}, {3, 5}, {4, 4}};
  for (int c : {1, 3, 4})
    for (int dw : widths)
      for (auto [sh, dh] : heights)
        for (bool white : {false, true}) {
          const int sw = 2 * dw, spad = sw > 3 ? (dw + sh) % 3 : 0, dpad = dw > 3 ? dh % 3 : 0;
          auto src = qvt::MakeNaturalImage(sw, sh, c, spad, dw + sh);
          if (white) std::fill(src.data.begin(), src.data.end(), 255);
          auto dst = qvt::MakeImage(dw, dh, c, dpad);
          const auto expect = BilinearModel(src, dst);
          const std::string what = "src " + qvt::ToString({sw, sh, c, spad}) + " dest " +
                                   qvt::ToString({dw, dh, c, dpad}) + (white ? " white" : "");
          ASSERT_EQ(QV_Resample(src.ptr(), dst.ptr(), sw, sh, src.Stride, dw, dh, dst.Stride, 1), STATUS_OK) << what;
          ASSERT_TRUE(qvt::SameBytes(expect, dst.data, dst.Stride)) << what;
        }
}

TEST(Resample, BilinearScalesAroundTheGathers) {
  // Single-channel rows gather 8 columns by one shuffle where their pairs fit
  // in 16 bytes: scales just under and over a half, and milder ones, over
  // widths around the groups of 8; the other channel counts ride along.
  for (int c : {1, 3, 4})
    for (int dw : {8, 9, 15, 16, 17, 24, 31, 33, 47, 64, 65})
      for (int sw : {2 * dw - 1, 2 * dw + 1, 3 * dw / 2, dw + 1, dw - 1, dw / 2 + 1, dw / 3 + 1}) {
        const int sh = 1 + (sw + dw) % 5, dh = 1 + (3 * sw + dw) % 7, spad = sw > 3 ? sw % 3 : 0;
        auto src = qvt::MakeNaturalImage(sw, sh, c, spad, sw * dw);
        qvt::FillRandom(src.data);
        auto dst = qvt::MakeImage(dw, dh, c, dw % 2);
        const auto expect = BilinearModel(src, dst);
        const std::string what =
            "src " + qvt::ToString({sw, sh, c, spad}) + " dest " + qvt::ToString({dw, dh, c, dw % 2});
        ASSERT_EQ(QV_Resample(src.ptr(), dst.ptr(), sw, sh, src.Stride, dw, dh, dst.Stride, 1), STATUS_OK) << what;
        ASSERT_TRUE(qvt::SameBytes(expect, dst.data, dst.Stride)) << what;
      }
}

TEST(Resample, BicubicKernelEntries) {
  // Truncation towards zero: the negative lobe is not rounded as the positive.
  EXPECT_EQ(Kernel(0), 256);
  EXPECT_EQ(Kernel(128), 160);
  EXPECT_EQ(Kernel(256), 0);
  EXPECT_EQ(Kernel(384), -31);
  EXPECT_EQ(Kernel(512), 0);
}

TEST(Resample, BilinearShrinkOfWhiteBlackensTheTail) {
  auto src = qvt::MakeImage(20, 20, 3, 0, false);
  std::fill(src.data.begin(), src.data.end(), 255);
  auto dst = qvt::MakeImage(10, 10, 3);
  ASSERT_EQ(QV_Resample(src.ptr(), dst.ptr(), 20, 20, 60, 10, 10, 30, 1), STATUS_OK);
  for (int y = 0; y < 10; ++y)
    for (int x = 0; x < 10; ++x)
      for (int c = 0; c < 3; ++c) ASSERT_EQ(dst.at(x, y, c), x < 8 ? 255 : 0) << x << "," << y;
}

TEST(Resample, NearestRepeatsFromPackedPlaceForOneChannel) {
  // Enlarging 1 channel 3x1 to 4x2 with DestStride 6: row 1 repeats 6 bytes
  // starting 4 bytes back (DestWidth), not from row 0's start.
  unsigned char src[3] = {10, 20, 30};
  unsigned char dst[12];
  std::memset(dst, 99, sizeof dst);
  ASSERT_EQ(QV_Resample(src, dst, 3, 1, 3, 4, 2, 6, 0), STATUS_OK);
  const unsigned char row0[6] = {10, 20, 20, 30, 99, 99};
  EXPECT_TRUE(std::equal(row0, row0 + 6, dst));
  const unsigned char row1[6] = {20, 30, 99, 99, 99, 99};  // bytes 2..7 moved to 6..11
  EXPECT_TRUE(std::equal(row1, row1 + 6, dst + 6));
  // From a width of 1, every row is one value.
  unsigned char one[2] = {7, 9}, wide[2 * 13];
  ASSERT_EQ(QV_Resample(one, wide, 1, 2, 1, 13, 2, 13, 0), STATUS_OK);
  for (int i = 0; i < 26; ++i) EXPECT_EQ(wide[i], i < 13 ? 7 : 9);
}

TEST(Resample, BicubicOvershootIsClamped) {
  // A step edge enlarged: the overshoot is clamped on the rim and inside.
  for (int sw : {2, 12}) {  // 2 by 2 has no interior at all
    auto src = qvt::MakeImage(sw, sw, 1, 0, false);
    for (int y = 0; y < sw; ++y)
      for (int x = sw / 2; x < sw; ++x) src.at(x, y, 0) = 255;
    auto dst = qvt::MakeImage(3 * sw, 3 * sw, 1);
    ASSERT_EQ(QV_Resample(src.ptr(), dst.ptr(), sw, sw, sw, 3 * sw, 3 * sw, 3 * sw, 2), STATUS_OK);
    EXPECT_TRUE(qvt::SameBytes(BicubicModel(src, dst), dst.data));
    EXPECT_EQ(*std::min_element(dst.data.begin(), dst.data.end()), 0);
    EXPECT_EQ(*std::max_element(dst.data.begin(), dst.data.end()), 255);
  }
}

TEST(Resample, FrameAsTable) {
  unsigned char a[64], b[64];
  for (int i = 0; i < 64; ++i) a[i] = static_cast<unsigned char>(i), b[i] = 200;
  struct Case {
    const char* what;
    const unsigned char* src;
    unsigned char* dst;
    int sw, sh, ss, dw, dh, ds, mode, expect;
  } cases[] = {
      {"null before sizes", nullptr, b, 4, 0, 4, 2, 2, 2, 1, STATUS_NULL_REFERENCE},
      {"null dest", a, nullptr, 4, 1, 4, 2, 2, 2, 1, STATUS_NULL_REFERENCE},
      {"dest height 0", a, b, 4, 1, 4, 2, 0, 2, 1, STATUS_INVALID_PARAMETER},
      {"sizes before channel", a, b, 4, 0, 8, 2, 2, 4, 1, STATUS_INVALID_PARAMETER},
      {"channel 2 is 1", a, b, 4, 2, 8, 2, 2, 4, 1, STATUS_INVALID_PARAMETER},
      {"unknown mode, other size", a, b, 4, 2, 4, 2, 2, 2, 7, STATUS_OK},
      {"negative mode", a, b, 4, 2, 4, 2, 2, 2, -1, STATUS_OK},
  };
  for (auto& c : cases) {
    EXPECT_EQ(QV_Resample(c.src, c.dst, c.sw, c.sh, c.ss, c.dw, c.dh, c.ds, c.mode), c.expect) << c.what;
    EXPECT_TRUE(std::all_of(b, b + 64, [](unsigned char v) { return v == 200; })) << c.what << ": Dest touched";
  }
  // Equal sizes copy the rows whatever the mode, each side with its stride.
  ASSERT_EQ(QV_Resample(a, b, 3, 2, 5, 3, 2, 4, 7), STATUS_OK);
  const unsigned char expect[8] = {0, 1, 2, 200, 5, 6, 7, 200};
  EXPECT_TRUE(std::equal(expect, expect + 8, b));
}

TEST(Resample, ExhaustedMemoryByMode) {
  auto src = qvt::MakeImage(30, 20, 3);
  auto dst = qvt::MakeImage(17, 9, 3);
  const auto before = dst.data;
  auto untouched = [&] {
    EXPECT_TRUE(qvt::SameBytes(before, dst.data));
    dst.data = before;
  };
  auto call = [&](int mode) {
    return [&, mode] { return QV_Resample(src.ptr(), dst.ptr(), 30, 20, 90, 17, 9, 51, mode); };
  };
  EXPECT_EQ(qvt::CheckEveryAllocationFailure(call(0), STATUS_OUT_OF_MEMORY, untouched), 1);
  dst.data = before;
  EXPECT_EQ(qvt::CheckEveryAllocationFailure(call(1), STATUS_OUT_OF_MEMORY, untouched), 3);
  dst.data = before;
  EXPECT_EQ(qvt::CheckEveryAllocationFailure(call(2), STATUS_NULL_REFERENCE, untouched), 2);  // 3, not 2, here
}

TEST(ResampleDeathTest, ZeroWidthFaults) {
  unsigned char buf[16] = {};
  volatile int w = 0;
  EXPECT_EXIT(QV_Resample(nullptr, buf, w, 0, 4, 1, 1, 1, 0), ::testing::KilledBySignal(SIGFPE), "");
}

}  // namespace
