// Brightness, contrast and vibrance against models written from their
// definitions over every tail length, channel count and padded rows, the
// stated values, and the frames as tables.
#include "point/brightness.h"

#include "support/support.h"

namespace {

using qvt::Bytes;
using qvt::Image;

int64_t Clamp(int64_t v) { return v < 0 ? 0 : v > 255 ? 255 : v; }

uint64_t SampleSumModel(const Image& s) {
  uint64_t sum = 0;
  for (int y = 0; y < s.Height; ++y)
    for (int x = 0; x < s.Width; ++x)
      for (int c = 0; c < (s.Channel == 4 ? 3 : s.Channel); ++c) sum += s.at(x, y, c);
  return sum;
}

// The whole run, padding included; the fourth sample sits at run offset mod 4 = 3.
Bytes BrightnessContrastModel(const Image& s, int64_t B, int C) {
  const int64_t M = SampleSumModel(s) / (uint64_t(s.Channel == 4 ? 3 : s.Channel) * s.Width * s.Height);
  Bytes out(s.data.size());
  for (size_t i = 0; i < out.size(); ++i) {
    const int64_t v = s.data[i];
    if (s.Channel == 4 && i % 4 == 3) {
      out[i] = s.data[i];
    } else if (C < 0) {
      const int64_t k = static_cast<int>(C * 1.28f * 256);
      out[i] = Clamp(Clamp(v + (((v - M) * k + 16384) >> 15)) + B);
    } else if (C == 100) {
      out[i] = Clamp(v + B) >= M ? 255 : 0;
    } else {
      const int64_t c = 25600 / (100 - C) - 256, w = Clamp(v + B);
      out[i] = Clamp(w + (((w - M) * c + 128) >> 8));
    }
  }
  return out;
}

Bytes VibranceModel(const Image& s, const Bytes& dest, int amount) {
  amount = amount < -100 ? -100 : amount > 100 ? 100 : amount;
  const int k = static_cast<int>(-amount * 1.28f);
  Bytes out = dest;
  for (int y = 0; y < s.Height; ++y)
    for (int x = 0; x < s.Width; ++x) {
      const int b = s.at(x, y, 0), g = s.at(x, y, 1), r = s.at(x, y, 2);
      const int m = std::max({b, g, r}), t = (m - ((2 * g + r + b) >> 2)) * k;
      for (int c = 0; c < s.Channel; ++c) {
        const int v = s.at(x, y, c);
        out[size_t(y) * s.Stride + x * s.Channel + c] = c == 3 ? v : Clamp(v + (((m - v) * t) >> 14));
      }
    }
  return out;
}

TEST(ImageSampleSum, MatchesModelAndFrame) {
  for (const auto& sh : qvt::TailShapes({1, 3, 4})) {
    Image s = qvt::MakeImage(sh.Width, sh.Height, sh.Channel, sh.Pad);
    uint64_t sum = 0;
    ASSERT_EQ(qv::ImageSampleSum(s.ptr(), s.Width, s.Height, s.Stride, &sum), STATUS_OK);
    ASSERT_EQ(sum, SampleSumModel(s)) << qvt::ToString(sh);
  }
  unsigned char buf[16] = {};
  uint64_t sum;
  EXPECT_EQ(qv::ImageSampleSum(nullptr, 3, 0, 9, &sum), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::ImageSampleSum(buf, 3, 0, 9, &sum), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::ImageSampleSum(buf, 4, 1, 8, &sum), STATUS_NOT_SUPPORTED);
}

TEST(AdjustBrightnessAndContrast, MatchesModelOnEveryShape) {
  const int contrasts[] = {-100, -50, -37, -1, 0, 1, 50, 99, 100, 101, 150, 30000};
  const int brights[] = {0, 37, -90, 255, -255, 300, -1000, 2147483647, -2147483647 - 1};
  int n = 0;
  for (const auto& sh : qvt::TailShapes({1, 3, 4})) {
    Image s = qvt::MakeImage(sh.Width, sh.Height, sh.Channel, sh.Pad);
    for (int ci = 0; ci < 12; ++ci) {
      const int C = contrasts[ci], B = brights[(n++) % 9];
      Image d = qvt::MakeImage(sh.Width, sh.Height, sh.Channel, sh.Pad);
      ASSERT_EQ(QV_AdjustBrightnessAndContrast(s.ptr(), d.ptr(), s.Width, s.Height, s.Stride, B, C), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(BrightnessContrastModel(s, B, C), d.data, s.Stride))
          << qvt::ToString(sh) << " B " << B << " C " << C;
    }
    // In place, as QV_SoftGlow calls it.
    const Bytes expect = BrightnessContrastModel(s, -20, 40);
    ASSERT_EQ(QV_AdjustBrightnessAndContrast(s.ptr(), s.ptr(), s.Width, s.Height, s.Stride, -20, 40), STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(expect, s.data, s.Stride)) << qvt::ToString(sh) << " in place";
  }
}

TEST(AdjustBrightnessAndContrast, StatedValues) {
  // Contrast -50: the factor -50 * 1.28f * 256 is -16384 in single precision
  // (-16383 if the float constant were widened first). Samples 0 and 2 have
  // mean 1, and 0 goes to 0 + ((16384 + 16384) >> 15) = 1, in block and tail.
  unsigned char src[32], dst[32];
  for (int i = 0; i < 32; ++i) src[i] = i % 2 ? 2 : 0;
  ASSERT_EQ(QV_AdjustBrightnessAndContrast(src, dst, 32, 1, 32, 0, -50), STATUS_OK);
  for (int i = 0; i < 32; ++i) EXPECT_EQ(dst[i], i % 2 ? 2 : 1) << i;
  // Contrast 101 is not tested: c = 25600 / -1 - 256 = -25856. Mean 101:
  // 102 -> 102 + ((-25856 + 128) >> 8) = 1, and 100 -> 100 + 101 = 201.
  for (int i = 0; i < 32; ++i) src[i] = i % 2 ? 102 : 100;
  ASSERT_EQ(QV_AdjustBrightnessAndContrast(src, dst, 32, 1, 32, 0, 101), STATUS_OK);
  for (int i = 0; i < 32; ++i) EXPECT_EQ(dst[i], i % 2 ? 1 : 201) << i;
  // Brightness 0, Contrast 0 copies the image, with one channel its padding too.
  Image g = qvt::MakeImage(21, 3, 1, 3);
  Image out = qvt::MakeImage(21, 3, 1, 3);
  ASSERT_EQ(QV_AdjustBrightnessAndContrast(g.ptr(), out.ptr(), 21, 3, g.Stride, 0, 0), STATUS_OK);
  EXPECT_EQ(out.data, g.data);
  // Contrast -100 on a uniform image changes nothing.
  Image u = qvt::MakeImage(19, 2, 3, 0, false);
  std::fill(u.data.begin(), u.data.end(), 77);
  Image uout = qvt::MakeImage(19, 2, 3, 0);
  ASSERT_EQ(QV_AdjustBrightnessAndContrast(u.ptr(), uout.ptr(), 19, 2, u.Stride, 0, -100), STATUS_OK);
  EXPECT_EQ(uout.data, u.data);
  // Contrast 100: samples 0 and 255 only, but the fourth sample is copied.
  Image c4 = qvt::MakeImage(23, 2, 4, 0);
  Image t4 = c4;
  ASSERT_EQ(QV_AdjustBrightnessAndContrast(c4.ptr(), t4.ptr(), 23, 2, c4.Stride, 10, 100), STATUS_OK);
  for (size_t i = 0; i < t4.data.size(); ++i)
    if (i % 4 == 3)
      EXPECT_EQ(t4.data[i], c4.data[i]) << i;
    else
      EXPECT_TRUE(t4.data[i] == 0 || t4.data[i] == 255) << i;
}

TEST(AdjustBrightnessAndContrast, ContrastBelowRangeSplitsBlockAndTail) {
  // Contrast -200: k = -65536 leaves the 16-bit lanes. The block lanes take its
  // low 16 bits (0: samples pass), the tail all of it: t = v - 2 * (v - M).
  unsigned char src[20], dst[20];
  for (int i = 0; i < 20; ++i) src[i] = i % 2 ? 110 : 90;  // mean 100
  ASSERT_EQ(QV_AdjustBrightnessAndContrast(src, dst, 20, 1, 20, 0, -200), STATUS_OK);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(dst[i], i < 16 ? src[i] : i % 2 ? 90 : 110) << i;
  // The most negative factor stays defined in the tail: every sample clamps.
  ASSERT_EQ(QV_AdjustBrightnessAndContrast(src, dst, 20, 1, 20, 0, -2147483647 - 1), STATUS_OK);
  for (int i = 16; i < 20; ++i) EXPECT_EQ(dst[i], i % 2 ? 0 : 255) << i;
}

TEST(Vibrance, MatchesModelOnEveryShape) {
  const int amounts[] = {-500, -100, -37, -25, 0, 1, 25, 60, 100, 1000};
  for (const auto& sh : qvt::TailShapes({3, 4}))
    for (int a : amounts) {
      Image s = qvt::MakeImage(sh.Width, sh.Height, sh.Channel, sh.Pad);
      Image d = qvt::MakeImage(sh.Width, sh.Height, sh.Channel, sh.Pad);
      const Bytes expect = VibranceModel(s, d.data, a);
      ASSERT_EQ(QV_Vibrance(s.ptr(), d.ptr(), s.Width, s.Height, s.Stride, a), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(expect, d.data, s.Stride)) << qvt::ToString(sh) << " amount " << a;
      const Bytes in_place = VibranceModel(s, s.data, a);
      ASSERT_EQ(QV_Vibrance(s.ptr(), s.ptr(), s.Width, s.Height, s.Stride, a), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(in_place, s.data, s.Stride)) << qvt::ToString(sh) << " in place";
    }
}

TEST(Vibrance, StatedValues) {
  // (10, 20, 45) at Amount 100: k = -128, m = 45, a = 23, t = -2816:
  // 10 + ((35 * -2816) >> 14) = 3 and 20 + ((25 * -2816) >> 14) = 15. The
  // pixel is repeated over a block and a tail; a gray pixel stays.
  Image im = qvt::MakeImage(20, 1, 3, 0, false);
  for (int x = 0; x < 20; ++x) {
    const int v[3] = {x == 7 ? 90 : 10, x == 7 ? 90 : 20, x == 7 ? 90 : 45};
    for (int c = 0; c < 3; ++c) im.at(x, 0, c) = static_cast<unsigned char>(v[c]);
  }
  Image out = im;
  ASSERT_EQ(QV_Vibrance(im.ptr(), out.ptr(), 20, 1, 60, 100), STATUS_OK);
  for (int x = 0; x < 20; ++x) {
    EXPECT_EQ(out.at(x, 0, 0), x == 7 ? 90 : 3) << x;
    EXPECT_EQ(out.at(x, 0, 1), x == 7 ? 90 : 15) << x;
    EXPECT_EQ(out.at(x, 0, 2), x == 7 ? 90 : 45) << x;
  }
  // Amount 0 leaves the image unchanged.
  Image any = qvt::MakeImage(33, 2, 4, 2);
  Image same = qvt::MakeImage(33, 2, 4, 2);
  ASSERT_EQ(QV_Vibrance(any.ptr(), same.ptr(), 33, 2, any.Stride, 0), STATUS_OK);
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 33 * 4; ++x) EXPECT_EQ(same.data[y * any.Stride + x], any.data[y * any.Stride + x]);
}

