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

// Transposes a 16x16 byte block in registers: byte k of register r becomes
// byte r of register k. Its own inverse.
__attribute__((always_inline)) inline void Transpose16x16Bytes(__m128i R[16]) {
  __m128i a[16], b[16];
#pragma GCC unroll 16
  for (int i = 0; i < 8; ++i) {  // words: column c of rows 2i, 2i + 1
    a[i] = _mm_unpacklo_epi8(R[2 * i], R[2 * i + 1]);
    a[i + 8] = _mm_unpackhi_epi8(R[2 * i], R[2 * i + 1]);
  }
#pragma GCC unroll 16
  for (int h = 0; h < 2; ++h)
#pragma GCC unroll 16
    for (int i = 0; i < 4; ++i) {  // b[4q + i]: dwords, column 4q + k of rows 4i .. 4i + 3
      b[8 * h + i] = _mm_unpacklo_epi16(a[8 * h + 2 * i], a[8 * h + 2 * i + 1]);
      b[8 * h + 4 + i] = _mm_unpackhi_epi16(a[8 * h + 2 * i], a[8 * h + 2 * i + 1]);
    }
#pragma GCC unroll 16
  for (int q = 0; q < 4; ++q) {
    const __m128i lo01 = _mm_unpacklo_epi32(b[4 * q], b[4 * q + 1]), hi01 = _mm_unpackhi_epi32(b[4 * q], b[4 * q + 1]);
    const __m128i lo23 = _mm_unpacklo_epi32(b[4 * q + 2], b[4 * q + 3]);
    const __m128i hi23 = _mm_unpackhi_epi32(b[4 * q + 2], b[4 * q + 3]);
    R[4 * q] = _mm_unpacklo_epi64(lo01, lo23);
    R[4 * q + 1] = _mm_unpackhi_epi64(lo01, lo23);
    R[4 * q + 2] = _mm_unpacklo_epi64(hi01, hi23);
    R[4 * q + 3] = _mm_unpackhi_epi64(hi01, hi23);
  }
}

// One ExpStep on the sixteen rows of a column entry (two accumulators), the
// byte result written back over the entry.
inline void StepEntry(unsigned char* Entry, __m128i& A0, __m128i& A1, __m128i Alpha) {
  const __m128i v = _mm_load_si128(reinterpret_cast<const __m128i*>(Entry));
  A0 = ExpStepV(A0, WidenLoU8ToU16(v), Alpha);
  A1 = ExpStepV(A1, WidenHiU8ToU16(v), Alpha);
  _mm_store_si128(reinterpret_cast<__m128i*>(Entry), _mm_packus_epi16(_mm_srai_epi16(A0, 7), _mm_srai_epi16(A1, 7)));
}

inline void StartEntry(const unsigned char* Entry, __m128i& A0, __m128i& A1) {
  const __m128i v = _mm_load_si128(reinterpret_cast<const __m128i*>(Entry));
  A0 = _mm_slli_epi16(WidenLoU8ToU16(v), 7);
  A1 = _mm_slli_epi16(WidenHiU8ToU16(v), 7);
}

