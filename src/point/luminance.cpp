// Luminance extraction and put-back in 14- and 13-bit fixed point, the
// desaturation (rounded average in blocks, truncated in the row tail) and the
// mask blend (7-bit weights in blocks, a /255 approximation in the tail).
#include "point/luminance.h"

#include <smmintrin.h>

#include <cstring>

#include "frame/border.h"
#include "frame/frame.h"
#include "point/shuffle3.h"

namespace {

inline int LumaOf(int b, int g, int r) { return (1867 * b + 9617 * g + 4900 * r + 8192) >> 14; }

// Eight luminances from eight pixels given as 16-bit planes; the rounding term
// rides in the multiply-add of the (r, 1) pairs.
inline __m128i Luma8(__m128i b, __m128i g, __m128i r) {
  const __m128i kBG = _mm_setr_epi16(1867, 9617, 1867, 9617, 1867, 9617, 1867, 9617);
  const __m128i kR1 = _mm_setr_epi16(4900, 8192, 4900, 8192, 4900, 8192, 4900, 8192);
  const __m128i one = _mm_set1_epi16(1);
  const __m128i lo =
      _mm_add_epi32(_mm_madd_epi16(_mm_unpacklo_epi16(b, g), kBG), _mm_madd_epi16(_mm_unpacklo_epi16(r, one), kR1));
  const __m128i hi =
      _mm_add_epi32(_mm_madd_epi16(_mm_unpackhi_epi16(b, g), kBG), _mm_madd_epi16(_mm_unpackhi_epi16(r, one), kR1));
  return _mm_packs_epi32(_mm_srli_epi32(lo, 14), _mm_srli_epi32(hi, 14));
}

// Four luminances from four BGRA pixels: the fourth sample is replaced by 1
// so that its pair with 8192 gives the rounding term.
inline __m128i Luma4FromBGRA(__m128i v) {
  const __m128i k = _mm_setr_epi16(1867, 9617, 4900, 8192, 1867, 9617, 4900, 8192);
  const __m128i zero = _mm_setzero_si128(), one = _mm_set1_epi16(1);
  const __m128i lo = _mm_madd_epi16(_mm_blend_epi16(_mm_unpacklo_epi8(v, zero), one, 0x88), k);
  const __m128i hi = _mm_madd_epi16(_mm_blend_epi16(_mm_unpackhi_epi8(v, zero), one, 0x88), k);
  return _mm_srli_epi32(_mm_hadd_epi32(lo, hi), 14);
}

}  // namespace

extern "C" QV_API int QV_GetLuminance(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                      unsigned char RowPadded) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;

  // ((Width * 8 + 31) / 32) * 4, the row size of an 8-bit bitmap, written
  // without the product that would overflow for huge widths.
  const size_t step = RowPadded ? (size_t(Width) + 3) / 4 * 4 : size_t(Width);
  const __m128i zero = _mm_setzero_si128();
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    unsigned char* d = Dest + size_t(y) * step;
    int x = 0;
    if (Channel == 1) {
      std::memcpy(d, s, size_t(Width));
      continue;
    }
    if (Channel == 3) {
      for (; x + 16 <= Width; x += 16) {
        const qv::Planes3 p = qv::Load3Planes(s + 3 * x);
        const __m128i lo =
            Luma8(_mm_unpacklo_epi8(p.p0, zero), _mm_unpacklo_epi8(p.p1, zero), _mm_unpacklo_epi8(p.p2, zero));
        const __m128i hi =
            Luma8(_mm_unpackhi_epi8(p.p0, zero), _mm_unpackhi_epi8(p.p1, zero), _mm_unpackhi_epi8(p.p2, zero));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + x), _mm_packus_epi16(lo, hi));
      }
    } else {
      for (; x + 8 <= Width; x += 8) {
        const __m128i a = Luma4FromBGRA(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 4 * x)));
        const __m128i b = Luma4FromBGRA(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 4 * x + 16)));
        const __m128i y16 = _mm_packs_epi32(a, b);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(d + x), _mm_packus_epi16(y16, y16));
      }
    }
    for (; x < Width; ++x) {
      const unsigned char* p = s + x * Channel;
      d[x] = static_cast<unsigned char>(LumaOf(p[0], p[1], p[2]));
    }
  }
  return STATUS_OK;
}

