// Resampling to a new size by three separate engines: nearest neighbour
// (a column table and row repeats), bilinear (15 fractional bits, cached row
// pairs) and bicubic (16 fractional bits, separable sums over clamped taps).
#include <smmintrin.h>
#include <tmmintrin.h>

#include <cmath>
#include <cstdint>
#include <cstring>

#include "frame/frame.h"

namespace {

using std::int64_t;
using std::ptrdiff_t;

inline __m128i Load32(const unsigned char* p) {
  int v;
  std::memcpy(&v, p, 4);
  return _mm_cvtsi32_si128(v);
}

inline int Clamp(int64_t v, int lo, int hi) { return static_cast<int>(v < lo ? lo : (v > hi ? hi : v)); }

int Nearest(const unsigned char* Src, unsigned char* Dest, int SrcWidth, int SrcHeight, int SrcStride, int DestWidth,
            int DestHeight, int DestStride, int Channel) {
  int* table = qv::MallocArray<int>(size_t(DestWidth));
  if (table == nullptr) return STATUS_OUT_OF_MEMORY;
  for (int x = 0; x < DestWidth; ++x) {
    const int sx = Clamp(static_cast<int64_t>((x + 0.5) * SrcWidth / DestWidth), 0, SrcWidth - 1);
    table[x] = Channel == 3 ? sx * 3 : sx;
  }
  // The row to repeat is found as if Dest were packed for 1 and 4 channels.
  const ptrdiff_t back = Channel == 3 ? DestStride : ptrdiff_t(Channel) * DestWidth;
  int last = -1;
  for (int y = 0; y < DestHeight; ++y) {
    const int sy = Clamp(static_cast<int64_t>((y + 0.5) * SrcHeight / DestHeight), 0, SrcHeight - 1);
    unsigned char* d = Dest + ptrdiff_t(y) * DestStride;
    if (sy == last) {
      // A padded destination makes the two ranges overlap.
      std::memmove(d, d - back, size_t(DestStride));
      continue;
    }
    last = sy;
    const unsigned char* s = Src + ptrdiff_t(sy) * SrcStride;
    if (Channel == 1) {
      int x = 0;
      for (; x + 4 <= DestWidth; x += 4) {
        d[x] = s[table[x]], d[x + 1] = s[table[x + 1]];
        d[x + 2] = s[table[x + 2]], d[x + 3] = s[table[x + 3]];
      }
      for (; x < DestWidth; ++x) d[x] = s[table[x]];
    } else if (Channel == 3) {
      for (int x = 0; x < DestWidth; ++x) {
        std::memcpy(d + 3 * x, s + table[x], 2);
        d[3 * x + 2] = s[table[x] + 2];
      }
    } else {
      int x = 0;
      for (; x + 4 <= DestWidth; x += 4) {
        int p[4];
        for (int k = 0; k < 4; ++k) std::memcpy(&p[k], s + 4 * ptrdiff_t(table[x + k]), 4);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 4 * x), _mm_setr_epi32(p[0], p[1], p[2], p[3]));
      }
      for (; x < DestWidth; ++x) std::memcpy(d + 4 * x, s + 4 * ptrdiff_t(table[x]), 4);
    }
  }
  qv::Free(table);
  return STATUS_OK;
}

// Bilinear. Positions are kept in 64 bits: for sides below 65536 that is the
// 32-bit arithmetic exactly, and above it no position can wrap out of the row.
// A fetched row of one or four channels holds each column's left and right
// pixels side by side (one load and one store a column); a row of three
// channels holds the left pixels of every column, then (Gap bytes after their
// start) the right ones, the gap leaving room for 4-byte stores.
struct Bilinear {
  int SrcWidth, Channel, DestWidth;
  int xFirst, xLast;
  ptrdiff_t Gap;
  const uint16_t* wx;
  const int32_t* off;  // byte offset of the left pixel, columns xFirst to xLast - 1
  // Per group of 8 columns (one channel) or 4 columns (three) from column 0:
  // the byte offset of a 16-byte load that holds all the group's pixels (-1
  // where none does, or where the group is not all inside), and the shuffles
  // that line them up (the pairs; or the left pixels, then the right ones).
  const int32_t* base;
  const __m128i* gather;

