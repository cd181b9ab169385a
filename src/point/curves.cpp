// Curve application (scalar table look-ups, row by row) and the gamma
// correction that builds one 256-entry curve and applies it to all three.
#include "point/curves.h"

#include <cmath>

#include "frame/frame.h"
#include "point/convert.h"

namespace qv {

int ApplyChannelCurves(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                       const unsigned char* CurveB, const unsigned char* CurveG, const unsigned char* CurveR) {
  const int Channel = DeriveChannel(Stride, Width);
  if (!IsChannel34(Channel)) return STATUS_INVALID_PARAMETER;  // before the pointers, as documented
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;

  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    unsigned char* d = Dest + size_t(y) * Stride;
    for (int x = 0; x < Width; ++x, s += Channel, d += Channel) {
      d[0] = CurveB[s[0]];
      d[1] = CurveG[s[1]];
      d[2] = CurveR[s[2]];
    }
  }
  return STATUS_OK;
}

}  // namespace qv

extern "C" QV_API int QV_GammaCorrection(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                         int Stride, float Gamma) {
  // The table comes first: even a call that then fails builds it.
  unsigned char table[256];
  for (int i = 0; i < 256; ++i) {
    const double t = i * static_cast<double>(0.003921569f);  // just above 1/255: Gamma 1 stays the identity
    const double q = std::pow(t, static_cast<double>(Gamma)) * 255;
    // Infinite or huge values (a negative Gamma at 0) truncate to INT_MIN and end as 0.
    const int v = qv::TruncateToInt(q);
    table[i] = static_cast<unsigned char>(v < 0 ? 0 : (v > 255 ? 255 : v));
  }
  return qv::ApplyChannelCurves(Src, Dest, Width, Height, Stride, table, table, table);
}
