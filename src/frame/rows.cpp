// Row extension by reflection and row sums: the once-per-row primitives of
// the window sum skeleton (window.h), in vector blocks with scalar tails.
#include "frame/rows.h"

#include <cstring>

#include "frame/simd.h"

namespace qv {
namespace {

// Reverses 16-byte blocks of the element width E: left and right borders are
// mirror images of runs of the real part, Block elements at a time.
template <typename T, int Block, typename Reverse>
void ExtendRowBlocks(T* Row, int Width, int Radius, Reverse reverse) {
  static_assert(sizeof(T) * Block == 16, "one register per block");
  const int block_end = Radius - Radius % Block;
  // Left: element i := element 2R - i. The source run of a block ends at 2R - i0.
  for (int i = 0; i < block_end; i += Block)
    Store16Bytes(Row + i, reverse(Load16Bytes(Row + 2 * Radius - i - (Block - 1))));
  for (int i = block_end; i < Radius; ++i) Row[i] = Row[2 * Radius - i];
  // Right: element W + R + i := element W + R - 2 - i.
  T* right = Row + Width + Radius;
  const T* mirror = Row + Width + Radius - 2;
  for (int i = 0; i < block_end; i += Block) Store16Bytes(right + i, reverse(Load16Bytes(mirror - i - (Block - 1))));
  for (int i = block_end; i < Radius; ++i) right[i] = mirror[-i];
}

// One pixel of Lanes elements at a time.
template <typename T, int Lanes>
void ExtendPixels(T* Row, int Width, int Radius) {
  for (int i = 0; i < Radius; ++i) {
    std::memcpy(Row + i * Lanes, Row + (2 * Radius - i) * Lanes, sizeof(T) * Lanes);
    std::memcpy(Row + (Width + Radius + i) * Lanes, Row + (Width + Radius - 2 - i) * Lanes, sizeof(T) * Lanes);
  }
}

// Rest of a float-lane sum in double: groups of four added left to right,
// each group then added to the total, then single elements.
template <typename T>
double SumRestDouble(const T* Row, int Start, int Count) {
  double s = 0.0;
  int i = Start;
  for (; i + 4 <= Count; i += 4)
    s += static_cast<double>(Row[i]) + static_cast<double>(Row[i + 1]) + static_cast<double>(Row[i + 2]) +
         static_cast<double>(Row[i + 3]);
  for (; i < Count; ++i) s += static_cast<double>(Row[i]);
  return s;
}

// (l0 + l1) + (l2 + l3) of a float register.
float ReduceF32(__m128 v) {
  alignas(16) float l[4];
  _mm_store_ps(l, v);
  return (l[0] + l[1]) + (l[2] + l[3]);
}

}  // namespace

// ---- extension --------------------------------------------------------------

void ExtendRowU8(uint8_t* Row, int Width, int Radius) {
  const __m128i rev = _mm_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
  ExtendRowBlocks<uint8_t, 16>(Row, Width, Radius, [rev](__m128i v) { return _mm_shuffle_epi8(v, rev); });
}

void ExtendRowU16(uint16_t* Row, int Width, int Radius) {
  const __m128i rev = _mm_setr_epi8(14, 15, 12, 13, 10, 11, 8, 9, 6, 7, 4, 5, 2, 3, 0, 1);
  ExtendRowBlocks<uint16_t, 8>(Row, Width, Radius, [rev](__m128i v) { return _mm_shuffle_epi8(v, rev); });
}

void ExtendRowI32(int32_t* Row, int Width, int Radius) {
  ExtendRowBlocks<int32_t, 4>(Row, Width, Radius,
                              [](__m128i v) { return _mm_shuffle_epi32(v, _MM_SHUFFLE(0, 1, 2, 3)); });
}

void ExtendRowF32(float* Row, int Width, int Radius) {
  // Moved as raw 32-bit lanes: reflection copies values, it never rounds.
  ExtendRowBlocks<float, 4>(Row, Width, Radius,
                            [](__m128i v) { return _mm_shuffle_epi32(v, _MM_SHUFFLE(0, 1, 2, 3)); });
}

void ExtendPixelsU16x4(uint16_t* Row, int Width, int Radius) { ExtendPixels<uint16_t, 4>(Row, Width, Radius); }
void ExtendPixelsI32x3(int32_t* Row, int Width, int Radius) { ExtendPixels<int32_t, 3>(Row, Width, Radius); }
void ExtendPixelsI32x4(int32_t* Row, int Width, int Radius) { ExtendPixels<int32_t, 4>(Row, Width, Radius); }
void ExtendPixelsF32x3(float* Row, int Width, int Radius) { ExtendPixels<float, 3>(Row, Width, Radius); }
void ExtendPixelsF32x4(float* Row, int Width, int Radius) { ExtendPixels<float, 4>(Row, Width, Radius); }

// ---- sums ---------------------------------------------------------------------

uint32_t SumRowU8(const uint8_t* Row, int Count) {
  const int block_end = Count & ~15;
  __m128i acc = _mm_setzero_si128();
  for (int i = 0; i < block_end; i += 16)
    acc = _mm_add_epi32(acc, _mm_sad_epu8(Load16Bytes(Row + i), _mm_setzero_si128()));
  uint32_t s = static_cast<uint32_t>(_mm_cvtsi128_si32(acc)) + static_cast<uint32_t>(_mm_extract_epi32(acc, 2));
  int i = block_end;
  for (; i + 2 <= Count; i += 2) s += static_cast<uint32_t>(Row[i]) + Row[i + 1];
  if (i < Count) s += Row[i];
  return s;
}

uint16_t SumRowU16(const uint16_t* Row, int Count) {
  const int block_end = Count & ~15;
  __m128i a0 = _mm_setzero_si128(), a1 = _mm_setzero_si128();
  for (int i = 0; i < block_end; i += 16) {
    a0 = _mm_add_epi16(a0, Load16Bytes(Row + i));
    a1 = _mm_add_epi16(a1, Load16Bytes(Row + i + 8));
  }
  __m128i a = _mm_add_epi16(a0, a1);
  a = _mm_add_epi16(a, _mm_srli_si128(a, 8));
  a = _mm_add_epi16(a, _mm_srli_si128(a, 4));
  a = _mm_add_epi16(a, _mm_srli_si128(a, 2));
  uint16_t s = static_cast<uint16_t>(_mm_extract_epi16(a, 0));
  for (int i = block_end; i < Count; ++i) s = static_cast<uint16_t>(s + Row[i]);
  return s;
}

int32_t SumRowI32(const int32_t* Row, int Count) {
  const int block_end = Count & ~7;
  __m128i a0 = _mm_setzero_si128(), a1 = _mm_setzero_si128();
  for (int i = 0; i < block_end; i += 8) {
    a0 = _mm_add_epi32(a0, Load16Bytes(Row + i));
    a1 = _mm_add_epi32(a1, Load16Bytes(Row + i + 4));
  }
  __m128i a = _mm_add_epi32(a0, a1);
  a = _mm_add_epi32(a, _mm_srli_si128(a, 8));
  a = _mm_add_epi32(a, _mm_srli_si128(a, 4));
  uint32_t s = static_cast<uint32_t>(_mm_cvtsi128_si32(a));
  for (int i = block_end; i < Count; ++i) s += static_cast<uint32_t>(Row[i]);  // wraps, never overflows
  return static_cast<int32_t>(s);
}

double SumRowI32Float(const int32_t* Row, int Count) {
  const int block_end = Count & ~7;
  __m128 a0 = _mm_setzero_ps(), a1 = _mm_setzero_ps();
  for (int i = 0; i < block_end; i += 8) {
    a0 = _mm_add_ps(a0, _mm_cvtepi32_ps(Load16Bytes(Row + i)));
    a1 = _mm_add_ps(a1, _mm_cvtepi32_ps(Load16Bytes(Row + i + 4)));
  }
  return static_cast<double>(ReduceF32(_mm_add_ps(a0, a1))) + SumRestDouble(Row, block_end, Count);
}

double SumRowF32(const float* Row, int Count) {
  const int block_end = Count & ~7;
  __m128 a0 = _mm_setzero_ps(), a1 = _mm_setzero_ps();
  for (int i = 0; i < block_end; i += 8) {
    a0 = _mm_add_ps(a0, _mm_loadu_ps(Row + i));
    a1 = _mm_add_ps(a1, _mm_loadu_ps(Row + i + 4));
  }
  return static_cast<double>(ReduceF32(_mm_add_ps(a0, a1))) + SumRestDouble(Row, block_end, Count);
}

uint16_t* SumPixelsU16x4(const uint16_t* Row, int Count, uint16_t* Sum) {
  __m128i a = _mm_setzero_si128();
  int i = 0;
  for (; i + 2 <= Count; i += 2) a = _mm_add_epi16(a, Load16Bytes(Row + 4 * i));
  if (i < Count) a = _mm_add_epi16(a, Load8Bytes(Row + 4 * i));
  Store8Bytes(Sum, _mm_add_epi16(a, _mm_srli_si128(a, 8)));
  return Sum;
}

int32_t* SumPixelsI32x3(const int32_t* Row, int Count, int32_t* Sum) {
  // Four-lane loads straddle into the next pixel (lane 3 is dropped), so the
  // last pixel, whose neighbour may not exist, is added alone.
  __m128i a = _mm_setzero_si128();
  for (int i = 0; i + 1 < Count; ++i) a = _mm_add_epi32(a, Load16Bytes(Row + 3 * i));
  alignas(16) int32_t l[4];
  _mm_store_si128(reinterpret_cast<__m128i*>(l), a);
  for (int c = 0; c < 3; ++c) {
    uint32_t s = static_cast<uint32_t>(l[c]);
    if (Count > 0) s += static_cast<uint32_t>(Row[3 * (Count - 1) + c]);
    Sum[c] = static_cast<int32_t>(s);
  }
  return Sum;
}

int32_t* SumPixelsI32x4(const int32_t* Row, int Count, int32_t* Sum) {
  __m128i a = _mm_setzero_si128();
  for (int i = 0; i < Count; ++i) a = _mm_add_epi32(a, Load16Bytes(Row + 4 * i));
  Store16Bytes(Sum, a);
  return Sum;
}

float* SumPixelsF32x3(const float* Row, int Count, float* Sum) {
  // As the integer form; each lane still adds its pixels in order.
  __m128 a = _mm_setzero_ps();
  for (int i = 0; i + 1 < Count; ++i) a = _mm_add_ps(a, _mm_loadu_ps(Row + 3 * i));
  alignas(16) float l[4];
  _mm_store_ps(l, a);
  for (int c = 0; c < 3; ++c) Sum[c] = Count > 0 ? l[c] + Row[3 * (Count - 1) + c] : l[c];
  return Sum;
}

float* SumPixelsF32x4(const float* Row, int Count, float* Sum) {
  __m128 a = _mm_setzero_ps();
  for (int i = 0; i < Count; ++i) a = _mm_add_ps(a, _mm_loadu_ps(Row + 4 * i));
  _mm_storeu_ps(Sum, a);
  return Sum;
}

}  // namespace qv
