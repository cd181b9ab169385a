// Luminance planes and the whole-image measures many operators start from:
// channel means and deviations, integral images, the luminance put-back and
// the mask blend. QV_GetLuminance and QV_Desaturate are in the public header.
#pragma once

namespace qv {

// Puts the luminance plane Luminance (row step LuminanceStride) under the
// colour of Src. A 4-channel image passes and is walked as 3-byte pixels.
int ApplyLuminancePlane(const unsigned char* Src, const unsigned char* Luminance, unsigned char* Dest, int Width,
                        int Height, int Stride, int LuminanceStride);

// Rounded mean of each channel; Channel 1 fills all four, Channel 3 gives MeanA 0.
int ImageChannelMeans(const unsigned char* Src, int Width, int Height, int Stride, int* MeanB, int* MeanG, int* MeanR,
                      int* MeanA);
// Truncated standard deviation of each channel around the rounded means.
int ImageChannelDeviation(const unsigned char* Src, int Width, int Height, int Stride, int* DevB, int* DevG, int* DevR,
                          int* DevA);
// Truncated root mean square difference per channel between two images.
int ImagePairDeviation(const unsigned char* Src1, const unsigned char* Src2, int Width, int Height, int Stride,
                       int* DevB, int* DevG, int* DevR, int* DevA);

// (Height + 1) x (Width + 1) pixels of Channel wrapping 32-bit lanes, first row
// and column zero.
int IntegralImage(const unsigned char* Src, unsigned int* Integral, int Width, int Height, int Stride);
// The same layout in float lanes, of (Src1 - Src2) squared.
int IntegralSquaredDifference(const unsigned char* Src1, const unsigned char* Src2, float* Integral, int Width,
                              int Height, int Stride);

// Mixes Src into Dest by Mask (row step Width); works on 3 channels only.
int BlendByMask(const unsigned char* Src, unsigned char* Dest, const unsigned char* Mask, int Width, int Height,
                int Stride);

}  // namespace qv
