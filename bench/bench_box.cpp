// Box mean at radius 2, 20 and 200 (the cost should stay flat) beside the
// OpenCV box filter, single-threaded, with its reflect-without-edge border.
#include "bench_util.h"

#ifdef QV_HAVE_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace {

void BM_BoxBlur_qv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2), r = state.range(3);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state) benchmark::DoNotOptimize(QV_BoxBlur(src.ptr(), dst.ptr(), w, h, src.Stride, r));
  qvb::SetMegapixels(state, w, h);
}

#ifdef QV_HAVE_OPENCV
void BM_BoxBlur_cv(benchmark::State& state) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1), c = state.range(2), r = state.range(3);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  cv::Mat s = qvb::AsMat(src), d = qvb::AsMat(dst);
  const int side = 2 * r + 1;
  for (auto _ : state) cv::blur(s, d, cv::Size(side, side), cv::Point(-1, -1), cv::BORDER_REFLECT_101);
  qvb::SetMegapixels(state, w, h);
}
#endif

void Sizes(benchmark::internal::Benchmark* b) {
  for (int c : {1, 3, 4})
    for (int r : {2, 20, 200}) b->Args({1920, 1080, c, r});
  b->ArgNames({"w", "h", "c", "r"});
}

BENCHMARK(BM_BoxBlur_qv)->Apply(Sizes);
#ifdef QV_HAVE_OPENCV
BENCHMARK(BM_BoxBlur_cv)->Apply(Sizes);
#endif

}  // namespace
