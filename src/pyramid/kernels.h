// The pyramid building blocks: level records and sizes, reduce and expand by
// two with the 1 4 6 4 1 kernel (bytes in exact 16-bit integers, and floats),
// the fused expand-and-subtract/add forms, pyramid builders and conversions.
#pragma once

#include <cstdint>

namespace qv {

// One level. Stride counts elements (bytes, 16-bit values or floats), not
// bytes. Data's element type is that of the pyramid.
struct PyramidLevel {
  int Width;
  int Height;
  int Stride;
  void* Data;
  int Reserved;
};

// Applies the (w + 1) >> 1 halving Level times.
void PyramidLevelSize(int Width, int Height, int Level, int* OutWidth, int* OutHeight);
// Elements of a level row: Width * Channel rounded up to a multiple of 4.
static inline int PyramidLevelStride(int Width, int Channel) { return ((Width * Channel * 8 + 31) / 32) * 4; }

// Fills Count records and mallocs their blocks (level 0 only unless
// BorrowLevel0). Level 0's Stride is set by the rounding rule too.
int PyramidAlloc(PyramidLevel* Levels, int Width, int Height, int Stride, int Count, bool BorrowLevel0,
                 int ElementSize);
// Frees the blocks (all but level 0 when BorrowedLevel0) and clears the records.
void PyramidFree(PyramidLevel* Levels, int Count, bool BorrowedLevel0);
void PyramidFreeAll(PyramidLevel* Levels, int Count);

// ---- row stages -------------------------------------------------------------
// Reduce: a row of SrcWidth pixels to (SrcWidth + 1) >> 1 pixels of sums at
// scale 16. Expand: a coarse row to FineWidth pixels of sums at scale 8.
// The U8 forms write up to 8 elements past the row: give Dest that slack.
void PyrReduceRowU8(const uint8_t* Src, uint16_t* Dest, int SrcWidth, int Channel);
void PyrReduceRowF32(const float* Src, float* Dest, int SrcWidth, int Channel);
void PyrExpandRowU8(const uint8_t* Src, uint16_t* Dest, int CoarseWidth, int FineWidth, int Channel);
void PyrExpandRowF32(const float* Src, float* Dest, int CoarseWidth, int FineWidth, int Channel);

// ---- kernels ------------------------------------------------------------------
// Channel 1, 3 or 4 (else 5); a size mismatch gives 1; row buffers failing 2.
// Reduce: Dest is (w + 1) >> 1 by (h + 1) >> 1 of Src. Expand: the fine size
// is 2 * cw or 2 * cw - 1 in each axis; Level and Out have the fine size.
// Out may be Level where both have the same element type.
int PyrReduceU8(const PyramidLevel* Src, PyramidLevel* Dest, int Channel);
int PyrExpandU8(const PyramidLevel* Coarse, PyramidLevel* Fine, int Channel);
// int16 Out = Fine - expanded.
int PyrExpandSubtractI16(const PyramidLevel* Coarse, const PyramidLevel* Fine, PyramidLevel* Out, int Channel);
// byte Out = saturate(expanded + int16 Level).
int PyrExpandAddI16(const PyramidLevel* Coarse, const PyramidLevel* Level, PyramidLevel* Out, int Channel);
// byte Out = saturate(Fine - expanded + 127).
int PyrExpandSubtractBiased(const PyramidLevel* Coarse, const PyramidLevel* Fine, PyramidLevel* Out, int Channel);
// byte Out = saturate(expanded + Level - 127).
int PyrExpandAddBiased(const PyramidLevel* Coarse, const PyramidLevel* Level, PyramidLevel* Out, int Channel);
int PyrReduceF32(const PyramidLevel* Src, PyramidLevel* Dest, int Channel);
int PyrExpandSubtractF32(const PyramidLevel* Coarse, const PyramidLevel* Fine, PyramidLevel* Out, int Channel);
int PyrExpandAddF32(const PyramidLevel* Coarse, const PyramidLevel* Level, PyramidLevel* Out, int Channel);

// ---- pyramids -------------------------------------------------------------------
// Level 0 borrows Src with its true Stride; levels 1 up are allocated and
// reduced. On failure the owned levels are freed.
int BuildGaussPyramidU8(const uint8_t* Src, PyramidLevel* Levels, int Width, int Height, int Stride, int Count);
int BuildGaussPyramidF32(const float* Src, PyramidLevel* Levels, int Width, int Height, int Stride, int Count);
// All levels owned: the Gauss top copied, below it fine - expanded coarse.
int BuildLaplacePyramidF32(const PyramidLevel* Gauss, PyramidLevel* Laplace, int Width, int Height, int Stride,
                           int Count);

// ---- conversions of a run of samples ----------------------------------------------
int BytesToFloats(const uint8_t* Src, float* Dest, int Count);
// Body of 16: truncated and saturated; tail: + 0.4999999, truncated, clamped.
int FloatsToBytes(const float* Src, uint8_t* Dest, int Count);
int BytesToI16(const uint8_t* Src, int16_t* Dest, int Count);
int I16ToBytes(const int16_t* Src, uint8_t* Dest, int Count);

}  // namespace qv
