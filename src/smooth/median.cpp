// Rank filter: a chosen percentile of the square window at constant cost per
// pixel through two-level (coarse and fine) column histograms, and min/max
// selection networks for the exact median of the 3x3 and 5x5 windows.
#include <cstdint>
#include <cstring>

#include "frame/frame.h"
#include "smooth/blur_simd.h"

namespace qv {
namespace {

int MedianFrame(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius,
                int Percent, int* Channel) {
  *Channel = DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1 || Radius < 1 || static_cast<unsigned>(Percent) > 100u) return STATUS_INVALID_PARAMETER;
  if (!IsChannel134(*Channel)) return STATUS_NOT_SUPPORTED;
  return STATUS_OK;
}

inline int ClampRow(long long Y, int Height) { return Y < 0 ? 0 : (Y >= Height ? Height - 1 : static_cast<int>(Y)); }

// A padded line: the row with its first and last pixel repeated Pad times.
void LoadLine(unsigned char* Line, const unsigned char* Row, int Width, int Channel, int Pad) {
  const int n = Width * Channel;
  std::memcpy(Line + Pad * Channel, Row, size_t(n));
  for (int p = 0; p < Pad; ++p) {
    std::memcpy(Line + p * Channel, Row, size_t(Channel));
    std::memcpy(Line + (Pad + Width + p) * Channel, Row + n - Channel, size_t(Channel));
  }
}

// ---- selection networks -------------------------------------------------

// The same networks run on 16 bytes at once and on single samples.
inline __m128i Min(__m128i a, __m128i b) { return _mm_min_epu8(a, b); }
inline __m128i Max(__m128i a, __m128i b) { return _mm_max_epu8(a, b); }
inline int Min(int a, int b) { return a < b ? a : b; }
inline int Max(int a, int b) { return a < b ? b : a; }

template <typename T>
inline void Sort2(T& a, T& b) {
  const T lo = Min(a, b);
  b = Max(a, b);
  a = lo;
}

template <typename T>
inline T Med3(T a, T b, T c) {
  return Max(Min(a, b), Min(Max(a, b), c));
}

// Fifth smallest of nine, p[3 * o + k] being line k at column offset o: sort
// each column of three, then the median of the largest low, the median
// middle and the smallest high (15 minima and 15 maxima).
template <typename T>
inline T Median9(T* p) {
  for (int o = 0; o < 3; ++o) {
    Sort2(p[3 * o], p[3 * o + 1]);
    Sort2(p[3 * o + 1], p[3 * o + 2]);
    Sort2(p[3 * o], p[3 * o + 1]);
  }
  const T lo = Max(Max(p[0], p[3]), p[6]);
  const T hi = Min(Min(p[2], p[5]), p[8]);
  return Med3(lo, Med3(p[1], p[4], p[7]), hi);
}

// Thirteenth smallest of 25 by a 99-exchange selection network, written out
// with constant indices so that the samples can stay in registers.
// clang-format off
#define QV_NET25(X)                                                                                                    \
  X(0, 1)                                                                                                              \
  X(3, 4)                                                                                                              \
  X(2, 4) X(2, 3) X(6, 7) X(5, 7) X(5, 6) X(9, 10) X(8, 10) X(8, 9) X(12, 13) X(11, 13) X(11, 12) X(15, 16) X(14, 16)  \
      X(14, 15) X(18, 19) X(17, 19) X(17, 18) X(21, 22) X(20, 22) X(20, 21) X(23, 24) X(2, 5) X(3, 6) X(0, 6) X(0, 3)  \
          X(4, 7) X(1, 7) X(1, 4) X(11, 14) X(8, 14) X(8, 11) X(12, 15) X(9, 15) X(9, 12) X(13, 16) X(10, 16)          \
              X(10, 13) X(20, 23) X(17, 23) X(17, 20) X(21, 24) X(18, 24) X(18, 21) X(19, 22) X(8, 17) X(9, 18)        \
                  X(0, 18) X(0, 9) X(10, 19) X(1, 19) X(1, 10) X(11, 20) X(2, 20) X(2, 11) X(12, 21) X(3, 21) X(3, 12) \
                      X(13, 22) X(4, 22) X(4, 13) X(14, 23) X(5, 23) X(5, 14) X(15, 24) X(6, 24) X(6, 15) X(7, 16)     \
                          X(7, 19) X(13, 21) X(15, 23) X(7, 13) X(7, 15) X(1, 9) X(3, 11) X(5, 17) X(11, 17) X(9, 17)  \
                              X(4, 10) X(6, 12) X(7, 14) X(4, 6) X(4, 7) X(12, 14) X(10, 14) X(6, 7) X(10, 12)         \
                                  X(6, 10) X(6, 17) X(12, 17) X(7, 17) X(7, 10) X(12, 18) X(7, 12) X(10, 18) X(12, 20) \
                                      X(10, 20) X(10, 12)
// clang-format on

template <typename T>
inline T Median25(T* p) {
#define QV_EXCHANGE(a, b) Sort2(p[a], p[b]);
  QV_NET25(QV_EXCHANGE)
#undef QV_EXCHANGE
  return p[12];
}
#undef QV_NET25

// The exact median of a (2 * R + 1)^2 window, R being 1 or 2, with the rows
// and columns at the edges repeated.
template <int R>
int MedianBlurNetwork(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride) {
  int Channel = 0;
  const int status = MedianFrame(Src, Dest, Width, Height, Stride, R, 50, &Channel);
  if (status != STATUS_OK) return status;

  constexpr int D = 2 * R + 1;
  const size_t line_bytes = size_t(Width + 2 * R) * Channel;
  unsigned char* lines[D];
  bool ok = true;
  for (int k = 0; k < D; ++k) {
    lines[k] = static_cast<unsigned char*>(Malloc(line_bytes));
    ok = ok && lines[k] != nullptr;
  }
  if (!ok) {
    for (int k = 0; k < D; ++k) Free(lines[k]);
    return STATUS_OUT_OF_MEMORY;
  }
  // Line k holds row y - R + k. Rows past the image repeat the edge row; the
  // top line of the 5x5 window for row 0, which the operator never writes,
  // holds row 0 here.
  for (int k = 0; k < D; ++k) LoadLine(lines[k], Src + size_t(ClampRow(k - R, Height)) * Stride, Width, Channel, R);

  const int n = Width * Channel;
  const int block_end = n & ~15;
  for (int y = 0; y < Height; ++y) {
    if (y > 0) {
      unsigned char* t = lines[0];
      for (int k = 0; k + 1 < D; ++k) lines[k] = lines[k + 1];
      lines[D - 1] = t;
      LoadLine(t, Src + size_t(ClampRow(static_cast<long long>(y) + R, Height)) * Stride, Width, Channel, R);
    }
    unsigned char* out = Dest + size_t(y) * Stride;
    for (int i = 0; i < block_end; i += 16) {
      __m128i p[D * D];
      for (int o = 0; o < D; ++o)
        for (int k = 0; k < D; ++k)
          p[D * o + k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(lines[k] + i + o * Channel));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), R == 1 ? Median9(p) : Median25(p));
    }
    for (int i = block_end; i < n; ++i) {
      int p[D * D];
      for (int o = 0; o < D; ++o)
        for (int k = 0; k < D; ++k) p[D * o + k] = lines[k][i + o * Channel];
      out[i] = static_cast<unsigned char>(R == 1 ? Median9(p) : Median25(p));
    }
  }
  for (int k = 0; k < D; ++k) Free(lines[k]);
  return STATUS_OK;
}

