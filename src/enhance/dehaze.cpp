// Dark-channel dehazing: per-pixel minimum and lightness, the dark channel by
// QV_MinFilter, atmospheric light from the top percent, one-multiplier
// transmission refined by QV_GuidedFilter, recovery, then QV_GammaCorrection.
#include "enhance/dehaze.h"

#include <smmintrin.h>

#include <cstdint>

#include "enhance/float_tail.h"
#include "frame/border.h"
#include "frame/frame.h"
#include "frame/simd.h"
#include "point/pixel_planes.h"
#include "point/shuffle3.h"

namespace qv {

void DarkAndLightness(const unsigned char* Src, unsigned char* Dark, unsigned char* Guide, int Width, int Height,
                      int Stride, int Channel) {
  const int body = Width & ~15;
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    unsigned char* d = Dark + size_t(y) * Width;
    unsigned char* g = Guide + size_t(y) * Width;
    for (int x = 0; x < body; x += 16) {
      __m128i p0, p1, p2;
      if (Channel == 3) {
        const Planes3 p = Load3Planes(s + 3 * x);
        p0 = p.p0, p1 = p.p1, p2 = p.p2;
      } else {
        __m128i p3;  // the fourth sample plays no part
        SplitPixels4(s + 4 * x, p0, p1, p2, p3);
      }
      const __m128i lo = _mm_min_epu8(_mm_min_epu8(p0, p1), p2);
      const __m128i hi = _mm_max_epu8(_mm_max_epu8(p0, p1), p2);
      Store16Bytes(d + x, lo);
      Store16Bytes(g + x, _mm_avg_epu8(lo, hi));  // rounds up
    }
    for (int x = body; x < Width; ++x) {
      const unsigned char* p = s + size_t(x) * Channel;
      int lo = p[0] < p[1] ? p[0] : p[1], hi = p[0] < p[1] ? p[1] : p[0];
      if (p[2] < lo) lo = p[2];
      if (p[2] > hi) hi = p[2];
      d[x] = static_cast<unsigned char>(lo);
      g[x] = static_cast<unsigned char>((lo + hi) >> 1);  // rounds down
    }
  }
}

void AtmosphericLight(const unsigned char* Src, const unsigned char* Dark, int Width, int Height, int Stride,
                      int Channel, int Limit, int* A) {
  uint32_t hist[256] = {};
  const size_t n = size_t(Width) * Height;
  for (size_t i = 0; i < n; ++i) ++hist[Dark[i]];
  // A float product: 0.01f * 100 * k rounds to exactly k, so exactly one
  // percent in the top bins does not yet pass the strict comparison below.
  const float limit = static_cast<float>(int64_t(Width) * Height) * 0.01f;
  int threshold = 0;
  uint32_t total = 0;
  for (int b = 255; b >= 0; --b) {
    total += hist[b];
    if (static_cast<float>(total) > limit) {
      threshold = b;
      break;
    }
  }
  uint32_t sum[3] = {0, 0, 0}, count = 0;
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    const unsigned char* d = Dark + size_t(y) * Width;
    for (int x = 0; x < Width; ++x, s += Channel) {
      if (d[x] < threshold) continue;
      sum[0] += s[0], sum[1] += s[1], sum[2] += s[2];
      ++count;
    }
  }
  for (int k = 0; k < 3; ++k) {
    // The threshold bin is never empty, so count >= 1; the guard only keeps
    // the division defined should a wrapped count say otherwise.
    const int v = count == 0 ? 0 : static_cast<int>(sum[k] / count);
    A[k] = v > Limit ? Limit : v;
  }
}

int TransmissionFactor(const int* A, float Omega) {
  // 64-bit sum: a negative Limit can make the three A huge and negative.
  const int m = static_cast<int>((int64_t(A[0]) + A[1] + A[2]) / 3);
  // m = 0 divides by zero in double (no fault); the conversion of the
  // infinity or NaN gives INT_MIN, the processor's indefinite integer.
  return TruncateToInt(static_cast<double>(Omega) * 65536.0 / m);
}

