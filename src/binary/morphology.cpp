// Gray morphology: square-window maximum and minimum at a cost independent of
// the radius (block prefix and suffix extrema), and opening, closing and the
// local range built on them. The horizontal pass runs on transposed strips.
#include <emmintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "frame/frame.h"
#include "geometry/transpose.h"

namespace {

using std::ptrdiff_t;

struct MaxOp {
  static __m128i V(__m128i a, __m128i b) { return _mm_max_epu8(a, b); }
  static unsigned char S(unsigned char a, unsigned char b) { return a > b ? a : b; }
};
struct MinOp {
  static __m128i V(__m128i a, __m128i b) { return _mm_min_epu8(a, b); }
  static unsigned char S(unsigned char a, unsigned char b) { return a < b ? a : b; }
};

// An element of the line: 32 bytes side by side, or one byte.
struct Wide {
  static constexpr int kBytes = 32;
  __m128i lo, hi;
  static Wide Load(const unsigned char* p) {
    return {_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)),
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16))};
  }
  void Store(unsigned char* p) const {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), lo);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p + 16), hi);
  }
  template <class Op>
  static Wide Pick(const Wide& a, const Wide& b) {
    return {Op::V(a.lo, b.lo), Op::V(a.hi, b.hi)};
  }
};
struct Narrow {
  static constexpr int kBytes = 1;
  unsigned char v;
  static Narrow Load(const unsigned char* p) { return {*p}; }
  void Store(unsigned char* p) const { *p = v; }
  template <class Op>
  static Narrow Pick(const Narrow& a, const Narrow& b) {
    return {Op::S(a.v, b.v)};
  }
};

// The sliding extremum along a line of n elements, window 2 * Radius + 1,
// clipped at both ends. All of Prefix and Suffix are built before the first
// output is stored, so In may be Out. Radius has been limited to n.
template <class Op, class E>
void SlideLine(const unsigned char* In, ptrdiff_t InStep, unsigned char* Out, ptrdiff_t OutStep, int n, int Radius,
               unsigned char* Prefix, unsigned char* Suffix) {
  const int k = 2 * Radius + 1;
  const int blocks = (n + k - 1) / k;
  constexpr int eb = E::kBytes;
  for (int b = 0; b < n; b += k) {
    const int e = b + k < n ? b + k : n;
    E acc = E::Load(In + b * InStep);
    acc.Store(Prefix + b * eb);
    for (int i = b + 1; i < e; ++i) {
      acc = E::template Pick<Op>(acc, E::Load(In + i * InStep));
      acc.Store(Prefix + i * eb);
    }
    acc = E::Load(In + (e - 1) * InStep);
    acc.Store(Suffix + (e - 1) * eb);
    for (int i = e - 2; i >= b; --i) {
      acc = E::template Pick<Op>(acc, E::Load(In + i * InStep));
      acc.Store(Suffix + i * eb);
    }
  }
  const long long bk = static_cast<long long>(blocks) * k;
  const int head = Radius < n ? Radius : n;
  const int body_end = bk - Radius < n ? static_cast<int>(bk - Radius) : n;
  for (int p = 0; p < head; ++p) {
    const int q = p + Radius < n - 1 ? p + Radius : n - 1;
    E::Load(Prefix + q * eb).Store(Out + p * OutStep);
  }
  for (int p = Radius; p < body_end; ++p) {
    const int q = p + Radius < n - 1 ? p + Radius : n - 1;
    E::template Pick<Op>(E::Load(Prefix + q * eb), E::Load(Suffix + (p - Radius) * eb)).Store(Out + p * OutStep);
  }
  for (int p = body_end > Radius ? body_end : Radius; p < n; ++p)
    E::Load(Suffix + (p - Radius) * eb).Store(Out + p * OutStep);
}

// A radius at or above the side covers the side whatever its value, so it is
// limited to the side, which keeps 2 * Radius + 1 in range. A negative radius
// is taken as 0 (a copy) to stay defined.
int LimitRadius(int Radius, int Side) { return Radius < 0 ? 0 : (Radius > Side ? Side : Radius); }

template <class Op>
int FilterVertical(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;
  unsigned char* prefix = qv::AlignedArray<unsigned char>(size_t(Height) * 32, 32);
  unsigned char* suffix = qv::AlignedArray<unsigned char>(size_t(Height) * 32, 32);
  if (prefix == nullptr || suffix == nullptr) {
    qv::AlignedFree(prefix);
    qv::AlignedFree(suffix);
    return STATUS_OUT_OF_MEMORY;
  }
  const int r = LimitRadius(Radius, Height);
  const int m = Channel * Width;
  const int wide_end = m / 32 * 32;
  for (int x = 0; x < wide_end; x += 32)
    SlideLine<Op, Wide>(Src + x, Stride, Dest + x, Stride, Height, r, prefix, suffix);
  for (int x = wide_end; x < m; ++x)
    SlideLine<Op, Narrow>(Src + x, Stride, Dest + x, Stride, Height, r, prefix, suffix);
  qv::AlignedFree(prefix);
  qv::AlignedFree(suffix);
  return STATUS_OK;
}

