// The window sum skeleton, written once for every window filter: column sums
// kept in a padded row and updated by one entering and one leaving image row,
// and a running window sum walked along that row, at a cost independent of
// the radius.
//
// How a window filter uses it
// ---------------------------
//   T       column element: uint8_t, uint16_t, int32_t or float.
//   Pitch   elements per pixel in ColumnSums: 1, 3 or 4. Pitch 4 with a
//           3-channel source spreads each pixel into 4 lanes, lane 3 kept 0.
//
//   1. R = ClampWindowRadius(Radius, Width, Height)   (after the frame's tests)
//   2. Allocate, together with the operator's other buffers:
//        ColumnSums: WindowColumnCount<T, Pitch>(Width, R) elements
//                    (AlignedArray<T>(...) or MallocArray<T>(...));
//        RowTable:   WindowRowTableCount(Height, R) ints.
//      On any failure free what was obtained and return STATUS_OUT_OF_MEMORY.
//   3. FillRowTable(RowTable, Height, R).
//   4. ForEachWindowRow<T, Pitch>(Src, Stride, Width, Height, Channel, R,
//                                ColumnSums, RowTable, RowOp);
//      RowOp(y, const T* Columns) gets the padded row (element 0 is the
//      leftmost border element) with both borders written, and turns it into
//      output row y, normally through one of the horizontal drivers below:
//        SlideWindowRow<T>(Columns, Width, R, Op)             Pitch 1
//        SlideWindowPixelsU16x4(Columns, Width, R, Op)        u16, Pitch 4
//        SlideWindowPixels<T, Pitch>(Columns, Width, R, VectorEnd, Op)
//                                                             i32/f32, Pitch 3/4
//      Op says what the operator does with each window sum S, with two
//      members: Op.Scalar(x, S) for pixels of the scalar loops and
//      Op.Vector(x, Sums...) for the pixels of a vector block. Scalar and
//      vector pixels are where the operator's two conversions differ.
//   Operators with two column rows (sums and sums of squares) call the
//   steps themselves: ColumnSumsFirstRow / ColumnSumsNextRow and
//   ExtendColumnSums, then their own horizontal loop.
//
// Decisions visible in results: rows mirror repeating the edge (row -1 is row
// 0, MirrorIndex), columns reflect without it (column -1 is column 1); integer
// sums are updated by subtraction and wrap (never saturate); in float the
// running sum is taken in its sequential order (vector blocks reproduce it).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "frame/border.h"
#include "frame/rows.h"
#include "frame/simd.h"