extern "C" QV_API int QV_Desaturate(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel34(Channel)) return STATUS_INVALID_PARAMETER;

  const int block_end = Width & ~15;
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    unsigned char* d = Dest + size_t(y) * Stride;
    int x = 0;
    if (Channel == 3) {
      for (; x < block_end; x += 16) {
        const qv::Planes3 p = qv::Load3Planes(s + 3 * x);
        const __m128i m = _mm_max_epu8(_mm_max_epu8(p.p0, p.p1), p.p2);
        const __m128i n = _mm_min_epu8(_mm_min_epu8(p.p0, p.p1), p.p2);
        const __m128i v = _mm_avg_epu8(m, n);  // (m + n + 1) >> 1
        qv::Store3Planes(d + 3 * x, v, v, v);
      }
    } else {
      // Byte 0 of each 32-bit lane gathers the max and min of the pixel; the
      // result is spread over the first three places, the fourth is kept.
      const __m128i spread = _mm_setr_epi8(0, 0, 0, -1, 4, 4, 4, -1, 8, 8, 8, -1, 12, 12, 12, -1);
      const __m128i fourth = _mm_set1_epi32(int(0xFF000000u));
      for (; x < block_end; x += 16) {
        for (int k = 0; k < 4; ++k) {
          const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 4 * x + 16 * k));
          const __m128i v8 = _mm_srli_epi32(v, 8), v16 = _mm_srli_epi32(v, 16);
          const __m128i m = _mm_max_epu8(_mm_max_epu8(v, v8), v16);
          const __m128i n = _mm_min_epu8(_mm_min_epu8(v, v8), v16);
          const __m128i a = _mm_shuffle_epi8(_mm_avg_epu8(m, n), spread);
          _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 4 * x + 16 * k), _mm_or_si128(a, _mm_and_si128(v, fourth)));
        }
      }
    }
    // The row tail truncates where the blocks round: one darker on odd sums.
    for (; x < Width; ++x) {
      const unsigned char* p = s + x * Channel;
      unsigned char* q = d + x * Channel;
      const int b = p[0], g = p[1], r = p[2];
      const int m = b > g ? (b > r ? b : r) : (g > r ? g : r);
      const int n = b < g ? (b < r ? b : r) : (g < r ? g : r);
      const unsigned char v = static_cast<unsigned char>((m + n) >> 1);
      if (Channel == 4) q[3] = p[3];
      q[0] = q[1] = q[2] = v;
    }
  }
  return STATUS_OK;
}

