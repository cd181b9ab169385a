// Whole-image measures: channel means and deviations (integer sums, a double
// per channel for the squares) and integral images in wrapping 32-bit or
// float lanes.
#include <smmintrin.h>

#include <cmath>
#include <cstdint>

#include "frame/frame.h"
#include "point/convert.h"
#include "point/luminance.h"
#include "point/shuffle3.h"

namespace qv {

namespace {

// The common frame: division first, then pointers, sizes, and status 5 for a
// channel count other than 1, 3, 4.
inline int StatsFrame(int Channel, bool AnyNull, int Width, int Height) {
  if (AnyNull) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;
  return STATUS_OK;
}

inline uint64_t Sad(__m128i v) {
  const __m128i s = _mm_sad_epu8(v, _mm_setzero_si128());
  return uint64_t(_mm_cvtsi128_si64(s)) + uint64_t(_mm_extract_epi64(s, 1));
}

// Sums of each channel of one row (lane sums for Channel 1 go to Sum[0]).
void RowChannelSums(const unsigned char* s, int Width, int Channel, uint64_t Sum[4]) {
  int x = 0;
  if (Channel == 1) {
    for (; x + 16 <= Width; x += 16) Sum[0] += Sad(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + x)));
    for (; x < Width; ++x) Sum[0] += s[x];
  } else if (Channel == 3) {
    for (; x + 16 <= Width; x += 16) {
      const Planes3 p = Load3Planes(s + 3 * x);
      Sum[0] += Sad(p.p0), Sum[1] += Sad(p.p1), Sum[2] += Sad(p.p2);
    }
    for (; x < Width; ++x) Sum[0] += s[3 * x], Sum[1] += s[3 * x + 1], Sum[2] += s[3 * x + 2];
  } else {
    // Lanes grouped as b0..b3 g0..g3 r0..r3 a0..a3; the masked sums of
    // absolute differences give (b, r) and, shifted, (g, a).
    const __m128i group = _mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
    const __m128i low32 = _mm_set_epi32(0, -1, 0, -1), zero = _mm_setzero_si128();
    for (; x + 4 <= Width; x += 4) {
      const __m128i v = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 4 * x)), group);
      const __m128i br = _mm_sad_epu8(_mm_and_si128(v, low32), zero);
      const __m128i ga = _mm_sad_epu8(_mm_and_si128(_mm_srli_epi64(v, 32), low32), zero);
      Sum[0] += uint64_t(_mm_cvtsi128_si64(br)), Sum[2] += uint64_t(_mm_extract_epi64(br, 1));
      Sum[1] += uint64_t(_mm_cvtsi128_si64(ga)), Sum[3] += uint64_t(_mm_extract_epi64(ga, 1));
    }
    for (; x < Width; ++x)
      for (int c = 0; c < 4; ++c) Sum[c] += s[4 * x + c];
  }
}

// S / (Width * Height) + 0.5, truncated, with S the channel sum taken as a
// wrapping signed 32-bit integer.
inline int MeanOf(uint64_t Sum, int Width, int Height) {
  const int32_t s = static_cast<int32_t>(static_cast<uint32_t>(Sum));
  return static_cast<int>(double(s) / (double(Width) * double(Height)) + 0.5);
}

// Sum of squares of (a - b) over one row for each channel, in wrapping
// 32-bit lanes. With Src2 null, b is the channel's mean.
void RowSquareSums(const unsigned char* s1, const unsigned char* s2, const int Mean[4], int Width, int Channel,
                   uint32_t Sum[4]) {
  const int n = Width * Channel;
  int i = 0;
  if (Channel == 4) {
    const __m128i mean = _mm_setr_epi32(Mean[0], Mean[1], Mean[2], Mean[3]);
    __m128i acc = _mm_setzero_si128();
    for (; i + 4 <= n; i += 4) {
      const __m128i a = _mm_cvtepu8_epi32(Load32(s1 + i));
      const __m128i b = s2 ? _mm_cvtepu8_epi32(Load32(s2 + i)) : mean;
      const __m128i d = _mm_sub_epi32(a, b);
      acc = _mm_add_epi32(acc, _mm_mullo_epi32(d, d));
    }
    alignas(16) uint32_t lanes[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(lanes), acc);
    for (int c = 0; c < 4; ++c) Sum[c] += lanes[c];
  } else if (Channel == 1) {
    const __m128i mean = _mm_set1_epi16(static_cast<short>(Mean[0])), zero = _mm_setzero_si128();
    __m128i acc = _mm_setzero_si128();
    for (; i + 16 <= n; i += 16) {
      const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s1 + i));
      __m128i blo = mean, bhi = mean;
      if (s2) {
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s2 + i));
        blo = _mm_unpacklo_epi8(b, zero), bhi = _mm_unpackhi_epi8(b, zero);
      }
      const __m128i dlo = _mm_sub_epi16(_mm_unpacklo_epi8(a, zero), blo);
      const __m128i dhi = _mm_sub_epi16(_mm_unpackhi_epi8(a, zero), bhi);
      acc = _mm_add_epi32(acc, _mm_add_epi32(_mm_madd_epi16(dlo, dlo), _mm_madd_epi16(dhi, dhi)));
    }
    alignas(16) uint32_t lanes[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(lanes), acc);
    Sum[0] += lanes[0] + lanes[1] + lanes[2] + lanes[3];
  }
  // Channel 3, and the rest of the other rows, sample by sample.
  for (; i < n; ++i) {
    const int c = i % Channel;
    const int d = int(s1[i]) - (s2 ? int(s2[i]) : Mean[c]);
    Sum[c] += uint32_t(d * d);
  }
}

