// Guided filters at 1920x1080 and radius 4, 16, 64 (the cost should stay
// flat), on the plain grid (ScaleRatio 100) and on a quarter grid; beside the
// contrib guided filter of OpenCV where its header is installed.
#include "bench_util.h"

#if defined(QV_HAVE_OPENCV) && __has_include(<opencv2/ximgproc.hpp>)
#include <opencv2/ximgproc.hpp>
#define QV_HAVE_CV_GUIDED 1
#endif

namespace {

template <int Ratio>
void GuidedQv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2), r = state.range(3);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state)
    benchmark::DoNotOptimize(QV_GuidedFilter(src.ptr(), src.ptr(), dst.ptr(), w, h, src.Stride, r, Ratio, 20.0f));
  qvb::SetMegapixels(state, w, h);
}

template <int Ratio>
void SelfGuidedQv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2), r = state.range(3);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state)
    benchmark::DoNotOptimize(QV_SelfGuidedFilter(src.ptr(), dst.ptr(), w, h, src.Stride, r, Ratio, 20.0f));
  qvb::SetMegapixels(state, w, h);
}

void BM_GuidedFilter_qv(benchmark::State& state) { GuidedQv<100>(state); }
void BM_GuidedFilterScale25_qv(benchmark::State& state) { GuidedQv<25>(state); }
void BM_SelfGuidedFilter_qv(benchmark::State& state) { SelfGuidedQv<100>(state); }
void BM_SelfGuidedFilterScale25_qv(benchmark::State& state) { SelfGuidedQv<25>(state); }

#ifdef QV_HAVE_CV_GUIDED
// The plain (full-grid) guided filter; eps is a variance there, 20 * 20.
void BM_GuidedFilter_cv(benchmark::State& state) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1), c = state.range(2), r = state.range(3);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  cv::Mat s = qvb::AsMat(src), d = qvb::AsMat(dst);
  for (auto _ : state) cv::ximgproc::guidedFilter(s, s, d, r, 400.0);
  qvb::SetMegapixels(state, w, h);
}
#endif

void Radii(benchmark::internal::Benchmark* b, std::initializer_list<int> Channels) {
  for (int c : Channels)
    for (int r : {4, 16, 64}) b->Args({1920, 1080, c, r});
  b->ArgNames({"w", "h", "c", "r"})->Unit(benchmark::kMillisecond);
}
void GrayAndColour(benchmark::internal::Benchmark* b) { Radii(b, {1, 3}); }

BENCHMARK(BM_GuidedFilter_qv)->Apply(GrayAndColour);
BENCHMARK(BM_GuidedFilterScale25_qv)->Apply(GrayAndColour);
BENCHMARK(BM_SelfGuidedFilter_qv)->Apply(GrayAndColour);
BENCHMARK(BM_SelfGuidedFilterScale25_qv)->Apply(GrayAndColour);
#ifdef QV_HAVE_CV_GUIDED
// Gray only: with a colour guide the contrib filter couples the channels
// (3x3 covariances), a different and costlier job.
BENCHMARK(BM_GuidedFilter_cv)->Apply([](benchmark::internal::Benchmark* b) { Radii(b, {1}); });
#endif

}  // namespace
