// Mirror images: left-right (pixel order of each row reversed, padding left
// alone) and top-bottom (whole strides moved, padding included).
#include <cstddef>
#include <cstring>

#include "frame/frame.h"
#include "geometry/reverse.h"

using std::ptrdiff_t;

extern "C" QV_API int QV_FlipLeftRight(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                       int Stride) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;

  const size_t row = size_t(Channel) * Width;
  unsigned char* copy = nullptr;
  if (Src == Dest) {
    // The vector loop must never read a row it is writing.
    copy = qv::MallocArray<unsigned char>(row);
    if (copy == nullptr) return STATUS_OUT_OF_MEMORY;
  }
  for (int y = 0; y < Height; ++y) {
    const unsigned char* s = Src + ptrdiff_t(y) * Stride;
    unsigned char* d = Dest + std::ptrdiff_t(y) * Stride;
    if (copy != nullptr) {
      std::memcpy(copy, s, row);
      s = copy;
    }
    qv::FlipRowOf(s, d, Width, Channel);
  }
  qv::Free(copy);
  return STATUS_OK;
}

extern "C" QV_API int QV_FlipTopBottom(const unsigned char* Src, unsigned char* Dest, int Width, int Height,
                                       int Stride) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_INVALID_PARAMETER;

  // The unit is the whole stride, so the padding moves with its row.
  const size_t bytes = size_t(Stride);
  if (Src != Dest) {
    for (int y = 0; y < Height; ++y)
      std::memmove(Dest + std::ptrdiff_t(y) * Stride, Src + std::ptrdiff_t(Height - 1 - y) * Stride, bytes);
    return STATUS_OK;
  }
  unsigned char* swap = qv::MallocArray<unsigned char>(bytes);
  if (swap == nullptr) return STATUS_OUT_OF_MEMORY;
  for (int y = 0; y < Height / 2; ++y) {
    unsigned char* a = Dest + std::ptrdiff_t(y) * Stride;
    unsigned char* b = Dest + std::ptrdiff_t(Height - 1 - y) * Stride;
    std::memcpy(swap, a, bytes);
    std::memcpy(a, b, bytes);
    std::memcpy(b, swap, bytes);
  }
  qv::Free(swap);
  return STATUS_OK;
}