  static void Put4(unsigned char* p, uint32_t v) { std::memcpy(p, &v, 4); }
  static void Store12(unsigned char* p, __m128i v) {
    _mm_storel_epi64(reinterpret_cast<__m128i*>(p), v);
    Put4(p + 8, static_cast<uint32_t>(_mm_extract_epi32(v, 2)));
  }
  static uint32_t Get4(const unsigned char* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
  }

  // The pixel pairs of one or two source rows (Rows rows of each array).
  template <int C, int Rows>
  void FetchC(const unsigned char* const* s, unsigned char* const* Row) const {
    constexpr bool paired = C != 3;
    // Where column x's left and right pixels go.
    const auto left_of = [&](unsigned char* row, int x) { return row + (paired ? 2 * C * x : C * x); };
    const ptrdiff_t to_right = paired ? C : Gap;
    for (int j = 0; j < Rows; ++j)
      for (int x = 0; x < xFirst; ++x)
        for (int k = 0; k < C; ++k) left_of(Row[j], x)[k] = left_of(Row[j], x)[to_right + k] = s[j][k];
    // Inside, the right pixel follows the left one in the row. Three
    // channels store 4 bytes a pixel, the fourth overwritten next. Where a
    // group's pixels lie within 16 bytes of the row (one channel: down to a
    // half; three: enlargements) the group is gathered by byte shuffles.
    int x = xFirst;
    if (C == 1) {
      for (; x < xLast && (x % 8 != 0 || x + 8 > xLast || base[x / 8] < 0); ++x)
        for (int j = 0; j < Rows; ++j) std::memcpy(Row[j] + 2 * x, s[j] + off[x], 2);
      for (; x + 8 <= xLast && base[x / 8] >= 0; x += 8)
        for (int j = 0; j < Rows; ++j)
          _mm_store_si128(
              reinterpret_cast<__m128i*>(Row[j] + 2 * x),
              _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s[j] + base[x / 8])), gather[x / 8]));
    } else if (C == 3) {
      // Stores of 8 + 4 bytes: 16 could run past the left half or the row.
      for (; x < xLast && (x % 4 != 0 || x + 4 > xLast || base[x / 4] < 0); ++x)
        for (int j = 0; j < Rows; ++j) {
          std::memcpy(Row[j] + 3 * x, s[j] + off[x], 3);
          std::memcpy(Row[j] + Gap + 3 * x, s[j] + off[x] + 3, 3);
        }
      for (; x + 4 <= xLast && base[x / 4] >= 0; x += 4)
        for (int j = 0; j < Rows; ++j) {
          const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s[j] + base[x / 4]));
          Store12(Row[j] + 3 * x, _mm_shuffle_epi8(v, gather[2 * (x / 4)]));
          Store12(Row[j] + Gap + 3 * x, _mm_shuffle_epi8(v, gather[2 * (x / 4) + 1]));
        }
    }
    for (; x < xLast; ++x) {
      const ptrdiff_t o = off[x];
      for (int j = 0; j < Rows; ++j) {
        const unsigned char* p = s[j] + o;
        unsigned char* left = left_of(Row[j], x);
        if (C == 1) {
          std::memcpy(left, p, 2);
        } else if (C == 3) {
          Put4(left, Get4(p));
          Put4(left + Gap, Get4(p + 2) >> 8);
        } else {
          std::memcpy(left, p, 8);
        }
      }
    }
    for (int j = 0; j < Rows; ++j) {
      const unsigned char* end = s[j] + ptrdiff_t(SrcWidth - 1) * C;
      for (int x = xLast; x < DestWidth; ++x)
        for (int k = 0; k < C; ++k) left_of(Row[j], x)[k] = left_of(Row[j], x)[to_right + k] = end[k];
    }
  }
  template <int Rows>
  void Fetch(const unsigned char* const* s, unsigned char* const* Row) const {
    if (Channel == 1)
      FetchC<1, Rows>(s, Row);
    else if (Channel == 3)
      FetchC<3, Rows>(s, Row);
    else
      FetchC<4, Rows>(s, Row);
    for (int j = 0; j < Rows; ++j) Weigh(Row[j]);
  }

  // One and four channels: the block part of a fetched row is turned in
  // place from pairs into the 16-bit left * (128 - wx) + right * wx of each
  // sample (a pair and its sum take the same two bytes), once for all the
  // destination rows that use it. The tail's columns stay pairs.
  void Weigh(unsigned char* Row) const {
    if (Channel == 3) return;
    const ptrdiff_t block_end = ptrdiff_t(Channel) * (DestWidth / 8 * 8);
    const __m128i w128 = _mm_set1_epi16(128);
    for (ptrdiff_t i = 0; i < block_end; i += 8) {
      const __m128i w = _mm_loadu_si128(reinterpret_cast<const __m128i*>(wx + i));
      __m128i l, r;
      Pairs(Row, i, l, r);
      _mm_store_si128(reinterpret_cast<__m128i*>(Row + 2 * i),
                      _mm_add_epi16(_mm_mullo_epi16(l, _mm_sub_epi16(w128, w)), _mm_mullo_epi16(r, w)));
    }
  }

  // The left and right samples of 8 samples from a fetched row.
  void Pairs(const unsigned char* Row, ptrdiff_t i, __m128i& l, __m128i& r) const {
    if (Channel == 1) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Row + 2 * i));
      l = _mm_and_si128(v, _mm_set1_epi16(255));
      r = _mm_srli_epi16(v, 8);
    } else if (Channel == 4) {
      // Two columns: left, right, left, right to the two lefts, the two rights.
      const __m128i v = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(Row + 2 * i)), 0xD8);
      l = _mm_cvtepu8_epi16(v);
      r = _mm_cvtepu8_epi16(_mm_srli_si128(v, 8));
    } else {
      l = _mm_cvtepu8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(Row + i)));
      r = _mm_cvtepu8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(Row + Gap + i)));
    }
  }
  int Left(const unsigned char* Row, ptrdiff_t i) const { return Channel == 3 ? Row[i] : Row[2 * i - i % Channel]; }
  int Right(const unsigned char* Row, ptrdiff_t i) const {
    return Channel == 3 ? Row[Gap + i] : Row[2 * i - i % Channel + Channel];
  }

  // Two terms rounded each by itself; the block saturates their sum, the
  // tail stores it in a byte as it is (256 comes out 0).
  void Blend(const unsigned char* Top, const unsigned char* Bottom, int wy, unsigned char* d) const {
    const ptrdiff_t n = ptrdiff_t(Channel) * DestWidth;
    const ptrdiff_t block_end = ptrdiff_t(Channel) * (DestWidth / 8 * 8);
    const __m128i wt = _mm_set1_epi16(static_cast<short>(256 - wy)), wb = _mm_set1_epi16(static_cast<short>(wy));
    const __m128i w128 = _mm_set1_epi16(128);
    ptrdiff_t i = 0;
    for (; i < block_end; i += 8) {
      __m128i top, bottom;
      if (Channel == 3) {
        const __m128i w = _mm_loadu_si128(reinterpret_cast<const __m128i*>(wx + i));
        const __m128i iw = _mm_sub_epi16(w128, w);
        __m128i tl, tr, bl, br;
        Pairs(Top, i, tl, tr);
        Pairs(Bottom, i, bl, br);
        top = _mm_add_epi16(_mm_mullo_epi16(tl, iw), _mm_mullo_epi16(tr, w));
        bottom = _mm_add_epi16(_mm_mullo_epi16(bl, iw), _mm_mullo_epi16(br, w));
      } else {  // weighed at fetch time
        top = _mm_load_si128(reinterpret_cast<const __m128i*>(Top + 2 * i));
        bottom = _mm_load_si128(reinterpret_cast<const __m128i*>(Bottom + 2 * i));
      }
      const __m128i sum = _mm_adds_epu16(_mm_mulhrs_epi16(top, wt), _mm_mulhrs_epi16(bottom, wb));
      _mm_storel_epi64(reinterpret_cast<__m128i*>(d + i), _mm_packus_epi16(sum, sum));
    }
    for (; i < n; ++i) {
      const int w = wx[i];
      const int top = Left(Top, i) * (128 - w) + Right(Top, i) * w;
      const int bottom = Left(Bottom, i) * (128 - w) + Right(Bottom, i) * w;
      d[i] = static_cast<unsigned char>(((top * (256 - wy) + 16384) >> 15) + ((bottom * wy + 16384) >> 15));
    }
  }
};

