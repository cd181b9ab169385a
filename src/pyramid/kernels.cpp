// Reduce and expand by two with the binomial kernel 1 4 6 4 1: byte levels in
// exact 16-bit sums (one rounding constant at the end), float levels with the
// same taps, the fused expand forms, the pyramid builders and conversions.
// Borders: Reflect101Index, except the stated row-stage edge formulas.
#include "pyramid/kernels.h"

#include <emmintrin.h>
#include <smmintrin.h>
#include <tmmintrin.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "enhance/float_tail.h"
#include "frame/border.h"
#include "frame/frame.h"
#include "frame/simd.h"

namespace qv {

void PyramidLevelSize(int Width, int Height, int Level, int* OutWidth, int* OutHeight) {
  for (int i = 0; i < Level; ++i) {
    Width = (Width + 1) >> 1;
    Height = (Height + 1) >> 1;
  }
  *OutWidth = Width;
  *OutHeight = Height;
}

void PyramidFreeAll(PyramidLevel* Levels, int Count) {
  if (Levels == nullptr) return;
  for (int i = 0; i < Count; ++i) {
    Free(Levels[i].Data);
    Levels[i] = PyramidLevel{0, 0, 0, nullptr, 0};
  }
}

void PyramidFree(PyramidLevel* Levels, int Count, bool BorrowedLevel0) {
  if (Levels == nullptr) return;
  for (int i = 0; i < Count; ++i) {
    if (i > 0 || !BorrowedLevel0) Free(Levels[i].Data);
    Levels[i] = PyramidLevel{0, 0, 0, nullptr, 0};
  }
}

int PyramidAlloc(PyramidLevel* Levels, int Width, int Height, int Stride, int Count, bool BorrowLevel0,
                 int ElementSize) {
  const int Channel = DeriveChannel(Stride, Width);
  if (Levels == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1 || Count < 1) return STATUS_INVALID_PARAMETER;
  if (!IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;
  for (int i = 0; i < Count; ++i) Levels[i] = PyramidLevel{0, 0, 0, nullptr, 0};
  int w = Width, h = Height;
  for (int i = 0; i < Count; ++i) {
    Levels[i].Width = w;
    Levels[i].Height = h;
    Levels[i].Stride = PyramidLevelStride(w, Channel);
    if (i > 0 || !BorrowLevel0) {
      Levels[i].Data = Malloc(size_t(Levels[i].Stride) * size_t(h) * size_t(ElementSize));
      if (Levels[i].Data == nullptr) {
        PyramidFree(Levels, Count, BorrowLevel0);
        return STATUS_OUT_OF_MEMORY;
      }
    }
    w = (w + 1) >> 1;
    h = (h + 1) >> 1;
  }
  return STATUS_OK;
}

namespace {

// ---- scalar row stages, shared by the byte and float forms ------------------
// Acc is int for byte rows (stored as 16-bit sums) and float for float rows;
// the sums are written in the stated order, which fixes the float rounding.

template <typename In, typename Out, typename Acc>
void ReduceRowEdges(const In* s, Out* d, int sw, int C) {
  const int dw = (sw + 1) >> 1;
  for (int ch = 0; ch < C; ++ch) {
    auto S = [&](int p) { return Acc(s[p * C + ch]); };
    // A one-pixel row has no sample 1: its own sample stands in.
    d[ch] = Out(Acc(6) * S(0) + Acc(8) * S(sw > 1 ? 1 : 0) + Acc(2) * S(Reflect101Index(sw, 2)));
    if (dw != 1) {
      d[(dw - 1) * C + ch] = Out(Acc(4) * S(Reflect101Index(sw, 2 * dw - 1)) + Acc(4) * S(2 * dw - 3) +
                                 Acc(6) * S(2 * dw - 2) + Acc(2) * S(Reflect101Index(sw, 2 * dw)));
    }
  }
}

// Middle outputs j in [From, To), all channels.
template <typename In, typename Out, typename Acc>
void ReduceRowMiddle(const In* s, Out* d, int C, int From, int To) {
  for (int q = From * C; q < To * C; ++q) {
    const int j = q / C, ch = q - j * C;
    const In* p = s + 2 * j * C + ch;
    d[q] = Out(Acc(p[-2 * C]) + Acc(4) * Acc(p[-C]) + Acc(6) * Acc(p[0]) + Acc(4) * Acc(p[C]) + Acc(p[2 * C]));
  }
}

template <typename In, typename Out, typename Acc>
void ExpandRowEdges(const In* s, Out* d, int cw, int fw, int C) {
  for (int ch = 0; ch < C; ++ch) {
    auto S = [&](int p) { return Acc(s[p * C + ch]); };
    const Acc s0 = S(0), s1 = S(Reflect101Index(cw, 1));
    d[ch] = Out(Acc(2) * (Acc(3) * s0 + s1));
    if (fw > 1) d[C + ch] = Out(Acc(4) * (s0 + s1));
    if (fw > 2) {
      const int l = cw - 1;
      const Acc sl = S(l), sm = S(l - 1);
      if (fw & 1) {
        d[(fw - 1) * C + ch] = Out(Acc(2) * (Acc(3) * sl + sm));
        d[(fw - 2) * C + ch] = Out(Acc(4) * (sl + sm));
      } else {
        // The right border repeats the last sample where the left reflects.
        d[(fw - 1) * C + ch] = Out(Acc(8) * sl);
        d[(fw - 2) * C + ch] = Out(Acc(2) * (Acc(3) * sl + sm));
      }
    }
  }
}

// Middle fine positions in [From, To), all channels.
template <typename In, typename Out, typename Acc>
void ExpandRowMiddle(const In* s, Out* d, int C, int From, int To) {
  for (int x = From; x < To; ++x) {
    const In* p = s + (x >> 1) * C;
    Out* o = d + x * C;
    if (x & 1) {
      for (int ch = 0; ch < C; ++ch) o[ch] = Out(Acc(4) * (Acc(p[ch]) + Acc(p[ch + C])));
    } else {
      for (int ch = 0; ch < C; ++ch) o[ch] = Out(Acc(p[ch - C]) + Acc(6) * Acc(p[ch]) + Acc(p[ch + C]));
    }
  }
}

// ---- vector row stages for bytes ---------------------------------------------

// Returns the first middle output the vector loop left undone.
int ReduceRowVector(const uint8_t* s, uint16_t* d, int sw, int C) {
  const int dw = (sw + 1) >> 1;
  int j = 1;
  const __m128i lo = _mm_set1_epi16(0xFF), six = _mm_set1_epi16(6);
  if (C == 1) {
    // Eight outputs from s[2j-2 .. 2j+16]: evens and odds of three loads.
    for (; j + 7 <= dw - 2; j += 8) {
      const __m128i a = Load16Bytes(s + 2 * j - 2), c = Load16Bytes(s + 2 * j), b = Load16Bytes(s + 2 * j + 1);
      const __m128i e0 = _mm_and_si128(a, lo), o0 = _mm_srli_epi16(a, 8);
      const __m128i e1 = _mm_and_si128(c, lo), o1 = _mm_srli_epi16(c, 8);
      const __m128i e2 = _mm_srli_epi16(b, 8);
      __m128i sum = _mm_add_epi16(_mm_add_epi16(e0, e2), _mm_slli_epi16(_mm_add_epi16(o0, o1), 2));
      sum = _mm_add_epi16(sum, _mm_mullo_epi16(e1, six));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d + j), sum);
    }
  } else if (C == 4) {
    // Two output pixels from pixels p0 .. p6 = 2j-2 .. 2j+4, by byte pairs:
    // (p0 + 4 p1 | p2 + 4 p3) + (6 p2 + 4 p3 | 6 p4 + 4 p5) + (p4 | p6).
    const __m128i pairs = _mm_setr_epi8(0, 4, 1, 5, 2, 6, 3, 7, 8, 12, 9, 13, 10, 14, 11, 15);
    const __m128i singles = _mm_setr_epi8(4, -1, 5, -1, 6, -1, 7, -1, 12, -1, 13, -1, 14, -1, 15, -1);
    const __m128i w14 = _mm_setr_epi8(1, 4, 1, 4, 1, 4, 1, 4, 1, 4, 1, 4, 1, 4, 1, 4);
    const __m128i w64 = _mm_setr_epi8(6, 4, 6, 4, 6, 4, 6, 4, 6, 4, 6, 4, 6, 4, 6, 4);
    for (; j + 1 <= dw - 2; j += 2) {
      const uint8_t* p = s + (2 * j - 2) * 4;
      const __m128i a = _mm_maddubs_epi16(_mm_shuffle_epi8(Load16Bytes(p), pairs), w14);
      const __m128i b = _mm_maddubs_epi16(_mm_shuffle_epi8(Load16Bytes(p + 8), pairs), w64);
      const __m128i c = _mm_shuffle_epi8(Load16Bytes(p + 12), singles);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 4 * j), _mm_add_epi16(_mm_add_epi16(a, b), c));
    }
  } else {
    // Two output pixels (six lanes, two more written and later overwritten)
    // from two 16-byte loads that stay inside the row.
    const __m128i t0 = _mm_setr_epi8(0, -1, 1, -1, 2, -1, 6, -1, 7, -1, 8, -1, -1, -1, -1, -1);
    const __m128i t1 = _mm_setr_epi8(3, -1, 4, -1, 5, -1, 9, -1, 10, -1, 11, -1, -1, -1, -1, -1);
    const __m128i t2 = _mm_setr_epi8(6, -1, 7, -1, 8, -1, 12, -1, 13, -1, 14, -1, -1, -1, -1, -1);
    for (; j + 1 <= dw - 2 && 6 * j + 18 < 3 * sw; j += 2) {
      const __m128i x = Load16Bytes(s + (2 * j - 2) * 3), y = Load16Bytes(s + (2 * j + 1) * 3);
      const __m128i a0 = _mm_shuffle_epi8(x, t0), a1 = _mm_shuffle_epi8(x, t1), a2 = _mm_shuffle_epi8(x, t2);
      const __m128i a3 = _mm_shuffle_epi8(y, t0), a4 = _mm_shuffle_epi8(y, t1);
      __m128i sum = _mm_add_epi16(_mm_add_epi16(a0, a4), _mm_slli_epi16(_mm_add_epi16(a1, a3), 2));
      sum = _mm_add_epi16(sum, _mm_mullo_epi16(a2, six));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 3 * j), sum);
    }
  }
  return j;
}

