// Point and colour operators beside memcpy of the same bytes (the physical
// bound) and their OpenCV counterparts where one exists.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "bench_util.h"

#ifdef QV_HAVE_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace {

// Runs Call(src, src2, dst) over a w x h x c image pair.
template <typename Call>
void RunQv(benchmark::State& state, Call call) {
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  auto src2 = qvb::MakeImage(w, h, c);
  std::reverse(src2.data.begin(), src2.data.end());
  auto dst = src;
  for (auto _ : state) benchmark::DoNotOptimize(call(src, src2, dst));
  qvb::SetMegapixels(state, w, h);
}

void BM_memcpy(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state) {
    std::memcpy(dst.ptr(), src.ptr(), src.data.size());
    benchmark::ClobberMemory();
  }
  qvb::SetMegapixels(state, w, h);
}

// The bound of the two-source operators: they read two images and write one,
// three image-sized streams where memcpy has two, so the same traffic is a
// copy of one and a half images.
void BM_memcpy_two_sources(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  const size_t n = size_t(w) * h * c;
  std::vector<unsigned char> src(n + n / 2, 1), dst(n + n / 2);
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), src.size());
    benchmark::ClobberMemory();
  }
  qvb::SetMegapixels(state, w, h);
}

using Img = qvb::Image;

void BM_Invert_qv(benchmark::State& s) {
  RunQv(s, [](Img& a, Img&, Img& d) { return QV_Invert(a.ptr(), d.ptr(), a.Width, a.Height, a.Stride); });
}
void BM_GammaCorrection_qv(benchmark::State& s) {
  RunQv(s,
        [](Img& a, Img&, Img& d) { return QV_GammaCorrection(a.ptr(), d.ptr(), a.Width, a.Height, a.Stride, 0.6f); });
}
void BM_Threshold_qv(benchmark::State& s) {
  RunQv(s, [](Img& a, Img&, Img& d) { return QV_Threshold(a.ptr(), d.ptr(), a.Width, a.Height, a.Stride, 128); });
}
void BM_Lut2D_qv(benchmark::State& s) {
  static std::vector<unsigned char> table = [] {
    std::vector<unsigned char> t(512 * 512 * 3);
    for (size_t i = 0; i < t.size(); ++i) t[i] = static_cast<unsigned char>(i * 2654435761u >> 24);
    return t;
  }();
  RunQv(s, [](Img& a, Img&, Img& d) { return QV_Lut2D(a.ptr(), table.data(), d.ptr(), a.Width, a.Height, a.Stride); });
}
void BM_AddImage_qv(benchmark::State& s) {
  RunQv(s, [](Img& a, Img& b, Img& d) { return QV_AddImage(a.ptr(), b.ptr(), d.ptr(), a.Width, a.Height, a.Stride); });
}
void BM_SubtractImage_qv(benchmark::State& s) {
  RunQv(s, [](Img& a, Img& b, Img& d) {
    return QV_SubtractImage(a.ptr(), b.ptr(), d.ptr(), a.Width, a.Height, a.Stride);
  });
}
void BM_AbsDiffImage_qv(benchmark::State& s) {
  RunQv(s,
        [](Img& a, Img& b, Img& d) { return QV_AbsDiffImage(a.ptr(), b.ptr(), d.ptr(), a.Width, a.Height, a.Stride); });
}
void BM_BlendTwoImage_LinearLight_qv(benchmark::State& s) {
  RunQv(s, [](Img& a, Img& b, Img& d) {
    return QV_BlendTwoImage_LinearLight(a.ptr(), b.ptr(), d.ptr(), a.Width, a.Height, a.Stride);
  });
}
void BM_Exposal_qv(benchmark::State& s) {
  RunQv(s, [](Img& a, Img&, Img& d) { return QV_Exposal(a.ptr(), d.ptr(), a.Width, a.Height, a.Stride); });
}
void BM_WhiteNoise_qv(benchmark::State& s) {
  std::srand(1);
  RunQv(s, [](Img& a, Img&, Img& d) { return QV_WhiteNoise(d.ptr(), a.Width, a.Height, a.Stride); });
}
void BM_GetLuminance_qv(benchmark::State& s) {
  RunQv(s, [](Img& a, Img&, Img& d) { return QV_GetLuminance(a.ptr(), d.ptr(), a.Width, a.Height, a.Stride, 0); });
}
void BM_Desaturate_qv(benchmark::State& s) {
  RunQv(s, [](Img& a, Img&, Img& d) { return QV_Desaturate(a.ptr(), d.ptr(), a.Width, a.Height, a.Stride); });
}

#ifdef QV_HAVE_OPENCV
template <typename Call>
void RunCv(benchmark::State& state, Call call) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  auto src2 = qvb::MakeImage(w, h, c);
  std::reverse(src2.data.begin(), src2.data.end());
  auto dst = src;
  cv::Mat a = qvb::AsMat(src), b = qvb::AsMat(src2), d = qvb::AsMat(dst);
  cv::Mat gray(h, w, CV_8UC1);
  for (auto _ : state) call(a, b, d, gray);
  qvb::SetMegapixels(state, w, h);
}

