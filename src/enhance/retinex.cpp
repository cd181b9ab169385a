// The Retinex family: multi-scale Gaussian surround and adaptive logarithmic
// tone mapping on the luminance (with the float-plane tail of float_tail.h),
// and the iterative scheme on 16-bit per-channel log planes.
#include "enhance/retinex.h"

#include <smmintrin.h>

#include <cmath>
#include <cstring>

#include "enhance/float_tail.h"
#include "frame/frame.h"
#include "frame/simd.h"
#include "point/luminance.h"

namespace qv {

void RetinexScales(float* Scales, int MaxSigma, int ScaleCount) {
  const float s = static_cast<float>(MaxSigma);
  if (ScaleCount == 1) {
    Scales[0] = s;
  } else if (ScaleCount == 2) {
    Scales[0] = 0.5f * s;
    Scales[1] = s;
  } else {
    const float step = s / static_cast<float>(ScaleCount);
    for (int i = 0; i < ScaleCount; ++i) Scales[i] = static_cast<float>(i) * step + 2.0f;
  }
}

namespace {

// p from Lp, q from Lq and Rq, Count samples each: the comparison along one run.
void ShiftRun(const int16_t* Lp, const int16_t* Lq, const int16_t* Rq, int16_t* Tp, int Count) {
  const int body = Count & ~7;
  for (int i = 0; i < body; i += 8) {
    const __m128i d = _mm_sub_epi16(Load16Bytes(Lp + i), Load16Bytes(Lq + i));  // wraps
    Store16Bytes(Tp + i, _mm_adds_epi16(Load16Bytes(Rq + i), d));
  }
  for (int i = body; i < Count; ++i) {
    const int v = int(Rq[i]) + Lp[i] - Lq[i];
    Tp[i] = static_cast<int16_t>(v < -32768 ? -32768 : (v > 32767 ? 32767 : v));
  }
}

// Carries the new luminance back: a gray image takes it as it is, a colour
// one gets the change transferred (with GainLimit as ColourTransfer reads it).
int ApplyNewLuminance(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Channel,
                      const unsigned char* Luminance, const unsigned char* Result, int GainLimit) {
  if (Channel == 1) return qv::ApplyLuminancePlane(Src, Result, Dest, Width, Height, Stride, Width);
  return qv::ColourTransfer(Src, Dest, Width, Height, Stride, Luminance, Result, GainLimit);
}

}  // namespace

void ShiftCompare(const int16_t* L, const int16_t* R, int16_t* T, int Width, int Height, int Channel, int Dx, int Dy) {
  const size_t row = size_t(Width) * Channel;
  std::memcpy(T, R, row * Height * sizeof(int16_t));
  const int ax = Dx < 0 ? -Dx : Dx, ay = Dy < 0 ? -Dy : Dy;
  if (ax >= Width || ay >= Height) return;  // no sample has a source
  const int y0 = Dy > 0 ? Dy : 0, y1 = Dy < 0 ? Height + Dy : Height;
  const int x0 = Dx > 0 ? Dx : 0;
  const int count = (Width - ax) * Channel;
  for (int y = y0; y < y1; ++y) {
    const size_t p = size_t(y) * row + size_t(x0) * Channel;
    const size_t q = size_t(y - Dy) * row + size_t(x0 - Dx) * Channel;
    ShiftRun(L + p, L + q, R + q, T + p, count);
  }
}

void AverageInto(int16_t* R, const int16_t* T, size_t Count) {
  const size_t body = Count & ~size_t(7);
  for (size_t i = 0; i < body; i += 8) {
    const __m128i a = Load16Bytes(T + i), b = Load16Bytes(R + i);
    // (a & b) + ((a ^ b) >> 1): the floor of the mean, with no overflow.
    Store16Bytes(R + i, _mm_add_epi16(_mm_and_si128(a, b), _mm_srai_epi16(_mm_xor_si128(a, b), 1)));
  }
  for (size_t i = body; i < Count; ++i) R[i] = static_cast<int16_t>((int(T[i]) + R[i]) / 2);
}

int FrankleMccannIterate(int16_t* L, int Width, int Height, int Channel, int Iterations) {
  const size_t n = size_t(Width) * Height * Channel;
  int16_t* R = MallocArray<int16_t>(n);
  int16_t* T = MallocArray<int16_t>(n);
  if (R == nullptr || T == nullptr) {
    Free(R);
    Free(T);
    return STATUS_OUT_OF_MEMORY;
  }
  for (size_t i = 0; i < n; ++i) R[i] = 32767;
  const int side = Width < Height ? Width : Height;
  for (int it = 0; it < Iterations; ++it) {
    int s = TruncateToInt(std::pow(2.0, std::floor(static_cast<double>(log2f(static_cast<float>(side)))) - 1.0));
    // 128, -64, 32, ... -1: the shifts halve and alternate in sign.
    while (s >= 1 || s <= -1) {
      ShiftCompare(L, R, T, Width, Height, Channel, 0, s);
      AverageInto(R, T, n);
      ShiftCompare(L, R, T, Width, Height, Channel, s, 0);
      AverageInto(R, T, n);
      s = -(s / 2);
    }
  }
  std::memcpy(L, R, n * sizeof(int16_t));
  Free(R);
  Free(T);
  return STATUS_OK;
}

}  // namespace qv