// Byte gathers for eight fine 3-sample pixels 2k .. 2k+7 (24 sums, three
// vectors) from coarse pixels k-1 .. k+4. Sum = A.wA + B.3 by byte pairs:
// even pixels pair (s[k-1], s[k+1]) at 1 and (s[k], s[k]) at 3; odd pixels
// pair (s[k], s[k+1]) at 4 and nothing. Vectors 0 and 1 index a load at
// pixel k-1, vector 2 a load two bytes further on.
struct Expand3Tables {
  int8_t A[3][16], B[3][16], W[3][16];
};
constexpr Expand3Tables MakeExpand3Tables() {
  Expand3Tables t{};
  for (int v = 0; v < 3; ++v)
    for (int i = 0; i < 8; ++i) {
      const int sample = 8 * v + i, p = sample / 3, ch = sample % 3, base = v == 2 ? 2 : 0;
      auto at = [&](int r) { return int8_t(3 * (p / 2 + r + 1) + ch - base); };  // coarse pixel k + r
      if (p % 2 == 0) {
        t.A[v][2 * i] = at(-1), t.A[v][2 * i + 1] = at(1);
        t.B[v][2 * i] = at(0), t.B[v][2 * i + 1] = at(0);
        t.W[v][2 * i] = t.W[v][2 * i + 1] = 1;
      } else {
        t.A[v][2 * i] = at(0), t.A[v][2 * i + 1] = at(1);
        t.B[v][2 * i] = t.B[v][2 * i + 1] = -1;
        t.W[v][2 * i] = t.W[v][2 * i + 1] = 4;
      }
    }
  return t;
}
constexpr Expand3Tables kExpand3 = MakeExpand3Tables();

