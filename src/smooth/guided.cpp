// Fast guided filters: the local linear model q = a * I + b is fitted with box
// means of float planes on a reduced grid, then enlarged bilinearly and
// evaluated at full size. Also the float box means other families share.
#include "smooth/guided.h"

#include <emmintrin.h>
#include <smmintrin.h>

#include <cmath>
#include <cstdint>
#include <cstring>

#include "frame/frame.h"
#include "frame/window.h"

namespace qv {

namespace {

// What the skeleton's window sums become: the float product of the sum and
// the reciprocal of the area, unrounded; float in vector blocks, double with
// the double reciprocal in the scalar rest.
struct FloatMeanRow {
  float* Out;
  float InvF;
  double InvD;
  void Scalar(int x, double S) const { Out[x] = static_cast<float>(S * InvD); }
  void Vector(int x, __m128 S) const { _mm_storeu_ps(Out + x, _mm_mul_ps(S, _mm_set1_ps(InvF))); }
};

template <int Pitch>
struct FloatMeanPixels {
  float* Out;
  float InvF;
  double InvD;
  void Scalar(int x, const double* S) const {
    for (int c = 0; c < Pitch; ++c) Out[Pitch * x + c] = static_cast<float>(S[c] * InvD);
  }
  void Vector(int x, __m128 S0, __m128 S1) const {
    const __m128 inv = _mm_set1_ps(InvF);
    if (Pitch == 4) {
      _mm_storeu_ps(Out + 4 * x, _mm_mul_ps(S0, inv));
      _mm_storeu_ps(Out + 4 * x + 4, _mm_mul_ps(S1, inv));
    } else {
      // Lane 3 holds a sample of the next pixel: the first store's is
      // overwritten by the second, the second's by a later pixel (a vector
      // block always leaves at least one pixel after it).
      _mm_storeu_ps(Out + 3 * x, _mm_mul_ps(S0, inv));
      _mm_storeu_ps(Out + 3 * x + 3, _mm_mul_ps(S1, inv));
    }
  }
};

template <int Pitch>
void BoxBlurFloatRows(const float* Src, float* Dest, int Width, int Height, int Stride, int Radius, float* Columns,
                      const int* RowTable) {
  const double area = double(2 * Radius + 1) * double(2 * Radius + 1);
  const double inv_d = 1.0 / area;
  const float inv_f = static_cast<float>(inv_d);
  ForEachWindowRow<float, Pitch>(
      Src, Stride, Width, Height, Pitch, Radius, Columns, RowTable, [&](int y, const float* C) {
        float* out = Dest + static_cast<ptrdiff_t>(y) * Stride;
        if constexpr (Pitch == 1) {
          SlideWindowRow<float>(C, Width, Radius, FloatMeanRow{out, inv_f, inv_d});
        } else {
          const int vector_end = Pitch == 3 ? ((Width - 1) / 2) * 2 : ((Width - 2) / 2) * 2;
          SlideWindowPixels<float, Pitch>(C, Width, Radius, vector_end, FloatMeanPixels<Pitch>{out, inv_f, inv_d});
        }
      });
}

}  // namespace

int BoxBlurFloat(const float* Src, float* Dest, int Width, int Height, int Stride, int Radius) {
  const int Channel = DeriveChannel(Stride, Width);
  if (Src == nullptr) return STATUS_NULL_REFERENCE;
  if (Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1 || Radius < 1) return STATUS_INVALID_PARAMETER;
  if (!IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;
  const int r = ClampWindowRadius(Radius, Width, Height);
  float* columns = nullptr;
  switch (Channel) {
    case 1:
      columns = MallocArray<float>(WindowColumnCount<float, 1>(Width, r));
      break;
    case 3:
      columns = MallocArray<float>(WindowColumnCount<float, 3>(Width, r));
      break;
    default:
      columns = MallocArray<float>(WindowColumnCount<float, 4>(Width, r));
      break;
  }
  int* row_table = MallocArray<int>(WindowRowTableCount(Height, r));
  if (columns == nullptr || row_table == nullptr) {
    Free(columns);
    Free(row_table);
    return STATUS_OUT_OF_MEMORY;
  }
  FillRowTable(row_table, Height, r);
  switch (Channel) {
    case 1:
      BoxBlurFloatRows<1>(Src, Dest, Width, Height, Stride, r, columns, row_table);
      break;
    case 3:
      BoxBlurFloatRows<3>(Src, Dest, Width, Height, Stride, r, columns, row_table);
      break;
    default:
      BoxBlurFloatRows<4>(Src, Dest, Width, Height, Stride, r, columns, row_table);
      break;
  }
  Free(columns);
  Free(row_table);
  return STATUS_OK;
}

int BoxBlurFloatFractional(const float* Src, float* Dest, int Width, int Height, int Stride, float Radius) {
  const int Channel = DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1 || !(Radius > 0)) return STATUS_INVALID_PARAMETER;
  if (!IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;
  const int r = static_cast<int>(Radius);
  const float d = std::fabs(static_cast<float>(r) - Radius);
  if (d < 0.1f) return BoxBlurFloat(Src, Dest, Width, Height, Stride, r);
  if (d > 0.9f) return BoxBlurFloat(Src, Dest, Width, Height, Stride, r + 1);

  const size_t n = RunBytes(Height, Stride);
  float* lower = MallocArray<float>(n);
  if (lower == nullptr) return STATUS_OUT_OF_MEMORY;
  int status = BoxBlurFloat(Src, lower, Width, Height, Stride, r);
  if (status == STATUS_OK) status = BoxBlurFloat(Src, Dest, Width, Height, Stride, r + 1);
  if (status == STATUS_OK) {
    const float f = Radius - static_cast<float>(r);
    const float w0 = 1.0f - f, w1 = f;
    const __m128 v0 = _mm_set1_ps(w0), v1 = _mm_set1_ps(w1);
    size_t i = 0;
    for (; i + 4 <= n; i += 4) {
      const __m128 lo = _mm_loadu_ps(lower + i), hi = _mm_loadu_ps(Dest + i);
      _mm_storeu_ps(Dest + i, _mm_add_ps(_mm_mul_ps(lo, v0), _mm_mul_ps(hi, v1)));
    }
    for (; i < n; ++i) Dest[i] = lower[i] * w0 + Dest[i] * w1;
  }
  Free(lower);
  return status;
}

int ResampleToFloat(const unsigned char* Src, float* Dest, int Width, int Height, int SmallWidth, int SmallHeight,
                    int Stride) {
  const int Channel = DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1 || SmallWidth < 1 || SmallHeight < 1) return STATUS_INVALID_PARAMETER;
  if (!IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;
  int* column = MallocArray<int>(SmallWidth);
  if (column == nullptr) return STATUS_OUT_OF_MEMORY;
  // 64-bit products: the same quotients, without overflow on very wide images.
  for (int i = 0; i < SmallWidth; ++i) column[i] = static_cast<int>(int64_t(i) * Width / SmallWidth) * Channel;
  const size_t pitch = size_t(SmallWidth) * Channel;
  for (int j = 0; j < SmallHeight; ++j) {
    const unsigned char* row = Src + static_cast<ptrdiff_t>(int64_t(j) * Height / SmallHeight) * Stride;
    float* out = Dest + j * pitch;
    if (Channel == 1) {
      for (int i = 0; i < SmallWidth; ++i) out[i] = row[column[i]];
    } else {
      for (int i = 0; i < SmallWidth; ++i)
        for (int c = 0; c < Channel; ++c) out[i * Channel + c] = row[column[i] + c];
    }
  }
  Free(column);
  return STATUS_OK;
}

namespace {

// One row of the planes of a and b, enlarged from SmallWidth to Width pixels
// of Channel samples; both share the positions. The step divides by Width,
// not Width - 1, so the last pixel falls short of the last input. With
// SmallWidth 1 (a one-pixel-wide image) the right neighbour would lie past
// the row: the last sample stands in, at weight 0.
template <int Channel>
void EnlargeRows(const float* InA, const float* InB, float* OutA, float* OutB, int SmallWidth, int Width) {
  const double step = (SmallWidth - 1.0) / Width;
  double p = 0.0;
  for (int x = 0; x < Width; ++x, p += step) {
    const int i = static_cast<int>(p);
    const double f = p - i, g = 1 - f;
    const int j = i + 1 < SmallWidth ? i + 1 : SmallWidth - 1;
    for (int c = 0; c < Channel; ++c) {
      OutA[x * Channel + c] = static_cast<float>(InA[i * Channel + c] * g + InA[j * Channel + c] * f);
      OutB[x * Channel + c] = static_cast<float>(InB[i * Channel + c] * g + InB[j * Channel + c] * f);
    }
  }
}

// Tail form: trunc(q + 0.5) limited above to 255 only, low byte kept, so a q
// below -0.5 wraps. A q that is not a number or below the int range would make
// the conversion undefined; those take the processor's integer indefinite
// (0x80000000), whose low byte is 0, as the vector body gives for them.
inline unsigned char TailByte(double q) {
  const double t = q + 0.5;
  int v;
  if (!(t > -2147483649.0)) {
    v = INT32_MIN;
  } else if (t >= 255.0) {
    v = 255;
  } else {
    v = static_cast<int>(t);
  }
  return static_cast<unsigned char>(static_cast<unsigned>(v) & 255u);
}

}  // namespace

int ApplyGuidedModel(const unsigned char* Guide, const float* PlaneA, const float* PlaneB, unsigned char* Dest,
                     int SmallWidth, int SmallHeight, int Width, int Height, int Stride) {
  const int Channel = DeriveChannel(Stride, Width);
  const int n = Width * Channel;
  const size_t rows = size_t(SmallHeight) * n;
  float* wide_a = MallocArray<float>(rows);
  float* wide_b = MallocArray<float>(rows);
  if (wide_a == nullptr || wide_b == nullptr) {
    Free(wide_a);
    Free(wide_b);
    return STATUS_OUT_OF_MEMORY;
  }
  const size_t small_pitch = size_t(SmallWidth) * Channel;
  for (int r = 0; r < SmallHeight; ++r) {
    const float* a = PlaneA + r * small_pitch;
    const float* b = PlaneB + r * small_pitch;
    float* oa = wide_a + size_t(r) * n;
    float* ob = wide_b + size_t(r) * n;
    switch (Channel) {
      case 1:
        EnlargeRows<1>(a, b, oa, ob, SmallWidth, Width);
        break;
      case 3:
        EnlargeRows<3>(a, b, oa, ob, SmallWidth, Width);
        break;
      default:
        EnlargeRows<4>(a, b, oa, ob, SmallWidth, Width);
        break;
    }
  }

  const int block_end = (n / 8) * 8;
  const __m128i zero = _mm_setzero_si128();
  for (int y = 0; y < Height; ++y) {
    const double p = y * (SmallHeight - 1.0) / Height;
    const int i = static_cast<int>(p);
    const double f = p - i;
    // A one-row plane has no row below: the last row stands in, at weight 0.
    const int j = i + 1 < SmallHeight ? i + 1 : SmallHeight - 1;
    const float* a0 = wide_a + size_t(i) * n;
    const float* a1 = wide_a + size_t(j) * n;
    const float* b0 = wide_b + size_t(i) * n;
    const float* b1 = wide_b + size_t(j) * n;
    const unsigned char* g = Guide + static_cast<ptrdiff_t>(y) * Stride;
    unsigned char* out = Dest + static_cast<ptrdiff_t>(y) * Stride;
    const float w0 = static_cast<float>(1 - f), w1 = static_cast<float>(f);
    const __m128 vw0 = _mm_set1_ps(w0), vw1 = _mm_set1_ps(w1);
    int x = 0;
    for (; x < block_end; x += 8) {
      // The guide bytes are loaded before the bytes at the same place are
      // stored, so Guide may be Dest.
      const __m128i gb = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(g + x)), zero);
      __m128 q[2];
      for (int h = 0; h < 2; ++h) {
        const __m128 gf = _mm_cvtepi32_ps(h == 0 ? _mm_unpacklo_epi16(gb, zero) : _mm_unpackhi_epi16(gb, zero));
        const int k = x + 4 * h;
        const __m128 a = _mm_add_ps(_mm_mul_ps(_mm_loadu_ps(a0 + k), vw0), _mm_mul_ps(_mm_loadu_ps(a1 + k), vw1));
        const __m128 b = _mm_add_ps(_mm_mul_ps(_mm_loadu_ps(b0 + k), vw0), _mm_mul_ps(_mm_loadu_ps(b1 + k), vw1));
        q[h] = _mm_add_ps(_mm_mul_ps(a, gf), b);
      }
      const __m128i words = _mm_packs_epi32(_mm_cvtps_epi32(q[0]), _mm_cvtps_epi32(q[1]));
      _mm_storel_epi64(reinterpret_cast<__m128i*>(out + x), _mm_packus_epi16(words, words));
    }
    for (; x < n; ++x) {
      const double a = a0[x] * (1 - f) + a1[x] * f;
      const double b = b0[x] * (1 - f) + b1[x] * f;
      out[x] = TailByte(a * g[x] + b);
    }
  }
  Free(wide_a);
  Free(wide_b);
  return STATUS_OK;
}

}  // namespace qv

