// Row primitives of the window filters: extending a padded row past its ends
// by reflection without the edge element, and summing a run of a row.
//
// A padded row for a window of Radius holds Width + 2 * Radius elements
// (an element is one sample, or one pixel of 3 or 4 lanes for the Pixels
// forms): element Radius + x is column x, the first and last Radius elements
// are the borders. Extension writes, for i in 0..Radius-1,
//   left:  element i               := element 2 * Radius - i       (column -k is column k)
//   right: element Width+Radius+i  := element Width + Radius - 2 - i
// The caller ensures 0 <= Radius <= Width - 1. Radius 0 writes nothing.
#pragma once

#include <cstdint>

namespace qv {

// ---- extension, in place ----------------------------------------------------
void ExtendRowU8(uint8_t* Row, int Width, int Radius);
void ExtendRowU16(uint16_t* Row, int Width, int Radius);
void ExtendRowI32(int32_t* Row, int Width, int Radius);
void ExtendRowF32(float* Row, int Width, int Radius);
void ExtendPixelsU16x4(uint16_t* Row, int Width, int Radius);
void ExtendPixelsI32x3(int32_t* Row, int Width, int Radius);
void ExtendPixelsI32x4(int32_t* Row, int Width, int Radius);
void ExtendPixelsF32x3(float* Row, int Width, int Radius);
void ExtendPixelsF32x4(float* Row, int Width, int Radius);

// ---- sums of Count elements (Count >= 0) ----------------------------------------

// 32-bit sum of bytes.
uint32_t SumRowU8(const uint8_t* Row, int Count);
// Low 16 bits of the sum: all arithmetic wraps at 16 bits.
uint16_t SumRowU16(const uint16_t* Row, int Count);
// 32-bit sum, wrapping.
int32_t SumRowI32(const int32_t* Row, int Count);
// Blocks of 8 summed in float lanes (two accumulators of four, added lane by
// lane and reduced as (l0 + l1) + (l2 + l3)); the rest in double, groups of 4
// then singly. Not exact once the float lanes pass 2^24.
double SumRowI32Float(const int32_t* Row, int Count);
// As SumRowI32Float, on floats.
double SumRowF32(const float* Row, int Count);

// Lane sums of Count pixels, written to Sum (which is returned).
// U16x4 wraps at 16 bits; I32 forms wrap at 32 bits; F32 forms add each lane
// in float, pixel after pixel.
uint16_t* SumPixelsU16x4(const uint16_t* Row, int Count, uint16_t* Sum);
int32_t* SumPixelsI32x3(const int32_t* Row, int Count, int32_t* Sum);
int32_t* SumPixelsI32x4(const int32_t* Row, int Count, int32_t* Sum);
float* SumPixelsF32x3(const float* Row, int Count, float* Sum);
float* SumPixelsF32x4(const float* Row, int Count, float* Sum);

}  // namespace qv
