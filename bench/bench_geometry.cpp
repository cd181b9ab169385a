// Geometry beside memcpy of the same bytes (the bound for the flips) and the
// single-threaded OpenCV counterparts: transpose, rotations, flips, resample.
#include <cstring>

#include "bench_util.h"

#ifdef QV_HAVE_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace {

using Turn = int (*)(const unsigned char*, unsigned char*, int, int, int, int, int, int);

template <Turn F, bool Swap>
void TurnQv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = Swap ? qvb::MakeImage(h, w, c) : qvb::MakeImage(w, h, c);
  for (auto _ : state)
    benchmark::DoNotOptimize(F(src.ptr(), dst.ptr(), w, h, src.Stride, dst.Width, dst.Height, dst.Stride));
  qvb::SetMegapixels(state, w, h);
}

void BM_Transpose_qv(benchmark::State& s) { TurnQv<QV_Transpose, true>(s); }
void BM_Rotate90_qv(benchmark::State& s) { TurnQv<QV_Rotate90, true>(s); }
void BM_Rotate180_qv(benchmark::State& s) { TurnQv<QV_Rotate180, false>(s); }
void BM_Rotate270_qv(benchmark::State& s) { TurnQv<QV_Rotate270, true>(s); }

template <int (*F)(const unsigned char*, unsigned char*, int, int, int)>
void FlipQv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state) benchmark::DoNotOptimize(F(src.ptr(), dst.ptr(), w, h, src.Stride));
  qvb::SetMegapixels(state, w, h);
}
void BM_FlipLeftRight_qv(benchmark::State& s) { FlipQv<QV_FlipLeftRight>(s); }
void BM_FlipTopBottom_qv(benchmark::State& s) { FlipQv<QV_FlipTopBottom>(s); }

void BM_Flip_memcpy(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state) {
    std::memcpy(dst.ptr(), src.ptr(), src.data.size());
    benchmark::ClobberMemory();
  }
  qvb::SetMegapixels(state, w, h);
}

// Resample: Mode in r, scale 2 up or 0.5 down by name.
template <bool Up>
void ResampleQv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2), mode = state.range(3);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = Up ? qvb::MakeImage(w * 2, h * 2, c) : qvb::MakeImage(w / 2, h / 2, c);
  for (auto _ : state)
    benchmark::DoNotOptimize(
        QV_Resample(src.ptr(), dst.ptr(), w, h, src.Stride, dst.Width, dst.Height, dst.Stride, mode));
  qvb::SetMegapixels(state, dst.Width, dst.Height);
}
void BM_ResampleUp2_qv(benchmark::State& s) { ResampleQv<true>(s); }
void BM_ResampleDown2_qv(benchmark::State& s) { ResampleQv<false>(s); }

#ifdef QV_HAVE_OPENCV
template <class Op>
void CvCase(benchmark::State& state, bool Swap, Op op) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = Swap ? qvb::MakeImage(h, w, c) : qvb::MakeImage(w, h, c);
  cv::Mat s = qvb::AsMat(src), d = qvb::AsMat(dst);
  for (auto _ : state) op(s, d);
  qvb::SetMegapixels(state, w, h);
}
void BM_Transpose_cv(benchmark::State& s) {
  CvCase(s, true, [](cv::Mat& a, cv::Mat& b) { cv::transpose(a, b); });
}
void BM_Rotate90_cv(benchmark::State& s) {
  CvCase(s, true, [](cv::Mat& a, cv::Mat& b) { cv::rotate(a, b, cv::ROTATE_90_CLOCKWISE); });
}
void BM_Rotate180_cv(benchmark::State& s) {
  CvCase(s, false, [](cv::Mat& a, cv::Mat& b) { cv::rotate(a, b, cv::ROTATE_180); });
}
void BM_Rotate270_cv(benchmark::State& s) {
  CvCase(s, true, [](cv::Mat& a, cv::Mat& b) { cv::rotate(a, b, cv::ROTATE_90_COUNTERCLOCKWISE); });
}
void BM_FlipLeftRight_cv(benchmark::State& s) {
  CvCase(s, false, [](cv::Mat& a, cv::Mat& b) { cv::flip(a, b, 1); });
}
void BM_FlipTopBottom_cv(benchmark::State& s) {
  CvCase(s, false, [](cv::Mat& a, cv::Mat& b) { cv::flip(a, b, 0); });
}

template <bool Up>
void ResampleCv(benchmark::State& state) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1), c = state.range(2), mode = state.range(3);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = Up ? qvb::MakeImage(w * 2, h * 2, c) : qvb::MakeImage(w / 2, h / 2, c);
  cv::Mat s = qvb::AsMat(src), d = qvb::AsMat(dst);
  const int interp = mode == 0 ? cv::INTER_NEAREST : mode == 1 ? cv::INTER_LINEAR : cv::INTER_CUBIC;
  for (auto _ : state) cv::resize(s, d, d.size(), 0, 0, interp);
  qvb::SetMegapixels(state, dst.Width, dst.Height);
}
void BM_ResampleUp2_cv(benchmark::State& s) { ResampleCv<true>(s); }
void BM_ResampleDown2_cv(benchmark::State& s) { ResampleCv<false>(s); }
#endif

void Sizes(benchmark::internal::Benchmark* b) {
  for (int c : {1, 3, 4}) {
    b->Args({1920, 1080, c});
    b->Args({3840, 2160, c});
  }
  b->ArgNames({"w", "h", "c"});
}

// r is the Mode here: 0 nearest, 1 bilinear, 2 bicubic.
void ResampleSizes(benchmark::internal::Benchmark* b) {
  for (int c : {1, 3, 4})
    for (int m : {0, 1, 2}) b->Args({1920, 1080, c, m});
  for (int c : {1, 3, 4}) b->Args({3840, 2160, c, 1});  // bilinear at 4K too
  b->ArgNames({"w", "h", "c", "r"});
}

BENCHMARK(BM_Transpose_qv)->Apply(Sizes);
BENCHMARK(BM_Rotate90_qv)->Apply(Sizes);
BENCHMARK(BM_Rotate180_qv)->Apply(Sizes);
BENCHMARK(BM_Rotate270_qv)->Apply(Sizes);
BENCHMARK(BM_FlipLeftRight_qv)->Apply(Sizes);
BENCHMARK(BM_FlipTopBottom_qv)->Apply(Sizes);
BENCHMARK(BM_Flip_memcpy)->Apply(Sizes);
BENCHMARK(BM_ResampleUp2_qv)->Apply(ResampleSizes);
BENCHMARK(BM_ResampleDown2_qv)->Apply(ResampleSizes);
#ifdef QV_HAVE_OPENCV
BENCHMARK(BM_Transpose_cv)->Apply(Sizes);
BENCHMARK(BM_Rotate90_cv)->Apply(Sizes);
BENCHMARK(BM_Rotate180_cv)->Apply(Sizes);
BENCHMARK(BM_Rotate270_cv)->Apply(Sizes);
BENCHMARK(BM_FlipLeftRight_cv)->Apply(Sizes);
BENCHMARK(BM_FlipTopBottom_cv)->Apply(Sizes);
BENCHMARK(BM_ResampleUp2_cv)->Apply(ResampleSizes);
BENCHMARK(BM_ResampleDown2_cv)->Apply(ResampleSizes);
#endif

}  // namespace
