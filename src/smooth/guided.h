// Float-plane box means (integer and fractional radius) and the two halves of
// the fast guided filter: nearest-sample reduction and model evaluation.
#pragma once

namespace qv {

// Box mean of a float image of Channel 1, 3 or 4 (Stride in floats): the
// window sum skeleton in float, Radius limited to Width - 1 and Height - 1.
int BoxBlurFloat(const float* Src, float* Dest, int Width, int Height, int Stride, int Radius);

// The same for a fractional Radius: a blend of the two neighbouring integer
// radii, or one of them alone when Radius is within 0.1 of it.
int BoxBlurFloatFractional(const float* Src, float* Dest, int Width, int Height, int Stride, float Radius);

// Nearest-sample reduction of a byte image to SmallWidth x SmallHeight
// floats (pitch SmallWidth * Channel), values unscaled.
int ResampleToFloat(const unsigned char* Src, float* Dest, int Width, int Height, int SmallWidth, int SmallHeight,
                    int Stride);

// Bilinear enlargement of the planes of a and b (pitch SmallWidth * Channel)
// and evaluation of q = a * Guide + b into Dest, byte image of Stride.
int ApplyGuidedModel(const unsigned char* Guide, const float* PlaneA, const float* PlaneB, unsigned char* Dest,
                     int SmallWidth, int SmallHeight, int Width, int Height, int Stride);

}  // namespace qv
