// Frequency-domain filters and spectrum views: pad by edge replication,
// transform, weight each centred bin by a radial gain, transform back, crop.
// Built on the FFT engine, the channel split/merge and the float tail.
#include <pmmintrin.h>
#include <smmintrin.h>

#include <cmath>
#include <cstring>

#include "enhance/float_tail.h"
#include "frame/border.h"
#include "frame/frame.h"
#include "frequency/fft.h"
#include "point/channels.h"

namespace {

using qv::FFTComplex;

// Four-lane natural logarithm: mantissa in [sqrt(1/2), sqrt(2)), a degree-8
// polynomial and the exponent times ln 2 in two parts. Lanes <= 0 give NaN.
inline __m128 LogF32x4(__m128 x) {
  const __m128 one = _mm_set1_ps(1.0f);
  const __m128 invalid = _mm_cmple_ps(x, _mm_setzero_ps());
  x = _mm_max_ps(x, _mm_set1_ps(1.17549435e-38f));
  __m128i e = _mm_srli_epi32(_mm_castps_si128(x), 23);
  x = _mm_and_ps(x, _mm_castsi128_ps(_mm_set1_epi32(~0x7f800000)));
  x = _mm_or_ps(x, _mm_set1_ps(0.5f));
  e = _mm_sub_epi32(e, _mm_set1_epi32(0x7f));
  __m128 fe = _mm_add_ps(_mm_cvtepi32_ps(e), one);
  const __m128 low = _mm_cmplt_ps(x, _mm_set1_ps(0.70710678f));
  const __m128 extra = _mm_and_ps(x, low);
  x = _mm_sub_ps(x, one);
  fe = _mm_sub_ps(fe, _mm_and_ps(one, low));
  x = _mm_add_ps(x, extra);
  const __m128 z = _mm_mul_ps(x, x);
  __m128 y = _mm_set1_ps(0.070376836f);
  y = _mm_add_ps(_mm_mul_ps(y, x), _mm_set1_ps(-0.1151461f));
  y = _mm_add_ps(_mm_mul_ps(y, x), _mm_set1_ps(0.116769984f));
  y = _mm_add_ps(_mm_mul_ps(y, x), _mm_set1_ps(-0.12420141f));
  y = _mm_add_ps(_mm_mul_ps(y, x), _mm_set1_ps(0.14249323f));
  y = _mm_add_ps(_mm_mul_ps(y, x), _mm_set1_ps(-0.16668057f));
  y = _mm_add_ps(_mm_mul_ps(y, x), _mm_set1_ps(0.20000714f));
  y = _mm_add_ps(_mm_mul_ps(y, x), _mm_set1_ps(-0.24999994f));
  y = _mm_add_ps(_mm_mul_ps(y, x), _mm_set1_ps(0.3333333f));
  y = _mm_mul_ps(_mm_mul_ps(y, x), z);
  y = _mm_add_ps(y, _mm_mul_ps(fe, _mm_set1_ps(-0.000212194442f)));
  y = _mm_sub_ps(y, _mm_mul_ps(z, _mm_set1_ps(0.5f)));
  x = _mm_add_ps(x, y);
  x = _mm_add_ps(x, _mm_mul_ps(fe, _mm_set1_ps(0.693359375f)));
  return _mm_or_ps(x, invalid);
}

// e^x from the bit pattern: the scaled argument becomes the high word of a
// double. Coarse, and used only where the homomorphic filter's tails need it.
inline double SchraudolphExp(double x) {
  const int i = qv::TruncateToInt(1512775.0 * x + 1072632448.0 + 0.5);
  const uint64_t bits = uint64_t(uint32_t(i)) << 32;
  double d;
  std::memcpy(&d, &bits, sizeof d);
  return d;
}

// Re of four consecutive bins.
inline __m128 LoadRe4(const FFTComplex* p) {
  return _mm_shuffle_ps(_mm_loadu_ps(&p[0].Re), _mm_loadu_ps(&p[2].Re), _MM_SHUFFLE(2, 0, 2, 0));
}

// Multiplies Re and Im of four bins by four gains.
inline void ScaleBins4(FFTComplex* p, __m128 g) {
  _mm_storeu_ps(&p[0].Re, _mm_mul_ps(_mm_loadu_ps(&p[0].Re), _mm_unpacklo_ps(g, g)));
  _mm_storeu_ps(&p[2].Re, _mm_mul_ps(_mm_loadu_ps(&p[2].Re), _mm_unpackhi_ps(g, g)));
}

inline void ScaleBin(FFTComplex* p, float g) {
  p->Re *= g;
  p->Im *= g;
}

// 32-bit products wrap as the integer arithmetic of the filters always did.
inline int WrapSquare(int v) { return static_cast<int>(static_cast<unsigned>(v) * static_cast<unsigned>(v)); }
inline int WrapAdd(int a, int b) { return static_cast<int>(static_cast<unsigned>(a) + static_cast<unsigned>(b)); }

// The padded plane of a filter: its size and where the image sits in it.
struct Padding {
  int Width, Height, Left, Top;
  size_t Bins() const { return size_t(Width) * Height; }
};

// Gains are indexed by centred coordinates: lanes of x for four columns.
inline __m128i ColumnOffsets(int c, int cx) {
  return _mm_add_epi32(_mm_set1_epi32(c - cx), _mm_setr_epi32(0, 1, 2, 3));
}

// Fills the plane: image rows centred, edges replicated outward in both axes.
void FillReplicated(const unsigned char* Src, int Width, int Height, int Stride, const float* Table, const Padding& p,
                    FFTComplex* Plane) {
  for (int j = 0; j < Height; ++j) {
    const unsigned char* s = Src + size_t(j) * Stride;
    FFTComplex* row = Plane + size_t(p.Top + j) * p.Width;
    const float first = Table ? Table[s[0]] : float(s[0]);
    const float last = Table ? Table[s[Width - 1]] : float(s[Width - 1]);
    for (int i = 0; i < p.Left; ++i) row[i] = {first, 0.0f};
    for (int x = 0; x < Width; ++x) row[p.Left + x] = {Table ? Table[s[x]] : float(s[x]), 0.0f};
    for (int i = p.Left + Width; i < p.Width; ++i) row[i] = {last, 0.0f};
  }
  const size_t bytes = size_t(p.Width) * sizeof(FFTComplex);
  const FFTComplex* top = Plane + size_t(p.Top) * p.Width;
  const FFTComplex* bottom = Plane + size_t(p.Top + Height - 1) * p.Width;
  for (int r = 0; r < p.Top; ++r) std::memcpy(Plane + size_t(r) * p.Width, top, bytes);
  for (int r = p.Top + Height; r < p.Height; ++r) std::memcpy(Plane + size_t(r) * p.Width, bottom, bytes);
}

// Steps shared by the four filters: pad, forward transform, shift. Returns
// the plane, or null with the status set.
FFTComplex* ForwardPadded(const unsigned char* Src, int Width, int Height, int Stride, const float* Table, Padding* p,
                          int* Status) {
  p->Width = qv::OptimalFFTSize(Width);
  p->Height = qv::OptimalFFTSize(Height);
  // Sizes beyond the table cannot be padded; no plane can be had for them.
  if (p->Width < 0 || p->Height < 0) {
    *Status = STATUS_OUT_OF_MEMORY;
    return nullptr;
  }
  p->Left = (p->Width - Width) / 2;
  p->Top = (p->Height - Height) / 2;
  FFTComplex* plane = qv::MallocArray<FFTComplex>(p->Bins());
  if (plane == nullptr) {
    *Status = STATUS_OUT_OF_MEMORY;
    return nullptr;
  }
  FillReplicated(Src, Width, Height, Stride, Table, *p, plane);
  int status = qv::FFT2D(plane, plane, p->Width, p->Height, 0, 0);
  if (status == STATUS_OK) status = qv::FFTShift(plane, plane, p->Width, p->Height);
  if (status != STATUS_OK) {
    qv::Free(plane);
    *Status = status;
    return nullptr;
  }
  *Status = STATUS_OK;
  return plane;
}

int InversePadded(FFTComplex* Plane, const Padding& p) {
  const int status = qv::FFTInverseShift(Plane, Plane, p.Width, p.Height);
  if (status != STATUS_OK) return status;
  return qv::FFT2D(Plane, Plane, p.Width, p.Height, 1, 0);
}

// Real parts of the crop as they stand: vector rounding to even with
// saturation, scalar truncation and clamp.
void RealPartsToBytes(const FFTComplex* Plane, const Padding& p, unsigned char* Dest, int Width, int Height,
                      int Stride) {
  const int body = Width & ~7;
  for (int y = 0; y < Height; ++y) {
    const FFTComplex* s = Plane + size_t(p.Top + y) * p.Width + p.Left;
    unsigned char* d = Dest + size_t(y) * Stride;
    for (int x = 0; x < body; x += 8) {
      const __m128i a = _mm_cvtps_epi32(LoadRe4(s + x));
      const __m128i b = _mm_cvtps_epi32(LoadRe4(s + x + 4));
      const __m128i w = _mm_packs_epi32(a, b);
      _mm_storel_epi64(reinterpret_cast<__m128i*>(d + x), _mm_packus_epi16(w, w));
    }
    for (int x = body; x < Width; ++x) d[x] = static_cast<unsigned char>(qv::ClampToByte(qv::TruncateToInt(s[x].Re)));
  }
}

// Stretches the crop of a compacted float plane (pitch PitchWidth) from
// [Min, Max] to bytes: vector rounding to even with saturation; the scalar
// tail computes in double, truncates and keeps the low byte unclamped.
void StretchCropToBytes(const float* Values, int PitchWidth, int Left, int Top, float Min, float Max,
                        unsigned char* Dest, int Width, int Height, int Stride) {
  const float scale = 255.0f / (Max - Min);
  const __m128 vmin = _mm_set1_ps(Min), vscale = _mm_set1_ps(scale);
  const double range = double(Max) - double(Min);
  const int body = Width & ~7;
  for (int y = 0; y < Height; ++y) {
    const float* s = Values + size_t(Top + y) * PitchWidth + Left;
    unsigned char* d = Dest + size_t(y) * Stride;
    for (int x = 0; x < body; x += 8) {
      const __m128i a = _mm_cvtps_epi32(_mm_mul_ps(_mm_sub_ps(_mm_loadu_ps(s + x), vmin), vscale));
      const __m128i b = _mm_cvtps_epi32(_mm_mul_ps(_mm_sub_ps(_mm_loadu_ps(s + x + 4), vmin), vscale));
      const __m128i w = _mm_packs_epi32(a, b);
      _mm_storel_epi64(reinterpret_cast<__m128i*>(d + x), _mm_packus_epi16(w, w));
    }
    for (int x = body; x < Width; ++x)
      d[x] = static_cast<unsigned char>(qv::TruncateToInt((double(s[x]) - Min) * 255.0 / range));
  }
}

// Extremes over a float run, starting from the given seeds.
void RunExtremes(const float* v, size_t n, float* Min, float* Max) {
  float lo = *Min, hi = *Max;
  for (size_t i = 0; i < n; ++i) {
    if (v[i] < lo) lo = v[i];
    if (v[i] > hi) hi = v[i];
  }
  *Min = lo;
  *Max = hi;
}

// The colour path of the filters that run per channel: three planes, one
// run each in place, merged back. A 4-channel image is refused by the split
// and the merge alike, so Dest keeps what it held.
template <typename Run>
int RunPerChannel(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, Run run) {
  const size_t n = size_t(Width) * Height;
  unsigned char* planes[3];
  for (auto& p : planes) p = qv::AlignedArray<unsigned char>(n, 32);
  if (planes[0] == nullptr || planes[1] == nullptr || planes[2] == nullptr) {
    for (auto p : planes) qv::AlignedFree(p);
    return STATUS_OUT_OF_MEMORY;
  }
  if (qv::SplitChannels3(Src, planes[0], planes[1], planes[2], Width, Height, Stride) != STATUS_OK) {
    // The runs still go ahead on planes the split refused to fill; give
    // them defined content. The merge refuses too and Dest is not written.
    for (auto p : planes) std::memset(p, 0, n);
  }
  int status = STATUS_OK;
  for (auto p : planes) {
    status = run(p);
    if (status != STATUS_OK) break;
  }
  if (status == STATUS_OK) qv::MergeChannels3(planes[0], planes[1], planes[2], Dest, Width, Height, Stride);
  for (auto p : planes) qv::AlignedFree(p);
  return status;
}

inline bool IsChannel134(int Channel) { return Channel == 1 || Channel == 3 || Channel == 4; }

}  // namespace