struct FrameCase {
  const char* what;
  bool null_src, null_dst;
  int w, h, stride, expect;
};

TEST(BrightnessFrames, StatusTables) {
  unsigned char src[64] = {1, 2, 3}, dst[64];
  std::fill(dst, dst + 64, 7);
  const FrameCase bc[] = {
      {"null dest before sizes", false, true, 3, 0, 9, STATUS_NULL_REFERENCE},
      {"null src", true, false, 3, 1, 9, STATUS_NULL_REFERENCE},
      {"height 0", false, false, 3, 0, 9, STATUS_INVALID_PARAMETER},
      {"channel 2 is 1", false, false, 4, 1, 8, STATUS_INVALID_PARAMETER},
      {"channel 5 is 1", false, false, 3, 1, 15, STATUS_INVALID_PARAMETER},
  };
  for (auto& c : bc) {
    EXPECT_EQ(QV_AdjustBrightnessAndContrast(c.null_src ? nullptr : src, c.null_dst ? nullptr : dst, c.w, c.h, c.stride,
                                             10, 10),
              c.expect)
        << c.what;
  }
  const FrameCase vib[] = {
      {"null dest before sizes", false, true, 3, 0, 9, STATUS_NULL_REFERENCE},
      {"null src", true, false, 3, 1, 9, STATUS_NULL_REFERENCE},
      {"negative height", false, false, 3, -1, 9, STATUS_INVALID_PARAMETER},
      {"channel 1", false, false, 4, 1, 4, STATUS_INVALID_PARAMETER},
      {"channel 5", false, false, 3, 1, 15, STATUS_INVALID_PARAMETER},
  };
  for (auto& c : vib)
    for (int amount : {50, -50}) {  // boost and mute alike
      EXPECT_EQ(QV_Vibrance(c.null_src ? nullptr : src, c.null_dst ? nullptr : dst, c.w, c.h, c.stride, amount),
                c.expect)
          << c.what << " amount " << amount;
    }
  EXPECT_TRUE(std::all_of(dst, dst + 64, [](unsigned char v) { return v == 7; })) << "Dest touched";
}

TEST(BrightnessFramesDeathTest, ZeroWidthFaultsFirst) {
  unsigned char buf[16] = {};
  uint64_t sum;
  qvt::ExpectDivideFault([&](int w) { return QV_AdjustBrightnessAndContrast(nullptr, buf, w, 0, 4, 0, 0); });
  qvt::ExpectDivideFault([&](int w) { return QV_Vibrance(nullptr, buf, w, 0, 4, 50); });
  qvt::ExpectDivideFault([&](int w) { return QV_Vibrance(nullptr, buf, w, 0, 4, -50); });
  qvt::ExpectDivideFault([&](int w) { return qv::ImageSampleSum(nullptr, w, 0, 4, &sum); });
}

}  // namespace
