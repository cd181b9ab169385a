// Intrinsic idioms shared by the recursive and rank blurs: 4x4 transposes of
// 32-bit lanes (integer and float), byte widening and narrowing.
#pragma once

#include <smmintrin.h>
#include <tmmintrin.h>

namespace qv {

// Transposes four rows of four 32-bit lanes in place: lane j of register i
// becomes lane i of register j.
static inline void Transpose4x4Epi32(__m128i& R0, __m128i& R1, __m128i& R2, __m128i& R3) {
  const __m128i t0 = _mm_unpacklo_epi32(R0, R1), t1 = _mm_unpacklo_epi32(R2, R3);
  const __m128i t2 = _mm_unpackhi_epi32(R0, R1), t3 = _mm_unpackhi_epi32(R2, R3);
  R0 = _mm_unpacklo_epi64(t0, t1);
  R1 = _mm_unpackhi_epi64(t0, t1);
  R2 = _mm_unpacklo_epi64(t2, t3);
  R3 = _mm_unpackhi_epi64(t2, t3);
}

static inline void Transpose4x4Ps(__m128& R0, __m128& R1, __m128& R2, __m128& R3) { _MM_TRANSPOSE4_PS(R0, R1, R2, R3); }

// Byte order of a 4x4 byte block swapped between row-major and column-major;
// the shuffle is its own inverse.
static inline __m128i Transpose4x4Bytes(__m128i V) {
  return _mm_shuffle_epi8(V, _mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15));
}

static inline __m128i WidenLoU8(__m128i V) { return _mm_unpacklo_epi8(V, _mm_setzero_si128()); }
static inline __m128i WidenHiU8(__m128i V) { return _mm_unpackhi_epi8(V, _mm_setzero_si128()); }

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
