// The shared tail of the log-domain enhancers: percentile clipping of a float
// plane, float plane to bytes, colour transfer by luminance ratio, byte maxima
// and the four-lane exponential used wherever a pixel loop needs e^x.
#pragma once

#include <emmintrin.h>

namespace qv {

// Scalar truncation toward zero with the processor's answer (INT_MIN) for a
// not-a-number or an out-of-range value, where a plain cast is undefined.
static inline int TruncateToInt(float v) { return _mm_cvttss_si32(_mm_set_ss(v)); }
static inline int TruncateToInt(double v) { return _mm_cvttsd_si32(_mm_set_sd(v)); }

// Clips Plane (Width * Height floats, one run) at the LowShare and HighShare
// percentiles of a 1-in-25 sample grid and stretches it to 0..1 into Out
// (which may be Plane). Shares are fractions of 1.
int ClipNormalizeFloat(const float* Plane, float* Out, int Width, int Height, float LowShare, float HighShare);

// Minimum and maximum of Count floats.
void MinMaxFloat(const float* Plane, int Count, float* Min, float* Max);

// Stretches Width * Height floats to 0..255 (128 for a flat plane).
int FloatPlaneToBytes(const float* Plane, unsigned char* Out, int Width, int Height);

// Brings a new luminance N back to colour: each of the three first bytes c of
// a pixel with old luminance Y becomes ((c * n / y) + c + n - y) / 2. Y and N
// have a row step of Width; with GainLimit > 0, n is first limited to
// GainLimit * y. Rows are read as packed triples whatever Stride / Width is.
int ColourTransfer(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                   const unsigned char* Y, const unsigned char* N, int GainLimit);

// Largest of the first Width bytes of each of Height rows Stride apart.
int MaxOfPlane(const unsigned char* Plane, int Width, int Height, int Stride);

// Largest sample of each of the first three channels (only Max0 for one channel).
int ChannelMaxima(const unsigned char* Src, int Width, int Height, int Stride, int* Max0, int* Max1, int* Max2);

// Four-lane single-precision e^x: argument clamped to +-88.3762589, split as
// f * ln 2 + r with f = floor(x / ln 2), a degree-7 polynomial in r, times 2^f.
static inline __m128 ExpVector4(__m128 x) {
  const __m128 one = _mm_set1_ps(1.0f);
  x = _mm_min_ps(x, _mm_set1_ps(88.3762589f));
  x = _mm_max_ps(x, _mm_set1_ps(-88.3762589f));
  __m128 fx = _mm_add_ps(_mm_mul_ps(x, _mm_set1_ps(1.44269502f)), _mm_set1_ps(0.5f));
  const __m128 t = _mm_cvtepi32_ps(_mm_cvttps_epi32(fx));
  fx = _mm_sub_ps(t, _mm_and_ps(_mm_cmpgt_ps(t, fx), one));
  x = _mm_sub_ps(x, _mm_mul_ps(fx, _mm_set1_ps(0.693359375f)));
  x = _mm_sub_ps(x, _mm_mul_ps(fx, _mm_set1_ps(-0.000212194442f)));
  const __m128 z = _mm_mul_ps(x, x);
  __m128 y = _mm_set1_ps(0.000198756912f);
  y = _mm_add_ps(_mm_mul_ps(y, x), _mm_set1_ps(0.00139819994f));
  y = _mm_add_ps(_mm_mul_ps(y, x), _mm_set1_ps(0.00833345205f));
  y = _mm_add_ps(_mm_mul_ps(y, x), _mm_set1_ps(0.0416657962f));
  y = _mm_add_ps(_mm_mul_ps(y, x), _mm_set1_ps(0.166666657f));
  y = _mm_add_ps(_mm_mul_ps(y, x), _mm_set1_ps(0.5f));
  y = _mm_add_ps(_mm_add_ps(_mm_mul_ps(y, z), x), one);
  const __m128i e = _mm_slli_epi32(_mm_add_epi32(_mm_cvttps_epi32(fx), _mm_set1_epi32(127)), 23);
  return _mm_mul_ps(y, _mm_castsi128_ps(e));
}

}  // namespace qv