namespace {

// The frame both filters share, in its order (Guide is left to the reduction).
int CheckGuidedFrame(const unsigned char* Src, const unsigned char* Dest, int Width, int Height, int Radius,
                     int ScaleRatio, int Channel) {
  if (Src == nullptr) return STATUS_NULL_REFERENCE;
  if (Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1 || Radius < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;
  if (ScaleRatio < 10 || ScaleRatio > 100) return STATUS_INVALID_PARAMETER;
  return STATUS_OK;
}

// Reduced grid: ScaleRatio percent of each size, unless that grid is narrower
// than 6 or lower than 5, which runs at full size (the two limits differ).
// The box radius on it: Radius raised to 4, capped by the smaller full size,
// then scaled with the grid.
struct Grid {
  int Width, Height;
  float Scale, Radius;
};
Grid ReducedGrid(int Width, int Height, int ScaleRatio, int Radius) {
  float scale = ScaleRatio * 0.01f;
  int sw = static_cast<int>(static_cast<double>(Width * scale) + 0.5);
  int sh = static_cast<int>(static_cast<double>(Height * scale) + 0.5);
  if (sw <= 5 || sh <= 4) {
    sw = Width;
    sh = Height;
    scale = 1.0f;
  }
  if (Radius < 4) Radius = 4;
  const int limit = Width < Height ? Width : Height;
  if (Radius > limit) Radius = limit;
  return {sw, sh, scale, scale * static_cast<float>(Radius)};
}

// Guided coefficients in double, stored as float; b uses a before rounding.
// Products of the means and the eps term go the same way in both loops.
void GuidedCoefficients(const float* MeanIP, float* MeanP_A, float* MeanI_B, const float* MeanII, size_t n,
                        float Eps2) {
  const __m128d e = _mm_set1_pd(Eps2);
  size_t k = 0;
  for (; k + 2 <= n; k += 2) {
    const __m128d ip = _mm_cvtps_pd(_mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(MeanIP + k))));
    const __m128d mp = _mm_cvtps_pd(_mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(MeanP_A + k))));
    const __m128d mi = _mm_cvtps_pd(_mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(MeanI_B + k))));
    const __m128d ii = _mm_cvtps_pd(_mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(MeanII + k))));
    const __m128d a = _mm_div_pd(_mm_sub_pd(ip, _mm_mul_pd(mp, mi)), _mm_add_pd(_mm_sub_pd(ii, _mm_mul_pd(mi, mi)), e));
    const __m128d b = _mm_sub_pd(mp, _mm_mul_pd(a, mi));
    _mm_storel_pi(reinterpret_cast<__m64*>(MeanP_A + k), _mm_cvtpd_ps(a));
    _mm_storel_pi(reinterpret_cast<__m64*>(MeanI_B + k), _mm_cvtpd_ps(b));
  }
  for (; k < n; ++k) {
    const double mp = MeanP_A[k], mi = MeanI_B[k];
    const double a = (MeanIP[k] - mp * mi) / ((MeanII[k] - mi * mi) + static_cast<double>(Eps2));
    MeanP_A[k] = static_cast<float>(a);
    MeanI_B[k] = static_cast<float>(mp - a * mi);
  }
}

