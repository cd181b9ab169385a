// Routines shared by the sharpen family: the rolling padded rows of the two
// 3x3 stencils, the overlay blend, and a floor shift without shifting a
// negative value.
#pragma once

#include <cstddef>
#include <cstring>

namespace qv {

// Three padded rows of (Width + 2) * Channel bytes in one block: the first
// pixel repeated in front, the last pixel behind. Row r lives in slot r mod 3,
// and rows above the top and below the bottom are the edge rows themselves.
struct RollingRows {
  unsigned char* Block;
  size_t Pitch;
  int Channel;
  unsigned char* Slot(int Row) const { return Block + size_t(Row % 3) * Pitch; }
};

// Copies one source row into its slot and fills the one-pixel borders.
static inline void LoadPaddedRow(const RollingRows& R, const unsigned char* Src, int Width, int Row) {
  unsigned char* p = R.Slot(Row);
  const size_t n = size_t(Width) * R.Channel;
  std::memcpy(p + R.Channel, Src, n);
  std::memcpy(p, Src, R.Channel);
  std::memcpy(p + R.Channel + n, Src + n - R.Channel, R.Channel);
}

// floor(v / 2^Bits), the arithmetic right shift, written for negative values too.
static inline int FloorShift(int v, int Bits) { return v >= 0 ? v >> Bits : ~((~v) >> Bits); }

// Overlay of Src2 on Src1 over the whole run of Height * Stride bytes: with a
// from Src1 and b from Src2, (a b) >> 7 for a <= 128, else
// 255 - (((255 - a)(255 - b)) >> 7). Dest may be either source.
int OverlayBlend(const unsigned char* Src1, const unsigned char* Src2, unsigned char* Dest, int Width, int Height,
                 int Stride);

}  // namespace qv