int Deviation(const unsigned char* Src1, const unsigned char* Src2, const int Mean[4], int Width, int Height,
              int Stride, int Channel, int* DevB, int* DevG, int* DevR, int* DevA) {
  double total[4] = {0, 0, 0, 0};
  for (int y = 0; y < Height; ++y) {
    uint32_t row[4] = {0, 0, 0, 0};
    const size_t o = size_t(y) * Stride;
    RowSquareSums(Src1 + o, Src2 ? Src2 + o : nullptr, Mean, Width, Channel, row);
    for (int c = 0; c < 4; ++c) total[c] += double(static_cast<int32_t>(row[c]));
  }
  const double n = double(Width) * double(Height);
  int dev[4];
  for (int c = 0; c < 4; ++c) dev[c] = static_cast<int>(std::sqrt(total[c] / n));
  if (Channel == 1) dev[1] = dev[2] = dev[3] = dev[0];
  if (Channel == 3) dev[3] = 0;
  *DevB = dev[0], *DevG = dev[1], *DevR = dev[2], *DevA = dev[3];
  return STATUS_OK;
}

}  // namespace

int ImageChannelMeans(const unsigned char* Src, int Width, int Height, int Stride, int* MeanB, int* MeanG, int* MeanR,
                      int* MeanA) {
  const int Channel = DeriveChannel(Stride, Width);
  if (int s = StatsFrame(Channel, Src == nullptr, Width, Height)) return s;
  // Sums over the real samples only; a whole-run sum less the padding gives
  // the same value modulo 2^32, which is all the mean keeps.
  uint64_t sum[4] = {0, 0, 0, 0};
  for (int y = 0; y < Height; ++y) RowChannelSums(Src + size_t(y) * Stride, Width, Channel, sum);
  if (Channel == 1) sum[1] = sum[2] = sum[3] = sum[0];
  *MeanB = MeanOf(sum[0], Width, Height);
  *MeanG = MeanOf(sum[1], Width, Height);
  *MeanR = MeanOf(sum[2], Width, Height);
  *MeanA = Channel == 3 ? 0 : MeanOf(sum[3], Width, Height);
  return STATUS_OK;
}

int ImageChannelDeviation(const unsigned char* Src, int Width, int Height, int Stride, int* DevB, int* DevG, int* DevR,
                          int* DevA) {
  const int Channel = DeriveChannel(Stride, Width);
  if (int s = StatsFrame(Channel, Src == nullptr, Width, Height)) return s;
  int mean[4];
  if (int s = ImageChannelMeans(Src, Width, Height, Stride, &mean[0], &mean[1], &mean[2], &mean[3])) return s;
  return Deviation(Src, nullptr, mean, Width, Height, Stride, Channel, DevB, DevG, DevR, DevA);
}

int ImagePairDeviation(const unsigned char* Src1, const unsigned char* Src2, int Width, int Height, int Stride,
                       int* DevB, int* DevG, int* DevR, int* DevA) {
  const int Channel = DeriveChannel(Stride, Width);
  if (int s = StatsFrame(Channel, Src1 == nullptr || Src2 == nullptr, Width, Height)) return s;
  const int zero[4] = {0, 0, 0, 0};
  return Deviation(Src1, Src2, zero, Width, Height, Stride, Channel, DevB, DevG, DevR, DevA);
}