void BM_Invert_cv(benchmark::State& s) {
  RunCv(s, [](cv::Mat& a, cv::Mat&, cv::Mat& d, cv::Mat&) { cv::bitwise_not(a, d); });
}
void BM_GammaCorrection_cv(benchmark::State& s) {
  cv::Mat lut(1, 256, CV_8UC1);
  for (int i = 0; i < 256; ++i) lut.at<unsigned char>(i) = cv::saturate_cast<uchar>(std::pow(i / 255.0, 0.6) * 255);
  RunCv(s, [&lut](cv::Mat& a, cv::Mat&, cv::Mat& d, cv::Mat&) { cv::LUT(a, lut, d); });
}
void BM_Threshold_cv(benchmark::State& s) {
  RunCv(s, [](cv::Mat& a, cv::Mat&, cv::Mat& d, cv::Mat&) { cv::threshold(a, d, 128, 255, cv::THRESH_BINARY); });
}
void BM_AddImage_cv(benchmark::State& s) {
  RunCv(s, [](cv::Mat& a, cv::Mat& b, cv::Mat& d, cv::Mat&) { cv::add(a, b, d); });
}
void BM_SubtractImage_cv(benchmark::State& s) {
  RunCv(s, [](cv::Mat& a, cv::Mat& b, cv::Mat& d, cv::Mat&) { cv::subtract(a, b, d); });
}
void BM_AbsDiffImage_cv(benchmark::State& s) {
  RunCv(s, [](cv::Mat& a, cv::Mat& b, cv::Mat& d, cv::Mat&) { cv::absdiff(a, b, d); });
}
void BM_GetLuminance_cv(benchmark::State& s) {
  RunCv(s, [](cv::Mat& a, cv::Mat&, cv::Mat&, cv::Mat& g) {
    cv::cvtColor(a, g, a.channels() == 3 ? cv::COLOR_BGR2GRAY : cv::COLOR_BGRA2GRAY);
  });
}
#endif

template <int... Channels>
void Sizes(benchmark::internal::Benchmark* b) {
  for (int c : {Channels...}) {
    b->Args({1920, 1080, c});
    b->Args({3840, 2160, c});
  }
  b->ArgNames({"w", "h", "c"});
}

// Each operator with its accepted channel counts, memcpy of the same source
// bytes beside it, and the OpenCV peer where there is one.
#define QV_POINT_CASE(Op, ...)                        \
  BENCHMARK(BM_##Op##_qv)->Apply(Sizes<__VA_ARGS__>); \
  BENCHMARK(BM_memcpy)->Name("BM_" #Op "_memcpy")->Apply(Sizes<__VA_ARGS__>)

// Two sources: the memcpy case moves as many bytes as the operator.
#define QV_TWO_SOURCE_CASE(Op, ...)                   \
  BENCHMARK(BM_##Op##_qv)->Apply(Sizes<__VA_ARGS__>); \
  BENCHMARK(BM_memcpy_two_sources)->Name("BM_" #Op "_memcpy")->Apply(Sizes<__VA_ARGS__>)

QV_POINT_CASE(Invert, 1, 3, 4);
QV_POINT_CASE(GammaCorrection, 3, 4);
QV_POINT_CASE(Threshold, 1, 3);
QV_POINT_CASE(Lut2D, 3, 4);
QV_TWO_SOURCE_CASE(AddImage, 1, 3, 4);
QV_TWO_SOURCE_CASE(SubtractImage, 1, 3, 4);
QV_TWO_SOURCE_CASE(AbsDiffImage, 1, 3, 4);
QV_TWO_SOURCE_CASE(BlendTwoImage_LinearLight, 1, 3, 4);
QV_POINT_CASE(Exposal, 1, 3, 4);
QV_POINT_CASE(WhiteNoise, 1, 3, 4);
QV_POINT_CASE(GetLuminance, 1, 3, 4);
QV_POINT_CASE(Desaturate, 3, 4);

#ifdef QV_HAVE_OPENCV
BENCHMARK(BM_Invert_cv)->Apply(Sizes<1, 3, 4>);
BENCHMARK(BM_GammaCorrection_cv)->Apply(Sizes<3, 4>);
BENCHMARK(BM_Threshold_cv)->Apply(Sizes<1, 3>);
BENCHMARK(BM_AddImage_cv)->Apply(Sizes<1, 3, 4>);
BENCHMARK(BM_SubtractImage_cv)->Apply(Sizes<1, 3, 4>);
BENCHMARK(BM_AbsDiffImage_cv)->Apply(Sizes<1, 3, 4>);
BENCHMARK(BM_GetLuminance_cv)->Apply(Sizes<3, 4>);
#endif

}  // namespace
