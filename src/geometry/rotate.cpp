// Right-angle rotations: the quarter turns in register tiles with two scalar
// strips for the rest, and the half-turn by reversed rows (in place by
// exchanging mirrored halves).
#include <cstddef>

#include "frame/frame.h"
#include "geometry/reverse.h"
#include "geometry/transpose.h"

namespace {

using std::ptrdiff_t;

// Where the tiles of a quarter turn end in destination coordinates; the
// strips then do the columns right of them for the tiled rows, and all
// columns of the rows below.
template <class Pixel>
void Strips(int DestWidth, int DestHeight, int TiledW, int TiledH, Pixel pixel) {
  for (int r = 0; r < TiledH; ++r)
    for (int c = TiledW; c < DestWidth; ++c) pixel(r, c);
  for (int r = TiledH; r < DestHeight; ++r)
    for (int c = 0; c < DestWidth; ++c) pixel(r, c);
}

inline void CopyPixel(const unsigned char* s, unsigned char* d, int Channel) {
  for (int k = 0; k < Channel; ++k) d[k] = s[k];
}

// The frame of the quarter and half turns: pointers, sizes that fit, Channel 5.
int TurnFrame(const unsigned char* Src, unsigned char* Dest, int Channel, bool SizesFit) {
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (!SizesFit) return STATUS_INVALID_PARAMETER;
  if (!qv::IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;
  return STATUS_OK;
}

}  // namespace

// Clockwise: Dest(r, DestWidth - 1 - y) = Src(y, r). A tile reads its source
// rows bottom-up (a negative pitch) and transposes them.
extern "C" QV_API int QV_Rotate90(const unsigned char* Src, unsigned char* Dest, int SrcWidth, int SrcHeight,
                                  int SrcStride, int DestWidth, int DestHeight, int DestStride) {
  const int Channel = qv::DeriveChannel(SrcStride, SrcWidth);
  const int status = TurnFrame(Src, Dest, Channel, SrcWidth == DestHeight && SrcHeight == DestWidth);
  if (status != STATUS_OK) return status;

  const int w = DestWidth, h = DestHeight;
  if (Channel == 1) {
    // Rotate90Tile1: 8 source rows of 16 bytes to 16 rows of 8 bytes.
    const int tw = w / 8, th = h / 16;
    for (int ty = 0; ty < th; ++ty)
      for (int tx = 0; tx < tw; ++tx) {
        const unsigned char* s = Src + ptrdiff_t(w - 1 - 8 * tx) * SrcStride + 16 * ty;
        unsigned char* d = Dest + ptrdiff_t(16 * ty) * DestStride + 8 * tx;
        qv::Transpose8x8Tile(s, -SrcStride, d, DestStride);
        qv::Transpose8x8Tile(s + 8, -SrcStride, d + ptrdiff_t(8) * DestStride, DestStride);
      }
    Strips(w, h, tw * 8, th * 16,
           [&](int r, int c) { Dest[ptrdiff_t(r) * DestStride + c] = Src[ptrdiff_t(w - 1 - c) * SrcStride + r]; });
  } else if (Channel == 3) {
    const int tw = (w - 2) / 4, th = (h - 2) / 4;
    for (int ty = 0; ty < th; ++ty)
      for (int tx = 0; tx < tw; ++tx)
        qv::Transpose3Tile(Src + ptrdiff_t(w - 1 - 4 * tx) * SrcStride + 12 * ty, -SrcStride,
                           Dest + ptrdiff_t(4 * ty) * DestStride + 12 * tx, DestStride);
    Strips(w, h, tw > 0 ? tw * 4 : 0, th > 0 ? th * 4 : 0, [&](int r, int c) {
      CopyPixel(Src + ptrdiff_t(w - 1 - c) * SrcStride + 3 * r, Dest + ptrdiff_t(r) * DestStride + 3 * c, 3);
    });
  } else {
    // Inside a tile rows step by the packed pitches of the widths, from tile
    // to tile by the strides; the strips step source rows by 4 * SrcWidth.
    const int sp = 4 * SrcWidth, dp = 4 * DestWidth;
    const int tw = w / 4, th = h / 4;
    qv::ForTileGroups<4>(tw, th, [&](int tx, int ty) {
      qv::Transpose4Tile(Src + ptrdiff_t(w - 4 - 4 * tx) * SrcStride + ptrdiff_t(3) * sp + 16 * ty, -sp,
                         Dest + ptrdiff_t(4 * ty) * DestStride + 16 * tx, dp);
    });
    Strips(w, h, tw * 4, th * 4, [&](int r, int c) {
      CopyPixel(Src + ptrdiff_t(w - 1 - c) * sp + 4 * r, Dest + ptrdiff_t(r) * DestStride + 4 * c, 4);
    });
  }
  return STATUS_OK;
}

// Counter-clockwise: Dest(r, c) = Src(c, SrcWidth - 1 - r); a tile writes its
// destination rows bottom-up. A single-channel image that is not wider than
// high takes a plain loop that turns clockwise instead: fixed behaviour.
extern "C" QV_API int QV_Rotate270(const unsigned char* Src, unsigned char* Dest, int SrcWidth, int SrcHeight,
                                   int SrcStride, int DestWidth, int DestHeight, int DestStride) {
  const int Channel = qv::DeriveChannel(SrcStride, SrcWidth);
  const int status = TurnFrame(Src, Dest, Channel, SrcWidth == DestHeight && SrcHeight == DestWidth);
  if (status != STATUS_OK) return status;

  const int w = DestWidth, h = DestHeight;
  if (Channel == 1) {
    if (SrcWidth <= SrcHeight) {
      for (int y = 0; y < SrcHeight; ++y)
        for (int x = 0; x < SrcWidth; ++x)
          Dest[ptrdiff_t(x) * DestStride + (w - 1 - y)] = Src[ptrdiff_t(y) * SrcStride + x];
      return STATUS_OK;
    }
    const int tw = w / 8, th = h / 8;
    for (int ty = 0; ty < th; ++ty)
      for (int tx = 0; tx < tw; ++tx)
        qv::Transpose8x8Tile(Src + ptrdiff_t(8 * tx) * SrcStride + (SrcWidth - 8 - 8 * ty), SrcStride,
                             Dest + ptrdiff_t(8 * ty + 7) * DestStride + 8 * tx, -DestStride);
    Strips(w, h, tw * 8, th * 8, [&](int r, int c) {
      Dest[ptrdiff_t(r) * DestStride + c] = Src[ptrdiff_t(c) * SrcStride + (SrcWidth - 1 - r)];
    });
  } else if (Channel == 3) {
    // The tiles move exactly their 12 bytes a row, so the "- 2" of the tile
    // count is kept only for the same split between tiles and strips.
    const int tw = (w - 2) / 4, th = (h - 2) / 4;
    for (int ty = 0; ty < th; ++ty)
      for (int tx = 0; tx < tw; ++tx)
        qv::Transpose3Tile(Src + ptrdiff_t(4 * tx) * SrcStride + 3 * (SrcWidth - 4 - 4 * ty), SrcStride,
                           Dest + ptrdiff_t(4 * ty + 3) * DestStride + 12 * tx, -DestStride);
    Strips(w, h, tw > 0 ? tw * 4 : 0, th > 0 ? th * 4 : 0, [&](int r, int c) {
      CopyPixel(Src + ptrdiff_t(c) * SrcStride + 3 * (SrcWidth - 1 - r), Dest + ptrdiff_t(r) * DestStride + 3 * c, 3);
    });
  } else {
    const int sp = 4 * SrcWidth, dp = 4 * DestWidth;
    const int tw = w / 4, th = h / 4;
    qv::ForTileGroups<4>(tw, th, [&](int tx, int ty) {
      qv::Transpose4Tile(Src + ptrdiff_t(4 * tx) * SrcStride + 4 * (SrcWidth - 4 - 4 * ty), sp,
                         Dest + ptrdiff_t(4 * ty) * DestStride + ptrdiff_t(3) * dp + 16 * tx, -dp);
    });
    Strips(w, h, tw * 4, th * 4, [&](int r, int c) {
      CopyPixel(Src + ptrdiff_t(c) * sp + 4 * (SrcWidth - 1 - r), Dest + ptrdiff_t(r) * DestStride + 4 * c, 4);
    });
  }
  return STATUS_OK;
}

// Half turn: Dest(r, c) = Src(Height - 1 - r, Width - 1 - c).
extern "C" QV_API int QV_Rotate180(const unsigned char* Src, unsigned char* Dest, int SrcWidth, int SrcHeight,
                                   int SrcStride, int DestWidth, int DestHeight, int DestStride) {
  const int Channel = qv::DeriveChannel(SrcStride, SrcWidth);
  const int status = TurnFrame(Src, Dest, Channel, SrcWidth == DestWidth && SrcHeight == DestHeight);
  if (status != STATUS_OK) return status;

  const int W = SrcWidth, H = SrcHeight;
  if (Src != Dest) {
    // Row y is row H - 1 - y reversed: the left-right flip's row kernel.
    for (int y = 0; y < H; ++y) {
      const unsigned char* s = Src + ptrdiff_t(H - 1 - y) * SrcStride;
      qv::FlipRowOf(s, Dest + ptrdiff_t(y) * DestStride, W, Channel);
    }
    return STATUS_OK;
  }
  const qv::ReverseMasks masks = qv::MakeReverseMasks3();
  // In place: the left half of each row is exchanged with the mirrored right
  // half of the mirrored row; the two sets never meet, even in a middle row.
  const int half = W / 2, block = qv::ReverseBlock(Channel);
  const int end = half / block * block;
  for (int y = 0; y < H; ++y) {
    unsigned char* a = Dest + ptrdiff_t(y) * SrcStride;
    unsigned char* b = Dest + ptrdiff_t(H - 1 - y) * SrcStride;
    __m128i left[3], right[3];
    for (int x = 0; x < end; x += block) {
      qv::LoadReversed(a, x, Channel, masks, left);
      qv::LoadReversed(b, W - x - block, Channel, masks, right);
      qv::StoreBlock(a, x, Channel, right);
      qv::StoreBlock(b, W - x - block, Channel, left);
    }
    for (int x = end; x < half; ++x)
      for (int c = 0; c < Channel; ++c) {
        const unsigned char t = a[x * Channel + c];
        a[x * Channel + c] = b[(W - 1 - x) * Channel + c];
        b[(W - 1 - x) * Channel + c] = t;
      }
  }
  if (W % 2 == 1)
    for (int y = 0; y < H / 2; ++y)
      for (int c = 0; c < Channel; ++c) {
        unsigned char* a = Dest + ptrdiff_t(y) * SrcStride + half * Channel + c;
        unsigned char* b = Dest + ptrdiff_t(H - 1 - y) * SrcStride + half * Channel + c;
        const unsigned char t = *a;
        *a = *b;
        *b = t;
      }
  return STATUS_OK;
}
