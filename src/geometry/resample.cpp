// Resampling to a new size by three separate engines: nearest neighbour
// (a column table and row repeats), bilinear (15 fractional bits, cached row
// pairs) and bicubic (16 fractional bits, clamped taps on the rim only).
#include <smmintrin.h>
#include <tmmintrin.h>

#include <cmath>
#include <cstdint>
#include <cstring>

#include "frame/frame.h"

namespace {

using std::int64_t;
using std::ptrdiff_t;

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
struct Bilinear {
  int SrcWidth, Channel, DestWidth;
  int64_t sx, px0;
  int xFirst, xLast;
  const uint16_t* wx;

  // Left pixels into the first half of Row, right pixels into the second.
  template <int C>
  void FetchC(const unsigned char* s, unsigned char* Row) const {
    unsigned char* left = Row;
    unsigned char* right = Row + ptrdiff_t(C) * DestWidth;
    for (int x = 0; x < xFirst; ++x)
      for (int k = 0; k < C; ++k) left[x * C + k] = right[x * C + k] = s[k];
    int64_t px = px0 + xFirst * sx;
    for (int x = xFirst; x < xLast; ++x, px += sx) {
      const unsigned char* p = s + static_cast<ptrdiff_t>(px >> 15) * C;
      for (int k = 0; k < C; ++k) {
        left[x * C + k] = p[k];
        right[x * C + k] = p[C + k];
      }
    }
    const unsigned char* end = s + ptrdiff_t(SrcWidth - 1) * C;
    for (int x = xLast; x < DestWidth; ++x)
      for (int k = 0; k < C; ++k) left[x * C + k] = right[x * C + k] = end[k];
  }
  void Fetch(const unsigned char* s, unsigned char* Row) const {
    if (Channel == 1)
      FetchC<1>(s, Row);
    else if (Channel == 3)
      FetchC<3>(s, Row);
    else
      FetchC<4>(s, Row);
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
      const __m128i w = _mm_loadu_si128(reinterpret_cast<const __m128i*>(wx + i));
      const __m128i iw = _mm_sub_epi16(w128, w);
      const __m128i tl = _mm_cvtepu8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(Top + i)));
      const __m128i tr = _mm_cvtepu8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(Top + n + i)));
      const __m128i bl = _mm_cvtepu8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(Bottom + i)));
      const __m128i br = _mm_cvtepu8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(Bottom + n + i)));
      const __m128i top = _mm_add_epi16(_mm_mullo_epi16(tl, iw), _mm_mullo_epi16(tr, w));
      const __m128i bottom = _mm_add_epi16(_mm_mullo_epi16(bl, iw), _mm_mullo_epi16(br, w));
      const __m128i sum = _mm_adds_epu16(_mm_mulhrs_epi16(top, wt), _mm_mulhrs_epi16(bottom, wb));
      _mm_storel_epi64(reinterpret_cast<__m128i*>(d + i), _mm_packus_epi16(sum, sum));
    }
    for (; i < n; ++i) {
      const int w = wx[i];
      const int top = Top[i] * (128 - w) + Top[n + i] * w;
      const int bottom = Bottom[i] * (128 - w) + Bottom[n + i] * w;
      d[i] = static_cast<unsigned char>(((top * (256 - wy) + 16384) >> 15) + ((bottom * wy + 16384) >> 15));
    }
  }
};

