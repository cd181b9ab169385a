// Frequency domain: the two-dimensional transform (through QV_ShowFFT_Precise,
// one unpadded forward transform plus a shift and a magnitude pass) beside
// OpenCV's complex dft on the same sizes, and each frequency filter.
#include "bench_util.h"

#ifdef QV_HAVE_OPENCV
#include <opencv2/core.hpp>
#endif

namespace {

// Sizes the engine pads to unchanged (512, 1024, 1080 and 1920 are all
// 2^a 3^b 5^c), so the transform runs at exactly w by h.
void TransformSizes(benchmark::internal::Benchmark* b) {
  b->Args({512, 512, 1});
  b->Args({1024, 1024, 1});
  b->Args({1920, 1080, 1});
  b->ArgNames({"w", "h", "c"});
  b->Unit(benchmark::kMillisecond);
}

void FilterSizes(benchmark::internal::Benchmark* b) {
  b->Args({1920, 1080, 1});
  b->Args({1920, 1080, 3});
  b->ArgNames({"w", "h", "c"});
  b->Unit(benchmark::kMillisecond);
}

void BM_FFT2D_qv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1);
  auto src = qvb::MakeImage(w, h, 1);
  auto dst = src;
  for (auto _ : state) benchmark::DoNotOptimize(QV_ShowFFT_Precise(src.ptr(), dst.ptr(), w, h, w));
  qvb::SetMegapixels(state, w, h);
}

#ifdef QV_HAVE_OPENCV
void BM_FFT2D_cv(benchmark::State& state) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1);
  auto src = qvb::MakeImage(w, h, 1);
  cv::Mat bytes = qvb::AsMat(src), real, plane, out;
  bytes.convertTo(real, CV_32F);
  cv::Mat parts[] = {real, cv::Mat::zeros(h, w, CV_32F)};
  cv::merge(parts, 2, plane);
  for (auto _ : state) {
    cv::dft(plane, out, 0);
    benchmark::DoNotOptimize(out.data);
  }
  qvb::SetMegapixels(state, w, h);
}
#endif

#define QV_FILTER_BENCH(Name, Call)                                       \
  void BM_##Name##_qv(benchmark::State& state) {                          \
    const int w = state.range(0), h = state.range(1), c = state.range(2); \
    auto src = qvb::MakeImage(w, h, c);                                   \
    auto dst = src;                                                       \
    unsigned char* s = src.ptr();                                         \
    unsigned char* d = dst.ptr();                                         \
    const int stride = src.Stride;                                        \
    for (auto _ : state) benchmark::DoNotOptimize(Call);                  \
    qvb::SetMegapixels(state, w, h);                                      \
  }                                                                       \
  BENCHMARK(BM_##Name##_qv)->Apply(FilterSizes);

QV_FILTER_BENCH(ShowFFT, QV_ShowFFT(s, d, w, h, stride))
QV_FILTER_BENCH(ShowFFT_Precise, QV_ShowFFT_Precise(s, d, w, h, stride))
QV_FILTER_BENCH(ButterworthLowPass, QV_ButterworthLowPass(s, d, w, h, stride, 60))
QV_FILTER_BENCH(HomomorphicFiltering, QV_HomomorphicFiltering(s, d, w, h, stride, 40.0f, 1.6f, 0.5f, 1.0f))
QV_FILTER_BENCH(HighFrequencyEmphasizeFilter, QV_HighFrequencyEmphasizeFilter(s, d, w, h, stride, 40, 50, 150))
QV_FILTER_BENCH(BandPassFilter, QV_BandPassFilter(s, d, w, h, stride, 40, 3, 1, 5))

BENCHMARK(BM_FFT2D_qv)->Apply(TransformSizes);
#ifdef QV_HAVE_OPENCV
BENCHMARK(BM_FFT2D_cv)->Apply(TransformSizes);
#endif

}  // namespace