// Returns the first middle fine position the vector loop left undone.
int ExpandRowVector(const uint8_t* s, uint16_t* d, int fw, int C) {
  int x = 2;
  const __m128i six = _mm_set1_epi16(6);
  if (C == 1) {
    // Sixteen fine positions 2k .. 2k+15 from s[k-1 .. k+8].
    for (; x + 15 <= fw - 3; x += 16) {
      const int k = x >> 1;
      const __m128i a = WidenLoU8ToU16(Load8Bytes(s + k - 1)), b = WidenLoU8ToU16(Load8Bytes(s + k));
      const __m128i c = WidenLoU8ToU16(Load8Bytes(s + k + 1));
      const __m128i even = _mm_add_epi16(_mm_add_epi16(a, c), _mm_mullo_epi16(b, six));
      const __m128i odd = _mm_slli_epi16(_mm_add_epi16(b, c), 2);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d + x), _mm_unpacklo_epi16(even, odd));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d + x + 8), _mm_unpackhi_epi16(even, odd));
    }
  } else if (C == 4) {
    // Four fine pixels 2k .. 2k+3 from coarse pixels k-1 .. k+2.
    for (; x + 3 <= fw - 3; x += 4) {
      const uint8_t* p = s + ((x >> 1) - 1) * 4;
      const __m128i a = WidenLoU8ToU16(Load8Bytes(p)), b = WidenLoU8ToU16(Load8Bytes(p + 4));
      const __m128i c = WidenLoU8ToU16(Load8Bytes(p + 8));
      const __m128i even = _mm_add_epi16(_mm_add_epi16(a, c), _mm_mullo_epi16(b, six));
      const __m128i odd = _mm_slli_epi16(_mm_add_epi16(b, c), 2);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d + x * 4), _mm_unpacklo_epi64(even, odd));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d + x * 4 + 8), _mm_unpackhi_epi64(even, odd));
    }
  } else {
    // Eight fine pixels 2k .. 2k+7; the loads end at byte 3k + 14, inside the
    // row since x + 7 <= fw - 3 gives k <= cw - 5.
    auto T = [](const int8_t* m) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(m)); };
    const __m128i a0 = T(kExpand3.A[0]), a1 = T(kExpand3.A[1]), a2 = T(kExpand3.A[2]);
    const __m128i b0 = T(kExpand3.B[0]), b1 = T(kExpand3.B[1]), b2 = T(kExpand3.B[2]);
    const __m128i w0 = T(kExpand3.W[0]), w1 = T(kExpand3.W[1]), w2 = T(kExpand3.W[2]);
    const __m128i three = _mm_set1_epi8(3);
    for (; x + 7 <= fw - 3; x += 8) {
      const uint8_t* p = s + ((x >> 1) - 1) * 3;
      const __m128i l = Load16Bytes(p), h = Load16Bytes(p + 2);
      auto Sum = [three](__m128i v, __m128i a, __m128i b, __m128i w) {
        return _mm_add_epi16(_mm_maddubs_epi16(_mm_shuffle_epi8(v, a), w),
                             _mm_maddubs_epi16(_mm_shuffle_epi8(v, b), three));
      };
      uint16_t* o = d + x * 3;
      _mm_storeu_si128(reinterpret_cast<__m128i*>(o), Sum(l, a0, b0, w0));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(o + 8), Sum(l, a1, b1, w1));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(o + 16), Sum(h, a2, b2, w2));
    }
  }
  return x;
}

}  // namespace

void PyrReduceRowU8(const uint8_t* Src, uint16_t* Dest, int SrcWidth, int Channel) {
  const int dw = (SrcWidth + 1) >> 1;
  const int j = dw > 2 ? ReduceRowVector(Src, Dest, SrcWidth, Channel) : 1;
  ReduceRowMiddle<uint8_t, uint16_t, int>(Src, Dest, Channel, j, dw - 1);
  ReduceRowEdges<uint8_t, uint16_t, int>(Src, Dest, SrcWidth, Channel);
}

