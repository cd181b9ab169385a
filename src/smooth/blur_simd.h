// Intrinsic idioms shared by the recursive and rank blurs beyond those of
// frame/simd.h: the 4x4 byte transpose, byte-float conversions.
#pragma once

#include <smmintrin.h>
#include <tmmintrin.h>

#include "frame/simd.h"

namespace qv {

// Byte order of a 4x4 byte block swapped between row-major and column-major;
// the shuffle is its own inverse.
static inline __m128i Transpose4x4Bytes(__m128i V) {
  return _mm_shuffle_epi8(V, _mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15));
}

// Four bytes to four floats.
static inline __m128 BytesToFloat4(__m128i V) { return _mm_cvtepi32_ps(_mm_cvtepu8_epi32(V)); }

// Sixteen floats to sixteen bytes: round to nearest even, saturate to 16 bits,
// then to 0..255.
static inline __m128i Float16ToBytes(__m128 A, __m128 B, __m128 C, __m128 D) {
  const __m128i lo = _mm_packs_epi32(_mm_cvtps_epi32(A), _mm_cvtps_epi32(B));
  const __m128i hi = _mm_packs_epi32(_mm_cvtps_epi32(C), _mm_cvtps_epi32(D));
  return _mm_packus_epi16(lo, hi);
}

// Two 4-word halves from separate places into one register.
static inline __m128i LoadTwoHalves(const void* Lo, const void* Hi) {
  return _mm_unpacklo_epi64(_mm_loadl_epi64(static_cast<const __m128i*>(Lo)),
                            _mm_loadl_epi64(static_cast<const __m128i*>(Hi)));
}
static inline void StoreTwoHalves(void* Lo, void* Hi, __m128i V) {
  _mm_storel_epi64(static_cast<__m128i*>(Lo), V);
  _mm_storel_epi64(static_cast<__m128i*>(Hi), _mm_unpackhi_epi64(V, V));
}

}  // namespace qv