// Bilinear with SrcWidth exactly 2 * DestWidth: then sx is 65536 and px0
// 16384, so column x always blends source pixels 2x and 2x + 1 with wx 64,
// and every column lies between xFirst (0) and xLast (DestWidth). top is
// then 64 * (left + right), which the block forms from one pairwise byte sum
// straight from the source rows; the rest is Blend's arithmetic to the bit.
struct Halving {
  int Channel, DestWidth;
  __m128i pick[3][3];  // three channels: [output vector][source vector]

  explicit Halving(int C, int W) : Channel(C), DestWidth(W) {
    // Output sample j of an 8-pixel block pairs source bytes 6 * (j / 3) +
    // j % 3 and the one 3 bytes on, as bytes 2i and 2i + 1 of vector j / 8.
    for (int g = 0; g < 3; ++g) {
      alignas(16) signed char m[3][16];
      for (int b = 0; b < 16; ++b) {
        const int j = 8 * g + b / 2, at = 6 * (j / 3) + j % 3 + (b & 1) * 3;
        for (int v = 0; v < 3; ++v) m[v][b] = static_cast<signed char>(at / 16 == v ? at % 16 : -1);
      }
      for (int v = 0; v < 3; ++v) pick[g][v] = _mm_load_si128(reinterpret_cast<const __m128i*>(m[v]));
    }
  }

