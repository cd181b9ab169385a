// Global thresholds on a 1920x1080 gray image, beside OpenCV's Otsu (which
// also writes the binary image; the histogram pass dominates both).
#include "bench_util.h"

#ifdef QV_HAVE_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace {

template <int (*Fn)(const unsigned char*, int, int, int, int*)>
void BM_Threshold_qv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  int t = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(Fn(src.ptr(), w, h, src.Stride, &t));
    benchmark::DoNotOptimize(t);
  }
  qvb::SetMegapixels(state, w, h);
}

#ifdef QV_HAVE_OPENCV
void BM_GetOSTUThreshold_cv(benchmark::State& state) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  cv::Mat s = qvb::AsMat(src), d = qvb::AsMat(dst);
  for (auto _ : state) benchmark::DoNotOptimize(cv::threshold(s, d, 0, 255, cv::THRESH_BINARY | cv::THRESH_OTSU));
  qvb::SetMegapixels(state, w, h);
}

void BM_GetTriangleThreshold_cv(benchmark::State& state) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  cv::Mat s = qvb::AsMat(src), d = qvb::AsMat(dst);
  for (auto _ : state) benchmark::DoNotOptimize(cv::threshold(s, d, 0, 255, cv::THRESH_BINARY | cv::THRESH_TRIANGLE));
  qvb::SetMegapixels(state, w, h);
}
#endif

void Gray(benchmark::internal::Benchmark* b) { b->Args({1920, 1080, 1})->ArgNames({"w", "h", "c"}); }

BENCHMARK(BM_Threshold_qv<QV_GetOSTUThreshold>)->Name("BM_GetOSTUThreshold_qv")->Apply(Gray);
BENCHMARK(BM_Threshold_qv<QV_GetMaxEntropyThreshold>)->Name("BM_GetMaxEntropyThreshold_qv")->Apply(Gray);
BENCHMARK(BM_Threshold_qv<QV_GetIterativeBestThreshold>)->Name("BM_GetIterativeBestThreshold_qv")->Apply(Gray);
BENCHMARK(BM_Threshold_qv<QV_GetMinimumThreshold>)->Name("BM_GetMinimumThreshold_qv")->Apply(Gray);
BENCHMARK(BM_Threshold_qv<QV_GetHuangFuzzyThreshold>)->Name("BM_GetHuangFuzzyThreshold_qv")->Apply(Gray);
BENCHMARK(BM_Threshold_qv<QV_GetTriangleThreshold>)->Name("BM_GetTriangleThreshold_qv")->Apply(Gray);
BENCHMARK(BM_Threshold_qv<QV_GetSimpleStatisticsThreshold>)->Name("BM_GetSimpleStatisticsThreshold_qv")->Apply(Gray);
#ifdef QV_HAVE_OPENCV
BENCHMARK(BM_GetOSTUThreshold_cv)->Apply(Gray);
BENCHMARK(BM_GetTriangleThreshold_cv)->Apply(Gray);
#endif

}  // namespace
