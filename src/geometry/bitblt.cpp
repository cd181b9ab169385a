// Rectangular copy between two image records with clipping, the operation
// chosen by the two channel counts: copy (3 to 3), opaque widening (3 to 4),
// alpha blend over an opaque image (4 to 3), non-premultiplied over (4 to 4).
#include <smmintrin.h>

#include <cstdint>
#include <cstring>

#include "frame/border.h"
#include "frame/frame.h"

namespace {

using std::int64_t;

// Sums of positions wrap at 32 bits, as the rectangle arithmetic always has.
inline int Add(int a, int b) { return static_cast<int>(static_cast<unsigned>(a) + static_cast<unsigned>(b)); }
inline int Sub(int a, int b) { return static_cast<int>(static_cast<unsigned>(a) - static_cast<unsigned>(b)); }

inline int DivBy255(int v) { return (v + 1 + (v >> 8)) >> 8; }
inline __m128i DivBy255(__m128i v) {
  return _mm_srli_epi16(_mm_adds_epu16(_mm_adds_epu16(v, _mm_set1_epi16(1)), _mm_srli_epi16(v, 8)), 8);
}

// 8 pixels of 3 bytes to 8 pixels of 4 bytes with alpha 255.
void Block3To4(const unsigned char* s, unsigned char* d) {
  const __m128i spread = _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
  const __m128i alpha = _mm_set1_epi32(static_cast<int>(0xFF000000u));
  const __m128i lo = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
  const __m128i hi = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(s + 16));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_or_si128(_mm_shuffle_epi8(lo, spread), alpha));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 16),
                   _mm_or_si128(_mm_shuffle_epi8(_mm_alignr_epi8(hi, lo, 12), spread), alpha));
}

// 8 pixels of 4 bytes blended over 8 pixels of 3: DivBy255(s*a + d*(255-a)),
// in 16-bit lanes laid out in the destination's byte order.
void Block4To3(const unsigned char* s, unsigned char* d) {
  const __m128i v0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
  const __m128i v1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16));
  const __m128i dlo = _mm_loadu_si128(reinterpret_cast<const __m128i*>(d));
  const __m128i dhi = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(d + 16));
  const __m128i zero = _mm_setzero_si128();
  const __m128i dv[3] = {_mm_unpacklo_epi8(dlo, zero), _mm_unpackhi_epi8(dlo, zero), _mm_unpacklo_epi8(dhi, zero)};
  __m128i out[3];
  for (int g = 0; g < 3; ++g) {
    alignas(16) signed char cm[2][16], am[2][16];
    for (int l = 0; l < 8; ++l) {
      const int o = 8 * g + l, p = o / 3, c = o % 3;
      for (int v = 0; v < 2; ++v) {
        const bool here = (p >= 4) == (v == 1);
        cm[v][2 * l] = static_cast<signed char>(here ? (4 * (p % 4) + c) : -1);
        am[v][2 * l] = static_cast<signed char>(here ? (4 * (p % 4) + 3) : -1);
        cm[v][2 * l + 1] = am[v][2 * l + 1] = -1;
      }
    }
    const __m128i sc = _mm_or_si128(_mm_shuffle_epi8(v0, _mm_load_si128(reinterpret_cast<const __m128i*>(cm[0]))),
                                    _mm_shuffle_epi8(v1, _mm_load_si128(reinterpret_cast<const __m128i*>(cm[1]))));
    const __m128i a = _mm_or_si128(_mm_shuffle_epi8(v0, _mm_load_si128(reinterpret_cast<const __m128i*>(am[0]))),
                                   _mm_shuffle_epi8(v1, _mm_load_si128(reinterpret_cast<const __m128i*>(am[1]))));
    const __m128i sum =
        _mm_add_epi16(_mm_mullo_epi16(sc, a), _mm_mullo_epi16(dv[g], _mm_sub_epi16(_mm_set1_epi16(255), a)));
    out[g] = DivBy255(sum);
  }
  _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_packus_epi16(out[0], out[1]));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(d + 16), _mm_packus_epi16(out[2], out[2]));
}

