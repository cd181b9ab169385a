// Shared test helpers: exact-size images, deterministic random content, the
// shapes every byte-exact comparison walks, status tables with their "Dest
// untouched" guard, the divide-fault death test and the allocation hook.
#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "frame/frame.h"
#include "quelvin.h"

namespace qvt {

using Bytes = std::vector<unsigned char>;

// A buffer of exactly Height * Stride bytes, so the address sanitizer sees
// any access outside what the arguments describe.
struct Image {
  int Width = 0, Height = 0, Stride = 0, Channel = 0;
  Bytes data;
  unsigned char* ptr() { return data.data(); }
  const unsigned char* ptr() const { return data.data(); }
  unsigned char& at(int x, int y, int c) { return data[size_t(y) * Stride + size_t(x) * Channel + c]; }
  unsigned char at(int x, int y, int c) const { return data[size_t(y) * Stride + size_t(x) * Channel + c]; }
};

inline std::mt19937& Rng() {
  static std::mt19937 rng(12345);
  return rng;
}

inline void FillRandom(Bytes& b, std::mt19937& rng = Rng()) {
  std::uniform_int_distribution<int> d(0, 255);
  for (auto& v : b) v = static_cast<unsigned char>(d(rng));
}

// Stride = Width * Channel + Pad (Pad must stay below Width to keep Channel).
inline Image MakeImage(int Width, int Height, int Channel, int Pad = 0, bool Random = true) {
  Image im;
  im.Width = Width;
  im.Height = Height;
  im.Channel = Channel;
  im.Stride = Width * Channel + Pad;
  im.data.assign(size_t(im.Stride) * Height, 0);
  if (Random) FillRandom(im.data);
  return im;
}

// Smooth, natural-looking content (gradients plus a little noise), for the
// operators whose random-noise behaviour says little.
inline Image MakeNaturalImage(int Width, int Height, int Channel, int Pad = 0, unsigned Seed = 7) {
  Image im = MakeImage(Width, Height, Channel, Pad, false);
  std::mt19937 rng(Seed);
  std::uniform_int_distribution<int> n(-12, 12);
  for (int y = 0; y < Height; ++y)
    for (int x = 0; x < Width; ++x)
      for (int c = 0; c < Channel; ++c) {
        int v = (x * 255) / (Width > 1 ? Width - 1 : 1) * (c + 1) / 3 +
                (y * 200) / (Height > 1 ? Height - 1 : 1) / (c + 1) + n(rng);
        im.at(x, y, c) = static_cast<unsigned char>(v < 0 ? 0 : (v > 255 ? 255 : v));
      }
  return im;
}

struct Shape {
  int Width, Height, Channel, Pad;
};
inline std::string ToString(const Shape& s) {
  return "W=" + std::to_string(s.Width) + " H=" + std::to_string(s.Height) + " C=" + std::to_string(s.Channel) +
         " pad=" + std::to_string(s.Pad);
}

// Every tail length (widths 1..40) and a few large widths, heights 1..3 and
// one taller, each channel count asked for, unpadded and padded rows.
inline std::vector<Shape> TailShapes(std::initializer_list<int> Channels, int MaxHeight = 3) {
  std::vector<Shape> out;
  for (int c : Channels) {
    for (int w = 1; w <= 40; ++w)
      for (int h = 1; h <= MaxHeight; ++h) {
        out.push_back({w, h, c, 0});
        if (w > 3) out.push_back({w, h, c, (w * 7 + h) % (w > 4 ? 4 : w)});  // pads below Width
      }
    for (int w : {63, 64, 65, 127, 255, 333})
      for (int h : {1, 7}) {
        out.push_back({w, h, c, 0});
        out.push_back({w, h, c, 3});
      }
  }
  return out;
}

// Byte comparison that names the first difference.
inline ::testing::AssertionResult SameBytes(const Bytes& expect, const Bytes& got, int Stride = 0) {
  if (expect.size() != got.size()) return ::testing::AssertionFailure() << "sizes differ";
  for (size_t i = 0; i < expect.size(); ++i)
    if (expect[i] != got[i]) {
      auto f = ::testing::AssertionFailure() << "first difference at byte " << i;
      if (Stride > 0) f << " (row " << i / Stride << ", offset " << i % Stride << ")";
      return f << ": expected " << int(expect[i]) << ", got " << int(got[i]);
    }
  return ::testing::AssertionSuccess();
}

// Arms the allocation hook for one scope and disarms it on exit.
struct AllocHook {
  AllocHook() { qv::alloc_hook::Reset(); }
  explicit AllocHook(int FailAt) {
    qv::alloc_hook::Reset();
    qv::alloc_hook::FailAt(FailAt);
  }
  ~AllocHook() { qv::alloc_hook::Disarm(); }
  int Requests() const { return qv::alloc_hook::Requests(); }
  int Live() const { return qv::alloc_hook::Live(); }
};

// Runs Call with the 1st, 2nd, ... allocation failing until a run completes
// without reaching the failure; each failing run must return Expected
// (by default 2) and leave nothing allocated. Returns the number of
// allocations a successful call makes.
inline int CheckEveryAllocationFailure(const std::function<int()>& Call, int Expected = STATUS_OUT_OF_MEMORY,
                                       const std::function<void()>& AfterFailure = nullptr) {
  for (int n = 1; n < 1000; ++n) {
    AllocHook hook(n);
    int status = Call();
    if (hook.Requests() < n) {
      EXPECT_EQ(hook.Live(), 0) << "leak after a successful call";
      return n - 1;
    }
    EXPECT_EQ(status, Expected) << "allocation " << n << " failed";
    EXPECT_EQ(hook.Live(), 0) << "leak after allocation " << n << " failed";
    if (AfterFailure) AfterFailure();
  }
  ADD_FAILURE() << "call keeps allocating";
  return -1;
}

// Remembers a buffer's bytes; Check() says whether they are all still there.
class Untouched {
 public:
  Untouched(const unsigned char* p, size_t n) : p_(p), before_(p, p + n) {}
  explicit Untouched(const Image& im) : Untouched(im.ptr(), im.data.size()) {}
  ::testing::AssertionResult Check() const { return SameBytes(before_, Bytes(p_, p_ + before_.size())); }