void PyrReduceRowF32(const float* Src, float* Dest, int SrcWidth, int Channel) {
  const int dw = (SrcWidth + 1) >> 1;
  ReduceRowMiddle<float, float, float>(Src, Dest, Channel, 1, dw - 1);
  ReduceRowEdges<float, float, float>(Src, Dest, SrcWidth, Channel);
}

void PyrExpandRowU8(const uint8_t* Src, uint16_t* Dest, int CoarseWidth, int FineWidth, int Channel) {
  const int x = FineWidth > 4 ? ExpandRowVector(Src, Dest, FineWidth, Channel) : 2;
  ExpandRowMiddle<uint8_t, uint16_t, int>(Src, Dest, Channel, x, FineWidth - 2);
  ExpandRowEdges<uint8_t, uint16_t, int>(Src, Dest, CoarseWidth, FineWidth, Channel);
}

void PyrExpandRowF32(const float* Src, float* Dest, int CoarseWidth, int FineWidth, int Channel) {
  ExpandRowMiddle<float, float, float>(Src, Dest, Channel, 2, FineWidth - 2);
  ExpandRowEdges<float, float, float>(Src, Dest, CoarseWidth, FineWidth, Channel);
}

namespace {

template <typename T>
const T* RowOf(const PyramidLevel* L, int y) {
  return static_cast<const T*>(L->Data) + size_t(y) * size_t(L->Stride);
}
template <typename T>
T* RowOf(PyramidLevel* L, int y) {
  return static_cast<T*>(L->Data) + size_t(y) * size_t(L->Stride);
}

bool Missing(const PyramidLevel* L) { return L == nullptr || L->Data == nullptr; }
bool SameSize(const PyramidLevel* A, const PyramidLevel* B) { return A->Width == B->Width && A->Height == B->Height; }
bool Positive(const PyramidLevel* L) { return L->Width > 0 && L->Height > 0; }
bool HalfOf(int Fine, int Coarse) { return Fine == 2 * Coarse || Fine == 2 * Coarse - 1; }

// Frame of the expand kernels: Level may be null (the plain expand).
int ExpandFrame(const PyramidLevel* Coarse, const PyramidLevel* Level, const PyramidLevel* Out, int Channel) {
  if (Missing(Coarse) || Missing(Out) || (Level != nullptr && Level->Data == nullptr)) return STATUS_NULL_REFERENCE;
  if (!IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;
  if (!Positive(Coarse) || !Positive(Out) || !HalfOf(Out->Width, Coarse->Width) ||
      !HalfOf(Out->Height, Coarse->Height) || (Level != nullptr && !SameSize(Level, Out)))
    return STATUS_INVALID_PARAMETER;
  return STATUS_OK;
}

int ReduceFrame(const PyramidLevel* Src, const PyramidLevel* Dest, int Channel) {
  if (Missing(Src) || Missing(Dest)) return STATUS_NULL_REFERENCE;
  if (!IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;
  if (!Positive(Src) || Dest->Width != (Src->Width + 1) >> 1 || Dest->Height != (Src->Height + 1) >> 1)
    return STATUS_INVALID_PARAMETER;
  return STATUS_OK;
}

// ---- the byte expand column stage, with the five output forms ----------------

enum class ExpandOp { Plain, SubtractI16, AddI16, SubtractBiased, AddBiased };

// Expanded bytes of one fine row: even rows (a + 6b + c + 32) >> 6, odd
// rows (b + c + 8) >> 4; a, b, c the coarse row sums above, at and below.
static inline __m128i ExpandedEven(const uint16_t* a, const uint16_t* b, const uint16_t* c, int i) {
  const __m128i va = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + i));
  const __m128i vb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + i));
  const __m128i vc = _mm_loadu_si128(reinterpret_cast<const __m128i*>(c + i));
  const __m128i s = _mm_add_epi16(_mm_add_epi16(va, vc), _mm_mullo_epi16(vb, _mm_set1_epi16(6)));
  return _mm_srli_epi16(_mm_add_epi16(s, _mm_set1_epi16(32)), 6);
}
static inline __m128i ExpandedOdd(const uint16_t* b, const uint16_t* c, int i) {
  const __m128i vb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + i));
  const __m128i vc = _mm_loadu_si128(reinterpret_cast<const __m128i*>(c + i));
  return _mm_srli_epi16(_mm_add_epi16(_mm_add_epi16(vb, vc), _mm_set1_epi16(8)), 4);
}

// Eight expanded values combined with the level row as the form says, in
// 16-bit lanes: the int16 result, or the value the byte forms saturate.
template <ExpandOp Op>
inline __m128i Combine8(__m128i e, __m128i Level) {
  const __m128i bias = _mm_set1_epi16(127);
  switch (Op) {
    case ExpandOp::Plain:
      return e;
    case ExpandOp::SubtractI16:
      return _mm_sub_epi16(Level, e);
    case ExpandOp::AddI16:
      return _mm_adds_epi16(e, Level);
    case ExpandOp::SubtractBiased:
      return _mm_add_epi16(_mm_sub_epi16(Level, e), bias);
    case ExpandOp::AddBiased:
      return _mm_sub_epi16(_mm_add_epi16(e, Level), bias);
  }
  return e;
}

