// The two unsharp masks on the exponential blur: QV_UnsharpMask weighs the
// detail by the square root of the headroom, QV_UnsharpMask_PS adds it with a
// threshold in fixed point. Both walk the whole run; their vector bodies and
// scalar tails differ in the documented places. A large run takes the body of
// QV_UnsharpMask from a table of every byte pair.
#include <smmintrin.h>

#include <cmath>
#include <cstdint>

#include "frame/border.h"
#include "frame/frame.h"

namespace {

// The frame both share; the blur then makes its own tests (Radius).
int UnsharpFrame(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;
  return STATUS_OK;
}

// Eight samples of QV_UnsharpMask's body; S and B are 16-bit lanes.
inline __m128i UnsharpBody8(__m128i S, __m128i B, __m128i T, __m128i NegT, __m128 Scale) {
  const __m128i d = _mm_sub_epi16(S, B);
  const __m128i high = _mm_cmpgt_epi16(d, T);
  const __m128i low = _mm_cmplt_epi16(d, NegT);
  // The body's else branch keeps full gain: e = d, g = sqrt(s).
  __m128i e = _mm_blendv_epi8(d, _mm_add_epi16(d, T), low);
  e = _mm_blendv_epi8(e, _mm_sub_epi16(d, T), high);
  const __m128i g = _mm_blendv_epi8(S, _mm_sub_epi16(_mm_set1_epi16(255), S), high);
  const __m128i zero = _mm_setzero_si128();
  __m128i r[2];
  for (int h = 0; h < 2; ++h) {
    // Sign-extended e and zero-extended g to 32-bit lanes.
    const __m128i e32 = _mm_srai_epi32(h == 0 ? _mm_unpacklo_epi16(e, e) : _mm_unpackhi_epi16(e, e), 16);
    const __m128i g32 = h == 0 ? _mm_unpacklo_epi16(g, zero) : _mm_unpackhi_epi16(g, zero);
    const __m128 v = _mm_mul_ps(_mm_sqrt_ps(_mm_cvtepi32_ps(g32)), _mm_mul_ps(_mm_cvtepi32_ps(e32), Scale));
    r[h] = _mm_cvtps_epi32(v);
  }
  // Saturating s + r in 16 bits gives the same bytes as the 32-bit sum: once r
  // saturates, so does the sum, on the same side.
  return _mm_adds_epi16(S, _mm_packs_epi32(r[0], r[1]));
}

// From this many body samples on, building the table (65536 samples of the
// body) costs less than it saves.
constexpr size_t kBodyTableRun = size_t(1) << 18;

// The body is a function of the two bytes alone: its result for every pair,
// at s * 256 + b, so that a large run looks its bytes up.
void BuildBodyTable(unsigned char* Table, __m128i T, __m128i NegT, __m128 Scale) {
  const __m128i ramp = _mm_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7), eight = _mm_set1_epi16(8);
  for (int s = 0; s < 256; ++s) {
    const __m128i vs = _mm_set1_epi16(static_cast<int16_t>(s));
    __m128i b = ramp;
    for (int k = 0; k < 256; k += 16) {
      const __m128i lo = UnsharpBody8(vs, b, T, NegT, Scale);
      b = _mm_add_epi16(b, eight);
      const __m128i hi = UnsharpBody8(vs, b, T, NegT, Scale);
      b = _mm_add_epi16(b, eight);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(Table + s * 256 + k), _mm_packus_epi16(lo, hi));
    }
  }
}

// Sixteen samples of the body from Src and the blur in Dest.
inline void UnsharpBody16(const unsigned char* Src, unsigned char* Dest, __m128i T, __m128i NegT, __m128 Scale) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i s = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src));
  const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Dest));
  const __m128i lo = UnsharpBody8(_mm_unpacklo_epi8(s, zero), _mm_unpacklo_epi8(b, zero), T, NegT, Scale);
  const __m128i hi = UnsharpBody8(_mm_unpackhi_epi8(s, zero), _mm_unpackhi_epi8(b, zero), T, NegT, Scale);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest), _mm_packus_epi16(lo, hi));
}

// Sixteen samples by the table: the indices are made in vector lanes and
// moved out four at a time (one 64-bit move costs less than four word
// extracts, which compete for the shuffle port); the look-ups are scalar.
inline void LookUp16(const unsigned char* Src, unsigned char* Dest, const unsigned char* Table) {
  const __m128i s = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src));
  const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Dest));
  const __m128i lo = _mm_unpacklo_epi8(b, s), hi = _mm_unpackhi_epi8(b, s);
  const uint64_t q[4] = {static_cast<uint64_t>(_mm_cvtsi128_si64(lo)), static_cast<uint64_t>(_mm_extract_epi64(lo, 1)),
                         static_cast<uint64_t>(_mm_cvtsi128_si64(hi)), static_cast<uint64_t>(_mm_extract_epi64(hi, 1))};
#pragma GCC unroll 4
  for (int k = 0; k < 4; ++k) {
    const uint64_t v = q[k];
    Dest[4 * k] = Table[v & 0xFFFF];
    Dest[4 * k + 1] = Table[(v >> 16) & 0xFFFF];
    Dest[4 * k + 2] = Table[(v >> 32) & 0xFFFF];
    Dest[4 * k + 3] = Table[v >> 48];
  }
}

// Threshold saturated to the 16-bit lanes of QV_UnsharpMask_PS's body.
inline int16_t SaturateI16(int v) { return static_cast<int16_t>(v < -32768 ? -32768 : (v > 32767 ? 32767 : v)); }

// A 64-bit value clamped to a byte.
inline unsigned char ClampWideToByte(int64_t v) { return static_cast<unsigned char>(v < 0 ? 0 : (v > 255 ? 255 : v)); }

}  // namespace