// ---- two-level histograms ---------------------------------------------

inline void AddHist(uint16_t* To, const uint16_t* From) {
  __m128i* t = reinterpret_cast<__m128i*>(To);
  const __m128i* f = reinterpret_cast<const __m128i*>(From);
  _mm_store_si128(t, _mm_add_epi16(_mm_load_si128(t), _mm_load_si128(f)));
  _mm_store_si128(t + 1, _mm_add_epi16(_mm_load_si128(t + 1), _mm_load_si128(f + 1)));
}
// To += Plus - Minus, wrapping at 16 bits.
inline void StepHist(uint16_t* To, const uint16_t* Plus, const uint16_t* Minus) {
  __m128i* t = reinterpret_cast<__m128i*>(To);
  const __m128i* p = reinterpret_cast<const __m128i*>(Plus);
  const __m128i* m = reinterpret_cast<const __m128i*>(Minus);
  _mm_store_si128(t, _mm_add_epi16(_mm_load_si128(t), _mm_sub_epi16(_mm_load_si128(p), _mm_load_si128(m))));
  _mm_store_si128(t + 1,
                  _mm_add_epi16(_mm_load_si128(t + 1), _mm_sub_epi16(_mm_load_si128(p + 1), _mm_load_si128(m + 1))));
}
// To += From * Weight, wrapping at 16 bits.
inline void AddHistWeighted(uint16_t* To, const uint16_t* From, uint16_t Weight) {
  const __m128i w = _mm_set1_epi16(static_cast<int16_t>(Weight));
  __m128i* t = reinterpret_cast<__m128i*>(To);
  const __m128i* f = reinterpret_cast<const __m128i*>(From);
  _mm_store_si128(t, _mm_add_epi16(_mm_load_si128(t), _mm_mullo_epi16(_mm_load_si128(f), w)));
  _mm_store_si128(t + 1, _mm_add_epi16(_mm_load_si128(t + 1), _mm_mullo_epi16(_mm_load_si128(f + 1), w)));
}

