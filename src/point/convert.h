// Scalar float-to-int truncation with the processor's out-of-range answer,
// and an unaligned 4-byte load, for the point family.
#pragma once

#include <emmintrin.h>

#include <climits>
#include <cstring>

namespace qv {

// static_cast<int> for every value that fits; NaN and values outside the
// 32-bit range give INT_MIN, what the truncating conversion instruction
// yields, instead of the undefined behaviour of the C++ cast.
static inline int TruncateToInt(double v) {
  if (v > -2147483649.0 && v < 2147483648.0) return static_cast<int>(v);
  return INT_MIN;
}

static inline __m128i Load32(const unsigned char* p) {
  int v;
  std::memcpy(&v, p, 4);
  return _mm_cvtsi32_si128(v);
}

}  // namespace qv
