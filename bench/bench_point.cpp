// Point operators beside memcpy of the same bytes (the physical bound) and
// their OpenCV counterparts.
#include <cstring>

#include "bench_util.h"

namespace {

void BM_Invert_qv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state) benchmark::DoNotOptimize(QV_Invert(src.ptr(), dst.ptr(), w, h, src.Stride));
  qvb::SetMegapixels(state, w, h);
}

void BM_Invert_memcpy(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state) {
    std::memcpy(dst.ptr(), src.ptr(), src.data.size());
    benchmark::ClobberMemory();
  }
  qvb::SetMegapixels(state, w, h);
}

#ifdef QV_HAVE_OPENCV
void BM_Invert_cv(benchmark::State& state) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  cv::Mat s = qvb::AsMat(src), d = qvb::AsMat(dst);
  for (auto _ : state) cv::bitwise_not(s, d);
  qvb::SetMegapixels(state, w, h);
}
#endif

void Sizes(benchmark::internal::Benchmark* b) {
  for (int c : {1, 3, 4}) {
    b->Args({1920, 1080, c});
    b->Args({3840, 2160, c});
  }
  b->ArgNames({"w", "h", "c"});
}

BENCHMARK(BM_Invert_qv)->Apply(Sizes);
BENCHMARK(BM_Invert_memcpy)->Apply(Sizes);
#ifdef QV_HAVE_OPENCV
BENCHMARK(BM_Invert_cv)->Apply(Sizes);
#endif

}  // namespace
