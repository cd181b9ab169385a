// Scalar clamps and the border index rules shared by the window filters,
// the pyramid kernels and the table-driven borders.
#pragma once

#include <cmath>

namespace qv {

static inline int ClampToByte(int v) { return v < 0 ? 0 : (v < 256 ? v : 255); }

// floor(v + 0.5) for the positive values every caller passes. The historical
// routine recursed without end for v <= 0; here that case rounds half away
// from zero instead of overflowing the stack.
static inline double RoundHalfAway(float v) {
  if (v > 0) return std::floor(static_cast<double>(v) + 0.5);
  return -std::floor(-static_cast<double>(v) + 0.5);
}

// Periodic: i mod n, for any sign of i.
static inline int WrapIndex(int n, int i) {
  int r = i % n;
  return r < 0 ? r + n : r;
}

// Reflection repeating the edge sample (row -1 is row 0), period 2n.
static inline int MirrorIndex(int n, int i) {
  int p = 2 * n;
  int r = i % p;
  if (r < 0) r += p;
  return r < n ? r : p - 1 - r;
}

// Reflection without the edge sample (column -1 is column 1). Exact for one
// reflection only: further out it wraps, as the pyramid kernels expect.
static inline int Reflect101Index(int n, int i) {
  if (n == 1) return 0;
  if (i < 0) {
    i = -i;
    while (i >= n) i -= n;
    return i;
  }
  if (i >= n) {
    i = 2 * n - i - 2;
    while (i < 0) i += n;
    return i;
  }
  return i;
}

// Larger left/top and smaller right/bottom; an empty result is not detected.
static inline void IntersectRect(int* Left, int* Top, int* Right, int* Bottom, int L1, int T1, int R1, int B1,
                                 int L2, int T2, int R2, int B2) {
  *Left = L1 > L2 ? L1 : L2;
  *Top = T1 > T2 ? T1 : T2;
  *Right = R1 < R2 ? R1 : R2;
  *Bottom = B1 < B2 ? B1 : B2;
}

// Table[k] = source index of position k - Left for k in [0, Left+Length+Right).
// Mode 1 clamps, 2 wraps, 3 mirrors. Returns a status.
int BuildBorderTable(int* Table, int Length, int Left, int Right, int Mode);

}  // namespace qv