  // Left + right of the 8 samples from i on (i a multiple of 8 * Channel for
  // three channels, of 8 otherwise), in 16-bit lanes.
  template <int C>
  __m128i PairSums(const unsigned char* Row, ptrdiff_t i, int g, const __m128i* v) const {
    const __m128i ones = _mm_set1_epi8(1);
    if (C == 1) return _mm_maddubs_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(Row + 2 * i)), ones);
    if (C == 4) {
      const __m128i pair = _mm_setr_epi8(0, 4, 1, 5, 2, 6, 3, 7, 8, 12, 9, 13, 10, 14, 11, 15);
      const __m128i p = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Row + 2 * i));
      return _mm_maddubs_epi16(_mm_shuffle_epi8(p, pair), ones);
    }
    const __m128i p = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(v[0], pick[g][0]), _mm_shuffle_epi8(v[1], pick[g][1])),
                                   _mm_shuffle_epi8(v[2], pick[g][2]));
    return _mm_maddubs_epi16(p, ones);
  }

  template <int C>
  void BlendC(const unsigned char* Top, const unsigned char* Bottom, const uint16_t* wx, int wy,
              unsigned char* d) const {
    const ptrdiff_t n = ptrdiff_t(C) * DestWidth;
    const ptrdiff_t block_end = ptrdiff_t(C) * (DestWidth / 8 * 8);
    const __m128i wt = _mm_set1_epi16(static_cast<short>(256 - wy)), wb = _mm_set1_epi16(static_cast<short>(wy));
    auto eight = [&](__m128i top, __m128i bottom) {
      return _mm_adds_epu16(_mm_mulhrs_epi16(_mm_slli_epi16(top, 6), wt),
                            _mm_mulhrs_epi16(_mm_slli_epi16(bottom, 6), wb));
    };
    ptrdiff_t i = 0;
    if (C == 3) {
      for (; i < block_end; i += 24) {
        auto load3 = [&](const unsigned char* row, __m128i* v) {
          for (int k = 0; k < 3; ++k) v[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + 2 * i + 16 * k));
        };
        __m128i t[3], b[3];
        load3(Top, t);
        load3(Bottom, b);
        const __m128i s0 = eight(PairSums<3>(Top, i, 0, t), PairSums<3>(Bottom, i, 0, b));
        const __m128i s1 = eight(PairSums<3>(Top, i, 1, t), PairSums<3>(Bottom, i, 1, b));
        const __m128i s2 = eight(PairSums<3>(Top, i, 2, t), PairSums<3>(Bottom, i, 2, b));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), _mm_packus_epi16(s0, s1));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(d + i + 16), _mm_packus_epi16(s2, s2));
      }
    } else {
      for (; i + 16 <= block_end; i += 16) {
        const __m128i lo = eight(PairSums<C>(Top, i, 0, nullptr), PairSums<C>(Bottom, i, 0, nullptr));
        const __m128i hi = eight(PairSums<C>(Top, i + 8, 0, nullptr), PairSums<C>(Bottom, i + 8, 0, nullptr));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), _mm_packus_epi16(lo, hi));
      }
      for (; i < block_end; i += 8) {
        const __m128i s = eight(PairSums<C>(Top, i, 0, nullptr), PairSums<C>(Bottom, i, 0, nullptr));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(d + i), _mm_packus_epi16(s, s));
      }
    }
    // The tail as Blend's: 32-bit sums, their byte stored as it is.
    for (; i < n; ++i) {
      const ptrdiff_t l = 2 * (i - i % C) + i % C;  // sample k of pixel 2x
      const int w = wx[i];
      const int top = Top[l] * (128 - w) + Top[l + C] * w;
      const int bottom = Bottom[l] * (128 - w) + Bottom[l + C] * w;
      d[i] = static_cast<unsigned char>(((top * (256 - wy) + 16384) >> 15) + ((bottom * wy + 16384) >> 15));
    }
  }
  void Blend(const unsigned char* Top, const unsigned char* Bottom, const uint16_t* wx, int wy,
             unsigned char* d) const {
    if (Channel == 1)
      BlendC<1>(Top, Bottom, wx, wy, d);
    else if (Channel == 3)
      BlendC<3>(Top, Bottom, wx, wy, d);
    else
      BlendC<4>(Top, Bottom, wx, wy, d);
  }
};

