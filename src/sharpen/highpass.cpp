// High pass on the exponential blur (Src - blur + 128), the overlay blend, and
// QV_HighPassSharpen, which overlays the (desaturated) high pass on Src. All
// linear passes walk the whole run of Height * Stride bytes.
#include <smmintrin.h>

#include "frame/border.h"
#include "frame/frame.h"
#include "sharpen/sharpen.h"

namespace qv {

int OverlayBlend(const unsigned char* Src1, const unsigned char* Src2, unsigned char* Dest, int Width, int Height,
                 int Stride) {
  const int Channel = DeriveChannel(Stride, Width);
  if (Src1 == nullptr || Src2 == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;

  const size_t n = RunBytes(Height, Stride);
  const size_t block_end = n & ~size_t(15);
  const __m128i zero = _mm_setzero_si128(), c128 = _mm_set1_epi16(128), c255 = _mm_set1_epi16(255);
  for (size_t i = 0; i < block_end; i += 16) {
    const __m128i a8 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src1 + i));
    const __m128i b8 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src2 + i));
    __m128i half[2];
    for (int h = 0; h < 2; ++h) {
      const __m128i a = h == 0 ? _mm_unpacklo_epi8(a8, zero) : _mm_unpackhi_epi8(a8, zero);
      const __m128i b = h == 0 ? _mm_unpacklo_epi8(b8, zero) : _mm_unpackhi_epi8(b8, zero);
      // Products stay below 65536, so a logical shift of the low half is exact.
      const __m128i dark = _mm_srli_epi16(_mm_mullo_epi16(a, b), 7);
      const __m128i light =
          _mm_sub_epi16(c255, _mm_srli_epi16(_mm_mullo_epi16(_mm_sub_epi16(c255, a), _mm_sub_epi16(c255, b)), 7));
      half[h] = _mm_blendv_epi8(dark, light, _mm_cmpgt_epi16(a, c128));
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + i), _mm_packus_epi16(half[0], half[1]));
  }
  for (size_t i = block_end; i < n; ++i) {
    const int a = Src1[i], b = Src2[i];
    Dest[i] = static_cast<unsigned char>(a <= 128 ? (a * b) >> 7 : 255 - (((255 - a) * (255 - b)) >> 7));
  }
  return STATUS_OK;
}

}  // namespace qv

extern "C" QV_API int QV_HighPass(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                  int Radius) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;

  // The blur goes into Dest before Src is read: Src = Dest gives 128.
  const int status = QV_ExpBlur(Src, Dest, Width, Height, Stride, Radius);
  if (status != STATUS_OK) return status;

  // Padding bytes are included; the blur left Dest's padding as it was.
  const size_t n = qv::RunBytes(Height, Stride);
  const size_t block_end = n & ~size_t(15);
  const __m128i c128 = _mm_set1_epi8(-128);
  for (size_t i = 0; i < block_end; i += 16) {
    const __m128i s = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src + i));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Dest + i));
    // min(255, (s - b)+ + 128) - (b - s)+, saturating at 0: clamp(s - b + 128).
    const __m128i r = _mm_subs_epu8(_mm_adds_epu8(_mm_subs_epu8(s, b), c128), _mm_subs_epu8(b, s));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + i), r);
  }
  for (size_t i = block_end; i < n; ++i) Dest[i] = static_cast<unsigned char>(qv::ClampToByte(Src[i] - Dest[i] + 128));
  return STATUS_OK;
}

extern "C" QV_API int QV_HighPassSharpen(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                         int Stride, int Radius) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;

  int status = QV_HighPass(Src, Dest, Width, Height, Stride, Radius);
  if (status != STATUS_OK) return status;
  if (Channel != 1) {
    status = QV_Desaturate(Dest, Dest, Width, Height, Stride);
    if (status != STATUS_OK) return status;
  }
  return qv::OverlayBlend(Src, Dest, Dest, Width, Height, Stride);
}