void RawTransmission(unsigned char* Plane, size_t Count, int K) {
  const size_t body = Count & ~size_t(7);
  const __m128i k = _mm_set1_epi32(K), full = _mm_set1_epi32(255), zero = _mm_setzero_si128();
  for (size_t i = 0; i < body; i += 8) {
    const __m128i w = _mm_unpacklo_epi8(Load8Bytes(Plane + i), zero);
    const __m128i lo = _mm_sub_epi32(full, _mm_srli_epi32(_mm_mullo_epi32(_mm_unpacklo_epi16(w, zero), k), 8));
    const __m128i hi = _mm_sub_epi32(full, _mm_srli_epi32(_mm_mullo_epi32(_mm_unpackhi_epi16(w, zero), k), 8));
    Store8Bytes(Plane + i, NarrowI32x8ToU8(lo, hi));
  }
  for (size_t i = body; i < Count; ++i) {
    // Unsigned: the product wraps and the shift is logical, as in the lanes.
    const uint32_t p = uint32_t(Plane[i]) * uint32_t(K);
    const int v = 255 - static_cast<int>(p >> 8);
    Plane[i] = static_cast<unsigned char>(v < 0 ? 0 : v);
  }
}

namespace {

// max(Trans, T0) taken in integers and kept as its low byte, in both loops
// alike, so that a T0 outside 0..255 gives the same t everywhere.
inline int TransmissionByte(int Trans, int T0) { return (Trans > T0 ? Trans : T0) & 255; }

inline void RecoverTail(const unsigned char* s, unsigned char* d, int t, const int* A, int Channel) {
  for (int k = 0; k < 3; ++k) {
    // A t of 0 is an integer division by zero here: the pixel is given 0,
    // what the block loop's indefinite quotient clamps to.
    const int64_t v = t == 0 ? 0 : (int64_t(s[k]) - A[k]) * 255 / t + A[k];
    d[k] = static_cast<unsigned char>(v < 0 ? 0 : (v > 255 ? 255 : v));
  }
  if (Channel == 4) d[3] = s[3];
}

}  // namespace