namespace qv {

// ---- sizes, radius clamp, row table ------------------------------------------------

// Radius := min(Radius, Width - 1, Height - 1), taken silently.
static inline int ClampWindowRadius(int Radius, int Width, int Height) {
  if (Radius > Width - 1) Radius = Width - 1;
  if (Radius > Height - 1) Radius = Height - 1;
  return Radius;
}

// Width + 2R pixels of Pitch elements, plus one spare pixel: the 4-lane loads
// of a 3-lane row straddle into the next pixel.
template <typename T, int Pitch>
static inline size_t WindowColumnCount(int Width, int Radius) {
  return static_cast<size_t>(Width + 2 * Radius + 1) * Pitch;
}
static inline size_t WindowRowTableCount(int Height, int Radius) { return static_cast<size_t>(Height + 2 * Radius); }

// Entry k is the source row of virtual row k - Radius (edge row repeated).
static inline void FillRowTable(int* RowTable, int Height, int Radius) {
  for (int k = 0; k < Height + 2 * Radius; ++k) RowTable[k] = MirrorIndex(Height, k - Radius);
}

// ---- what a byte sample contributes to a column sum ----------------------------------
// A Map has Scalar(int) -> int and Vector(8 x u16) -> 8 x u16, and maps 0 to 0
// where it feeds a spread fourth lane. Its values must fit the element type.

struct SampleIdentity {
  static int Scalar(int v) { return v; }
  static __m128i Vector(__m128i v) { return v; }
};
// The square of a sample, formed unsigned in a 16-bit lane (at most 65025).
struct SampleSquare {
  static int Scalar(int v) { return v * v; }
  static __m128i Vector(__m128i v) { return _mm_mullo_epi16(v, v); }
};

namespace window_detail {

// C[0..7] (+)= a - b for eight mapped 16-bit samples, in the element type.
template <typename T, bool Sub>
static inline void Accumulate8(T* C, __m128i a, __m128i b) {
  if constexpr (std::is_same<T, uint16_t>::value) {
    __m128i c = Load16Bytes(C);
    c = _mm_add_epi16(c, a);
    if (Sub) c = _mm_sub_epi16(c, b);
    Store16Bytes(C, c);
  } else if constexpr (std::is_same<T, int32_t>::value) {
    __m128i c0 = Load16Bytes(C), c1 = Load16Bytes(C + 4);
    c0 = _mm_add_epi32(c0, WidenLoU16ToI32(a));
    c1 = _mm_add_epi32(c1, WidenHiU16ToI32(a));
    if (Sub) {
      c0 = _mm_sub_epi32(c0, WidenLoU16ToI32(b));
      c1 = _mm_sub_epi32(c1, WidenHiU16ToI32(b));
    }
    Store16Bytes(C, c0);
    Store16Bytes(C + 4, c1);
  } else {
    static_assert(std::is_same<T, float>::value, "element type");
    // The difference is exact in integers; one rounding when it is added.
    __m128i d0 = WidenLoU16ToI32(a), d1 = WidenHiU16ToI32(a);
    if (Sub) {
      d0 = _mm_sub_epi32(d0, WidenLoU16ToI32(b));
      d1 = _mm_sub_epi32(d1, WidenHiU16ToI32(b));
    }
    _mm_storeu_ps(C, _mm_add_ps(_mm_loadu_ps(C), _mm_cvtepi32_ps(d0)));
    _mm_storeu_ps(C + 4, _mm_add_ps(_mm_loadu_ps(C + 4), _mm_cvtepi32_ps(d1)));
  }
}

template <typename T, bool Sub, typename Map>
static inline void AccumulateScalar(T* C, int a, int b) {
  const int d = Sub ? Map::Scalar(a) - Map::Scalar(b) : Map::Scalar(a);
  if constexpr (std::is_floating_point<T>::value)
    *C = *C + static_cast<T>(d);
  else  // wraps in the element's width, as the vector lanes do
    *C = static_cast<T>(static_cast<uint32_t>(*C) + static_cast<uint32_t>(d));
}

// Byte rows: Add (and Sub) hold Width * Channel samples.
template <typename T, int Pitch, typename Map, bool Sub>
static inline void AccumulateRow(T* C, const uint8_t* Add, const uint8_t* SubRow, int Width, int Channel) {
  if constexpr (Pitch == 4 && !std::is_same<T, uint8_t>::value) {
    if (Channel == 3) {
      // Four 3-sample pixels (12 bytes) per step spread into 16 lanes.
      const __m128i keep = _mm_setr_epi16(-1, -1, -1, 0, -1, -1, -1, 0);
      int x = 0;
      for (; x + 4 <= Width; x += 4) {
        const __m128i ra = Spread3To4Bytes(_mm_unpacklo_epi64(Load8Bytes(Add + 3 * x), Load4Bytes(Add + 3 * x + 8)));
        __m128i rb = _mm_setzero_si128();
        if (Sub) rb = Spread3To4Bytes(_mm_unpacklo_epi64(Load8Bytes(SubRow + 3 * x), Load4Bytes(SubRow + 3 * x + 8)));
        const __m128i a0 = _mm_and_si128(Map::Vector(WidenLoU8ToU16(ra)), keep);
        const __m128i a1 = _mm_and_si128(Map::Vector(WidenHiU8ToU16(ra)), keep);
        const __m128i b0 = _mm_and_si128(Map::Vector(WidenLoU8ToU16(rb)), keep);
        const __m128i b1 = _mm_and_si128(Map::Vector(WidenHiU8ToU16(rb)), keep);
        Accumulate8<T, Sub>(C + 4 * x, a0, b0);
        Accumulate8<T, Sub>(C + 4 * x + 8, a1, b1);
      }
      for (; x < Width; ++x)
        for (int c = 0; c < 3; ++c)
          AccumulateScalar<T, Sub, Map>(C + 4 * x + c, Add[3 * x + c], Sub ? SubRow[3 * x + c] : 0);
      return;
    }
  }
  const int n = Width * Channel;
  int i = 0;
  for (; i + 16 <= n; i += 16) {
    const __m128i ra = Load16Bytes(Add + i);
    const __m128i rb = Sub ? Load16Bytes(SubRow + i) : _mm_setzero_si128();
    const __m128i a0 = Map::Vector(WidenLoU8ToU16(ra)), a1 = Map::Vector(WidenHiU8ToU16(ra));
    const __m128i b0 = Map::Vector(WidenLoU8ToU16(rb)), b1 = Map::Vector(WidenHiU8ToU16(rb));
    if constexpr (Sub && std::is_same<Map, SampleIdentity>::value && std::is_same<T, int32_t>::value) {
      // Plain bytes: the difference fits a signed 16-bit lane, so widen it once.
      const __m128i d0 = _mm_sub_epi16(a0, b0), d1 = _mm_sub_epi16(a1, b1);
      Store16Bytes(C + i, _mm_add_epi32(Load16Bytes(C + i), _mm_cvtepi16_epi32(d0)));
      Store16Bytes(C + i + 4, _mm_add_epi32(Load16Bytes(C + i + 4), _mm_cvtepi16_epi32(_mm_srli_si128(d0, 8))));
      Store16Bytes(C + i + 8, _mm_add_epi32(Load16Bytes(C + i + 8), _mm_cvtepi16_epi32(d1)));
      Store16Bytes(C + i + 12, _mm_add_epi32(Load16Bytes(C + i + 12), _mm_cvtepi16_epi32(_mm_srli_si128(d1, 8))));
    } else if constexpr (std::is_same<T, uint8_t>::value) {
      // Byte counts wrap at 8 bits like their scalar tail.
      __m128i c = _mm_add_epi8(Load16Bytes(C + i), _mm_packus_epi16(a0, a1));
      if (Sub) c = _mm_sub_epi8(c, _mm_packus_epi16(b0, b1));
      Store16Bytes(C + i, c);
    } else {
      Accumulate8<T, Sub>(C + i, a0, b0);
      Accumulate8<T, Sub>(C + i + 8, a1, b1);
    }
  }
  for (; i < n; ++i) AccumulateScalar<T, Sub, Map>(C + i, Add[i], Sub ? SubRow[i] : 0);
}

// Float rows (Pitch == Channel): C (+)= a - b, the difference taken first.
template <bool Sub>
static inline void AccumulateRow(float* C, const float* Add, const float* SubRow, int Count) {
  int i = 0;
  for (; i + 8 <= Count; i += 8) {
    __m128 a0 = _mm_loadu_ps(Add + i), a1 = _mm_loadu_ps(Add + i + 4);
    if (Sub) {
      a0 = _mm_sub_ps(a0, _mm_loadu_ps(SubRow + i));
      a1 = _mm_sub_ps(a1, _mm_loadu_ps(SubRow + i + 4));
    }
    _mm_storeu_ps(C + i, _mm_add_ps(_mm_loadu_ps(C + i), a0));
    _mm_storeu_ps(C + i + 4, _mm_add_ps(_mm_loadu_ps(C + i + 4), a1));
  }
  for (; i < Count; ++i) C[i] = C[i] + (Sub ? Add[i] - SubRow[i] : Add[i]);
}

// Whether an operator converts two 4-lane blocks in one call.
template <typename Op>
static auto TakesTwoBlocksTest(int)
    -> decltype(std::declval<Op&>().Vector(0, std::declval<const __m128i&>(), std::declval<const __m128i&>()),
                std::true_type{});
template <typename Op>
static std::false_type TakesTwoBlocksTest(...);
template <typename Op>
using TakesTwoBlocks = decltype(TakesTwoBlocksTest<Op>(0));

}  // namespace window_detail

// ---- the vertical step -----------------------------------------------------------------
// Columns points at the real part of the padded row (element Radius * Pitch).

// Row 0: clear the real part and add image rows RowTable[0..2R].
template <typename T, int Pitch, typename Map = SampleIdentity>
static inline void ColumnSumsFirstRow(T* Columns, const uint8_t* Src, int Stride, int Width, int Channel,
                                      const int* RowTable, int Radius) {
  if constexpr (std::is_same<T, int32_t>::value && std::is_same<Map, SampleIdentity>::value) {
    if (!(Pitch == 4 && Channel == 3)) {
      // Down each run of 16 columns at once, in 16-bit lanes for up to 257
      // rows (257 * 255 fits), then into the 32-bit sums: the same values,
      // at a fraction of the cost for the 2R + 1 rows of a large radius.
      // When the table mirrors (entry k and entry 2R - 1 - k name one row, as
      // FillRowTable makes them), rows R .. 2R - 1 are read once and doubled.
      const int n = Width * Channel, rows = 2 * Radius + 1;
      bool mirrored = true;
      for (int k = 0; k < Radius && mirrored; ++k) mirrored = RowTable[k] == RowTable[2 * Radius - 1 - k];
      const int first = mirrored ? Radius : 0, last = mirrored ? rows - 1 : rows;
      int i = 0;
      for (; i + 16 <= n; i += 16) {
        __m128i c0 = _mm_setzero_si128(), c1 = c0, c2 = c0, c3 = c0;
        for (int k0 = first; k0 < last; k0 += 257) {
          const int k1 = last - k0 < 257 ? last : k0 + 257;
          __m128i lo = _mm_setzero_si128(), hi = lo;
          for (int k = k0; k < k1; ++k) {
            const __m128i v = Load16Bytes(Src + static_cast<ptrdiff_t>(RowTable[k]) * Stride + i);
            lo = _mm_add_epi16(lo, WidenLoU8ToU16(v));
            hi = _mm_add_epi16(hi, WidenHiU8ToU16(v));
          }
          c0 = _mm_add_epi32(c0, WidenLoU16ToI32(lo));
          c1 = _mm_add_epi32(c1, WidenHiU16ToI32(lo));
          c2 = _mm_add_epi32(c2, WidenLoU16ToI32(hi));
          c3 = _mm_add_epi32(c3, WidenHiU16ToI32(hi));
        }
        if (mirrored) {
          const __m128i v = Load16Bytes(Src + static_cast<ptrdiff_t>(RowTable[rows - 1]) * Stride + i);
          const __m128i lo = WidenLoU8ToU16(v), hi = WidenHiU8ToU16(v);
          c0 = _mm_add_epi32(_mm_add_epi32(c0, c0), WidenLoU16ToI32(lo));
          c1 = _mm_add_epi32(_mm_add_epi32(c1, c1), WidenHiU16ToI32(lo));
          c2 = _mm_add_epi32(_mm_add_epi32(c2, c2), WidenLoU16ToI32(hi));
          c3 = _mm_add_epi32(_mm_add_epi32(c3, c3), WidenHiU16ToI32(hi));
        }
        Store16Bytes(Columns + i, c0);
        Store16Bytes(Columns + i + 4, c1);
        Store16Bytes(Columns + i + 8, c2);
        Store16Bytes(Columns + i + 12, c3);
      }
      for (; i < n; ++i) {
        uint32_t s = 0;
        for (int k = 0; k < rows; ++k) s += Src[static_cast<ptrdiff_t>(RowTable[k]) * Stride + i];
        Columns[i] = static_cast<int32_t>(s);
      }
      return;
    }
  }
  std::memset(Columns, 0, sizeof(T) * static_cast<size_t>(Width) * Pitch);
  for (int k = 0; k <= 2 * Radius; ++k)
    window_detail::AccumulateRow<T, Pitch, Map, false>(Columns, Src + static_cast<ptrdiff_t>(RowTable[k]) * Stride,
                                                       nullptr, Width, Channel);
}

// Row y > 0: add image row RowTable[y + 2R], subtract image row RowTable[y - 1].
template <typename T, int Pitch, typename Map = SampleIdentity>
static inline void ColumnSumsNextRow(T* Columns, const uint8_t* Src, int Stride, int Width, int Channel,
                                     const int* RowTable, int Radius, int y) {
  window_detail::AccumulateRow<T, Pitch, Map, true>(
      Columns, Src + static_cast<ptrdiff_t>(RowTable[y + 2 * Radius]) * Stride,
      Src + static_cast<ptrdiff_t>(RowTable[y - 1]) * Stride, Width, Channel);
}

// Float images: Stride in floats, Pitch == Channel.
template <typename T, int Pitch>
static inline void ColumnSumsFirstRow(float* Columns, const float* Src, int Stride, int Width, int Channel,
                                      const int* RowTable, int Radius) {
  static_assert(std::is_same<T, float>::value, "float images sum into float columns");
  std::memset(Columns, 0, sizeof(float) * static_cast<size_t>(Width) * Channel);
  for (int k = 0; k <= 2 * Radius; ++k)
    window_detail::AccumulateRow<false>(Columns, Src + static_cast<ptrdiff_t>(RowTable[k]) * Stride, nullptr,
                                        Width * Channel);
}
template <typename T, int Pitch>
static inline void ColumnSumsNextRow(float* Columns, const float* Src, int Stride, int Width, int Channel,
                                     const int* RowTable, int Radius, int y) {
  static_assert(std::is_same<T, float>::value, "float images sum into float columns");
  window_detail::AccumulateRow<true>(Columns, Src + static_cast<ptrdiff_t>(RowTable[y + 2 * Radius]) * Stride,
                                     Src + static_cast<ptrdiff_t>(RowTable[y - 1]) * Stride, Width * Channel);
}

// ---- the border step ---------------------------------------------------------------------

// Padded is the whole row (element 0 = leftmost border element).
template <typename T, int Pitch>
static inline void ExtendColumnSums(T* Padded, int Width, int Radius) {
  if constexpr (std::is_same<T, uint8_t>::value && Pitch == 1)
    ExtendRowU8(Padded, Width, Radius);
  else if constexpr (std::is_same<T, uint16_t>::value && Pitch == 1)
    ExtendRowU16(Padded, Width, Radius);
  else if constexpr (std::is_same<T, uint16_t>::value && Pitch == 4)
    ExtendPixelsU16x4(Padded, Width, Radius);
  else if constexpr (std::is_same<T, int32_t>::value && Pitch == 1)
    ExtendRowI32(Padded, Width, Radius);
  else if constexpr (std::is_same<T, int32_t>::value && Pitch == 3)
    ExtendPixelsI32x3(Padded, Width, Radius);
  else if constexpr (std::is_same<T, int32_t>::value && Pitch == 4)
    ExtendPixelsI32x4(Padded, Width, Radius);
  else if constexpr (std::is_same<T, float>::value && Pitch == 1)
    ExtendRowF32(Padded, Width, Radius);
  else if constexpr (std::is_same<T, float>::value && Pitch == 3)
    ExtendPixelsF32x3(Padded, Width, Radius);
  else if constexpr (std::is_same<T, float>::value && Pitch == 4)
    ExtendPixelsF32x4(Padded, Width, Radius);
  else
    static_assert(sizeof(T) == 0, "no extension routine for this element and pitch");
}

// ---- all rows -------------------------------------------------------------------------------

// Vertical and border steps for each row y, then RowOp(y, const T* Padded).
// SrcT is uint8_t (with Map) or float (Stride in floats).
template <typename T, int Pitch, typename Map = SampleIdentity, typename SrcT, typename RowOp>
static inline void ForEachWindowRow(const SrcT* Src, int Stride, int Width, int Height, int Channel, int Radius,
                                    T* ColumnSums, const int* RowTable, RowOp&& Row) {
  T* real = ColumnSums + static_cast<size_t>(Radius) * Pitch;
  for (int y = 0; y < Height; ++y) {
    if constexpr (std::is_same<SrcT, float>::value) {
      if (y == 0)
        ColumnSumsFirstRow<T, Pitch>(real, Src, Stride, Width, Channel, RowTable, Radius);
      else
        ColumnSumsNextRow<T, Pitch>(real, Src, Stride, Width, Channel, RowTable, Radius, y);
    } else {
      if (y == 0)
        ColumnSumsFirstRow<T, Pitch, Map>(real, Src, Stride, Width, Channel, RowTable, Radius);
      else
        ColumnSumsNextRow<T, Pitch, Map>(real, Src, Stride, Width, Channel, RowTable, Radius, y);
    }
    ExtendColumnSums<T, Pitch>(ColumnSums, Width, Radius);
    Row(y, static_cast<const T*>(ColumnSums));
  }
}

// ---- horizontal drivers -------------------------------------------------------------------------

// Single-lane elements: what a window sum is held in, and the vector block.
//   uint8_t : scalar S int,      blocks of 8 in 16-bit lanes (__m128i), start SumRowU8
//   uint16_t: scalar S uint16_t, blocks of 8 in 16-bit lanes, wrapping,  start SumRowU16
//   int32_t : scalar S int32_t,  blocks of 4 in 32-bit lanes, wrapping,  start SumRowI32
//   float   : scalar S double,   blocks of 4 float lanes (__m128),       start SumRowF32
template <typename T>
struct WindowLane;
template <>
struct WindowLane<uint8_t> {
  using Scalar = int;
  static constexpr int Block = 8;
};
template <>
struct WindowLane<uint16_t> {
  using Scalar = uint16_t;
  static constexpr int Block = 8;
};
template <>
struct WindowLane<int32_t> {
  using Scalar = int32_t;
  static constexpr int Block = 4;
};
template <>
struct WindowLane<float> {
  using Scalar = double;
  static constexpr int Block = 4;
};

// Pitch 1. S = sum of elements 0..2R (column 0); Op.Scalar(0, S). Then blocks
// for x = 1 while x < ((Width - 1) / Block) * Block + 1: the differences
// C[x + i + 2R] - C[x + i - 1] turned into a running sum in the register, S
// added, Op.Vector(x, Sums) with Block sums (x .. x + Block - 1), the last
// lane carried on. In 32 bits, an Op that has Vector(x, Sums0, Sums1) gets
// two blocks together wherever two remain. The rest: S += C[x + 2R] - C[x - 1]; Op.Scalar(x, S).
// Float blocks keep the sequential order; the float rest runs in double.
template <typename T, typename Op>
static inline void SlideWindowRow(const T* C, int Width, int Radius, Op&& op) {
  using L = WindowLane<T>;
  using S_t = typename L::Scalar;
  const int R2 = 2 * Radius;
  S_t S;
  if constexpr (std::is_same<T, uint8_t>::value)
    S = static_cast<int>(SumRowU8(C, R2 + 1));
  else if constexpr (std::is_same<T, uint16_t>::value)
    S = SumRowU16(C, R2 + 1);
  else if constexpr (std::is_same<T, int32_t>::value)
    S = SumRowI32(C, R2 + 1);
  else
    S = SumRowF32(C, R2 + 1);
  op.Scalar(0, S);
  const int block_end = ((Width - 1) / L::Block) * L::Block + 1;
  int x = 1;
  if (x < block_end) {
    if constexpr (std::is_same<T, float>::value) {
      __m128 s = _mm_set1_ps(static_cast<float>(S));
      for (; x < block_end; x += 4) {
        s = RunningSumF32x4(s, _mm_sub_ps(_mm_loadu_ps(C + x + R2), _mm_loadu_ps(C + x - 1)));
        op.Vector(x, s);
        s = BroadcastLastF32(s);
      }
      S = static_cast<double>(_mm_cvtss_f32(s));
    } else if constexpr (std::is_same<T, int32_t>::value) {
      // Two blocks a step where two remain, handed over together so that the
      // operator can convert eight sums at once; the carry into the second
      // block is taken off the first block's differences, not its sums, so
      // the chain from step to step is one add.
      __m128i s = _mm_set1_epi32(S);
      if constexpr (window_detail::TakesTwoBlocks<Op>::value)
        for (; x + 4 < block_end; x += 8) {
          const __m128i p0 = PrefixSumI32x4(_mm_sub_epi32(Load16Bytes(C + x + R2), Load16Bytes(C + x - 1)));
          const __m128i p1 = PrefixSumI32x4(_mm_sub_epi32(Load16Bytes(C + x + 4 + R2), Load16Bytes(C + x + 3)));
          const __m128i s0 = _mm_add_epi32(p0, s);
          const __m128i s1 = _mm_add_epi32(_mm_add_epi32(p1, BroadcastLastI32(p0)), s);
          op.Vector(x, s0, s1);
          s = BroadcastLastI32(s1);
        }
      for (; x < block_end; x += 4) {
        const __m128i d = _mm_sub_epi32(Load16Bytes(C + x + R2), Load16Bytes(C + x - 1));
        s = _mm_add_epi32(PrefixSumI32x4(d), s);
        op.Vector(x, s);
        s = BroadcastLastI32(s);
      }
      S = _mm_cvtsi128_si32(s);
    } else {
      __m128i s = _mm_set1_epi16(static_cast<short>(S));
      for (; x < block_end; x += 8) {
        __m128i d;
        if constexpr (std::is_same<T, uint8_t>::value)
          d = _mm_sub_epi16(WidenLoU8ToU16(Load8Bytes(C + x + R2)), WidenLoU8ToU16(Load8Bytes(C + x - 1)));
        else
          d = _mm_sub_epi16(Load16Bytes(C + x + R2), Load16Bytes(C + x - 1));
        s = _mm_add_epi16(PrefixSumU16x8(d), s);
        op.Vector(x, s);
        s = BroadcastLastU16(s);
      }
      S = static_cast<S_t>(static_cast<uint16_t>(_mm_extract_epi16(s, 0)));
    }
  }
  for (; x < Width; ++x) {
    if constexpr (std::is_same<T, float>::value)
      S += static_cast<double>(C[x + R2]) - static_cast<double>(C[x - 1]);
    else if constexpr (std::is_same<T, int32_t>::value)
      S = static_cast<int32_t>(static_cast<uint32_t>(S) + static_cast<uint32_t>(C[x + R2]) -
                               static_cast<uint32_t>(C[x - 1]));
    else
      S = static_cast<S_t>(S + C[x + R2] - C[x - 1]);
    op.Scalar(x, S);
  }
}

// uint16_t, Pitch 4. S = lane sums of pixels 0..2R (SumPixelsU16x4);
// Op.Scalar(0, S) with S a uint16_t[4]. Then for x = 1 while
// x < ((Width - 2) / 2) * 2 + 1, steps of 2: the differences of pixels x and
// x + 1 in one register, the lower added to the upper, S added to both,
// Op.Vector(x, Sums) (8 lanes: pixel x then x + 1), the upper carried on.
// The rest pixel by pixel, wrapping at 16 bits, through Op.Scalar.
template <typename Op>
static inline void SlideWindowPixelsU16x4(const uint16_t* C, int Width, int Radius, Op&& op) {
  const int R2 = 2 * Radius;
  alignas(16) uint16_t S[8];
  SumPixelsU16x4(C, R2 + 1, S);
  op.Scalar(0, static_cast<const uint16_t*>(S));
  const int block_end = ((Width - 2) / 2) * 2 + 1;
  int x = 1;
  if (x < block_end) {
    __m128i s = _mm_unpacklo_epi64(Load8Bytes(S), Load8Bytes(S));
    for (; x < block_end; x += 2) {
      const __m128i d = _mm_sub_epi16(Load16Bytes(C + 4 * (x + R2)), Load16Bytes(C + 4 * (x - 1)));
      s = _mm_add_epi16(PrefixSumU16x4x2(d), s);
      op.Vector(x, s);
      s = BroadcastHighPixelU16(s);
    }
    Store8Bytes(S, s);
  }
  for (; x < Width; ++x) {
    for (int c = 0; c < 4; ++c) S[c] = static_cast<uint16_t>(S[c] + C[4 * (x + R2) + c] - C[4 * (x - 1) + c]);
    op.Scalar(x, static_cast<const uint16_t*>(S));
  }
}

// int32_t or float, Pitch 3 or 4. No special first pixel: S = lane sums of
// pixels 0..2R-1 only. Each pixel adds pixel x + 2R, is output, then removes
// pixel x. Vector blocks of 2 pixels for x = 0 while x < VectorEnd
// (VectorEnd even, at most Width - 1): Op.Vector(x, Sum0, Sum1), four lanes a
// pixel; with Pitch 3 the loads straddle and lane 3 carries a sample of the
// next pixel, to be ignored. The rest, always at least one pixel, through
// Op.Scalar(x, S) with S[Pitch] in int32_t (wrapping) or double.
template <typename T, int Pitch, typename Op>
static inline void SlideWindowPixels(const T* C, int Width, int Radius, int VectorEnd, Op&& op) {
  static_assert(Pitch == 3 || Pitch == 4, "pixel forms");
  const int R2 = 2 * Radius;
  using S_t = typename WindowLane<T>::Scalar;
  alignas(16) T first[4] = {};
  if constexpr (std::is_same<T, int32_t>::value)
    Pitch == 3 ? SumPixelsI32x3(C, R2, first) : SumPixelsI32x4(C, R2, first);
  else
    Pitch == 3 ? SumPixelsF32x3(C, R2, first) : SumPixelsF32x4(C, R2, first);
  S_t S[4];
  int x = 0;
  if constexpr (std::is_same<T, int32_t>::value) {
    // Wrapping integer sums may be regrouped: the differences are formed
    // off the chain, which then costs one add per two pixels.
    __m128i s = _mm_load_si128(reinterpret_cast<const __m128i*>(first));
    for (; x < VectorEnd; x += 2) {
      const __m128i a0 = Load16Bytes(C + Pitch * (x + R2)), a1 = Load16Bytes(C + Pitch * (x + 1 + R2));
      const __m128i d0 = _mm_sub_epi32(a0, Load16Bytes(C + Pitch * x));
      const __m128i d1 = _mm_sub_epi32(a1, Load16Bytes(C + Pitch * (x + 1)));
      const __m128i s0 = _mm_add_epi32(s, a0);
      const __m128i s1 = _mm_add_epi32(s, _mm_add_epi32(d0, a1));
      s = _mm_add_epi32(s, _mm_add_epi32(d0, d1));
      op.Vector(x, s0, s1);
    }
    alignas(16) int32_t l[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(l), s);
    for (int c = 0; c < 4; ++c) S[c] = l[c];
    for (; x < Width; ++x) {
      for (int c = 0; c < Pitch; ++c)
        S[c] = static_cast<int32_t>(static_cast<uint32_t>(S[c]) + static_cast<uint32_t>(C[Pitch * (x + R2) + c]));
      op.Scalar(x, static_cast<const S_t*>(S));
      for (int c = 0; c < Pitch; ++c)
        S[c] = static_cast<int32_t>(static_cast<uint32_t>(S[c]) - static_cast<uint32_t>(C[Pitch * x + c]));
    }
  } else {
    __m128 s = _mm_load_ps(first);
    for (; x < VectorEnd; x += 2) {
      const __m128 s0 = _mm_add_ps(s, _mm_loadu_ps(C + Pitch * (x + R2)));
      s = _mm_sub_ps(s0, _mm_loadu_ps(C + Pitch * x));
      const __m128 s1 = _mm_add_ps(s, _mm_loadu_ps(C + Pitch * (x + 1 + R2)));
      s = _mm_sub_ps(s1, _mm_loadu_ps(C + Pitch * (x + 1)));
      op.Vector(x, s0, s1);
    }
    alignas(16) float l[4];
    _mm_store_ps(l, s);
    for (int c = 0; c < 4; ++c) S[c] = l[c];
    for (; x < Width; ++x) {
      for (int c = 0; c < Pitch; ++c) S[c] += static_cast<double>(C[Pitch * (x + R2) + c]);
      op.Scalar(x, static_cast<const S_t*>(S));
      for (int c = 0; c < Pitch; ++c) S[c] -= static_cast<double>(C[Pitch * x + c]);
    }
  }
}

}  // namespace qv