// Running sums of the 16 counters held in A (bins 0-7) and B (bins 8-15).
inline void PrefixSums(__m128i& A, __m128i& B) {
  A = _mm_add_epi16(A, _mm_slli_si128(A, 2));
  B = _mm_add_epi16(B, _mm_slli_si128(B, 2));
  A = _mm_add_epi16(A, _mm_slli_si128(A, 4));
  B = _mm_add_epi16(B, _mm_slli_si128(B, 4));
  A = _mm_add_epi16(A, _mm_slli_si128(A, 8));
  B = _mm_add_epi16(B, _mm_slli_si128(B, 8));
  const __m128i top = _mm_shufflehi_epi16(A, 0xFF);
  B = _mm_add_epi16(B, _mm_unpackhi_epi64(top, top));
}

// Bit i set where running sum i, in Lo (0-7) and Hi (8-15), exceeds Limit.
inline int AboveMaskOfSums(__m128i Lo, __m128i Hi, __m128i Limit) {
  // prefix > Limit exactly where the saturating difference is not zero.
  const __m128i zero = _mm_setzero_si128();
  const __m128i at_most = _mm_packs_epi16(_mm_cmpeq_epi16(_mm_subs_epu16(Lo, Limit), zero),
                                          _mm_cmpeq_epi16(_mm_subs_epu16(Hi, Limit), zero));
  return ~_mm_movemask_epi8(at_most) & 0xFFFF;
}

// Bit i set where the running sum through bin i exceeds Limit (all sums
// below 65536).
inline int AboveMask(__m128i Lo, __m128i Hi, __m128i Limit) {
  PrefixSums(Lo, Hi);
  return AboveMaskOfSums(Lo, Hi, Limit);
}

// The first of 16 bins whose running sum exceeds Limit, or 15 if none does;
// *Before receives the sum of the bins before it.
inline int FirstAbove(const uint16_t* Hist, unsigned Limit, unsigned* Before) {
  const __m128i* h = reinterpret_cast<const __m128i*>(Hist);
  __m128i a = _mm_load_si128(h), b = _mm_load_si128(h + 1);
  PrefixSums(a, b);
  const int above = AboveMaskOfSums(a, b, _mm_set1_epi16(static_cast<int16_t>(Limit)));
  const int k = above != 0 ? __builtin_ctz(static_cast<unsigned>(above)) : 15;
  alignas(16) uint16_t prefix[16];
  _mm_store_si128(reinterpret_cast<__m128i*>(prefix), a);
  _mm_store_si128(reinterpret_cast<__m128i*>(prefix + 8), b);
  *Before = k > 0 ? prefix[k - 1] : 0;
  return k;
}