// G groups of sixteen rows with C channels, both sweeps. The rows are
// transposed 16 bytes at a time into Lines, where entry (j, g) holds byte j of
// the sixteen rows of group g; the C * G * 2 accumulators are independent, so
// the recursion's latency overlaps. Blocks of 16 pixels keep every sweep's
// channel order fixed and the data in cache between transpose and recursion.
// A row whose Out is null is read (its In must be valid) but not written.
// Carry keeps the accumulators over the turn (the lone single-channel rows);
// otherwise the backward sweep restarts from the forward byte of the last pixel.
template <int C, int G, bool Carry>
void ExpRowsGroup(const unsigned char* const* In, unsigned char* const* Out, int Width, unsigned char* Lines,
                  __m128i Alpha) {
  constexpr int K = C * G;  // entries per pixel
  auto entry = [Lines](int j, int g) { return Lines + (size_t(j) * G + g) * 16; };
  __m128i a0[K] = {}, a1[K] = {};
  const int n = Width * C;
  for (int p0 = 0; p0 < Width; p0 += 16) {
    const int px = Width - p0 < 16 ? Width - p0 : 16;
    for (int s = 0; s < C; ++s) {
      const int j0 = p0 * C + 16 * s, valid = n - j0;
      if (valid <= 0) break;
#pragma GCC unroll 16
      for (int g = 0; g < G; ++g) {
        __m128i r[16];
#pragma GCC unroll 16
        for (int k = 0; k < 16; ++k) {
          const unsigned char* row = In[16 * g + k] + j0;
          if (valid >= 16) {
            r[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row));
          } else {
            alignas(16) unsigned char tmp[16] = {};
            std::memcpy(tmp, row, size_t(valid));
            r[k] = _mm_load_si128(reinterpret_cast<const __m128i*>(tmp));
          }
        }
        Transpose16x16Bytes(r);
#pragma GCC unroll 16
        for (int k = 0; k < 16; ++k) _mm_store_si128(reinterpret_cast<__m128i*>(entry(j0 + k, g)), r[k]);
      }
    }
    if (p0 == 0)
#pragma GCC unroll 16
      for (int c = 0; c < C; ++c)
#pragma GCC unroll 16
        for (int g = 0; g < G; ++g) StartEntry(entry(c, g), a0[c * G + g], a1[c * G + g]);
    for (int p = p0; p < p0 + px; ++p)
#pragma GCC unroll 16
      for (int c = 0; c < C; ++c)
#pragma GCC unroll 16
        for (int g = 0; g < G; ++g) StepEntry(entry(p * C + c, g), a0[c * G + g], a1[c * G + g], Alpha);
  }
  if (!Carry)
#pragma GCC unroll 16
    for (int c = 0; c < C; ++c)
#pragma GCC unroll 16
      for (int g = 0; g < G; ++g) StartEntry(entry((Width - 1) * C + c, g), a0[c * G + g], a1[c * G + g]);
  for (int p0 = ((Width - 1) / 16) * 16; p0 >= 0; p0 -= 16) {
    const int px = Width - p0 < 16 ? Width - p0 : 16;
    for (int p = p0 + px - 1; p >= p0; --p)
#pragma GCC unroll 16
      for (int c = 0; c < C; ++c)
#pragma GCC unroll 16
        for (int g = 0; g < G; ++g) StepEntry(entry(p * C + c, g), a0[c * G + g], a1[c * G + g], Alpha);
    for (int s = 0; s < C; ++s) {
      const int j0 = p0 * C + 16 * s, valid = n - j0;
      if (valid <= 0) break;
#pragma GCC unroll 16
      for (int g = 0; g < G; ++g) {
        __m128i r[16];
#pragma GCC unroll 16
        for (int k = 0; k < 16; ++k) r[k] = _mm_load_si128(reinterpret_cast<const __m128i*>(entry(j0 + k, g)));
        Transpose16x16Bytes(r);
#pragma GCC unroll 16
        for (int k = 0; k < 16; ++k) {
          unsigned char* row = Out[16 * g + k];
          if (row == nullptr) continue;
          if (valid >= 16) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(row + j0), r[k]);
          } else {
            alignas(16) unsigned char tmp[16];
            _mm_store_si128(reinterpret_cast<__m128i*>(tmp), r[k]);
            std::memcpy(row + j0, tmp, size_t(valid));
          }
        }
      }
    }
  }
}

// Rows y .. y + Count - 1 (Count <= 16 * G) through ExpRowsGroup; the lanes of
// missing rows read row y again and write nowhere.
template <int C, int G, bool Carry>
void ExpRowsAt(const unsigned char* Src, unsigned char* Dest, int Width, int Stride, int Count, unsigned char* Lines,
               __m128i Alpha) {
  const unsigned char* in[16 * G];
  unsigned char* out[16 * G];
  for (int k = 0; k < 16 * G; ++k) {
    in[k] = Src + size_t(k < Count ? k : 0) * Stride;
    out[k] = k < Count ? Dest + size_t(k) * Stride : nullptr;
  }
  ExpRowsGroup<C, G, Carry>(in, out, Width, Lines, Alpha);
}

