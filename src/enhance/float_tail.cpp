// Float plane tail shared by Retinex and tone mapping: percentile clip on a
// sample grid, stretch to bytes, luminance-ratio colour transfer, maxima.
#include "enhance/float_tail.h"

#include <smmintrin.h>

#include <cstdlib>
#include <cstring>

#include "frame/border.h"
#include "frame/frame.h"

namespace qv {

namespace {

int CompareFloat(const void* a, const void* b) {
  const float x = *static_cast<const float*>(a), y = *static_cast<const float*>(b);
  return x < y ? -1 : (x > y ? 1 : 0);
}

// trunc(sw * Share * sh) as a sample count. A share outside [0, 1) or not a
// number would index outside the sorted samples, so it is held inside them.
int ShareCount(int sw, int sh, float Share, int Count) {
  const float p = static_cast<float>(sw) * Share * static_cast<float>(sh);
  if (!(p > 0.0f)) return 0;
  if (p >= static_cast<float>(Count)) return Count - 1;
  const int k = TruncateToInt(p);
  return k < Count ? k : Count - 1;
}

inline __m128i Load4(const unsigned char* p) {
  int v;
  std::memcpy(&v, p, 4);
  return _mm_cvtsi32_si128(v);
}

}  // namespace

int ClipNormalizeFloat(const float* Plane, float* Out, int Width, int Height, float LowShare, float HighShare) {
  if (Plane == nullptr || Out == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  int sw = TruncateToInt(static_cast<float>(Width) * 0.2f + 0.5f);
  int sh = TruncateToInt(static_cast<float>(Height) * 0.2f + 0.5f);
  if (sw < 1) sw = 1;
  if (sh < 1) sh = 1;
  const int count = sw * sh;
  float* samples = MallocArray<float>(count);
  int* columns = MallocArray<int>(sw);
  if (samples == nullptr || columns == nullptr) {
    Free(samples);
    Free(columns);
    return STATUS_OUT_OF_MEMORY;
  }
  for (int gx = 0; gx < sw; ++gx) columns[gx] = static_cast<int>(int64_t(gx) * Width / sw);
  for (int gy = 0; gy < sh; ++gy) {
    const float* row = Plane + size_t(int64_t(gy) * Height / sh) * Width;
    for (int gx = 0; gx < sw; ++gx) samples[gy * sw + gx] = row[columns[gx]];
  }
  std::qsort(samples, count, sizeof(float), CompareFloat);
  const float hi = samples[count - ShareCount(sw, sh, HighShare, count) - 1];
  const float lo = samples[ShareCount(sw, sh, LowShare, count)];
  Free(samples);
  Free(columns);

  const size_t n = size_t(Width) * Height;
  if (!(lo < hi)) {
    for (size_t i = 0; i < n; ++i) Out[i] = 0.5f;
    return STATUS_OK;
  }
  const size_t body = n & ~size_t(3);
  const __m128 vlo = _mm_set1_ps(lo), inv = _mm_set1_ps(1.0f / (hi - lo));
  const __m128 zero = _mm_setzero_ps(), one = _mm_set1_ps(1.0f);
  for (size_t i = 0; i < body; i += 4) {
    const __m128 v = _mm_mul_ps(_mm_sub_ps(_mm_loadu_ps(Plane + i), vlo), inv);
    _mm_storeu_ps(Out + i, _mm_max_ps(_mm_min_ps(v, one), zero));
  }
  const double range = double(hi) - double(lo);
  for (size_t i = body; i < n; ++i) {
    const double v = (double(Plane[i]) - lo) / range;
    Out[i] = static_cast<float>(v < 0 ? 0 : (v > 1 ? 1 : v));
  }
  return STATUS_OK;
}

void MinMaxFloat(const float* Plane, int Count, float* Min, float* Max) {
  float lo = 3.40282306e+38f, hi = -3.40282306e+38f;
  const int body = Count & ~3;
  if (body > 0) {
    __m128 vlo = _mm_set1_ps(lo), vhi = _mm_set1_ps(hi);
    for (int i = 0; i < body; i += 4) {
      const __m128 v = _mm_loadu_ps(Plane + i);
      vlo = _mm_min_ps(v, vlo);
      vhi = _mm_max_ps(v, vhi);
    }
    float l[4], h[4];
    _mm_storeu_ps(l, vlo);
    _mm_storeu_ps(h, vhi);
    for (int k = 0; k < 4; ++k) {
      if (l[k] < lo) lo = l[k];
      if (h[k] > hi) hi = h[k];
    }
  }
  // The scalar pass goes over every value again, not only the remainder.
  for (int i = 0; i < Count; ++i) {
    if (Plane[i] < lo) lo = Plane[i];
    if (Plane[i] > hi) hi = Plane[i];
  }
  *Min = lo;
  *Max = hi;
}

int FloatPlaneToBytes(const float* Plane, unsigned char* Out, int Width, int Height) {
  if (Plane == nullptr || Out == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  const int n = Width * Height;
  float lo, hi;
  MinMaxFloat(Plane, n, &lo, &hi);
  if (lo == hi) {
    std::memset(Out, 128, size_t(n));
    return STATUS_OK;
  }
  const float scale = static_cast<float>(255.0 / double(hi - lo));
  const int body = n & ~7;
  const __m128 vlo = _mm_set1_ps(lo), vscale = _mm_set1_ps(scale);
  for (int i = 0; i < body; i += 8) {
    const __m128i a = _mm_cvtps_epi32(_mm_mul_ps(_mm_sub_ps(_mm_loadu_ps(Plane + i), vlo), vscale));
    const __m128i b = _mm_cvtps_epi32(_mm_mul_ps(_mm_sub_ps(_mm_loadu_ps(Plane + i + 4), vlo), vscale));
    const __m128i w = _mm_packs_epi32(a, b);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(Out + i), _mm_packus_epi16(w, w));
  }
  // Rounded by adding a half and truncating; the low byte is stored unclamped.
  for (int i = body; i < n; ++i) Out[i] = static_cast<unsigned char>(TruncateToInt((Plane[i] - lo) * scale + 0.5f));
  return STATUS_OK;
}

int ColourTransfer(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                   const unsigned char* Y, const unsigned char* N, int GainLimit) {
  if (Src == nullptr || Dest == nullptr || Y == nullptr || N == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  const int body = Width & ~3;
  const __m128i zero = _mm_setzero_si128();
  const __m128i limit = _mm_set1_epi32(GainLimit);
  for (int row = 0; row < Height; ++row) {
    const unsigned char* s = Src + size_t(row) * Stride;
    unsigned char* d = Dest + size_t(row) * Stride;
    const unsigned char* yr = Y + size_t(row) * Width;
    const unsigned char* nr = N + size_t(row) * Width;
    for (int x = 0; x < body; x += 4) {
      const __m128i y4 = _mm_cvtepu8_epi32(Load4(yr + x));
      __m128i n4 = _mm_cvtepu8_epi32(Load4(nr + x));
      if (GainLimit > 0) n4 = _mm_min_epi32(n4, _mm_mullo_epi32(y4, limit));
      // Twelve samples in three vectors of four; each pixel's y and n spread
      // over its three lanes.
      const unsigned char* p = s + 3 * x;
      const __m128i c[3] = {_mm_cvtepu8_epi32(Load4(p)), _mm_cvtepu8_epi32(Load4(p + 4)),
                            _mm_cvtepu8_epi32(Load4(p + 8))};
      const __m128i ys[3] = {_mm_shuffle_epi32(y4, _MM_SHUFFLE(1, 0, 0, 0)),
                             _mm_shuffle_epi32(y4, _MM_SHUFFLE(2, 2, 1, 1)),
                             _mm_shuffle_epi32(y4, _MM_SHUFFLE(3, 3, 3, 2))};
      const __m128i ns[3] = {_mm_shuffle_epi32(n4, _MM_SHUFFLE(1, 0, 0, 0)),
                             _mm_shuffle_epi32(n4, _MM_SHUFFLE(2, 2, 1, 1)),
                             _mm_shuffle_epi32(n4, _MM_SHUFFLE(3, 3, 3, 2))};
      __m128i r[3];
      for (int k = 0; k < 3; ++k) {
        const __m128 q = _mm_div_ps(_mm_cvtepi32_ps(_mm_mullo_epi32(c[k], ns[k])), _mm_cvtepi32_ps(ys[k]));
        // y = 0 gives inf or NaN here; the mask turns the ratio term into 0.
        const __m128i ratio = _mm_andnot_si128(_mm_cmpeq_epi32(ys[k], zero), _mm_cvtps_epi32(q));
        r[k] = _mm_add_epi32(ratio, _mm_sub_epi32(_mm_add_epi32(c[k], ns[k]), ys[k]));
      }
      const __m128i w01 = _mm_srli_epi16(_mm_packus_epi32(r[0], r[1]), 1);
      const __m128i w2 = _mm_srli_epi16(_mm_packus_epi32(r[2], r[2]), 1);
      const __m128i b = _mm_packus_epi16(w01, w2);
      unsigned char* o = d + 3 * x;
      _mm_storel_epi64(reinterpret_cast<__m128i*>(o), b);
      const int last = _mm_extract_epi32(b, 2);
      std::memcpy(o + 8, &last, 4);
    }
    for (int x = body; x < Width; ++x) {
      const int y = yr[x];
      int n = nr[x];
      if (GainLimit > 0 && n > GainLimit * y) n = GainLimit * y;
      const unsigned char* p = s + 3 * x;
      unsigned char* o = d + 3 * x;
      for (int k = 0; k < 3; ++k) {
        if (y == 0) {
          o[k] = 0;
          continue;
        }
        const int c = p[k];
        const int sum = c * n / y + c + n - y;
        // An arithmetic shift of a negative sum is negative, and clamps to 0.
        o[k] = static_cast<unsigned char>(sum < 0 ? 0 : ClampToByte(sum >> 1));
      }
    }
  }
  return STATUS_OK;
}

int MaxOfPlane(const unsigned char* Plane, int Width, int Height, int Stride) {
  const int body = Width & ~15;
  __m128i vmax = _mm_setzero_si128();
  int best = 0;
  for (int y = 0; y < Height; ++y) {
    const unsigned char* row = Plane + size_t(y) * Stride;
    for (int x = 0; x < body; x += 16)
      vmax = _mm_max_epu8(vmax, _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + x)));
    for (int x = body; x < Width; ++x)
      if (row[x] > best) best = row[x];
  }
  unsigned char lanes[16];
  _mm_storeu_si128(reinterpret_cast<__m128i*>(lanes), vmax);
  for (unsigned char v : lanes)
    if (v > best) best = v;
  return best;
}

int ChannelMaxima(const unsigned char* Src, int Width, int Height, int Stride, int* Max0, int* Max1, int* Max2) {
  if (Src == nullptr || Max0 == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  const int Channel = GuardedChannel(Stride, Width);
  if (!IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;
  if (Channel == 1) {
    *Max0 = MaxOfPlane(Src, Width, Height, Stride);
    return STATUS_OK;
  }
  if (Max1 == nullptr || Max2 == nullptr) return STATUS_NULL_REFERENCE;
  int m0 = 0, m1 = 0, m2 = 0;
  for (int y = 0; y < Height; ++y) {
    const unsigned char* p = Src + size_t(y) * Stride;
    for (int x = 0; x < Width; ++x, p += Channel) {
      if (p[0] > m0) m0 = p[0];
      if (p[1] > m1) m1 = p[1];
      if (p[2] > m2) m2 = p[2];
    }
  }
  *Max0 = m0;
  *Max1 = m1;
  *Max2 = m2;
  return STATUS_OK;
}

}  // namespace qv
