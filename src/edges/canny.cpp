// Canny edges on a single-channel image (no smoothing of its own): Sobel
// gradients and magnitude, non-maximum suppression by sectors or by
// interpolation, double threshold, and tracking by a walk or by one pass.
#include <emmintrin.h>
#include <smmintrin.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "frame/frame.h"
#include "frame/simd.h"

namespace {

enum : unsigned char { kNone = 0, kWeak = 127, kStrong = 255 };

template <typename T>
void PadRow(const T* Row, T* Padded, int Width) {
  std::memcpy(Padded + 1, Row, sizeof(T) * size_t(Width));
  Padded[0] = Row[0];
  Padded[Width + 1] = Row[Width - 1];
}

// Threshold in the scale of the compared value; shifts and products wrap
// through unsigned arithmetic so a negative or huge threshold stays defined.
int32_t ScaleThreshold(int t, bool L2, bool Interpolate) {
  const uint32_t u = static_cast<uint32_t>(t);
  if (L2) return static_cast<int32_t>(Interpolate ? u << 21 : u * u);
  return static_cast<int32_t>(Interpolate ? u << 15 : u);
}

// Step 1 and 2 for one row: gradients into GradX/GradY, magnitude into Mag.
void GradientRow(const uint8_t* T, const uint8_t* C, const uint8_t* B, int16_t* Gx, int16_t* Gy, uint16_t* Mag,
                 int Width, bool L2, bool Interpolate) {
  const int body = Width & ~15;
  for (int x = 0; x < body; x += 8) {
    auto W = [x](const uint8_t* p) { return _mm_cvtepu8_epi16(qv::Load8Bytes(p + x)); };
    const __m128i tl = W(T - 1), tm = W(T), tr = W(T + 1), cl = W(C - 1), cr = W(C + 1);
    const __m128i bl = W(B - 1), bm = W(B), br = W(B + 1);
    const __m128i dc = _mm_sub_epi16(cr, cl);
    const __m128i gx =
        _mm_add_epi16(_mm_add_epi16(dc, dc), _mm_add_epi16(_mm_sub_epi16(tr, tl), _mm_sub_epi16(br, bl)));
    const __m128i dm = _mm_sub_epi16(tm, bm);
    const __m128i gy =
        _mm_add_epi16(_mm_add_epi16(dm, dm), _mm_sub_epi16(_mm_add_epi16(tl, tr), _mm_add_epi16(bl, br)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Gx + x), gx);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Gy + x), gy);
    __m128i m;
    if (!L2) {
      m = _mm_add_epi16(_mm_abs_epi16(gx), _mm_abs_epi16(gy));
    } else {
      __m128i lo = _mm_madd_epi16(_mm_unpacklo_epi16(gx, gy), _mm_unpacklo_epi16(gx, gy));
      __m128i hi = _mm_madd_epi16(_mm_unpackhi_epi16(gx, gy), _mm_unpackhi_epi16(gx, gy));
      if (Interpolate) {
        // s << 12 wraps for s of 2^19 or more: the root is then not a number
        // and truncates to the integer indefinite, which packs to 0.
        lo = _mm_cvttps_epi32(_mm_sqrt_ps(_mm_cvtepi32_ps(_mm_slli_epi32(lo, 12))));
        hi = _mm_cvttps_epi32(_mm_sqrt_ps(_mm_cvtepi32_ps(_mm_slli_epi32(hi, 12))));
      }
      m = _mm_packus_epi32(lo, hi);
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Mag + x), m);
  }
  for (int x = body; x < Width; ++x) {
    const int gx = 2 * (C[x + 1] - C[x - 1]) + T[x + 1] - T[x - 1] + B[x + 1] - B[x - 1];
    const int gy = 2 * (T[x] - B[x]) + T[x - 1] + T[x + 1] - B[x - 1] - B[x + 1];
    Gx[x] = static_cast<int16_t>(gx);
    Gy[x] = static_cast<int16_t>(gy);
    if (!L2) {
      Mag[x] = static_cast<uint16_t>(std::abs(gx) + std::abs(gy));
    } else {
      const int s = gx * gx + gy * gy;
      if (Interpolate) {
        const int shifted = static_cast<int>(static_cast<uint32_t>(s) << 12);
        // Truncation through the processor's conversion: a not-a-number gives
        // 0x80000000, whose low 16 bits are 0, as in the body.
        Mag[x] = static_cast<uint16_t>(_mm_cvttsd_si32(_mm_set_sd(std::sqrt(static_cast<double>(shifted)))));
      } else {
        Mag[x] = static_cast<uint16_t>(s > 65535 ? 65535 : s);
      }
    }
  }
}

// Sectors: horizontal, vertical or one of the diagonals, each test strict on
// one side only so that a plateau keeps one pixel.
inline bool SectorMaximum(int m, int gx, int gy, const uint16_t* U, const uint16_t* M, const uint16_t* D, int x) {
  const int ax = gx < 0 ? -gx : gx, ay = gy < 0 ? -gy : gy;
  const int ay15 = ay << 15, tan22 = ax * 13573;
  if (ay15 < tan22) return m > M[x - 1] && m >= M[x + 1];
  if (ay15 > (ax << 16) + tan22) return m > U[x] && m >= D[x];
  const int d = (gx ^ gy) < 0 ? -1 : 1;
  return m > U[x + d] && m >= D[x - d];
}

