// Gray-world white balance: the three colour channels are scaled so that
// their means meet a common gray. Stands on the channel means of luminance.h.
#include "point/whitebalance.h"

#include <smmintrin.h>

#include <cstdint>
#include <cstring>

#include "frame/border.h"
#include "frame/frame.h"
#include "point/luminance.h"
#include "point/pixel_planes.h"
#include "point/shuffle3.h"

namespace qv {

int GrayPixelMeans(const unsigned char* Src, int Width, int Height, int Stride, int Percent, int* Mean0, int* Mean1,
                   int* Mean2, int* Mean3) {
  const int Channel = DeriveChannel(Stride, Width);
  if (Src == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!IsChannel34(Channel)) return STATUS_NOT_SUPPORTED;

  // Signed 32-bit sums as in the plain channel means: they wrap past
  // 2147483647, which the low 32 bits of these 64-bit sums reproduce.
  uint64_t sum0 = 0, sum1 = 0, sum2 = 0, count = 0;
  // For Percent 0 or less no pixel counts; above 100 every pixel but black
  // does, as with 101. Clamped so, the test fits 16-bit lanes exactly:
  // (mx - mn) * 100 and mx * Percent are both at most 25755.
  const int percent = Percent < 0 ? 0 : Percent > 101 ? 101 : Percent;
  const __m128i zero = _mm_setzero_si128(), one = _mm_set1_epi8(1);
  const __m128i hundred = _mm_set1_epi16(100), pct = _mm_set1_epi16(static_cast<short>(percent));
  __m128i acc0 = zero, acc1 = zero, acc2 = zero, accn = zero;
  const int block_end = Width & ~15;
  for (int y = 0; y < Height; ++y) {
    const unsigned char* row = Src + size_t(y) * Stride;
    for (int x = 0; x < block_end; x += 16) {
      __m128i p0, p1, p2, p3;
      if (Channel == 3) {
        const Planes3 q = Load3Planes(row + 3 * x);
        p0 = q.p0, p1 = q.p1, p2 = q.p2;
      } else {
        SplitPixels4(row + 4 * x, p0, p1, p2, p3);
      }
      const __m128i mx = _mm_max_epu8(_mm_max_epu8(p0, p1), p2);
      const __m128i mn = _mm_min_epu8(_mm_min_epu8(p0, p1), p2);
      const __m128i range = _mm_subs_epu8(mx, mn);
      auto counts = [&](__m128i r, __m128i m) {
        return _mm_cmpgt_epi16(_mm_mullo_epi16(m, pct), _mm_mullo_epi16(r, hundred));
      };
      const __m128i take = _mm_packs_epi16(counts(_mm_unpacklo_epi8(range, zero), _mm_unpacklo_epi8(mx, zero)),
                                           counts(_mm_unpackhi_epi8(range, zero), _mm_unpackhi_epi8(mx, zero)));
      acc0 = _mm_add_epi64(acc0, _mm_sad_epu8(_mm_and_si128(p0, take), zero));
      acc1 = _mm_add_epi64(acc1, _mm_sad_epu8(_mm_and_si128(p1, take), zero));
      acc2 = _mm_add_epi64(acc2, _mm_sad_epu8(_mm_and_si128(p2, take), zero));
      accn = _mm_add_epi64(accn, _mm_sad_epu8(_mm_and_si128(one, take), zero));
    }
    const unsigned char* s = row + block_end * Channel;
    for (int x = block_end; x < Width; ++x, s += Channel) {
      const int a = s[0], b = s[1], c = s[2];
      const int mx = a > b ? (a > c ? a : c) : (b > c ? b : c);
      const int mn = a < b ? (a < c ? a : c) : (b < c ? b : c);
      if ((mx - mn) * 100 < mx * percent) {
        sum0 += a;
        sum1 += b;
        sum2 += c;
        ++count;
      }
    }
  }
  auto total = [](__m128i v) {
    return static_cast<uint64_t>(_mm_cvtsi128_si64(v)) + static_cast<uint64_t>(_mm_extract_epi64(v, 1));
  };
  sum0 += total(acc0);
  sum1 += total(acc1);
  sum2 += total(acc2);
  count += total(accn);
  if (count == 0) {
    *Mean0 = *Mean1 = *Mean2 = *Mean3 = 0;
    return STATUS_OK;
  }
  auto mean = [count](uint64_t sum) {
    return static_cast<int>(static_cast<int32_t>(static_cast<uint32_t>(sum)) / double(count) + 0.5);
  };
  *Mean0 = mean(sum0);
  *Mean1 = mean(sum1);
  *Mean2 = mean(sum2);
  *Mean3 = 255;
  return STATUS_OK;
}

}  // namespace qv

