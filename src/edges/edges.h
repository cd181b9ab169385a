// Internal routines of the edge and saliency family: the fixed-point Lab
// conversion to three byte planes and the stretch of an integer plane to bytes.
#pragma once

namespace qv {

// Lab of a 3-channel image in fixed point: L on 0..255, A and B offset by 128.
// Planes have a row pitch of Width, or of Width rounded up to 4 bytes when
// RowPadded is non-zero; padding is not written. A failed scratch gives 3.
int RgbToLabPlanes(const unsigned char* Src, unsigned char* L, unsigned char* A, unsigned char* B, int Width,
                   int Height, int Stride, unsigned char RowPadded);

// Stretches Width * Height signed 32-bit values (one run) to 0..255; a flat
// plane gives 128. Body rounds to nearest even in float, tail adds 0.5 in
// double and truncates.
int IntPlaneToBytes(const int* Plane, unsigned char* Out, int Width, int Height);

}  // namespace qv