// Interpolation between a near and a far neighbour on each side, weights in
// 15 fractional bits. A zero gradient (only reached below a negative low
// threshold) has no direction and no divisor: not a maximum.
inline bool InterpolatedMaximum(int M32, int gx, int gy, const uint16_t* U, const uint16_t* M, const uint16_t* D,
                                int x) {
  const int ax = gx < 0 ? -gx : gx, ay = gy < 0 ? -gy : gy;
  if (ax == 0 && ay == 0) return false;
  const bool negative = gx * gy < 0;
  int w, near1, near2, far1, far2;
  if (ay <= ax) {
    w = (ay << 15) / ax;
    near1 = M[x + 1], near2 = M[x - 1];
    if (negative)
      far1 = D[x + 1], far2 = U[x - 1];
    else
      far1 = U[x + 1], far2 = D[x - 1];
  } else {
    w = (ax << 15) / ay;
    near1 = U[x], near2 = D[x];
    if (negative)
      far1 = U[x - 1], far2 = D[x + 1];
    else
      far1 = U[x + 1], far2 = D[x - 1];
  }
  return M32 > far1 * w + near1 * (32768 - w) && M32 >= far2 * w + near2 * (32768 - w);
}

// Step 9: one pass that sees the old labels of all eight neighbours.
void TrackOnePass(unsigned char* Dest, uint8_t* rows, int Width, int Height, int Stride) {
  const int padded = Width + 2;
  uint8_t* T = rows;
  uint8_t* C = rows + padded;
  uint8_t* B = rows + 2 * padded;
  PadRow(Dest, C, Width);
  std::memcpy(T, C, size_t(padded));
  if (Height > 1)
    PadRow(Dest + Stride, B, Width);
  else
    std::memcpy(B, C, size_t(padded));
  const __m128i weak = _mm_set1_epi8(static_cast<char>(kWeak));
  for (int y = 0; y < Height; ++y) {
    unsigned char* d = Dest + size_t(y) * Stride;
    const uint8_t *t = T + 1, *c = C + 1, *b = B + 1;
    const int body = Width & ~15;
    for (int x = 0; x < body; x += 16) {
      const __m128i centre = qv::Load16Bytes(c + x);
      const __m128i isweak = _mm_cmpeq_epi8(centre, weak);
      if (_mm_movemask_epi8(isweak) == 0) continue;
      __m128i any = _mm_or_si128(qv::Load16Bytes(t + x - 1), qv::Load16Bytes(t + x));
      any = _mm_or_si128(any, _mm_or_si128(qv::Load16Bytes(t + x + 1), qv::Load16Bytes(c + x - 1)));
      any = _mm_or_si128(any, _mm_or_si128(qv::Load16Bytes(c + x + 1), qv::Load16Bytes(b + x - 1)));
      any = _mm_or_si128(any, _mm_or_si128(qv::Load16Bytes(b + x), qv::Load16Bytes(b + x + 1)));
      qv::Store16Bytes(d + x, _mm_blendv_epi8(centre, any, isweak));
    }
    for (int x = body; x < Width; ++x) {
      if (c[x] != kWeak) continue;
      if (t[x - 1] > 254 || t[x] > 254 || t[x + 1] > 254 || c[x - 1] > 254 || c[x + 1] > 254 || b[x - 1] > 254 ||
          b[x] > 254 || b[x + 1] > 254)
        d[x] = kStrong;
    }
    if (y + 1 == Height) break;
    uint8_t* r = T;
    T = C, C = B, B = r;
    if (y + 2 < Height)
      PadRow(Dest + size_t(y + 2) * Stride, B, Width);
    else
      std::memcpy(B, C, size_t(padded));
  }
}

// Step 8: a breadth-first walk from each strong pixel; the queue holds
// columns in Qx and rows in Qy as 16-bit values, read back unsigned so that
// they always name a pixel inside the image.
void TrackByWalk(unsigned char* Dest, int16_t* Qx, int16_t* Qy, int Width, int Height, int Stride) {
  for (int y = 0; y < Height; ++y)
    for (int x = 0; x < Width; ++x) {
      if (Dest[size_t(y) * Stride + x] != kStrong) continue;
      size_t head = 0, tail = 0;
      Qx[tail] = static_cast<int16_t>(x), Qy[tail] = static_cast<int16_t>(y), ++tail;
      while (head < tail) {
        const int cx = static_cast<uint16_t>(Qx[head]), cy = static_cast<uint16_t>(Qy[head]);
        ++head;
        for (int dy = -1; dy <= 1; ++dy)
          for (int dx = -1; dx <= 1; ++dx) {
            const int nx = cx + dx, ny = cy + dy;
            if ((dx == 0 && dy == 0) || nx < 0 || ny < 0 || nx >= Width || ny >= Height) continue;
            unsigned char& p = Dest[size_t(ny) * Stride + nx];
            if (p != kWeak) continue;
            p = kStrong;
            Qx[tail] = static_cast<int16_t>(nx), Qy[tail] = static_cast<int16_t>(ny), ++tail;
          }
      }
    }
}

}  // namespace