extern "C" QV_API int QV_ButterworthLowPass(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                            int Stride, int CutOff) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;
  if (Channel != 1)
    return RunPerChannel(Src, Dest, Width, Height, Stride,
                         [&](unsigned char* p) { return QV_ButterworthLowPass(p, p, Width, Height, Width, CutOff); });

  Padding pad;
  int status;
  FFTComplex* plane = ForwardPadded(Src, Width, Height, Stride, nullptr, &pad, &status);
  if (plane == nullptr) return status;
  // G = 1 / (1 + r2 * 0.414 / CutOff^2): the body takes the approximate
  // reciprocal, the tail divides; their last bits differ and stay so.
  const float k = 0.414f / static_cast<float>(WrapSquare(CutOff));
  const __m128 vk = _mm_set1_ps(k), one = _mm_set1_ps(1.0f);
  const int cx = pad.Width / 2, cy = pad.Height / 2, body = pad.Width & ~3;
  for (int r = 0; r < pad.Height; ++r) {
    FFTComplex* row = plane + size_t(r) * pad.Width;
    const int yy = WrapSquare(r - cy);
    const __m128i vyy = _mm_set1_epi32(yy);
    for (int c = 0; c < body; c += 4) {
      const __m128i x = ColumnOffsets(c, cx);
      const __m128 r2 = _mm_cvtepi32_ps(_mm_add_epi32(_mm_mullo_epi32(x, x), vyy));
      ScaleBins4(row + c, _mm_rcp_ps(_mm_add_ps(one, _mm_mul_ps(r2, vk))));
    }
    for (int c = body; c < pad.Width; ++c) {
      const float r2 = static_cast<float>(WrapAdd(WrapSquare(c - cx), yy));
      ScaleBin(row + c, 1.0f / (1.0f + r2 * k));
    }
  }
  status = InversePadded(plane, pad);
  if (status == STATUS_OK) RealPartsToBytes(plane, pad, Dest, Width, Height, Stride);
  qv::Free(plane);
  return status;
}