int BilinearResample(const unsigned char* Src, unsigned char* Dest, int SrcWidth, int SrcHeight, int SrcStride,
                     int DestWidth, int DestHeight, int DestStride, int Channel) {
  // The weight table also holds the left pixel offsets and the gathers of
  // the column groups (none for four channels).
  const size_t n = size_t(Channel) * DestWidth, gap = (n + 16) / 16 * 16;
  const size_t weights = (n * sizeof(uint16_t) + 15) / 16 * 16;
  const size_t offsets = (size_t(DestWidth) * sizeof(int32_t) + 15) / 16 * 16;
  const int group = Channel == 1 ? 8 : 4, shuffles = Channel == 1 ? 1 : 2;
  const size_t groups = Channel == 4 ? 0 : size_t(DestWidth) / group;
  uint16_t* wx = static_cast<uint16_t*>(
      qv::AlignedMalloc(weights + offsets + groups * (shuffles * sizeof(__m128i) + sizeof(int32_t)), 16));
  unsigned char* rows[2] = {qv::AlignedArray<unsigned char>(2 * gap, 16), qv::AlignedArray<unsigned char>(2 * gap, 16)};
  if (wx == nullptr || rows[0] == nullptr || rows[1] == nullptr) {
    qv::AlignedFree(wx);
    qv::AlignedFree(rows[0]);
    qv::AlignedFree(rows[1]);
    return STATUS_OUT_OF_MEMORY;
  }
  int32_t* off = reinterpret_cast<int32_t*>(reinterpret_cast<unsigned char*>(wx) + weights);
  __m128i* gather = reinterpret_cast<__m128i*>(reinterpret_cast<unsigned char*>(off) + offsets);
  int32_t* base = reinterpret_cast<int32_t*>(gather + shuffles * groups);
  Bilinear b;
  b.SrcWidth = SrcWidth, b.Channel = Channel, b.DestWidth = DestWidth, b.wx = wx, b.off = off;
  b.Gap = ptrdiff_t(gap);
  const int64_t sx = (int64_t(SrcWidth) << 15) / DestWidth;
  const int64_t sy = (int64_t(SrcHeight) << 15) / DestHeight;
  const int64_t px0 = (sx >> 1) - 16384;
  const int64_t py0 = (sy >> 1) - 16384;
  b.xFirst = -1, b.xLast = DestWidth;
  int64_t px = px0;
  for (int x = 0; x < DestWidth; ++x, px += sx) {
    const uint16_t w = static_cast<uint16_t>((px >> 8) & 127);
    for (int k = 0; k < Channel; ++k) wx[x * Channel + k] = w;
    if (b.xFirst < 0 && px >= 0) b.xFirst = x;
    if (b.xLast == DestWidth && (px >> 15) >= SrcWidth - 1) b.xLast = x;
    // Between xFirst and xLast the left pixel is px >> 15, below SrcWidth - 1.
    off[x] = px >= 0 && (px >> 15) < SrcWidth - 1 ? static_cast<int32_t>(px >> 15) * Channel : 0;
  }
  if (b.xFirst < 0) b.xFirst = DestWidth;
  if (b.xLast < b.xFirst) b.xLast = b.xFirst;
  // A group gathers by a shuffle if it lies between xFirst and xLast and its
  // 16-byte load covers its pairs and stays inside the row.
  for (size_t g = 0; g < groups; ++g) {
    const int x0 = int(group * g), xl = x0 + group - 1;
    base[g] = -1;
    if (x0 < b.xFirst || xl >= b.xLast || off[xl] + 2 * Channel - off[x0] > 16 ||
        off[x0] + 16 > int64_t(Channel) * SrcWidth)
      continue;
    alignas(16) unsigned char m[2][16] = {};
    for (int i = 0; i < group; ++i)
      for (int k = 0; k < Channel; ++k) {
        const int at = off[x0 + i] - off[x0] + k;
        if (Channel == 1) {
          m[0][2 * i] = static_cast<unsigned char>(at);
          m[0][2 * i + 1] = static_cast<unsigned char>(at + 1);
        } else {
          m[0][3 * i + k] = static_cast<unsigned char>(at);
          m[1][3 * i + k] = static_cast<unsigned char>(at + 3);
        }
      }
    for (int j = 0; j < shuffles; ++j)
      gather[shuffles * g + j] = _mm_load_si128(reinterpret_cast<const __m128i*>(m[j]));
    base[g] = off[x0];
  }
  b.base = base, b.gather = gather;

  int64_t py = py0;
  if (SrcWidth == 2 * int64_t(DestWidth)) {
    // Nothing to fetch: the blocks read the two source rows directly.
    const Halving half(Channel, DestWidth);
    for (int y = 0; y < DestHeight; ++y, py += sy) {
      const int64_t iy = py >> 15;
      half.Blend(Src + ptrdiff_t(Clamp(iy, 0, SrcHeight - 1)) * SrcStride,
                 Src + ptrdiff_t(Clamp(iy + 1, 0, SrcHeight - 1)) * SrcStride, wx, static_cast<int>((py >> 7) & 255),
                 Dest + ptrdiff_t(y) * DestStride);
    }
  } else {
    int64_t fetched = -100;
    for (int y = 0; y < DestHeight; ++y, py += sy) {
      const int64_t iy = py >> 15;
      if (iy != fetched) {
        const unsigned char* s[2] = {Src + ptrdiff_t(Clamp(iy, 0, SrcHeight - 1)) * SrcStride,
                                     Src + ptrdiff_t(Clamp(iy + 1, 0, SrcHeight - 1)) * SrcStride};
        if (iy == fetched + 1) {
          unsigned char* t = rows[0];
          rows[0] = rows[1];
          rows[1] = t;
          b.Fetch<1>(s + 1, rows + 1);
        } else {
          b.Fetch<2>(s, rows);
        }
        fetched = iy;
      }
      b.Blend(rows[0], rows[1], static_cast<int>((py >> 7) & 255), Dest + ptrdiff_t(y) * DestStride);
    }
  }
  qv::AlignedFree(wx);
  qv::AlignedFree(rows[0]);
  qv::AlignedFree(rows[1]);
  return STATUS_OK;
}

