// Gray morphology: square-window maximum and minimum, in one pass for small
// radii and above them at a cost independent of the radius (block prefix and
// suffix extrema, the row pass on bands of 16 rows transposed into lines), and
// opening, closing and the local range built on them.
#include <emmintrin.h>
#include <smmintrin.h>
#include <tmmintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "frame/frame.h"

namespace {

using std::ptrdiff_t;

struct MaxOp {
  static __m128i V(__m128i a, __m128i b) { return _mm_max_epu8(a, b); }
  static unsigned char S(unsigned char a, unsigned char b) { return a > b ? a : b; }
};
struct MinOp {
  static __m128i V(__m128i a, __m128i b) { return _mm_min_epu8(a, b); }
  static unsigned char S(unsigned char a, unsigned char b) { return a < b ? a : b; }
};

// An element of a column walk: N vectors side by side, or one byte.
template <int N>
struct Vecs {
  static constexpr int kBytes = 16 * N;
  __m128i v[N];
  static Vecs Load(const unsigned char* p) {
    Vecs r;
#pragma GCC unroll 4
    for (int i = 0; i < N; ++i) r.v[i] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * i));
    return r;
  }
  void Store(unsigned char* p) const {
#pragma GCC unroll 4
    for (int i = 0; i < N; ++i) _mm_storeu_si128(reinterpret_cast<__m128i*>(p + 16 * i), v[i]);
  }
  template <class Op>
  static Vecs Pick(const Vecs& a, const Vecs& b) {
    Vecs r;
#pragma GCC unroll 4
    for (int i = 0; i < N; ++i) r.v[i] = Op::V(a.v[i], b.v[i]);
    return r;
  }
};
struct Byte {
  static constexpr int kBytes = 1;
  unsigned char v;
  static Byte Load(const unsigned char* p) { return {*p}; }
  void Store(unsigned char* p) const { *p = v; }
  template <class Op>
  static Byte Pick(const Byte& a, const Byte& b) {
    return {Op::S(a.v, b.v)};
  }
};

inline __m128i LoadU(const unsigned char* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }

// A radius at or above Side - 1 makes the window cover the side whatever its
// value, so it is limited to Side - 1, which keeps the padded lengths small. A
// negative radius is taken as 0 (a copy) to stay defined.
int LimitRadius(int Radius, int Side) { return Radius < 0 ? 0 : (Radius > Side - 1 ? Side - 1 : Radius); }

// Both passes work on a line padded by Radius copies of its edge element at
// each end: the clipped window of position p is then the full window of
// padded positions p .. p + 2 * Radius, as the edge element is inside every
// window that reaches past the edge. Padded row t of a column is image row
// t - Radius, clamped.
struct PaddedRows {
  const unsigned char* Src;
  ptrdiff_t Stride;
  int n, Radius;
  const unsigned char* Row(int t) const {
    const int y = t - Radius;
    return Src + ptrdiff_t(y < 0 ? 0 : (y >= n ? n - 1 : y)) * Stride;
  }
};

// The sliding extremum down columns (van Herk / Gil-Werman) on a chunk of
// Wide bytes of every row, walked row by row so that memory is read along the
// rows: blocks of k = 2 * Radius + 1 padded rows; the suffix extrema of a block
// are stored in one of two alternating buffers when the walk enters the block,
// the running prefix extremum in a row buffer, and output row p =
// max(Suffix[p], Prefix[p + 2 * Radius]). A row is always read before any
// output row at or below it is written, so Src may be Dest. Wide is a multiple
// of 16 (vectors) or 1 (a single column, bytes).
// Runs F over the bytes [0, Wide) of a row in elements of 64 and 16 bytes
// (Wide is a multiple of 16), or as one byte for a single column.
template <class F>
inline void Sweep(int Wide, F f) {
  if (Wide == 1) {
    f(0, Byte{});
    return;
  }
  int i = 0;
  for (; i + 64 <= Wide; i += 64) f(i, Vecs<4>{});
  for (; i < Wide; i += 16) f(i, Vecs<1>{});
}

// Blocks of at most this many rows are walked down by column groups.
constexpr int kGroupRows = 33;

