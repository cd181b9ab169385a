// QV_EdgePreservedSharpen against a model built on the exported self-guided
// filter, over every tail length, channel and padding; its frame.
#include <cmath>

#include "sharpen/frame_cases.h"

namespace {

int Radius(int Width, int Height) { return std::max(5, std::max(Width, Height) / 50); }

qvt::Bytes EdgeModel(const qvt::Image& src, const qvt::Bytes& dest, int Amount) {
  qvt::Bytes out = dest;
  EXPECT_EQ(QV_SelfGuidedFilter(src.ptr(), out.data(), src.Width, src.Height, src.Stride, Radius(src.Width, src.Height),
                                20, 20.0f),
            STATUS_OK);
  const int a = std::min(std::max(Amount + 100, 100), 4096);
  const int k = static_cast<int>(a * 1.27999997 * 4);
  for (size_t i = 0; i < out.size(); ++i)
    out[i] = static_cast<unsigned char>(
        qvt::Clamp255(out[i] + static_cast<long long>(std::floor((src.data[i] - out[i]) * double(k) / 512.0))));
  return out;
}

TEST(EdgePreservedSharpen, MatchesModelOnEveryShape) {
  for (int amount : {0, 150, 5000})
    for (const auto& s : qvt::TailShapes({1, 3, 4}, 2)) {
      auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      const qvt::Bytes expect = EdgeModel(src, dst.data, amount);
      ASSERT_EQ(QV_EdgePreservedSharpen(src.ptr(), dst.ptr(), s.Width, s.Height, src.Stride, amount), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(expect, dst.data, src.Stride)) << qvt::ToString(s) << " amount " << amount;
    }
  // A radius above the floor of 5: max(Width, Height) / 50.
  auto src = qvt::MakeNaturalImage(333, 41, 3, 2);
  auto dst = qvt::MakeImage(333, 41, 3, 2);
  const qvt::Bytes expect = EdgeModel(src, dst.data, 300);
  ASSERT_EQ(QV_EdgePreservedSharpen(src.ptr(), dst.ptr(), 333, 41, src.Stride, 300), STATUS_OK);
  EXPECT_TRUE(qvt::SameBytes(expect, dst.data, src.Stride));
}

TEST(EdgePreservedSharpen, AmountZeroStaysWithinOneLevel) {
  // k = 511, not 512: a sample above the filter comes back one level low.
  auto src = qvt::MakeImage(45, 7, 3);
  auto dst = qvt::MakeImage(45, 7, 3);
  ASSERT_EQ(QV_EdgePreservedSharpen(src.ptr(), dst.ptr(), 45, 7, src.Stride, 0), STATUS_OK);
  int low = 0;
  for (size_t i = 0; i < src.data.size(); ++i) {
    ASSERT_LE(std::abs(dst.data[i] - src.data[i]), 1) << i;
    low += dst.data[i] + 1 == src.data[i];
  }
  EXPECT_GT(low, 0);
  // The same buffer for both gives the filter itself.
  auto same = src;
  qvt::Bytes filtered = src.data;
  ASSERT_EQ(QV_SelfGuidedFilter(src.ptr(), filtered.data(), 45, 7, src.Stride, 5, 20, 20.0f), STATUS_OK);
  ASSERT_EQ(QV_EdgePreservedSharpen(same.ptr(), same.ptr(), 45, 7, src.Stride, 200), STATUS_OK);
  EXPECT_TRUE(qvt::SameBytes(filtered, same.data));
}

TEST(EdgePreservedSharpen, Frame) {
  auto call = [](const unsigned char* s, unsigned char* d, int w, int h, int st) {
    return QV_EdgePreservedSharpen(s, d, w, h, st, 50);
  };
  qvt::CheckStandardFrame(call, STATUS_INVALID_PARAMETER);
  unsigned char buf[64] = {};
  // Amount below 0 is tested with the sizes: after the pointers, before Channel.
  EXPECT_EQ(QV_EdgePreservedSharpen(nullptr, buf, 4, 1, 4, -1), STATUS_NULL_REFERENCE);
  EXPECT_EQ(QV_EdgePreservedSharpen(buf, buf, 4, 1, 4, -1), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(QV_EdgePreservedSharpen(buf, buf, 4, 1, 8, -1), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(QV_EdgePreservedSharpen(buf, buf, 4, 1, 4, 2147483647), STATUS_OK);  // limited, no overflow
  auto im = qvt::MakeImage(19, 6, 4, 1);
  auto dst = im;
  EXPECT_GE(qvt::CheckEveryAllocationFailure([&] { return call(im.ptr(), dst.ptr(), 19, 6, im.Stride); }), 1);
}

TEST(EdgePreservedSharpenDeathTest, ZeroWidthFaults) {
  qvt::ExpectZeroWidthFaults([](const unsigned char* s, unsigned char* d, int w, int h, int st) {
    return QV_EdgePreservedSharpen(s, d, w, h, st, 50);
  });
}

}  // namespace
