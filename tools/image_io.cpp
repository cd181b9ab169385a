// Reading and writing image files, channel order and count conversions, and
// resizing for thumbnails.
#include "image_io.h"

#include <stb_image.h>
#include <stb_image_resize.h>
#include <stb_image_write.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace qvtool {

namespace {

std::string Lower(std::string s) {
  for (char& ch : s) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  return s;
}

std::string Extension(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  const size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  return Lower(path.substr(dot + 1));
}

std::string SniffFormat(const unsigned char* b, size_t n) {
  if (n >= 8 && std::memcmp(b, "\x89PNG\r\n\x1a\n", 8) == 0) return "PNG";
  if (n >= 3 && b[0] == 0xFF && b[1] == 0xD8 && b[2] == 0xFF) return "JPEG";
  if (n >= 2 && b[0] == 'B' && b[1] == 'M') return "BMP";
  if (n >= 4 && std::memcmp(b, "GIF8", 4) == 0) return "GIF";
  if (n >= 4 && std::memcmp(b, "8BPS", 4) == 0) return "PSD";
  if (n >= 2 && b[0] == 'P' && (b[1] == '5' || b[1] == '6')) return "PNM";
  return "TGA";  // the one format stb reads that has no signature
}

// Swaps the first and third sample of each pixel: file RGB(A) <-> BGR(A).
void SwapRedBlue(unsigned char* p, size_t pixels, int Channel) {
  if (Channel < 3) return;
  for (size_t i = 0; i < pixels; ++i, p += Channel) std::swap(p[0], p[2]);
}

bool OpenReadable(const std::string& path, std::string* error) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) {
    *error = "cannot open " + path + ": " + std::strerror(errno);
    return false;
  }
  std::fclose(f);
  return true;
}

}  // namespace

Image MakeImage(int Width, int Height, int Channel, unsigned char fill) {
  Image im;
  im.Width = Width;
  im.Height = Height;
  im.Channel = Channel;
  im.data.assign(size_t(Width) * Height * Channel, fill);
  return im;
}

bool ProbeImage(const std::string& path, FileInfo* info, std::string* error) {
  if (!OpenReadable(path, error)) return false;
  FILE* f = std::fopen(path.c_str(), "rb");
  unsigned char head[16] = {};
  const size_t n = std::fread(head, 1, sizeof head, f);
  std::rewind(f);
  int w = 0, h = 0, c = 0;
  const int ok = stbi_info_from_file(f, &w, &h, &c);
  std::fclose(f);
  if (!ok) {
    *error = path + " is not an image this tool reads (PNG, JPEG, BMP, TGA): " + stbi_failure_reason();
    return false;
  }
  info->format = SniffFormat(head, n);
  info->Width = w;
  info->Height = h;
  info->FileChannel = c;
  return true;
}

bool ReadImage(const std::string& path, int Channel, Image* out, std::string* error) {
  if (!OpenReadable(path, error)) return false;
  int w = 0, h = 0, file_channel = 0;
  if (!stbi_info(path.c_str(), &w, &h, &file_channel)) {
    *error = path + " is not an image this tool reads (PNG, JPEG, BMP, TGA): " + stbi_failure_reason();
    return false;
  }
  int want = Channel;
  if (want == 0) want = file_channel == 2 ? 4 : file_channel;
  // The library sizes everything in 32-bit signed integers.
  if (int64_t(w) * want > INT_MAX || int64_t(w) * want * h > INT_MAX) {
    *error = path + " is too large: Height * Stride must fit in 32 bits";
    return false;
  }
  int got = 0;
  unsigned char* pixels = stbi_load(path.c_str(), &w, &h, &got, want);
  if (pixels == nullptr) {
    *error = "cannot decode " + path + ": " + stbi_failure_reason();
    return false;
  }
  Image im;
  im.Width = w;
  im.Height = h;
  im.Channel = want;
  im.data.assign(pixels, pixels + size_t(w) * h * want);
  stbi_image_free(pixels);
  SwapRedBlue(im.ptr(), size_t(w) * h, want);
  *out = std::move(im);
  return true;
}

bool WritableName(const std::string& path) {
  const std::string ext = Extension(path);
  return ext == "png" || ext == "jpg" || ext == "jpeg" || ext == "bmp" || ext == "tga";
}

bool WriteImage(const std::string& path, const Image& im, int quality, std::string* error) {
  const std::string ext = Extension(path);
  if (!WritableName(path)) {
    *error = "cannot tell the output format of " + path + ": name it .png or .jpg (or .bmp, .tga)";
    return false;
  }
  if (im.Channel != 1 && im.Channel != 3 && im.Channel != 4) {
    *error = "cannot write an image of " + std::to_string(im.Channel) + " channels";
    return false;
  }
  std::vector<unsigned char> rgb = im.data;
  SwapRedBlue(rgb.data(), size_t(im.Width) * im.Height, im.Channel);
  int ok = 0;
  if (ext == "png") {
    ok = stbi_write_png(path.c_str(), im.Width, im.Height, im.Channel, rgb.data(), im.Stride());
  } else if (ext == "bmp") {
    ok = stbi_write_bmp(path.c_str(), im.Width, im.Height, im.Channel, rgb.data());
  } else if (ext == "tga") {
    ok = stbi_write_tga(path.c_str(), im.Width, im.Height, im.Channel, rgb.data());
  } else {
    ok = stbi_write_jpg(path.c_str(), im.Width, im.Height, im.Channel, rgb.data(), quality);
  }
  if (!ok) {
    *error = "cannot write " + path;
    FILE* f = std::fopen(path.c_str(), "ab");
    if (f == nullptr)
      *error += std::string(": ") + std::strerror(errno);
    else
      std::fclose(f);
    return false;
  }
  return true;
}

Image ConvertChannels(const Image& im, int Channel) {
  if (im.Channel == Channel) return im;
  Image out = MakeImage(im.Width, im.Height, Channel);
  const size_t n = size_t(im.Width) * im.Height;
  const unsigned char* s = im.ptr();
  unsigned char* d = out.ptr();
  for (size_t i = 0; i < n; ++i, s += im.Channel, d += Channel) {
    unsigned char b = s[0], g = s[0], r = s[0], a = 255;
    if (im.Channel >= 3) g = s[1], r = s[2];
    if (im.Channel == 4) a = s[3];
    if (Channel == 1) {
      d[0] = static_cast<unsigned char>((r * 299 + g * 587 + b * 114 + 500) / 1000);
    } else {
      d[0] = b, d[1] = g, d[2] = r;
      if (Channel == 4) d[3] = a;
    }
  }
  return out;
}

Image ResizeImage(const Image& im, int Width, int Height) {
  Image out = MakeImage(Width, Height, im.Channel);
  stbir_resize_uint8(im.ptr(), im.Width, im.Height, im.Stride(), out.ptr(), Width, Height, out.Stride(), im.Channel);
  return out;
}

}  // namespace qvtool
