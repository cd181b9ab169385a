// Box mean: the two implementations behind QV_BoxBlur, 16-bit sums for radii
// below 6 and 32-bit sums from 6 on. Both take QV_BoxBlur's arguments and
// make its tests themselves (the export delegates).
#pragma once

namespace qv {

int BoxBlurSmallRadius(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius);
int BoxBlurLargeRadius(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius);

}  // namespace qv
