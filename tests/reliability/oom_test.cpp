// Exhausted memory for every export: each allocation of a call is failed in
// turn; the status, Dest (and the numeric result) and the live blocks must be
// what the operator's rule says.
#include "reliability/harness.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

using qvr::Oom;

struct Expectation {
  bool AnyOf0And2;  // the failure may go unreported (0) or be reported (2)
  int Status;       // -1: 2 or 3
  bool Untouched;   // Dest and Out as before the call
  int Leaked;       // blocks the rule loses
};

Expectation Rule(Oom Memory, int n) {
  switch (Memory) {
    case Oom::Status2:
      return {false, STATUS_OUT_OF_MEMORY, true, 0};
    case Oom::Status2Partial:
      return {false, STATUS_OUT_OF_MEMORY, false, 0};
    case Oom::ExpBlur:
      return {false, STATUS_OUT_OF_MEMORY, n == 1, 0};
    case Oom::NullRef:
      return {false, STATUS_NULL_REFERENCE, true, 0};
    case Oom::Fft:
      return {n > 1, STATUS_OUT_OF_MEMORY, true, 0};
    case Oom::Status2Or3:
      return {false, -1, true, 0};
    case Oom::RangeFilter:
      if (n <= 2) return {false, STATUS_OK, true, 0};
      return {false, STATUS_OUT_OF_MEMORY, true, 2};
  }
  return {};
}

struct Size {
  int Width, Height, Pad;
};

TEST(OutOfMemory, EveryAllocationOfEveryExport) {
  int calls = 0;
  for (const auto& e : qvr::Exports()) {
    const auto channels = qvr::AcceptedChannels(e);
    ASSERT_FALSE(channels.empty()) << e.Name << " takes no channel count";
    for (int c : channels)
      for (Size s : {Size{37, 23, 1}, Size{8, 64, 0}}) {
        SCOPED_TRACE(std::string(e.Name) + " channels " + std::to_string(c) + " " + std::to_string(s.Width) + "x" +
                     std::to_string(s.Height));
        const qvr::Buffers fresh(e, s.Width, s.Height, c, s.Pad, 3);
        int n = 1;
        for (;; ++n) {
          ASSERT_LT(n, 400) << "keeps allocating";
          qvr::Buffers b = fresh;
          qvt::AllocHook hook(n);
          int status;
          {
#if defined(__SANITIZE_ADDRESS__)
            // The one stated leak is counted by the hook instead.
            __lsan::ScopedDisabler stated_leak;
#endif
            status = e.Run(b.Args());
          }
          ++calls;
          const bool reached = hook.Requests() >= n;
          if (!reached) {
            EXPECT_EQ(status, STATUS_OK) << "no failure injected";
            EXPECT_EQ(hook.Live(), 0) << "leak after a successful call";
            break;
          }
          SCOPED_TRACE("allocation " + std::to_string(n) + " failed");
          const Expectation x = Rule(e.Memory, n);
          if (x.AnyOf0And2) {
            EXPECT_TRUE(status == STATUS_OK || status == STATUS_OUT_OF_MEMORY) << status;
          } else if (x.Status < 0) {
            EXPECT_TRUE(status == STATUS_OUT_OF_MEMORY || status == STATUS_NULL_REFERENCE) << status;
          } else {
            EXPECT_EQ(status, x.Status);
          }
          if (x.Untouched && status != STATUS_OK) {
            EXPECT_TRUE(qvt::SameBytes(fresh.Dest.data, b.Dest.data, b.Dest.Stride)) << "Dest touched";
            EXPECT_EQ(b.Out, fresh.Out) << "result written";
          }
          if (x.Untouched && e.Memory == Oom::RangeFilter) {
            EXPECT_TRUE(qvt::SameBytes(fresh.Dest.data, b.Dest.data)) << "Dest touched";
          }
          EXPECT_EQ(hook.Live(), x.Leaked) << "blocks kept";
        }
        // The rows with a rule of their own must have reached an allocation.
        if (e.Memory != Oom::Status2) {
          EXPECT_GT(n, 1) << "no allocation made";
        }
      }
  }
  RecordProperty("calls", calls);
}

// The allocating operators are the ones the loop above exercised; this pins
// that the hook sees every scratch request of a sample of them (a missing
// request would be memory the rule cannot account for).
TEST(OutOfMemory, AllocatingExportsAllocate) {
  for (const char* name : {"QV_BoxBlur", "QV_GaussBlur", "QV_MedianBlur", "QV_GuidedFilter", "QV_ExpBlur",
                           "QV_MaxFilter", "QV_Resample bilinear", "QV_ShowFFT", "QV_WhiteNoise"}) {
    const qvr::Export* found = nullptr;
    for (const auto& e : qvr::Exports())
      if (std::string(e.Name) == name) found = &e;
    ASSERT_NE(found, nullptr) << name;
    qvr::Buffers b(*found, 37, 23, 3, 1, 3);
    qvt::AllocHook hook;
    EXPECT_EQ(found->Run(b.Args()), STATUS_OK) << name;
    EXPECT_GT(hook.Requests(), 0) << name;
    EXPECT_EQ(hook.Live(), 0) << name;
  }
}

}  // namespace
