// Byte-shuffle masks and helpers that move 16 pixels of 3 samples (48 bytes,
// three loads) to three planes of 16 bytes and back; shared by the point family.
#pragma once

#include <tmmintrin.h>

namespace qv {

struct ShuffleMask {
  signed char v[16];
};

// Plane `Lane` takes from load `Load` the bytes whose run index 3 * p + Lane
// falls inside that load; every other position is zeroed (-1 = 0x80).
constexpr ShuffleMask SplitMask3(int Lane, int Load) {
  ShuffleMask m{};
  for (int p = 0; p < 16; ++p) {
    const int g = 3 * p + Lane;
    m.v[p] = static_cast<signed char>(g / 16 == Load ? g % 16 : -1);
  }
  return m;
}

// Output load `Load` takes from plane `Lane` the samples of that lane.
constexpr ShuffleMask MergeMask3(int Lane, int Load) {
  ShuffleMask m{};
  for (int k = 0; k < 16; ++k) {
    const int g = 16 * Load + k;
    m.v[k] = static_cast<signed char>(g % 3 == Lane ? g / 3 : -1);
  }
  return m;
}

// Output load `Load` repeats each of 16 per-pixel bytes over its three samples.
constexpr ShuffleMask SpreadMask3(int Load) {
  ShuffleMask m{};
  for (int k = 0; k < 16; ++k) m.v[k] = static_cast<signed char>((16 * Load + k) / 3);
  return m;
}

static inline __m128i LoadMask(const ShuffleMask& m) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(m.v)); }

struct Planes3 {
  __m128i p0, p1, p2;
};

// 48 bytes at Src -> the first, second and third samples of 16 pixels.
static inline Planes3 Load3Planes(const unsigned char* Src) {
  static constexpr ShuffleMask k00 = SplitMask3(0, 0), k01 = SplitMask3(0, 1), k02 = SplitMask3(0, 2);
  static constexpr ShuffleMask k10 = SplitMask3(1, 0), k11 = SplitMask3(1, 1), k12 = SplitMask3(1, 2);
  static constexpr ShuffleMask k20 = SplitMask3(2, 0), k21 = SplitMask3(2, 1), k22 = SplitMask3(2, 2);
  const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src));
  const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src + 16));
  const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src + 32));
  Planes3 r;
  r.p0 = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(a, LoadMask(k00)), _mm_shuffle_epi8(b, LoadMask(k01))),
                      _mm_shuffle_epi8(c, LoadMask(k02)));
  r.p1 = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(a, LoadMask(k10)), _mm_shuffle_epi8(b, LoadMask(k11))),
                      _mm_shuffle_epi8(c, LoadMask(k12)));
  r.p2 = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(a, LoadMask(k20)), _mm_shuffle_epi8(b, LoadMask(k21))),
                      _mm_shuffle_epi8(c, LoadMask(k22)));
  return r;
}

// Three planes of 16 samples -> 48 interleaved bytes at Dest.
static inline void Store3Planes(unsigned char* Dest, __m128i p0, __m128i p1, __m128i p2) {
  static constexpr ShuffleMask k00 = MergeMask3(0, 0), k01 = MergeMask3(0, 1), k02 = MergeMask3(0, 2);
  static constexpr ShuffleMask k10 = MergeMask3(1, 0), k11 = MergeMask3(1, 1), k12 = MergeMask3(1, 2);
  static constexpr ShuffleMask k20 = MergeMask3(2, 0), k21 = MergeMask3(2, 1), k22 = MergeMask3(2, 2);
  const __m128i a = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(p0, LoadMask(k00)), _mm_shuffle_epi8(p1, LoadMask(k10))),
                                 _mm_shuffle_epi8(p2, LoadMask(k20)));
  const __m128i b = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(p0, LoadMask(k01)), _mm_shuffle_epi8(p1, LoadMask(k11))),
                                 _mm_shuffle_epi8(p2, LoadMask(k21)));
  const __m128i c = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(p0, LoadMask(k02)), _mm_shuffle_epi8(p1, LoadMask(k12))),
                                 _mm_shuffle_epi8(p2, LoadMask(k22)));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest), a);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + 16), b);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + 32), c);
}

}  // namespace qv
