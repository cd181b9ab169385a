// Byte shuffles between 16 four-byte pixels (64 bytes) and four planes of 16
// samples; the three-byte counterpart is shuffle3.h.
#pragma once

#include <tmmintrin.h>

#include "point/shuffle3.h"

namespace qv {

// Groups each 4-pixel vector by sample; the permutation is its own inverse.
static inline __m128i GroupBySample4(__m128i v) {
  return _mm_shuffle_epi8(v, _mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15));
}

// 64 bytes of four-sample pixels into four planes of 16 samples.
static inline void SplitPixels4(const unsigned char* Src, __m128i& P0, __m128i& P1, __m128i& P2, __m128i& P3) {
  const __m128i v0 = GroupBySample4(_mm_loadu_si128(reinterpret_cast<const __m128i*>(Src)));
  const __m128i v1 = GroupBySample4(_mm_loadu_si128(reinterpret_cast<const __m128i*>(Src + 16)));
  const __m128i v2 = GroupBySample4(_mm_loadu_si128(reinterpret_cast<const __m128i*>(Src + 32)));
  const __m128i v3 = GroupBySample4(_mm_loadu_si128(reinterpret_cast<const __m128i*>(Src + 48)));
  const __m128i t0 = _mm_unpacklo_epi32(v0, v1), t1 = _mm_unpacklo_epi32(v2, v3);
  const __m128i t2 = _mm_unpackhi_epi32(v0, v1), t3 = _mm_unpackhi_epi32(v2, v3);
  P0 = _mm_unpacklo_epi64(t0, t1);
  P1 = _mm_unpackhi_epi64(t0, t1);
  P2 = _mm_unpacklo_epi64(t2, t3);
  P3 = _mm_unpackhi_epi64(t2, t3);
}

// Four planes of 16 samples back into 64 bytes of pixels.
static inline void MergePixels4(unsigned char* Dest, __m128i P0, __m128i P1, __m128i P2, __m128i P3) {
  const __m128i t0 = _mm_unpacklo_epi32(P0, P1), t1 = _mm_unpackhi_epi32(P0, P1);
  const __m128i t2 = _mm_unpacklo_epi32(P2, P3), t3 = _mm_unpackhi_epi32(P2, P3);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest), GroupBySample4(_mm_unpacklo_epi64(t0, t2)));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + 16), GroupBySample4(_mm_unpackhi_epi64(t0, t2)));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + 32), GroupBySample4(_mm_unpacklo_epi64(t1, t3)));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + 48), GroupBySample4(_mm_unpackhi_epi64(t1, t3)));
}

// 16 pixels of three or four samples into planes; P[3] is left alone for three.
static inline void LoadPixels16(const unsigned char* Src, int Channel, __m128i* P) {
  if (Channel == 3) {
    const Planes3 q = Load3Planes(Src);
    P[0] = q.p0, P[1] = q.p1, P[2] = q.p2;
  } else
    SplitPixels4(Src, P[0], P[1], P[2], P[3]);
}

}  // namespace qv