// The sum of the 8 lanes in every lane, wrapping at 16 bits.
inline __m128i BroadcastSum16(__m128i V) {
  V = _mm_add_epi16(V, _mm_shuffle_epi32(V, 0x4E));
  V = _mm_add_epi16(V, _mm_shuffle_epi32(V, 0xB1));
  return _mm_add_epi16(V, _mm_shuffle_epi8(V, _mm_setr_epi8(2, 3, 0, 1, 6, 7, 4, 5, 10, 11, 8, 9, 14, 15, 12, 13)));
}

struct Histograms {
  uint16_t* coarse;      // [channel][column][16]
  uint16_t* fine;        // [channel][coarse bin][column][16]
  uint16_t* win_coarse;  // [channel][16]
  uint16_t* win_fine;    // [channel][coarse bin][16]
  // [channel][coarse bin]; 64-bit because x + Radius + 1 passes 2^31 for a
  // Radius near INT_MAX, and a wrapped value would send the walk before column 0.
  int64_t* last_updated;
  int width;
  uint16_t* Coarse(int c, long long x) const { return coarse + (size_t(c) * width + size_t(x)) * 16; }
  uint16_t* Fine(int c, int k, long long x) const { return fine + ((size_t(c) * 16 + k) * width + size_t(x)) * 16; }
};

// Adds Weight copies of an image row to the column histograms.
void AddRow(const Histograms& h, const unsigned char* Row, int Width, int Channel, int Channels, uint16_t Weight) {
  for (int x = 0; x < Width; ++x)
    for (int c = 0; c < Channels; ++c) {
      const int v = Row[x * Channel + c];
      uint16_t* co = h.Coarse(c, x) + (v >> 4);
      uint16_t* fi = h.Fine(c, v >> 4, x) + (v & 15);
      *co = static_cast<uint16_t>(*co + Weight);
      *fi = static_cast<uint16_t>(*fi + Weight);
    }
}

// One row leaves the column histograms and another enters; a sample equal to
// the one it replaces changes nothing.
template <int Channels>
void ReplaceRow(const Histograms& h, const uint32_t* FineOffset, const unsigned char* Out, const unsigned char* In,
                int Width, int Channel) {
  for (int c = 0; c < Channels; ++c) {
    uint16_t* coarse = h.coarse + size_t(c) * Width * 16;
    uint16_t* fine = h.fine + size_t(c) * 16 * Width * 16;
    const unsigned char* out = Out + c;
    const unsigned char* in = In + c;
    for (size_t x = 0; x < size_t(Width); ++x, out += Channel, in += Channel) {
      const unsigned o = *out, i = *in;
      if (o == i) continue;
      uint16_t* co = coarse + x * 16;
      co[o >> 4] = static_cast<uint16_t>(co[o >> 4] - 1);
      co[i >> 4] = static_cast<uint16_t>(co[i >> 4] + 1);
      uint16_t* fx = fine + x * 16;
      fx[FineOffset[o]] = static_cast<uint16_t>(fx[FineOffset[o]] - 1);
      fx[FineOffset[i]] = static_cast<uint16_t>(fx[FineOffset[i]] + 1);
    }
  }
}

struct Geometry {
  int width;
  long long radius;
  long long diameter;
};