template <class Op>
void SlideChunk(const PaddedRows& In, unsigned char* Dest, int Wide, unsigned char* Ring0, unsigned char* Ring1,
                unsigned char* Prefix) {
  const int r = In.Radius, k = 2 * r + 1, total = In.n + 2 * r;
  unsigned char* ring[2] = {Ring0, Ring1};
  int parity = 0;
  for (int b = 0; b < total; b += k, parity ^= 1) {
    const int e = b + k < total ? b + k : total;
    unsigned char* s = ring[parity];
    const unsigned char* older = ring[parity ^ 1];
    {
      const unsigned char* row = In.Row(e - 1);
      unsigned char* out = s + ptrdiff_t(e - 1 - b) * Wide;
      Sweep(Wide, [&](int i, auto e) { decltype(e)::Load(row + i).Store(out + i); });
    }
    for (int t = e - 2; t >= b; --t) {
      const unsigned char* row = In.Row(t);
      const unsigned char* after = s + ptrdiff_t(t + 1 - b) * Wide;
      unsigned char* out = s + ptrdiff_t(t - b) * Wide;
      Sweep(Wide, [&](int i, auto e) {
        using E = decltype(e);
        E::template Pick<Op>(E::Load(after + i), E::Load(row + i)).Store(out + i);
      });
    }
    if (k <= kGroupRows) {
      // The forward walk goes down the block one column group at a time, the
      // running prefix in registers; the block's rows are in cache by now.
      Sweep(Wide, [&](int i, auto e0) {
        using E = decltype(e0);
        E prefix = E::Load(In.Row(b) + i);
        for (int t = b;;) {
          const int p = t - 2 * r;
          if (p >= 0) {
            const unsigned char* sp = p >= b ? s + ptrdiff_t(p - b) * Wide : older + ptrdiff_t(p - b + k) * Wide;
            E::template Pick<Op>(prefix, E::Load(sp + i)).Store(Dest + ptrdiff_t(p) * In.Stride + i);
          }
          if (++t == e) break;
          prefix = E::template Pick<Op>(prefix, E::Load(In.Row(t) + i));
        }
      });
      continue;
    }
    // Taller blocks are walked row by row, the prefix in a row buffer, so
    // that memory is read along the rows.
    for (int t = b; t < e; ++t) {
      const unsigned char* row = In.Row(t);
      const int p = t - 2 * r;
      if (p < 0) {
        if (t == b)
          Sweep(Wide, [&](int i, auto e) { decltype(e)::Load(row + i).Store(Prefix + i); });
        else
          Sweep(Wide, [&](int i, auto e) {
            using E = decltype(e);
            E::template Pick<Op>(E::Load(Prefix + i), E::Load(row + i)).Store(Prefix + i);
          });
        continue;
      }
      const unsigned char* sp = p >= b ? s + ptrdiff_t(p - b) * Wide : older + ptrdiff_t(p - b + k) * Wide;
      unsigned char* out = Dest + ptrdiff_t(p) * In.Stride;
      if (t == b) {
        Sweep(Wide, [&](int i, auto e) {
          using E = decltype(e);
          const E v = E::Load(row + i);
          v.Store(Prefix + i);
          E::template Pick<Op>(v, E::Load(sp + i)).Store(out + i);
        });
      } else {
        Sweep(Wide, [&](int i, auto e) {
          using E = decltype(e);
          const E v = E::template Pick<Op>(E::Load(Prefix + i), E::Load(row + i));
          v.Store(Prefix + i);
          E::template Pick<Op>(v, E::Load(sp + i)).Store(out + i);
        });
      }
    }
  }
}

// Radius 1 and 2 directly, a whole row at a time. In place, the rows above
// the current one are read from copies of their original bytes, kept in
// Radius + 1 slots of m bytes.
template <class Op, int R>
void DirectVertical(const unsigned char* Src, unsigned char* Dest, int m, int n, int Stride, unsigned char* Slots) {
  const PaddedRows in{Src, Stride, n, R};
  const bool inplace = Src == Dest;
  for (int p = 0; p < n; ++p) {
    const unsigned char* rows[2 * R + 1];
    if (inplace) std::memcpy(Slots + ptrdiff_t(p % (R + 1)) * m, Src + ptrdiff_t(p) * Stride, m);
    for (int i = 0; i <= 2 * R; ++i) {
      int y = p + i - R;
      y = y < 0 ? 0 : (y >= n ? n - 1 : y);
      rows[i] = inplace && y <= p ? Slots + ptrdiff_t(y % (R + 1)) * m : in.Row(p + i);
    }
    unsigned char* out = Dest + ptrdiff_t(p) * Stride;
    // The last vector overlaps the one before when m is no multiple of 16.
    for (int x = 0; m >= 16;) {
      __m128i v = LoadU(rows[0] + x);
      for (int i = 1; i <= 2 * R; ++i) v = Op::V(v, LoadU(rows[i] + x));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), v);
      if (x == m - 16) break;
      x = x + 32 <= m ? x + 16 : m - 16;
    }
    if (m < 16)
      for (int x = 0; x < m; ++x) {
        unsigned char v = rows[0][x];
        for (int i = 1; i <= 2 * R; ++i) v = Op::S(v, rows[i][x]);
        out[x] = v;
      }
  }
}

