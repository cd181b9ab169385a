// Box mean (QV_BoxBlur) on the window sum skeleton of frame/window.h, in
// 16-bit sums below radius 6 and 32-bit sums from 6 on, and the whole-image
// mean (QV_AverageBlur). Vector pixels round, scalar pixels truncate.
#include "smooth/box.h"

#include <cstring>

#include "frame/border.h"
#include "frame/frame.h"
#include "frame/simd.h"
#include "frame/window.h"
#include "point/luminance.h"

namespace qv {
namespace {

// The two conversions of a window sum to a byte. Which one a pixel gets
// depends on whether a vector block or a scalar loop reaches it.
struct BoxScale {
  double inv;   // 1.0 / Area, for scalar pixels: truncated, then ClampToByte
  __m128 invf;  // the float rounded from it, for vector pixels: ties to even, saturated
  explicit BoxScale(int Radius) {
    const int diameter = 2 * Radius + 1;
    inv = 1.0 / (diameter * diameter);
    invf = _mm_set1_ps(static_cast<float>(inv));
  }
  unsigned char Scalar(double S) const { return static_cast<unsigned char>(ClampToByte(static_cast<int>(S * inv))); }
  // Eight 16-bit sums (zero-extended) to eight bytes in the low half.
  __m128i VectorU16x8(__m128i S) const {
    return NarrowI32x8ToU8(ScaleRoundI32(WidenLoU16ToI32(S), invf), ScaleRoundI32(WidenHiU16ToI32(S), invf));
  }
};

// Closes two 4-byte pixels up to 3 bytes each; bytes 6 and 7 are spare and
// get overwritten by the next store, since a scalar pixel always follows.
static inline __m128i CloseTwoPixels3(__m128i v) {
  return _mm_shuffle_epi8(v, _mm_setr_epi8(0, 1, 2, 4, 5, 6, 3, 7, -1, -1, -1, -1, -1, -1, -1, -1));
}

struct SmallRow1 {
  const BoxScale& k;
  unsigned char* out;
  void Scalar(int x, uint16_t S) { out[x] = k.Scalar(S); }
  void Vector(int x, __m128i S) { Store8Bytes(out + x, k.VectorU16x8(S)); }
};

template <int Channel>
struct SmallRowPixels {
  const BoxScale& k;
  unsigned char* out;
  void Scalar(int x, const uint16_t* S) {
    for (int c = 0; c < Channel; ++c) out[Channel * x + c] = k.Scalar(S[c]);
  }
  void Vector(int x, __m128i S) {
    const __m128i b = k.VectorU16x8(S);
    Store8Bytes(out + Channel * x, Channel == 4 ? b : CloseTwoPixels3(b));
  }
};

struct LargeRow1 {
  const BoxScale& k;
  unsigned char* out;
  void Scalar(int x, int32_t S) { out[x] = k.Scalar(S); }
  void Vector(int x, __m128i S) { Store4Bytes(out + x, NarrowI32x4ToU8(ScaleRoundI32(S, k.invf))); }
  void Vector(int x, __m128i S0, __m128i S1) {
    Store8Bytes(out + x, NarrowI32x8ToU8(ScaleRoundI32(S0, k.invf), ScaleRoundI32(S1, k.invf)));
  }
};

template <int Channel>
struct LargeRowPixels {
  const BoxScale& k;
  unsigned char* out;
  void Scalar(int x, const int32_t* S) {
    for (int c = 0; c < Channel; ++c) out[Channel * x + c] = k.Scalar(S[c]);
  }
  void Vector(int x, __m128i S0, __m128i S1) {
    // With 3 channels lane 3 holds a sample of the next pixel: dropped here.
    const __m128i b = NarrowI32x8ToU8(ScaleRoundI32(S0, k.invf), ScaleRoundI32(S1, k.invf));
    Store8Bytes(out + Channel * x, Channel == 4 ? b : CloseTwoPixels3(b));
  }
};

// The frame both implementations share, in its documented order.
static inline int BoxPrologue(const unsigned char* Src, const unsigned char* Dest, int Width, int Height, int Radius,
                              int Channel) {
  if (Src == nullptr) return STATUS_NULL_REFERENCE;
  if (Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1 || Radius < 1) return STATUS_INVALID_PARAMETER;
  if (!IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;
  return STATUS_OK;
}

template <typename T, int Pitch, typename RowFn>
int RunBox(const unsigned char* Src, int Width, int Height, int Stride, int Channel, int R, RowFn row) {
  T* columns = MallocArray<T>(WindowColumnCount<T, Pitch>(Width, R));
  int* table = MallocArray<int>(WindowRowTableCount(Height, R));
  if (columns == nullptr || table == nullptr) {
    Free(columns);
    Free(table);
    return STATUS_OUT_OF_MEMORY;
  }
  FillRowTable(table, Height, R);
  ForEachWindowRow<T, Pitch>(Src, Stride, Width, Height, Channel, R, columns, table, row);
  Free(columns);
  Free(table);
  return STATUS_OK;
}

}  // namespace

int BoxBlurSmallRadius(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius) {
  const int Channel = DeriveChannel(Stride, Width);
  const int status = BoxPrologue(Src, Dest, Width, Height, Radius, Channel);
  if (status != STATUS_OK) return status;
  const int R = ClampWindowRadius(Radius, Width, Height);
  const BoxScale k(R);
  auto dest_row = [=](int y) { return Dest + static_cast<ptrdiff_t>(y) * Stride; };
  if (Channel == 1)
    return RunBox<uint16_t, 1>(Src, Width, Height, Stride, 1, R, [&](int y, const uint16_t* C) {
      SlideWindowRow<uint16_t>(C, Width, R, SmallRow1{k, dest_row(y)});
    });
  // Three channels sum in 4 lanes as well; the fourth stays 0.
  if (Channel == 3)
    return RunBox<uint16_t, 4>(Src, Width, Height, Stride, 3, R, [&](int y, const uint16_t* C) {
      SlideWindowPixelsU16x4(C, Width, R, SmallRowPixels<3>{k, dest_row(y)});
    });
  return RunBox<uint16_t, 4>(Src, Width, Height, Stride, 4, R, [&](int y, const uint16_t* C) {
    SlideWindowPixelsU16x4(C, Width, R, SmallRowPixels<4>{k, dest_row(y)});
  });
}

int BoxBlurLargeRadius(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride, int Radius) {
  const int Channel = DeriveChannel(Stride, Width);
  const int status = BoxPrologue(Src, Dest, Width, Height, Radius, Channel);
  if (status != STATUS_OK) return status;
  const int R = ClampWindowRadius(Radius, Width, Height);
  const BoxScale k(R);
  auto dest_row = [=](int y) { return Dest + static_cast<ptrdiff_t>(y) * Stride; };
  if (Channel == 1)
    return RunBox<int32_t, 1>(Src, Width, Height, Stride, 1, R, [&](int y, const int32_t* C) {
      SlideWindowRow<int32_t>(C, Width, R, LargeRow1{k, dest_row(y)});
    });
  // No special first pixel here: pixel 0 is a vector pixel and is rounded.
  if (Channel == 3)
    return RunBox<int32_t, 3>(Src, Width, Height, Stride, 3, R, [&](int y, const int32_t* C) {
      SlideWindowPixels<int32_t, 3>(C, Width, R, ((Width - 1) / 2) * 2, LargeRowPixels<3>{k, dest_row(y)});
    });
  return RunBox<int32_t, 4>(Src, Width, Height, Stride, 4, R, [&](int y, const int32_t* C) {
    SlideWindowPixels<int32_t, 4>(C, Width, R, ((Width - 2) / 2) * 2, LargeRowPixels<4>{k, dest_row(y)});
  });
}

}  // namespace qv

// Delegating frame: the implementation chosen by the radius as passed makes
// every test, so a Radius of 6 or more clamped below 6 still takes 32 bits.
extern "C" QV_API int QV_BoxBlur(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                 int Radius) {
  if (Radius >= 6) return qv::BoxBlurLargeRadius(Src, Dest, Width, Height, Stride, Radius);
  return qv::BoxBlurSmallRadius(Src, Dest, Width, Height, Stride, Radius);
}

// Whole-image mean. Channel 1 fills the whole run (padding included);
// Channel 3 builds row 0 and copies Stride bytes of it to every row (row 0's
// padding goes with it); Channel 4 keeps the fourth sample of Src.
extern "C" QV_API int QV_AverageBlur(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;
  int mean[4];
  const int status = qv::ImageChannelMeans(Src, Width, Height, Stride, &mean[0], &mean[1], &mean[2], &mean[3]);
  if (status != STATUS_OK) return status;
  const unsigned char b = static_cast<unsigned char>(mean[0]), g = static_cast<unsigned char>(mean[1]),
                      r = static_cast<unsigned char>(mean[2]);
  if (Channel == 1) {
    std::memset(Dest, b, qv::RunBytes(Height, Stride));
    return STATUS_OK;
  }
  if (Channel == 3) {
    alignas(16) unsigned char pattern[48];
    for (int i = 0; i < 16; ++i) {
      pattern[3 * i] = b;
      pattern[3 * i + 1] = g;
      pattern[3 * i + 2] = r;
    }
    int x = 0;
    for (; x + 16 <= Width; x += 16) std::memcpy(Dest + 3 * x, pattern, 48);
    for (; x < Width; ++x) std::memcpy(Dest + 3 * x, pattern, 3);
    for (int y = 1; y < Height; ++y) std::memcpy(Dest + static_cast<ptrdiff_t>(y) * Stride, Dest, Stride);
    return STATUS_OK;
  }
  const __m128i colour = _mm_set1_epi32(static_cast<int>(b | g << 8 | r << 16));
  const __m128i fourth = _mm_set1_epi32(static_cast<int>(0xFF000000u));
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + static_cast<ptrdiff_t>(y) * Stride;
    unsigned char* d = Dest + static_cast<ptrdiff_t>(y) * Stride;
    int x = 0;
    for (; x + 16 <= Width; x += 16)
      for (int k = 0; k < 64; k += 16)
        qv::Store16Bytes(d + 4 * x + k, _mm_or_si128(_mm_and_si128(qv::Load16Bytes(s + 4 * x + k), fourth), colour));
    for (; x < Width; ++x) {
      d[4 * x] = b;
      d[4 * x + 1] = g;
      d[4 * x + 2] = r;
      d[4 * x + 3] = s[4 * x + 3];
    }
  }
  return STATUS_OK;
}