// Bicubic. Positions in 64 bits again: the 32-bit forms are exact for sides
// below 32768 and would overflow above, where the result is left to the
// wide arithmetic instead. The sum is exact integer arithmetic and the taps
// of the rim are clamped to the image, so it is formed separably: the column
// taps of a source row once per row into 32-bit row sums (four rows kept),
// then the row taps of each destination row over those sums. The result is
// the same as the pixel-by-pixel sum of sixteen taps, interior and rim alike.
struct Bicubic {
  const int16_t* w;  // 513 entries of the kernel, 8 fractional bits
  int SrcWidth, Channel, DestWidth;
  const int16_t* cw;   // four column weights per destination column
  const int32_t* tap;  // four clamped source byte offsets per column
  int xl, xr;          // columns from xl to xr - 1 have their taps inside

  void Taps(int64_t p, int* wt) const {
    const int f = static_cast<int>((p >> 8) & 255);
    wt[0] = w[256 + f], wt[1] = w[f], wt[2] = w[256 - f], wt[3] = w[512 - f];
  }

  void ColumnSumsScalar(const unsigned char* s, int x, int32_t* out) const {
    const int16_t* wt = cw + 4 * x;
    const int32_t* t = tap + 4 * x;
    for (int c = 0; c < Channel; ++c)
      out[ptrdiff_t(x) * Channel + c] =
          wt[0] * s[t[0] + c] + wt[1] * s[t[1] + c] + wt[2] * s[t[2] + c] + wt[3] * s[t[3] + c];
  }

