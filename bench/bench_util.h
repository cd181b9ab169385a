// Helpers shared by the benchmark files: test images, the megapixel rate
// counter, and the single-threaded OpenCV peer set-up.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include "quelvin.h"

#ifdef QV_HAVE_OPENCV
#include <opencv2/core.hpp>
#endif

namespace qvb {

struct Image {
  int Width, Height, Channel, Stride;
  std::vector<unsigned char> data;
  unsigned char* ptr() { return data.data(); }
};

// A natural-looking image (gradients with noise), fixed seed.
inline Image MakeImage(int Width, int Height, int Channel) {
  Image im{Width, Height, Channel, Width * Channel, {}};
  im.data.resize(size_t(im.Stride) * Height);
  std::mt19937 rng(42);
  std::uniform_int_distribution<int> noise(-20, 20);
  for (int y = 0; y < Height; ++y)
    for (int x = 0; x < im.Stride; ++x) {
      int v = ((x / Channel) * 255 / Width + y * 255 / Height) / 2 + noise(rng);
      im.data[size_t(y) * im.Stride + x] = static_cast<unsigned char>(v < 0 ? 0 : v > 255 ? 255 : v);
    }
  return im;
}

// Reports megapixels per second as the counter "MP/s".
inline void SetMegapixels(benchmark::State& state, int Width, int Height) {
  state.counters["MP/s"] = benchmark::Counter(double(Width) * Height * 1e-6, benchmark::Counter::kIsIterationInvariantRate);
}

#ifdef QV_HAVE_OPENCV
inline int CvType(int Channel) { return Channel == 1 ? CV_8UC1 : Channel == 3 ? CV_8UC3 : CV_8UC4; }
inline cv::Mat AsMat(Image& im) { return cv::Mat(im.Height, im.Width, CvType(im.Channel), im.ptr(), im.Stride); }
inline void OpenCvSingleThread() { cv::setNumThreads(1); }
#endif

}  // namespace qvb

// Case naming, which the table script groups by: BM_<Operator>_<impl> with
// arguments w, h, c and optionally r (radius); impl is qv, cv or memcpy.
