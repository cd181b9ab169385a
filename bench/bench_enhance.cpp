// Dehazing and the Retinex family at 1920x1080, beside plain single-threaded
// OpenCV compositions of the same steps (dark channel by erode, guided filter
// by box means on a reduced grid, Retinex by GaussianBlur, log, normalize).
#include "bench_util.h"

#ifdef QV_HAVE_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace {

// r: the dark-channel radius; the guide radius is four times it.
void BM_HazeRemoval_qv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2), r = state.range(3);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state)
    benchmark::DoNotOptimize(QV_HazeRemovalBasedOnDarkChannelPrior(src.ptr(), dst.ptr(), w, h, src.Stride, r, 4 * r,
                                                                   220, 0.95f, 0.1f, 0.8f));
  qvb::SetMegapixels(state, w, h);
}

// Sigmas 2, 35 and 69: three scales up to 100.
void BM_Retinex_qv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state) benchmark::DoNotOptimize(QV_Retinex(src.ptr(), dst.ptr(), w, h, src.Stride, 100, 3, 0.01f));
  qvb::SetMegapixels(state, w, h);
}

void BM_ALTM_Retinex_qv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state) benchmark::DoNotOptimize(QV_ALTM_Retinex(src.ptr(), dst.ptr(), w, h, src.Stride, 0.01f));
  qvb::SetMegapixels(state, w, h);
}

// r: the iteration count.
void BM_FrankleMccannRetinex_qv(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1), c = state.range(2), r = state.range(3);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  for (auto _ : state) benchmark::DoNotOptimize(QV_FrankleMccannRetinex(src.ptr(), dst.ptr(), w, h, src.Stride, r));
  qvb::SetMegapixels(state, w, h);
}

#ifdef QV_HAVE_OPENCV
// The colour rule of the luminance operators, ((c n / y) + c + n - y) / 2.
void TransferCv(const cv::Mat& src, const cv::Mat& y8, const cv::Mat& n8, cv::Mat& dst) {
  cv::Mat y, n, ratio, offset, c;
  y8.convertTo(y, CV_32F);
  n8.convertTo(n, CV_32F);
  cv::divide(n, y, ratio);
  offset = n - y;
  cv::Mat ratio3, offset3;
  cv::merge(std::vector<cv::Mat>{ratio, ratio, ratio}, ratio3);
  cv::merge(std::vector<cv::Mat>{offset, offset, offset}, offset3);
  src.convertTo(c, CV_32F);
  cv::Mat out = (c.mul(ratio3) + c + offset3) * 0.5;
  out.convertTo(dst, CV_8U);
}

void BM_HazeRemoval_cv(benchmark::State& state) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1), c = state.range(2), r = state.range(3);
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  cv::Mat s = qvb::AsMat(src), d = qvb::AsMat(dst);
  const cv::Mat kernel = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(2 * r + 1, 2 * r + 1));
  cv::Mat gamma(1, 256, CV_8U);
  for (int i = 0; i < 256; ++i) gamma.at<unsigned char>(i) = cv::saturate_cast<uchar>(std::pow(i / 255.0, 0.8) * 255);
  for (auto _ : state) {
    std::vector<cv::Mat> ch;
    cv::split(s, ch);
    cv::Mat lo = cv::min(cv::min(ch[0], ch[1]), ch[2]), hi = cv::max(cv::max(ch[0], ch[1]), ch[2]);
    cv::Mat light = (lo + hi) * 0.5, dark;
    cv::erode(lo, dark, kernel);
    // Atmospheric light: the mean colour over the top percent of the dark channel.
    int hist[256] = {};
    for (const unsigned char* p = dark.ptr(); p < dark.ptr() + size_t(w) * h; ++p) ++hist[*p];
    int t = 255, total = 0;
    while (t > 0 && (total += hist[t]) <= w * h / 100) --t;
    const cv::Scalar A = cv::mean(s, dark >= t);
    const double a = std::min(220.0, (A[0] + A[1] + A[2]) / 3);
    cv::Mat trans;
    dark.convertTo(trans, CV_32F, -0.95 / a, 1.0);
    // Guided filter on a 20% grid.
    cv::Mat I, p, Is, ps;
    light.convertTo(I, CV_32F, 1 / 255.0);
    cv::resize(I, Is, cv::Size(), 0.2, 0.2, cv::INTER_NEAREST);
    cv::resize(trans, ps, Is.size(), 0, 0, cv::INTER_NEAREST);
    const cv::Size box(2 * (4 * r / 5) + 1, 2 * (4 * r / 5) + 1);
    cv::Mat mI, mp, mIp, mII;
    cv::boxFilter(Is, mI, CV_32F, box);
    cv::boxFilter(ps, mp, CV_32F, box);
    cv::boxFilter(Is.mul(ps), mIp, CV_32F, box);
    cv::boxFilter(Is.mul(Is), mII, CV_32F, box);
    cv::Mat ca = (mIp - mI.mul(mp)) / (mII - mI.mul(mI) + 0.006), cb = mp - ca.mul(mI), ma, mb;
    cv::boxFilter(ca, ma, CV_32F, box);
    cv::boxFilter(cb, mb, CV_32F, box);
    cv::resize(ma, ca, I.size());
    cv::resize(mb, cb, I.size());
    cv::Mat q = cv::max(ca.mul(I) + cb, 0.1), q3, f;
    cv::merge(std::vector<cv::Mat>{q, q, q}, q3);
    cv::Mat colour;
    s.convertTo(colour, CV_32F);
    if (c == 4) cv::cvtColor(colour, colour, cv::COLOR_BGRA2BGR);
    cv::Mat out = (colour - cv::Scalar(A[0], A[1], A[2])) / q3 + cv::Scalar(A[0], A[1], A[2]), o8;
    out.convertTo(o8, CV_8U);
    cv::LUT(o8, gamma, o8);
    if (c == 4)
      cv::cvtColor(o8, d, cv::COLOR_BGR2BGRA);
    else
      o8.copyTo(d);
  }
  qvb::SetMegapixels(state, w, h);
}

