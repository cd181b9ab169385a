// QV_Sharpen: a fixed 3x3 stencil on the four diagonal neighbours,
// (8 c - nw - ne - sw - se) >> 2, over three rolling padded rows whose edge
// pixels and edge rows are replicated.
#include "sharpen/sharpen.h"

#include <smmintrin.h>

#include "frame/border.h"
#include "frame/frame.h"

namespace {

// One row of output from the rows above (U), at (M) and below (D), each
// pointing at the padded pixel -1; C is the pixel size in bytes.
void SharpenRow(const unsigned char* U, const unsigned char* M, const unsigned char* D, unsigned char* Out, int N,
                int C) {
  const int block_end = N & ~15;
  const __m128i zero = _mm_setzero_si128();
  for (int i = 0; i < block_end; i += 16) {
    const __m128i nw = _mm_loadu_si128(reinterpret_cast<const __m128i*>(U + i));
    const __m128i ne = _mm_loadu_si128(reinterpret_cast<const __m128i*>(U + i + 2 * C));
    const __m128i sw = _mm_loadu_si128(reinterpret_cast<const __m128i*>(D + i));
    const __m128i se = _mm_loadu_si128(reinterpret_cast<const __m128i*>(D + i + 2 * C));
    const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(M + i + C));
    const __m128i sum_lo = _mm_add_epi16(_mm_add_epi16(_mm_unpacklo_epi8(nw, zero), _mm_unpacklo_epi8(ne, zero)),
                                         _mm_add_epi16(_mm_unpacklo_epi8(sw, zero), _mm_unpacklo_epi8(se, zero)));
    const __m128i sum_hi = _mm_add_epi16(_mm_add_epi16(_mm_unpackhi_epi8(nw, zero), _mm_unpackhi_epi8(ne, zero)),
                                         _mm_add_epi16(_mm_unpackhi_epi8(sw, zero), _mm_unpackhi_epi8(se, zero)));
    // 8 c - sum lies in -1020..2040: exact in 16 bits, then an arithmetic shift.
    const __m128i lo = _mm_srai_epi16(_mm_sub_epi16(_mm_slli_epi16(_mm_unpacklo_epi8(c, zero), 3), sum_lo), 2);
    const __m128i hi = _mm_srai_epi16(_mm_sub_epi16(_mm_slli_epi16(_mm_unpackhi_epi8(c, zero), 3), sum_hi), 2);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Out + i), _mm_packus_epi16(lo, hi));
  }
  for (int i = block_end; i < N; ++i) {
    const int v = 8 * M[i + C] - U[i] - U[i + 2 * C] - D[i] - D[i + 2 * C];
    Out[i] = static_cast<unsigned char>(qv::ClampToByte(qv::FloorShift(v, 2)));
  }
}

}  // namespace

extern "C" QV_API int QV_Sharpen(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;

  const int n = Width * Channel;
  return qv::RunStencil3x3(Src, Dest, Width, Height, Stride, Channel,
                           [&](const unsigned char* up, const unsigned char* mid, const unsigned char* down,
                               unsigned char* out) { SharpenRow(up, mid, down, out, n, Channel); });
}
