// The operators composed from others or with no close peer: whole-image mean,
// open/close/range, rectangle blits, the Laplace detail boost, saliency.
#include "bench_util.h"

namespace {

using Op = int (*)(const unsigned char*, unsigned char*, int, int, int, int);

template <Op F>
void BM_Radius(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2), r = state.range(3);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state) benchmark::DoNotOptimize(F(src.ptr(), dst.ptr(), w, h, src.Stride, r));
  qvb::SetMegapixels(state, w, h);
}

void RadiusSizes(benchmark::internal::Benchmark* b) {
  for (int c : {1, 3, 4})
    for (int r : {2, 20, 200}) b->Args({1920, 1080, c, r});
  b->ArgNames({"w", "h", "c", "r"});
}

void BM_AverageBlur_qv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state) benchmark::DoNotOptimize(QV_AverageBlur(src.ptr(), dst.ptr(), w, h, src.Stride));
  qvb::SetMegapixels(state, w, h);
}

int Range100(const unsigned char* s, unsigned char* d, int w, int h, int st, int r) {
  return QV_RangeFilter(s, d, w, h, st, r, 100);
}
int Laplace(const unsigned char* s, unsigned char* d, int w, int h, int st, int levels) {
  return LaplacePyramidTest(s, d, w, h, st, levels);
}

// A 4-channel picture blended over a 3-channel one, the whole frame.
void BM_BitBlt_qv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto dst = qvb::MakeImage(w, h, 3);
  auto src = qvb::MakeImage(w, h, c);
  ImageRecord D{w, h, dst.Stride, dst.ptr()};
  ImageRecord S{w, h, src.Stride, src.ptr()};
  for (auto _ : state) benchmark::DoNotOptimize(QV_BitBlt(&D, 0, 0, w, h, &S, 0, 0));
  qvb::SetMegapixels(state, w, h);
}

void BM_SalientRegionDetection_FT_qv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1);
  auto src = qvb::MakeImage(w, h, 3);
  std::vector<unsigned char> dst(size_t(w) * h);
  for (auto _ : state) benchmark::DoNotOptimize(QV_SalientRegionDetection_FT(src.ptr(), dst.data(), w, h, src.Stride, 0));
  qvb::SetMegapixels(state, w, h);
}

void BM_GetMaxPyramidLevel_qv(benchmark::State& state) {
  int n = 0;
  for (auto _ : state) benchmark::DoNotOptimize(n += QV_GetMaxPyramidLevel(1920 + (n & 1), 1080, 16));
}

BENCHMARK(BM_AverageBlur_qv)->Args({1920, 1080, 1})->Args({1920, 1080, 3})->Args({1920, 1080, 4})->ArgNames({"w", "h", "c"});
BENCHMARK_TEMPLATE(BM_Radius, QV_Open)->Name("BM_Open_qv")->Apply(RadiusSizes);
BENCHMARK_TEMPLATE(BM_Radius, QV_Close)->Name("BM_Close_qv")->Apply(RadiusSizes);
BENCHMARK_TEMPLATE(BM_Radius, Range100)->Name("BM_RangeFilter_qv")->Apply(RadiusSizes);
BENCHMARK_TEMPLATE(BM_Radius, Laplace)
    ->Name("BM_LaplacePyramidTest_qv")
    ->Args({1920, 1080, 3, 5})
    ->ArgNames({"w", "h", "c", "r"});
BENCHMARK(BM_BitBlt_qv)->Args({1920, 1080, 3})->Args({1920, 1080, 4})->ArgNames({"w", "h", "c"});
BENCHMARK(BM_SalientRegionDetection_FT_qv)->Args({1920, 1080})->ArgNames({"w", "h"});
BENCHMARK(BM_GetMaxPyramidLevel_qv);

}  // namespace
