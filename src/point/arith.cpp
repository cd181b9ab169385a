// Arithmetic between two images over the whole run of Height * Stride bytes:
// saturating add, subtract, absolute difference, and the linear-light blend.
#include <emmintrin.h>

#include "frame/frame.h"

namespace {

// The Sizes-first frame shared by the four: division, sizes, channel (5),
// then Src1 and Dest (Src2 is not tested).
inline int TwoSourceFrame(const unsigned char* Src1, const unsigned char* Dest, int Width, int Height, int Channel) {
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;
  if (Src1 == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  return STATUS_OK;
}

// Runs Vec on 16-byte blocks and Scalar on the rest of the run.
template <typename Vec, typename Scalar>
inline void WalkRun(const unsigned char* Src1, const unsigned char* Src2, unsigned char* Dest, size_t n, Vec vec,
                    Scalar scalar) {
  const size_t block_end = n & ~size_t(15);
  for (size_t i = 0; i < block_end; i += 16) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src1 + i));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src2 + i));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + i), vec(a, b));
  }
  for (size_t i = block_end; i < n; ++i) Dest[i] = static_cast<unsigned char>(scalar(Src1[i], Src2[i]));
}

// Linear light on eight samples in 16-bit lanes: r = clamp(a + 2 (b - 128)),
// x = 128 r + 127 a, out = (x + 1 + (x >> 8)) >> 8.
inline __m128i LinearLight8(__m128i a, __m128i b) {
  const __m128i r = _mm_min_epi16(
      _mm_max_epi16(_mm_sub_epi16(_mm_add_epi16(a, _mm_add_epi16(b, b)), _mm_set1_epi16(256)), _mm_setzero_si128()),
      _mm_set1_epi16(255));
  // x is at most 65025: unsigned 16-bit lanes, the saturation never bites.
  const __m128i x = _mm_adds_epu16(_mm_slli_epi16(r, 7), _mm_mullo_epi16(a, _mm_set1_epi16(127)));
  return _mm_srli_epi16(_mm_adds_epu16(_mm_adds_epu16(x, _mm_set1_epi16(1)), _mm_srli_epi16(x, 8)), 8);
}

}  // namespace

extern "C" QV_API int QV_AddImage(const unsigned char* Src1, const unsigned char* Src2, unsigned char* Dest, int Width,
                                  int Height, int Stride) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (int s = TwoSourceFrame(Src1, Dest, Width, Height, Channel)) return s;
  WalkRun(
      Src1, Src2, Dest, qv::RunBytes(Height, Stride), [](__m128i a, __m128i b) { return _mm_adds_epu8(a, b); },
      [](int a, int b) { return a + b > 255 ? 255 : a + b; });
  return STATUS_OK;
}

extern "C" QV_API int QV_SubtractImage(const unsigned char* Src1, const unsigned char* Src2, unsigned char* Dest,
                                       int Width, int Height, int Stride) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (int s = TwoSourceFrame(Src1, Dest, Width, Height, Channel)) return s;
  WalkRun(
      Src1, Src2, Dest, qv::RunBytes(Height, Stride), [](__m128i a, __m128i b) { return _mm_subs_epu8(a, b); },
      [](int a, int b) { return a - b < 0 ? 0 : a - b; });
  return STATUS_OK;
}

extern "C" QV_API int QV_AbsDiffImage(const unsigned char* Src1, const unsigned char* Src2, unsigned char* Dest,
                                      int Width, int Height, int Stride) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (int s = TwoSourceFrame(Src1, Dest, Width, Height, Channel)) return s;
  WalkRun(
      Src1, Src2, Dest, qv::RunBytes(Height, Stride),
      [](__m128i a, __m128i b) { return _mm_or_si128(_mm_subs_epu8(a, b), _mm_subs_epu8(b, a)); },
      [](int a, int b) { return a > b ? a - b : b - a; });
  return STATUS_OK;
}

extern "C" QV_API int QV_BlendTwoImage_LinearLight(const unsigned char* Src1, const unsigned char* Src2,
                                                   unsigned char* Dest, int Width, int Height, int Stride) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (int s = TwoSourceFrame(Src1, Dest, Width, Height, Channel)) return s;
  const __m128i zero = _mm_setzero_si128();
  WalkRun(
      Src1, Src2, Dest, qv::RunBytes(Height, Stride),
      [zero](__m128i a, __m128i b) {
        const __m128i lo = LinearLight8(_mm_unpacklo_epi8(a, zero), _mm_unpacklo_epi8(b, zero));
        const __m128i hi = LinearLight8(_mm_unpackhi_epi8(a, zero), _mm_unpackhi_epi8(b, zero));
        return _mm_packus_epi16(lo, hi);
      },
      [](int a, int b) {
        int r = a + 2 * (b - 128);
        r = r < 0 ? 0 : (r > 255 ? 255 : r);
        const int x = r * 128 + a * 127;
        return (x + 1 + (x >> 8)) >> 8;
      });
  return STATUS_OK;
}
