// QV_EdgePreservedSharpen: the detail left by the self-guided filter is
// multiplied by about (Amount + 100) / 100 and added back to the filtered
// image, over the whole run of Height * Stride bytes.
#include <smmintrin.h>

#include "frame/border.h"
#include "frame/frame.h"
#include "sharpen/sharpen.h"

extern "C" QV_API int QV_EdgePreservedSharpen(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                              int Stride, int Amount) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1 || Amount < 0) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;

  const int a = Amount > 4096 - 100 ? 4096 : Amount + 100;  // no overflow near INT_MAX
  int r = (Width > Height ? Width : Height) / 50;
  if (r < 5) r = 5;
  // The filter goes into Dest before Src is read: Src = Dest gives the filter.
  const int status = QV_SelfGuidedFilter(Src, Dest, Width, Height, Stride, r, 20, 20.0f);
  if (status != STATUS_OK) return status;

  // In double, so that a = 100 gives 511 rather than 512.
  const int k = static_cast<int>(a * 1.27999997 * 4);
  const size_t n = qv::RunBytes(Height, Stride);
  const size_t block_end = n & ~size_t(15);
  const __m128i vk = _mm_set1_epi16(static_cast<int16_t>(k)), zero = _mm_setzero_si128();
  for (size_t i = 0; i < block_end; i += 16) {
    const __m128i s = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src + i));
    const __m128i f = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Dest + i));
    const __m128i f_lo = _mm_unpacklo_epi8(f, zero), f_hi = _mm_unpackhi_epi8(f, zero);
    // ((s - f) << 7) * k >> 16 is exactly ((s - f) * k) >> 9, floor included.
    const __m128i d_lo = _mm_mulhi_epi16(_mm_slli_epi16(_mm_sub_epi16(_mm_unpacklo_epi8(s, zero), f_lo), 7), vk);
    const __m128i d_hi = _mm_mulhi_epi16(_mm_slli_epi16(_mm_sub_epi16(_mm_unpackhi_epi8(s, zero), f_hi), 7), vk);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + i),
                     _mm_packus_epi16(_mm_add_epi16(f_lo, d_lo), _mm_add_epi16(f_hi, d_hi)));
  }
  for (size_t i = block_end; i < n; ++i) {
    const int f = Dest[i];
    Dest[i] = static_cast<unsigned char>(qv::ClampToByte(f + qv::FloorShift((Src[i] - f) * k, 9)));
  }
  return STATUS_OK;
}
