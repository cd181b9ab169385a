// QV_RadiusSharpen3X3: each sample moves by the gap between the two 3x3
// neighbours nearest to and farthest from the neighbourhood mean, scaled by
// Amount; three rolling padded rows with replicated edges, as QV_Sharpen.
#include <smmintrin.h>

#include "frame/border.h"
#include "frame/frame.h"
#include "sharpen/sharpen.h"

namespace {

// The nine samples in raster order: nearest to the mean (first on a tie) and
// farthest (last on a tie).
inline void NearFar(const int* V, int* Near, int* Far) {
  const int mean = (V[0] + V[1] + V[2] + V[3] + V[4] + V[5] + V[6] + V[7] + V[8]) / 9;
  int near_d = 256, far_d = -1;
  for (int i = 0; i < 9; ++i) {
    const int d = V[i] > mean ? V[i] - mean : mean - V[i];
    if (d < near_d) near_d = d, *Near = V[i];
    if (d >= far_d) far_d = d, *Far = V[i];
  }
}

// One step of the scan over 16 byte lanes, same tie rules as NearFar.
inline void NearFarStep(__m128i V, __m128i Mean, __m128i& NearD, __m128i& NearV, __m128i& FarD, __m128i& FarV) {
  const __m128i d = _mm_or_si128(_mm_subs_epu8(V, Mean), _mm_subs_epu8(Mean, V));
  const __m128i not_nearer = _mm_cmpeq_epi8(_mm_max_epu8(d, NearD), d);  // d >= NearD
  NearD = _mm_min_epu8(NearD, d);
  NearV = _mm_blendv_epi8(V, NearV, not_nearer);
  const __m128i new_far = _mm_max_epu8(d, FarD);
  FarV = _mm_blendv_epi8(FarV, V, _mm_cmpeq_epi8(new_far, d));  // d >= FarD
  FarD = new_far;
}

// (near - far) * 2 * K >> 16 on eight 16-bit lanes. K = 32768 does not fit
// the signed multiplier; there the product is exactly (near - far) itself.
template <bool FullAmount>
inline __m128i Push(__m128i Gap, __m128i K) {
  if (FullAmount) return Gap;
  return _mm_mulhi_epi16(_mm_slli_epi16(Gap, 1), K);
}

template <bool FullAmount>
void RadiusRow(const unsigned char* U, const unsigned char* M, const unsigned char* D, unsigned char* Out, int N, int C,
               int K) {
  const int block_end = N & ~15;
  const __m128i zero = _mm_setzero_si128();
  const __m128i vk = _mm_set1_epi16(static_cast<int16_t>(FullAmount ? 0 : K));
  const __m128i ninth = _mm_set1_epi16(7282);  // ceil(65536 / 9): exact for sums up to 2295
  for (int i = 0; i < block_end; i += 16) {
    __m128i v[9];
    const unsigned char* rows[3] = {U + i, M + i, D + i};
    for (int r = 0; r < 3; ++r)
      for (int k = 0; k < 3; ++k) v[3 * r + k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[r] + k * C));
    __m128i lo = zero, hi = zero;
    for (int k = 0; k < 9; ++k) {
      lo = _mm_add_epi16(lo, _mm_unpacklo_epi8(v[k], zero));
      hi = _mm_add_epi16(hi, _mm_unpackhi_epi8(v[k], zero));
    }
    const __m128i mean = _mm_packus_epi16(_mm_mulhi_epu16(lo, ninth), _mm_mulhi_epu16(hi, ninth));
    __m128i near_v = v[0], far_v = v[0];
    __m128i near_d = _mm_or_si128(_mm_subs_epu8(v[0], mean), _mm_subs_epu8(mean, v[0]));
    __m128i far_d = near_d;
    for (int k = 1; k < 9; ++k) NearFarStep(v[k], mean, near_d, near_v, far_d, far_v);
    const __m128i gap_lo = _mm_sub_epi16(_mm_unpacklo_epi8(near_v, zero), _mm_unpacklo_epi8(far_v, zero));
    const __m128i gap_hi = _mm_sub_epi16(_mm_unpackhi_epi8(near_v, zero), _mm_unpackhi_epi8(far_v, zero));
    const __m128i out_lo = _mm_add_epi16(_mm_unpacklo_epi8(v[4], zero), Push<FullAmount>(gap_lo, vk));
    const __m128i out_hi = _mm_add_epi16(_mm_unpackhi_epi8(v[4], zero), Push<FullAmount>(gap_hi, vk));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Out + i), _mm_packus_epi16(out_lo, out_hi));
  }
  for (int i = block_end; i < N; ++i) {
    const int v[9] = {U[i], U[i + C], U[i + 2 * C], M[i], M[i + C], M[i + 2 * C], D[i], D[i + C], D[i + 2 * C]};
    int near_v = 0, far_v = 0;
    NearFar(v, &near_v, &far_v);
    Out[i] = static_cast<unsigned char>(qv::ClampToByte(v[4] + qv::FloorShift((near_v - far_v) * 2 * K, 16)));
  }
}

}  // namespace

extern "C" QV_API int QV_RadiusSharpen3X3(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                          int Stride, int Amount) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;
  if (Amount < 0) Amount = 0;
  if (Amount > 100) Amount = 100;
  const int k = static_cast<int>(Amount * 0.01 * 32768);  // in double: 0..32768

  const int n = Width * Channel;
  return qv::RunStencil3x3(
      Src, Dest, Width, Height, Stride, Channel,
      [&](const unsigned char* up, const unsigned char* mid, const unsigned char* down, unsigned char* out) {
        if (k == 32768)
          RadiusRow<true>(up, mid, down, out, n, Channel, k);
        else
          RadiusRow<false>(up, mid, down, out, n, Channel, k);
      });
}