// 32 image rows to Width lines of Channel * 32 bytes (line x = column x).
void StripToColumns(const unsigned char* Src, int Stride, unsigned char* Strip, int Width, int Channel) {
  const int line = Channel * 32;
  if (Channel == 1) {
    const int tiled = Width / 8 * 8;
    for (int x = 0; x < tiled; x += 8)
      for (int y = 0; y < 32; y += 8)
        qv::Transpose8x8Tile(Src + ptrdiff_t(y) * Stride + x, Stride, Strip + x * line + y, line);
    for (int x = tiled; x < Width; ++x)
      for (int y = 0; y < 32; ++y) Strip[x * line + y] = Src[ptrdiff_t(y) * Stride + x];
  } else {
    const int tiled = Width / 4 * 4;
    for (int x = 0; x < tiled; x += 4)
      for (int y = 0; y < 32; y += 4) {
        const unsigned char* s = Src + ptrdiff_t(y) * Stride + x * Channel;
        unsigned char* d = Strip + x * line + y * Channel;
        if (Channel == 3)
          qv::Transpose3Tile(s, Stride, d, line);
        else
          qv::Transpose4Tile(s, Stride, d, line);
      }
    for (int x = tiled; x < Width; ++x)
      for (int y = 0; y < 32; ++y)
        for (int c = 0; c < Channel; ++c)
          Strip[x * line + y * Channel + c] = Src[ptrdiff_t(y) * Stride + x * Channel + c];
  }
}

// The way back: Width lines of the strip to 32 image rows.
void ColumnsToStrip(const unsigned char* Strip, unsigned char* Dest, int Stride, int Width, int Channel) {
  const int line = Channel * 32;
  if (Channel == 1) {
    const int tiled = Width / 8 * 8;
    for (int y = 0; y < 32; y += 8)
      for (int x = 0; x < tiled; x += 8)
        qv::Transpose8x8Tile(Strip + x * line + y, line, Dest + ptrdiff_t(y) * Stride + x, Stride);
    for (int x = tiled; x < Width; ++x)
      for (int y = 0; y < 32; ++y) Dest[ptrdiff_t(y) * Stride + x] = Strip[x * line + y];
  } else {
    const int tiled = Width / 4 * 4;
    for (int y = 0; y < 32; y += 4)
      for (int x = 0; x < tiled; x += 4) {
        const unsigned char* s = Strip + x * line + y * Channel;
        unsigned char* d = Dest + ptrdiff_t(y) * Stride + x * Channel;
        if (Channel == 3)
          qv::Transpose3Tile(s, line, d, Stride);
        else
          qv::Transpose4Tile(s, line, d, Stride);
      }
    for (int x = tiled; x < Width; ++x)
      for (int y = 0; y < 32; ++y)
        for (int c = 0; c < Channel; ++c)
          Dest[ptrdiff_t(y) * Stride + x * Channel + c] = Strip[x * line + y * Channel + c];
  }
}

template <class Op>
int FilterHorizontal(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;
  unsigned char* prefix = qv::AlignedArray<unsigned char>(size_t(Width) * 32, 32);
  unsigned char* suffix = qv::AlignedArray<unsigned char>(size_t(Width) * 32, 32);
  unsigned char* strip = qv::AlignedArray<unsigned char>(size_t(Channel) * Width * 32, 32);
  if (prefix == nullptr || suffix == nullptr || strip == nullptr) {
    qv::AlignedFree(prefix);
    qv::AlignedFree(suffix);
    qv::AlignedFree(strip);
    return STATUS_OUT_OF_MEMORY;
  }
  const int r = LimitRadius(Radius, Width);
  const int line = Channel * 32;
  const int banded = Height / 32 * 32;
  for (int y = 0; y < banded; y += 32) {
    StripToColumns(Src + ptrdiff_t(y) * Stride, Stride, strip, Width, Channel);
    for (int g = 0; g < Channel; ++g)
      SlideLine<Op, Wide>(strip + g * 32, line, strip + g * 32, line, Width, r, prefix, suffix);
    ColumnsToStrip(strip, Dest + ptrdiff_t(y) * Stride, Stride, Width, Channel);
  }
  // The last Height mod 32 rows one sample place at a time.
  for (int y = banded; y < Height; ++y)
    for (int c = 0; c < Channel; ++c)
      SlideLine<Op, Narrow>(Src + ptrdiff_t(y) * Stride + c, Channel, Dest + ptrdiff_t(y) * Stride + c, Channel, Width,
                            r, prefix, suffix);
  qv::AlignedFree(prefix);
  qv::AlignedFree(suffix);
  qv::AlignedFree(strip);
  return STATUS_OK;
}

