// Two-source arithmetic over the whole run: saturating add and subtract,
// absolute difference, linear light; the Sizes-first frame.
#include <csignal>

#include "support/support.h"

namespace {

using Op = int (*)(const unsigned char*, const unsigned char*, unsigned char*, int, int, int);

int LinearLight(int a, int b) {
  const int r = std::min(255, std::max(0, a + 2 * (b - 128)));
  const int x = r * 128 + a * 127;
  return (x + 1 + (x >> 8)) >> 8;
}

struct Named {
  const char* name;
  Op op;
  int (*model)(int, int);
} kOps[] = {
    {"add", QV_AddImage, [](int a, int b) { return std::min(a + b, 255); }},
    {"subtract", QV_SubtractImage, [](int a, int b) { return std::max(a - b, 0); }},
    {"absdiff", QV_AbsDiffImage, [](int a, int b) { return std::abs(a - b); }},
    {"linear light", QV_BlendTwoImage_LinearLight, LinearLight},
};

TEST(Arith, MatchesModelOnEveryShape) {
  for (const auto& op : kOps)
    for (const auto& s : qvt::TailShapes({1, 3, 4}, 2)) {
      auto a = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      auto b = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      auto d = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      qvt::Bytes expect(a.data.size());
      for (size_t i = 0; i < expect.size(); ++i)  // every byte, padding and fourth sample too
        expect[i] = static_cast<unsigned char>(op.model(a.data[i], b.data[i]));
      ASSERT_EQ(op.op(a.ptr(), b.ptr(), d.ptr(), s.Width, s.Height, a.Stride), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(expect, d.data, d.Stride)) << op.name << " " << qvt::ToString(s);
      ASSERT_EQ(op.op(a.ptr(), b.ptr(), a.ptr(), s.Width, s.Height, a.Stride), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(expect, a.data)) << op.name << " in place " << qvt::ToString(s);
    }
}

TEST(Arith, LinearLightExtremesAndFullTable) {
  EXPECT_EQ(LinearLight(0, 128), 0);
  EXPECT_EQ(LinearLight(255, 255), 255);
  // Every pair of samples, through blocks and tail alike.
  qvt::Bytes a(65536), b(65536), d(65536);
  for (int i = 0; i < 65536; ++i) a[i] = static_cast<unsigned char>(i >> 8), b[i] = static_cast<unsigned char>(i);
  ASSERT_EQ(QV_BlendTwoImage_LinearLight(a.data(), b.data(), d.data(), 65536, 1, 65536), STATUS_OK);
  for (int i = 0; i < 65536; ++i) ASSERT_EQ(d[i], LinearLight(i >> 8, i & 255)) << i;
}

TEST(Arith, SizesFirstFrame) {
  unsigned char buf[64];
  std::fill(buf, buf + 64, 5);
  struct Case {
    const char* what;
    bool null_src1, null_dest;
    int w, h, stride, expect;
  } cases[] = {
      {"sizes before the pointers", true, true, 3, 0, 9, STATUS_INVALID_PARAMETER},
      {"channel 2 before the pointers", true, false, 4, 1, 8, STATUS_NOT_SUPPORTED},
      {"channel 5", false, false, 3, 1, 15, STATUS_NOT_SUPPORTED},
      {"null src1", true, false, 3, 1, 9, STATUS_NULL_REFERENCE},
      {"null dest", false, true, 3, 1, 9, STATUS_NULL_REFERENCE},
      {"negative width", false, false, -3, 1, -9, STATUS_INVALID_PARAMETER},
  };
  for (const auto& op : kOps)
    for (auto& c : cases) {
      EXPECT_EQ(op.op(c.null_src1 ? nullptr : buf, buf, c.null_dest ? nullptr : buf, c.w, c.h, c.stride), c.expect)
          << op.name << ": " << c.what;
      EXPECT_TRUE(std::all_of(buf, buf + 64, [](int v) { return v == 5; })) << c.what << ": Dest touched";
    }
}

TEST(ArithDeathTest, ZeroWidthFaultsAndSrc2IsNotTested) {
  unsigned char buf[16] = {};
  volatile int w = 0;
  for (const auto& op : kOps) {
    EXPECT_EXIT(op.op(nullptr, nullptr, nullptr, w, 0, 4), ::testing::KilledBySignal(SIGFPE), "") << op.name;
    EXPECT_DEATH(op.op(buf, nullptr, buf, 4, 1, 4), "") << op.name;
  }
}

}  // namespace