extern "C" QV_API int QV_HighFrequencyEmphasizeFilter(const unsigned char* Src, unsigned char* Dest, int Width,
                                                      int Height, int Stride, int CutOff, int GainOffset,
                                                      int GainScale) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;
  if (Channel != 1)
    return RunPerChannel(Src, Dest, Width, Height, Stride, [&](unsigned char* p) {
      return QV_HighFrequencyEmphasizeFilter(p, p, Width, Height, Width, CutOff, GainOffset, GainScale);
    });

  Padding pad;
  int status;
  FFTComplex* plane = ForwardPadded(Src, Width, Height, Stride, nullptr, &pad, &status);
  if (plane == nullptr) return status;
  // G = offset + scale / (1 + K / r2): at r2 = 0, K / r2 is infinite and G is
  // the offset alone. Body: exact inner division, approximate outer one.
  const float K = static_cast<float>(WrapSquare(CutOff)) * 0.414f;
  const float offset = static_cast<float>(GainOffset) * 0.01f, scale = static_cast<float>(GainScale) * 0.01f;
  const __m128 vK = _mm_set1_ps(K), voff = _mm_set1_ps(offset), vscale = _mm_set1_ps(scale);
  const __m128 one = _mm_set1_ps(1.0f);
  const int cx = pad.Width / 2, cy = pad.Height / 2, body = pad.Width & ~3;
  for (int r = 0; r < pad.Height; ++r) {
    FFTComplex* row = plane + size_t(r) * pad.Width;
    const int yy = WrapSquare(r - cy);
    const __m128i vyy = _mm_set1_epi32(yy);
    for (int c = 0; c < body; c += 4) {
      const __m128i x = ColumnOffsets(c, cx);
      const __m128 r2 = _mm_cvtepi32_ps(_mm_add_epi32(_mm_mullo_epi32(x, x), vyy));
      const __m128 g = _mm_add_ps(voff, _mm_mul_ps(vscale, _mm_rcp_ps(_mm_add_ps(one, _mm_div_ps(vK, r2)))));
      ScaleBins4(row + c, g);
    }
    for (int c = body; c < pad.Width; ++c) {
      const float r2 = static_cast<float>(WrapAdd(WrapSquare(c - cx), yy));
      ScaleBin(row + c, offset + scale / (1.0f + K / r2));
    }
  }
  status = InversePadded(plane, pad);
  if (status == STATUS_OK) RealPartsToBytes(plane, pad, Dest, Width, Height, Stride);
  qv::Free(plane);
  return status;
}

