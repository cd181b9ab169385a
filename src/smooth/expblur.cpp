// Exponential blur: a one-pole recursive low-pass run both ways along the rows
// (ExpBlurRows, vectorised across rows through transposes) and then down and
// back up the columns (ExpBlurColumns), on samples with 7 fractional bits.
#include "smooth/expblur.h"

#include <cmath>
#include <cstdint>
#include <cstring>

#include "frame/frame.h"
#include "smooth/blur_simd.h"

namespace qv {
namespace {

// floor(v / 65536) without shifting a negative value.
inline int FloorDiv65536(int V) { return V >= 0 ? V >> 16 : ~((~V) >> 16); }

// A := A + floor(((x << 7) - A) * Alpha / 65536). A stays within 0..32640 and
// the difference within 16 bits, so this equals the high-half multiply.
inline int ExpStep(int A, int X, int Alpha) { return A + FloorDiv65536((X * 128 - A) * Alpha); }

// One vector step on eight lanes; returns the new accumulator.
inline __m128i ExpStepV(__m128i A, __m128i X, __m128i Alpha) {
  return _mm_add_epi16(A, _mm_mulhi_epi16(_mm_sub_epi16(_mm_slli_epi16(X, 7), A), Alpha));
}

// Forward then backward over Width columns of 16 lanes (two registers each).
// The backward sweep restarts from the forward byte of the last column.
void ExpKernel16(int16_t* Lines, int Width, __m128i Alpha) {
  __m128i* L = reinterpret_cast<__m128i*>(Lines);
  __m128i a0 = _mm_slli_epi16(_mm_load_si128(L), 7), a1 = _mm_slli_epi16(_mm_load_si128(L + 1), 7);
  for (int x = 0; x < Width; ++x) {
    a0 = ExpStepV(a0, _mm_load_si128(L + 2 * x), Alpha);
    a1 = ExpStepV(a1, _mm_load_si128(L + 2 * x + 1), Alpha);
    _mm_store_si128(L + 2 * x, _mm_srai_epi16(a0, 7));
    _mm_store_si128(L + 2 * x + 1, _mm_srai_epi16(a1, 7));
  }
  const int last = 2 * (Width - 1);
  a0 = _mm_slli_epi16(_mm_load_si128(L + last), 7);
  a1 = _mm_slli_epi16(_mm_load_si128(L + last + 1), 7);
  for (int x = Width - 1; x >= 0; --x) {
    a0 = ExpStepV(a0, _mm_load_si128(L + 2 * x), Alpha);
    a1 = ExpStepV(a1, _mm_load_si128(L + 2 * x + 1), Alpha);
    _mm_store_si128(L + 2 * x, _mm_srai_epi16(a0, 7));
    _mm_store_si128(L + 2 * x + 1, _mm_srai_epi16(a1, 7));
  }
}

// Sixteen single-channel rows: lane 4 * s + r of column x is row 4 * s + r.
// Each group of four rows is a 4x4 transpose of 32-bit lanes, then a byte
// shuffle to column-major order, then the widening.
void ExpRows16(const unsigned char* Src, unsigned char* Dest, int Width, int Stride, int16_t* Lines, __m128i Alpha) {
  const int block_end = Width & ~15;
  for (int s = 0; s < 4; ++s) {
    const unsigned char* r[4];
    for (int k = 0; k < 4; ++k) r[k] = Src + size_t(4 * s + k) * Stride;
    for (int x = 0; x < block_end; x += 16) {
      __m128i v[4];
      for (int k = 0; k < 4; ++k) v[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(r[k] + x));
      Transpose4x4Epi32(v[0], v[1], v[2], v[3]);
      for (int k = 0; k < 4; ++k) {
        const __m128i c = Transpose4x4Bytes(v[k]);  // columns x+4k .. x+4k+3, four rows each
        int16_t* col = Lines + size_t(x + 4 * k) * 16 + 4 * s;
        StoreTwoHalves(col, col + 16, WidenLoU8(c));
        StoreTwoHalves(col + 32, col + 48, WidenHiU8(c));
      }
    }
    for (int x = block_end; x < Width; ++x)
      for (int k = 0; k < 4; ++k) Lines[size_t(x) * 16 + 4 * s + k] = r[k][x];
  }
  ExpKernel16(Lines, Width, Alpha);
  for (int s = 0; s < 4; ++s) {
    unsigned char* r[4];
    for (int k = 0; k < 4; ++k) r[k] = Dest + size_t(4 * s + k) * Stride;
    for (int x = 0; x < block_end; x += 16) {
      __m128i v[4];
      for (int k = 0; k < 4; ++k) {
        const int16_t* col = Lines + size_t(x + 4 * k) * 16 + 4 * s;
        const __m128i lo = LoadTwoHalves(col, col + 16), hi = LoadTwoHalves(col + 32, col + 48);
        v[k] = Transpose4x4Bytes(_mm_packus_epi16(lo, hi));
      }
      Transpose4x4Epi32(v[0], v[1], v[2], v[3]);
      for (int k = 0; k < 4; ++k) _mm_storeu_si128(reinterpret_cast<__m128i*>(r[k] + x), v[k]);
    }
    for (int x = block_end; x < Width; ++x)
      for (int k = 0; k < 4; ++k) r[k][x] = static_cast<unsigned char>(Lines[size_t(x) * 16 + 4 * s + k]);
  }
}

// Up to four rows of 3 or 4 channels: lane 4 * s + c of column x is channel c
// of pixel x in row s; a 3-channel pixel's fourth lane is 0.
void ExpRowsPixels(const unsigned char* Src, unsigned char* Dest, int Width, int Stride, int Channel, int Rows,
                   int16_t* Lines, __m128i Alpha) {
  // A partial group leaves lanes without a row: keep them defined.
  if (Rows < 4) std::memset(Lines, 0, size_t(Width) * 32);
  const __m128i spread3 = _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
  const __m128i drop3 = _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
  // Four pixels per 16-byte load while the load stays inside the row.
  const int block_end = Channel == 4 ? (Width & ~3) : (Width >= 6 ? ((Width - 2) / 4) * 4 : 0);
  for (int s = 0; s < Rows; ++s) {
    const unsigned char* row = Src + size_t(s) * Stride;
    int x = 0;
    for (; x < block_end; x += 4) {
      __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + x * Channel));
      if (Channel == 3) v = _mm_shuffle_epi8(v, spread3);
      int16_t* col = Lines + size_t(x) * 16 + 4 * s;
      StoreTwoHalves(col, col + 16, WidenLoU8(v));
      StoreTwoHalves(col + 32, col + 48, WidenHiU8(v));
    }
    for (; x < Width; ++x)
      for (int c = 0; c < 4; ++c) Lines[size_t(x) * 16 + 4 * s + c] = c < Channel ? row[x * Channel + c] : 0;
  }
  ExpKernel16(Lines, Width, Alpha);
  for (int s = 0; s < Rows; ++s) {
    unsigned char* row = Dest + size_t(s) * Stride;
    int x = 0;
    for (; x < block_end; x += 4) {
      const int16_t* col = Lines + size_t(x) * 16 + 4 * s;
      __m128i v = _mm_packus_epi16(LoadTwoHalves(col, col + 16), LoadTwoHalves(col + 32, col + 48));
      if (Channel == 4) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(row + x * 4), v);
      } else {
        v = _mm_shuffle_epi8(v, drop3);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(row + x * 3), v);
        const int last = _mm_cvtsi128_si32(_mm_srli_si128(v, 8));
        std::memcpy(row + x * 3 + 8, &last, 4);
      }
    }
    for (; x < Width; ++x)
      for (int c = 0; c < Channel; ++c)
        row[x * Channel + c] = static_cast<unsigned char>(Lines[size_t(x) * 16 + 4 * s + c]);
  }
}

