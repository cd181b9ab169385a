// Internal routines of the histogram family that other families use too: the
// equalising curve of a histogram, and exact division of 16-bit lanes.
#pragma once

#include <emmintrin.h>

#include <cstdint>

namespace qv {

// Curve[0..255] from Histogram[0..255]: square roots of the counts of 2 or
// more when Linear is 0, else the counts; each bin mapped at its middle.
void BuildEqualizeCurve(const int* Histogram, unsigned char* Curve, int Linear);

// Multiplier and shifts for exact division of every unsigned 16-bit t by
// Divisor (taken modulo 65536); Divisor 0 gives all three 0.
void PrepareDivideU16(int Divisor, uint16_t* Multiplier, int* Shift1, int* Shift2);

// The quotient the constants give, one value at a time.
static inline unsigned DivideU16(unsigned t, uint16_t Multiplier, int Shift1, int Shift2) {
  const unsigned h = (t * Multiplier) >> 16;
  return (((t - h) >> Shift1) + h) >> Shift2;
}

// The same division in eight 16-bit lanes.
struct DivideU16Lanes {
  __m128i Multiplier, Shift1, Shift2;
};

static inline DivideU16Lanes MakeDivideU16Lanes(int Divisor) {
  uint16_t m;
  int s1, s2;
  PrepareDivideU16(Divisor, &m, &s1, &s2);
  return {_mm_set1_epi16(static_cast<short>(m)), _mm_cvtsi32_si128(s1), _mm_cvtsi32_si128(s2)};
}

static inline __m128i DivideLanesU16(__m128i t, const DivideU16Lanes& d) {
  const __m128i h = _mm_mulhi_epu16(t, d.Multiplier);
  return _mm_srl_epi16(_mm_add_epi16(_mm_srl_epi16(_mm_sub_epi16(t, h), d.Shift1), h), d.Shift2);
}

}  // namespace qv