extern "C" QV_API int QV_BandPassFilter(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                        int Stride, int FilterLarge, int FilterSmall, int StripeMode,
                                        int StripeTolerance) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;
  if (Channel != 1)
    return RunPerChannel(Src, Dest, Width, Height, Stride, [&](unsigned char* p) {
      return QV_BandPassFilter(p, p, Width, Height, Width, FilterLarge, FilterSmall, StripeMode, StripeTolerance);
    });

  Padding pad;
  int status;
  FFTComplex* plane = ForwardPadded(Src, Width, Height, Stride, nullptr, &pad, &status);
  if (plane == nullptr) return status;
  // The filter sizes are scaled by a power of two covering 1.5 times the
  // larger side; the plane itself keeps its padded size.
  double P = 1.0;
  const double needed = 1.5 * double(Width > Height ? Width : Height);
  while (P < needed) P *= 2.0;
  const float tl = 2.0f * static_cast<float>(FilterLarge) / static_cast<float>(P);
  const float ts = 2.0f * static_cast<float>(FilterSmall) / static_cast<float>(P);
  const float a = tl * tl, b = ts * ts;
  const float s = static_cast<float>(WrapSquare(WrapAdd(100, -StripeTolerance))) * 0.0001f;
  const __m128 na = _mm_set1_ps(-a), nb = _mm_set1_ps(-b), ns = _mm_set1_ps(-s), one = _mm_set1_ps(1.0f);
  const int cx = pad.Width / 2, cy = pad.Height / 2, body = pad.Width & ~3;
  for (int r = 0; r < pad.Height; ++r) {
    FFTComplex* row = plane + size_t(r) * pad.Width;
    const int yy = WrapSquare(r - cy);
    const __m128i vyy = _mm_set1_epi32(yy);
    // The stripe term along rows is one value per row.
    __m128 row_term = one;
    double row_term_tail = 1.0;
    if (StripeMode == 2) {
      row_term = _mm_sub_ps(one, qv::ExpVector4(_mm_mul_ps(ns, _mm_set1_ps(static_cast<float>(yy)))));
      row_term_tail = 1.0 - std::exp(-double(s) * double(yy));
    }
    for (int c = 0; c < body; c += 4) {
      const __m128i x = ColumnOffsets(c, cx);
      const __m128i xx = _mm_mullo_epi32(x, x);
      const __m128 r2 = _mm_cvtepi32_ps(_mm_add_epi32(xx, vyy));
      __m128 g = _mm_mul_ps(_mm_sub_ps(one, qv::ExpVector4(_mm_mul_ps(na, r2))), qv::ExpVector4(_mm_mul_ps(nb, r2)));
      if (StripeMode == 1)
        g = _mm_mul_ps(g, _mm_sub_ps(one, qv::ExpVector4(_mm_mul_ps(ns, _mm_cvtepi32_ps(xx)))));
      else if (StripeMode == 2)
        g = _mm_mul_ps(g, row_term);
      ScaleBins4(row + c, g);
    }
    for (int c = body; c < pad.Width; ++c) {
      const int xx = WrapSquare(c - cx);
      const double r2 = double(WrapAdd(xx, yy));
      double g = (1.0 - std::exp(-double(a) * r2)) * std::exp(-double(b) * r2);
      if (StripeMode == 1)
        g *= 1.0 - std::exp(-double(s) * double(xx));
      else if (StripeMode == 2)
        g *= row_term_tail;
      ScaleBin(row + c, static_cast<float>(g));
    }
  }
  status = InversePadded(plane, pad);
  if (status == STATUS_OK) {
    // Compact the real parts to the front of the plane (each write lands at
    // or before what it reads), with the extremes of the whole padded plane.
    float* values = reinterpret_cast<float*>(plane);
    const size_t n = pad.Bins();
    for (size_t i = 0; i < n; ++i) values[i] = plane[i].Re;
    float lo = 1e10f, hi = -1e10f;
    RunExtremes(values, n, &lo, &hi);
    StretchCropToBytes(values, pad.Width, pad.Left, pad.Top, lo, hi, Dest, Width, Height, Stride);
  }
  qv::Free(plane);
  return status;
}

