// The repeated intrinsic idioms of the vector loops, written once: widening
// and narrowing between lane widths, in-register prefix sums, the two
// float-to-byte conversions' vector half, and small unaligned loads/stores.
#pragma once

#include <smmintrin.h>
#include <tmmintrin.h>

#include <cstdint>
#include <cstring>

namespace qv {

// ---- loads and stores of part of a register (no access past the bytes named)

static inline __m128i Load4Bytes(const void* p) {
  int v;
  std::memcpy(&v, p, 4);
  return _mm_cvtsi32_si128(v);
}
static inline __m128i Load8Bytes(const void* p) { return _mm_loadl_epi64(static_cast<const __m128i*>(p)); }
static inline __m128i Load16Bytes(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }
static inline void Store4Bytes(void* p, __m128i v) {
  const int x = _mm_cvtsi128_si32(v);
  std::memcpy(p, &x, 4);
}
static inline void Store8Bytes(void* p, __m128i v) { _mm_storel_epi64(static_cast<__m128i*>(p), v); }
static inline void Store16Bytes(void* p, __m128i v) { _mm_storeu_si128(static_cast<__m128i*>(p), v); }

// ---- widening (unsigned: zero extension) -----------------------------------

static inline __m128i WidenLoU8ToU16(__m128i v) { return _mm_unpacklo_epi8(v, _mm_setzero_si128()); }
static inline __m128i WidenHiU8ToU16(__m128i v) { return _mm_unpackhi_epi8(v, _mm_setzero_si128()); }
static inline __m128i WidenLoU16ToI32(__m128i v) { return _mm_unpacklo_epi16(v, _mm_setzero_si128()); }
static inline __m128i WidenHiU16ToI32(__m128i v) { return _mm_unpackhi_epi16(v, _mm_setzero_si128()); }

// ---- narrowing with saturation ---------------------------------------------

// Two vectors of four signed 32-bit values to eight bytes (low half): signed
// saturation to 16 bits first, then unsigned saturation to 0..255.
static inline __m128i NarrowI32x8ToU8(__m128i lo, __m128i hi) {
  return _mm_packus_epi16(_mm_packs_epi32(lo, hi), _mm_setzero_si128());
}
// Four signed 32-bit values to four bytes (low 32 bits), saturating likewise.
static inline __m128i NarrowI32x4ToU8(__m128i v) {
  const __m128i w = _mm_packs_epi32(v, v);
  return _mm_packus_epi16(w, w);
}

// ---- the vector float conversion: round to nearest, ties to even -----------

// Four 32-bit integer sums times a float factor, rounded (ties to even).
static inline __m128i ScaleRoundI32(__m128i Sum, __m128 Factor) {
  return _mm_cvtps_epi32(_mm_mul_ps(_mm_cvtepi32_ps(Sum), Factor));
}

// ---- inclusive prefix sums in one register ----------------------------------
// Lane i becomes d0 + ... + di; integer lanes wrap, so the order of the
// shift-and-add steps does not matter for them.

static inline __m128i PrefixSumU16x8(__m128i d) {
  d = _mm_add_epi16(d, _mm_slli_si128(d, 2));
  d = _mm_add_epi16(d, _mm_slli_si128(d, 4));
  return _mm_add_epi16(d, _mm_slli_si128(d, 8));
}
static inline __m128i PrefixSumI32x4(__m128i d) {
  d = _mm_add_epi32(d, _mm_slli_si128(d, 4));
  return _mm_add_epi32(d, _mm_slli_si128(d, 8));
}
// Two pixels of four 16-bit lanes: the lower pixel's lanes added to the upper.
static inline __m128i PrefixSumU16x4x2(__m128i d) { return _mm_add_epi16(d, _mm_slli_si128(d, 8)); }

// Float running sum in strict left-to-right order: lane i = (((S + d0) + d1)
// ... + di). Rounding depends on the order, so the sequential order of a
// scalar running sum is kept rather than the shift-and-add tree.
static inline __m128 RunningSumF32x4(__m128 S, __m128 d) {
  const __m128 s0 = _mm_add_ss(S, d);                                               // lane 0: S + d0
  const __m128 s1 = _mm_add_ss(s0, _mm_shuffle_ps(d, d, _MM_SHUFFLE(1, 1, 1, 1)));  // lane 0: s0 + d1
  const __m128 s2 = _mm_add_ss(s1, _mm_shuffle_ps(d, d, _MM_SHUFFLE(2, 2, 2, 2)));
  const __m128 s3 = _mm_add_ss(s2, _mm_shuffle_ps(d, d, _MM_SHUFFLE(3, 3, 3, 3)));
  const __m128 lo = _mm_unpacklo_ps(s0, s1);  // s0 s1 . .
  const __m128 hi = _mm_unpacklo_ps(s2, s3);  // s2 s3 . .
  return _mm_movelh_ps(lo, hi);
}

// ---- broadcasts of one lane ---------------------------------------------------

static inline __m128i BroadcastLastU16(__m128i v) {
  return _mm_shuffle_epi32(_mm_shufflehi_epi16(v, _MM_SHUFFLE(3, 3, 3, 3)), _MM_SHUFFLE(3, 3, 3, 3));
}
static inline __m128i BroadcastLastI32(__m128i v) { return _mm_shuffle_epi32(v, _MM_SHUFFLE(3, 3, 3, 3)); }
static inline __m128 BroadcastLastF32(__m128 v) { return _mm_shuffle_ps(v, v, _MM_SHUFFLE(3, 3, 3, 3)); }
// The upper of two 4x16-bit pixels, copied into both halves.
static inline __m128i BroadcastHighPixelU16(__m128i v) { return _mm_unpackhi_epi64(v, v); }

// ---- transposes ------------------------------------------------------------------

// 4x4 of 32-bit lanes.
static inline void Transpose4x4I32(__m128i& r0, __m128i& r1, __m128i& r2, __m128i& r3) {
  const __m128i t0 = _mm_unpacklo_epi32(r0, r1), t1 = _mm_unpacklo_epi32(r2, r3);
  const __m128i t2 = _mm_unpackhi_epi32(r0, r1), t3 = _mm_unpackhi_epi32(r2, r3);
  r0 = _mm_unpacklo_epi64(t0, t1);
  r1 = _mm_unpackhi_epi64(t0, t1);
  r2 = _mm_unpacklo_epi64(t2, t3);
  r3 = _mm_unpackhi_epi64(t2, t3);
}
static inline void Transpose4x4F32(__m128& r0, __m128& r1, __m128& r2, __m128& r3) {
  _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
}

// ---- byte shuffles between pixel layouts -----------------------------------------

// Bytes of 4 three-sample pixels (12 bytes) spread to 4-lane pixels, lane 3 = 0.
static inline __m128i Spread3To4Bytes(__m128i v) {
  return _mm_shuffle_epi8(v, _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1));
}
// Bytes of 4 four-lane pixels closed up to 3 samples each (12 bytes, then 4 zeros).
static inline __m128i Close4To3Bytes(__m128i v) {
  return _mm_shuffle_epi8(v, _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1));
}

}  // namespace qv
