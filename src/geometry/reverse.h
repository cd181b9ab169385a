// Pixel-order reversal of a row in vector blocks (16 pixels of 1 or 3 bytes,
// 4 pixels of 4 bytes) with a pixel-wise remainder; used by the horizontal
// flip and the half-turn.
#pragma once

#include <tmmintrin.h>

#include <cstddef>

namespace qv {

// Pixels per vector block for a channel count.
static inline int ReverseBlock(int Channel) { return Channel == 4 ? 4 : 16; }

struct ReverseMasks {
  __m128i m[3][3];  // [output vector][source vector]
};

// Output byte o of a reversed 16-pixel block of 3 bytes comes from source byte
// (15 - o / 3) * 3 + o % 3; each output vector gathers from the three inputs.
static inline ReverseMasks MakeReverseMasks3() {
  ReverseMasks r;
  for (int j = 0; j < 3; ++j) {
    alignas(16) signed char bytes[3][16];
    for (int b = 0; b < 16; ++b) {
      const int o = 16 * j + b, s = (15 - o / 3) * 3 + o % 3;
      for (int v = 0; v < 3; ++v) bytes[v][b] = static_cast<signed char>(s / 16 == v ? s % 16 : -1);
    }
    for (int v = 0; v < 3; ++v) r.m[j][v] = _mm_load_si128(reinterpret_cast<const __m128i*>(bytes[v]));
  }
  return r;
}

// Loads the block of pixels [First, First + block) of Row reversed into Out.
static inline void LoadReversed(const unsigned char* Row, int First, int Channel, const ReverseMasks& M, __m128i* Out) {
  const unsigned char* p = Row + std::ptrdiff_t(First) * Channel;
  if (Channel == 1) {
    const __m128i rev = _mm_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
    Out[0] = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), rev);
  } else if (Channel == 4) {
    Out[0] = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), 0x1B);
  } else {
    const __m128i v[3] = {_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)),
                          _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16)),
                          _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 32))};
    for (int j = 0; j < 3; ++j)
      Out[j] = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(v[0], M.m[j][0]), _mm_shuffle_epi8(v[1], M.m[j][1])),
                            _mm_shuffle_epi8(v[2], M.m[j][2]));
  }
}

static inline void StoreBlock(unsigned char* Row, int First, int Channel, const __m128i* In) {
  unsigned char* p = Row + std::ptrdiff_t(First) * Channel;
  const int vectors = Channel == 3 ? 3 : 1;
  for (int j = 0; j < vectors; ++j) _mm_storeu_si128(reinterpret_cast<__m128i*>(p + 16 * j), In[j]);
}

// Dest pixel x = Src pixel Width - 1 - x; Src and Dest must not overlap.
static inline void ReverseRow(const unsigned char* Src, unsigned char* Dest, int Width, int Channel,
                              const ReverseMasks& M) {
  const int block = ReverseBlock(Channel);
  const int end = Width / block * block;
  __m128i v[3];
  for (int x = 0; x < end; x += block) {
    LoadReversed(Src, Width - x - block, Channel, M, v);
    StoreBlock(Dest, x, Channel, v);
  }
  for (int x = end; x < Width; ++x)
    for (int c = 0; c < Channel; ++c) Dest[x * Channel + c] = Src[(Width - 1 - x) * Channel + c];
}

}  // namespace qv