extern "C" QV_API int QV_HomomorphicFiltering(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                              int Stride, float CutOff, float GammaHigh, float GammaLow,
                                              float Sharpness) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (Channel == 4) return STATUS_NOT_SUPPORTED;
  if (Channel != 1 && Channel != 3) return STATUS_INVALID_PARAMETER;
  if (Channel == 3) {
    // Filter the luminance, then carry the change back to the colours.
    const size_t n = size_t(Width) * Height;
    unsigned char* lum = qv::MallocArray<unsigned char>(n);
    unsigned char* filtered = qv::MallocArray<unsigned char>(n);
    int status = STATUS_OUT_OF_MEMORY;
    if (lum != nullptr && filtered != nullptr) {
      status = QV_GetLuminance(Src, lum, Width, Height, Stride, 0);
      if (status == STATUS_OK)
        status = QV_HomomorphicFiltering(lum, filtered, Width, Height, Width, CutOff, GammaHigh, GammaLow, Sharpness);
      if (status == STATUS_OK) qv::ColourTransfer(Src, Dest, Width, Height, Stride, lum, filtered, 0);
    }
    qv::Free(lum);
    qv::Free(filtered);
    return status;
  }

  float table[256];
  for (int i = 0; i < 256; ++i) table[i] = static_cast<float>(std::log(double(i + 1)));
  Padding pad;
  int status;
  FFTComplex* plane = ForwardPadded(Src, Width, Height, Stride, table, &pad, &status);
  if (plane == nullptr) return status;
  // G = (GammaHigh - GammaLow) * (1 - exp(-m r2)) + GammaLow.
  const float m = Sharpness / (CutOff * CutOff * 2.0f);
  const float span = GammaHigh - GammaLow;
  const __m128 nm = _mm_set1_ps(-m), vspan = _mm_set1_ps(span), vlow = _mm_set1_ps(GammaLow);
  const __m128 one = _mm_set1_ps(1.0f);
  const int cx = pad.Width / 2, cy = pad.Height / 2, body = pad.Width & ~3;
  for (int r = 0; r < pad.Height; ++r) {
    FFTComplex* row = plane + size_t(r) * pad.Width;
    const int yy = WrapSquare(r - cy);
    const __m128i vyy = _mm_set1_epi32(yy);
    for (int c = 0; c < body; c += 4) {
      const __m128i x = ColumnOffsets(c, cx);
      const __m128 r2 = _mm_cvtepi32_ps(_mm_add_epi32(_mm_mullo_epi32(x, x), vyy));
      const __m128 e = qv::ExpVector4(_mm_mul_ps(nm, r2));
      ScaleBins4(row + c, _mm_add_ps(_mm_mul_ps(vspan, _mm_sub_ps(one, e)), vlow));
    }
    for (int c = body; c < pad.Width; ++c) {
      const float r2 = static_cast<float>(WrapAdd(WrapSquare(c - cx), yy));
      const float e = static_cast<float>(SchraudolphExp(-m * r2));
      ScaleBin(row + c, span * (1.0f - e) + GammaLow);
    }
  }
  status = InversePadded(plane, pad);
  if (status == STATUS_OK) {
    // Back from the log domain: exp(v) - 1, compacted to the front.
    float* values = reinterpret_cast<float*>(plane);
    const size_t n = pad.Bins();
    const size_t groups = n & ~size_t(3);
    for (size_t i = 0; i < groups; i += 4)
      _mm_storeu_ps(values + i, _mm_sub_ps(qv::ExpVector4(LoadRe4(plane + i)), one));
    for (size_t i = groups; i < n; ++i) values[i] = static_cast<float>(SchraudolphExp(plane[i].Re) - 1.0);
    float lo = 1e8f, hi = -1e8f;
    RunExtremes(values, n, &lo, &hi);
    StretchCropToBytes(values, pad.Width, pad.Left, pad.Top, lo, hi, Dest, Width, Height, Stride);
  }
  qv::Free(plane);
  return status;
}

