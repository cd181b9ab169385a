// The frame all sharpen operators share (division, pointers, sizes, Channel)
// as one status table, and a way to run the whole-run blur models.
#pragma once

#include <functional>

#include "support/support.h"

namespace qvt {

using FrameCall = std::function<int(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride)>;

// Each row a call and its status, in frame order; no failed call touches Dest.
inline void CheckStandardFrame(const FrameCall& Call, int BadChannel) {
  unsigned char src[64], buf[64];
  for (int i = 0; i < 64; ++i) src[i] = static_cast<unsigned char>(i * 37), buf[i] = static_cast<unsigned char>(i);
  const FrameCase cases[] = {
      {"null src before sizes", nullptr, buf, 3, 0, 9, STATUS_NULL_REFERENCE},
      {"null dest before sizes", src, nullptr, 3, 0, 9, STATUS_NULL_REFERENCE},
      {"null dest before channel", src, nullptr, 4, 1, 8, STATUS_NULL_REFERENCE},
      {"height 0", src, buf, 3, 0, 9, STATUS_INVALID_PARAMETER},
      {"negative width", src, buf, -3, 1, 9, STATUS_INVALID_PARAMETER},
      {"height 0 before channel", src, buf, 4, 0, 8, STATUS_INVALID_PARAMETER},
      {"channel 2", src, buf, 4, 1, 8, BadChannel},
      {"channel 0", src, buf, 4, 1, 3, BadChannel},
      {"channel 5", src, buf, 3, 1, 15, BadChannel},
  };
  CheckStatusTable(cases, buf, sizeof buf, [&](const FrameCase& c) { return Call(c.src, c.dst, c.w, c.h, c.stride); });
}

// The frame divides first: a Width of 0 faults even with a null pointer.
inline void ExpectZeroWidthFaults(const FrameCall& Call) {
  unsigned char buf[16] = {};
  ExpectDivideFault([&](int w) { return Call(nullptr, buf, w, 0, 4); });
}

// The exported exponential blur of Src over a copy of Dest: what an operator
// that blurs into Dest sees there, row padding keeping Dest's old bytes.
inline Bytes BlurOver(const Image& Src, const Bytes& Dest, int Radius) {
  Bytes out = Dest;
  EXPECT_EQ(QV_ExpBlur(Src.ptr(), out.data(), Src.Width, Src.Height, Src.Stride, Radius), STATUS_OK);
  return out;
}

inline int Clamp255(long long v) { return v < 0 ? 0 : (v > 255 ? 255 : int(v)); }

}  // namespace qvt