template <class Op>
int FilterVertical(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;
  const int r = LimitRadius(Radius, Height);
  const int m = Channel * Width, m16 = m / 16 * 16;
  // Chunks as wide as keep two blocks of suffix rows near 256 KB.
  const int k = 2 * r + 1, rows = k < Height + 2 * r ? k : Height + 2 * r;
  int wide = (1048576 / k) / 16 * 16;
  wide = wide < 256 ? 256 : wide;
  wide = wide > m16 ? m16 : wide;
  const size_t chunk = wide > 16 ? size_t(wide) : 16;
  // Ring 0 also holds the prefix row, or the in-place row copies of radius 1 and 2.
  size_t bytes0 = size_t(rows) * chunk + chunk, bytes1 = size_t(rows) * chunk;
  if (size_t(3) * m > bytes0) bytes0 = size_t(3) * m;
  unsigned char* ring0 = qv::AlignedArray<unsigned char>(bytes0, 32);
  unsigned char* ring1 = qv::AlignedArray<unsigned char>(bytes1, 32);
  if (ring0 == nullptr || ring1 == nullptr) {
    qv::AlignedFree(ring0);
    qv::AlignedFree(ring1);
    return STATUS_OUT_OF_MEMORY;
  }
  if (r == 0) {
    if (Src != Dest)
      for (int y = 0; y < Height; ++y) std::memcpy(Dest + ptrdiff_t(y) * Stride, Src + ptrdiff_t(y) * Stride, m);
  } else if (r == 1) {
    DirectVertical<Op, 1>(Src, Dest, m, Height, Stride, ring0);
  } else if (r == 2) {
    DirectVertical<Op, 2>(Src, Dest, m, Height, Stride, ring0);
  } else {
    unsigned char* prefix = ring0 + size_t(rows) * chunk;
    for (int x = 0; x < m16; x += wide) {
      const int w = x + wide <= m16 ? wide : m16 - x;
      SlideChunk<Op>({Src + x, Stride, Height, r}, Dest + x, w, ring0, ring1, prefix);
    }
    // The last m mod 16 columns one at a time.
    for (int x = m16; x < m; ++x) SlideChunk<Op>({Src + x, Stride, Height, r}, Dest + x, 1, ring0, ring1, prefix);
  }
  qv::AlignedFree(ring0);
  qv::AlignedFree(ring1);
  return STATUS_OK;
}

// 16 rows of 16 bytes to 16 columns: four rounds that pair row k with row
// k + 8; each round rotates the 8 bits of (row, byte) by one.
inline void TransposeRound(__m128i* v) {
  __m128i t[16];
#pragma GCC unroll 8
  for (int k = 0; k < 8; ++k) {
    t[2 * k] = _mm_unpacklo_epi8(v[k], v[k + 8]);
    t[2 * k + 1] = _mm_unpackhi_epi8(v[k], v[k + 8]);
  }
#pragma GCC unroll 16
  for (int k = 0; k < 16; ++k) v[k] = t[k];
}
inline void Transpose16(__m128i* v) {
  TransposeRound(v);
  TransposeRound(v);
  TransposeRound(v);
  TransposeRound(v);
}

// The 16 rows of a band from byte x on into 16 lines of Lines, byte after byte.
inline void BandToLines(const unsigned char* const* Rows, int x, unsigned char* Lines) {
  __m128i v[16];
#pragma GCC unroll 16
  for (int j = 0; j < 16; ++j) v[j] = LoadU(Rows[j] + x);
  Transpose16(v);
#pragma GCC unroll 16
  for (int i = 0; i < 16; ++i) _mm_storeu_si128(reinterpret_cast<__m128i*>(Lines + 16 * i), v[i]);
}

inline void LinesToBand(const unsigned char* Lines, unsigned char* const* Rows, int Count, int x) {
  __m128i v[16];
#pragma GCC unroll 16
  for (int i = 0; i < 16; ++i) v[i] = LoadU(Lines + 16 * i);
  Transpose16(v);
  for (int j = 0; j < Count; ++j) _mm_storeu_si128(reinterpret_cast<__m128i*>(Rows[j] + x), v[j]);
}

// The row, padded by Radius copies of its edge pixels, for radius 1 and 2.
// Out has room for the edge copies' overshoot of 48 bytes.
void PadRow(const unsigned char* Row, unsigned char* Out, int m, int C, int Radius) {
  const int rc = Radius * C;
  alignas(16) unsigned char pad[48];
  for (int i = 0; i < 48; ++i) pad[i] = Row[i % C];
  for (int i = 0; i < rc; i += 48) std::memcpy(Out + i, pad, 48);
  std::memcpy(Out + rc, Row, m);
  for (int j = 0; j < 48; ++j) pad[j] = Row[m - C + j % C];
  for (int j = 0; j < rc; j += 48) std::memcpy(Out + rc + m + j, pad, 48);
}

// The last partial vector of a row goes through a stack copy, so that the
// bytes after the row (its padding) are never written.
inline void StoreRowVector(unsigned char* Dest, int B, int m, __m128i v) {
  if (B + 16 <= m) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + B), v);
  } else {
    alignas(16) unsigned char t[16];
    _mm_store_si128(reinterpret_cast<__m128i*>(t), v);
    std::memcpy(Dest + B, t, m - B);
  }
}

// Radius 1 and 2 along a padded row: 2 * Radius + 1 shifted loads.
template <class Op, int C, int R>
void DirectRow(const unsigned char* Src, unsigned char* Dest, int m, unsigned char* Row) {
  PadRow(Src, Row, m, C, R);
  for (int B = 0; B < m; B += 16) {
    const unsigned char* p = Row + B;
    __m128i v = Op::V(LoadU(p), LoadU(p + C));
    for (int i = 2; i <= 2 * R; ++i) v = Op::V(v, LoadU(p + i * C));
    StoreRowVector(Dest, B, m, v);
  }
}

