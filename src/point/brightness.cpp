// Brightness and contrast around the image mean, and vibrance: integer
// pipelines in 16-bit lanes, defined to the byte in block and tail alike.
#include "point/brightness.h"

#include <smmintrin.h>

#include "frame/border.h"
#include "frame/frame.h"
#include "point/pixel_planes.h"
#include "point/shuffle3.h"

namespace qv {

int ImageSampleSum(const unsigned char* Src, int Width, int Height, int Stride, uint64_t* Sum) {
  const int Channel = DeriveChannel(Stride, Width);
  if (Src == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;

  const __m128i zero = _mm_setzero_si128();
  __m128i acc = zero;
  uint64_t total = 0;
  if (Channel == 4) {
    const __m128i three = _mm_set1_epi32(0x00FFFFFF);
    const int block_end = Width & ~3;
    for (int y = 0; y < Height; ++y) {
      const unsigned char* s = Src + size_t(y) * Stride;
      for (int x = 0; x < block_end; x += 4) {
        const __m128i v = _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 4 * x)), three);
        acc = _mm_add_epi64(acc, _mm_sad_epu8(v, zero));
      }
      for (int x = block_end; x < Width; ++x) total += s[4 * x] + s[4 * x + 1] + s[4 * x + 2];
    }
  } else {
    // One run over Height * Stride bytes, then the padding is taken off again.
    const size_t n = RunBytes(Height, Stride);
    const size_t block_end = n & ~size_t(15);
    for (size_t i = 0; i < block_end; i += 16)
      acc = _mm_add_epi64(acc, _mm_sad_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(Src + i)), zero));
    for (size_t i = block_end; i < n; ++i) total += Src[i];
    const int used = Width * Channel;
    for (int y = 0; y < Height; ++y)
      for (int x = used; x < Stride; ++x) total -= Src[size_t(y) * Stride + x];
  }
  total += static_cast<uint64_t>(_mm_cvtsi128_si64(acc)) + static_cast<uint64_t>(_mm_extract_epi64(acc, 1));
  *Sum = total;
  return STATUS_OK;
}

}  // namespace qv

namespace {

// Saturating byte addition of a signed amount of at most 255 in magnitude.
inline __m128i AddSigned(__m128i v, __m128i Magnitude, bool Negative) {
  return Negative ? _mm_subs_epu8(v, Magnitude) : _mm_adds_epu8(v, Magnitude);
}

}  // namespace

extern "C" QV_API int QV_AdjustBrightnessAndContrast(const unsigned char* Src, unsigned char* Dest, int Width,
                                                     int Height, int Stride, int Brightness, int Contrast) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1 || !qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;

  uint64_t sum = 0;
  const int status = qv::ImageSampleSum(Src, Width, Height, Stride, &sum);
  if (status != STATUS_OK) return status;
  const int mean = static_cast<int>(sum / (uint64_t(Channel == 4 ? 3 : Channel) * uint64_t(Width) * uint64_t(Height)));

  // Every formula below clamps v + Brightness (or t + Brightness) with v, t in
  // 0..255, so limiting Brightness to -255..255 changes no result; it keeps the
  // block loops' byte constant exact and the tail free of overflow.
  const int bright = Brightness < -255 ? -255 : Brightness > 255 ? 255 : Brightness;
  const bool dim = bright < 0;
  const int mag = dim ? -bright : bright;

  // With 4 channels the fourth sample of each pixel (run offset mod 4 = 3) is
  // held out by zero lanes in the constants and copied in the tail.
  const bool four = Channel == 4;
  const __m128i mag8 = four ? _mm_set1_epi32(mag * 0x010101) : _mm_set1_epi8(static_cast<char>(mag));
  const __m128i keep = four ? _mm_set1_epi32(static_cast<int>(0xFF000000u)) : _mm_setzero_si128();
  auto lanes16 = [four](int v) {
    const short s = static_cast<short>(v);  // the lane takes the low 16 bits
    return four ? _mm_setr_epi16(s, s, s, 0, s, s, s, 0) : _mm_set1_epi16(s);
  };
  const __m128i zero = _mm_setzero_si128();
  const __m128i mean16 = _mm_set1_epi16(static_cast<short>(mean));
  const __m128i mean8 = _mm_set1_epi8(static_cast<char>(mean));

  const size_t n = qv::RunBytes(Height, Stride);
  const size_t block_end = n & ~size_t(15);
  auto load = [Src](size_t i) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src + i)); };
  auto store = [Dest](size_t i, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + i), v); };
  auto copied = [four](size_t i) { return four && (i & 3) == 3; };

  if (Contrast < 0) {
    // Contrast first, around the mean, then brightness. The factor is formed
    // in single precision; a value below -100 leaves the 16-bit range, and the
    // block lanes then take its low 16 bits while the tail uses all of it.
    const int k = _mm_cvttss_si32(_mm_set_ss(static_cast<float>(Contrast) * 1.28f * 256.0f));
    const __m128i k16 = lanes16(k);
    for (size_t i = 0; i < block_end; i += 16) {
      const __m128i v = load(i);
      __m128i lo = _mm_unpacklo_epi8(v, zero), hi = _mm_unpackhi_epi8(v, zero);
      lo = _mm_add_epi16(lo, _mm_mulhrs_epi16(_mm_sub_epi16(lo, mean16), k16));
      hi = _mm_add_epi16(hi, _mm_mulhrs_epi16(_mm_sub_epi16(hi, mean16), k16));
      store(i, AddSigned(_mm_packus_epi16(lo, hi), mag8, dim));
    }
    for (size_t i = block_end; i < n; ++i) {
      if (copied(i)) {
        Dest[i] = Src[i];
        continue;
      }
      const int64_t v = Src[i];
      int64_t t = v + (((v - mean) * k + 16384) >> 15);
      t = t < 0 ? 0 : t > 255 ? 255 : t;
      Dest[i] = static_cast<unsigned char>(qv::ClampToByte(static_cast<int>(t) + bright));
    }
  } else if (Contrast == 100) {
    // A hard threshold at the mean after the brightness.
    for (size_t i = 0; i < block_end; i += 16) {
      const __m128i v = load(i);
      const __m128i w = AddSigned(v, mag8, dim);
      const __m128i ge = _mm_cmpeq_epi8(_mm_max_epu8(w, mean8), w);
      store(i, _mm_blendv_epi8(ge, v, keep));
    }
    for (size_t i = block_end; i < n; ++i)
      Dest[i] = copied(i) ? Src[i] : (qv::ClampToByte(Src[i] + bright) >= mean ? 255 : 0);
  } else {
    // Brightness first, then contrast around the mean: ((w - M) << 7) times c
    // by the rounding high multiply is ((w - M) * c + 128) >> 8.
    const int c = 25600 / (100 - Contrast) - 256;
    const __m128i c16 = lanes16(c);
    for (size_t i = 0; i < block_end; i += 16) {
      const __m128i w = AddSigned(load(i), mag8, dim);
      __m128i lo = _mm_unpacklo_epi8(w, zero), hi = _mm_unpackhi_epi8(w, zero);
      lo = _mm_add_epi16(lo, _mm_mulhrs_epi16(_mm_slli_epi16(_mm_sub_epi16(lo, mean16), 7), c16));
      hi = _mm_add_epi16(hi, _mm_mulhrs_epi16(_mm_slli_epi16(_mm_sub_epi16(hi, mean16), 7), c16));
      store(i, _mm_packus_epi16(lo, hi));
    }
    for (size_t i = block_end; i < n; ++i) {
      if (copied(i)) {
        Dest[i] = Src[i];
        continue;
      }
      const int w = qv::ClampToByte(Src[i] + bright);
      Dest[i] = static_cast<unsigned char>(qv::ClampToByte(w + (((w - mean) * c + 128) >> 8)));
    }
  }
  return STATUS_OK;
}