// A single-channel row by itself: the accumulator carries its 7 fractional
// bits over the turn instead of restarting from the forward byte.
void ExpRowScalar(const unsigned char* Src, unsigned char* Dest, int Width, int Alpha) {
  int a = Src[0] << 7;
  for (int x = 0; x < Width; ++x) {
    a = ExpStep(a, Src[x], Alpha);
    Dest[x] = static_cast<unsigned char>(a >> 7);
  }
  for (int x = Width - 1; x >= 0; --x) {
    a = ExpStep(a, Dest[x], Alpha);
    Dest[x] = static_cast<unsigned char>(a >> 7);
  }
}

// The tests both halves make, in their order; Channel through *Channel.
int ExpFrame(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius,
             int* Channel) {
  *Channel = DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1 || Radius < 1) return STATUS_INVALID_PARAMETER;
  if (!IsChannel134(*Channel)) return STATUS_NOT_SUPPORTED;
  return STATUS_OK;
}

}  // namespace

int ExpBlurAlpha(int Radius) {
  const double a = (1.0 - std::exp(-2.3 / (Radius + 1.0))) * 65536.0;  // within 0..65536 for Radius >= 1
  const int alpha = static_cast<int>(a);
  return alpha > 32768 ? 32767 : alpha;
}

int ExpBlurRows(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius) {
  int Channel = 0;
  const int status = ExpFrame(Src, Dest, Width, Height, Stride, Radius, &Channel);
  if (status != STATUS_OK) return status;

  int16_t* lines = AlignedArray<int16_t>(size_t(Width) * 16, 16);
  if (lines == nullptr) return STATUS_OUT_OF_MEMORY;
  const int alpha = ExpBlurAlpha(Radius);
  const __m128i valpha = _mm_set1_epi16(static_cast<int16_t>(alpha));
  if (Channel == 1) {
    const int group_end = (Height / 16) * 16;
    for (int y = 0; y < group_end; y += 16)
      ExpRows16(Src + size_t(y) * Stride, Dest + size_t(y) * Stride, Width, Stride, lines, valpha);
    for (int y = group_end; y < Height; ++y)
      ExpRowScalar(Src + size_t(y) * Stride, Dest + size_t(y) * Stride, Width, alpha);
  } else {
    for (int y = 0; y < Height; y += 4)
      ExpRowsPixels(Src + size_t(y) * Stride, Dest + size_t(y) * Stride, Width, Stride, Channel,
                    Height - y < 4 ? Height - y : 4, lines, valpha);
  }
  AlignedFree(lines);
  return STATUS_OK;
}

