// Gray morphology at radius 1 to 6, 10 and 50 (the cost must stay flat) beside
// OpenCV's erode and dilate with a square kernel, single-threaded.
#include "bench_util.h"

#ifdef QV_HAVE_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace {

template <int (*F)(const unsigned char*, unsigned char*, int, int, int, int)>
void ExtremumQv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2), r = state.range(3);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state) benchmark::DoNotOptimize(F(src.ptr(), dst.ptr(), w, h, src.Stride, r));
  qvb::SetMegapixels(state, w, h);
}
void BM_MinFilter_qv(benchmark::State& s) { ExtremumQv<QV_MinFilter>(s); }
void BM_MaxFilter_qv(benchmark::State& s) { ExtremumQv<QV_MaxFilter>(s); }

#ifdef QV_HAVE_OPENCV
template <bool Erode>
void ExtremumCv(benchmark::State& state) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1), c = state.range(2), r = state.range(3);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  cv::Mat s = qvb::AsMat(src), d = qvb::AsMat(dst);
  const cv::Mat k = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(2 * r + 1, 2 * r + 1));
  for (auto _ : state) {
    if (Erode)
      cv::erode(s, d, k);
    else
      cv::dilate(s, d, k);
  }
  qvb::SetMegapixels(state, w, h);
}
void BM_MinFilter_cv(benchmark::State& s) { ExtremumCv<true>(s); }
void BM_MaxFilter_cv(benchmark::State& s) { ExtremumCv<false>(s); }
#endif

void Sizes(benchmark::internal::Benchmark* b) {
  for (int c : {1, 3, 4})
    for (int r : {1, 2, 3, 4, 5, 6, 8, 10, 12, 16, 50}) b->Args({1920, 1080, c, r});
  for (int c : {1, 3, 4})
    for (int r : {1, 3, 4, 5, 6, 10, 50}) b->Args({3840, 2160, c, r});
  b->ArgNames({"w", "h", "c", "r"});
}

BENCHMARK(BM_MinFilter_qv)->Apply(Sizes);
BENCHMARK(BM_MaxFilter_qv)->Apply(Sizes);
#ifdef QV_HAVE_OPENCV
BENCHMARK(BM_MinFilter_cv)->Apply(Sizes);
BENCHMARK(BM_MaxFilter_cv)->Apply(Sizes);
#endif

}  // namespace
