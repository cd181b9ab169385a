// The call frame: the divide fault of the channel derivation, the border
// index rules with their stated sequences, and the allocation hook.
#include <csignal>
#include <climits>

#include "frame/border.h"
#include "support/support.h"

namespace {

TEST(DeriveChannel, DividesTruncating) {
  EXPECT_EQ(qv::DeriveChannel(15, 4), 3);  // 3 * 4 + 3 bytes of padding
  EXPECT_EQ(qv::DeriveChannel(15, 3), 5);
  EXPECT_EQ(qv::DeriveChannel(8, 2), 4);   // a 3-channel Width 2, Stride 8 reads as 4
  EXPECT_EQ(qv::DeriveChannel(3, 4), 0);   // Stride below Width
  EXPECT_EQ(qv::DeriveChannel(-7, 2), -3); // truncates toward zero
}

using DeriveChannelDeathTest = ::testing::Test;
TEST_F(DeriveChannelDeathTest, FaultsOnZeroWidthAndOverflow) {
  volatile int zero = 0, minus_one = -1;
  EXPECT_EXIT(qv::DeriveChannel(12, zero), ::testing::KilledBySignal(SIGFPE), "");
  EXPECT_EXIT(qv::DeriveChannel(INT_MIN, minus_one), ::testing::KilledBySignal(SIGFPE), "");
}

// The stated sequences for n = 4 from i = -3 to 7.
TEST(BorderRules, StatedSequences) {
  const int wrap[] = {1, 2, 3, 0, 1, 2, 3, 0, 1, 2};
  const int mirror[] = {2, 1, 0, 0, 1, 2, 3, 3, 2, 1};
  const int reflect[] = {3, 2, 1, 0, 1, 2, 3, 2, 1, 0};
  for (int k = 0; k < 10; ++k) {
    EXPECT_EQ(qv::WrapIndex(4, k - 3), wrap[k]) << k - 3;
    EXPECT_EQ(qv::MirrorIndex(4, k - 3), mirror[k]) << k - 3;
    EXPECT_EQ(qv::Reflect101Index(4, k - 3), reflect[k]) << k - 3;
  }
  EXPECT_EQ(qv::Reflect101Index(4, -6), 2);  // wraps rather than reflects far out
  for (int i = -9; i <= 9; ++i) {
    EXPECT_EQ(qv::Reflect101Index(1, i), 0);
    EXPECT_EQ(qv::MirrorIndex(1, i), 0);
  }
}

// Far outside the axis every rule must still land inside it.
TEST(BorderRules, AlwaysInRange) {
  for (int n = 1; n <= 9; ++n)
    for (int i = -40; i <= 40; ++i) {
      for (int v : {qv::WrapIndex(n, i), qv::MirrorIndex(n, i), qv::Reflect101Index(n, i)}) {
        EXPECT_GE(v, 0);
        EXPECT_LT(v, n);
      }
    }
}

TEST(BuildBorderTable, StatusesAndModes) {
  int t[16];
  EXPECT_EQ(qv::BuildBorderTable(nullptr, 4, 1, 1, 1), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::BuildBorderTable(nullptr, -1, 1, 1, 0), STATUS_NULL_REFERENCE);  // pointer first
  EXPECT_EQ(qv::BuildBorderTable(t, -1, 1, 1, 1), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::BuildBorderTable(t, 4, -1, 1, 1), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::BuildBorderTable(t, 4, 1, -1, 1), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::BuildBorderTable(t, 4, 1, 1, 0), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::BuildBorderTable(t, 4, 1, 1, 4), STATUS_INVALID_PARAMETER);
  t[0] = -99;
  EXPECT_EQ(qv::BuildBorderTable(t, 0, 0, 0, 1), STATUS_OK);
  EXPECT_EQ(t[0], -99);

  const struct {
    int mode;
    int expect[10];
  } cases[] = {{1, {0, 0, 0, 0, 1, 2, 3, 3, 3, 3}}, {2, {1, 2, 3, 0, 1, 2, 3, 0, 1, 2}}, {3, {2, 1, 0, 0, 1, 2, 3, 3, 2, 1}}};
  for (const auto& c : cases) {
    ASSERT_EQ(qv::BuildBorderTable(t, 4, 3, 3, c.mode), STATUS_OK);
    for (int k = 0; k < 10; ++k) EXPECT_EQ(t[k], c.expect[k]) << "mode " << c.mode << " k " << k;
  }
}

TEST(Scalars, ClampRoundIntersect) {
  EXPECT_EQ(qv::ClampToByte(-1), 0);
  EXPECT_EQ(qv::ClampToByte(255), 255);
  EXPECT_EQ(qv::ClampToByte(256), 255);
  EXPECT_EQ(qv::ClampToByte(17), 17);
  EXPECT_EQ(qv::RoundHalfAway(2.5f), 3.0);
  EXPECT_EQ(qv::RoundHalfAway(2.49f), 2.0);
  int l, t, r, b;
  qv::IntersectRect(&l, &t, &r, &b, 0, 5, 10, 20, 3, 1, 8, 30);
  EXPECT_EQ(l, 3);
  EXPECT_EQ(t, 5);
  EXPECT_EQ(r, 8);
  EXPECT_EQ(b, 20);
}

TEST(AllocHook, FailsTheRequestedAllocationAndCounts) {
  qvt::AllocHook hook(2);
  void* a = qv::Malloc(10);
  void* b = qv::AlignedMalloc(64, 32);
  void* c = qv::Calloc(4, 4);
  EXPECT_NE(a, nullptr);
  EXPECT_EQ(b, nullptr);
  EXPECT_NE(c, nullptr);
  EXPECT_EQ(hook.Live(), 2);
  qv::Free(a);
  qv::Free(c);
  EXPECT_EQ(hook.Live(), 0);
  EXPECT_EQ(hook.Requests(), 3);
}

TEST(AllocHook, AlignedBlocksAreAligned) {
  for (size_t align : {16, 32}) {
    void* p = qv::AlignedMalloc(100, align);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % align, 0u);
    qv::AlignedFree(p);
  }
}

}  // namespace