// Larger radii: bands of 16 rows are transposed into lines where the 16 rows'
// bytes of one row position lie side by side, the column pass runs down those
// lines (a pixel is C such vectors), and the band is transposed back. The rows
// of the last band past Height repeat its last row and are not written back.
// Larger radii: bands of 16 rows are transposed into lines where the 16 rows'
// bytes of one row position lie side by side (a pixel is C such vectors), the
// sliding extremum runs down the lines, and the band is transposed back. The
// rows of the last band past Height repeat its last row and are not written.
//
// The lines are padded by Radius copies of the first and last pixel, so that
// padded pixel t is at Padded + t * 16 * C with no clamp; the blocks are those
// of SlideChunk, with the prefix in registers, and output p goes to padded
// pixel p + Radius, behind every read. The transposes run alongside the
// blocks, a little ahead of the reads and just behind the outputs, so that
// the lines in use stay in cache.
template <class Op, int C>
void SlideBand(unsigned char* const* Rows, int Count, int Width, int Radius, unsigned char* Padded,
               unsigned char* Ring0, unsigned char* Ring1) {
  using E = Vecs<C>;
  constexpr int eb = 16 * C;
  const int m = C * Width, r = Radius, k = 2 * r + 1, total = Width + 2 * r;
  unsigned char* lines = Padded + ptrdiff_t(r) * eb;
  unsigned char* ring[2] = {Ring0, Ring1};
  // Row bytes moved into the lines and back so far.
  int in = 0, out = 0;
  bool right_padded = false;
  // Rows shorter than a vector go through a block on the stack.
  alignas(16) unsigned char block[16][16] = {};
  unsigned char* stack_rows[16];
  for (int j = 0; j < 16; ++j) stack_rows[j] = block[j];
  const auto move_in = [&](int upto) {
    if (m < 16) {
      if (in == 0) {
        for (int j = 0; j < 16; ++j) std::memcpy(block[j], Rows[j], m);
        BandToLines(stack_rows, 0, lines);
      }
      in = m;
      return;
    }
    while (in < upto) {
      const int x = in + 16 <= m ? in : m - 16;
      BandToLines(Rows, x, lines + 16 * x);
      in = x + 16;
    }
  };
  const auto move_out = [&](int upto) {
    if (m < 16) {
      if (upto == m) {
        LinesToBand(lines, stack_rows, 16, 0);
        for (int j = 0; j < Count; ++j) std::memcpy(Rows[j], block[j], m);
      }
      return;
    }
    for (; out + 16 <= upto; out += 16) LinesToBand(lines + 16 * out, Rows, Count, out);
    if (upto == m && out < m) {
      LinesToBand(lines + 16 * (m - 16), Rows, Count, m - 16);
      out = m;
    }
  };
  int parity = 0;
  for (int b = 0; b < total; b += k, parity ^= 1) {
    const int e = b + k < total ? b + k : total;
    // The block reads real pixels up to e - 1 - r; 32 bytes more keep the
    // overlapping last transpose ahead of every output.
    const int need = (e - r) * C + 32;
    move_in(need < m ? need : m);
    if (b == 0)
      for (int i = 0; i < r; ++i) std::memcpy(Padded + ptrdiff_t(i) * eb, lines, eb);
    if (e > Width + r && !right_padded) {
      move_in(m);
      for (int i = 0; i < r; ++i) std::memcpy(lines + ptrdiff_t(Width + i) * eb, lines + ptrdiff_t(Width - 1) * eb, eb);
      right_padded = true;
    }
    unsigned char* s = ring[parity];
    const unsigned char* older = ring[parity ^ 1];
    E acc = E::Load(Padded + ptrdiff_t(e - 1) * eb);
    acc.Store(s + (e - 1 - b) * eb);
    for (int t = e - 2; t >= b; --t) {
      acc = E::template Pick<Op>(acc, E::Load(Padded + ptrdiff_t(t) * eb));
      acc.Store(s + (t - b) * eb);
    }
    // Block 0 is always whole (total >= k); its only output is pixel 0.
    if (b == 0) {
      acc.Store(Padded + ptrdiff_t(r) * eb);
    } else {
      E prefix = E::Load(Padded + ptrdiff_t(b) * eb);
      for (int t = b;;) {
        const unsigned char* sp = t == b + k - 1 ? s : older + (t - b + 1) * eb;
        E::template Pick<Op>(prefix, E::Load(sp)).Store(Padded + ptrdiff_t(t - r) * eb);
        if (++t == e) break;
        prefix = E::template Pick<Op>(prefix, E::Load(Padded + ptrdiff_t(t) * eb));
      }
    }
    // Real pixels below e - 2 * r are final.
    const int done = (e - 2 * r) * C;
    move_out(e == total ? m : (done < m ? done : m));
  }
}