int IntegralImage(const unsigned char* Src, unsigned int* Integral, int Width, int Height, int Stride) {
  const int Channel = DeriveChannel(Stride, Width);
  if (int s = StatsFrame(Channel, Src == nullptr || Integral == nullptr, Width, Height)) return s;
  const size_t pitch = (size_t(Width) + 1) * Channel;  // lanes per integral row
  for (size_t i = 0; i < pitch; ++i) Integral[i] = 0;
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    const unsigned int* above = Integral + size_t(y) * pitch;
    unsigned int* row = Integral + size_t(y + 1) * pitch;
    for (int c = 0; c < Channel; ++c) row[c] = 0;
    row += Channel;
    above += Channel;
    int x = 0;
    if (Channel == 1) {
      // Running sums of four lanes by two shifted adds, the last one carried.
      __m128i carry = _mm_setzero_si128();
      for (; x + 8 <= Width; x += 8) {
        for (int h = 0; h < 8; h += 4) {
          __m128i v = _mm_cvtepu8_epi32(Load32(s + x + h));
          v = _mm_add_epi32(v, _mm_slli_si128(v, 4));
          v = _mm_add_epi32(v, _mm_slli_si128(v, 8));
          v = _mm_add_epi32(v, carry);
          carry = _mm_shuffle_epi32(v, 0xFF);
          const __m128i up = _mm_loadu_si128(reinterpret_cast<const __m128i*>(above + x + h));
          _mm_storeu_si128(reinterpret_cast<__m128i*>(row + x + h), _mm_add_epi32(up, v));
        }
      }
      uint32_t run = uint32_t(_mm_cvtsi128_si32(carry));
      for (; x < Width; ++x) {
        run += s[x];
        row[x] = above[x] + run;
      }
    } else if (Channel == 4) {
      __m128i run = _mm_setzero_si128();
      for (; x < Width; ++x) {
        run = _mm_add_epi32(run, _mm_cvtepu8_epi32(Load32(s + 4 * x)));
        const __m128i up = _mm_loadu_si128(reinterpret_cast<const __m128i*>(above + 4 * x));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(row + 4 * x), _mm_add_epi32(up, run));
      }
    } else {
      uint32_t run[3] = {0, 0, 0};
      for (; x < Width; ++x)
        for (int c = 0; c < 3; ++c) {
          run[c] += s[3 * x + c];
          row[3 * x + c] = above[3 * x + c] + run[c];
        }
    }
  }
  return STATUS_OK;
}

int IntegralSquaredDifference(const unsigned char* Src1, const unsigned char* Src2, float* Integral, int Width,
                              int Height, int Stride) {
  const int Channel = DeriveChannel(Stride, Width);
  if (int s = StatsFrame(Channel, Src1 == nullptr || Src2 == nullptr || Integral == nullptr, Width, Height)) return s;
  const size_t pitch = (size_t(Width) + 1) * Channel;
  for (size_t i = 0; i < pitch; ++i) Integral[i] = 0.0f;
  // The block part keeps exact integer running sums; the tail (the last
  // Width mod 8 pixels) forms them again from the float entries, truncated.
  const int block_end = Width & ~7;
  for (int y = 0; y < Height; ++y) {
    const unsigned char* a = Src1 + size_t(y) * Stride;
    const unsigned char* b = Src2 + size_t(y) * Stride;
    const float* above = Integral + size_t(y) * pitch;
    float* row = Integral + size_t(y + 1) * pitch;
    for (int c = 0; c < Channel; ++c) row[c] = 0.0f;
    int x = 0;
    if (Channel == 1) {
      __m128i carry = _mm_setzero_si128();
      const __m128i zero = _mm_setzero_si128();
      for (; x < block_end; x += 8) {
        const __m128i va = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(a + x)), zero);
        const __m128i vb = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(b + x)), zero);
        const __m128i d = _mm_sub_epi16(va, vb);
        __m128i q[2] = {_mm_cvtepi16_epi32(d), _mm_cvtepi16_epi32(_mm_srli_si128(d, 8))};
        for (int h = 0; h < 2; ++h) {
          __m128i v = _mm_mullo_epi32(q[h], q[h]);
          v = _mm_add_epi32(v, _mm_slli_si128(v, 4));
          v = _mm_add_epi32(v, _mm_slli_si128(v, 8));
          v = _mm_add_epi32(v, carry);
          carry = _mm_shuffle_epi32(v, 0xFF);
          const __m128 up = _mm_loadu_ps(above + 1 + x + 4 * h);
          _mm_storeu_ps(row + 1 + x + 4 * h, _mm_add_ps(up, _mm_cvtepi32_ps(v)));
        }
      }
    } else {
      uint32_t run[4] = {0, 0, 0, 0};
      for (; x < block_end; ++x)
        for (int c = 0; c < Channel; ++c) {
          const int d = int(a[x * Channel + c]) - int(b[x * Channel + c]);
          run[c] += uint32_t(d * d);
          const size_t e = size_t(x + 1) * Channel + c;
          row[e] = above[e] + float(static_cast<int32_t>(run[c]));
        }
    }
    if (x < Width) {
      int run[4];
      for (int c = 0; c < Channel; ++c) {
        const size_t e = size_t(x) * Channel + c;
        run[c] = TruncateToInt(row[e] - above[e]);  // defined even past 2^31
      }
      for (; x < Width; ++x)
        for (int c = 0; c < Channel; ++c) {
          const int d = int(a[x * Channel + c]) - int(b[x * Channel + c]);
          run[c] = static_cast<int>(static_cast<uint32_t>(run[c]) + uint32_t(d * d));
          const size_t e = size_t(x + 1) * Channel + c;
          row[e] = above[e] + float(run[c]);
        }
    }
  }
  return STATUS_OK;
}

}  // namespace qv
