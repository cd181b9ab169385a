// Recursive and rank blurs over their radius range, beside OpenCV's
// single-threaded Gaussian and median filters.
#include "bench_util.h"
#include "smooth/expblur.h"

#ifdef QV_HAVE_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace {

void BM_GaussBlur_qv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2), r = state.range(3);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state) benchmark::DoNotOptimize(QV_GaussBlur(src.ptr(), dst.ptr(), w, h, src.Stride, float(r)));
  qvb::SetMegapixels(state, w, h);
}

void BM_ExpBlur_qv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2), r = state.range(3);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state) benchmark::DoNotOptimize(QV_ExpBlur(src.ptr(), dst.ptr(), w, h, src.Stride, r));
  qvb::SetMegapixels(state, w, h);
}

// The two halves alone, to see where the blur's time goes.
template <int (*Half)(const unsigned char*, unsigned char*, int, int, int, int)>
void BM_ExpBlurHalf(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2), r = state.range(3);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state) benchmark::DoNotOptimize(Half(src.ptr(), dst.ptr(), w, h, src.Stride, r));
  qvb::SetMegapixels(state, w, h);
}

void BM_MedianBlur_qv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2), r = state.range(3);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state) benchmark::DoNotOptimize(QV_MedianBlur(src.ptr(), dst.ptr(), w, h, src.Stride, r, 50));
  qvb::SetMegapixels(state, w, h);
}

#ifdef QV_HAVE_OPENCV
// Radius is the sigma; the kernel spans three sigmas each side, as OpenCV
// itself would choose for 8-bit images.
void BM_GaussBlur_cv(benchmark::State& state) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1), c = state.range(2), r = state.range(3);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  cv::Mat s = qvb::AsMat(src), d = qvb::AsMat(dst);
  for (auto _ : state) cv::GaussianBlur(s, d, cv::Size(0, 0), double(r), double(r), cv::BORDER_REPLICATE);
  qvb::SetMegapixels(state, w, h);
}

// OpenCV takes 8-bit images at any odd size, the large ones by its own
// histogram method.
void BM_MedianBlur_cv(benchmark::State& state) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1), c = state.range(2), r = state.range(3);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  cv::Mat s = qvb::AsMat(src), d = qvb::AsMat(dst);
  for (auto _ : state) cv::medianBlur(s, d, 2 * r + 1);
  qvb::SetMegapixels(state, w, h);
}
#endif

void Radii(benchmark::internal::Benchmark* b, std::initializer_list<int> radii) {
  for (int c : {1, 3})
    for (int r : radii) b->Args({1920, 1080, c, r});
  b->ArgNames({"w", "h", "c", "r"})->Unit(benchmark::kMillisecond);
}
void RecursiveRadii(benchmark::internal::Benchmark* b) { Radii(b, {2, 5, 10, 50, 200}); }
void HalfRadii(benchmark::internal::Benchmark* b) {
  for (int c : {1, 3, 4}) b->Args({1920, 1080, c, 2});
  b->ArgNames({"w", "h", "c", "r"})->Unit(benchmark::kMillisecond);
}
void MedianRadii(benchmark::internal::Benchmark* b) { Radii(b, {1, 2, 5, 20, 100}); }

BENCHMARK(BM_GaussBlur_qv)->Apply(RecursiveRadii);
BENCHMARK(BM_ExpBlur_qv)->Apply(RecursiveRadii);
BENCHMARK(BM_ExpBlurHalf<qv::ExpBlurRows>)->Name("BM_ExpBlurRows_qv")->Apply(HalfRadii);
BENCHMARK(BM_ExpBlurHalf<qv::ExpBlurColumns>)->Name("BM_ExpBlurColumns_qv")->Apply(HalfRadii);
BENCHMARK(BM_MedianBlur_qv)->Apply(MedianRadii);
#ifdef QV_HAVE_OPENCV
BENCHMARK(BM_GaussBlur_cv)->Apply(RecursiveRadii);
BENCHMARK(BM_MedianBlur_cv)->Apply(MedianRadii);
#endif

}  // namespace
