// Internal routine of the brightness family: the sum of an image's samples.
#pragma once

#include <cstdint>

namespace qv {

// Sum of all samples without row padding and, with 4 channels, without the
// fourth sample. Frame: division; Src null 3; sizes 1; Channel not 1, 3, 4: 5.
int ImageSampleSum(const unsigned char* Src, int Width, int Height, int Stride, uint64_t* Sum);

}  // namespace qv
