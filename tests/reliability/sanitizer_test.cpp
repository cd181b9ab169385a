// The sanitized build must turn every report into a failure: an overrun, a
// leak and undefined behaviour each stop or fail the program that has them.
// In the plain build these tests have nothing to check and are skipped.
#include <sys/wait.h>

#include <climits>
#include <cstdlib>

#include "support/support.h"

namespace {

#if defined(QV_SANITIZER_BUILD)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// Out of line, so only the address sanitizer can know the block's end.
__attribute__((noinline)) void Poke(unsigned char* p, size_t i) { p[i] = 1; }

TEST(SanitizerDeathTest, HeapOverrunByOneByteStops) {
  if (!kSanitized) GTEST_SKIP() << "plain build";
  volatile size_t past_end = 16;
  EXPECT_DEATH(
      {
        auto* p = static_cast<unsigned char*>(std::malloc(16));
        Poke(p, past_end);
        std::free(p);
      },
      "heap-buffer-overflow");
}

TEST(SanitizerDeathTest, UndefinedBehaviourHalts) {
  if (!kSanitized) GTEST_SKIP() << "plain build";
  volatile int big = INT_MAX;
  volatile int shift = 33;
  EXPECT_DEATH({ big = big + 1; }, "signed integer overflow");
  EXPECT_DEATH({ big = 1 << shift; }, "shift exponent");
}

// Loses one block for good; kept out of line so that no live frame holds it.
__attribute__((noinline)) void LoseABlock() {
  static void* volatile sink;
  sink = std::malloc(40);
  sink = nullptr;
  (void)sink;
}

TEST(SanitizerDeathTest, LeakFailsTheProgram) {
  if (!kSanitized) GTEST_SKIP() << "plain build";
  EXPECT_EXIT(
      {
        LoseABlock();
        std::exit(0);
      },
      [](int status) { return !(WIFEXITED(status) && WEXITSTATUS(status) == 0); }, "detected memory leaks");
}

}  // namespace