  // The four column taps of every destination column over one source row.
  void ColumnSums(const unsigned char* s, int32_t* out) const {
    for (int x = 0; x < xl; ++x) ColumnSumsScalar(s, x, out);
    int x = xl;
    if (Channel == 1) {
      for (; x + 4 <= xr; x += 4) {
        // Built in registers: four stores and a wide load would stall.
        const __m128i px =
            _mm_unpacklo_epi64(_mm_unpacklo_epi32(Load32(s + tap[4 * x]), Load32(s + tap[4 * x + 4])),
                               _mm_unpacklo_epi32(Load32(s + tap[4 * x + 8]), Load32(s + tap[4 * x + 12])));
        const __m128i w01 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(cw + 4 * x));
        const __m128i w23 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(cw + 4 * x + 8));
        const __m128i lo = _mm_madd_epi16(_mm_cvtepu8_epi16(px), w01);
        const __m128i hi = _mm_madd_epi16(_mm_cvtepu8_epi16(_mm_srli_si128(px, 8)), w23);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), _mm_hadd_epi32(lo, hi));
      }
    } else {
      // Planes: channel c of the four pixels in lanes 4c..4c+3. Three
      // channels store a fourth sum of 0 that the next column overwrites.
      const __m128i planes = Channel == 3 ? _mm_setr_epi8(0, 3, 6, 9, 1, 4, 7, 10, 2, 5, 8, 11, -1, -1, -1, -1)
                                          : _mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
      for (; x < xr; ++x) {
        const unsigned char* p = s + tap[4 * x];
        __m128i v;
        if (Channel == 3) {
          int last;
          std::memcpy(&last, p + 8, 4);
          v = _mm_insert_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)), last, 2);
        } else {
          v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        }
        v = _mm_shuffle_epi8(v, planes);
        long long four;
        std::memcpy(&four, cw + 4 * x, 8);
        const __m128i wv = _mm_set1_epi64x(four);
        const __m128i lo = _mm_madd_epi16(_mm_cvtepu8_epi16(v), wv);
        const __m128i hi = _mm_madd_epi16(_mm_cvtepu8_epi16(_mm_srli_si128(v, 8)), wv);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + ptrdiff_t(x) * Channel), _mm_hadd_epi32(lo, hi));
      }
    }
    for (; x < DestWidth; ++x) ColumnSumsScalar(s, x, out);
  }

  // Row taps over four rows of sums, shifted by 16 (no rounding), clamped.
  void Rows(const int32_t* const* r, const int* wy, unsigned char* d) const {
    const int n = Channel * DestWidth;
    const __m128i w0 = _mm_set1_epi32(wy[0]), w1 = _mm_set1_epi32(wy[1]);
    const __m128i w2 = _mm_set1_epi32(wy[2]), w3 = _mm_set1_epi32(wy[3]);
    auto four = [&](int i) {
      auto at = [&](int j) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(r[j] + i)); };
      const __m128i a = _mm_add_epi32(_mm_mullo_epi32(at(0), w0), _mm_mullo_epi32(at(1), w1));
      const __m128i b = _mm_add_epi32(_mm_mullo_epi32(at(2), w2), _mm_mullo_epi32(at(3), w3));
      return _mm_srai_epi32(_mm_add_epi32(a, b), 16);
    };
    int i = 0;
    for (; i + 16 <= n; i += 16) {
      const __m128i lo = _mm_packs_epi32(four(i), four(i + 4)), hi = _mm_packs_epi32(four(i + 8), four(i + 12));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), _mm_packus_epi16(lo, hi));
    }
    for (; i < n; ++i) {
      const int sum = r[0][i] * wy[0] + r[1][i] * wy[1] + r[2][i] * wy[2] + r[3][i] * wy[3];
      d[i] = static_cast<unsigned char>(sum < 0 ? 0 : (sum >> 16 > 255 ? 255 : sum >> 16));
    }
  }
};

