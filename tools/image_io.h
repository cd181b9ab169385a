// Image files for the command-line tool: reading and writing through the stb
// headers, and the conversions between the file's red-first order and the
// library's blue-first interleaved buffers.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace qvtool {

// An interleaved image in the library's order (gray, BGR or BGRA), rows packed.
struct Image {
  int Width = 0, Height = 0, Channel = 0;
  std::vector<unsigned char> data;

  int Stride() const { return Width * Channel; }
  unsigned char* ptr() { return data.data(); }
  const unsigned char* ptr() const { return data.data(); }
  bool empty() const { return data.empty(); }
};

Image MakeImage(int Width, int Height, int Channel, unsigned char fill = 0);

// What a file holds, without decoding its pixels.
struct FileInfo {
  std::string format;  // PNG, JPEG, BMP, TGA ...
  int Width = 0, Height = 0, FileChannel = 0;
};
bool ProbeImage(const std::string& path, FileInfo* info, std::string* error);

// Reads a file into the library's order. Channel 0 keeps the file's count
// (gray with alpha becomes BGRA); 1, 3 or 4 converts to that count.
bool ReadImage(const std::string& path, int Channel, Image* out, std::string* error);

// True if the path's extension names a format WriteImage writes.
bool WritableName(const std::string& path);

// Writes by the extension (.png, .jpg/.jpeg, .bmp, .tga); quality is JPEG's.
bool WriteImage(const std::string& path, const Image& im, int quality, std::string* error);

// Converts between 1, 3 and 4 channels in the library's order (gray from
// BT.601 weights, opaque fourth sample).
Image ConvertChannels(const Image& im, int Channel);

// Resamples to the given size (area-weighted when shrinking).
Image ResizeImage(const Image& im, int Width, int Height);

}  // namespace qvtool