template <class Op, int C>
void HorizontalRows(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius,
                    unsigned char* Lines, unsigned char* Ring0, unsigned char* Ring1) {
  const int m = C * Width;
  if (Radius <= 2) {
    for (int y = 0; y < Height; ++y) {
      const unsigned char* s = Src + ptrdiff_t(y) * Stride;
      unsigned char* d = Dest + ptrdiff_t(y) * Stride;
      if (Radius == 1)
        DirectRow<Op, C, 1>(s, d, m, Lines);
      else
        DirectRow<Op, C, 2>(s, d, m, Lines);
    }
    return;
  }
  // The band is read into the lines before it is written, so Src may be Dest;
  // out of place it is first copied to Dest.
  for (int y = 0; y < Height; y += 16) {
    const int count = Height - y < 16 ? Height - y : 16;
    unsigned char* rows[16];
    for (int j = 0; j < 16; ++j) {
      const int yy = y + (j < count ? j : count - 1);
      rows[j] = Dest + ptrdiff_t(yy) * Stride;
      if (Src != Dest && j < count) std::memcpy(rows[j], Src + ptrdiff_t(yy) * Stride, m);
    }
    SlideBand<Op, C>(rows, count, Width, Radius, Lines, Ring0, Ring1);
  }
}

template <class Op>
int FilterHorizontal(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;
  const int r = LimitRadius(Radius, Width);
  const int m = Channel * Width;
  // The padded lines of a band (16 bytes per row byte, Radius pixels of
  // 16 * Channel bytes at each end), or a padded row for the small radii; one
  // block of suffix pixels per ring.
  const size_t lines = size_t(m < 16 ? 16 : m) * 16 + size_t(2 * r) * 16 * Channel + 4 * Channel + 96;
  const int k = 2 * r + 1, pixels = k < Width + 2 * r ? k : Width + 2 * r;
  const size_t block = size_t(pixels) * 16 * Channel;
  unsigned char* ring0 = qv::AlignedArray<unsigned char>(block, 32);
  unsigned char* ring1 = qv::AlignedArray<unsigned char>(block, 32);
  unsigned char* band = qv::AlignedArray<unsigned char>(lines, 32);
  if (ring0 == nullptr || ring1 == nullptr || band == nullptr) {
    qv::AlignedFree(ring0);
    qv::AlignedFree(ring1);
    qv::AlignedFree(band);
    return STATUS_OUT_OF_MEMORY;
  }
  if (r == 0) {
    if (Src != Dest)
      for (int y = 0; y < Height; ++y) std::memcpy(Dest + ptrdiff_t(y) * Stride, Src + ptrdiff_t(y) * Stride, m);
  } else if (Channel == 1) {
    HorizontalRows<Op, 1>(Src, Dest, Width, Height, Stride, r, band, ring0, ring1);
  } else if (Channel == 3) {
    HorizontalRows<Op, 3>(Src, Dest, Width, Height, Stride, r, band, ring0, ring1);
  } else {
    HorizontalRows<Op, 4>(Src, Dest, Width, Height, Stride, r, band, ring0, ring1);
  }
  qv::AlignedFree(ring0);
  qv::AlignedFree(ring1);
  qv::AlignedFree(band);
  return STATUS_OK;
}

// Small radii in one pass over the image. Each step takes G output rows: the
// column extremum of their windows shares the core of rows that all G hold,
// and the rows above and below it are added as running suffix and prefix
// extrema, about 2 * Radius / G + 2 operations a row instead of 2 * Radius.
// Each of the G results goes into a row buffer padded by Radius copies of its
// edge pixels, and the row extremum is taken from it by doubling spans (max of
// 1, 2, 4 ... pixels, then of two overlapping spans), log2(2 * Radius + 1)
// operations a vector, streaming into Dest. Both run by column strips, the
// column pass a little ahead, so that the row buffers stay in the first-level
// cache. In place, every row is copied into a ring of Radius + G slots before
// it is written, and rows up to the step's last are read from there.
//
// Above FusedRadiusLimit the block passes, whose cost is flat, take over
// (measured: the one pass is level with them at radius 16 on colour, still
// ahead on gray). Only a choice of speed: both paths give the same bytes.
constexpr int FusedRadiusLimit(int Channel) { return Channel == 1 ? 16 : 12; }

// Bytes of a column strip. Radius 1 is bound by memory more than by the
// operations and runs whole rows: on 3-channel rows of 1920 pixels that was
// measured a sixth faster than strips, elsewhere level.
constexpr int FusedStrip(int R) { return R == 1 ? 1 << 30 : 1024; }

// Output rows per step: as many as leave a core of rows shared by all, up to
// 8, which keeps the partial results in registers; at radius 1, 2 rows a step
// measured faster on colour and 3 on gray.
constexpr int FusedGroup(int C, int R) { return R == 1 ? (C == 1 ? 3 : 2) : (2 * R + 1 < 8 ? 2 * R + 1 : 8); }

// Bytes S .. S + 15 of the run V[0], V[1], ...
template <int S>
inline __m128i ShiftRun(const __m128i* V) {
  if constexpr (S % 16 == 0)
    return V[S / 16];
  else
    return _mm_alignr_epi8(V[S / 16 + 1], V[S / 16], S % 16);
}

