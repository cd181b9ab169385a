// Sobel gradient magnitude on every sample of 1, 3 or 4-channel images, from
// three rotating padded rows that repeat the edge pixels and edge rows.
#include <emmintrin.h>
#include <smmintrin.h>

#include <cmath>
#include <cstring>

#include "frame/frame.h"
#include "frame/simd.h"

namespace {

// Row y of Src into a padded row: the first and last pixel repeated once.
void LoadPaddedRow(const unsigned char* Row, unsigned char* Padded, int Width, int Channel) {
  const int n = Width * Channel;
  std::memcpy(Padded + Channel, Row, size_t(n));
  std::memcpy(Padded, Row, size_t(Channel));
  std::memcpy(Padded + Channel + n, Row + n - Channel, size_t(Channel));
}

// gx and gy of 8 samples from the padded rows (already offset to column 0).
inline void Gradients8(const unsigned char* T, const unsigned char* C, const unsigned char* B, int i, int Ch, bool High,
                       __m128i* Gx, __m128i* Gy) {
  auto W = [High](const unsigned char* p) {
    const __m128i v = qv::Load16Bytes(p);
    return High ? qv::WidenHiU8ToU16(v) : qv::WidenLoU8ToU16(v);
  };
  const __m128i tl = W(T + i - Ch), tm = W(T + i), tr = W(T + i + Ch);
  const __m128i cl = W(C + i - Ch), cr = W(C + i + Ch);
  const __m128i bl = W(B + i - Ch), bm = W(B + i), br = W(B + i + Ch);
  const __m128i dc = _mm_sub_epi16(cl, cr);
  *Gx = _mm_add_epi16(_mm_add_epi16(dc, dc), _mm_add_epi16(_mm_sub_epi16(tl, tr), _mm_sub_epi16(bl, br)));
  const __m128i dm = _mm_sub_epi16(bm, tm);
  *Gy = _mm_add_epi16(_mm_add_epi16(dm, dm), _mm_sub_epi16(_mm_add_epi16(bl, br), _mm_add_epi16(tl, tr)));
}

// Eight square roots of gx^2 + gy^2, rounded to nearest (ties to even).
inline __m128i Magnitude8(__m128i Gx, __m128i Gy) {
  const __m128i lo = _mm_madd_epi16(_mm_unpacklo_epi16(Gx, Gy), _mm_unpacklo_epi16(Gx, Gy));
  const __m128i hi = _mm_madd_epi16(_mm_unpackhi_epi16(Gx, Gy), _mm_unpackhi_epi16(Gx, Gy));
  const __m128i rl = _mm_cvtps_epi32(_mm_sqrt_ps(_mm_cvtepi32_ps(lo)));
  const __m128i rh = _mm_cvtps_epi32(_mm_sqrt_ps(_mm_cvtepi32_ps(hi)));
  return _mm_packs_epi32(rl, rh);
}

void SobelRow(const unsigned char* T, const unsigned char* C, const unsigned char* B, unsigned char* Dest, int n,
              int Ch) {
  const int body = n & ~15;
  for (int i = 0; i < body; i += 16) {
    __m128i gx, gy;
    Gradients8(T, C, B, i, Ch, false, &gx, &gy);
    const __m128i lo = Magnitude8(gx, gy);
    Gradients8(T, C, B, i, Ch, true, &gx, &gy);
    const __m128i hi = Magnitude8(gx, gy);
    qv::Store16Bytes(Dest + i, _mm_packus_epi16(lo, hi));
  }
  // The tail truncates a double root where the body rounds a float one.
  for (int i = body; i < n; ++i) {
    const int gx = 2 * (C[i - Ch] - C[i + Ch]) + T[i - Ch] - T[i + Ch] + B[i - Ch] - B[i + Ch];
    const int gy = 2 * (B[i] - T[i]) + B[i - Ch] + B[i + Ch] - T[i - Ch] - T[i + Ch];
    const int v = static_cast<int>(std::sqrt(static_cast<double>(gx * gx + gy * gy)));
    Dest[i] = static_cast<unsigned char>(v > 255 ? 255 : v);
  }
}

}  // namespace

extern "C" QV_API int QV_Sobel(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1 || !qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;
  const int padded = (Width + 2) * Channel;
  unsigned char* rows = qv::MallocArray<unsigned char>(3 * size_t(padded));
  if (rows == nullptr) return STATUS_OUT_OF_MEMORY;
  unsigned char* T = rows;
  unsigned char* C = rows + padded;
  unsigned char* B = rows + 2 * padded;
  const int n = Width * Channel;
  // Row 0 is its own upper row. With one row there is no row 1 to read: the
  // lower row is row 0 too, and nothing past the buffer is touched.
  LoadPaddedRow(Src, C, Width, Channel);
  std::memcpy(T, C, size_t(padded));
  LoadPaddedRow(Src + (Height > 1 ? size_t(Stride) : 0), B, Width, Channel);
  for (int y = 0; y < Height; ++y) {
    SobelRow(T + Channel, C + Channel, B + Channel, Dest + size_t(y) * Stride, n, Channel);
    if (y + 1 == Height) break;
    // The row below the next one is read before the next row is written, so
    // Src may be Dest.
    unsigned char* t = T;
    T = C, C = B, B = t;
    if (y + 2 < Height)
      LoadPaddedRow(Src + size_t(y + 2) * Stride, B, Width, Channel);
    else
      std::memcpy(B, C, size_t(padded));
  }
  qv::Free(rows);
  return STATUS_OK;
}