// Brings segment k of channel c up to the window of column x (columns x -
// Radius to x + Radius, the edge columns repeated) from an older state. The
// sums run in registers: through memory each column would wait for the store
// of the one before.
__attribute__((noinline)) void CatchUpFar(const Histograms& h, const Geometry& g, int c, int k, long long x) {
  uint16_t* seg = h.win_fine + (c * 16 + k) * 16;
  int64_t& last = h.last_updated[c * 16 + k];
  const long long left = x - g.radius, right = x + g.radius;
  const int Width = g.width;
  const __m128i* fine = reinterpret_cast<const __m128i*>(h.Fine(c, k, 0));
  __m128i lo = _mm_load_si128(reinterpret_cast<const __m128i*>(seg));
  __m128i hi = _mm_load_si128(reinterpret_cast<const __m128i*>(seg + 8));
  if (last <= left) {
    // Nothing in common with the present window: sum it afresh. last is
    // never negative, so neither is left here; columns past the image are
    // column Width - 1.
    const long long end = right + 1 < Width ? right + 1 : Width;
    lo = hi = _mm_setzero_si128();
    for (long long j = left; j < end; ++j) {
      lo = _mm_add_epi16(lo, _mm_load_si128(fine + 2 * j));
      hi = _mm_add_epi16(hi, _mm_load_si128(fine + 2 * j + 1));
    }
    if (right + 1 > Width) {
      const __m128i n = _mm_set1_epi16(static_cast<int16_t>(right + 1 - Width));
      lo = _mm_add_epi16(lo, _mm_mullo_epi16(_mm_load_si128(fine + 2 * (Width - 1)), n));
      hi = _mm_add_epi16(hi, _mm_mullo_epi16(_mm_load_si128(fine + 2 * (Width - 1) + 1), n));
    }
  } else {
    for (long long L = last; L < right + 1; ++L) {
      if (L >= Width - 1 && L <= g.diameter) {
        // Both columns clamped: every step of this run adds column Width - 1
        // and takes column 0, so do the run as one weighted step (16-bit
        // counters wrap alike). A Radius far beyond the image then costs no
        // more than the image's width, not Radius.
        const long long stop = right + 1 < g.diameter + 1 ? right + 1 : g.diameter + 1;
        const __m128i n = _mm_set1_epi16(static_cast<int16_t>(static_cast<uint16_t>(stop - L)));
        const __m128i* add = fine + 2 * (Width - 1);
        lo = _mm_add_epi16(lo, _mm_mullo_epi16(_mm_sub_epi16(_mm_load_si128(add), _mm_load_si128(fine)), n));
        hi = _mm_add_epi16(hi, _mm_mullo_epi16(_mm_sub_epi16(_mm_load_si128(add + 1), _mm_load_si128(fine + 1)), n));
        L = stop - 1;
        continue;
      }
      const long long s = L - g.diameter;
      const __m128i* add = fine + 2 * (L < Width - 1 ? L : Width - 1);
      const __m128i* sub = fine + 2 * (s > 0 ? s : 0);
      lo = _mm_add_epi16(lo, _mm_sub_epi16(_mm_load_si128(add), _mm_load_si128(sub)));
      hi = _mm_add_epi16(hi, _mm_sub_epi16(_mm_load_si128(add + 1), _mm_load_si128(sub + 1)));
    }
  }
  _mm_store_si128(reinterpret_cast<__m128i*>(seg), lo);
  _mm_store_si128(reinterpret_cast<__m128i*>(seg + 8), hi);
  last = right + 1;
}

// The same, inline for the usual case of a segment that followed the
// previous column: one column in, one out. Add and Sub are the columns
// min(x + Radius, Width - 1) and max(x - Radius - 1, 0).
inline uint16_t* CatchUp(const Histograms& h, const Geometry& g, int c, int k, long long x, long long Add,
                         long long Sub) {
  uint16_t* seg = h.win_fine + (c * 16 + k) * 16;
  int64_t& last = h.last_updated[c * 16 + k];
  if (last == x + g.radius) {
    StepHist(seg, h.Fine(c, k, Add), h.Fine(c, k, Sub));
    last = x + g.radius + 1;
  } else if (last < x + g.radius) {
    CatchUpFar(h, g, c, k, x);
  }
  return seg;
}