int BicubicResample(const unsigned char* Src, unsigned char* Dest, int SrcWidth, int SrcHeight, int SrcStride,
                    int DestWidth, int DestHeight, int DestStride, int Channel) {
  // The column table also holds the clamped tap offsets and four rows of
  // sums (with one spare sum for the three-channel stores).
  const size_t weights = (size_t(DestWidth) * 4 * sizeof(int16_t) + 15) / 16 * 16;
  const size_t taps = size_t(DestWidth) * 4 * sizeof(int32_t);
  const size_t row = (size_t(Channel) * DestWidth + 4) * sizeof(int32_t);
  int16_t* kernel = qv::MallocArray<int16_t>(513);
  unsigned char* cols = qv::MallocArray<unsigned char>(weights + taps + 4 * row);
  if (kernel == nullptr || cols == nullptr) {
    qv::Free(kernel);
    qv::Free(cols);
    return STATUS_NULL_REFERENCE;  // not 2: this engine has always said 3 here
  }
  for (int i = 0; i <= 512; ++i) {
    const double t = i / 256.0;
    const double v = t <= 1 ? t * t * t - 2 * t * t + 1 : -t * t * t + 5 * t * t - 8 * t + 4;
    kernel[i] = static_cast<int16_t>(static_cast<int>(256 * v + 0.5));
  }
  int16_t* cw = reinterpret_cast<int16_t*>(cols);
  int32_t* tap = reinterpret_cast<int32_t*>(cols + weights);
  int32_t* sums[4];
  for (int j = 0; j < 4; ++j) sums[j] = reinterpret_cast<int32_t*>(cols + weights + taps + j * row);
  Bicubic b{kernel, SrcWidth, Channel, DestWidth, cw, tap, DestWidth, DestWidth};
  const int64_t sx = (int64_t(SrcWidth) << 16) / DestWidth, sy = (int64_t(SrcHeight) << 16) / DestHeight;
  const int64_t px0 = (sx >> 1) - 32768, py0 = (sy >> 1) - 32768;
  for (int x = 0; x < DestWidth; ++x) {
    const int64_t px = px0 + x * sx, ix = (px >> 16) - 1;
    int t[4];
    b.Taps(px, t);
    for (int k = 0; k < 4; ++k) {
      cw[4 * x + k] = static_cast<int16_t>(t[k]);
      tap[4 * x + k] = Clamp(ix + k, 0, SrcWidth - 1) * Channel;
    }
    // Positions grow with x: the inside columns are one run.
    if (ix >= 0 && ix + 3 <= SrcWidth - 1) {
      if (b.xl == DestWidth) b.xl = x;
      b.xr = x + 1;
    }
  }
  if (b.xr < b.xl) b.xr = b.xl;
  int held[4] = {-1, -1, -1, -1};  // the source row in each slot of sums
  for (int y = 0; y < DestHeight; ++y) {
    const int64_t py = py0 + y * sy, iy = (py >> 16) - 1;
    int wy[4];
    b.Taps(py, wy);
    const int32_t* r[4];
    for (int j = 0; j < 4; ++j) {
      const int sr = Clamp(iy + j, 0, SrcHeight - 1), slot = sr & 3;
      if (held[slot] != sr) {
        b.ColumnSums(Src + ptrdiff_t(sr) * SrcStride, sums[slot]);
        held[slot] = sr;
      }
      r[j] = sums[slot];
    }
    b.Rows(r, wy, Dest + ptrdiff_t(y) * DestStride);
  }
  qv::Free(kernel);
  qv::Free(cols);
  return STATUS_OK;
}

}  // namespace

extern "C" QV_API int QV_Resample(const unsigned char* Src, unsigned char* Dest, int SrcWidth, int SrcHeight,
                                  int SrcStride, int DestWidth, int DestHeight, int DestStride, int Mode) {
  const int Channel = qv::DeriveChannel(SrcStride, SrcWidth);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (SrcWidth < 1 || SrcHeight < 1 || DestWidth < 1 || DestHeight < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;
  if (SrcWidth == DestWidth && SrcHeight == DestHeight) {
    for (int y = 0; y < SrcHeight; ++y)
      std::memcpy(Dest + ptrdiff_t(y) * DestStride, Src + ptrdiff_t(y) * SrcStride, size_t(Channel) * SrcWidth);
    return STATUS_OK;
  }
  switch (Mode) {
    case 0:
      return Nearest(Src, Dest, SrcWidth, SrcHeight, SrcStride, DestWidth, DestHeight, DestStride, Channel);
    case 1:
      return BilinearResample(Src, Dest, SrcWidth, SrcHeight, SrcStride, DestWidth, DestHeight, DestStride, Channel);
    case 2:
      return BicubicResample(Src, Dest, SrcWidth, SrcHeight, SrcStride, DestWidth, DestHeight, DestStride, Channel);
    default:
      return STATUS_OK;  // an unknown mode does nothing, and says so with 0
  }
}