extern "C" QV_API int QV_ShowFFT(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;
  if (Channel != 1)
    return RunPerChannel(Src, Dest, Width, Height, Stride,
                         [&](unsigned char* p) { return QV_ShowFFT(p, p, Width, Height, Width); });

  const int pw = qv::OptimalFFTSize(Width), ph = qv::OptimalFFTSize(Height);
  if (pw < 0 || ph < 0) return STATUS_OUT_OF_MEMORY;  // beyond the size table: no plane
  const size_t n = size_t(pw) * ph;
  // The image sits in the top left corner of a zero plane: no replication.
  FFTComplex* plane = qv::CallocArray<FFTComplex>(n);
  if (plane == nullptr) return STATUS_OUT_OF_MEMORY;
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    FFTComplex* row = plane + size_t(y) * pw;
    for (int x = 0; x < Width; ++x) row[x].Re = s[x];
  }
  int status = qv::FFT2D(plane, plane, pw, ph, 0, ph - Height);
  if (status == STATUS_OK) status = qv::FFTShift(plane, plane, pw, ph);
  if (status == STATUS_OK) {
    // ln(1 + |z|), compacted to the front of the plane.
    float* values = reinterpret_cast<float*>(plane);
    const __m128 one = _mm_set1_ps(1.0f);
    const size_t groups = n & ~size_t(3);
    for (size_t i = 0; i < groups; i += 4) {
      const __m128 a = _mm_loadu_ps(&plane[i].Re), b = _mm_loadu_ps(&plane[i + 2].Re);
      const __m128 re = _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0)),
                   im = _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
      const __m128 mag = _mm_sqrt_ps(_mm_add_ps(_mm_mul_ps(re, re), _mm_mul_ps(im, im)));
      _mm_storeu_ps(values + i, LogF32x4(_mm_add_ps(one, mag)));
    }
    for (size_t i = groups; i < n; ++i) {
      const double re = plane[i].Re, im = plane[i].Im;
      values[i] = static_cast<float>(std::log(1.0 + std::sqrt(re * re + im * im)));
    }
    float lo = 1e10f, hi = -1e10f;
    RunExtremes(values, n, &lo, &hi);
    StretchCropToBytes(values, pw, (pw - Width) / 2, (ph - Height) / 2, lo, hi, Dest, Width, Height, Stride);
  }
  qv::Free(plane);
  return status;
}

