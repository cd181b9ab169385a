// Routines shared by the sharpen family: the overlay blend and a floor shift
// without shifting a negative value.
#pragma once

#include "frame/stencil.h"

namespace qv {

// floor(v / 2^Bits), the arithmetic right shift, written for negative values too.
static inline int FloorShift(int v, int Bits) { return v >= 0 ? v >> Bits : ~((~v) >> Bits); }

// Overlay of Src2 on Src1 over the whole run of Height * Stride bytes: with a
// from Src1 and b from Src2, (a b) >> 7 for a <= 128, else
// 255 - (((255 - a)(255 - b)) >> 7). Dest may be either source.
int OverlayBlend(const unsigned char* Src1, const unsigned char* Src2, unsigned char* Dest, int Width, int Height,
                 int Stride);

}  // namespace qv