// Sixteen samples a step, then eight, then the scalar rest (equal results).
template <ExpandOp Op, bool Even>
int ExpandColumnBody(const uint16_t* a, const uint16_t* b, const uint16_t* c, const uint8_t* f8, const int16_t* f16,
                     uint8_t* o8, int16_t* o16, int n) {
  auto E = [&](int i) { return Even ? ExpandedEven(a, b, c, i) : ExpandedOdd(b, c, i); };
  auto L16 = [](const int16_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); };
  int i = 0;
  for (; i + 16 <= n; i += 16) {
    __m128i lo = E(i), hi = E(i + 8);
    if (Op == ExpandOp::AddI16) {
      lo = Combine8<Op>(lo, L16(f16 + i)), hi = Combine8<Op>(hi, L16(f16 + i + 8));
    } else if (Op != ExpandOp::Plain) {
      const __m128i f = Load16Bytes(f8 + i);
      lo = Combine8<Op>(lo, WidenLoU8ToU16(f)), hi = Combine8<Op>(hi, WidenHiU8ToU16(f));
    }
    if (Op == ExpandOp::SubtractI16) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(o16 + i), lo);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(o16 + i + 8), hi);
    } else {
      Store16Bytes(o8 + i, _mm_packus_epi16(lo, hi));
    }
  }
  if (i + 8 <= n) {
    __m128i v = E(i);
    if (Op == ExpandOp::AddI16)
      v = Combine8<Op>(v, L16(f16 + i));
    else if (Op != ExpandOp::Plain)
      v = Combine8<Op>(v, WidenLoU8ToU16(Load8Bytes(f8 + i)));
    if (Op == ExpandOp::SubtractI16)
      _mm_storeu_si128(reinterpret_cast<__m128i*>(o16 + i), v);
    else
      Store8Bytes(o8 + i, _mm_packus_epi16(v, v));
    i += 8;
  }
  return i;
}

template <ExpandOp Op>
void ExpandColumnRow(const uint16_t* a, const uint16_t* b, const uint16_t* c, bool Even, const void* LevelRow,
                     void* OutRow, int n) {
  const uint8_t* f8 = static_cast<const uint8_t*>(LevelRow);
  const int16_t* f16 = static_cast<const int16_t*>(LevelRow);
  uint8_t* o8 = static_cast<uint8_t*>(OutRow);
  int16_t* o16 = static_cast<int16_t*>(OutRow);
  const int body = Even ? ExpandColumnBody<Op, true>(a, b, c, f8, f16, o8, o16, n)
                        : ExpandColumnBody<Op, false>(a, b, c, f8, f16, o8, o16, n);
  for (int i = body; i < n; ++i) {
    const int e = Even ? (a[i] + 6 * b[i] + c[i] + 32) >> 6 : (b[i] + c[i] + 8) >> 4;
    switch (Op) {
      case ExpandOp::Plain:
        o8[i] = uint8_t(e);
        break;
      case ExpandOp::SubtractI16:
        o16[i] = int16_t(f8[i] - e);
        break;
      case ExpandOp::AddI16:
        o8[i] = uint8_t(ClampToByte(e + f16[i]));
        break;
      case ExpandOp::SubtractBiased:
        o8[i] = uint8_t(ClampToByte(f8[i] - e + 127));
        break;
      case ExpandOp::AddBiased:
        o8[i] = uint8_t(ClampToByte(e + f8[i] - 127));
        break;
    }
  }
}

// Shared walk of the expand kernels: three coarse row sums (j-1, j, j+1),
// rotated at every even fine row. Level is the second operand (or null).
template <typename CoarseT, typename SumT, typename RowFn, typename ColFn>
int ExpandWalk(const PyramidLevel* Coarse, const PyramidLevel* Level, PyramidLevel* Out, int Channel, RowFn Row,
               ColFn Col) {
  const int cw = Coarse->Width, ch = Coarse->Height, fw = Out->Width, fh = Out->Height;
  const size_t len = size_t(fw) * Channel + 8;
  SumT* block = MallocArray<SumT>(3 * len);
  if (block == nullptr) return STATUS_OUT_OF_MEMORY;
  SumT* rows[3] = {block, block + len, block + 2 * len};
  for (int y = 0; y < fh; ++y) {
    const int j = y >> 1;
    if ((y & 1) == 0) {
      if (y == 0) {
        for (int k = 0; k < 3; ++k)
          Row(RowOf<CoarseT>(Coarse, Reflect101Index(ch, j - 1 + k)), rows[k], cw, fw, Channel);
      } else {
        SumT* t = rows[0];
        rows[0] = rows[1];
        rows[1] = rows[2];
        rows[2] = t;
        Row(RowOf<CoarseT>(Coarse, Reflect101Index(ch, j + 1)), rows[2], cw, fw, Channel);
      }
    }
    Col(rows[0], rows[1], rows[2], (y & 1) == 0, Level, Out, y, fw * Channel);
  }
  Free(block);
  return STATUS_OK;
}

template <ExpandOp Op>
int ExpandU8(const PyramidLevel* Coarse, const PyramidLevel* Level, PyramidLevel* Out, int Channel) {
  if (int s = ExpandFrame(Coarse, Level, Out, Channel)) return s;
  auto col = [](const uint16_t* a, const uint16_t* b, const uint16_t* c, bool even, const PyramidLevel* L,
                PyramidLevel* O, int y, int n) {
    const void* lr = nullptr;
    if (L != nullptr)
      lr = Op == ExpandOp::AddI16 ? static_cast<const void*>(RowOf<int16_t>(L, y))
                                  : static_cast<const void*>(RowOf<uint8_t>(L, y));
    void* orow = Op == ExpandOp::SubtractI16 ? static_cast<void*>(RowOf<int16_t>(O, y))
                                             : static_cast<void*>(RowOf<uint8_t>(O, y));
    ExpandColumnRow<Op>(a, b, c, even, lr, orow, n);
  };
  return ExpandWalk<uint8_t, uint16_t>(Coarse, Level, Out, Channel, PyrExpandRowU8, col);
}

}  // namespace