// The self-guided form: P is I, so the covariance is the variance.
void SelfGuidedCoefficients(float* MeanI_B, const float* MeanII, float* A, size_t n, float Eps2) {
  const __m128d e = _mm_set1_pd(Eps2);
  size_t k = 0;
  for (; k + 2 <= n; k += 2) {
    const __m128d mi = _mm_cvtps_pd(_mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(MeanI_B + k))));
    const __m128d ii = _mm_cvtps_pd(_mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(MeanII + k))));
    const __m128d v = _mm_sub_pd(ii, _mm_mul_pd(mi, mi));
    const __m128d a = _mm_div_pd(v, _mm_add_pd(v, e));
    const __m128d b = _mm_sub_pd(mi, _mm_mul_pd(a, mi));
    _mm_storel_pi(reinterpret_cast<__m64*>(A + k), _mm_cvtpd_ps(a));
    _mm_storel_pi(reinterpret_cast<__m64*>(MeanI_B + k), _mm_cvtpd_ps(b));
  }
  for (; k < n; ++k) {
    const double mi = MeanI_B[k];
    const double v = MeanII[k] - mi * mi;
    const double a = v / (v + static_cast<double>(Eps2));
    A[k] = static_cast<float>(a);
    MeanI_B[k] = static_cast<float>(mi - a * mi);
  }
}