void RecoverHaze(const unsigned char* Src, unsigned char* Dest, const unsigned char* Trans, int Width, int Height,
                 int Stride, int Channel, const int* A, int T0) {
  const int body = Width & ~3;
  const __m128i full = _mm_set1_epi32(255), t0 = _mm_set1_epi32(T0);
  // A per lane of three vectors of four samples (4 pixels of 3), or per
  // lane of one 4-sample pixel with 255 in the fourth place.
  const __m128i a3[3] = {_mm_setr_epi32(A[0], A[1], A[2], A[0]), _mm_setr_epi32(A[1], A[2], A[0], A[1]),
                         _mm_setr_epi32(A[2], A[0], A[1], A[2])};
  const __m128i a4 = _mm_setr_epi32(A[0], A[1], A[2], 255);
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    unsigned char* d = Dest + size_t(y) * Stride;
    const unsigned char* tr = Trans + size_t(y) * Width;
    for (int x = 0; x < body; x += 4) {
      const __m128i t4 = _mm_and_si128(_mm_max_epi32(_mm_cvtepu8_epi32(Load4Bytes(tr + x)), t0), full);
      if (Channel == 3) {
        const unsigned char* p = s + 3 * x;
        const __m128i v = _mm_unpacklo_epi64(Load8Bytes(p), Load4Bytes(p + 8));
        const __m128i c[3] = {_mm_cvtepu8_epi32(v), _mm_cvtepu8_epi32(_mm_srli_si128(v, 4)),
                              _mm_cvtepu8_epi32(_mm_srli_si128(v, 8))};
        const __m128i ts[3] = {_mm_shuffle_epi32(t4, _MM_SHUFFLE(1, 0, 0, 0)),
                               _mm_shuffle_epi32(t4, _MM_SHUFFLE(2, 2, 1, 1)),
                               _mm_shuffle_epi32(t4, _MM_SHUFFLE(3, 3, 3, 2))};
        __m128i q[3];
        for (int k = 0; k < 3; ++k) {
          // (s - A) * 255 + t * A over t: the whole value rounded at once.
          const __m128i num =
              _mm_add_epi32(_mm_mullo_epi32(_mm_sub_epi32(c[k], a3[k]), full), _mm_mullo_epi32(ts[k], a3[k]));
          q[k] = _mm_cvtps_epi32(_mm_div_ps(_mm_cvtepi32_ps(num), _mm_cvtepi32_ps(ts[k])));
        }
        const __m128i b = _mm_packus_epi16(_mm_packs_epi32(q[0], q[1]), _mm_packs_epi32(q[2], q[2]));
        unsigned char* o = d + 3 * x;
        Store8Bytes(o, b);
        Store4Bytes(o + 8, _mm_srli_si128(b, 8));
      } else {
        const __m128i v = Load16Bytes(s + 4 * x);
        const __m128i c[4] = {_mm_cvtepu8_epi32(v), _mm_cvtepu8_epi32(_mm_srli_si128(v, 4)),
                              _mm_cvtepu8_epi32(_mm_srli_si128(v, 8)), _mm_cvtepu8_epi32(_mm_srli_si128(v, 12))};
        // t in the three colour lanes, 255 in the fourth: with A = 255 there
        // the sample comes back unchanged.
        const __m128i t[4] = {_mm_blend_epi16(_mm_shuffle_epi32(t4, 0x00), full, 0xC0),
                              _mm_blend_epi16(_mm_shuffle_epi32(t4, 0x55), full, 0xC0),
                              _mm_blend_epi16(_mm_shuffle_epi32(t4, 0xAA), full, 0xC0),
                              _mm_blend_epi16(_mm_shuffle_epi32(t4, 0xFF), full, 0xC0)};
        __m128i q[4];
        for (int k = 0; k < 4; ++k) {
          const __m128 num = _mm_cvtepi32_ps(_mm_mullo_epi32(_mm_sub_epi32(c[k], a4), full));
          // Rounded before A is added: ties go to the even quotient, not to
          // the even result.
          q[k] = _mm_add_epi32(_mm_cvtps_epi32(_mm_div_ps(num, _mm_cvtepi32_ps(t[k]))), a4);
        }
        Store16Bytes(d + 4 * x, _mm_packus_epi16(_mm_packs_epi32(q[0], q[1]), _mm_packs_epi32(q[2], q[3])));
      }
    }
    for (int x = body; x < Width; ++x)
      RecoverTail(s + size_t(x) * Channel, d + size_t(x) * Channel, TransmissionByte(tr[x], T0), A, Channel);
  }
}

}  // namespace qv

extern "C" QV_API int QV_HazeRemovalBasedOnDarkChannelPrior(const unsigned char* Src, unsigned char* Dest, int Width,
                                                            int Height, int Stride, int DarkRadius, int GuideRadius,
                                                            int AtmosphericLimit, float Omega, float MinTransmission,
                                                            float Gamma) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (!qv::IsChannel34(Channel)) return STATUS_INVALID_PARAMETER;
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;

  const size_t n = size_t(Width) * Height;
  unsigned char* dark = qv::MallocArray<unsigned char>(n);
  unsigned char* guide = qv::MallocArray<unsigned char>(n);
  if (dark == nullptr || guide == nullptr) {
    qv::Free(dark);
    qv::Free(guide);
    return STATUS_OUT_OF_MEMORY;
  }

  qv::DarkAndLightness(Src, dark, guide, Width, Height, Stride, Channel);
  int status = QV_MinFilter(dark, dark, Width, Height, Width, DarkRadius);
  if (status == STATUS_OK) {
    int A[3];
    qv::AtmosphericLight(Src, dark, Width, Height, Stride, Channel, AtmosphericLimit, A);
    qv::RawTransmission(dark, n, qv::TransmissionFactor(A, Omega));
    status = QV_GuidedFilter(dark, guide, dark, Width, Height, Width, GuideRadius, 20, 20.0f);
    if (status == STATUS_OK) {
      const int t0 = qv::TruncateToInt(static_cast<double>(MinTransmission) * 255.0);
      qv::RecoverHaze(Src, Dest, dark, Width, Height, Stride, Channel, A, t0);
      status = QV_GammaCorrection(Dest, Dest, Width, Height, Stride, Gamma);
    }
  }
  qv::Free(dark);
  qv::Free(guide);
  return status;
}
