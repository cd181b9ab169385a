// Pieces of the Retinex operators reached by the tests: the scale ladder of
// the multi-scale surround and the 16-bit log-domain iteration of the
// ratio-product-reset-average scheme.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qv {

// ScaleCount sigmas for MaxSigma: one gives MaxSigma, two give half of it and
// it, more give i * (MaxSigma / ScaleCount) + 2 for i = 0 .. ScaleCount - 1.
void RetinexScales(float* Scales, int MaxSigma, int ScaleCount);

// T (a copy of R) gets sat16(R[q] + L[p] - L[q]) at every sample p whose
// source q, Dy rows up and Dx pixels left, lies in the image; one of Dx, Dy
// is 0. Planes hold Width * Height pixels of Channel samples, packed.
void ShiftCompare(const int16_t* L, const int16_t* R, int16_t* T, int Width, int Height, int Channel, int Dx, int Dy);

// R[i] = mean of R[i] and T[i]: floored in blocks of 8, truncated in the
// last Count mod 8.
void AverageInto(int16_t* R, const int16_t* T, size_t Count);

// The whole iteration on the log plane L, whose result replaces L. Status 2
// if its two planes cannot be had (L is then unchanged).
int FrankleMccannIterate(int16_t* L, int Width, int Height, int Channel, int Iterations);

}  // namespace qv