// The doubling steps of a window of 2R + 1 pixels of C bytes: step t joins
// each span with the one Shift(t) bytes on; the spans double up to the largest
// power of two p in the window, and the last step joins two spans of p that
// overlap to cover it.
template <int C, int R>
struct RowSteps {
  static constexpr int k = 2 * R + 1;
  static constexpr int Pow2() {
    int p = 1;
    while (2 * p <= k) p *= 2;
    return p;
  }
  static constexpr int Count() {
    int n = 0;
    for (int s = 1; 2 * s <= k; s *= 2) ++n;
    return n + 1;
  }
  static constexpr int Shift(int t) { return (t + 1 < Count() ? (1 << t) : k - Pow2()) * C; }
  // Vectors past its own that step t reads.
  static constexpr int Need(int t) { return (Shift(t) + 15) / 16; }
  static constexpr int Ahead() {
    int a = 0;
    for (int t = 0; t < Count(); ++t) a += Need(t);
    return a;
  }
};

// Moves the window W[0 .. N] on by one vector, V entering at W[N].
template <int N>
inline void Push(__m128i* W, __m128i V) {
  static_assert(N >= 1 && N <= 4, "a step reads at most 64 bytes on");
  W[0] = W[1];
  if constexpr (N >= 2) W[1] = W[2];
  if constexpr (N >= 3) W[2] = W[3];
  if constexpr (N >= 4) W[3] = W[4];
  W[N] = V;
}

// One output vector of the row stream: W[t] holds the inputs of step t, the
// newest last; the new input vector enters W[0] and the result of the last
// step comes out.
template <class Op, int C, int R, int T, size_t K>
inline __m128i RowStreamStep(__m128i (&W)[K][5], __m128i In) {
  static_assert(K == RowSteps<C, R>::Count(), "one input window per step");
  using S = RowSteps<C, R>;
  if constexpr (T == 0) Push<S::Need(0)>(W[0], In);
  const __m128i v = Op::V(W[T][0], ShiftRun<S::Shift(T)>(W[T]));
  if constexpr (T + 1 == S::Count()) {
    return v;
  } else {
    Push<S::Need(T + 1)>(W[T + 1], v);
    return RowStreamStep<Op, C, R, T + 1>(W, In);
  }
}

// Out[x] for X0 <= x < X1: the extremum of V[x + i * C], i = 0 .. 2R. X1 - X0
// is a multiple of 16 or X1 is m, and V is readable (its values unused) for
// RowSteps::Ahead() + 1 vectors past the row.
template <class Op, int C, int R>
inline void RowPass(const unsigned char* V, unsigned char* Out, int X0, int X1, int m) {
  using S = RowSteps<C, R>;
  if (m < 16) {
    for (int x = 0; x < m; ++x) {
      unsigned char v = V[x];
      for (int i = 1; i <= 2 * R; ++i) v = Op::S(v, V[x + i * C]);
      Out[x] = v;
    }
    return;
  }
  __m128i W[S::Count()][5] = {};
  constexpr int ahead = S::Ahead();
  // The first vectors only fill the steps.
  for (int j = 0; j < ahead; ++j) RowStreamStep<Op, C, R, 0>(W, LoadU(V + X0 + 16 * j));
  int x = X0;
  for (; x + 16 <= X1; x += 16) {
    const __m128i v = RowStreamStep<Op, C, R, 0>(W, LoadU(V + x + 16 * ahead));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Out + x), v);
  }
  if (x < X1) StoreRowVector(Out, x, m, RowStreamStep<Op, C, R, 0>(W, LoadU(V + x + 16 * ahead)));
}

// Bytes a padded row buffer takes, with the stream's overrun.
template <int C, int R>
constexpr size_t FusedLine(int m) {
  return (size_t(m) + 2 * R * C + 16 * (RowSteps<C, R>::Ahead() + 2) + 63) / 64 * 64;
}

// Radius copies of the first and of the last pixel around the m bytes at
// V + R * C.
template <int C, int R>
inline void PadLeft(unsigned char* V) {
  for (int i = 0; i < R * C; ++i) V[i] = V[R * C + i % C];
}
template <int C, int R>
inline void PadRight(unsigned char* V, int m) {
  unsigned char* row = V + R * C;
  for (int j = 0; j < R * C; ++j) row[m + j] = row[m - C + j % C];
}

// The column extrema of G output rows at byte x: Rows[i] is row p - R + i,
// i < 2R + G, and Out[j] gets the extremum of Rows[j .. j + 2R].
template <class Op, int R, int G>
inline void ColumnGroup(const unsigned char* const* Rows, unsigned char* const* Out, int x) {
  static_assert(G >= 2 && G <= 2 * R + 1, "the rows G - 1 .. 2R are shared by all");
  __m128i core = LoadU(Rows[G - 1] + x);
#pragma GCC unroll 16
  for (int i = G; i <= 2 * R; ++i) core = Op::V(core, LoadU(Rows[i] + x));
  // t[j]: the core and the rows above it from row j on.
  __m128i t[G];
  t[G - 1] = core;
#pragma GCC unroll 16
  for (int j = G - 2; j >= 0; --j) t[j] = Op::V(t[j + 1], LoadU(Rows[j] + x));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(Out[0] + x), t[0]);
  __m128i below = LoadU(Rows[2 * R + 1] + x);
