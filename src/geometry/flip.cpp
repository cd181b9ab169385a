// Mirror images: left-right (pixel order of each row reversed, padding left
// alone) and top-bottom (whole strides moved, padding included).
#include <tmmintrin.h>

#include <cstddef>
#include <cstring>

#include "frame/frame.h"

namespace {

using std::ptrdiff_t;

inline __m128i Load(const unsigned char* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline void Store(unsigned char* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }

// Dest pixel x = Src pixel Width - 1 - x, Src and Dest apart. One and four
// channels reverse 16 bytes a vector, and the last vector overlaps the one
// before it instead of a pixel-wise tail.
template <int C>
void FlipRow(const unsigned char* Src, unsigned char* Dest, int Width) {
  const int m = C * Width;
  const __m128i rev = C == 1 ? _mm_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0)
                             : _mm_setr_epi8(12, 13, 14, 15, 8, 9, 10, 11, 4, 5, 6, 7, 0, 1, 2, 3);
  if (m < 16) {
    for (int x = 0; x < Width; ++x)
      for (int c = 0; c < C; ++c) Dest[x * C + c] = Src[(Width - 1 - x) * C + c];
    return;
  }
  int x = 0;
  for (; x + 64 <= m; x += 64) {
    const unsigned char* s = Src + m - x - 64;
    const __m128i a = Load(s + 48), b = Load(s + 32), c = Load(s + 16), d = Load(s);
    Store(Dest + x, _mm_shuffle_epi8(a, rev));
    Store(Dest + x + 16, _mm_shuffle_epi8(b, rev));
    Store(Dest + x + 32, _mm_shuffle_epi8(c, rev));
    Store(Dest + x + 48, _mm_shuffle_epi8(d, rev));
  }
  for (; x + 16 <= m; x += 16) Store(Dest + x, _mm_shuffle_epi8(Load(Src + m - x - 16), rev));
  if (x < m) Store(Dest + m - 16, _mm_shuffle_epi8(Load(Src), rev));
}

// Three channels: five pixels (15 bytes) a step, loaded from one byte before
// them so that the load stays in the row, and stored as 16 bytes whose last
// byte the next step overwrites. The last pixels go one at a time.
template <>
void FlipRow<3>(const unsigned char* Src, unsigned char* Dest, int Width) {
  const __m128i rev = _mm_setr_epi8(13, 14, 15, 10, 11, 12, 7, 8, 9, 4, 5, 6, 1, 2, 3, 0);
  int x = 0;
  // Source bytes from 3 * (Width - 5 - x) - 1 on; the store ends at 3 * x + 16.
  for (; x + 15 <= Width - 6; x += 20) {
    const unsigned char* s = Src + 3 * (Width - 20 - x) - 1;
    unsigned char* d = Dest + 3 * x;
    const __m128i a = Load(s + 45), b = Load(s + 30), c = Load(s + 15), e = Load(s);
    Store(d, _mm_shuffle_epi8(a, rev));
    Store(d + 15, _mm_shuffle_epi8(b, rev));
    Store(d + 30, _mm_shuffle_epi8(c, rev));
    Store(d + 45, _mm_shuffle_epi8(e, rev));
  }
  for (; x <= Width - 6; x += 5) Store(Dest + 3 * x, _mm_shuffle_epi8(Load(Src + 3 * (Width - 5 - x) - 1), rev));
  for (; x < Width; ++x) {
    const unsigned char* s = Src + 3 * (Width - 1 - x);
    Dest[3 * x] = s[0];
    Dest[3 * x + 1] = s[1];
    Dest[3 * x + 2] = s[2];
  }
}

}  // namespace

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
    if (Channel == 1)
      FlipRow<1>(s, d, Width);
    else if (Channel == 3)
      FlipRow<3>(s, d, Width);
    else
      FlipRow<4>(s, d, Width);
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