int PyrReduceU8(const PyramidLevel* Src, PyramidLevel* Dest, int Channel) {
  if (int s = ReduceFrame(Src, Dest, Channel)) return s;
  const int sw = Src->Width, sh = Src->Height, dw = Dest->Width, dh = Dest->Height;
  const int n = dw * Channel;
  const size_t len = size_t(n) + 8;
  uint16_t* block = MallocArray<uint16_t>(5 * len);
  if (block == nullptr) return STATUS_OUT_OF_MEMORY;
  uint16_t* b[5];
  for (int k = 0; k < 5; ++k) b[k] = block + k * len;
  const int body = n & ~7;
  const __m128i four = _mm_set1_epi16(4), six = _mm_set1_epi16(6), half = _mm_set1_epi16(128);
  for (int j = 0; j < dh; ++j) {
    // Rows 2j-2 .. 2j+2: all five at first, then two new ones and three kept.
    if (j == 0) {
      for (int k = 0; k < 5; ++k) PyrReduceRowU8(RowOf<uint8_t>(Src, Reflect101Index(sh, k - 2)), b[k], sw, Channel);
    } else {
      uint16_t* t0 = b[0];
      uint16_t* t1 = b[1];
      b[0] = b[2], b[1] = b[3], b[2] = b[4], b[3] = t0, b[4] = t1;
      PyrReduceRowU8(RowOf<uint8_t>(Src, Reflect101Index(sh, 2 * j + 1)), b[3], sw, Channel);
      PyrReduceRowU8(RowOf<uint8_t>(Src, Reflect101Index(sh, 2 * j + 2)), b[4], sw, Channel);
    }
    uint8_t* d = RowOf<uint8_t>(Dest, j);
    // At most 16 * 4080 + 128 = 65408: the 16-bit sums never wrap.
    for (int i = 0; i < body; i += 8) {
      auto L = [&](int k) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(b[k] + i)); };
      __m128i s = _mm_add_epi16(_mm_add_epi16(L(0), L(4)), _mm_mullo_epi16(_mm_add_epi16(L(1), L(3)), four));
      s = _mm_add_epi16(_mm_add_epi16(s, _mm_mullo_epi16(L(2), six)), half);
      s = _mm_srli_epi16(s, 8);
      Store8Bytes(d + i, _mm_packus_epi16(s, s));
    }
    for (int i = body; i < n; ++i)
      d[i] = uint8_t((b[0][i] + b[4][i] + 4 * (b[1][i] + b[3][i]) + 6 * b[2][i] + 128) >> 8);
  }
  Free(block);
  return STATUS_OK;
}

int PyrExpandU8(const PyramidLevel* Coarse, PyramidLevel* Fine, int Channel) {
  return ExpandU8<ExpandOp::Plain>(Coarse, nullptr, Fine, Channel);
}
int PyrExpandSubtractI16(const PyramidLevel* Coarse, const PyramidLevel* Fine, PyramidLevel* Out, int Channel) {
  if (Fine == nullptr) return STATUS_NULL_REFERENCE;
  return ExpandU8<ExpandOp::SubtractI16>(Coarse, Fine, Out, Channel);
}
int PyrExpandAddI16(const PyramidLevel* Coarse, const PyramidLevel* Level, PyramidLevel* Out, int Channel) {
  if (Level == nullptr) return STATUS_NULL_REFERENCE;
  return ExpandU8<ExpandOp::AddI16>(Coarse, Level, Out, Channel);
}
int PyrExpandSubtractBiased(const PyramidLevel* Coarse, const PyramidLevel* Fine, PyramidLevel* Out, int Channel) {
  if (Fine == nullptr) return STATUS_NULL_REFERENCE;
  return ExpandU8<ExpandOp::SubtractBiased>(Coarse, Fine, Out, Channel);
}
int PyrExpandAddBiased(const PyramidLevel* Coarse, const PyramidLevel* Level, PyramidLevel* Out, int Channel) {
  if (Level == nullptr) return STATUS_NULL_REFERENCE;
  return ExpandU8<ExpandOp::AddBiased>(Coarse, Level, Out, Channel);
}

// ---- float forms --------------------------------------------------------------

int PyrReduceF32(const PyramidLevel* Src, PyramidLevel* Dest, int Channel) {
  if (int s = ReduceFrame(Src, Dest, Channel)) return s;
  const int sw = Src->Width, sh = Src->Height, dh = Dest->Height;
  const int n = Dest->Width * Channel;
  float* block = MallocArray<float>(5 * size_t(n));
  if (block == nullptr) return STATUS_OUT_OF_MEMORY;
  float* b[5];
  for (int k = 0; k < 5; ++k) b[k] = block + k * size_t(n);
  for (int j = 0; j < dh; ++j) {
    if (j == 0) {
      for (int k = 0; k < 5; ++k) PyrReduceRowF32(RowOf<float>(Src, Reflect101Index(sh, k - 2)), b[k], sw, Channel);
    } else {
      float* t0 = b[0];
      float* t1 = b[1];
      b[0] = b[2], b[1] = b[3], b[2] = b[4], b[3] = t0, b[4] = t1;
      PyrReduceRowF32(RowOf<float>(Src, Reflect101Index(sh, 2 * j + 1)), b[3], sw, Channel);
      PyrReduceRowF32(RowOf<float>(Src, Reflect101Index(sh, 2 * j + 2)), b[4], sw, Channel);
    }
    float* d = RowOf<float>(Dest, j);
    for (int i = 0; i < n; ++i) d[i] = (b[0][i] + b[4][i] + 4.0f * (b[1][i] + b[3][i]) + 6.0f * b[2][i]) * 0.00390625f;
  }
  Free(block);
  return STATUS_OK;
}

