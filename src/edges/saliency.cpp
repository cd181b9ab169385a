// Frequency-tuned saliency: squared Lab distance of each lightly blurred
// pixel from the image's mean colour, on the fixed-point Lab conversion
// below, stretched to bytes.
#include <emmintrin.h>
#include <smmintrin.h>
#include <tmmintrin.h>

#include <cmath>
#include <cstdint>
#include <cstring>

#include "edges/edges.h"
#include "frame/frame.h"
#include "frame/simd.h"
#include "point/luminance.h"

namespace qv {
namespace {

// Arithmetic right shift written so that it is defined for negative values.
inline int Sar(int v, int n) { return v >= 0 ? v >> n : ~(~v >> n); }

// f(t) of the Lab definition for t = i / 1020, in 10 fractional bits.
void BuildLabTable(int* F) {
  for (int i = 0; i < 1024; ++i) {
    if (i > 9)
      F[i] = static_cast<int>(
          std::pow(static_cast<double>(i * 0.0009803922f), static_cast<double>(0.33333334f)) * 1024 + 0.5);
    else
      F[i] = static_cast<int>(1024 * (float(i * 841) * 9.077705e-6f + 0.13793103f) + 0.5f);
  }
}

inline void LabOfPixel(const int* F, int c0, int c1, int c2, unsigned char* L, unsigned char* A, unsigned char* B) {
  const int fx = F[(195 * c0 + 385 * c1 + 444 * c2 + 512) >> 8];
  const int fy = F[(74 * c0 + 732 * c1 + 218 * c2 + 512) >> 8];
  const int fz = F[(894 * c0 + 112 * c1 + 18 * c2 + 512) >> 8];
  // Every byte colour lands inside 0..255 on all three planes.
  *L = static_cast<unsigned char>((fy * 296 - 41267) >> 10);
  *A = static_cast<unsigned char>(Sar((fx - fy) * 500 + 512, 10) + 128);
  *B = static_cast<unsigned char>(Sar((fy - fz) * 200 + 512, 10) + 128);
}

}  // namespace

int RgbToLabPlanes(const unsigned char* Src, unsigned char* L, unsigned char* A, unsigned char* B, int Width,
                   int Height, int Stride, unsigned char RowPadded) {
  if (Src == nullptr || L == nullptr || A == nullptr || B == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (GuardedChannel(Stride, Width) != 3) return STATUS_INVALID_PARAMETER;
  const int pitch = RowPadded ? ((Width * 8 + 31) / 32) * 4 : Width;
  const int blocks = Width / 4;
  // Table results of one row: X, Y, Z indices' F values for 4 pixels a block.
  int16_t* scratch = AlignedArray<int16_t>(size_t(blocks) * 12, 16);
  if (scratch == nullptr) return STATUS_NULL_REFERENCE;  // as the routine has it
  int F[1024];
  BuildLabTable(F);

  // X, Y, Z weights of a pixel with a constant 1 beside it: (b, g) and (r, 1).
  const __m128i spread = _mm_setr_epi8(0, -1, 1, -1, 2, -1, 15, -1, 3, -1, 4, -1, 5, -1, 15, -1);
  const __m128i spread23 = _mm_setr_epi8(6, -1, 7, -1, 8, -1, 15, -1, 9, -1, 10, -1, 11, -1, 15, -1);
  const __m128i wx = _mm_setr_epi16(195, 385, 444, 512, 195, 385, 444, 512);
  const __m128i wy = _mm_setr_epi16(74, 732, 218, 512, 74, 732, 218, 512);
  const __m128i wz = _mm_setr_epi16(894, 112, 18, 512, 894, 112, 18, 512);
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    unsigned char* l = L + size_t(y) * pitch;
    unsigned char* a = A + size_t(y) * pitch;
    unsigned char* b = B + size_t(y) * pitch;
    for (int k = 0; k < blocks; ++k) {
      // Twelve bytes, read as 8 + 4 so that nothing past the row is touched;
      // byte 15 is set to 1 for the rounding term.
      __m128i v = _mm_unpacklo_epi64(Load8Bytes(s + 12 * k), Load4Bytes(s + 12 * k + 8));
      v = _mm_insert_epi8(v, 1, 15);
      const __m128i p01 = _mm_shuffle_epi8(v, spread);
      const __m128i p23 = _mm_shuffle_epi8(v, spread23);
      int16_t* t = scratch + 12 * k;
      auto lookup = [&](__m128i w, int slot) {
        // madd gives (b*wb + g*wg, r*wr + 512) per pixel; one hadd closes them.
        const __m128i idx = _mm_srli_epi32(_mm_hadd_epi32(_mm_madd_epi16(p01, w), _mm_madd_epi16(p23, w)), 8);
        alignas(16) int i4[4];
        _mm_store_si128(reinterpret_cast<__m128i*>(i4), idx);
        for (int q = 0; q < 4; ++q) t[q * 3 + slot] = static_cast<int16_t>(F[i4[q]]);
      };
      lookup(wx, 0);
      lookup(wy, 1);
      lookup(wz, 2);
    }
    // Step 3 on the table results of the blocks.
    for (int k = 0; k < blocks; ++k) {
      const int16_t* t = scratch + 12 * k;
      for (int q = 0; q < 4; ++q) {
        const int fx = t[q * 3], fy = t[q * 3 + 1], fz = t[q * 3 + 2];
        const int x = 4 * k + q;
        l[x] = static_cast<unsigned char>((fy * 296 - 41267) >> 10);
        a[x] = static_cast<unsigned char>(Sar((fx - fy) * 500 + 512, 10) + 128);
        b[x] = static_cast<unsigned char>(Sar((fy - fz) * 200 + 512, 10) + 128);
      }
    }
    for (int x = blocks * 4; x < Width; ++x) LabOfPixel(F, s[3 * x], s[3 * x + 1], s[3 * x + 2], l + x, a + x, b + x);
  }
  AlignedFree(scratch);
  return STATUS_OK;
}

int IntPlaneToBytes(const int* Plane, unsigned char* Out, int Width, int Height) {
  if (Plane == nullptr || Out == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  const int n = Width * Height;
  int lo = Plane[0], hi = Plane[0];
  for (int i = 1; i < n; ++i) {
    lo = Plane[i] < lo ? Plane[i] : lo;
    hi = Plane[i] > hi ? Plane[i] : hi;
  }
  if (lo == hi) {
    std::memset(Out, 128, size_t(n));
    return STATUS_OK;
  }
  // The range is taken in 64 bits: a span past 2^31 stays defined.
  const double scale = 255.0 / static_cast<double>(int64_t(hi) - int64_t(lo));
  const __m128 vscale = _mm_set1_ps(static_cast<float>(scale));
  const __m128i vlo = _mm_set1_epi32(lo);
  const int body = n & ~7;
  for (int i = 0; i < body; i += 8) {
    const __m128i d0 = _mm_sub_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(Plane + i)), vlo);
    const __m128i d1 = _mm_sub_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(Plane + i + 4)), vlo);
    const __m128i r0 = _mm_cvtps_epi32(_mm_mul_ps(_mm_cvtepi32_ps(d0), vscale));
    const __m128i r1 = _mm_cvtps_epi32(_mm_mul_ps(_mm_cvtepi32_ps(d1), vscale));
    Store8Bytes(Out + i, NarrowI32x8ToU8(r0, r1));
  }
  for (int i = body; i < n; ++i)
    Out[i] = static_cast<unsigned char>(static_cast<int>((double(Plane[i]) - double(lo)) * scale + 0.5));
  return STATUS_OK;
}

}  // namespace qv

