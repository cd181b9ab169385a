// Split and merge between interleaved 3/4-channel images and byte planes:
// 16 pixels a step through byte shuffles, a scalar loop for the rest of a row.
#include "point/channels.h"

#include <emmintrin.h>
#include <tmmintrin.h>

#include "frame/frame.h"
#include "point/shuffle3.h"

namespace qv {

namespace {

// The frame of all four: pointers, then sizes and the exact channel count.
inline int CheckShape(int Width, int Height, int Stride, int Channel) {
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (Stride / Width != Channel) return STATUS_INVALID_PARAMETER;
  return STATUS_OK;
}

// Groups the samples of four BGRA pixels by lane: b0..b3 g0..g3 r0..r3 a0..a3.
inline __m128i GroupLanes4(__m128i v) {
  const __m128i k = _mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
  return _mm_shuffle_epi8(v, k);
}

}  // namespace

int SplitChannels3(const unsigned char* Src, unsigned char* Plane0, unsigned char* Plane1, unsigned char* Plane2,
                   int Width, int Height, int Stride) {
  if (Src == nullptr || Plane0 == nullptr || Plane1 == nullptr || Plane2 == nullptr) return STATUS_NULL_REFERENCE;
  if (int s = CheckShape(Width, Height, Stride, 3)) return s;
  const int block_end = Width & ~15;
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    const size_t o = size_t(y) * Width;
    int x = 0;
    for (; x < block_end; x += 16) {
      const Planes3 p = Load3Planes(s + 3 * x);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(Plane0 + o + x), p.p0);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(Plane1 + o + x), p.p1);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(Plane2 + o + x), p.p2);
    }
    for (; x < Width; ++x) {
      Plane0[o + x] = s[3 * x];
      Plane1[o + x] = s[3 * x + 1];
      Plane2[o + x] = s[3 * x + 2];
    }
  }
  return STATUS_OK;
}

int SplitChannels4(const unsigned char* Src, unsigned char* Plane0, unsigned char* Plane1, unsigned char* Plane2,
                   unsigned char* Plane3, int Width, int Height, int Stride) {
  if (Src == nullptr || Plane0 == nullptr || Plane1 == nullptr || Plane2 == nullptr || Plane3 == nullptr)
    return STATUS_NULL_REFERENCE;
  if (int s = CheckShape(Width, Height, Stride, 4)) return s;
  const int block_end = Width & ~15;
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    const size_t o = size_t(y) * Width;
    int x = 0;
    for (; x < block_end; x += 16) {
      const __m128i* p = reinterpret_cast<const __m128i*>(s + 4 * x);
      // Each load gives one 32-bit group per lane; a 4x4 transpose of those
      // groups gathers each lane's 16 samples.
      const __m128i a = GroupLanes4(_mm_loadu_si128(p));
      const __m128i b = GroupLanes4(_mm_loadu_si128(p + 1));
      const __m128i c = GroupLanes4(_mm_loadu_si128(p + 2));
      const __m128i d = GroupLanes4(_mm_loadu_si128(p + 3));
      const __m128i ab_lo = _mm_unpacklo_epi32(a, b), ab_hi = _mm_unpackhi_epi32(a, b);
      const __m128i cd_lo = _mm_unpacklo_epi32(c, d), cd_hi = _mm_unpackhi_epi32(c, d);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(Plane0 + o + x), _mm_unpacklo_epi64(ab_lo, cd_lo));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(Plane1 + o + x), _mm_unpackhi_epi64(ab_lo, cd_lo));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(Plane2 + o + x), _mm_unpacklo_epi64(ab_hi, cd_hi));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(Plane3 + o + x), _mm_unpackhi_epi64(ab_hi, cd_hi));
    }
    for (; x < Width; ++x) {
      Plane0[o + x] = s[4 * x];
      Plane1[o + x] = s[4 * x + 1];
      Plane2[o + x] = s[4 * x + 2];
      Plane3[o + x] = s[4 * x + 3];
    }
  }
  return STATUS_OK;
}

int MergeChannels3(const unsigned char* Plane0, const unsigned char* Plane1, const unsigned char* Plane2,
                   unsigned char* Dest, int Width, int Height, int Stride) {
  if (Plane0 == nullptr || Plane1 == nullptr || Plane2 == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (int s = CheckShape(Width, Height, Stride, 3)) return s;
  const int block_end = Width & ~15;
  for (int y = 0; y < Height; ++y) {
    unsigned char* d = Dest + size_t(y) * Stride;
    const size_t o = size_t(y) * Width;
    int x = 0;
    for (; x < block_end; x += 16) {
      Store3Planes(d + 3 * x, _mm_loadu_si128(reinterpret_cast<const __m128i*>(Plane0 + o + x)),
                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(Plane1 + o + x)),
                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(Plane2 + o + x)));
    }
    for (; x < Width; ++x) {
      d[3 * x] = Plane0[o + x];
      d[3 * x + 1] = Plane1[o + x];
      d[3 * x + 2] = Plane2[o + x];
    }
  }
  return STATUS_OK;
}

int MergeChannels4(const unsigned char* Plane0, const unsigned char* Plane1, const unsigned char* Plane2,
                   const unsigned char* Plane3, unsigned char* Dest, int Width, int Height, int Stride) {
  if (Plane0 == nullptr || Plane1 == nullptr || Plane2 == nullptr || Plane3 == nullptr || Dest == nullptr)
    return STATUS_NULL_REFERENCE;
  if (int s = CheckShape(Width, Height, Stride, 4)) return s;
  const int block_end = Width & ~15;
  for (int y = 0; y < Height; ++y) {
    unsigned char* d = Dest + size_t(y) * Stride;
    const size_t o = size_t(y) * Width;
    int x = 0;
    for (; x < block_end; x += 16) {
      const __m128i p0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Plane0 + o + x));
      const __m128i p1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Plane1 + o + x));
      const __m128i p2 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Plane2 + o + x));
      const __m128i p3 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Plane3 + o + x));
      const __m128i lo01 = _mm_unpacklo_epi8(p0, p1), hi01 = _mm_unpackhi_epi8(p0, p1);
      const __m128i lo23 = _mm_unpacklo_epi8(p2, p3), hi23 = _mm_unpackhi_epi8(p2, p3);
      __m128i* q = reinterpret_cast<__m128i*>(d + 4 * x);
      _mm_storeu_si128(q, _mm_unpacklo_epi16(lo01, lo23));
      _mm_storeu_si128(q + 1, _mm_unpackhi_epi16(lo01, lo23));
      _mm_storeu_si128(q + 2, _mm_unpacklo_epi16(hi01, hi23));
      _mm_storeu_si128(q + 3, _mm_unpackhi_epi16(hi01, hi23));
    }
    for (; x < Width; ++x) {
      d[4 * x] = Plane0[o + x];
      d[4 * x + 1] = Plane1[o + x];
      d[4 * x + 2] = Plane2[o + x];
      d[4 * x + 3] = Plane3[o + x];
    }
  }
  return STATUS_OK;
}

}  // namespace qv
