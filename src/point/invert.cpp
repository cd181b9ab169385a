// Inversion: 255 - v over the whole run of Height * Stride bytes, padding
// included; with four channels the fourth sample of each pixel is kept.
#include <emmintrin.h>

#include "frame/frame.h"

extern "C" QV_API int QV_Invert(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr) return STATUS_NULL_REFERENCE;  // Dest is not tested
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;

  const size_t n = qv::RunBytes(Height, Stride);
  const size_t block_end = n & ~size_t(15);
  // Exclusive or by 255 inverts; a 0 in the fourth place of each pixel keeps it.
  const __m128i mask = Channel == 4 ? _mm_set1_epi32(0x00FFFFFF) : _mm_set1_epi8(-1);
  for (size_t i = 0; i < block_end; i += 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src + i));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + i), _mm_xor_si128(v, mask));
  }
  if (Channel == 4) {
    // The run is taken as pixels from its start, so the kept place follows
    // byte offsets mod 4 (and slips by row when Stride is not a multiple of 4).
    for (size_t i = block_end; i < n; ++i) Dest[i] = (i & 3) == 3 ? Src[i] : static_cast<unsigned char>(255 - Src[i]);
  } else {
    for (size_t i = block_end; i < n; ++i) Dest[i] = static_cast<unsigned char>(255 - Src[i]);
  }
  return STATUS_OK;
}
