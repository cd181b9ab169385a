// Pixel-order reversal of rows: FlipRow (Src and Dest apart, used by the
// horizontal flip and the out-of-place half-turn) and the fixed blocks of the
// in-place half-turn (16 pixels of 1 or 3 bytes, 4 pixels of 4 bytes).
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

static inline __m128i ReverseLoad(const unsigned char* p) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}
static inline void ReverseStore(unsigned char* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }

// Dest pixel x = Src pixel Width - 1 - x, Src and Dest apart. One and four
// channels reverse 16 bytes a vector, and the last vector overlaps the one
// before it instead of a pixel-wise tail.
template <int C>
inline void FlipRow(const unsigned char* Src, unsigned char* Dest, int Width) {
  const int m = C * Width;
  const __m128i rev = C == 1 ? _mm_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0)
                             : _mm_setr_epi8(12, 13, 14, 15, 8, 9, 10, 11, 4, 5, 6, 7, 0, 1, 2, 3);
  if (m < 16) {
    for (int x = 0; x < Width; ++x)
      for (int c = 0; c < C; ++c) Dest[x * C + c] = Src[(Width - 1 - x) * C + c];
    return;
  }
  int x = 0;
  for (; x + 64 <= m; x += 64) {
    const unsigned char* s = Src + m - x - 64;
    const __m128i a = ReverseLoad(s + 48), b = ReverseLoad(s + 32), c = ReverseLoad(s + 16), d = ReverseLoad(s);
    ReverseStore(Dest + x, _mm_shuffle_epi8(a, rev));
    ReverseStore(Dest + x + 16, _mm_shuffle_epi8(b, rev));
    ReverseStore(Dest + x + 32, _mm_shuffle_epi8(c, rev));
    ReverseStore(Dest + x + 48, _mm_shuffle_epi8(d, rev));
  }
  for (; x + 16 <= m; x += 16) ReverseStore(Dest + x, _mm_shuffle_epi8(ReverseLoad(Src + m - x - 16), rev));
  if (x < m) ReverseStore(Dest + m - 16, _mm_shuffle_epi8(ReverseLoad(Src), rev));
}

// Three channels: five pixels (15 bytes) a step, loaded from one byte before
// them so that the load stays in the row, and stored as 16 bytes whose last
// byte the next step overwrites. The last pixels go one at a time.
template <>
inline void FlipRow<3>(const unsigned char* Src, unsigned char* Dest, int Width) {
  const __m128i rev = _mm_setr_epi8(13, 14, 15, 10, 11, 12, 7, 8, 9, 4, 5, 6, 1, 2, 3, 0);
  int x = 0;
  // Source bytes from 3 * (Width - 5 - x) - 1 on; the store ends at 3 * x + 16.
  for (; x + 15 <= Width - 6; x += 20) {
    const unsigned char* s = Src + 3 * (Width - 20 - x) - 1;
    unsigned char* d = Dest + 3 * x;
    const __m128i a = ReverseLoad(s + 45), b = ReverseLoad(s + 30), c = ReverseLoad(s + 15), e = ReverseLoad(s);
    ReverseStore(d, _mm_shuffle_epi8(a, rev));
    ReverseStore(d + 15, _mm_shuffle_epi8(b, rev));
    ReverseStore(d + 30, _mm_shuffle_epi8(c, rev));
    ReverseStore(d + 45, _mm_shuffle_epi8(e, rev));
  }
  for (; x <= Width - 6; x += 5)
    ReverseStore(Dest + 3 * x, _mm_shuffle_epi8(ReverseLoad(Src + 3 * (Width - 5 - x) - 1), rev));
  for (; x < Width; ++x) {
    const unsigned char* s = Src + 3 * (Width - 1 - x);
    Dest[3 * x] = s[0];
    Dest[3 * x + 1] = s[1];
    Dest[3 * x + 2] = s[2];
  }
}

// FlipRow for a Channel (1, 3 or 4) known only at run time.
inline void FlipRowOf(const unsigned char* Src, unsigned char* Dest, int Width, int Channel) {
  if (Channel == 1)
    FlipRow<1>(Src, Dest, Width);
  else if (Channel == 3)
    FlipRow<3>(Src, Dest, Width);
  else
    FlipRow<4>(Src, Dest, Width);
}

}  // namespace qv