namespace qv {

namespace {

// Pairs of 16-bit weights (lo, hi) for the multiply-adds.
inline __m128i Pair(short lo, short hi) { return _mm_setr_epi16(lo, hi, lo, hi, lo, hi, lo, hi); }

// Puts y under four pixels' colour. b, g, r, y come as 32-bit lanes; the
// outputs are 32-bit, unclamped, exactly the scalar formulas.
inline void PutBack4(__m128i b, __m128i g, __m128i r, __m128i y, __m128i& ob, __m128i& og, __m128i& orr) {
  const __m128i one_hi = _mm_set1_epi32(0x10000);
  const __m128i low16 = _mm_set1_epi32(0xFFFF);
  const __m128i bg = _mm_or_si128(b, _mm_slli_epi32(g, 16));
  const __m128i rg = _mm_or_si128(r, _mm_slli_epi32(g, 16));
  const __m128i u = _mm_srai_epi32(
      _mm_add_epi32(_mm_madd_epi16(bg, Pair(3571, -2366)), _mm_madd_epi16(_mm_or_si128(r, one_hi), Pair(-1205, 4096))),
      13);
  const __m128i v = _mm_srai_epi32(
      _mm_add_epi32(_mm_madd_epi16(rg, Pair(5037, -4218)), _mm_madd_epi16(_mm_or_si128(b, one_hi), Pair(-819, 4096))),
      13);
  // u and v fit in 16 bits: pair them with 1 or with each other.
  const __m128i u16 = _mm_and_si128(u, low16), v16 = _mm_and_si128(v, low16);
  ob = _mm_add_epi32(_mm_srai_epi32(_mm_madd_epi16(_mm_or_si128(u16, one_hi), Pair(16647, 4096)), 13), y);
  og = _mm_add_epi32(
      _mm_srai_epi32(_mm_add_epi32(_mm_madd_epi16(_mm_or_si128(u16, _mm_slli_epi32(v, 16)), Pair(-3232, -4756)),
                                   _mm_set1_epi32(4096)),
                     13),
      y);
  orr = _mm_add_epi32(_mm_srai_epi32(_mm_madd_epi16(_mm_or_si128(v16, one_hi), Pair(9337, 4096)), 13), y);
}

}  // namespace

int ApplyLuminancePlane(const unsigned char* Src, const unsigned char* Luminance, unsigned char* Dest, int Width,
                        int Height, int Stride, int LuminanceStride) {
  const int Channel = DeriveChannel(Stride, Width);
  if (Src == nullptr || Luminance == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (Channel == 1) {
    for (int y = 0; y < Height; ++y)
      std::memcpy(Dest + size_t(y) * Stride, Luminance + size_t(y) * LuminanceStride, size_t(Width));
    return STATUS_OK;
  }
  if (!IsChannel34(Channel)) return STATUS_INVALID_PARAMETER;

  // Channel 4 has no loop of its own: its rows are walked as 3-byte pixels.
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    const unsigned char* l = Luminance + size_t(y) * LuminanceStride;
    unsigned char* d = Dest + size_t(y) * Stride;
    int x = 0;
    for (; x + 16 <= Width; x += 16) {
      const Planes3 p = Load3Planes(s + 3 * x);
      const __m128i yl = _mm_loadu_si128(reinterpret_cast<const __m128i*>(l + x));
      __m128i out[3][4];
      __m128i b8 = p.p0, g8 = p.p1, r8 = p.p2, y8 = yl;
      for (int k = 0; k < 4; ++k) {  // four pixels at a time in 32-bit lanes
        PutBack4(_mm_cvtepu8_epi32(b8), _mm_cvtepu8_epi32(g8), _mm_cvtepu8_epi32(r8), _mm_cvtepu8_epi32(y8), out[0][k],
                 out[1][k], out[2][k]);
        b8 = _mm_srli_si128(b8, 4), g8 = _mm_srli_si128(g8, 4), r8 = _mm_srli_si128(r8, 4), y8 = _mm_srli_si128(y8, 4);
      }
      __m128i planes[3];
      for (int c = 0; c < 3; ++c)
        planes[c] = _mm_packus_epi16(_mm_packs_epi32(out[c][0], out[c][1]), _mm_packs_epi32(out[c][2], out[c][3]));
      Store3Planes(d + 3 * x, planes[0], planes[1], planes[2]);
    }
    for (; x < Width; ++x) {
      const int b = s[3 * x], g = s[3 * x + 1], r = s[3 * x + 2], yv = l[x];
      const int u = (3571 * b - 2366 * g - 1205 * r + 4096) >> 13;
      const int v = (5037 * r - 4218 * g - 819 * b + 4096) >> 13;
      d[3 * x] = static_cast<unsigned char>(ClampToByte(((16647 * u + 4096) >> 13) + yv));
      d[3 * x + 1] = static_cast<unsigned char>(ClampToByte(((-3232 * u - 4756 * v + 4096) >> 13) + yv));
      d[3 * x + 2] = static_cast<unsigned char>(ClampToByte(((9337 * v + 4096) >> 13) + yv));
    }
  }
  return STATUS_OK;
}

int BlendByMask(const unsigned char* Src, unsigned char* Dest, const unsigned char* Mask, int Width, int Height,
                int Stride) {
  const int Channel = DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;  // Mask is not tested
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;
  if (Channel != 3) return STATUS_OK;  // accepted, but only the 3-channel path exists

  // Each mask byte spread over the three samples of its pixel.
  static constexpr ShuffleMask kSpread0 = SpreadMask3(0), kSpread1 = SpreadMask3(1), kSpread2 = SpreadMask3(2);
  const __m128i k127 = _mm_set1_epi8(127), one = _mm_set1_epi8(1), zero = _mm_setzero_si128();
  const int block_end = Width & ~15;
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    const unsigned char* m = Mask + size_t(y) * Width;
    unsigned char* d = Dest + size_t(y) * Stride;
    int x = 0;
    for (; x < block_end; x += 16) {
      // 7-bit weight: w = ((m - 1 saturated) + 1) >> 1, which the byte average gives.
      const __m128i w =
          _mm_avg_epu8(_mm_subs_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(m + x)), one), zero);
      const __m128i ws[3] = {_mm_shuffle_epi8(w, LoadMask(kSpread0)), _mm_shuffle_epi8(w, LoadMask(kSpread1)),
                             _mm_shuffle_epi8(w, LoadMask(kSpread2))};
      for (int k = 0; k < 3; ++k) {
        const __m128i sv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 3 * x + 16 * k));
        const __m128i dv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(d + 3 * x + 16 * k));
        const __m128i wt = _mm_sub_epi8(k127, ws[k]);
        // (127 - w) * s + w * d in one unsigned-by-signed multiply-add.
        const __m128i lo = _mm_maddubs_epi16(_mm_unpacklo_epi8(sv, dv), _mm_unpacklo_epi8(wt, ws[k]));
        const __m128i hi = _mm_maddubs_epi16(_mm_unpackhi_epi8(sv, dv), _mm_unpackhi_epi8(wt, ws[k]));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 3 * x + 16 * k),
                         _mm_packus_epi16(_mm_srli_epi16(lo, 7), _mm_srli_epi16(hi, 7)));
      }
    }
    for (; x < Width; ++x) {
      const int mv = m[x];
      for (int c = 0; c < 3; ++c) {
        const int sv = s[3 * x + c], dv = d[3 * x + c];
        const int t = (dv - sv) * mv;
        d[3 * x + c] = static_cast<unsigned char>(sv + ((t + 1 + (t >> 8)) >> 8));
      }
    }
  }
  return STATUS_OK;
}

}  // namespace qv
