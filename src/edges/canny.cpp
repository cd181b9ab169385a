// Canny edges on a single-channel image (no smoothing of its own): Sobel
// gradients and magnitude, non-maximum suppression by sectors or by
// interpolation, double threshold, and tracking by a walk or by one pass.
#include <emmintrin.h>
#include <smmintrin.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "frame/frame.h"
#include "frame/simd.h"

namespace {

// kWalked marks a pixel the walk made strong, so that the scan does not seed
// a second walk from it; the final pass turns it into 255.
enum : unsigned char { kNone = 0, kWeak = 127, kWalked = 254, kStrong = 255 };

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
// one side only so that a plateau keeps one pixel. l and r are the columns
// left and right of x, the edge column standing in for a missing one.
inline bool SectorMaximum(int m, int gx, int gy, const uint16_t* U, const uint16_t* M, const uint16_t* D, int x, int l,
                          int r) {
  const int ax = gx < 0 ? -gx : gx, ay = gy < 0 ? -gy : gy;
  const int ay15 = ay << 15, tan22 = ax * 13573;
  if (ay15 < tan22) return m > M[l] && m >= M[r];
  if (ay15 > (ax << 16) + tan22) return m > U[x] && m >= D[x];
  if ((gx ^ gy) < 0) return m > U[l] && m >= D[r];
  return m > U[r] && m >= D[l];
}

// Interpolation between a near and a far neighbour on each side, weights in
// 15 fractional bits. A zero gradient (only reached below a negative low
// threshold) has no direction and no divisor: not a maximum.
inline bool InterpolatedMaximum(int M32, int gx, int gy, const uint16_t* U, const uint16_t* M, const uint16_t* D, int x,
                                int l, int r) {
  const int ax = gx < 0 ? -gx : gx, ay = gy < 0 ? -gy : gy;
  if (ax == 0 && ay == 0) return false;
  const bool negative = gx * gy < 0;
  int w, near1, near2, far1, far2;
  if (ay <= ax) {
    w = (ay << 15) / ax;
    near1 = M[r], near2 = M[l];
    if (negative)
      far1 = D[r], far2 = U[l];
    else
      far1 = U[r], far2 = D[l];
  } else {
    w = (ax << 15) / ay;
    near1 = U[x], near2 = D[x];
    if (negative)
      far1 = U[l], far2 = D[r];
    else
      far1 = U[r], far2 = D[l];
  }
  return M32 > far1 * w + near1 * (32768 - w) && M32 >= far2 * w + near2 * (32768 - w);
}

// A scaled threshold as an unsigned 16-bit "at least" bound for magnitudes,
// which are 0 .. 65535: m > t is m >= t + 1, and On is clear when no
// magnitude can pass.
struct MagnitudeBound {
  __m128i Least, On;
};
MagnitudeBound BoundAbove(int32_t t) {
  if (t >= 65535) return {_mm_setzero_si128(), _mm_setzero_si128()};
  return {_mm_set1_epi16(static_cast<short>(t < 0 ? 0 : t + 1)), _mm_set1_epi16(-1)};
}

// m >= Least for unsigned 16-bit lanes.
inline __m128i AtLeast(__m128i m, __m128i Least) { return _mm_cmpeq_epi16(_mm_max_epu16(m, Least), m); }

// Labels of one row by sectors: eight pixels a step where all neighbours are
// inside the row, the same tests per pixel at both ends.
void SuppressSectorsRow(const int16_t* Gx, const int16_t* Gy, const uint16_t* U, const uint16_t* M, const uint16_t* D,
                        uint8_t* Out, int Width, int32_t Low, int32_t High) {
  auto Scalar = [&](int x) {
    const int v = M[x];
    if (v <= Low) return uint8_t(kNone);
    const int l = x > 0 ? x - 1 : 0, r = x + 1 < Width ? x + 1 : Width - 1;
    if (!SectorMaximum(v, Gx[x], Gy[x], U, M, D, x, l, r)) return uint8_t(kNone);
    return uint8_t(v > High ? kStrong : kWeak);
  };
  Out[0] = Scalar(0);
  int x = 1;
  const MagnitudeBound low = BoundAbove(Low), high = BoundAbove(High);
  // (ax, ay) pairs times (13573, -32768): ax * 13573 - (ay << 15), exact in 32 bits.
  const __m128i tan22 = _mm_setr_epi16(13573, -32768, 13573, -32768, 13573, -32768, 13573, -32768);
  const __m128i weak = _mm_set1_epi16(kWeak), strong = _mm_set1_epi16(kStrong);
  auto L = [](const uint16_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); };
  for (; x + 9 <= Width; x += 8) {
    const __m128i m = L(M + x);
    const __m128i gx = L(reinterpret_cast<const uint16_t*>(Gx + x)), gy = L(reinterpret_cast<const uint16_t*>(Gy + x));
    const __m128i ax = _mm_abs_epi16(gx), ay = _mm_abs_epi16(gy);
    const __m128i hlo = _mm_madd_epi16(_mm_unpacklo_epi16(ax, ay), tan22);
    const __m128i hhi = _mm_madd_epi16(_mm_unpackhi_epi16(ax, ay), tan22);
    // Horizontal: ay << 15 < ax * 13573. Vertical: ay << 15 > (ax << 16) + ax * 13573.
    const __m128i horizontal =
        _mm_packs_epi32(_mm_cmpgt_epi32(hlo, _mm_setzero_si128()), _mm_cmpgt_epi32(hhi, _mm_setzero_si128()));
    const __m128i vlo = _mm_add_epi32(hlo, _mm_unpacklo_epi16(_mm_setzero_si128(), ax));
    const __m128i vhi = _mm_add_epi32(hhi, _mm_unpackhi_epi16(_mm_setzero_si128(), ax));
    const __m128i vertical =
        _mm_packs_epi32(_mm_cmplt_epi32(vlo, _mm_setzero_si128()), _mm_cmplt_epi32(vhi, _mm_setzero_si128()));
    const __m128i differ = _mm_srai_epi16(_mm_xor_si128(gx, gy), 15);
    // The strictly smaller neighbour p and the one m must only reach, q.
    __m128i p = _mm_blendv_epi8(L(U + x + 1), L(U + x - 1), differ);
    __m128i q = _mm_blendv_epi8(L(D + x - 1), L(D + x + 1), differ);
    p = _mm_blendv_epi8(p, L(U + x), vertical);
    q = _mm_blendv_epi8(q, L(D + x), vertical);
    p = _mm_blendv_epi8(p, L(M + x - 1), horizontal);
    q = _mm_blendv_epi8(q, L(M + x + 1), horizontal);
    __m128i keep = _mm_andnot_si128(AtLeast(p, m), AtLeast(m, q));
    keep = _mm_and_si128(keep, _mm_and_si128(AtLeast(m, low.Least), low.On));
    const __m128i isstrong = _mm_and_si128(AtLeast(m, high.Least), high.On);
    const __m128i label = _mm_and_si128(keep, _mm_blendv_epi8(weak, strong, isstrong));
    qv::Store8Bytes(Out + x, _mm_packus_epi16(label, label));
  }
  for (; x < Width; ++x) Out[x] = Scalar(x);
}

