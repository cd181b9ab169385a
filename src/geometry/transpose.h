// Register tile kernels that turn rows into columns: 8x8 bytes, 4x4 pixels of
// three bytes and 4x4 pixels of four bytes. Shared by the transpose, the
// right-angle rotations and the horizontal pass of the gray morphology.
#pragma once

#include <smmintrin.h>
#include <tmmintrin.h>

#include <cstring>

#include "frame/simd.h"

namespace qv {

static inline __m128i Load12(const unsigned char* p) {
  int last;
  std::memcpy(&last, p + 8, 4);
  return _mm_insert_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)), last, 2);
}

static inline void Store12(unsigned char* p, __m128i v) {
  _mm_storel_epi64(reinterpret_cast<__m128i*>(p), v);
  const int last = _mm_extract_epi32(v, 2);
  std::memcpy(p + 8, &last, 4);
}

// 8 rows of 8 bytes to 8 rows of 8 bytes: bytes, then words, then dwords.
static inline void Transpose8x8Tile(const unsigned char* Src, int SrcPitch, unsigned char* Dest, int DestPitch) {
  __m128i r[8];
  for (int i = 0; i < 8; ++i) r[i] = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(Src + i * SrcPitch));
  const __m128i a0 = _mm_unpacklo_epi8(r[0], r[1]), a1 = _mm_unpacklo_epi8(r[2], r[3]);
  const __m128i a2 = _mm_unpacklo_epi8(r[4], r[5]), a3 = _mm_unpacklo_epi8(r[6], r[7]);
  const __m128i b0 = _mm_unpacklo_epi16(a0, a1), b1 = _mm_unpackhi_epi16(a0, a1);
  const __m128i b2 = _mm_unpacklo_epi16(a2, a3), b3 = _mm_unpackhi_epi16(a2, a3);
  const __m128i c[4] = {_mm_unpacklo_epi32(b0, b2), _mm_unpackhi_epi32(b0, b2), _mm_unpacklo_epi32(b1, b3),
                        _mm_unpackhi_epi32(b1, b3)};
  for (int i = 0; i < 4; ++i) {
    _mm_storel_epi64(reinterpret_cast<__m128i*>(Dest + (2 * i) * DestPitch), c[i]);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(Dest + (2 * i + 1) * DestPitch), _mm_unpackhi_epi64(c[i], c[i]));
  }
}

// 4x4 pixels of three bytes. Each row is read and written as 8 + 4 bytes, so
// the tile touches exactly its 12 bytes per row; the pixels are spread to
// dwords for the transpose and closed up again afterwards.
static inline void Transpose3Tile(const unsigned char* Src, int SrcPitch, unsigned char* Dest, int DestPitch) {
  const __m128i spread = _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
  const __m128i close = _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
  __m128i r0 = _mm_shuffle_epi8(Load12(Src), spread);
  __m128i r1 = _mm_shuffle_epi8(Load12(Src + SrcPitch), spread);
  __m128i r2 = _mm_shuffle_epi8(Load12(Src + 2 * SrcPitch), spread);
  __m128i r3 = _mm_shuffle_epi8(Load12(Src + 3 * SrcPitch), spread);
  Transpose4x4I32(r0, r1, r2, r3);
  Store12(Dest, _mm_shuffle_epi8(r0, close));
  Store12(Dest + DestPitch, _mm_shuffle_epi8(r1, close));
  Store12(Dest + 2 * DestPitch, _mm_shuffle_epi8(r2, close));
  Store12(Dest + 3 * DestPitch, _mm_shuffle_epi8(r3, close));
}

// 4x4 pixels of four bytes.
static inline void Transpose4Tile(const unsigned char* Src, int SrcPitch, unsigned char* Dest, int DestPitch) {
  __m128i r0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src));
  __m128i r1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src + SrcPitch));
  __m128i r2 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src + 2 * SrcPitch));
  __m128i r3 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Src + 3 * SrcPitch));
  Transpose4x4I32(r0, r1, r2, r3);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest), r0);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + DestPitch), r1);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + 2 * DestPitch), r2);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(Dest + 3 * DestPitch), r3);
}

// Visits the tiles (tx, ty) of a TilesW by TilesH grid in square groups of
// Group by Group tiles, a row of tiles at a time inside a group. A group's
// source and destination rows then stay in L1 from one row of tiles to the
// next, and each destination row is written in whole cache lines.
template <int Group, class Tile>
static inline void ForTileGroups(int TilesW, int TilesH, Tile tile) {
  for (int gy = 0; gy < TilesH; gy += Group) {
    const int ey = gy + Group < TilesH ? gy + Group : TilesH;
    for (int gx = 0; gx < TilesW; gx += Group) {
      const int ex = gx + Group < TilesW ? gx + Group : TilesW;
      for (int ty = gy; ty < ey; ++ty)
        for (int tx = gx; tx < ex; ++tx) tile(tx, ty);
    }
  }
}

}  // namespace qv
