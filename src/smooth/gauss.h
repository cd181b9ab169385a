// Recursive Gaussian blur on a single-channel float plane, for the operators
// that keep their intermediate images in float.
#pragma once

namespace qv {

// Src and Dest hold Width * Height floats with a pitch of Width; Reserved is
// not read. Radius is the Gaussian's sigma. Src may be Dest.
int GaussBlurFloat(const float* Src, float* Dest, int Width, int Height, int Reserved, float Radius);

// The recursion coefficients for a sigma, as the kernels use them.
struct GaussCoefs {
  float A0, A1, A2, A3, CoefP, CoefN;
  double B1, B2;  // the scalar byte paths use them unrounded
};
GaussCoefs MakeGaussCoefs(float Radius);

}  // namespace qv