void SuppressInterpolatedRow(const int16_t* Gx, const int16_t* Gy, const uint16_t* U, const uint16_t* M,
                             const uint16_t* D, uint8_t* Out, int Width, int32_t Low, int32_t High) {
  for (int x = 0; x < Width; ++x) {
    Out[x] = kNone;
    const int v32 = M[x] * 32768;
    if (v32 <= Low) continue;
    const int l = x > 0 ? x - 1 : 0, r = x + 1 < Width ? x + 1 : Width - 1;
    if (InterpolatedMaximum(v32, Gx[x], Gy[x], U, M, D, x, l, r)) Out[x] = v32 > High ? kStrong : kWeak;
  }
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
// they always name a pixel inside the image. Which strong pixels seed a walk
// does not change the result, only the work: a pixel made strong by a walk
// has had its neighbours looked at already, so it is marked kWalked and the
// scan, which finds the seeds sixteen bytes at a time, skips it.
void TrackByWalk(unsigned char* Dest, int16_t* Qx, int16_t* Qy, int Width, int Height, int Stride) {
  const ptrdiff_t up = -ptrdiff_t(Stride), down = Stride;
  const ptrdiff_t around[8] = {up - 1, up, up + 1, -1, 1, down - 1, down, down + 1};
  auto walk = [&](int x, int y) {
    size_t head = 0, tail = 0;
    Qx[tail] = static_cast<int16_t>(x), Qy[tail] = static_cast<int16_t>(y), ++tail;
    while (head < tail) {
      const int cx = static_cast<uint16_t>(Qx[head]), cy = static_cast<uint16_t>(Qy[head]);
      ++head;
      unsigned char* c = Dest + size_t(cy) * Stride + cx;
      if (cx > 0 && cy > 0 && cx + 1 < Width && cy + 1 < Height) {
        // Inside: no bounds to test, the same visiting order.
        for (int k = 0; k < 8; ++k) {
          unsigned char& p = c[around[k]];
          if (p != kWeak) continue;
          p = kWalked;
          Qx[tail] = static_cast<int16_t>(cx + (k == 0 || k == 3 || k == 5 ? -1 : k == 1 || k == 6 ? 0 : 1));
          Qy[tail] = static_cast<int16_t>(cy + (k < 3 ? -1 : k < 5 ? 0 : 1)), ++tail;
        }
        continue;
      }
      for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx) {
          const int nx = cx + dx, ny = cy + dy;
          if ((dx == 0 && dy == 0) || nx < 0 || ny < 0 || nx >= Width || ny >= Height) continue;
          unsigned char& p = Dest[size_t(ny) * Stride + nx];
          if (p != kWeak) continue;
          p = kWalked;
          Qx[tail] = static_cast<int16_t>(nx), Qy[tail] = static_cast<int16_t>(ny), ++tail;
        }
    }
  };
  const __m128i strong = _mm_set1_epi8(static_cast<char>(kStrong));
  for (int y = 0; y < Height; ++y) {
    const unsigned char* row = Dest + size_t(y) * Stride;
    int x = 0;
    for (; x + 16 <= Width; x += 16) {
      unsigned mask = unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(qv::Load16Bytes(row + x), strong)));
      for (; mask != 0; mask &= mask - 1) walk(x + __builtin_ctz(mask), y);
    }
    for (; x < Width; ++x)
      if (row[x] == kStrong) walk(x, y);
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
  // 3. Thresholds in the scale of the compared value.
  const int32_t low = ScaleThreshold(LowThreshold, l2, interpolate);
  const int32_t high = ScaleThreshold(HighThreshold, l2, interpolate);
  // Rows of the planes are used as a ring of three: only those pages are
  // ever touched before the walk, instead of three whole fresh planes.
  auto slot = [Stride](int y) { return size_t(y % 3) * size_t(Stride); };
  auto suppress = [&](int y) {
    // 4-7 for row y, whose magnitudes below are known: labels, then the
    // row's padding cleared (the whole run ends up cleared as before).
    const size_t o = slot(y);
    const uint16_t* u = mag + (y > 0 ? slot(y - 1) : o);
    const uint16_t* d = mag + (y + 1 < Height ? slot(y + 1) : o);
    unsigned char* out = Dest + size_t(y) * Stride;
    if (interpolate)
      SuppressInterpolatedRow(gradx + o, grady + o, u, mag + o, d, out, Width, low, high);
    else
      SuppressSectorsRow(gradx + o, grady + o, u, mag + o, d, out, Width, low, high);
    std::memset(out + Width, 0, size_t(Stride - Width));
  };

  // 1-7. Gradients and magnitudes one row ahead of the suppression, which
  // needs the row below. Src row y + 2 is copied into the padded rows before
  // Dest row y is written, so Src may be Dest.
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
      const size_t o = slot(y);
      GradientRow(T + 1, C + 1, B + 1, gradx + o, grady + o, mag + o, Width, l2, interpolate);
      if (y > 0) suppress(y - 1);
      if (y + 1 == Height) break;
      uint8_t* r = T;
      T = C, C = B, B = r;
      if (y + 2 < Height)
        PadRow(Src + size_t(y + 2) * Stride, B, Width);
      else
        std::memcpy(B, C, size_t(padded));
    }
    suppress(Height - 1);
  }

  // 8-9. The gradient planes are free now and serve as the walk's queue.
  if (TrackEdges != 0)
    TrackByWalk(Dest, gradx, grady, Width, Height, Stride);
  else
    TrackOnePass(Dest, rows, Width, Height, Stride);

  // 10. Whatever is not strong (or walked), padding included, becomes 0.
  const size_t body = plane & ~size_t(15);
  const __m128i walked = _mm_set1_epi8(static_cast<char>(kWalked));
  for (size_t i = 0; i < body; i += 16) {
    const __m128i v = qv::Load16Bytes(Dest + i);
    qv::Store16Bytes(Dest + i, _mm_cmpeq_epi8(_mm_max_epu8(v, walked), v));
  }
  for (size_t i = body; i < plane; ++i) Dest[i] = Dest[i] >= kWalked ? kStrong : kNone;

  qv::Free(rows), qv::Free(gradx), qv::Free(grady), qv::Free(mag);
  return STATUS_OK;
}
