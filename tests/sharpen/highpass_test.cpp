// High pass, the overlay blend, high-pass sharpen and the multi-scale sharpen
// against models built on the exported exponential blur, over every tail
// length, channel and padding (the padding is part of the run).
#include "sharpen/frame_cases.h"
#include "sharpen/sharpen.h"

namespace {

qvt::Bytes HighPassModel(const qvt::Image& src, const qvt::Bytes& dest, int Radius) {
  qvt::Bytes out = qvt::BlurOver(src, dest, Radius);
  for (size_t i = 0; i < out.size(); ++i)
    out[i] = static_cast<unsigned char>(qvt::Clamp255(src.data[i] - out[i] + 128));
  return out;
}

qvt::Bytes OverlayModel(const qvt::Bytes& a, const qvt::Bytes& b) {
  qvt::Bytes out(a.size());
  for (size_t i = 0; i < a.size(); ++i)
    out[i] = static_cast<unsigned char>(a[i] <= 128 ? a[i] * b[i] / 128 : 255 - (255 - a[i]) * (255 - b[i]) / 128);
  return out;
}

// Body over the run rounded down to 16, tail after it, as documented.
qvt::Bytes MultiScaleModel(const qvt::Image& src, int R1, int R2, int R3) {
  const qvt::Bytes b1 = qvt::BlurOver(src, src.data, R1), b2 = qvt::BlurOver(src, src.data, R2),
                   b3 = qvt::BlurOver(src, src.data, R3);
  qvt::Bytes out(src.data.size());
  const size_t body = out.size() / 16 * 16;
  for (size_t i = 0; i < out.size(); ++i) {
    const int c = src.data[i], d = c - b1[i];
    int v;
    if (i < body) {
      v = 2 * c - (std::abs(d) + b1[i] + 1) / 2 - ((b2[i] + b3[i] + 1) / 2 + 1) / 2;
    } else {
      const int s = (d > 0) - (d < 0);
      v = c + (2 * ((2 - s) * d + b1[i]) - b2[i] - b3[i]) / 4;
    }
    out[i] = static_cast<unsigned char>(qvt::Clamp255(v));
  }
  return out;
}

TEST(HighPass, MatchesModelAndSharpenComposes) {
  for (int radius : {1, 3}) {
    for (const auto& s : qvt::TailShapes({1, 3, 4})) {
      auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      const qvt::Bytes hp = HighPassModel(src, dst.data, radius);
      ASSERT_EQ(QV_HighPass(src.ptr(), dst.ptr(), s.Width, s.Height, src.Stride, radius), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(hp, dst.data, src.Stride)) << qvt::ToString(s);

      // The sharpen runs the high pass, desaturates it (colour only) and
      // overlays it on Src.
      auto out = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      qvt::Bytes gray = HighPassModel(src, out.data, radius);
      if (s.Channel != 1) {
        ASSERT_EQ(QV_Desaturate(gray.data(), gray.data(), s.Width, s.Height, src.Stride), STATUS_OK);
      }
      ASSERT_EQ(QV_HighPassSharpen(src.ptr(), out.ptr(), s.Width, s.Height, src.Stride, radius), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(OverlayModel(src.data, gray), out.data, src.Stride)) << qvt::ToString(s);
    }
  }
}

TEST(HighPass, FlatAndSameBufferGive128) {
  auto flat = qvt::MakeImage(21, 3, 3, 0, false);
  std::fill(flat.data.begin(), flat.data.end(), 200);
  auto out = qvt::MakeImage(21, 3, 3);
  ASSERT_EQ(QV_HighPass(flat.ptr(), out.ptr(), 21, 3, flat.Stride, 4), STATUS_OK);
  EXPECT_TRUE(std::all_of(out.data.begin(), out.data.end(), [](unsigned char v) { return v == 128; }));
  auto im = qvt::MakeImage(21, 3, 3, 2);
  ASSERT_EQ(QV_HighPass(im.ptr(), im.ptr(), 21, 3, im.Stride, 4), STATUS_OK);
  EXPECT_TRUE(std::all_of(im.data.begin(), im.data.end(), [](unsigned char v) { return v == 128; }));
}

TEST(OverlayBlend, MatchesModelOverTheRunAndStatedValues) {
  // Every pair of bytes, in the body and in the tail (65536 + 7 bytes).
  qvt::Bytes a(65543), b(65543);
  for (size_t i = 0; i < a.size(); ++i) a[i] = static_cast<unsigned char>(i >> 8), b[i] = static_cast<unsigned char>(i);
  a[65536] = 128, b[65536] = 255;  // tail copies of the stated cases
  a[65537] = 129, b[65537] = 0;
  qvt::Bytes out(a.size());
  ASSERT_EQ(qv::OverlayBlend(a.data(), b.data(), out.data(), 65543, 1, 65543), STATUS_OK);
  ASSERT_TRUE(qvt::SameBytes(OverlayModel(a, b), out));
  EXPECT_EQ(out[128 * 256 + 255], 255);
  EXPECT_EQ(out[129 * 256 + 0], 4);
  EXPECT_EQ(out[65536], 255);
  EXPECT_EQ(out[65537], 4);
  // Dest may be the second source.
  ASSERT_EQ(qv::OverlayBlend(a.data(), b.data(), b.data(), 65543, 1, 65543), STATUS_OK);
  EXPECT_TRUE(qvt::SameBytes(out, b));
  qvt::CheckStandardFrame([](const unsigned char* s, unsigned char* d, int w, int h,
                             int st) { return qv::OverlayBlend(s, s, d, w, h, st); },
                          STATUS_INVALID_PARAMETER);
  unsigned char buf[8] = {};
  EXPECT_EQ(qv::OverlayBlend(buf, nullptr, buf, 2, 1, 2), STATUS_NULL_REFERENCE);
}

TEST(HighPass, FramesAndNestedStatus) {
  for (auto op : {QV_HighPass, QV_HighPassSharpen, QV_MultiScaleSharpen}) {
    qvt::CheckStandardFrame(
        [op](const unsigned char* s, unsigned char* d, int w, int h, int st) { return op(s, d, w, h, st, 2); },
        STATUS_INVALID_PARAMETER);
    // The blur's own Radius test comes back as it stands.
    auto im = qvt::MakeImage(5, 2, 1);
    auto out = im;
    EXPECT_EQ(op(im.ptr(), out.ptr(), 5, 2, 5, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(op(im.ptr(), out.ptr(), 5, 2, 5, -7), STATUS_INVALID_PARAMETER);
    // Every failing allocation, nested ones included, gives 2 and no leak.
    auto big = qvt::MakeImage(19, 6, 4, 3);
    auto dst = big;
    const int requests =
        qvt::CheckEveryAllocationFailure([&] { return op(big.ptr(), dst.ptr(), 19, 6, big.Stride, 3); });
    EXPECT_GE(requests, 2);
  }
}

TEST(HighPassDeathTest, ZeroWidthFaults) {
  for (auto op : {QV_HighPass, QV_HighPassSharpen, QV_MultiScaleSharpen})
    qvt::ExpectZeroWidthFaults(
        [op](const unsigned char* s, unsigned char* d, int w, int h, int st) { return op(s, d, w, h, st, 2); });
}

TEST(MultiScaleSharpen, MatchesModelOnEveryShapeAndInPlace) {
  for (int radius : {1, 2, 5}) {
    for (const auto& s : qvt::TailShapes({1, 3, 4})) {
      auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      const qvt::Bytes expect = MultiScaleModel(src, radius, 2 * radius, 4 * radius);
      ASSERT_EQ(QV_MultiScaleSharpen(src.ptr(), dst.ptr(), s.Width, s.Height, src.Stride, radius), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(expect, dst.data, src.Stride)) << qvt::ToString(s) << " radius " << radius;
      ASSERT_EQ(QV_MultiScaleSharpen(src.ptr(), src.ptr(), s.Width, s.Height, src.Stride, radius), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(expect, src.data, src.Stride)) << qvt::ToString(s) << " in place";
    }
  }
}

TEST(MultiScaleSharpen, BodyAndTailRoundFlatOddLevelsApart) {
  // Flat 101: the body gives 2 * 101 - 51 - 51 = 100, the tail keeps 101.
  auto flat = qvt::MakeImage(20, 1, 1, 0, false);
  std::fill(flat.data.begin(), flat.data.end(), 101);
  auto out = flat;
  ASSERT_EQ(QV_MultiScaleSharpen(flat.ptr(), out.ptr(), 20, 1, 20, 3), STATUS_OK);
  for (int x = 0; x < 20; ++x) EXPECT_EQ(out.data[x], x < 16 ? 100 : 101) << x;
  // A huge Radius holds the multiplied radii at the largest int instead of
  // overflowing them; the blur's gain is 0 for both anyway.
  auto im = qvt::MakeImage(17, 3, 1);
  auto big = im;
  ASSERT_EQ(QV_MultiScaleSharpen(im.ptr(), big.ptr(), 17, 3, 17, 0x7FFFFFF0), STATUS_OK);
  EXPECT_TRUE(qvt::SameBytes(MultiScaleModel(im, 0x7FFFFFF0, 0x7FFFFFFF, 0x7FFFFFFF), big.data));
}

TEST(MultiScaleSharpen, FailuresLeaveDestUntouched) {
  auto im = qvt::MakeImage(23, 5, 3, 1);
  auto dst = qvt::MakeImage(23, 5, 3, 1);
  const qvt::Bytes before = dst.data;
  qvt::CheckEveryAllocationFailure([&] { return QV_MultiScaleSharpen(im.ptr(), dst.ptr(), 23, 5, im.Stride, 2); },
                                   STATUS_OUT_OF_MEMORY, [&] { EXPECT_TRUE(qvt::SameBytes(before, dst.data)); });
}

}  // namespace
