// Fixed threshold over the whole run of Height * Stride bytes: each sample
// alone, so a colour image becomes one of eight colours.
#include <emmintrin.h>

#include "frame/frame.h"

extern "C" QV_API int QV_Threshold(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                   int Threshold) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1) return STATUS_INVALID_PARAMETER;
  if (Height < 1) return STATUS_INVALID_PARAMETER;
  if (Channel != 1 && Channel != 3) return STATUS_INVALID_PARAMETER;

  // 0..254 keeps 0 black and 255 white whatever the threshold.
  if (Threshold < 0) Threshold = 0;
  if (Threshold > 254) Threshold = 254;

  const size_t n = qv::RunBytes(Height, Stride);
  const size_t block_end = n & ~size_t(15);
  // Unsigned v > t as a signed compare after moving both by 128.
  const __m128i bias = _mm_set1_epi8(-128);
  const __m128i t = _mm_set1_epi8(static_cast<char>(Threshold - 128));
  for (size_t i = 0; i < block_end; i += 16) {
    const __m128i v = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(Src + i)), bias);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + i), _mm_cmpgt_epi8(v, t));
  }
  for (size_t i = block_end; i < n; ++i) Dest[i] = Src[i] > Threshold ? 255 : 0;
  return STATUS_OK;
}
