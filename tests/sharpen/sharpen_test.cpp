// The two 3x3 stencils, QV_Sharpen and QV_RadiusSharpen3X3, against plain
// models over every tail length, channel and padding; their frames.
#include <cmath>

#include "sharpen/frame_cases.h"

namespace {

// Sample (x, y, c) with edge pixels and rows replicated.
int At(const qvt::Image& im, int x, int y, int c) {
  x = std::min(std::max(x, 0), im.Width - 1);
  y = std::min(std::max(y, 0), im.Height - 1);
  return im.at(x, y, c);
}

// Padding of Dest is never written.
qvt::Bytes SharpenModel(const qvt::Image& src, const qvt::Bytes& dest) {
  qvt::Bytes out = dest;
  for (int y = 0; y < src.Height; ++y)
    for (int x = 0; x < src.Width; ++x)
      for (int c = 0; c < src.Channel; ++c) {
        const int v = 8 * At(src, x, y, c) - At(src, x - 1, y - 1, c) - At(src, x + 1, y - 1, c) -
                      At(src, x - 1, y + 1, c) - At(src, x + 1, y + 1, c);
        out[size_t(y) * src.Stride + size_t(x) * src.Channel + c] =
            static_cast<unsigned char>(qvt::Clamp255(static_cast<long long>(std::floor(v / 4.0))));
      }
  return out;
}

qvt::Bytes RadiusModel(const qvt::Image& src, const qvt::Bytes& dest, int Amount) {
  const int a = std::min(std::max(Amount, 0), 100);
  const int k = static_cast<int>(a * 0.01 * 32768);
  qvt::Bytes out = dest;
  for (int y = 0; y < src.Height; ++y)
    for (int x = 0; x < src.Width; ++x)
      for (int c = 0; c < src.Channel; ++c) {
        int v[9], sum = 0;
        for (int j = 0; j < 9; ++j) sum += v[j] = At(src, x - 1 + j % 3, y - 1 + j / 3, c);
        const int mean = sum / 9;
        int near = v[0], far = v[0];
        for (int j = 1; j < 9; ++j) {
          if (std::abs(v[j] - mean) < std::abs(near - mean)) near = v[j];
          if (std::abs(v[j] - mean) >= std::abs(far - mean)) far = v[j];
        }
        const double push = std::floor((near - far) * 2.0 * k / 65536.0);
        out[size_t(y) * src.Stride + size_t(x) * src.Channel + c] =
            static_cast<unsigned char>(qvt::Clamp255(v[4] + static_cast<long long>(push)));
      }
  return out;
}

TEST(Sharpen, MatchesModelOnEveryShapeAndInPlace) {
  for (const auto& s : qvt::TailShapes({1, 3, 4}, 4)) {
    auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    const qvt::Bytes expect = SharpenModel(src, dst.data);
    ASSERT_EQ(QV_Sharpen(src.ptr(), dst.ptr(), s.Width, s.Height, src.Stride), STATUS_OK) << qvt::ToString(s);
    ASSERT_TRUE(qvt::SameBytes(expect, dst.data, src.Stride)) << qvt::ToString(s);
    const qvt::Bytes in_place = SharpenModel(src, src.data);
    ASSERT_EQ(QV_Sharpen(src.ptr(), src.ptr(), s.Width, s.Height, src.Stride), STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(in_place, src.data, src.Stride)) << qvt::ToString(s);
  }
}

TEST(Sharpen, FlatStaysAndDiagonalsOnlyCount) {
  auto im = qvt::MakeImage(20, 5, 1, 0, false);
  std::fill(im.data.begin(), im.data.end(), 77);
  auto out = im;
  ASSERT_EQ(QV_Sharpen(im.ptr(), out.ptr(), 20, 5, 20), STATUS_OK);
  EXPECT_TRUE(qvt::SameBytes(im.data, out.data));
  // A bright sample: its horizontal and vertical neighbours do not see it,
  // the diagonal ones lose a quarter of the step, in the body and in the tail.
  for (int x : {5, 18}) {
    std::fill(im.data.begin(), im.data.end(), 100);
    im.at(x, 2, 0) = 180;
    ASSERT_EQ(QV_Sharpen(im.ptr(), out.ptr(), 20, 5, 20), STATUS_OK);
    EXPECT_EQ(out.at(x, 2, 0), 255) << x;  // (8 * 180 - 400) >> 2 = 260
    EXPECT_EQ(out.at(x, 1, 0), 100) << x;
    EXPECT_EQ(out.at(x - 1, 2, 0), 100) << x;
    EXPECT_EQ(out.at(x + 1, 1, 0), 80) << x;  // (800 - 300 - 180) >> 2
  }
}

TEST(Sharpen, Frame) {
  qvt::CheckStandardFrame(QV_Sharpen, STATUS_INVALID_PARAMETER);
  auto im = qvt::MakeImage(9, 4, 3, 2);
  auto dst = im;
  const qvt::Bytes before = dst.data;
  qvt::CheckEveryAllocationFailure([&] { return QV_Sharpen(im.ptr(), dst.ptr(), 9, 4, im.Stride); },
                                   STATUS_OUT_OF_MEMORY, [&] { EXPECT_TRUE(qvt::SameBytes(before, dst.data)); });
}

TEST(SharpenDeathTest, ZeroWidthFaults) { qvt::ExpectZeroWidthFaults(QV_Sharpen); }

TEST(RadiusSharpen3X3, MatchesModelOnEveryShapeAndInPlace) {
  for (int amount : {100, 37}) {
    for (const auto& s : qvt::TailShapes({1, 3, 4}, 3)) {
      auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      const qvt::Bytes expect = RadiusModel(src, dst.data, amount);
      ASSERT_EQ(QV_RadiusSharpen3X3(src.ptr(), dst.ptr(), s.Width, s.Height, src.Stride, amount), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(expect, dst.data, src.Stride)) << qvt::ToString(s) << " amount " << amount;
      const qvt::Bytes in_place = RadiusModel(src, src.data, amount);
      ASSERT_EQ(QV_RadiusSharpen3X3(src.ptr(), src.ptr(), s.Width, s.Height, src.Stride, amount), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(in_place, src.data)) << qvt::ToString(s);
    }
  }
}

TEST(RadiusSharpen3X3, EveryAmountBodyAndTail) {
  // Width 37 with 3 channels: 96 body samples and a 15-sample tail per row.
  auto src = qvt::MakeImage(37, 4, 3);
  for (int amount = -3; amount <= 103; ++amount) {
    auto dst = qvt::MakeImage(37, 4, 3);
    const qvt::Bytes expect = RadiusModel(src, dst.data, amount);
    ASSERT_EQ(QV_RadiusSharpen3X3(src.ptr(), dst.ptr(), 37, 4, src.Stride, amount), STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(expect, dst.data, src.Stride)) << "amount " << amount;
  }
}

TEST(RadiusSharpen3X3, StatedValues) {
  auto src = qvt::MakeImage(20, 3, 1, 0, false);
  std::fill(src.data.begin(), src.data.end(), 10);
  auto dst = src;
  // Flat: near and far equal, nothing moves.
  ASSERT_EQ(QV_RadiusSharpen3X3(src.ptr(), dst.ptr(), 20, 3, 20, 100), STATUS_OK);
  EXPECT_TRUE(qvt::SameBytes(src.data, dst.data));
  // One sample of 40 among 10s, in the body (x 5) and the tail (x 18): mean 13,
  // near 10, far 40. Amount 100 (k = 32768) moves by exactly near - far; a
  // multiplier wrapped to -32768 would move the other way.
  for (int x : {5, 18}) {
    std::fill(src.data.begin(), src.data.end(), 10);
    src.at(x, 1, 0) = 40;
    ASSERT_EQ(QV_RadiusSharpen3X3(src.ptr(), dst.ptr(), 20, 3, 20, 100), STATUS_OK);
    EXPECT_EQ(dst.at(x, 1, 0), 10) << x;     // 40 - 30
    EXPECT_EQ(dst.at(x - 1, 1, 0), 0) << x;  // 10 - 30, saturated
    ASSERT_EQ(QV_RadiusSharpen3X3(src.ptr(), dst.ptr(), 20, 3, 20, 150), STATUS_OK);
    EXPECT_EQ(dst.at(x, 1, 0), 10) << "150 acts as 100";
    ASSERT_EQ(QV_RadiusSharpen3X3(src.ptr(), dst.ptr(), 20, 3, 20, 50), STATUS_OK);
    EXPECT_EQ(dst.at(x, 1, 0), 25) << x;  // 40 + ((-60 * 16384) >> 16)
  }
  // Amount 0 is a copy.
  auto noisy = qvt::MakeImage(23, 5, 4, 2);
  auto out = qvt::MakeImage(23, 5, 4, 2);
  ASSERT_EQ(QV_RadiusSharpen3X3(noisy.ptr(), out.ptr(), 23, 5, noisy.Stride, 0), STATUS_OK);
  for (int y = 0; y < 5; ++y)
    for (int i = 0; i < 23 * 4; ++i) ASSERT_EQ(out.data[y * noisy.Stride + i], noisy.data[y * noisy.Stride + i]);
}

TEST(RadiusSharpen3X3, Frame) {
  auto call = [](const unsigned char* s, unsigned char* d, int w, int h, int st) {
    return QV_RadiusSharpen3X3(s, d, w, h, st, 50);
  };
  qvt::CheckStandardFrame(call, STATUS_NOT_SUPPORTED);  // unlike QV_Sharpen
  auto im = qvt::MakeImage(9, 4, 4, 2);
  auto dst = im;
  const qvt::Bytes before = dst.data;
  qvt::CheckEveryAllocationFailure([&] { return call(im.ptr(), dst.ptr(), 9, 4, im.Stride); }, STATUS_OUT_OF_MEMORY,
                                   [&] { EXPECT_TRUE(qvt::SameBytes(before, dst.data)); });
}

TEST(RadiusSharpen3X3DeathTest, ZeroWidthFaults) {
  qvt::ExpectZeroWidthFaults([](const unsigned char* s, unsigned char* d, int w, int h, int st) {
    return QV_RadiusSharpen3X3(s, d, w, h, st, 50);
  });
}

}  // namespace