extern "C" QV_API int QV_Canny(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                               int LowThreshold, int HighThreshold, unsigned char UseL2Norm,
                               unsigned char InterpolateNms, unsigned char TrackEdges) {
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (qv::GuardedChannel(Stride, Width) != 1) return STATUS_INVALID_PARAMETER;

  const size_t plane = qv::RunBytes(Height, Stride);
  uint8_t* rows = qv::MallocArray<uint8_t>(size_t(Width + 2) * 6);
  int16_t* gradx = qv::MallocArray<int16_t>(plane);
  int16_t* grady = qv::MallocArray<int16_t>(plane);
  uint16_t* mag = qv::MallocArray<uint16_t>(plane);
  if (rows == nullptr || gradx == nullptr || grady == nullptr || mag == nullptr) {
    qv::Free(rows), qv::Free(gradx), qv::Free(grady), qv::Free(mag);
    return STATUS_OUT_OF_MEMORY;
  }
  const bool l2 = UseL2Norm != 0, interpolate = InterpolateNms == 1;

  // 1-2. Gradients and magnitudes of every row; all of Src is read here.
  {
    const int padded = Width + 2;
    uint8_t* T = rows;
    uint8_t* C = rows + padded;
    uint8_t* B = rows + 2 * padded;
    PadRow(Src, C, Width);
    std::memcpy(T, C, size_t(padded));
    // With one row, row 1 does not exist: the lower row is row 0 again.
    PadRow(Src + (Height > 1 ? size_t(Stride) : 0), B, Width);
    for (int y = 0; y < Height; ++y) {
      const size_t o = size_t(y) * Stride;
      GradientRow(T + 1, C + 1, B + 1, gradx + o, grady + o, mag + o, Width, l2, interpolate);
      if (y + 1 == Height) break;
      uint8_t* r = T;
      T = C, C = B, B = r;
      if (y + 2 < Height)
        PadRow(Src + size_t(y + 2) * Stride, B, Width);
      else
        std::memcpy(B, C, size_t(padded));
    }
  }

  // 3-4.
  const int32_t low = ScaleThreshold(LowThreshold, l2, interpolate);
  const int32_t high = ScaleThreshold(HighThreshold, l2, interpolate);
  std::memset(Dest, 0, plane);

  // 5-7. Suppression over padded rows of magnitudes, rejection first.
  {
    uint16_t* rows16 = reinterpret_cast<uint16_t*>(rows);
    const int padded = Width + 2;
    uint16_t* U = rows16;
    uint16_t* M = rows16 + padded;
    uint16_t* D = rows16 + 2 * padded;
    PadRow(mag, M, Width);
    std::memcpy(U, M, sizeof(uint16_t) * padded);
    if (Height > 1)
      PadRow(mag + Stride, D, Width);
    else
      std::memcpy(D, M, sizeof(uint16_t) * padded);
    for (int y = 0; y < Height; ++y) {
      const size_t o = size_t(y) * Stride;
      const uint16_t *u = U + 1, *m = M + 1, *d = D + 1;
      for (int x = 0; x < Width; ++x) {
        const int v = m[x];
        const int gx = gradx[o + x], gy = grady[o + x];
        if (interpolate) {
          const int v32 = v * 32768;
          if (v32 <= low) continue;
          if (InterpolatedMaximum(v32, gx, gy, u, m, d, x)) Dest[o + x] = v32 > high ? kStrong : kWeak;
        } else {
          if (v <= low) continue;
          if (SectorMaximum(v, gx, gy, u, m, d, x)) Dest[o + x] = v > high ? kStrong : kWeak;
        }
      }
      if (y + 1 == Height) break;
      uint16_t* r = U;
      U = M, M = D, D = r;
      if (y + 2 < Height)
        PadRow(mag + size_t(y + 2) * Stride, D, Width);
      else
        std::memcpy(D, M, sizeof(uint16_t) * padded);
    }
  }

  // 8-9. The gradient planes are free now and serve as the walk's queue.
  if (TrackEdges != 0)
    TrackByWalk(Dest, gradx, grady, Width, Height, Stride);
  else
    TrackOnePass(Dest, rows, Width, Height, Stride);

  // 10. Whatever is not strong, padding included, becomes 0.
  const size_t body = plane & ~size_t(15);
  const __m128i strong = _mm_set1_epi8(static_cast<char>(kStrong));
  for (size_t i = 0; i < body; i += 16) qv::Store16Bytes(Dest + i, _mm_cmpeq_epi8(qv::Load16Bytes(Dest + i), strong));
  for (size_t i = body; i < plane; ++i) Dest[i] = Dest[i] == kStrong ? kStrong : kNone;

  qv::Free(rows), qv::Free(gradx), qv::Free(grady), qv::Free(mag);
  return STATUS_OK;
}