// Two separable passes; the first step's frame is the operator's frame.
template <class Op>
int Extremum(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius) {
  int status = FilterVertical<Op>(Src, Dest, Width, Height, Stride, Radius);
  if (status != STATUS_OK) return status;
  return FilterHorizontal<Op>(Dest, Dest, Width, Height, Stride, Radius);
}

}  // namespace

extern "C" QV_API int QV_MaxFilter(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                   int Radius) {
  return Extremum<MaxOp>(Src, Dest, Width, Height, Stride, Radius);
}

extern "C" QV_API int QV_MinFilter(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                   int Radius) {
  return Extremum<MinOp>(Src, Dest, Width, Height, Stride, Radius);
}

extern "C" QV_API int QV_Open(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                              int Radius) {
  int status = Extremum<MinOp>(Src, Dest, Width, Height, Stride, Radius);
  if (status != STATUS_OK) return status;
  return Extremum<MaxOp>(Dest, Dest, Width, Height, Stride, Radius);
}

extern "C" QV_API int QV_Close(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                               int Radius) {
  int status = Extremum<MaxOp>(Src, Dest, Width, Height, Stride, Radius);
  if (status != STATUS_OK) return status;
  return Extremum<MinOp>(Dest, Dest, Width, Height, Stride, Radius);
}

extern "C" QV_API int QV_RangeFilter(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                     int Radius, int Amount) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;

  const size_t n = qv::RunBytes(Height, Stride);
  unsigned char* hi = qv::MallocArray<unsigned char>(n);
  unsigned char* lo = qv::MallocArray<unsigned char>(n);
  if (hi == nullptr || lo == nullptr) {
    // Exhausted memory is reported as success, with Dest untouched.
    qv::Free(hi);
    qv::Free(lo);
    return STATUS_OK;
  }
  // A nested failure returns at once and loses both buffers: long-standing
  // behaviour that callers see only as a leak, kept as it is.
  int status = QV_MaxFilter(Src, hi, Width, Height, Stride, Radius);
  if (status != STATUS_OK) return status;
  status = QV_MinFilter(Src, lo, Width, Height, Stride, Radius);
  if (status != STATUS_OK) return status;
  // The difference runs over whole rows, padding included; the filters never
  // write the padding of their outputs, so it is cleared here to keep the
  // padding written to Dest defined (it comes out 0) instead of stale heap.
  const int row = Channel * Width;
  for (int y = 0; y < Height; ++y) {
    std::memset(hi + size_t(y) * Stride + row, 0, size_t(Stride - row));
    std::memset(lo + size_t(y) * Stride + row, 0, size_t(Stride - row));
  }

  const size_t block_end = n & ~size_t(15);
  if (Amount == 100) {
    for (size_t i = 0; i < block_end; i += 16) {
      const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(hi + i));
      const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(lo + i));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + i), _mm_subs_epu8(a, b));
    }
    for (size_t i = block_end; i < n; ++i) Dest[i] = static_cast<unsigned char>(hi[i] - lo[i]);
  } else {
    // m = trunc(Amount * 20.48f), a float product (50 gives exactly 1024). The
    // conversion is limited to the int range, where a plain cast is undefined.
    const float product = static_cast<float>(Amount) * 20.48f;
    const int m =
        product >= 2147483648.0f ? 2147483647 : (product <= -2147483648.0f ? INT32_MIN : static_cast<int>(product));
    // The block loop keeps the high 16 bits of (d << 5) * m: the low 16 bits
    // of m only, so it agrees with the tail for m in 0..65535.
    const __m128i mv = _mm_set1_epi16(static_cast<short>(static_cast<unsigned short>(m)));
    const __m128i zero = _mm_setzero_si128();
    for (size_t i = 0; i < block_end; i += 16) {
      const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(hi + i));
      const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(lo + i));
      const __m128i d = _mm_subs_epu8(a, b);
      const __m128i l = _mm_mulhi_epu16(_mm_slli_epi16(_mm_unpacklo_epi8(d, zero), 5), mv);
      const __m128i h = _mm_mulhi_epu16(_mm_slli_epi16(_mm_unpackhi_epi8(d, zero), 5), mv);
      // The products are below 8160, so the signed pack only clamps at 255.
      _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + i), _mm_packus_epi16(l, h));
    }
    for (size_t i = block_end; i < n; ++i) {
      const long long v = (static_cast<long long>(hi[i] - lo[i]) * m) >> 11;
      Dest[i] = static_cast<unsigned char>(v < 0 ? 0 : (v > 255 ? 255 : v));
    }
  }
  qv::Free(hi);
  qv::Free(lo);
  return STATUS_OK;
}
