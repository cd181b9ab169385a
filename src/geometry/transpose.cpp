// Transpose: Dest(row r, column c) = Src(row c, column r), in register tiles
// (8x8 bytes, 4x4 pixels of 3 or 4 bytes) with two scalar strips for the rest.
#include "geometry/transpose.h"

#include <cstddef>

#include "frame/frame.h"

namespace {

using std::ptrdiff_t;

// Scalar strips: the columns right of the tiled area for the tiled rows, then
// every column of the remaining rows. SrcRowStep is the byte step between
// source rows (the stride, or 4 * DestHeight for four channels).
void TransposeStrips(const unsigned char* Src, unsigned char* Dest, int DestWidth, int DestHeight, ptrdiff_t SrcRowStep,
                     int DestStride, int Channel, int TiledW, int TiledH) {
  auto pixel = [&](int r, int c) {
    const unsigned char* s = Src + c * SrcRowStep + ptrdiff_t(r) * Channel;
    unsigned char* d = Dest + ptrdiff_t(r) * DestStride + ptrdiff_t(c) * Channel;
    for (int k = 0; k < Channel; ++k) d[k] = s[k];
  };
  for (int r = 0; r < TiledH; ++r)
    for (int c = TiledW; c < DestWidth; ++c) pixel(r, c);
  for (int r = TiledH; r < DestHeight; ++r)
    for (int c = 0; c < DestWidth; ++c) pixel(r, c);
}

}  // namespace

extern "C" QV_API int QV_Transpose(const unsigned char* Src, unsigned char* Dest, int SrcWidth, int SrcHeight,
                                   int SrcStride, int DestWidth, int DestHeight, int DestStride) {
  const int Channel = qv::DeriveChannel(SrcStride, SrcWidth);
  (void)SrcHeight;  // never read: DestWidth and DestHeight drive the copy
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (!qv::IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;

  if (Channel == 1) {
    const int tw = DestWidth / 8, th = DestHeight / 8;
    for (int ty = 0; ty < th; ++ty)
      for (int tx = 0; tx < tw; ++tx)
        qv::Transpose8x8Tile(Src + ptrdiff_t(tx) * 8 * SrcStride + ty * 8, SrcStride,
                             Dest + ptrdiff_t(ty) * 8 * DestStride + tx * 8, DestStride);
    TransposeStrips(Src, Dest, DestWidth, DestHeight, SrcStride, DestStride, 1, tw * 8, th * 8);
  } else if (Channel == 3) {
    const int tw = DestWidth / 4, th = DestHeight / 4;
    for (int ty = 0; ty < th; ++ty)
      for (int tx = 0; tx < tw; ++tx)
        qv::Transpose3Tile(Src + ptrdiff_t(tx) * 4 * SrcStride + ty * 12, SrcStride,
                           Dest + ptrdiff_t(ty) * 4 * DestStride + tx * 12, DestStride);
    TransposeStrips(Src, Dest, DestWidth, DestHeight, SrcStride, DestStride, 3, tw * 4, th * 4);
  } else {
    // Inside a tile the rows are stepped by the packed pitches of the widths,
    // from tile to tile by the strides, and the strips step source rows by
    // 4 * DestHeight: four-channel images must be packed to come out right.
    const int tw = DestWidth / 4, th = DestHeight / 4;
    qv::ForTileGroups<4>(tw, th, [&](int tx, int ty) {
      qv::Transpose4Tile(Src + ptrdiff_t(tx) * 4 * SrcStride + ty * 16, 4 * SrcWidth,
                         Dest + ptrdiff_t(ty) * 4 * DestStride + tx * 16, 4 * DestWidth);
    });
    TransposeStrips(Src, Dest, DestWidth, DestHeight, ptrdiff_t(4) * DestHeight, DestStride, 4, tw * 4, th * 4);
  }
  return STATUS_OK;
}