// The window's coarse histogram; the coarse bin of the last output, its fine
// segment (kept here while the bin holds, the copy in win_fine being stale
// until it is stored back) and the count of window samples in the bins below
// it, in every lane.
struct ChannelState {
  __m128i coarse_lo, coarse_hi, seg_lo, seg_hi, below;
  __m128i below_lo, below_hi;  // lanes of the coarse bins below bin
  const uint16_t* fine;        // column fine histograms of bin
  int bin;
};

// Filters one row of channel c on the histogram path; a channel at a time
// keeps its whole state in registers. Below Radius 128 every count of a
// window fits 16 bits and the searches are vector prefix sums; the answer
// usually stays in the coarse bin of the previous column, so the count below
// that bin is carried from column to column and only its fine segment is
// stepped and searched, the coarse search being the fallback when the answer
// moves to another bin. From Radius 128 on the counters can wrap: both levels
// are walked from bin 0, stopping at bin 15 when no sum passes the rank.
void FilterRow(const Histograms& h, const Geometry& g, int c, unsigned Rank, bool Narrow, unsigned char* Out,
               int Channel) {
  const int Width = g.width;
  const long long R = g.radius;
  // The window of column -1: Radius + 1 copies of column 0 and columns 0 to
  // Radius - 1, those past the image being the last column.
  uint16_t* wc = h.win_coarse + c * 16;
  std::memset(wc, 0, 32);
  AddHistWeighted(wc, h.Coarse(c, 0), static_cast<uint16_t>(R + 1));
  for (long long j = 0; j < R && j < Width; ++j) AddHist(wc, h.Coarse(c, j));
  if (R > Width) AddHistWeighted(wc, h.Coarse(c, Width - 1), static_cast<uint16_t>(R - Width));
  ChannelState s;
  s.coarse_lo = _mm_load_si128(reinterpret_cast<const __m128i*>(wc));
  s.coarse_hi = _mm_load_si128(reinterpret_cast<const __m128i*>(wc + 8));
  s.seg_lo = s.seg_hi = s.below = s.below_lo = s.below_hi = _mm_setzero_si128();
  s.fine = nullptr;
  s.bin = -1;
  // Every segment as if the window stood wholly left of the image.
  for (int k = 0; k < 16; ++k) {
    std::memset(h.win_fine + (c * 16 + k) * 16, 0, 32);
    AddHistWeighted(h.win_fine + (c * 16 + k) * 16, h.Fine(c, k, 0), static_cast<uint16_t>(g.diameter));
    h.last_updated[c * 16 + k] = 0;
  }

  const __m128i lanes_lo = _mm_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7);
  const __m128i lanes_hi = _mm_setr_epi16(8, 9, 10, 11, 12, 13, 14, 15);
  const __m128i rank = _mm_set1_epi16(static_cast<int16_t>(Rank));
  const uint16_t* coarse = h.Coarse(c, 0);
  // One output pixel; add and sub are the columns min(x + Radius, Width - 1)
  // and max(x - Radius - 1, 0) that enter and leave the window.
  auto pixel = [&](long long x, long long add, long long sub) __attribute__((always_inline)) {
    const __m128i* pa = reinterpret_cast<const __m128i*>(coarse + add * 16);
    const __m128i* ps = reinterpret_cast<const __m128i*>(coarse + sub * 16);
    const __m128i d_lo = _mm_sub_epi16(_mm_load_si128(pa), _mm_load_si128(ps));
    const __m128i d_hi = _mm_sub_epi16(_mm_load_si128(pa + 1), _mm_load_si128(ps + 1));
    s.coarse_lo = _mm_add_epi16(s.coarse_lo, d_lo);
    s.coarse_hi = _mm_add_epi16(s.coarse_hi, d_hi);
    int k = s.bin, b = -1;
    if (k >= 0) {
      const __m128i* fa = reinterpret_cast<const __m128i*>(s.fine + add * 16);
      const __m128i* fs = reinterpret_cast<const __m128i*>(s.fine + sub * 16);
      s.seg_lo = _mm_add_epi16(s.seg_lo, _mm_sub_epi16(_mm_load_si128(fa), _mm_load_si128(fs)));
      s.seg_hi = _mm_add_epi16(s.seg_hi, _mm_sub_epi16(_mm_load_si128(fa + 1), _mm_load_si128(fs + 1)));
      const __m128i moved = _mm_add_epi16(_mm_and_si128(d_lo, s.below_lo), _mm_and_si128(d_hi, s.below_hi));
      s.below = _mm_add_epi16(s.below, BroadcastSum16(moved));
      // When the answer lies below the bin, Rank - below wraps to at least
      // 65536 + Rank - Area, which no count of the segment exceeds.
      const int above = AboveMask(s.seg_lo, s.seg_hi, _mm_sub_epi16(rank, s.below));
      if (__builtin_expect(above != 0, 1)) {
        b = __builtin_ctz(static_cast<unsigned>(above));
      } else {
        _mm_store_si128(reinterpret_cast<__m128i*>(h.win_fine + (c * 16 + k) * 16), s.seg_lo);
        _mm_store_si128(reinterpret_cast<__m128i*>(h.win_fine + (c * 16 + k) * 16 + 8), s.seg_hi);
        h.last_updated[c * 16 + k] = x + R + 1;
      }
    }
    if (b < 0) {
      _mm_store_si128(reinterpret_cast<__m128i*>(wc), s.coarse_lo);
      _mm_store_si128(reinterpret_cast<__m128i*>(wc + 8), s.coarse_hi);
      unsigned sum = 0;
      if (Narrow) {
        k = FirstAbove(wc, Rank, &sum);
      } else {
        for (k = 0; k < 15; ++k) {
          if (sum + wc[k] > Rank) break;
          sum += wc[k];
        }
      }
      // k stops at 15 even when the counters have wrapped (Radius 128 and
      // more) and no bin passes the rank; so does b below.
      const uint16_t* seg = CatchUp(h, g, c, k, x, add, sub);
      if (Narrow) {
        s.seg_lo = _mm_load_si128(reinterpret_cast<const __m128i*>(seg));
        s.seg_hi = _mm_load_si128(reinterpret_cast<const __m128i*>(seg + 8));
        s.below = _mm_set1_epi16(static_cast<int16_t>(sum));
        s.bin = k;
        s.fine = h.Fine(c, k, 0);
        const __m128i kk = _mm_set1_epi16(static_cast<int16_t>(k));
        s.below_lo = _mm_cmpgt_epi16(kk, lanes_lo);
        s.below_hi = _mm_cmpgt_epi16(kk, lanes_hi);
        b = __builtin_ctz(static_cast<unsigned>(AboveMask(s.seg_lo, s.seg_hi, _mm_sub_epi16(rank, s.below))));
      } else {
        for (b = 0; b < 15; ++b) {
          sum += seg[b];
          if (sum > Rank) break;
        }
      }
    }
    Out[x * Channel] = static_cast<unsigned char>(16 * k + b);
  };
  // The same window in three spans, so that the middle one, where no column
  // is clamped, needs no limits.
  const long long w = Width, first = R + 1 < w ? R + 1 : w, middle = w - R > first ? w - R : first;
  for (long long x = 0; x < first; ++x) pixel(x, x + R < w - 1 ? x + R : w - 1, 0);
  for (long long x = first; x < middle; ++x) pixel(x, x + R, x - R - 1);
  for (long long x = middle; x < w; ++x) pixel(x, x + R < w - 1 ? x + R : w - 1, x - R - 1 > 0 ? x - R - 1 : 0);
}