 private:
  const unsigned char* p_;
  Bytes before_;
};

// One row of the usual frame table: a call's buffers and sizes, and its status.
struct FrameCase {
  const char* what;
  const unsigned char* src;
  unsigned char* dst;
  int w, h, stride, expect;
};

// Runs each row of a status table (any struct with `what` and `expect`):
// Call(row) must give row.expect, and a failed call must leave the
// DestBytes bytes at Dest as they were.
template <class Cases, class Call>
void CheckStatusTable(const Cases& Table, const unsigned char* Dest, size_t DestBytes, Call&& Run) {
  for (const auto& c : Table) {
    Untouched guard(Dest, DestBytes);
    EXPECT_EQ(Run(c), c.expect) << c.what;
    if (c.expect != STATUS_OK) {
      EXPECT_TRUE(guard.Check()) << c.what << ": Dest touched";
    }
  }
}

// The frames that divide first: Call (given a Width of 0 the compiler cannot
// see) must die of the divide fault.
template <class Call>
void ExpectDivideFault(Call&& Run) {
  volatile int zero = 0;
  EXPECT_EXIT(Run(zero), ::testing::KilledBySignal(SIGFPE), "");
}

// CheckEveryAllocationFailure where each failed call must also leave Dest
// as it was.
inline int CheckAllocationFailuresKeep(const std::function<int()>& Call, const Image& Dest,
                                       int Expected = STATUS_OUT_OF_MEMORY) {
  const Untouched guard(Dest);
  return CheckEveryAllocationFailure(Call, Expected, [&] { EXPECT_TRUE(guard.Check()) << "Dest touched"; });
}

}  // namespace qvt