extern "C" QV_API int QV_Retinex(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                 int MaxSigma, int ScaleCount, float ClipShare) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;

  const size_t n = size_t(Width) * Height;
  unsigned char* luminance = qv::MallocArray<unsigned char>(n);
  unsigned char* result = qv::MallocArray<unsigned char>(n);
  float* plane = qv::MallocArray<float>(n);
  // A negative count asks for more memory than exists: refused without
  // asking the heap, as the heap would refuse it.
  float* scales = ScaleCount >= 0 ? qv::MallocArray<float>(size_t(ScaleCount)) : nullptr;
  // The ladder is filled before the allocations are looked at (when its own
  // allocation succeeded).
  if (scales != nullptr) qv::RetinexScales(scales, MaxSigma, ScaleCount);
  if (luminance == nullptr || result == nullptr || plane == nullptr || scales == nullptr) {
    qv::FreeAll(luminance, result, plane, scales);
    return STATUS_OUT_OF_MEMORY;
  }

  int status = QV_GetLuminance(Src, luminance, Width, Height, Stride, 0);
  if (status == STATUS_OK) {
    float table[256];
    for (int i = 0; i < 256; ++i) table[i] = static_cast<float>(std::log(double(i + 1)));
    std::memset(plane, 0, n * sizeof(float));
    // Infinite for a count of 0, but then no scale uses it.
    const float reciprocal = 1.0f / static_cast<float>(ScaleCount);
    for (int k = 0; k < ScaleCount && status == STATUS_OK; ++k) {
      unsigned char* blurred = qv::MallocArray<unsigned char>(n);
      if (blurred == nullptr) {
        status = STATUS_OUT_OF_MEMORY;
        break;
      }
      status = QV_GaussBlur(luminance, blurred, Width, Height, Width, scales[k]);
      if (status == STATUS_OK)
        for (size_t i = 0; i < n; ++i) plane[i] += (table[luminance[i]] - table[blurred[i]]) * reciprocal;
      qv::Free(blurred);
    }
  }
  if (status == STATUS_OK) {
    // Its status is not looked at: a failed clip leaves the plane as it was.
    qv::ClipNormalizeFloat(plane, plane, Width, Height, ClipShare, ClipShare);
    status = qv::FloatPlaneToBytes(plane, result, Width, Height);
  }
  if (status == STATUS_OK)
    status = qv::ApplyNewLuminance(Src, Dest, Width, Height, Stride, Channel, luminance, result, 4);
  qv::FreeAll(luminance, result, plane, scales);
  return status;
}

