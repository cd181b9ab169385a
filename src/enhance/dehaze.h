// The stages of dark-channel dehazing, each on packed planes of Width bytes a
// row: per-pixel minimum and lightness, atmospheric light, raw transmission,
// and the recovery of the haze-free pixels.
#pragma once

#include <cstddef>

namespace qv {

// Dark = smallest of bytes 0..2 of each pixel; Guide = (lo + hi + 1) >> 1 in
// blocks of 16 pixels and (lo + hi) >> 1 in the last Width mod 16 of a row.
void DarkAndLightness(const unsigned char* Src, unsigned char* Dark, unsigned char* Guide, int Width, int Height,
                      int Stride, int Channel);

// A[0..2]: mean of bytes 0..2 of Src over the pixels whose Dark value lies in
// the top percent of the histogram of Dark (ties at the threshold bin
// included), each limited to at most Limit.
void AtmosphericLight(const unsigned char* Src, const unsigned char* Dark, int Width, int Height, int Stride,
                      int Channel, int Limit, int* A);

// The one multiplier of the transmission: trunc(Omega * 65536 / m), m the
// truncated mean of A; a zero m gives the conversion's indefinite INT_MIN.
int TransmissionFactor(const int* A, float Omega);

// Each of Count bytes d becomes clamp(255 - ((d * K) >> 8), 0, 255), the
// product wrapping and the shift logical, in 32 bits.
void RawTransmission(unsigned char* Plane, size_t Count, int K);

// Writes the restored pixels: with t = max(Trans, T0) as a byte, blocks of
// four pixels round (s - A) * 255 / t (+ A) in float to even, the last Width
// mod 4 pixels of a row truncate in integers. A fourth byte is carried over.
void RecoverHaze(const unsigned char* Src, unsigned char* Dest, const unsigned char* Trans, int Width, int Height,
                 int Stride, int Channel, const int* A, int T0);

}  // namespace qv