int MedianBlurHistogram(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius,
                        int Percent) {
  int Channel = 0;
  const int status = MedianFrame(Src, Dest, Width, Height, Stride, Radius, Percent, &Channel);
  if (status != STATUS_OK) return status;

  const int channels = Channel == 1 ? 1 : 3;
  Histograms h;
  h.width = Width;
  h.coarse = AlignedArray<uint16_t>(size_t(Channel) * Width * 16, 32);
  h.fine = AlignedArray<uint16_t>(size_t(Channel) * Width * 256, 32);
  h.win_coarse = AlignedArray<uint16_t>(size_t(Channel) * 16, 32);
  h.win_fine = AlignedArray<uint16_t>(size_t(Channel) * 256, 32);
  h.last_updated = AlignedArray<int64_t>(size_t(Channel) * 16, 32);
  if (h.coarse == nullptr || h.fine == nullptr || h.win_coarse == nullptr || h.win_fine == nullptr ||
      h.last_updated == nullptr) {
    AlignedFree(h.coarse);
    AlignedFree(h.fine);
    AlignedFree(h.win_coarse);
    AlignedFree(h.win_fine);
    AlignedFree(h.last_updated);
    return STATUS_OUT_OF_MEMORY;
  }
  std::memset(h.coarse, 0, sizeof(uint16_t) * Channel * Width * 16);
  std::memset(h.fine, 0, sizeof(uint16_t) * Channel * Width * 256);

  // Sizes in wrapping unsigned arithmetic: no radius can overflow them.
  const unsigned diameter = 2u * static_cast<unsigned>(Radius) + 1u;
  const unsigned area = diameter * diameter;
  const unsigned rank = Percent == 100 ? area - 1u : area * static_cast<unsigned>(Percent) / 100u;
  const long long R = Radius;
  const Geometry g{Width, R, static_cast<long long>(diameter)};
  // Below Radius 128 every running sum of a window fits 16 bits.
  const bool narrow = Radius < 128;

  // Row 0 counts Radius + 1 times (one of them leaves at the first row), then
  // rows 0 .. Radius - 1; past the image these repeat the last row.
  AddRow(h, Src, Width, Channel, channels, static_cast<uint16_t>(R + 1));
  for (long long j = 0; j < R && j < Height; ++j) AddRow(h, Src + size_t(j) * Stride, Width, Channel, channels, 1);
  if (R > Height)
    AddRow(h, Src + size_t(Height - 1) * Stride, Width, Channel, channels, static_cast<uint16_t>(R - Height));

  // Where value v counts in the fine histograms of a column of one channel.
  uint32_t fine_offset[256];
  for (int v = 0; v < 256; ++v) fine_offset[v] = static_cast<uint32_t>((v >> 4) * Width * 16 + (v & 15));
  for (int y = 0; y < Height; ++y) {
    const unsigned char* leaving = Src + size_t(ClampRow(y - R - 1, Height)) * Stride;
    const unsigned char* entering = Src + size_t(ClampRow(y + R, Height)) * Stride;
    unsigned char* out = Dest + size_t(y) * Stride;
    if (channels == 1) {
      ReplaceRow<1>(h, fine_offset, leaving, entering, Width, Channel);
      FilterRow(h, g, 0, rank, narrow, out, Channel);
    } else {
      ReplaceRow<3>(h, fine_offset, leaving, entering, Width, Channel);
      for (int c = 0; c < 3; ++c) FilterRow(h, g, c, rank, narrow, out + c, Channel);
    }
    if (Channel == 4)
      for (int x = 0; x < Width; ++x) out[x * 4 + 3] = Src[size_t(y) * Stride + x * 4 + 3];
  }
  AlignedFree(h.coarse);
  AlignedFree(h.fine);
  AlignedFree(h.win_coarse);
  AlignedFree(h.win_fine);
  AlignedFree(h.last_updated);
  return STATUS_OK;
}

}  // namespace
}  // namespace qv

extern "C" QV_API int QV_MedianBlur(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                    int Radius, int Percent) {
  int Channel = 0;
  const int status = qv::MedianFrame(Src, Dest, Width, Height, Stride, Radius, Percent, &Channel);
  if (status != STATUS_OK) return status;
  if (Percent == 50 && Radius == 1) return qv::MedianBlurNetwork<1>(Src, Dest, Width, Height, Stride);
  if (Percent == 50 && Radius == 2) return qv::MedianBlurNetwork<2>(Src, Dest, Width, Height, Stride);
  return qv::MedianBlurHistogram(Src, Dest, Width, Height, Stride, Radius, Percent);
}
