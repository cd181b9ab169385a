// Sobel gradient magnitude on every sample of 1, 3 or 4-channel images, from
// three rotating padded rows that repeat the edge pixels and edge rows.
#include <emmintrin.h>
#include <smmintrin.h>

#include <cmath>
#include <cstring>

#include "frame/frame.h"
#include "frame/simd.h"
#include "frame/stencil.h"

namespace {

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
  const int n = Width * Channel;
  return qv::RunStencil3x3(
      Src, Dest, Width, Height, Stride, Channel,
      [&](const unsigned char* up, const unsigned char* mid, const unsigned char* down, unsigned char* out) {
        SobelRow(up + Channel, mid + Channel, down + Channel, out, n, Channel);
      });
}