// K consecutive column steps on bytes X0 .. X1 - 1 (multiples of 16), the
// state loaded and stored once. A step's input row may be the previous
// step's output row (the turn), so each input is loaded after that store.
template <int K>
void ExpColumnSteps(const unsigned char* const* In, unsigned char* const* Out, int16_t* State, int X0, int X1,
                    __m128i Alpha) {
  for (int x = X0; x < X1; x += 16) {
    __m128i* st = reinterpret_cast<__m128i*>(State + x);
    __m128i a0 = _mm_load_si128(st), a1 = _mm_load_si128(st + 1);
#pragma GCC unroll 4
    for (int k = 0; k < K; ++k) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(In[k] + x));
      a0 = ExpStepV(a0, WidenLoU8ToU16(v), Alpha);
      a1 = ExpStepV(a1, WidenHiU8ToU16(v), Alpha);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(Out[k] + x),
                       _mm_packus_epi16(_mm_srai_epi16(a0, 7), _mm_srai_epi16(a1, 7)));
    }
    _mm_store_si128(st, a0);
    _mm_store_si128(st + 1, a1);
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

  // Entries of 16 bytes for each byte of a row (rounded up to a whole
  // transpose), for two groups of rows at once.
  const size_t entries = (size_t(Width) * Channel + 15) / 16 * 16;
  unsigned char* lines = AlignedArray<unsigned char>(entries * 32, 16);
  if (lines == nullptr) return STATUS_OUT_OF_MEMORY;
  const int alpha = ExpBlurAlpha(Radius);
  const __m128i valpha = _mm_set1_epi16(static_cast<int16_t>(alpha));
  if (Channel == 1) {
    const int group_end = (Height / 16) * 16;
    int y = 0;
    for (; y + 32 <= group_end; y += 32)
      ExpRowsAt<1, 2, false>(Src + size_t(y) * Stride, Dest + size_t(y) * Stride, Width, Stride, 32, lines, valpha);
    if (y < group_end)
      ExpRowsAt<1, 1, false>(Src + size_t(y) * Stride, Dest + size_t(y) * Stride, Width, Stride, 16, lines, valpha);
    // The rows past the last group keep their 7 fractional bits at the turn,
    // as one 32-bit accumulator per row would: the high-half multiply gives
    // the same floor as the 32-bit product shifted right by 16.
    if (group_end < Height)
      ExpRowsAt<1, 1, true>(Src + size_t(group_end) * Stride, Dest + size_t(group_end) * Stride, Width, Stride,
                            Height - group_end, lines, valpha);
  } else {
    for (int y = 0; y < Height; y += 16) {
      const int count = Height - y < 16 ? Height - y : 16;
      if (Channel == 3)
        ExpRowsAt<3, 1, false>(Src + size_t(y) * Stride, Dest + size_t(y) * Stride, Width, Stride, count, lines,
                               valpha);
      else
        ExpRowsAt<4, 1, false>(Src + size_t(y) * Stride, Dest + size_t(y) * Stride, Width, Stride, count, lines,
                               valpha);
    }
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
  // Step i of 2 * Height takes row i down the image from Src, then row
  // 2 * Height - 1 - i back up over Dest; the last row runs twice.
  auto in_row = [&](int i) {
    return i < Height ? Src + size_t(i) * Stride : Dest + size_t(2 * Height - 1 - i) * Stride;
  };
  auto out_row = [&](int i) { return Dest + size_t(i < Height ? i : 2 * Height - 1 - i) * Stride; };
  // Four steps per load and store of the state.
  int i = 0;
  for (; i + 4 <= 2 * Height; i += 4) {
    const unsigned char* in[4] = {in_row(i), in_row(i + 1), in_row(i + 2), in_row(i + 3)};
    unsigned char* out[4] = {out_row(i), out_row(i + 1), out_row(i + 2), out_row(i + 3)};
    ExpColumnSteps<4>(in, out, state, 0, block_end, valpha);
  }
  if (i < 2 * Height) {  // 2 * Height is even
    const unsigned char* in[2] = {in_row(i), in_row(i + 1)};
    unsigned char* out[2] = {out_row(i), out_row(i + 1)};
    ExpColumnSteps<2>(in, out, state, 0, block_end, valpha);
  }
  // The tail reads its bytes from the Dest row in both sweeps.
  for (int i = 0; i < 2 * Height; ++i) {
    unsigned char* out = out_row(i);
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
