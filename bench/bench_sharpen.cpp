// Sharpen family at 1920x1080: QV_UnsharpMask beside an OpenCV unsharp mask
// (GaussianBlur then addWeighted), QV_Sharpen beside a 3x3 filter2D, and the
// other members on their own.
#include "bench_util.h"

#ifdef QV_HAVE_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace {

using Op = int (*)(const unsigned char*, unsigned char*, int, int, int, int);

template <typename Call>
void RunQv(benchmark::State& state, Call call) {
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state) benchmark::DoNotOptimize(call(src.ptr(), dst.ptr(), w, h, src.Stride));
  qvb::SetMegapixels(state, w, h);
}

void BM_UnsharpMask_qv(benchmark::State& state) {
  const int r = state.range(3);
  RunQv(state, [r](const unsigned char* s, unsigned char* d, int w, int h, int st) {
    return QV_UnsharpMask(s, d, w, h, st, r, 150, 0);
  });
}

void BM_Sharpen_qv(benchmark::State& state) { RunQv(state, QV_Sharpen); }

void BM_RadiusSharpen3X3_qv(benchmark::State& state) {
  RunQv(state, [](const unsigned char* s, unsigned char* d, int w, int h, int st) {
    return QV_RadiusSharpen3X3(s, d, w, h, st, 60);
  });
}

void BM_UnsharpMaskPS_qv(benchmark::State& state) {
  RunQv(state, [](const unsigned char* s, unsigned char* d, int w, int h, int st) {
    return QV_UnsharpMask_PS(s, d, w, h, st, 5, 150, 2);
  });
}

template <Op F>
void BM_Radius5(benchmark::State& state) {
  RunQv(state, [](const unsigned char* s, unsigned char* d, int w, int h, int st) { return F(s, d, w, h, st, 5); });
}

void BM_EdgePreservedSharpen_qv(benchmark::State& state) {
  RunQv(state, [](const unsigned char* s, unsigned char* d, int w, int h, int st) {
    return QV_EdgePreservedSharpen(s, d, w, h, st, 100);
  });
}

#ifdef QV_HAVE_OPENCV
// Sigma r / 2: the exponential blur's step falls to a tenth at r + 1 samples.
void BM_UnsharpMask_cv(benchmark::State& state) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1), c = state.range(2), r = state.range(3);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  cv::Mat s = qvb::AsMat(src), d = qvb::AsMat(dst), blur;
  for (auto _ : state) {
    cv::GaussianBlur(s, blur, cv::Size(0, 0), r / 2.0);
    cv::addWeighted(s, 2.5, blur, -1.5, 0, d);
  }
  qvb::SetMegapixels(state, w, h);
}

void BM_Sharpen_cv(benchmark::State& state) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  cv::Mat s = qvb::AsMat(src), d = qvb::AsMat(dst);
  const cv::Mat kernel = (cv::Mat_<float>(3, 3) << -0.25f, 0, -0.25f, 0, 2, 0, -0.25f, 0, -0.25f);
  for (auto _ : state) cv::filter2D(s, d, -1, kernel, cv::Point(-1, -1), 0, cv::BORDER_REPLICATE);
  qvb::SetMegapixels(state, w, h);
}
#endif

void Sizes(benchmark::internal::Benchmark* b) {
  for (int c : {1, 3, 4}) b->Args({1920, 1080, c});
  b->ArgNames({"w", "h", "c"});
}
void SizesRadius(benchmark::internal::Benchmark* b) {
  for (int c : {1, 3, 4})
    for (int r : {2, 20}) b->Args({1920, 1080, c, r});
  b->ArgNames({"w", "h", "c", "r"});
}

BENCHMARK(BM_UnsharpMask_qv)->Apply(SizesRadius);
BENCHMARK(BM_Sharpen_qv)->Apply(Sizes);
#ifdef QV_HAVE_OPENCV
BENCHMARK(BM_UnsharpMask_cv)->Apply(SizesRadius);
BENCHMARK(BM_Sharpen_cv)->Apply(Sizes);
#endif
BENCHMARK(BM_RadiusSharpen3X3_qv)->Apply(Sizes);
BENCHMARK(BM_UnsharpMaskPS_qv)->Apply(Sizes);
BENCHMARK(BM_Radius5<QV_HighPass>)->Name("BM_HighPass_qv")->Apply(Sizes);
BENCHMARK(BM_Radius5<QV_HighPassSharpen>)->Name("BM_HighPassSharpen_qv")->Apply(Sizes);
BENCHMARK(BM_Radius5<QV_MultiScaleSharpen>)->Name("BM_MultiScaleSharpen_qv")->Apply(Sizes);
BENCHMARK(BM_EdgePreservedSharpen_qv)->Apply(Sizes);

}  // namespace