// Per-sample product in float (exact here: the planes hold bytes).
void MultiplyInto(const float* X, const float* Y, float* Out, size_t n) {
  size_t k = 0;
  for (; k + 4 <= n; k += 4) _mm_storeu_ps(Out + k, _mm_mul_ps(_mm_loadu_ps(X + k), _mm_loadu_ps(Y + k)));
  for (; k < n; ++k) Out[k] = X[k] * Y[k];
}

}  // namespace

extern "C" QV_API int QV_GuidedFilter(const unsigned char* Src, const unsigned char* Guide, unsigned char* Dest,
                                      int Width, int Height, int Stride, int Radius, int ScaleRatio, float Eps) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  const int frame = CheckGuidedFrame(Src, Dest, Width, Height, Radius, ScaleRatio, Channel);
  if (frame != STATUS_OK) return frame;
  const Grid g = ReducedGrid(Width, Height, ScaleRatio, Radius);
  const float small_radius = g.Radius;
  const float eps2 = Eps * Eps;

  const size_t n = size_t(g.Width) * g.Height * Channel;
  float* block = qv::MallocArray<float>(5 * n);
  if (block == nullptr) return STATUS_OUT_OF_MEMORY;
  float* mean_p = block;           // later a
  float* mean_i = block + n;       // later b
  float* plane_p = block + 2 * n;  // later the mean of a
  float* plane_i = block + 3 * n;  // later the mean of I * P
  float* mean_ii = block + 4 * n;  // later the mean of b
  const int pitch = g.Width * Channel;

  int status = qv::ResampleToFloat(Src, plane_p, Width, Height, g.Width, g.Height, Stride);
  if (status == STATUS_OK) status = qv::ResampleToFloat(Guide, plane_i, Width, Height, g.Width, g.Height, Stride);
  if (status == STATUS_OK) status = qv::BoxBlurFloatFractional(plane_p, mean_p, g.Width, g.Height, pitch, small_radius);
  if (status == STATUS_OK) status = qv::BoxBlurFloatFractional(plane_i, mean_i, g.Width, g.Height, pitch, small_radius);
  if (status == STATUS_OK) {
    MultiplyInto(plane_i, plane_p, plane_p, n);
    MultiplyInto(plane_i, plane_i, plane_i, n);
    status = qv::BoxBlurFloatFractional(plane_i, mean_ii, g.Width, g.Height, pitch, small_radius);
  }
  if (status == STATUS_OK)
    status = qv::BoxBlurFloatFractional(plane_p, plane_i, g.Width, g.Height, pitch, small_radius);
  if (status == STATUS_OK) {
    GuidedCoefficients(plane_i, mean_p, mean_i, mean_ii, n, eps2);
    status = qv::BoxBlurFloatFractional(mean_p, plane_p, g.Width, g.Height, pitch, small_radius);
  }
  if (status == STATUS_OK) status = qv::BoxBlurFloatFractional(mean_i, mean_ii, g.Width, g.Height, pitch, small_radius);
  if (status == STATUS_OK)
    status = qv::ApplyGuidedModel(Guide, plane_p, mean_ii, Dest, g.Width, g.Height, Width, Height, Stride);
  qv::Free(block);
  return status;
}