// 8 pixels of 4 bytes composed over 8 of 4: all alpha 255 copies, all 0
// writes nothing, otherwise (a*s + t*d) / outA in float, rounded to nearest
// even by the vector conversion, with outA == 0 lanes cleared.
void Block4To4(const unsigned char* s, unsigned char* d) {
  const __m128i v0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
  const __m128i v1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16));
  const __m128i pick_alpha = _mm_setr_epi8(3, -1, 7, -1, 11, -1, 15, -1, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i a = _mm_unpacklo_epi64(_mm_shuffle_epi8(v0, pick_alpha), _mm_shuffle_epi8(v1, pick_alpha));
  const int all255 = _mm_movemask_epi8(_mm_cmpeq_epi16(a, _mm_set1_epi16(255)));
  if (all255 == 0xFFFF) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d), v0);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 16), v1);
    return;
  }
  if (_mm_movemask_epi8(_mm_cmpeq_epi16(a, _mm_setzero_si128())) == 0xFFFF) return;
  const __m128i w0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(d));
  const __m128i w1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(d + 16));
  const __m128i da = _mm_unpacklo_epi64(_mm_shuffle_epi8(w0, pick_alpha), _mm_shuffle_epi8(w1, pick_alpha));
  const __m128i e = DivBy255(_mm_mullo_epi16(a, da));
  const __m128i t = _mm_sub_epi16(da, e);
  const __m128i outa = _mm_add_epi16(a, t);
  alignas(16) int16_t av[8], tv[8], ov[8];
  _mm_store_si128(reinterpret_cast<__m128i*>(av), a);
  _mm_store_si128(reinterpret_cast<__m128i*>(tv), t);
  _mm_store_si128(reinterpret_cast<__m128i*>(ov), outa);
  for (int p = 0; p < 8; ++p) {
    int sp, dp;
    std::memcpy(&sp, s + 4 * p, 4);
    std::memcpy(&dp, d + 4 * p, 4);
    // (s, d) pairs of 16-bit lanes times (a, t): one multiply-add per byte.
    const __m128i pairs =
        _mm_unpacklo_epi16(_mm_cvtepu8_epi16(_mm_cvtsi32_si128(sp)), _mm_cvtepu8_epi16(_mm_cvtsi32_si128(dp)));
    const __m128i weights =
        _mm_set1_epi32((static_cast<int>(static_cast<uint16_t>(tv[p])) << 16) | static_cast<uint16_t>(av[p]));
    const __m128 num = _mm_cvtepi32_ps(_mm_madd_epi16(pairs, weights));
    __m128i q = _mm_cvtps_epi32(_mm_div_ps(num, _mm_set1_ps(static_cast<float>(ov[p]))));
    if (ov[p] == 0) q = _mm_setzero_si128();  // the mask of the outA == 0 lanes
    q = _mm_min_epi32(_mm_max_epi32(q, _mm_setzero_si128()), _mm_set1_epi32(255));
    const __m128i bytes = _mm_packus_epi16(_mm_packus_epi32(q, q), q);
    const int colour = _mm_cvtsi128_si32(bytes) & 0x00FFFFFF;
    const int pixel = colour | (static_cast<int>(static_cast<unsigned>(ov[p]) << 24));
    std::memcpy(d + 4 * p, &pixel, 4);
  }
}

// The scalar tails, one pixel each. 4 to 4 truncates where the block rounds.
void Pixel3To4(const unsigned char* s, unsigned char* d) { d[0] = s[0], d[1] = s[1], d[2] = s[2], d[3] = 255; }
void Pixel4To3(const unsigned char* s, unsigned char* d) {
  const int a = s[3];
  if (a > 254) {
    d[0] = s[0], d[1] = s[1], d[2] = s[2];
    return;
  }
  for (int c = 0; c < 3; ++c) d[c] = static_cast<unsigned char>(DivBy255(s[c] * a + d[c] * (255 - a)));
}
void Pixel4To4(const unsigned char* s, unsigned char* d) {
  const int a = s[3];
  if (a == 255) {
    d[0] = s[0], d[1] = s[1], d[2] = s[2], d[3] = 255;
    return;
  }
  if (a == 0) return;
  const int da = d[3], t = da - DivBy255(a * da), outa = a + t;
  for (int c = 0; c < 3; ++c) d[c] = outa == 0 ? 0 : static_cast<unsigned char>((a * s[c] + t * d[c]) / outa);
  d[3] = static_cast<unsigned char>(outa);
}

}  // namespace