namespace {

// Four pixels: s * Gray as an unsigned 16-bit product, in float divided by
// the channel's mean, rounded to nearest (ties to even), saturated.
inline __m128i ScaleLanes(__m128i v, __m128i Gray16, const __m128* Means) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i plo = _mm_mullo_epi16(_mm_unpacklo_epi8(v, zero), Gray16);
  const __m128i phi = _mm_mullo_epi16(_mm_unpackhi_epi8(v, zero), Gray16);
  auto div = [](__m128i p, __m128 m) { return _mm_cvtps_epi32(_mm_div_ps(_mm_cvtepi32_ps(p), m)); };
  const __m128i q0 = div(_mm_unpacklo_epi16(plo, zero), Means[0]);
  const __m128i q1 = div(_mm_unpackhi_epi16(plo, zero), Means[1]);
  const __m128i q2 = div(_mm_unpacklo_epi16(phi, zero), Means[2]);
  const __m128i q3 = div(_mm_unpackhi_epi16(phi, zero), Means[3]);
  return _mm_packus_epi16(_mm_packs_epi32(q0, q1), _mm_packs_epi32(q2, q3));
}

}  // namespace

extern "C" QV_API int QV_AWB_GrayWorld(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                       int Percent) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel34(Channel)) return STATUS_NOT_SUPPORTED;

  if (Percent == 0) {
    if (Src != Dest) std::memcpy(Dest, Src, qv::RunBytes(Height, Stride));
    return STATUS_OK;
  }
  int mean[4];
  const int status =
      Percent == 100 ? qv::ImageChannelMeans(Src, Width, Height, Stride, &mean[0], &mean[1], &mean[2], &mean[3])
                     : qv::GrayPixelMeans(Src, Width, Height, Stride, Percent, &mean[0], &mean[1], &mean[2], &mean[3]);
  if (status != STATUS_OK) return status;
  // Green counts twice. Means wrapped negative by a huge bright image give a
  // defined but meaningless result: the formulas below run as they stand.
  const int gray = (mean[0] + 2 * mean[1] + mean[2]) / 4;
  if (gray == 0) return STATUS_OK;
  for (int c = 0; c < 3; ++c)
    if (mean[c] == 0) mean[c] = gray;
  mean[3] = gray;  // the fourth sample passes with factor gray / gray

  // Divisor of each float lane: lane i of a 4-pixel block holds sample i mod
  // Channel (12 bytes of three-channel pixels, 16 of four-channel ones).
  __m128 means[4];
  for (int v = 0; v < 4; ++v) {
    float m[4];
    for (int l = 0; l < 4; ++l) m[l] = static_cast<float>(mean[(v * 4 + l) % Channel]);
    means[v] = _mm_setr_ps(m[0], m[1], m[2], m[3]);
  }
  const __m128i gray16 = _mm_set1_epi16(static_cast<short>(gray));
  const int block_end = Width & ~3;
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    unsigned char* d = Dest + size_t(y) * Stride;
    int x = 0;
    if (Channel == 4) {
      for (; x < block_end; x += 4) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 4 * x));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 4 * x), ScaleLanes(v, gray16, means));
      }
    } else {
      // Exactly 12 bytes are read and written: a 16-byte access could pass the
      // end of the last row.
      for (; x < block_end; x += 4) {
        int32_t last;
        std::memcpy(&last, s + 3 * x + 8, 4);
        __m128i v = _mm_insert_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(s + 3 * x)), last, 2);
        v = ScaleLanes(v, gray16, means);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(d + 3 * x), v);
        last = _mm_extract_epi32(v, 2);
        std::memcpy(d + 3 * x + 8, &last, 4);
      }
    }
    // The tail divides integers, truncating: it can be one level below the body.
    for (; x < Width; ++x)
      for (int c = 0; c < Channel; ++c) {
        const int v = s[x * Channel + c];
        d[x * Channel + c] = static_cast<unsigned char>(qv::ClampToByte(v * gray / mean[c]));
      }
  }
  return STATUS_OK;
}
