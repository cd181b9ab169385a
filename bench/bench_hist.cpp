// Histogram adjustments, brightness and contrast, vibrance and white balance,
// with OpenCV's equalizeHist beside the equalisation of gray images.
#include "bench_util.h"

#ifdef QV_HAVE_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace {

// Runs Op(src, dst, w, h, stride) on a natural image of the case's size.
template <typename Op>
void RunPoint(benchmark::State& state, Op op) {
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state) benchmark::DoNotOptimize(op(src.ptr(), dst.ptr(), w, h, src.Stride));
  qvb::SetMegapixels(state, w, h);
}

void BM_AutoLevel_qv(benchmark::State& state) {
  RunPoint(state, [](auto s, auto d, int w, int h, int st) { return QV_AutoLevel(s, d, w, h, st, 0.01f, 0); });
}
void BM_AutoLevelGamma_qv(benchmark::State& state) {
  RunPoint(state, [](auto s, auto d, int w, int h, int st) { return QV_AutoLevel(s, d, w, h, st, 0.01f, 1); });
}
void BM_AutoContrast_qv(benchmark::State& state) {
  RunPoint(state, [](auto s, auto d, int w, int h, int st) { return QV_AutoContrast(s, d, w, h, st, 0.01f, 0); });
}
void BM_AutoEnhanceColors_qv(benchmark::State& state) {
  RunPoint(state, [](auto s, auto d, int w, int h, int st) { return QV_AutoEnhanceColors(s, d, w, h, st); });
}
void BM_HistEqualize_qv(benchmark::State& state) {
  RunPoint(state, [](auto s, auto d, int w, int h, int st) { return QV_HistEqualize(s, d, w, h, st, 0, 100); });
}
void BM_HistgramMatching_qv(benchmark::State& state) {
  static int target[256];
  for (int i = 0; i < 256; ++i) target[i] = 1000 + 10 * i;
  RunPoint(state, [](auto s, auto d, int w, int h, int st) {
    return QV_HistgramMatching(s, d, w, h, st, target, target, target);
  });
}
void BM_AdjustBrightnessAndContrast_qv(benchmark::State& state) {
  RunPoint(state,
           [](auto s, auto d, int w, int h, int st) { return QV_AdjustBrightnessAndContrast(s, d, w, h, st, 20, 40); });
}
void BM_Vibrance_qv(benchmark::State& state) {
  RunPoint(state, [](auto s, auto d, int w, int h, int st) { return QV_Vibrance(s, d, w, h, st, 50); });
}
void BM_AWB_GrayWorld_qv(benchmark::State& state) {
  RunPoint(state, [](auto s, auto d, int w, int h, int st) { return QV_AWB_GrayWorld(s, d, w, h, st, 50); });
}

#ifdef QV_HAVE_OPENCV
void BM_HistEqualize_cv(benchmark::State& state) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  cv::Mat s = qvb::AsMat(src), d = qvb::AsMat(dst);
  for (auto _ : state) cv::equalizeHist(s, d);
  qvb::SetMegapixels(state, w, h);
}
#endif

void Channels(benchmark::internal::Benchmark* b, std::initializer_list<int> channels) {
  for (int c : channels) b->Args({1920, 1080, c});
  b->ArgNames({"w", "h", "c"});
}
void Gray(benchmark::internal::Benchmark* b) { Channels(b, {1}); }
void All(benchmark::internal::Benchmark* b) { Channels(b, {1, 3, 4}); }
void Colour(benchmark::internal::Benchmark* b) { Channels(b, {3, 4}); }

BENCHMARK(BM_AutoLevel_qv)->Apply(All);
BENCHMARK(BM_AutoLevelGamma_qv)->Apply(All);
BENCHMARK(BM_AutoContrast_qv)->Apply(All);
BENCHMARK(BM_AutoEnhanceColors_qv)->Apply(Colour);
BENCHMARK(BM_HistEqualize_qv)->Apply(All);
#ifdef QV_HAVE_OPENCV
BENCHMARK(BM_HistEqualize_cv)->Apply(Gray);
#endif
BENCHMARK(BM_HistgramMatching_qv)->Apply(All);
BENCHMARK(BM_AdjustBrightnessAndContrast_qv)->Apply(All);
BENCHMARK(BM_Vibrance_qv)->Apply(Colour);
BENCHMARK(BM_AWB_GrayWorld_qv)->Apply(Colour);

}  // namespace
