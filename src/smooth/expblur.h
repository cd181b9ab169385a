// The two halves of the exponential blur, also called on their own as
// directional blurs by other families.
#pragma once

namespace qv {

// One-pole low-pass along each row, left to right then back. Src may be Dest.
int ExpBlurRows(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius);

// The same filter down the columns and back up. With Src different from Dest
// the last (Width * Channel) mod 16 samples of each row read Dest, not Src.
int ExpBlurColumns(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius);

// The Q16 gain for a radius, as the 16-bit value the kernels multiply by.
int ExpBlurAlpha(int Radius);

}  // namespace qv