namespace {
template <bool Add>
int ExpandF32(const PyramidLevel* Coarse, const PyramidLevel* Level, PyramidLevel* Out, int Channel) {
  if (Level == nullptr) return STATUS_NULL_REFERENCE;
  if (int s = ExpandFrame(Coarse, Level, Out, Channel)) return s;
  auto col = [](const float* a, const float* b, const float* c, bool even, const PyramidLevel* L, PyramidLevel* O,
                int y, int n) {
    const float* l = RowOf<float>(L, y);
    float* o = RowOf<float>(O, y);
    for (int i = 0; i < n; ++i) {
      const float e = even ? (a[i] + 6.0f * b[i] + c[i]) * 0.015625f : (b[i] + c[i]) * 0.0625f;
      o[i] = Add ? e + l[i] : l[i] - e;
    }
  };
  return ExpandWalk<float, float>(Coarse, Level, Out, Channel, PyrExpandRowF32, col);
}
}  // namespace

int PyrExpandSubtractF32(const PyramidLevel* Coarse, const PyramidLevel* Fine, PyramidLevel* Out, int Channel) {
  return ExpandF32<false>(Coarse, Fine, Out, Channel);
}
int PyrExpandAddF32(const PyramidLevel* Coarse, const PyramidLevel* Level, PyramidLevel* Out, int Channel) {
  return ExpandF32<true>(Coarse, Level, Out, Channel);
}

// ---- pyramids -------------------------------------------------------------------

namespace {
template <typename T, typename ReduceFn>
int BuildGauss(const T* Src, PyramidLevel* Levels, int Width, int Height, int Stride, int Count, ReduceFn Reduce) {
  const int Channel = DeriveChannel(Stride, Width);
  if (int s = PyramidAlloc(Levels, Width, Height, Stride, Count, true, sizeof(T))) return s;
  if (Src == nullptr) {
    PyramidFree(Levels, Count, true);
    return STATUS_NULL_REFERENCE;
  }
  Levels[0].Data = const_cast<T*>(Src);
  Levels[0].Stride = Stride;
  for (int i = 1; i < Count; ++i) {
    if (int s = Reduce(&Levels[i - 1], &Levels[i], Channel)) {
      PyramidFree(Levels, Count, true);
      return s;
    }
  }
  return STATUS_OK;
}
}  // namespace

int BuildGaussPyramidU8(const uint8_t* Src, PyramidLevel* Levels, int Width, int Height, int Stride, int Count) {
  return BuildGauss(Src, Levels, Width, Height, Stride, Count, PyrReduceU8);
}
int BuildGaussPyramidF32(const float* Src, PyramidLevel* Levels, int Width, int Height, int Stride, int Count) {
  return BuildGauss(Src, Levels, Width, Height, Stride, Count, PyrReduceF32);
}

int BuildLaplacePyramidF32(const PyramidLevel* Gauss, PyramidLevel* Laplace, int Width, int Height, int Stride,
                           int Count) {
  const int Channel = DeriveChannel(Stride, Width);
  if (Gauss == nullptr) return STATUS_NULL_REFERENCE;
  if (int s = PyramidAlloc(Laplace, Width, Height, Stride, Count, false, sizeof(float))) return s;
  const PyramidLevel& top = Gauss[Count - 1];
  for (int y = 0; y < top.Height; ++y)
    std::memcpy(RowOf<float>(&Laplace[Count - 1], y), RowOf<float>(&top, y), sizeof(float) * top.Width * Channel);
  for (int i = Count - 2; i >= 0; --i) {
    if (int s = PyrExpandSubtractF32(&Gauss[i + 1], &Gauss[i], &Laplace[i], Channel)) {
      PyramidFreeAll(Laplace, Count);
      return s;
    }
  }
  // Row padding is never computed; clear it so that every element is defined.
  for (int i = 0; i < Count; ++i) {
    const int used = Laplace[i].Width * Channel;
    for (int y = 0; y < Laplace[i].Height; ++y)
      std::memset(RowOf<float>(&Laplace[i], y) + used, 0, sizeof(float) * (Laplace[i].Stride - used));
  }
  return STATUS_OK;
}

// ---- conversions --------------------------------------------------------------

int BytesToFloats(const uint8_t* Src, float* Dest, int Count) {
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Count < 1) return STATUS_INVALID_PARAMETER;
  const int body = Count & ~7;
  for (int i = 0; i < body; i += 8) {
    const __m128i v = WidenLoU8ToU16(Load8Bytes(Src + i));
    _mm_storeu_ps(Dest + i, _mm_cvtepi32_ps(WidenLoU16ToI32(v)));
    _mm_storeu_ps(Dest + i + 4, _mm_cvtepi32_ps(WidenHiU16ToI32(v)));
  }
  for (int i = body; i < Count; ++i) Dest[i] = float(Src[i]);
  return STATUS_OK;
}

