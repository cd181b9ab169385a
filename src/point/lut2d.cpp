// Colour look-up through a 512 x 512 table of 64 x 64 tiles, interpolated
// along the first sample's axis only (the other two are cut to 6 bits).
#include "frame/frame.h"

namespace {

// Byte offset of the table pixel for (B6, G6, R6): tile B6 counted row by row,
// row G6 and column R6 inside it.
inline int TableOffset(int b6, int g6, int r6) { return 3 * (((b6 >> 3) * 64 + g6) * 512 + (b6 & 7) * 64 + r6); }

}  // namespace

extern "C" QV_API int QV_Lut2D(const unsigned char* Src, const unsigned char* Table, unsigned char* Dest, int Width,
                               int Height, int Stride) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Table == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel34(Channel)) return STATUS_INVALID_PARAMETER;

  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    unsigned char* d = Dest + size_t(y) * Stride;
    for (int x = 0; x < Width; ++x, s += Channel, d += Channel) {
      const int b = s[0], g6 = s[1] >> 2, r6 = s[2] >> 2;
      const int b6 = b >> 2, f = b & 3;
      const unsigned char* p = Table + TableOffset(b6, g6, r6);
      if (f == 0) {
        d[0] = p[0], d[1] = p[1], d[2] = p[2];
      } else {
        const unsigned char* q = Table + TableOffset(b6 < 63 ? b6 + 1 : 63, g6, r6);
        const int p0 = p[0], p1 = p[1], p2 = p[2];
        d[0] = static_cast<unsigned char>((q[0] * f + p0 * (4 - f)) >> 2);
        d[1] = static_cast<unsigned char>((q[1] * f + p1 * (4 - f)) >> 2);
        d[2] = static_cast<unsigned char>((q[2] * f + p2 * (4 - f)) >> 2);
      }
    }
  }
  return STATUS_OK;
}
