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

// Runs Vec on 16-byte blocks, two a step, and Scalar on the rest of the run.
template <typename Vec, typename Scalar>
inline void WalkRun(const unsigned char* Src1, const unsigned char* Src2, unsigned char* Dest, size_t n, Vec vec,
                    Scalar scalar) {
  auto Load = [](const unsigned char* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); };
  const size_t block_end = n & ~size_t(15), pair_end = n & ~size_t(31);
  size_t i = 0;
  for (; i < pair_end; i += 32) {
    const __m128i r0 = vec(Load(Src1 + i), Load(Src2 + i));
    const __m128i r1 = vec(Load(Src1 + i + 16), Load(Src2 + i + 16));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + i), r0);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + i + 16), r1);
  }
  if (i < block_end) _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + i), vec(Load(Src1 + i), Load(Src2 + i)));
  for (i = block_end; i < n; ++i) Dest[i] = static_cast<unsigned char>(scalar(Src1[i], Src2[i]));
}

// Linear light on sixteen samples: r = clamp(a + 2 (b - 128)) by saturating
// byte steps (b - 128 added twice, or 128 - b taken away twice: one of the
// two is 0), then in 16-bit lanes x = 128 r + 127 a = ((r + a) << 7) - a,
// at most 65025, and out = (x + 1 + (x >> 8)) >> 8, which for every x up to
// 65535 equals ((x + 1) * 257) >> 16: one high-half multiply.
inline __m128i LinearLight16(__m128i a, __m128i b) {
  const __m128i half = _mm_set1_epi8(static_cast<char>(128));
  const __m128i up = _mm_subs_epu8(b, half), down = _mm_subs_epu8(half, b);
  const __m128i r = _mm_subs_epu8(_mm_subs_epu8(_mm_adds_epu8(_mm_adds_epu8(a, up), up), down), down);
  const __m128i zero = _mm_setzero_si128(), one = _mm_set1_epi16(1), k257 = _mm_set1_epi16(257);
  auto Half = [one, k257](__m128i r16, __m128i a16) {
    const __m128i x = _mm_sub_epi16(_mm_slli_epi16(_mm_add_epi16(r16, a16), 7), a16);
    return _mm_mulhi_epu16(_mm_add_epi16(x, one), k257);
  };
  const __m128i lo = Half(_mm_unpacklo_epi8(r, zero), _mm_unpacklo_epi8(a, zero));
  const __m128i hi = Half(_mm_unpackhi_epi8(r, zero), _mm_unpackhi_epi8(a, zero));
  return _mm_packus_epi16(lo, hi);
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
  WalkRun(Src1, Src2, Dest, qv::RunBytes(Height, Stride), LinearLight16, [](int a, int b) {
    int r = a + 2 * (b - 128);
    r = r < 0 ? 0 : (r > 255 ? 255 : r);
    const int x = r * 128 + a * 127;
    return (x + 1 + (x >> 8)) >> 8;
  });
  return STATUS_OK;
}
