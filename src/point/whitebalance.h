// Internal routine of the white balance: channel means over weakly
// saturated pixels.
#pragma once

namespace qv {

// Means of the first three samples over the pixels with (max - min) * 100 <
// max * Percent, Mean3 = 255; all four 0 when no pixel counts. Frame:
// division; Src null 3; sizes 1; Channel not 3 or 4: 5.
int GrayPixelMeans(const unsigned char* Src, int Width, int Height, int Stride, int Percent, int* Mean0, int* Mean1,
                   int* Mean2, int* Mean3);

}  // namespace qv
