// The 3x3 stencil row driver shared by the sharpeners and Sobel: three
// padded rows rolling down the image, edge pixels and edge rows repeated.
#pragma once

#include <cstddef>
#include <cstring>

#include "frame/frame.h"

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

// Runs a 3x3 stencil row by row: Row(up, centre, down, out) with the three
// padded rows (edge rows repeated) and Dest row y. Each source row is taken
// before the output row above it is written, so Src may be Dest. Returns
// STATUS_OUT_OF_MEMORY, Dest untouched, if the row block cannot be had.
template <typename RowFn>
static inline int RunStencil3x3(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                int Channel, RowFn&& Row) {
  const size_t pitch = (size_t(Width) + 2) * Channel;
  unsigned char* block = MallocArray<unsigned char>(3 * pitch);
  if (block == nullptr) return STATUS_OUT_OF_MEMORY;
  const RollingRows rows{block, pitch, Channel};
  LoadPaddedRow(rows, Src, Width, 0);
  for (int y = 0; y < Height; ++y) {
    if (y + 1 < Height) LoadPaddedRow(rows, Src + size_t(y + 1) * Stride, Width, y + 1);
    Row(rows.Slot(y > 0 ? y - 1 : 0), rows.Slot(y), rows.Slot(y + 1 < Height ? y + 1 : y), Dest + size_t(y) * Stride);
  }
  Free(block);
  return STATUS_OK;
}

}  // namespace qv