void BM_Retinex_cv(benchmark::State& state) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1), c = state.range(2);  // 3 channels
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  cv::Mat s = qvb::AsMat(src), d = qvb::AsMat(dst);
  for (auto _ : state) {
    cv::Mat y8, y, logy, acc = cv::Mat::zeros(h, w, CV_32F);
    cv::cvtColor(s, y8, cv::COLOR_BGR2GRAY);
    y8.convertTo(y, CV_32F, 1.0, 1.0);
    cv::log(y, logy);
    for (double sigma : {2.0, 2.0 + 100 / 3.0, 2.0 + 200 / 3.0}) {
      cv::Mat blurred, logb;
      cv::GaussianBlur(y8, blurred, cv::Size(), sigma);
      blurred.convertTo(logb, CV_32F, 1.0, 1.0);
      cv::log(logb, logb);
      acc += (logy - logb) * (1 / 3.0);
    }
    cv::Mat n8;
    cv::normalize(acc, n8, 0, 255, cv::NORM_MINMAX, CV_8U);
    TransferCv(s, y8, n8, d);
  }
  qvb::SetMegapixels(state, w, h);
}

void BM_ALTM_Retinex_cv(benchmark::State& state) {
  qvb::OpenCvSingleThread();
  const int w = state.range(0), h = state.range(1), c = state.range(2);  // 3 channels
  auto src = qvb::MakeImage(w, h, c);
  auto dst = src;
  cv::Mat s = qvb::AsMat(src), d = qvb::AsMat(dst);
  for (auto _ : state) {
    cv::Mat y8, y, l;
    cv::cvtColor(s, y8, cv::COLOR_BGR2GRAY);
    y8.convertTo(y, CV_32F, 1 / 255.0, 1e-6);
    cv::log(y, l);
    const double lwa = std::exp(cv::mean(l)[0]);
    double lmax;
    cv::minMaxLoc(y8, nullptr, &lmax);
    y8.convertTo(y, CV_32F, 1 / 255.0 / lwa, 1.0);
    cv::log(y, l);
    l /= std::log(lmax / 255.0 / lwa + 1);
    cv::Mat n8;
    cv::normalize(l, n8, 0, 255, cv::NORM_MINMAX, CV_8U);
    TransferCv(s, y8, n8, d);
  }
  qvb::SetMegapixels(state, w, h);
}
#endif

void Sizes(benchmark::internal::Benchmark* b, std::initializer_list<int> Radii) {
  for (int c : {3, 4})
    for (int r : Radii) b->Args({1920, 1080, c, r});
  b->ArgNames({"w", "h", "c", "r"})->Unit(benchmark::kMillisecond);
}
void DarkRadii(benchmark::internal::Benchmark* b) { Sizes(b, {5, 20}); }
void Colour(benchmark::internal::Benchmark* b) {
  b->Args({1920, 1080, 3})->ArgNames({"w", "h", "c"})->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_HazeRemoval_qv)->Apply(DarkRadii);
BENCHMARK(BM_Retinex_qv)->Apply(Colour);
BENCHMARK(BM_ALTM_Retinex_qv)->Apply(Colour);
BENCHMARK(BM_FrankleMccannRetinex_qv)
    ->Args({1920, 1080, 3, 1})
    ->Args({1920, 1080, 3, 4})
    ->ArgNames({"w", "h", "c", "r"})
    ->Unit(benchmark::kMillisecond);
#ifdef QV_HAVE_OPENCV
BENCHMARK(BM_HazeRemoval_cv)->Apply(DarkRadii);
BENCHMARK(BM_Retinex_cv)->Apply(Colour);
BENCHMARK(BM_ALTM_Retinex_cv)->Apply(Colour);
#endif

}  // namespace