#pragma GCC unroll 16
  for (int j = 1; j < G; ++j) {
    if (j > 1) below = Op::V(below, LoadU(Rows[2 * R + j] + x));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Out[j] + x), Op::V(t[j], below));
  }
}

template <class Op, int C, int R>
void FusedRows(const unsigned char* Src, unsigned char* Dest, int Width, int n, int Stride, unsigned char* Buf) {
  constexpr int G = FusedGroup(C, R);
  const int m = C * Width;
  const size_t line = FusedLine<C, R>(m);
  unsigned char* slots = Buf + G * line;
  const bool inplace = Src == Dest;
  unsigned char* out[G];
  for (int j = 0; j < G; ++j) out[j] = Buf + j * line + R * C;
  for (int p = 0; p < n; p += G) {
    const int count = n - p < G ? n - p : G;
    if (inplace)
      for (int j = 0; j < count; ++j)
        std::memcpy(slots + ptrdiff_t((p + j) % (R + G)) * m, Src + ptrdiff_t(p + j) * Stride, m);
    // Rows p - R .. p + G - 1 + R, clamped.
    const unsigned char* rows[2 * R + G];
    for (int i = 0; i < 2 * R + G; ++i) {
      int y = p + i - R;
      y = y < 0 ? 0 : (y >= n ? n - 1 : y);
      rows[i] = inplace && y < p + G ? slots + ptrdiff_t(y % (R + G)) * m : Src + ptrdiff_t(y) * Stride;
    }
    if (m < 16) {
      for (int x = 0; x < m; ++x)
        for (int j = 0; j < G; ++j) {
          unsigned char v = rows[j][x];
          for (int i = 1; i <= 2 * R; ++i) v = Op::S(v, rows[j + i][x]);
          out[j][x] = v;
        }
      for (int j = 0; j < count; ++j) {
        PadLeft<C, R>(out[j] - R * C);
        PadRight<C, R>(out[j] - R * C, m);
        RowPass<Op, C, R>(out[j] - R * C, Dest + ptrdiff_t(p + j) * Stride, 0, m, m);
      }
      continue;
    }
    // The row pass of a strip reads the lines a little past its end.
    int done = 0;
    bool right = false;
    constexpr int lead = R * C + 16 * (RowSteps<C, R>::Ahead() + 1);
    for (int x0 = 0, x1; x0 < m; x0 = x1) {
      x1 = m - x0 > FusedStrip(R) ? x0 + FusedStrip(R) : m;
      const int need = m - x1 > lead ? x1 + lead : m;
      // The last vector overlaps the one before when m is no multiple of 16.
      while (done < need) {
        const int x = done + 16 <= m ? done : m - 16;
        ColumnGroup<Op, R, G>(rows, out, x);
        done = x + 16;
      }
      for (int j = 0; j < count; ++j) {
        if (x0 == 0) PadLeft<C, R>(out[j] - R * C);
        if (done == m && !right) PadRight<C, R>(out[j] - R * C, m);
        RowPass<Op, C, R>(out[j] - R * C, Dest + ptrdiff_t(p + j) * Stride, x0, x1, m);
      }
      right = done == m;
    }
  }
}

// The scratch of FusedRows: G padded rows, and the ring of row copies in place.
template <int C, int R>
size_t FusedBytes(int m, bool Inplace) {
  constexpr int G = FusedGroup(C, R);
  return G * FusedLine<C, R>(m) + (Inplace ? size_t(R + G) * m : 0);
}

template <class Op, int C, int R>
int FusedRun(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride) {
  unsigned char* buf = qv::AlignedArray<unsigned char>(FusedBytes<C, R>(C * Width, Src == Dest), 32);
  if (buf == nullptr) return STATUS_OUT_OF_MEMORY;
  FusedRows<Op, C, R>(Src, Dest, Width, Height, Stride, buf);
  qv::AlignedFree(buf);
  return STATUS_OK;
}

// Radius R up to the layout's limit, one instance each.
template <class Op, int C, int R = 1>
int FusedChannel(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius) {
  if constexpr (R < FusedRadiusLimit(C))
    if (Radius != R) return FusedChannel<Op, C, R + 1>(Src, Dest, Width, Height, Stride, Radius);
  return FusedRun<Op, C, R>(Src, Dest, Width, Height, Stride);
}

// Clamped row indices and edge copies give the clipped window whatever the
// radius is against the sides, so no limit is needed here.
template <class Op>
int FusedExtremum(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;
  if (Channel == 1) return FusedChannel<Op, 1>(Src, Dest, Width, Height, Stride, Radius);
  if (Channel == 3) return FusedChannel<Op, 3>(Src, Dest, Width, Height, Stride, Radius);
  return FusedChannel<Op, 4>(Src, Dest, Width, Height, Stride, Radius);
}

