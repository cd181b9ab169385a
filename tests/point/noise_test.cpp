// White noise: the draw order reproduced with srand/rand, padding untouched,
// the number of draws, and the out-of-memory path.
#include <cstdlib>

#include "support/support.h"

namespace {

// After srand(Seed): 4n table draws, then two per row.
qvt::Bytes NoiseModel(unsigned Seed, int Width, int Height, int Channel, int Stride, qvt::Bytes dest) {
  std::srand(Seed);
  const size_t n = size_t(Width) * Channel;
  qvt::Bytes t(4 * n);
  for (auto& v : t) {
    const unsigned r = unsigned(std::rand());
    v = static_cast<unsigned char>(r + (r >> 8));
  }
  for (int y = 0; y < Height; ++y) {
    const size_t a = size_t(std::rand()) % n;
    const size_t b = size_t(std::rand()) % n;
    for (size_t i = 0; i < n; ++i) dest[size_t(y) * Stride + i] = t[a + i] ^ t[2 * n + b + i];
  }
  return dest;
}

TEST(WhiteNoise, DrawOrderReproducedOnEveryShape) {
  unsigned seed = 1;
  for (const auto& s : qvt::TailShapes({1, 3, 4})) {
    auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    const auto expect = NoiseModel(seed, s.Width, s.Height, s.Channel, dst.Stride, dst.data);
    const int next = std::rand();  // the draw after all of the model's
    std::srand(seed);
    ASSERT_EQ(QV_WhiteNoise(dst.ptr(), s.Width, s.Height, dst.Stride), STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(expect, dst.data, dst.Stride)) << qvt::ToString(s);
    ASSERT_EQ(std::rand(), next) << "draws: " << qvt::ToString(s);
    ++seed;
  }
}

TEST(WhiteNoise, OutOfMemoryLeavesDestUntouched) {
  auto dst = qvt::MakeImage(21, 3, 3, 2);
  const auto before = dst.data;
  const int allocations = qvt::CheckEveryAllocationFailure([&] { return QV_WhiteNoise(dst.ptr(), 21, 3, dst.Stride); },
                                                           STATUS_OUT_OF_MEMORY, [&] { EXPECT_EQ(dst.data, before); });
  EXPECT_EQ(allocations, 1);
}

TEST(WhiteNoise, FrameOrder) {
  unsigned char buf[64];
  std::fill(buf, buf + 64, 5);
  struct Case {
    const char* what;
    bool null;
    int w, h, stride, expect;
  } cases[] = {
      {"null before sizes", true, 3, 0, 9, STATUS_NULL_REFERENCE},
      {"height 0", false, 3, 0, 9, STATUS_INVALID_PARAMETER},
      {"negative width", false, -3, 1, -9, STATUS_INVALID_PARAMETER},
      {"channel 2", false, 4, 1, 8, STATUS_INVALID_PARAMETER},
      {"channel 5", false, 3, 1, 15, STATUS_INVALID_PARAMETER},
  };
  for (auto& c : cases) {
    EXPECT_EQ(QV_WhiteNoise(c.null ? nullptr : buf, c.w, c.h, c.stride), c.expect) << c.what;
    EXPECT_TRUE(std::all_of(buf, buf + 64, [](int v) { return v == 5; })) << c.what << ": Dest touched";
  }
}

TEST(WhiteNoiseDeathTest, ZeroWidthFaults) {
  qvt::ExpectDivideFault([&](int w) { return QV_WhiteNoise(nullptr, w, 0, 4); });
}

}  // namespace
