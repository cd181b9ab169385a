// The mixed-radix Fourier engine under the frequency filters: complex planes,
// padding sizes, one- and two-dimensional transforms, quadrant shifts.
// Its length and twiddle tables are process-wide and live for one FFT2D call.
#pragma once

#include <cstdint>

namespace qv {

struct FFTComplex {
  float Re;
  float Im;
};

// The one mutable global of the engine: the tables of the current length.
// Size and FactorCount are -1 and the pointers null between transforms.
struct FFTTables {
  int Size;
  int FactorCount;
  int* Factors;
  int* IndexTable;
  FFTComplex* Twiddles;
  void* Block;  // Size * 16 bytes, 32-aligned: factors, index table, twiddles
};
extern FFTTables g_FFTTables;

// Entries of the padding size table: 2^a * 3^b * 5^c, b <= 14, ascending.
constexpr int kFFTSizeCount = 1651;
const uint32_t* FFTSizeTable();

// Smallest table entry >= n; -1 for n < 1 or n >= 2125764000.
int OptimalFFTSize(int n);

// Two-dimensional transform; Src may equal Dest. The bottom ZeroRows rows of
// Src are taken as zero without being read. Inverse divides by Width * Height.
int FFT2D(const FFTComplex* Src, FFTComplex* Dest, int Width, int Height, int Inverse, int ZeroRows);

// out(x, y) = in((x + ceil(W/2)) mod W, (y + ceil(H/2)) mod H): zero
// frequency moves to (W/2, H/2). The inverse shift uses floor instead.
int FFTShift(const FFTComplex* Src, FFTComplex* Dest, int Width, int Height);
int FFTInverseShift(const FFTComplex* Src, FFTComplex* Dest, int Width, int Height);

// The pieces FFT2D is made of, visible for the tests.
int FFTFactorize(int n, int* Factors);  // returns the count; Factors holds at least 32
int FFTPrepareTables(int n);
void FFTReleaseTables();
void FFT1D(const FFTComplex* Src, FFTComplex* Dest, int Inverse);
int TransposeComplex(const FFTComplex* Src, FFTComplex* Dest, int Width, int Height);
void TransposeComplexInPlace(FFTComplex* Plane, int Size);

}  // namespace qv
