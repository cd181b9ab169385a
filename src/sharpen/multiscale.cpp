// QV_MultiScaleSharpen: the detail of three exponential blurs of Src (Radius,
// 2 Radius, 4 Radius) added back, positive detail at full weight and negative
// at half; vector body and scalar tail round differently, as documented.
#include <smmintrin.h>

#include <climits>
#include <cstring>
#include <initializer_list>

#include "frame/border.h"
#include "frame/frame.h"

namespace {

// Radius times 2 or 4 without overflow. From Radius 150731 on the blur's gain
// is already 0, so holding at INT_MAX gives the same blur as the true product.
inline int ScaledRadius(int Radius, int Factor) {
  if (Radius > INT_MAX / Factor) return INT_MAX;
  if (Radius < INT_MIN / Factor) return INT_MIN;
  return Radius * Factor;
}

}  // namespace

extern "C" QV_API int QV_MultiScaleSharpen(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                           int Stride, int Radius) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;

  const size_t n = qv::RunBytes(Height, Stride);
  unsigned char* b1 = qv::MallocArray<unsigned char>(n);
  unsigned char* b2 = qv::MallocArray<unsigned char>(n);
  unsigned char* b3 = qv::MallocArray<unsigned char>(n);
  if (b1 == nullptr || b2 == nullptr || b3 == nullptr) {
    qv::FreeAll(b1, b2, b3);
    return STATUS_OUT_OF_MEMORY;
  }
  // The blur leaves row padding alone, yet the run below reads it: padding
  // takes Src's bytes, as if its blur were itself, instead of heap garbage.
  const size_t row = size_t(Width) * Channel;
  if (size_t(Stride) > row)
    for (int y = 0; y < Height; ++y)
      for (unsigned char* b : {b1, b2, b3})
        std::memcpy(b + size_t(y) * Stride + row, Src + size_t(y) * Stride + row, size_t(Stride) - row);

  int status = QV_ExpBlur(Src, b1, Width, Height, Stride, Radius);
  if (status == STATUS_OK) status = QV_ExpBlur(Src, b2, Width, Height, Stride, ScaledRadius(Radius, 2));
  if (status == STATUS_OK) status = QV_ExpBlur(Src, b3, Width, Height, Stride, ScaledRadius(Radius, 4));
  if (status == STATUS_OK) {
    const size_t block_end = n & ~size_t(15);
    const __m128i zero = _mm_setzero_si128();
    for (size_t i = 0; i < block_end; i += 16) {
      const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src + i));
      const __m128i p1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b1 + i));
      const __m128i p2 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b2 + i));
      const __m128i p3 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b3 + i));
      // (|c - B1| + B1 + 1) >> 1 and (((B2 + B3 + 1) >> 1) + 1) >> 1 by byte averages.
      const __m128i absd = _mm_or_si128(_mm_subs_epu8(c, p1), _mm_subs_epu8(p1, c));
      const __m128i p = _mm_avg_epu8(absd, p1);
      const __m128i q = _mm_avg_epu8(_mm_avg_epu8(p2, p3), zero);
      const __m128i pq_lo = _mm_add_epi16(_mm_unpacklo_epi8(p, zero), _mm_unpacklo_epi8(q, zero));
      const __m128i pq_hi = _mm_add_epi16(_mm_unpackhi_epi8(p, zero), _mm_unpackhi_epi8(q, zero));
      const __m128i lo = _mm_sub_epi16(_mm_slli_epi16(_mm_unpacklo_epi8(c, zero), 1), pq_lo);
      const __m128i hi = _mm_sub_epi16(_mm_slli_epi16(_mm_unpackhi_epi8(c, zero), 1), pq_hi);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + i), _mm_packus_epi16(lo, hi));
    }
    for (size_t i = block_end; i < n; ++i) {
      const int c = Src[i], d = c - b1[i];
      const int s = d > 0 ? 1 : (d < 0 ? -1 : 0);
      Dest[i] = static_cast<unsigned char>(qv::ClampToByte(c + (2 * ((2 - s) * d + b1[i]) - b2[i] - b3[i]) / 4));
    }
  }
  qv::FreeAll(b1, b2, b3);
  return status;
}