extern "C" QV_API int QV_UnsharpMask(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                     int Radius, int Amount, int Threshold) {
  int status = UnsharpFrame(Src, Dest, Width, Height, Stride);
  if (status != STATUS_OK) return status;
  status = QV_ExpBlur(Src, Dest, Width, Height, Stride, Radius);
  if (status != STATUS_OK) return status;

  const float scale = static_cast<float>(Amount * 0.01 / std::sqrt(255.0));
  const size_t n = qv::RunBytes(Height, Stride);
  const size_t block_end = n & ~size_t(7);
  // The body's lanes take Threshold as a signed 16-bit value (its low 16 bits).
  const int16_t t16 = static_cast<int16_t>(static_cast<uint16_t>(static_cast<unsigned>(Threshold)));
  const __m128i vt = _mm_set1_epi16(t16), vnegt = _mm_sub_epi16(_mm_setzero_si128(), vt);
  const __m128 vscale = _mm_set1_ps(scale);
  const __m128i zero = _mm_setzero_si128();
  size_t i = 0;
  // A large run looks the body up in a table of every (s, b) pair, made by
  // the same vector code; without the table (a small run, or its allocation
  // failed) the body computes each sample. The bytes are the same either way.
  unsigned char* table = block_end >= kBodyTableRun ? qv::MallocArray<unsigned char>(65536) : nullptr;
  if (table != nullptr) {
    BuildBodyTable(table, vt, vnegt, vscale);
    for (; i + 16 <= block_end; i += 16) LookUp16(Src + i, Dest + i, table);
    qv::Free(table);
  }
  for (; i + 16 <= block_end; i += 16) UnsharpBody16(Src + i, Dest + i, vt, vnegt, vscale);
  for (; i < block_end; i += 8) {
    const __m128i s = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(Src + i));
    const __m128i b = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(Dest + i));
    const __m128i r = UnsharpBody8(_mm_unpacklo_epi8(s, zero), _mm_unpacklo_epi8(b, zero), vt, vnegt, vscale);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(Dest + i), _mm_packus_epi16(r, r));
  }
  // The tail leaves a sample inside the threshold alone and rounds by +0.5 and
  // truncation. Differences are taken in 64 bits and the float clamped before
  // the conversion so that no Threshold or Amount overflows; the clamp is far
  // outside what the byte clamp keeps, so results are unchanged by it.
  for (; i < n; ++i) {
    const int s = Src[i], d = s - Dest[i];
    float g = 0.0f;
    int64_t e = d;
    if (d >= int64_t(Threshold)) {
      g = std::sqrt(static_cast<float>(255 - s));
      e = int64_t(d) - Threshold;
    } else if (d < -int64_t(Threshold)) {
      g = std::sqrt(static_cast<float>(s));
      e = int64_t(d) + Threshold;
    }
    float v = g * (static_cast<float>(e) * scale) + 0.5f;
    v = v < -1024.0f ? -1024.0f : (v > 1024.0f ? 1024.0f : v);
    Dest[i] = static_cast<unsigned char>(qv::ClampToByte(s + static_cast<int>(v)));
  }
  return STATUS_OK;
}

extern "C" QV_API int QV_UnsharpMask_PS(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                        int Stride, int Radius, int Amount, int Threshold) {
  int status = UnsharpFrame(Src, Dest, Width, Height, Stride);
  if (status != STATUS_OK) return status;
  status = QV_ExpBlur(Src, Dest, Width, Height, Stride, Radius);
  if (status != STATUS_OK) return status;

  if (Amount < 0) Amount = 0;
  if (Amount > 4096) Amount = 4096;
  // 1.27999997 is 1.28 in single precision; the product is taken in double, so
  // Amount 100 gives 511 (single precision would round it up to 512).
  const int k = static_cast<int>(Amount * 1.27999997 * 4);
  const size_t n = qv::RunBytes(Height, Stride);
  const size_t block_end = n & ~size_t(7);
  // Threshold saturates into the 16-bit lanes: beyond +-32767 every branch
  // saturates the same way as in the tail.
  const __m128i vt = _mm_set1_epi16(SaturateI16(Threshold));
  const __m128i vnegt = _mm_subs_epi16(_mm_setzero_si128(), vt);
  const __m128i vk = _mm_set1_epi16(static_cast<int16_t>(k));
  const __m128i zero = _mm_setzero_si128();
  for (size_t i = 0; i < block_end; i += 8) {
    const __m128i s = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(Src + i)), zero);
    const __m128i b = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(Dest + i)), zero);
    // ((s - b) << 7) * k >> 16 with floor: (s - b) * Amount / 100 within one.
    const __m128i d = _mm_mulhi_epi16(_mm_slli_epi16(_mm_sub_epi16(s, b), 7), vk);
    __m128i r = _mm_blendv_epi8(s, _mm_adds_epi16(s, _mm_adds_epi16(d, vt)), _mm_cmplt_epi16(d, vnegt));
    r = _mm_blendv_epi8(r, _mm_adds_epi16(s, _mm_subs_epi16(d, vt)), _mm_cmpgt_epi16(d, vt));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(Dest + i), _mm_packus_epi16(r, r));
  }
  // 64-bit sums so that no Threshold overflows.
  for (size_t i = block_end; i < n; ++i) {
    const int s = Src[i];
    const int64_t d = ((s - Dest[i]) * Amount) / 100, t = Threshold;
    int64_t r = s;
    if (d > t)
      r = s + d - t;
    else if (d < -t)
      r = s + d + t;
    Dest[i] = ClampWideToByte(r);
  }
  return STATUS_OK;
}