extern "C" QV_API int QV_SelfGuidedFilter(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                          int Stride, int Radius, int ScaleRatio, float Eps) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  const int frame = CheckGuidedFrame(Src, Dest, Width, Height, Radius, ScaleRatio, Channel);
  if (frame != STATUS_OK) return frame;
  const Grid g = ReducedGrid(Width, Height, ScaleRatio, Radius);
  const float small_radius = g.Radius;
  const float eps2 = Eps * Eps;

  const size_t n = size_t(g.Width) * g.Height * Channel;
  float* block = qv::MallocArray<float>(3 * n);
  if (block == nullptr) return STATUS_OUT_OF_MEMORY;
  float* plane = block;            // I, then I * I, then a, then the mean of b
  float* mean_i = block + n;       // later b
  float* mean_ii = block + 2 * n;  // later the mean of a
  const int pitch = g.Width * Channel;

  int status = qv::ResampleToFloat(Src, plane, Width, Height, g.Width, g.Height, Stride);
  if (status == STATUS_OK) status = qv::BoxBlurFloatFractional(plane, mean_i, g.Width, g.Height, pitch, small_radius);
  if (status == STATUS_OK) {
    MultiplyInto(plane, plane, plane, n);
    status = qv::BoxBlurFloatFractional(plane, mean_ii, g.Width, g.Height, pitch, small_radius);
  }
  if (status == STATUS_OK) {
    SelfGuidedCoefficients(mean_i, mean_ii, plane, n, eps2);
    status = qv::BoxBlurFloatFractional(plane, mean_ii, g.Width, g.Height, pitch, small_radius);
  }
  if (status == STATUS_OK) status = qv::BoxBlurFloatFractional(mean_i, plane, g.Width, g.Height, pitch, small_radius);
  if (status == STATUS_OK)
    status = qv::ApplyGuidedModel(Src, mean_ii, plane, Dest, g.Width, g.Height, Width, Height, Stride);
  qv::Free(block);
  return status;
}