extern "C" QV_API int QV_SalientRegionDetection_FT(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                                   int Stride, unsigned char RowPadded) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel34(Channel)) return STATUS_NOT_SUPPORTED;
  const int pitch = RowPadded ? ((Width * 8 + 31) / 32) * 4 : Width;
  const size_t size = size_t(pitch) * size_t(Height);
  unsigned char* L = qv::MallocArray<unsigned char>(size);
  unsigned char* A = qv::MallocArray<unsigned char>(size);
  unsigned char* B = qv::MallocArray<unsigned char>(size);
  int* S = qv::MallocArray<int>(size);
  int status = STATUS_OUT_OF_MEMORY;
  if (L != nullptr && A != nullptr && B != nullptr && S != nullptr) status = STATUS_OK;
  // A 4-channel image passes the test above and is refused here with 1.
  if (status == STATUS_OK) status = qv::RgbToLabPlanes(Src, L, A, B, Width, Height, Stride, RowPadded);
  if (status == STATUS_OK && pitch != Width) {
    // The conversion leaves row padding unwritten; cleared, it gives the
    // means, the blur and the run below defined values.
    for (int y = 0; y < Height; ++y) {
      const size_t o = size_t(y) * pitch + Width;
      std::memset(L + o, 0, size_t(pitch - Width));
      std::memset(A + o, 0, size_t(pitch - Width));
      std::memset(B + o, 0, size_t(pitch - Width));
    }
  }
  int mean[3] = {0, 0, 0};
  unsigned char* planes[3] = {L, A, B};
  for (int k = 0; k < 3 && status == STATUS_OK; ++k) {
    int m1, m2, m3;
    status = qv::ImageChannelMeans(planes[k], Width, Height, pitch, &mean[k], &m1, &m2, &m3);
  }
  for (int k = 0; k < 3 && status == STATUS_OK; ++k) status = QV_ExpBlur(planes[k], planes[k], Width, Height, pitch, 1);
  if (status == STATUS_OK) {
    // The run of Width * Height values; past it (only with padded rows) the
    // plane is cleared rather than left unset.
    const int n = Width * Height;
    const int ml = mean[0], ma = mean[1], mb = mean[2];
    const __m128i vml = _mm_set1_epi32(ml), vma = _mm_set1_epi32(ma), vmb = _mm_set1_epi32(mb);
    const __m128i k2500 = _mm_set1_epi32(2500);
    const int body = n & ~7;
    for (int i = 0; i < body; i += 4) {
      const __m128i l = _mm_cvtepu8_epi32(qv::Load4Bytes(L + i)), a = _mm_cvtepu8_epi32(qv::Load4Bytes(A + i));
      const __m128i b = _mm_cvtepu8_epi32(qv::Load4Bytes(B + i));
      const __m128i db = _mm_sub_epi32(vmb, b), da = _mm_sub_epi32(vma, a), dl = _mm_sub_epi32(vml, l);
      const __m128i ab = _mm_slli_epi32(_mm_add_epi32(_mm_mullo_epi32(db, db), _mm_mullo_epi32(da, da)), 14);
      const __m128i s = _mm_add_epi32(ab, _mm_mullo_epi32(_mm_mullo_epi32(dl, dl), k2500));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(S + i), s);
    }
    for (int i = body; i < n; ++i) {
      const uint32_t db = uint32_t(mb - B[i]), da = uint32_t(ma - A[i]), dl = uint32_t(ml - L[i]);
      S[i] = static_cast<int>(((db * db + da * da) << 14) + dl * dl * 2500u);
    }
    if (size > size_t(n)) std::memset(S + n, 0, sizeof(int) * (size - size_t(n)));
    status = qv::IntPlaneToBytes(S, Dest, pitch, Height);
  }
  qv::Free(L), qv::Free(A), qv::Free(B), qv::Free(S);
  return status;
}