int ExpBlurColumns(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius) {
  int Channel = 0;
  const int status = ExpFrame(Src, Dest, Width, Height, Stride, Radius, &Channel);
  if (status != STATUS_OK) return status;

  const int n = Width * Channel;
  int16_t* state = AlignedArray<int16_t>(size_t(n), 16);
  if (state == nullptr) return STATUS_OUT_OF_MEMORY;
  const int alpha = ExpBlurAlpha(Radius);
  const __m128i valpha = _mm_set1_epi16(static_cast<int16_t>(alpha));
  for (int i = 0; i < n; ++i) state[i] = static_cast<int16_t>(Src[i] << 7);

  const int block_end = n & ~15;
  // Down the image from Src, then back up over Dest; the last row runs twice.
  for (int i = 0; i < 2 * Height; ++i) {
    const int y = i < Height ? i : 2 * Height - 1 - i;
    const unsigned char* in = (i < Height ? Src : Dest) + size_t(y) * Stride;
    unsigned char* out = Dest + size_t(y) * Stride;
    for (int x = 0; x < block_end; x += 16) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + x));
      __m128i* st = reinterpret_cast<__m128i*>(state + x);
      const __m128i a0 = ExpStepV(_mm_load_si128(st), WidenLoU8(v), valpha);
      const __m128i a1 = ExpStepV(_mm_load_si128(st + 1), WidenHiU8(v), valpha);
      _mm_store_si128(st, a0);
      _mm_store_si128(st + 1, a1);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x),
                       _mm_packus_epi16(_mm_srai_epi16(a0, 7), _mm_srai_epi16(a1, 7)));
    }
    // The tail reads its bytes from the Dest row in both sweeps.
    for (int x = block_end; x < n; ++x) {
      const int a = ExpStep(state[x], out[x], alpha);
      state[x] = static_cast<int16_t>(a);
      out[x] = static_cast<unsigned char>(a >> 7);
    }
  }
  AlignedFree(state);
  return STATUS_OK;
}

}  // namespace qv

extern "C" QV_API int QV_ExpBlur(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                 int Radius) {
  const int status = qv::ExpBlurRows(Src, Dest, Width, Height, Stride, Radius);
  if (status != STATUS_OK) return status;
  return qv::ExpBlurColumns(Dest, Dest, Width, Height, Stride, Radius);
}