// Two separable passes; the first step's frame is the operator's frame.
template <class Op>
int Extremum(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius) {
  // The layout is looked at before the frame, which comes with either path.
  const int gray = Width >= 1 && Stride / Width == 1;
  if (Radius >= 1 && Radius <= FusedRadiusLimit(gray ? 1 : 3))
    return FusedExtremum<Op>(Src, Dest, Width, Height, Stride, Radius);
  int status = FilterVertical<Op>(Src, Dest, Width, Height, Stride, Radius);
  if (status != STATUS_OK) return status;
  return FilterHorizontal<Op>(Dest, Dest, Width, Height, Stride, Radius);
}

}  // namespace

extern "C" QV_API int QV_MaxFilter(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                   int Radius) {
  return Extremum<MaxOp>(Src, Dest, Width, Height, Stride, Radius);
}

extern "C" QV_API int QV_MinFilter(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                   int Radius) {
  return Extremum<MinOp>(Src, Dest, Width, Height, Stride, Radius);
}

extern "C" QV_API int QV_Open(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                              int Radius) {
  int status = Extremum<MinOp>(Src, Dest, Width, Height, Stride, Radius);
  if (status != STATUS_OK) return status;
  return Extremum<MaxOp>(Dest, Dest, Width, Height, Stride, Radius);
}

extern "C" QV_API int QV_Close(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                               int Radius) {
  int status = Extremum<MaxOp>(Src, Dest, Width, Height, Stride, Radius);
  if (status != STATUS_OK) return status;
  return Extremum<MinOp>(Dest, Dest, Width, Height, Stride, Radius);
}

extern "C" QV_API int QV_RangeFilter(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                     int Radius, int Amount) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;

  const size_t n = qv::RunBytes(Height, Stride);
  unsigned char* hi = qv::MallocArray<unsigned char>(n);
  unsigned char* lo = qv::MallocArray<unsigned char>(n);
  if (hi == nullptr || lo == nullptr) {
    // Exhausted memory is reported as success, with Dest untouched.
    qv::Free(hi);
    qv::Free(lo);
    return STATUS_OK;
  }
  // A nested failure returns at once and loses both buffers: long-standing
  // behaviour that callers see only as a leak, kept as it is.
  int status = QV_MaxFilter(Src, hi, Width, Height, Stride, Radius);
  if (status != STATUS_OK) return status;
  status = QV_MinFilter(Src, lo, Width, Height, Stride, Radius);
  if (status != STATUS_OK) return status;
  // The difference runs over whole rows, padding included; the filters never
  // write the padding of their outputs, so it is cleared here to keep the
  // padding written to Dest defined (it comes out 0) instead of stale heap.
  const int row = Channel * Width;
  for (int y = 0; y < Height; ++y) {
    std::memset(hi + size_t(y) * Stride + row, 0, size_t(Stride - row));
    std::memset(lo + size_t(y) * Stride + row, 0, size_t(Stride - row));
  }

  const size_t block_end = n & ~size_t(15);
  if (Amount == 100) {
    for (size_t i = 0; i < block_end; i += 16) {
      const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(hi + i));
      const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(lo + i));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + i), _mm_subs_epu8(a, b));
    }
    for (size_t i = block_end; i < n; ++i) Dest[i] = static_cast<unsigned char>(hi[i] - lo[i]);
  } else {
    // m = trunc(Amount * 20.48f), a float product (50 gives exactly 1024). The
    // conversion is limited to the int range, where a plain cast is undefined.
    const float product = static_cast<float>(Amount) * 20.48f;
    const int m =
        product >= 2147483648.0f ? 2147483647 : (product <= -2147483648.0f ? INT32_MIN : static_cast<int>(product));
    // The block loop keeps the high 16 bits of (d << 5) * m: the low 16 bits
    // of m only, so it agrees with the tail for m in 0..65535.
    const __m128i mv = _mm_set1_epi16(static_cast<short>(static_cast<unsigned short>(m)));
    const __m128i zero = _mm_setzero_si128();
    for (size_t i = 0; i < block_end; i += 16) {
      const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(hi + i));
      const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(lo + i));
      const __m128i d = _mm_subs_epu8(a, b);
      const __m128i l = _mm_mulhi_epu16(_mm_slli_epi16(_mm_unpacklo_epi8(d, zero), 5), mv);
      const __m128i h = _mm_mulhi_epu16(_mm_slli_epi16(_mm_unpackhi_epi8(d, zero), 5), mv);
      // The products are below 8160, so the signed pack only clamps at 255.
      _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + i), _mm_packus_epi16(l, h));
    }
    for (size_t i = block_end; i < n; ++i) {
      const long long v = (static_cast<long long>(hi[i] - lo[i]) * m) >> 11;
      Dest[i] = static_cast<unsigned char>(v < 0 ? 0 : (v > 255 ? 255 : v));
    }
  }
  qv::Free(hi);
  qv::Free(lo);
  return STATUS_OK;
}
