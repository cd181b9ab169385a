// White noise from the runtime library's rand (not seeded here): a table of
// 4 * n random bytes, and per row two draws that pick which stretches of it
// are combined, so a row costs two draws and not n.
#include <emmintrin.h>

#include <cstdlib>

#include "frame/frame.h"

extern "C" QV_API int QV_WhiteNoise(unsigned char* Dest, int Width, int Height, int Stride) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;

  const size_t n = size_t(Channel) * size_t(Width);  // in size_t: 4 * n may pass 2^31
  unsigned char* table = qv::MallocArray<unsigned char>(4 * n);
  if (table == nullptr) return STATUS_OUT_OF_MEMORY;

  // r + (r >> 8) in unsigned arithmetic: for r near RAND_MAX the signed sum
  // would overflow; its low byte is all that is kept.
  for (size_t i = 0; i < 4 * n; ++i) {
    const unsigned r = static_cast<unsigned>(std::rand());
    table[i] = static_cast<unsigned char>(r + (r >> 8));
  }
  const size_t block_end = n & ~size_t(15);
  for (int y = 0; y < Height; ++y) {
    // Two draws, in this order, before the row is written.
    const size_t a = size_t(std::rand()) % n;
    const size_t b = size_t(std::rand()) % n;
    const unsigned char* p = table + a;
    const unsigned char* q = table + 2 * n + b;
    unsigned char* d = Dest + size_t(y) * Stride;
    size_t i = 0;
    for (; i < block_end; i += 16) {
      const __m128i v = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i)),
                                      _mm_loadu_si128(reinterpret_cast<const __m128i*>(q + i)));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), v);
    }
    for (; i < n; ++i) d[i] = p[i] ^ q[i];
  }
  qv::Free(table);
  return STATUS_OK;
}