// Unpadded spectrum magnitudes / 255. Its pointers are not tested, as the
// operator always behaved: a null image is simply dereferenced.
extern "C" QV_API int QV_ShowFFT_Precise(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                         int Stride) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;
  const size_t n = size_t(Width) * Height;
  const float k = 0.00392156886f;
  auto to_byte = [k](float v) {
    return static_cast<unsigned char>(qv::ClampToByte(qv::TruncateToInt(std::fabs(v) * k)));
  };
  if (Channel == 1) {
    FFTComplex* plane = qv::MallocArray<FFTComplex>(n);
    if (plane == nullptr) return STATUS_OUT_OF_MEMORY;
    for (int y = 0; y < Height; ++y)
      for (int x = 0; x < Width; ++x) plane[size_t(y) * Width + x] = {float(Src[size_t(y) * Stride + x]), 0.0f};
    int status = qv::FFT2D(plane, plane, Width, Height, 0, 0);
    if (status == STATUS_OK) status = qv::FFTShift(plane, plane, Width, Height);
    if (status == STATUS_OK)
      for (int y = 0; y < Height; ++y)
        for (int x = 0; x < Width; ++x) Dest[size_t(y) * Stride + x] = to_byte(plane[size_t(y) * Width + x].Re);
    qv::Free(plane);
    return status;
  }
  // Samples 0 and 1 share one complex plane (as real and imaginary part) and
  // are not separated again; sample 2 has a plane of its own.
  FFTComplex* first = qv::MallocArray<FFTComplex>(n);
  FFTComplex* second = qv::MallocArray<FFTComplex>(n);
  if (first == nullptr || second == nullptr) {
    qv::Free(first);
    qv::Free(second);
    return STATUS_OUT_OF_MEMORY;
  }
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    for (int x = 0; x < Width; ++x, s += Channel) {
      first[size_t(y) * Width + x] = {float(s[0]), float(s[1])};
      second[size_t(y) * Width + x] = {float(s[2]), 0.0f};
    }
  }
  int status = qv::FFT2D(first, first, Width, Height, 0, 0);
  if (status == STATUS_OK) status = qv::FFTShift(first, first, Width, Height);
  if (status == STATUS_OK) status = qv::FFT2D(second, second, Width, Height, 0, 0);
  if (status == STATUS_OK) status = qv::FFTShift(second, second, Width, Height);
  if (status == STATUS_OK) {
    for (int y = 0; y < Height; ++y) {
      unsigned char* d = Dest + size_t(y) * Stride;
      for (int x = 0; x < Width; ++x, d += Channel) {
        const FFTComplex a = first[size_t(y) * Width + x], b = second[size_t(y) * Width + x];
        d[0] = to_byte(a.Re);
        d[1] = to_byte(a.Im);
        d[2] = to_byte(b.Re);
      }
    }
  }
  qv::Free(first);
  qv::Free(second);
  return status;
}
