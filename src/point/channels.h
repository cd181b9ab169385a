// Split of interleaved 3- and 4-channel images into byte planes (pitch Width)
// and the way back; used by the operators that work one channel at a time.
#pragma once

namespace qv {

// Each returns 3 for any null pointer, then 1 for a size below 1 or a
// Stride / Width other than the routine's channel count; nothing is written then.
int SplitChannels3(const unsigned char* Src, unsigned char* Plane0, unsigned char* Plane1, unsigned char* Plane2,
                   int Width, int Height, int Stride);
int SplitChannels4(const unsigned char* Src, unsigned char* Plane0, unsigned char* Plane1, unsigned char* Plane2,
                   unsigned char* Plane3, int Width, int Height, int Stride);
int MergeChannels3(const unsigned char* Plane0, const unsigned char* Plane1, const unsigned char* Plane2,
                   unsigned char* Dest, int Width, int Height, int Stride);
int MergeChannels4(const unsigned char* Plane0, const unsigned char* Plane1, const unsigned char* Plane2,
                   const unsigned char* Plane3, unsigned char* Dest, int Width, int Height, int Stride);

}  // namespace qv
