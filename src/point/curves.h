// Per-sample curves: the applicator of three 256-entry tables that the gamma
// correction and the make-up operators share.
#pragma once

namespace qv {

// Dest[0..2] = CurveB/G/R[Src[0..2]] per pixel; a fourth sample of Dest is not
// written. Frame: division, Channel (3 or 4, else 1), Src or Dest null 3, sizes 1.
int ApplyChannelCurves(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                       const unsigned char* CurveB, const unsigned char* CurveG, const unsigned char* CurveR);

}  // namespace qv