int BilinearResample(const unsigned char* Src, unsigned char* Dest, int SrcWidth, int SrcHeight, int SrcStride,
                     int DestWidth, int DestHeight, int DestStride, int Channel) {
  const size_t bytes = size_t(2) * Channel * DestWidth;
  uint16_t* wx = static_cast<uint16_t*>(qv::AlignedMalloc(bytes, 16));
  unsigned char* rows[2] = {qv::AlignedArray<unsigned char>(bytes, 16), qv::AlignedArray<unsigned char>(bytes, 16)};
  if (wx == nullptr || rows[0] == nullptr || rows[1] == nullptr) {
    qv::AlignedFree(wx);
    qv::AlignedFree(rows[0]);
    qv::AlignedFree(rows[1]);
    return STATUS_OUT_OF_MEMORY;
  }
  Bilinear b;
  b.SrcWidth = SrcWidth, b.Channel = Channel, b.DestWidth = DestWidth, b.wx = wx;
  b.sx = (int64_t(SrcWidth) << 15) / DestWidth;
  const int64_t sy = (int64_t(SrcHeight) << 15) / DestHeight;
  b.px0 = (b.sx >> 1) - 16384;
  const int64_t py0 = (sy >> 1) - 16384;
  b.xFirst = -1, b.xLast = DestWidth;
  int64_t px = b.px0;
  for (int x = 0; x < DestWidth; ++x, px += b.sx) {
    const uint16_t w = static_cast<uint16_t>((px >> 8) & 127);
    for (int k = 0; k < Channel; ++k) wx[x * Channel + k] = w;
    if (b.xFirst < 0 && px >= 0) b.xFirst = x;
    if (b.xLast == DestWidth && (px >> 15) >= SrcWidth - 1) b.xLast = x;
  }
  if (b.xFirst < 0) b.xFirst = DestWidth;

  int64_t fetched = -100;
  int64_t py = py0;
  for (int y = 0; y < DestHeight; ++y, py += sy) {
    const int64_t iy = py >> 15;
    if (iy != fetched) {
      if (iy == fetched + 1) {
        unsigned char* t = rows[0];
        rows[0] = rows[1];
        rows[1] = t;
      } else {
        b.Fetch(Src + ptrdiff_t(Clamp(iy, 0, SrcHeight - 1)) * SrcStride, rows[0]);
      }
      b.Fetch(Src + ptrdiff_t(Clamp(iy + 1, 0, SrcHeight - 1)) * SrcStride, rows[1]);
      fetched = iy;
    }
    b.Blend(rows[0], rows[1], static_cast<int>((py >> 7) & 255), Dest + ptrdiff_t(y) * DestStride);
  }
  qv::AlignedFree(wx);
  qv::AlignedFree(rows[0]);
  qv::AlignedFree(rows[1]);
  return STATUS_OK;
}

// Bicubic. Positions in 64 bits again: the 32-bit forms are exact for sides
// below 32768 and would overflow above, where the result is left to the
// wide arithmetic instead.
struct Bicubic {
  const int16_t* w;  // 513 entries of the kernel, 8 fractional bits
  int SrcWidth, SrcHeight, SrcStride, Channel;

  void Taps(int64_t p, int* wt) const {
    const int f = static_cast<int>((p >> 8) & 255);
    wt[0] = w[256 + f], wt[1] = w[f], wt[2] = w[256 - f], wt[3] = w[512 - f];
  }
  static unsigned char Finish(int sum) {
    return static_cast<unsigned char>(sum < 0 ? 0 : (sum >> 16 > 255 ? 255 : sum >> 16));
  }

  // One pixel with every tap clamped to the image.
  void Rim(const unsigned char* Src, int64_t px, int64_t py, unsigned char* d) const {
    int wxs[4], wys[4];
    Taps(px, wxs);
    Taps(py, wys);
    const int64_t ix = (px >> 16) - 1, iy = (py >> 16) - 1;
    for (int c = 0; c < Channel; ++c) {
      int sum = 0;
      for (int j = 0; j < 4; ++j) {
        const unsigned char* row = Src + ptrdiff_t(Clamp(iy + j, 0, SrcHeight - 1)) * SrcStride;
        int rs = 0;
        for (int k = 0; k < 4; ++k) rs += wxs[k] * row[ptrdiff_t(Clamp(ix + k, 0, SrcWidth - 1)) * Channel + c];
        sum += rs * wys[j];
      }
      d[c] = Finish(sum);
    }
  }

