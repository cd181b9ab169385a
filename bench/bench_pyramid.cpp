// Pyramid reduce and expand of one level at 1920x1080, beside OpenCV's
// single-threaded pyrDown and pyrUp (same 1 4 6 4 1 kernel). The kernels are
// internal: these cases build where the program sees src/ and links the
// static library, and are left out otherwise.
#include "bench_util.h"

#if __has_include("pyramid/kernels.h")
#include "pyramid/kernels.h"

#ifdef QV_HAVE_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace {

void BM_PyrDown_qv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  const int dw = (w + 1) >> 1, dh = (h + 1) >> 1;
  std::vector<unsigned char> dst(size_t(dw) * c * dh);
  qv::PyramidLevel s{w, h, src.Stride, src.ptr(), 0}, d{dw, dh, dw * c, dst.data(), 0};
  for (auto _ : state) benchmark::DoNotOptimize(qv::PyrReduceU8(&s, &d, c));
  qvb::SetMegapixels(state, w, h);
}

// Expands the half-size level back to full size (rate counted at full size).
void BM_PyrUp_qv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto full = qvb::MakeImage(w, h, c);
  const int cw = (w + 1) >> 1, ch = (h + 1) >> 1;
  std::vector<unsigned char> coarse(size_t(cw) * c * ch, 100);
  qv::PyramidLevel s{cw, ch, cw * c, coarse.data(), 0}, d{w, h, full.Stride, full.ptr(), 0};
  for (auto _ : state) benchmark::DoNotOptimize(qv::PyrExpandU8(&s, &d, c));
  qvb::SetMegapixels(state, w, h);
}

#ifdef QV_HAVE_OPENCV
void BM_PyrDown_cv(benchmark::State& state) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  cv::Mat s = qvb::AsMat(src), d;
  for (auto _ : state) cv::pyrDown(s, d);
  qvb::SetMegapixels(state, w, h);
}

void BM_PyrUp_cv(benchmark::State& state) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  cv::Mat s(h / 2, w / 2, qvb::CvType(c), cv::Scalar::all(100)), d;
  for (auto _ : state) cv::pyrUp(s, d, cv::Size(w, h));
  qvb::SetMegapixels(state, w, h);
}
#endif

void Sizes(benchmark::internal::Benchmark* b) {
  for (int c : {1, 3, 4}) b->Args({1920, 1080, c});
  b->ArgNames({"w", "h", "c"})->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_PyrDown_qv)->Apply(Sizes);
BENCHMARK(BM_PyrUp_qv)->Apply(Sizes);
#ifdef QV_HAVE_OPENCV
BENCHMARK(BM_PyrDown_cv)->Apply(Sizes);
BENCHMARK(BM_PyrUp_cv)->Apply(Sizes);
#endif

}  // namespace
#endif