extern "C" QV_API int QV_BitBlt(ImageRecord* Dest, int DestX, int DestY, int BlitWidth, int BlitHeight,
                                const ImageRecord* Src, int SrcX, int SrcY) {
  const int sc = qv::DeriveChannel(Src->Stride, Src->Width);
  const int dc = qv::DeriveChannel(Dest->Stride, Dest->Width);
  if (BlitWidth < 0 || BlitHeight < 0) return STATUS_OK;
  if (Src->Data == nullptr || Dest->Data == nullptr) return STATUS_NULL_REFERENCE;
  if (Src->Data == Dest->Data) return STATUS_NOT_SUPPORTED;
  if (!qv::IsChannel34(sc) || !qv::IsChannel34(dc)) return STATUS_INVALID_PARAMETER;

  int dl0, dt0, dr0, db0, sl, st, sr, sb;
  qv::IntersectRect(&dl0, &dt0, &dr0, &db0, 0, 0, Dest->Width, Dest->Height, DestX, DestY, Add(DestX, BlitWidth),
                    Add(DestY, BlitHeight));
  const int sx = Add(Sub(dl0, DestX), SrcX), sy = Add(Sub(dt0, DestY), SrcY);
  qv::IntersectRect(&sl, &st, &sr, &sb, 0, 0, Src->Width, Src->Height, sx, sy,
                    Add(Add(SrcX, BlitWidth), Sub(dr0, Add(DestX, BlitWidth))),
                    Add(Add(SrcY, BlitHeight), Sub(db0, Add(DestY, BlitHeight))));
  const int dl = Add(dl0, Sub(sl, sx)), dt = Add(dt0, Sub(st, sy));
  if (sr <= sl || sb <= st) return STATUS_OK;
  const int width = sr - sl;

  // Bytes of Dest that exist: a pixel not wholly inside them is skipped. Only the
  // paths with a 4-channel image need this: they start a row at
  // dl - S.left, which can fall before the buffer's first byte.
  const int64_t dest_end = int64_t(Dest->Height - 1) * Dest->Stride + int64_t(Dest->Width) * dc;
  auto inside = [&](int64_t off, int bytes) { return off >= 0 && off + bytes <= dest_end; };

  for (int y = st; y < sb; ++y) {
    const unsigned char* srow = Src->Data + int64_t(y) * Src->Stride + int64_t(sl) * sc;
    const int64_t drow = int64_t(dt) + (y - st);
    if (sc == 3 && dc == 3) {
      const int64_t off = drow * Dest->Stride + int64_t(dl) * 3;
      if (inside(off, 3 * width)) std::memmove(Dest->Data + off, srow, size_t(3) * width);
      continue;
    }
    // The three paths with a 4-channel image subtract the source's left edge.
    const int64_t base = drow * Dest->Stride + (int64_t(dl) - sl) * dc;
    const int blocks_end = width / 8 * 8;
    for (int x = 0; x < blocks_end; x += 8) {
      const unsigned char* s = srow + x * sc;
      const int64_t off = base + int64_t(x) * dc;
      unsigned char spare[32];
      unsigned char* d = nullptr;
      if (inside(off, 8 * dc)) {
        d = Dest->Data + off;
      } else {
        // Partly outside: work on a copy and put back the bytes that exist.
        std::memset(spare, 0, sizeof spare);
        for (int k = 0; k < 8; ++k)
          if (inside(off + k * dc, dc)) std::memcpy(spare + k * dc, Dest->Data + off + k * dc, size_t(dc));
        d = spare;
      }
      if (sc == 3)
        Block3To4(s, d);
      else if (dc == 3)
        Block4To3(s, d);
      else
        Block4To4(s, d);
      if (d == spare)
        for (int k = 0; k < 8; ++k)
          if (inside(off + k * dc, dc)) std::memcpy(Dest->Data + off + k * dc, spare + k * dc, size_t(dc));
    }
    for (int x = blocks_end; x < width; ++x) {
      const int64_t off = base + int64_t(x) * dc;
      if (!inside(off, dc)) continue;
      if (sc == 3)
        Pixel3To4(srow + x * 3, Dest->Data + off);
      else if (dc == 3)
        Pixel4To3(srow + x * 4, Dest->Data + off);
      else
        Pixel4To4(srow + x * 4, Dest->Data + off);
    }
  }
  return STATUS_OK;
}