  // All sixteen taps inside: rows reduced by multiply-add with the column
  // weights, then weighted by the row weights in 32-bit lanes.
  void Interior(const unsigned char* s, const int16_t* wxs, const int* wys, unsigned char* d) const {
    long long four;
    std::memcpy(&four, wxs, 8);
    const __m128i cw = _mm_set1_epi64x(four);
    if (Channel == 1) {
      int r[4];
      for (int j = 0; j < 4; ++j) std::memcpy(&r[j], s + ptrdiff_t(j) * SrcStride, 4);
      const __m128i v = _mm_setr_epi32(r[0], r[1], r[2], r[3]);
      const __m128i lo = _mm_madd_epi16(_mm_cvtepu8_epi16(v), cw);
      const __m128i hi = _mm_madd_epi16(_mm_cvtepu8_epi16(_mm_srli_si128(v, 8)), cw);
      const __m128i rows = _mm_hadd_epi32(lo, hi);  // the four row sums
      const __m128i t = _mm_mullo_epi32(rows, _mm_setr_epi32(wys[0], wys[1], wys[2], wys[3]));
      const __m128i s2 = _mm_add_epi32(t, _mm_shuffle_epi32(t, 0x4E));
      d[0] = Finish(_mm_cvtsi128_si32(_mm_add_epi32(s2, _mm_shuffle_epi32(s2, 0xB1))));
      return;
    }
    // Planes: channel c of the four pixels in lanes 4c..4c+3.
    const __m128i planes = Channel == 3 ? _mm_setr_epi8(0, 3, 6, 9, 1, 4, 7, 10, 2, 5, 8, 11, -1, -1, -1, -1)
                                        : _mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
    __m128i acc = _mm_setzero_si128();
    for (int j = 0; j < 4; ++j) {
      const unsigned char* row = s + ptrdiff_t(j) * SrcStride;
      __m128i v;
      if (Channel == 3) {
        int last;
        std::memcpy(&last, row + 8, 4);
        v = _mm_insert_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(row)), last, 2);
      } else {
        v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row));
      }
      v = _mm_shuffle_epi8(v, planes);
      const __m128i lo = _mm_madd_epi16(_mm_cvtepu8_epi16(v), cw);
      const __m128i hi = _mm_madd_epi16(_mm_cvtepu8_epi16(_mm_srli_si128(v, 8)), cw);
      const __m128i sums = _mm_hadd_epi32(lo, hi);  // one row sum per channel
      acc = _mm_add_epi32(acc, _mm_mullo_epi32(sums, _mm_set1_epi32(wys[j])));
    }
    alignas(16) int out[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(out), acc);
    for (int c = 0; c < Channel; ++c) d[c] = Finish(out[c]);
  }
};

int BicubicResample(const unsigned char* Src, unsigned char* Dest, int SrcWidth, int SrcHeight, int SrcStride,
                    int DestWidth, int DestHeight, int DestStride, int Channel) {
  int16_t* kernel = qv::MallocArray<int16_t>(513);
  int16_t* cols = qv::MallocArray<int16_t>(size_t(DestWidth) * 4);
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
  Bicubic b{kernel, SrcWidth, SrcHeight, SrcStride, Channel};
  const int64_t sx = (int64_t(SrcWidth) << 16) / DestWidth, sy = (int64_t(SrcHeight) << 16) / DestHeight;
  const int64_t px0 = (sx >> 1) - 32768, py0 = (sy >> 1) - 32768;
  // The interior, where all four taps exist on both axes (C division).
  auto lower = [](int64_t s, int limit) {
    const int64_t v = (0x18000 - (s >> 1)) / s + 1;
    return static_cast<int>(v < limit ? v : limit);
  };
  auto upper = [](int64_t s, int side, int from, int limit) {
    const int64_t v = (int64_t(side - 3) * 65536 + 32768 - (s >> 1)) / s + 1;
    return static_cast<int>(v < from ? from : (v > limit ? limit : v));
  };
  const int xA = lower(sx, DestWidth), xB = upper(sx, SrcWidth, xA, DestWidth);
  const int yA = lower(sy, DestHeight), yB = upper(sy, SrcHeight, yA, DestHeight);
  for (int x = xA; x < xB; ++x) {
    int t[4];
    b.Taps(px0 + x * sx, t);
    for (int k = 0; k < 4; ++k) cols[4 * x + k] = static_cast<int16_t>(t[k]);
  }
  for (int y = 0; y < DestHeight; ++y) {
    const int64_t py = py0 + y * sy;
    unsigned char* d = Dest + ptrdiff_t(y) * DestStride;
    if (y < yA || y >= yB) {
      for (int x = 0; x < DestWidth; ++x) b.Rim(Src, px0 + x * sx, py, d + ptrdiff_t(x) * Channel);
      continue;
    }
    int wys[4];
    b.Taps(py, wys);
    const unsigned char* top = Src + ptrdiff_t((py >> 16) - 1) * SrcStride;
    for (int x = 0; x < xA; ++x) b.Rim(Src, px0 + x * sx, py, d + ptrdiff_t(x) * Channel);
    for (int x = xA; x < xB; ++x)
      b.Interior(top + ptrdiff_t(((px0 + x * sx) >> 16) - 1) * Channel, cols + 4 * x, wys, d + ptrdiff_t(x) * Channel);
    for (int x = xB; x < DestWidth; ++x) b.Rim(Src, px0 + x * sx, py, d + ptrdiff_t(x) * Channel);
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
