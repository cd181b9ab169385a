// Sobel magnitude and Canny at 1920x1080 beside OpenCV single-threaded. The
// OpenCV Sobel magnitude is composed as it computes one: two 16-bit
// derivatives, converted to float, magnitude, back to bytes.
#include "bench_util.h"

#ifdef QV_HAVE_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace {

void BM_Sobel_qv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state) benchmark::DoNotOptimize(QV_Sobel(src.ptr(), dst.ptr(), w, h, src.Stride));
  qvb::SetMegapixels(state, w, h);
}

void BM_Canny_qv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1);
  auto src = qvb::MakeImage(w, h, 1);
  auto dst = src;
  for (auto _ : state) benchmark::DoNotOptimize(QV_Canny(src.ptr(), dst.ptr(), w, h, w, 50, 150, 0, 0, 1));
  qvb::SetMegapixels(state, w, h);
}

#ifdef QV_HAVE_OPENCV
void BM_Sobel_cv(benchmark::State& state) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  cv::Mat s = qvb::AsMat(src), dx, dy, fx, fy, mag, out;
  for (auto _ : state) {
    cv::Sobel(s, dx, CV_16S, 1, 0, 3, 1, 0, cv::BORDER_REPLICATE);
    cv::Sobel(s, dy, CV_16S, 0, 1, 3, 1, 0, cv::BORDER_REPLICATE);
    dx.convertTo(fx, CV_32F);
    dy.convertTo(fy, CV_32F);
    cv::magnitude(fx.reshape(1), fy.reshape(1), mag);
    mag.convertTo(out, CV_8U);
  }
  qvb::SetMegapixels(state, w, h);
}

void BM_Canny_cv(benchmark::State& state) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1);
  auto src = qvb::MakeImage(w, h, 1);
  cv::Mat s = qvb::AsMat(src), d;
  for (auto _ : state) cv::Canny(s, d, 50, 150, 3, false);
  qvb::SetMegapixels(state, w, h);
}
#endif

void Channels(benchmark::internal::Benchmark* b) {
  for (int c : {1, 3, 4}) b->Args({1920, 1080, c});
  b->ArgNames({"w", "h", "c"})->Unit(benchmark::kMillisecond);
}
void Gray(benchmark::internal::Benchmark* b) {
  b->Args({1920, 1080, 1})->ArgNames({"w", "h", "c"})->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_Sobel_qv)->Apply(Channels);
BENCHMARK(BM_Canny_qv)->Apply(Gray);
#ifdef QV_HAVE_OPENCV
BENCHMARK(BM_Sobel_cv)->Apply(Channels);
BENCHMARK(BM_Canny_cv)->Apply(Gray);
#endif

}  // namespace