extern "C" QV_API int QV_ALTM_Retinex(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                      float ClipShare) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;

  const size_t n = size_t(Width) * Height;
  unsigned char* luminance = qv::MallocArray<unsigned char>(n);
  unsigned char* result = qv::MallocArray<unsigned char>(n);
  float* plane = qv::MallocArray<float>(n);
  float* table = qv::MallocArray<float>(256);
  if (luminance == nullptr || result == nullptr || plane == nullptr || table == nullptr) {
    qv::FreeAll(luminance, result, plane, table);
    return STATUS_OUT_OF_MEMORY;
  }

  int status = QV_GetLuminance(Src, luminance, Width, Height, Stride, 0);
  if (status == STATUS_OK) {
    // The largest of the first Width * Height bytes of Src, rows Width
    // apart: a first third of a colour picture as raw bytes, by design.
    const int lmax = qv::MaxOfPlane(Src, Width, Height, Width);
    const double f = 0.003921569f;
    for (int i = 0; i < 256; ++i) table[i] = static_cast<float>(std::log(i * f + 1e-6));
    long double sum = 0;
    for (size_t i = 0; i < n; ++i) sum += table[luminance[i]];
    const long double lwa = std::exp(sum / static_cast<long double>(n));
    // An all-zero lmax makes d 0 and the table infinite or NaN; the stretch
    // to bytes still gives defined bytes.
    const long double d = std::log(lmax * f / lwa + 1);
    for (int i = 0; i < 256; ++i) table[i] = static_cast<float>(std::log(i * f / lwa + 1) / d);
    for (size_t i = 0; i < n; ++i) plane[i] = table[luminance[i]];
    if (ClipShare != 0.0f) status = qv::ClipNormalizeFloat(plane, plane, Width, Height, ClipShare, ClipShare);
  }
  if (status == STATUS_OK) status = qv::FloatPlaneToBytes(plane, result, Width, Height);
  if (status == STATUS_OK)
    status = qv::ApplyNewLuminance(Src, Dest, Width, Height, Stride, Channel, luminance, result, 0);
  qv::FreeAll(luminance, result, plane, table);
  return status;
}

extern "C" QV_API int QV_FrankleMccannRetinex(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                              int Stride, int Iterations) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1 || Iterations < 1) return STATUS_INVALID_PARAMETER;
  if (Channel != 1 && Channel != 3) return STATUS_NOT_SUPPORTED;

  int maxima[3] = {0, 0, 0};
  qv::ChannelMaxima(Src, Width, Height, Stride, &maxima[0], &maxima[1], &maxima[2]);
  const int row = Width * Channel;
  const size_t n = size_t(row) * Height;
  int16_t* L = qv::MallocArray<int16_t>(n);
  int16_t* table = qv::MallocArray<int16_t>(size_t(Channel) * 256);
  // Exhausted memory is not reported by this operator: success, Dest unwritten.
  if (L == nullptr || table == nullptr) {
    qv::Free(L);
    qv::Free(table);
    return STATUS_OK;
  }
  for (int c = 0; c < Channel; ++c) {
    // A channel's own maximum maps to 32767. An all-zero channel divides by
    // ln 1 = 0; the infinity or NaN converts to INT_MIN, whose low 16 bits are 0.
    const double denominator = std::log(maxima[c] + 1.0);
    for (int i = 0; i < 256; ++i) {
      const int v = qv::TruncateToInt(std::log(i + 1.0) / denominator * 32767.0);
      table[c * 256 + i] = static_cast<int16_t>(static_cast<uint16_t>(static_cast<unsigned>(v)));
    }
  }
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    int16_t* l = L + size_t(y) * row;
    for (int x = 0; x < row; x += Channel)
      for (int c = 0; c < Channel; ++c) l[x + c] = table[c * 256 + s[x + c]];
  }

  if (qv::FrankleMccannIterate(L, Width, Height, Channel, Iterations) == STATUS_OK) {
    // exp(v * k) takes 32767 to 255 in every channel.
    const double k = std::log(255.0) * 3.0518509476e-05;
    const __m128 kf = _mm_set1_ps(static_cast<float>(k));
    const int body = row & ~7;
    for (int y = 0; y < Height; ++y) {
      const int16_t* l = L + size_t(y) * row;
      unsigned char* d = Dest + size_t(y) * Stride;
      for (int x = 0; x < body; x += 8) {
        const __m128i v = qv::Load16Bytes(l + x);
        const __m128 lo = _mm_mul_ps(_mm_cvtepi32_ps(_mm_cvtepi16_epi32(v)), kf);
        const __m128 hi = _mm_mul_ps(_mm_cvtepi32_ps(_mm_cvtepi16_epi32(_mm_srli_si128(v, 8))), kf);
        // Truncated here, rounded in the tail.
        qv::Store8Bytes(
            d + x, qv::NarrowI32x8ToU8(_mm_cvttps_epi32(qv::ExpVector4(lo)), _mm_cvttps_epi32(qv::ExpVector4(hi))));
      }
      for (int x = body; x < row; ++x) {
        const long double e = std::exp(static_cast<long double>(l[x]) * k) + 0.499999911f;
        const int v = static_cast<int>(e);  // e lies in 0..256 for any 16-bit v
        d[x] = static_cast<unsigned char>(v < 0 ? 0 : (v > 255 ? 255 : v));
      }
    }
  }
  qv::Free(L);
  qv::Free(table);
  return STATUS_OK;
}