int FloatsToBytes(const float* Src, uint8_t* Dest, int Count) {
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Count < 1) return STATUS_INVALID_PARAMETER;
  const int body = Count & ~15;
  for (int i = 0; i < body; i += 16) {
    const __m128i a = _mm_cvttps_epi32(_mm_loadu_ps(Src + i)), b = _mm_cvttps_epi32(_mm_loadu_ps(Src + i + 4));
    const __m128i c = _mm_cvttps_epi32(_mm_loadu_ps(Src + i + 8)), d = _mm_cvttps_epi32(_mm_loadu_ps(Src + i + 12));
    Store16Bytes(Dest + i, _mm_packus_epi16(_mm_packs_epi32(a, b), _mm_packs_epi32(c, d)));
  }
  // The tail rounds where the body truncates; both are kept.
  for (int i = body; i < Count; ++i) Dest[i] = uint8_t(ClampToByte(TruncateToInt(Src[i] + 0.4999999f)));
  return STATUS_OK;
}

int BytesToI16(const uint8_t* Src, int16_t* Dest, int Count) {
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Count < 1) return STATUS_INVALID_PARAMETER;
  const int body = Count & ~15;
  for (int i = 0; i < body; i += 16) {
    const __m128i v = Load16Bytes(Src + i);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + i), WidenLoU8ToU16(v));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + i + 8), WidenHiU8ToU16(v));
  }
  for (int i = body; i < Count; ++i) Dest[i] = Src[i];
  return STATUS_OK;
}

int I16ToBytes(const int16_t* Src, uint8_t* Dest, int Count) {
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Count < 1) return STATUS_INVALID_PARAMETER;
  const int body = Count & ~15;
  for (int i = 0; i < body; i += 16) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src + i));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src + i + 8));
    Store16Bytes(Dest + i, _mm_packus_epi16(a, b));
  }
  for (int i = body; i < Count; ++i) Dest[i] = uint8_t(ClampToByte(Src[i]));
  return STATUS_OK;
}

}  // namespace qv

// ---- exports --------------------------------------------------------------------

extern "C" QV_API int QV_GetMaxPyramidLevel(int Width, int Height, int MinSize) {
  if (Width < 1 || Height < 1 || MinSize < 1) return 0;
  int m = Width < Height ? Width : Height;
  if (m < MinSize) return 0;
  int n = 1;
  while (m != 1 && (m >> 1) >= MinSize) {
    ++n;
    m >>= 1;
  }
  return n;
}

namespace {
// Sign-preserving power boost of one Laplace sample.
inline float Boost(float v) {
  const float x = v + 1e-05f;
  const float a = std::fabs(x);
  return static_cast<float>((x * 4.0f / a) * std::pow(static_cast<double>(a), 0.6));
}
}  // namespace

extern "C" QV_API int LaplacePyramidTest(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                         int Stride, int Levels) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  const int n = QV_GetMaxPyramidLevel(Width, Height, 1);
  if (Levels > n) Levels = n;
  // The builders' own tests, made before any allocation so that every request
  // is positive: sizes and count give 1, Channel gives 5.
  if (Width < 1 || Height < 1 || Levels < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;
  const int count = Height * Stride;  // 32-bit, as the library is specified

  // The float image is tested too: a missing block is status 2, not a fault.
  float* image = qv::MallocArray<float>(size_t(count));
  qv::PyramidLevel* gauss = qv::CallocArray<qv::PyramidLevel>(size_t(Levels));
  qv::PyramidLevel* laplace = qv::CallocArray<qv::PyramidLevel>(size_t(Levels));
  int status = STATUS_OK;
  if (image == nullptr || gauss == nullptr || laplace == nullptr) {
    status = STATUS_OUT_OF_MEMORY;
  } else if ((status = qv::BytesToFloats(Src, image, count)) == STATUS_OK &&
             (status = qv::BuildGaussPyramidF32(image, gauss, Width, Height, Stride, Levels)) == STATUS_OK) {
    status = qv::BuildLaplacePyramidF32(gauss, laplace, Width, Height, Stride, Levels);
    if (status == STATUS_OK) {
      for (int l = Levels - 2; l >= 0; --l) {
        // Three samples a pixel whatever Channel is; with one channel the walk
        // runs on into the next rows and stops at the end of the level.
        float* data = static_cast<float*>(laplace[l].Data);
        const size_t size = size_t(laplace[l].Stride) * laplace[l].Height;
        for (int y = 0; y < laplace[l].Height; ++y) {
          const size_t start = size_t(y) * laplace[l].Stride;
          const size_t end = std::min(start + 3 * size_t(laplace[l].Width), size);
          for (size_t i = start; i < end; ++i) data[i] = Boost(data[i]);
        }
      }
      for (int l = Levels - 2; l >= 0 && status == STATUS_OK; --l)
        status = qv::PyrExpandAddF32(&gauss[l + 1], &laplace[l], &gauss[l], Channel);
      if (status == STATUS_OK) status = qv::FloatsToBytes(image, Dest, count);
      qv::PyramidFreeAll(laplace, Levels);
    }
    qv::PyramidFree(gauss, Levels, true);
  }
  qv::FreeAll(laplace, gauss, image);
  return status;
}