namespace {

// Vibrance boost and mute share their frame and arithmetic and differ only in
// the sign of k, so one routine serves both.
int VibranceApply(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Amount) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel34(Channel)) return STATUS_INVALID_PARAMETER;

  const int k = static_cast<int>(static_cast<float>(-Amount) * 1.28f);
  const __m128i k16 = _mm_set1_epi16(static_cast<short>(k));
  const __m128i zero = _mm_setzero_si128();
  const int block_end = Width & ~15;
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + size_t(y) * Stride;
    unsigned char* d = Dest + size_t(y) * Stride;
    for (int x = 0; x < block_end; x += 16) {
      __m128i p[4];
      qv::LoadPixels16(s + Channel * x, Channel, p);
      const __m128i m8 = _mm_max_epu8(_mm_max_epu8(p[0], p[1]), p[2]);
      __m128i out[2][3];
      for (int half = 0; half < 2; ++half) {
        auto widen = [half, zero](__m128i v) { return half ? _mm_unpackhi_epi8(v, zero) : _mm_unpacklo_epi8(v, zero); };
        const __m128i b = widen(p[0]), g = widen(p[1]), r = widen(p[2]), m = widen(m8);
        const __m128i a = _mm_srli_epi16(_mm_add_epi16(_mm_add_epi16(g, g), _mm_add_epi16(r, b)), 2);
        const __m128i t = _mm_mullo_epi16(_mm_sub_epi16(m, a), k16);
        // ((m - s) << 2) times t, high half: ((m - s) * t) >> 14 without 32-bit lanes.
        const __m128i sv[3] = {b, g, r};
        for (int c = 0; c < 3; ++c)
          out[half][c] = _mm_add_epi16(sv[c], _mm_mulhi_epi16(_mm_slli_epi16(_mm_sub_epi16(m, sv[c]), 2), t));
      }
      for (int c = 0; c < 3; ++c) p[c] = _mm_packus_epi16(out[0][c], out[1][c]);
      if (Channel == 3)
        qv::Store3Planes(d + 3 * x, p[0], p[1], p[2]);
      else
        qv::MergePixels4(d + 4 * x, p[0], p[1], p[2], p[3]);
    }
    for (int x = block_end; x < Width; ++x) {
      const unsigned char* sp = s + x * Channel;
      unsigned char* dp = d + x * Channel;
      const int b = sp[0], g = sp[1], r = sp[2];
      const int m = b > g ? (b > r ? b : r) : (g > r ? g : r);
      const int t = (m - ((2 * g + r + b) >> 2)) * k;
      dp[0] = static_cast<unsigned char>(qv::ClampToByte(b + (((m - b) * t) >> 14)));
      dp[1] = static_cast<unsigned char>(qv::ClampToByte(g + (((m - g) * t) >> 14)));
      dp[2] = static_cast<unsigned char>(qv::ClampToByte(r + (((m - r) * t) >> 14)));
      if (Channel == 4) dp[3] = sp[3];
    }
  }
  return STATUS_OK;
}

}  // namespace

// Delegating frame: no tests here; the routine called derives the channel and
// tests the arguments.
extern "C" QV_API int QV_Vibrance(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                  int Amount) {
  if (Amount < -100) Amount = -100;
  if (Amount > 100) Amount = 100;
  return VibranceApply(Src, Dest, Width, Height, Stride, Amount);
}
