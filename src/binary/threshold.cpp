// Global thresholds of a gray image: six read the 256-bin histogram (Otsu,
// maximum entropy, iterative means, histogram minimum, Huang's fuzziness,
// triangle), one weights the image by its gradient strength.
#include <emmintrin.h>
#include <smmintrin.h>

#include <cmath>
#include <cstdint>
#include <cstring>

#include "frame/frame.h"

namespace {

// The guarded-division frame: pointer, sizes, then the channel, which must
// be 1. A Width of 0 is refused before the division and never faults.
int CheckFrame(const unsigned char* Src, int Width, int Height, int Stride) {
  if (Src == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (qv::GuardedChannel(Stride, Width) != 1) return STATUS_INVALID_PARAMETER;
  return STATUS_OK;
}

// Counts Width samples of every row. Four sub-histograms keep runs of equal
// bytes from stalling on one counter.
void Histogram(const unsigned char* Src, int Width, int Height, int Stride, int* Hist) {
  int sub[4][256];
  std::memset(sub, 0, sizeof(sub));
  for (int y = 0; y < Height; ++y) {
    const unsigned char* row = Src + static_cast<ptrdiff_t>(y) * Stride;
    int x = 0;
    for (; x + 4 <= Width; x += 4) {
      ++sub[0][row[x]];
      ++sub[1][row[x + 1]];
      ++sub[2][row[x + 2]];
      ++sub[3][row[x + 3]];
    }
    for (; x < Width; ++x) ++sub[0][row[x]];
  }
  for (int i = 0; i < 256; ++i) Hist[i] = sub[0][i] + sub[1][i] + sub[2][i] + sub[3][i];
}

// Lowest and highest non-empty bin; the image has at least one sample.
void Bounds(const int* Hist, int* First, int* Last) {
  int f = 0, l = 255;
  while (Hist[f] == 0) ++f;
  while (Hist[l] == 0) --l;
  *First = f;
  *Last = l;
}

// The frame, then the histogram and its lowest and highest non-empty bins.
int HistogramAndBounds(const unsigned char* Src, int Width, int Height, int Stride, int* Hist, int* First, int* Last) {
  const int status = CheckFrame(Src, Width, Height, Stride);
  if (status != STATUS_OK) return status;
  Histogram(Src, Width, Height, Stride, Hist);
  Bounds(Hist, First, Last);
  return STATUS_OK;
}

// The library's integer sums are 32-bit and wrap on huge bright images; the
// wrap goes through unsigned arithmetic so that it stays defined.
inline int32_t WrapAdd(int32_t a, int64_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

}  // namespace

extern "C" QV_API int QV_GetOSTUThreshold(const unsigned char* Src, int Width, int Height, int Stride,
                                          int* ThresholdOut) {
  int h[256], first, last;
  const int status = HistogramAndBounds(Src, Width, Height, Stride, h, &first, &last);
  if (status != STATUS_OK) return status;
  if (first == last) {
    *ThresholdOut = first;
    return STATUS_OK;
  }
  int32_t total = 0, integral = 0;
  for (int i = first; i <= last; ++i) {
    total = WrapAdd(total, h[i]);
    integral = WrapAdd(integral, static_cast<int64_t>(i) * h[i]);
  }
  int32_t back = 0, back_integral = 0;
  double best = -1.0;
  int result = first;
  for (int t = first; t <= last; ++t) {
    back = WrapAdd(back, h[t]);
    back_integral = WrapAdd(back_integral, static_cast<int64_t>(t) * h[t]);
    const int32_t fore = WrapAdd(total, -static_cast<int64_t>(back));
    const int32_t fore_integral = WrapAdd(integral, -static_cast<int64_t>(back_integral));
    // At t = Last Fore is 0: 0 / 0 is not a number and the test below fails.
    const double d = static_cast<double>(back_integral) / back - static_cast<double>(fore_integral) / fore;
    const double v = (static_cast<double>(fore) / total) * (static_cast<double>(back) / total) * d * d;
    if (v > best) {
      best = v;
      result = t;
    }
  }
  *ThresholdOut = result;
  return STATUS_OK;
}

extern "C" QV_API int QV_GetMaxEntropyThreshold(const unsigned char* Src, int Width, int Height, int Stride,
                                                int* ThresholdOut) {
  int h[256], first, last;
  const int status = HistogramAndBounds(Src, Width, Height, Stride, h, &first, &last);
  if (status != STATUS_OK) return status;
  if (first == last) {
    *ThresholdOut = first;
    return STATUS_OK;
  }
  int32_t n = 0;
  for (int i = 0; i < 256; ++i) n = WrapAdd(n, h[i]);
  // The tiny term keeps every logarithm finite, empty bins included.
  float p[256];
  for (int i = 0; i < 256; ++i) p[i] = static_cast<float>(h[i]) / static_cast<float>(n) + 2.220446e-16f;
  float best = -3.4028231e38f;
  // With Last = First + 1 there is no round and ThresholdOut is left alone.
  for (int y = first + 1; y <= last - 1; ++y) {
    float s = 0.0f;
    for (int i = first; i <= y; ++i) s += p[i];
    float e_back = 0.0f;
    for (int i = first; i <= y; ++i) {
      const float r = p[i] / s;
      e_back = static_cast<float>(e_back - r * std::log(static_cast<double>(r)));
    }
    const float rest = 1.0f - s;
    float e_fore = 0.0f;
    for (int i = y + 1; i <= last; ++i) {
      const float r = p[i] / rest;
      e_fore = static_cast<float>(e_fore - r * std::log(static_cast<double>(r)));
    }
    if (e_back + e_fore > best) {
      best = e_back + e_fore;
      *ThresholdOut = y;
    }
  }
  return STATUS_OK;
}

extern "C" QV_API int QV_GetIterativeBestThreshold(const unsigned char* Src, int Width, int Height, int Stride,
                                                   int* ThresholdOut) {
  int h[256], first, last;
  const int status = HistogramAndBounds(Src, Width, Height, Stride, h, &first, &last);
  if (status != STATUS_OK) return status;
  if (first == last) {
    *ThresholdOut = first;
    return STATUS_OK;
  }
  int t = (first + last) >> 1;
  int result = first;
  if (t != first) {
    for (int round = 0; round < 100; ++round) {
      result = t;
      int32_t sum_back = 0, count_back = 0, sum_fore = 0, count_fore = 0;
      for (int i = first; i <= t; ++i) {
        sum_back = WrapAdd(sum_back, static_cast<int64_t>(i) * h[i]);
        count_back = WrapAdd(count_back, h[i]);
      }
      for (int i = t + 1; i <= last; ++i) {
        sum_fore = WrapAdd(sum_fore, static_cast<int64_t>(i) * h[i]);
        count_fore = WrapAdd(count_fore, h[i]);
      }
      const int mean_back = sum_back / count_back;
      const int mean_fore = sum_fore / count_fore;
      t = (mean_back + mean_fore) >> 1;
      // Unwrapped means keep T in First..Last - 1, so both classes stay
      // non-empty; a sum wrapped on a huge bright image could push it out,
      // and the clamp keeps the next round's bins and divisors valid.
      if (t < first) t = first;
      if (t > last - 1) t = last - 1;
      if (t == result) break;
    }
  }
  *ThresholdOut = result;
  return STATUS_OK;
}

extern "C" QV_API int QV_GetMinimumThreshold(const unsigned char* Src, int Width, int Height, int Stride,
                                             int* ThresholdOut) {
  int status = CheckFrame(Src, Width, Height, Stride);
  if (status != STATUS_OK) return status;
  int h[256];
  Histogram(Src, Width, Height, Stride, h);
  // The answer whenever no two peaks turn up.
  *ThresholdOut = 127;
  float a[256], b[256];
  for (int i = 0; i < 256; ++i) a[i] = b[i] = static_cast<float>(h[i]);
  const float c = 0.33333334f;
  for (int round = 0; round < 501; ++round) {
    int peaks = 0;
    for (int i = 1; i < 255 && peaks < 3; ++i)
      if (b[i] > b[i - 1] && b[i] > b[i + 1]) ++peaks;
    if (peaks == 2) {
      bool seen_peak = false;
      for (int i = 1; i < 255; ++i) {
        if (b[i] > b[i - 1] && b[i] > b[i + 1]) seen_peak = true;
        if (seen_peak && b[i - 1] >= b[i] && b[i + 1] >= b[i]) {
          *ThresholdOut = i - 1;  // one below the valley, as defined
          return STATUS_OK;
        }
      }
      return STATUS_OK;
    }
    b[0] = (2 * a[0] + a[1]) * c;
    for (int i = 1; i < 255; ++i) b[i] = (a[i - 1] + a[i] + a[i + 1]) * c;
    b[255] = (a[254] + 2 * a[255]) * c;
    std::memcpy(a, b, sizeof(a));
  }
  return STATUS_OK;
}

extern "C" QV_API int QV_GetHuangFuzzyThreshold(const unsigned char* Src, int Width, int Height, int Stride,
                                                int* ThresholdOut) {
  int h[256], first, last;
  const int status = HistogramAndBounds(Src, Width, Height, Stride, h, &first, &last);
  if (status != STATUS_OK) return status;
  if (first == last || first + 1 == last) {
    *ThresholdOut = first;
    return STATUS_OK;
  }
  const int d = last - first;
  int32_t* s = qv::CallocArray<int32_t>(last + 1);
  int32_t* w = qv::CallocArray<int32_t>(last + 1);
  float* smu = qv::CallocArray<float>(d + 1);
  if (s == nullptr || w == nullptr || smu == nullptr) {
    qv::FreeAll(s, w, smu);
    return STATUS_OUT_OF_MEMORY;
  }
  s[0] = h[0];
  for (int i = first > 1 ? first : 1; i <= last; ++i) {
    s[i] = WrapAdd(s[i - 1], h[i]);
    w[i] = WrapAdd(w[i - 1], static_cast<int64_t>(i) * h[i]);
  }
  for (int i = 1; i <= d; ++i) {
    const double mu = 1.0 / (1.0 + static_cast<double>(i) / d);
    smu[i] = static_cast<float>(-mu * std::log(mu) - (1.0 - mu) * std::log(1.0 - mu));
  }
  // The class mean as a bin: the floor of a float quotient. Unwrapped sums
  // give a mean inside First..Last; float rounding on huge counts or a
  // wrapped sum could leave it, and the clamp keeps |i - m| within the table.
  auto class_mean = [first, last](int32_t sum, int32_t count) {
    const float m = std::floor(static_cast<float>(sum) / static_cast<float>(count));
    if (!(m >= static_cast<float>(first))) return first;
    if (m > static_cast<float>(last)) return last;
    return static_cast<int>(m);
  };
  float best = 3.402823e38f;
  int result = first;
  for (int y = first; y <= last; ++y) {
    float e = 0.0f;
    int m = class_mean(w[y], s[y]);
    for (int i = first; i <= y; ++i) e += smu[i > m ? i - m : m - i] * h[i];
    // At Y = Last the upper class is empty: its mean (0 / 0) is not needed.
    if (y < last) {
      m = class_mean(WrapAdd(w[last], -static_cast<int64_t>(w[y])), WrapAdd(s[last], -static_cast<int64_t>(s[y])));
      for (int i = y + 1; i <= last; ++i) e += smu[i > m ? i - m : m - i] * h[i];
    }
    if (e < best) {
      best = e;
      result = y;
    }
  }
  qv::FreeAll(s, w, smu);
  *ThresholdOut = result;
  return STATUS_OK;
}

extern "C" QV_API int QV_GetTriangleThreshold(const unsigned char* Src, int Width, int Height, int Stride,
                                              int* ThresholdOut) {
  int h[256], left, right;
  const int status = HistogramAndBounds(Src, Width, Height, Stride, h, &left, &right);
  if (status != STATUS_OK) return status;
  if (left == right || left + 1 == right) {
    *ThresholdOut = left;
    return STATUS_OK;
  }
  float* sm = qv::CallocArray<float>(256);
  if (sm == nullptr) return STATUS_OUT_OF_MEMORY;
  const double third = 0.3333333333333333, quarter = 0.25, fifth = 0.2;
  sm[0] = static_cast<float>((h[0] + h[1] + h[2]) * third);
  sm[1] = static_cast<float>((h[0] + h[1] + h[2] + h[3]) * quarter);
  for (int i = 2; i <= 253; ++i) sm[i] = static_cast<float>((h[i - 2] + h[i - 1] + h[i] + h[i + 1] + h[i + 2]) * fifth);
  sm[254] = static_cast<float>((h[252] + h[253] + h[254] + h[255]) * quarter);
  sm[255] = static_cast<float>((h[253] + h[254] + h[255]) * third);
  int peak = left;
  for (int i = left + 1; i <= right; ++i)
    if (sm[i] > sm[peak]) peak = i;
  int result = peak;
  if (peak - left > 1) {
    // The library's own line formula (a and b in these roles) settles the result.
    const float a = sm[peak];
    const int b = peak - left;
    const int c = (left - peak) * left;
    const double dist = std::sqrt(static_cast<double>(a * a + static_cast<float>(b * b))) + 1e-7;
    double best = -1.0;
    for (int i = left; i <= peak; ++i) {
      const double d =
          std::fabs(static_cast<double>(sm[i] * a + static_cast<float>(i * b) + static_cast<float>(c))) / dist;
      if (d > best) {
        best = d;
        result = i;
      }
    }
  }
  qv::Free(sm);
  *ThresholdOut = result;
  return STATUS_OK;
}

namespace {

// Centre row with its first and last sample repeated at both ends.
void PadRow(const unsigned char* Row, int Width, unsigned char* Out) {
  Out[0] = Row[0];
  std::memcpy(Out + 1, Row, Width);
  Out[Width + 1] = Row[Width - 1];
}

inline __m128i AbsDiffU8(__m128i a, __m128i b) { return _mm_or_si128(_mm_subs_epu8(a, b), _mm_subs_epu8(b, a)); }

}  // namespace

extern "C" QV_API int QV_GetSimpleStatisticsThreshold(const unsigned char* Src, int Width, int Height, int Stride,
                                                      int* ThresholdOut) {
  int status = CheckFrame(Src, Width, Height, Stride);
  if (status != STATUS_OK) return status;
  const size_t padded = static_cast<size_t>(Width) + 2;
  unsigned char* rows[3] = {qv::MallocArray<unsigned char>(padded), qv::MallocArray<unsigned char>(padded),
                            qv::MallocArray<unsigned char>(padded)};
  if (rows[0] == nullptr || rows[1] == nullptr || rows[2] == nullptr) {
    for (auto* r : rows) qv::Free(r);
    return STATUS_OUT_OF_MEMORY;
  }
  unsigned char* above = rows[0];
  unsigned char* centre = rows[1];
  unsigned char* below = rows[2];
  PadRow(Src, Width, above);
  PadRow(Src, Width, centre);
  // The second row is taken as the first row's lower neighbour. A one-row
  // image has none, and reading one Stride further would leave the buffer:
  // the row itself stands in (as it does for the last row of any image).
  PadRow(Height > 1 ? Src + Stride : Src, Width, below);

  uint32_t weight = 0;
  float sum = 0.0f;
  const int block_end = Width & ~15;
  const __m128i zero = _mm_setzero_si128();
  for (int y = 0; y < Height; ++y) {
    __m128 lanes = _mm_setzero_ps();
    __m128i wsum = _mm_setzero_si128();
    int x = 0;
    for (; x < block_end; x += 16) {
      const __m128i l = _mm_loadu_si128(reinterpret_cast<const __m128i*>(centre + x));
      const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(centre + x + 1));
      const __m128i r = _mm_loadu_si128(reinterpret_cast<const __m128i*>(centre + x + 2));
      const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(above + x + 1));
      const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(below + x + 1));
      const __m128i e = _mm_max_epu8(AbsDiffU8(l, r), AbsDiffU8(a, b));
      wsum = _mm_add_epi64(wsum, _mm_sad_epu8(e, zero));
      // centre * e is at most 65025: exact in 16 unsigned bits and in float.
      const __m128i plo = _mm_mullo_epi16(_mm_unpacklo_epi8(c, zero), _mm_unpacklo_epi8(e, zero));
      const __m128i phi = _mm_mullo_epi16(_mm_unpackhi_epi8(c, zero), _mm_unpackhi_epi8(e, zero));
      lanes = _mm_add_ps(lanes, _mm_cvtepi32_ps(_mm_unpacklo_epi16(plo, zero)));
      lanes = _mm_add_ps(lanes, _mm_cvtepi32_ps(_mm_unpackhi_epi16(plo, zero)));
      lanes = _mm_add_ps(lanes, _mm_cvtepi32_ps(_mm_unpacklo_epi16(phi, zero)));
      lanes = _mm_add_ps(lanes, _mm_cvtepi32_ps(_mm_unpackhi_epi16(phi, zero)));
    }
    float l4[4];
    _mm_storeu_ps(l4, lanes);
    float row_sum = (l4[0] + l4[1]) + (l4[2] + l4[3]);
    weight += static_cast<uint32_t>(_mm_cvtsi128_si32(wsum)) + static_cast<uint32_t>(_mm_extract_epi32(wsum, 2));
    for (; x < Width; ++x) {
      const int dh = std::abs(centre[x] - centre[x + 2]);
      const int dv = std::abs(above[x + 1] - below[x + 1]);
      const int e = dh > dv ? dh : dv;
      weight += static_cast<uint32_t>(e);
      row_sum += static_cast<float>(centre[x + 1] * e);
    }
    sum += row_sum;
    if (y + 1 < Height) {
      // Rotate the three rows down by one and fetch the next lower row.
      unsigned char* t = above;
      above = centre;
      centre = below;
      below = t;
      PadRow(Src + static_cast<ptrdiff_t>(y + 2 < Height ? y + 2 : Height - 1) * Stride, Width, below);
    }
  }
  for (auto* r : rows) qv::Free(r);

  const int32_t w = static_cast<int32_t>(weight);
  if (w == 0) {
    *ThresholdOut = 0;
  } else {
    // Unwrapped, S / W is a mean of samples (0..255). A weight wrapped on a
    // huge image can make the quotient leave int: keep its conversion defined.
    const float q = sum / static_cast<float>(w);
    *ThresholdOut = q >= 2147483520.0f ? 2147483647 : (q <= -2147483648.0f ? (-2147483647 - 1) : static_cast<int>(q));
  }
  return STATUS_OK;
}
