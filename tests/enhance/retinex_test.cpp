// The Retinex family against double-precision models of their pipelines
// (calling the same luminance and blur exports where the operator does), the
// stated exact cases, the frames, and failures of nested allocations.
#include "enhance/retinex.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "enhance/float_tail.h"
#include "support/support.h"

namespace {

using Doubles = std::vector<double>;

// Percentile clip on the 1-in-25 grid, then the stretch to 0..255, in double.
Doubles ClipModel(const Doubles& v, int w, int h, float share) {
  const int sw = std::max(1, int(w * 0.2f + 0.5f)), sh = std::max(1, int(h * 0.2f + 0.5f));
  Doubles s;
  for (int gy = 0; gy < sh; ++gy)
    for (int gx = 0; gx < sw; ++gx) s.push_back(v[size_t(gy * h / sh) * w + gx * w / sw]);
  std::sort(s.begin(), s.end());
  const int k = int(float(sw) * share * float(sh));
  const double hi = s[s.size() - k - 1], lo = s[k];
  Doubles out(v.size(), 0.5);
  if (lo < hi)
    for (size_t i = 0; i < v.size(); ++i) out[i] = std::min(1.0, std::max(0.0, (v[i] - lo) / (hi - lo)));
  return out;
}

qvt::Bytes StretchModel(const Doubles& v) {
  const double lo = *std::min_element(v.begin(), v.end()), hi = *std::max_element(v.begin(), v.end());
  qvt::Bytes out(v.size(), 128);
  if (lo < hi)
    for (size_t i = 0; i < v.size(); ++i)
      out[i] = static_cast<unsigned char>(std::floor((v[i] - lo) * 255 / (hi - lo) + 0.5));
  return out;
}

// Within one step of the model everywhere, and off by one in few places.
::testing::AssertionResult NearBytes(const qvt::Bytes& model, const qvt::Bytes& got) {
  size_t off = 0;
  for (size_t i = 0; i < model.size(); ++i) {
    const int d = std::abs(int(model[i]) - int(got[i]));
    if (d > 1)
      return ::testing::AssertionFailure() << "at " << i << ": model " << int(model[i]) << ", got " << int(got[i]);
    off += d;
  }
  if (off > 2 + model.size() / 50)
    return ::testing::AssertionFailure() << off << " of " << model.size() << " off by one";
  return ::testing::AssertionSuccess();
}

// Multi-scale surround on a gray plane; the blur is the library's export.
qvt::Bytes RetinexGrayModel(const qvt::Bytes& lum, int w, int h, int MaxSigma, int n, float share) {
  Doubles plane(lum.size(), 0.0);
  for (int k = 0; k < n; ++k) {
    const float s = float(MaxSigma);
    const float sigma = n == 1 ? s : (n == 2 ? (k == 0 ? 0.5f * s : s) : float(k) * (s / float(n)) + 2.0f);
    qvt::Bytes blurred(lum.size());
    EXPECT_EQ(QV_GaussBlur(lum.data(), blurred.data(), w, h, w, sigma), STATUS_OK);
    for (size_t i = 0; i < lum.size(); ++i) plane[i] += (std::log(lum[i] + 1.0) - std::log(blurred[i] + 1.0)) / n;
  }
  return StretchModel(ClipModel(plane, w, h, share));
}

// The colour rule for one sample: blocks of four pixels round the ratio to
// even (and give (c + n) / 2 at y = 0), the row's tail truncates (0 at y = 0).
int Transfer(int c, int y, int n, bool block, int limit) {
  if (limit > 0) n = std::min(n, limit * y);
  if (block) {
    const int q = y == 0 ? 0 : int(std::nearbyint(double(c) * n / y));
    return std::min(255, std::max(0, std::min(65535, q + c + n - y)) >> 1);
  }
  return y == 0 ? 0 : std::max(0, std::min(255, (c * n / y + c + n - y) >> 1));
}

// Each written sample of a colour result must come from the rule with a new
// luminance within one of the model's; rows are read as packed triples.
void ExpectTransferNear(const qvt::Image& src, const qvt::Image& got, const qvt::Bytes& lum, const qvt::Bytes& model,
                        int limit) {
  for (int r = 0; r < src.Height; ++r)
    for (int x = 0; x < src.Width; ++x)
      for (int k = 0; k < 3; ++k) {
        const size_t i = size_t(r) * src.Width + x, at = size_t(r) * src.Stride + 3 * x + k;
        bool ok = false;
        for (int n = std::max(0, model[i] - 1); n <= std::min(255, model[i] + 1) && !ok; ++n)
          ok = Transfer(src.data[at], lum[i], n, x < (src.Width & ~3), limit) == got.data[at];
        ASSERT_TRUE(ok) << "row " << r << " pixel " << x << " sample " << k << ": got " << int(got.data[at]);
      }
}

qvt::Bytes Luminance(const qvt::Image& im) {
  qvt::Bytes lum(size_t(im.Width) * im.Height);
  EXPECT_EQ(QV_GetLuminance(im.ptr(), lum.data(), im.Width, im.Height, im.Stride, 0), STATUS_OK);
  return lum;
}

qvt::Image Gray(const qvt::Bytes& plane, int w, int h) {
  qvt::Image g = qvt::MakeImage(w, h, 1, 0, false);
  g.data = plane;
  return g;
}

TEST(Retinex, ScaleLadder) {
  float s[4];
  qv::RetinexScales(s, 300, 3);
  EXPECT_EQ(s[0], 2.0f);
  EXPECT_EQ(s[1], 102.0f);
  EXPECT_EQ(s[2], 202.0f);
  qv::RetinexScales(s, 30, 2);
  EXPECT_EQ(s[0], 15.0f);
  EXPECT_EQ(s[1], 30.0f);
  qv::RetinexScales(s, 7, 1);
  EXPECT_EQ(s[0], 7.0f);
  qv::RetinexScales(s, 10, 4);
  EXPECT_EQ(s[3], 3 * 2.5f + 2.0f);
}

TEST(Retinex, GrayMatchesModel) {
  struct Case {
    int w, h, sigma, n;
    float share;
  } cases[] = {{1, 1, 10, 3, 0.01f},  {7, 3, 10, 1, 0.0f},    {33, 17, 40, 3, 0.01f},
               {64, 9, 15, 2, 0.05f}, {40, 40, 80, 4, 0.02f}, {13, 50, 30, 3, 0.3f}};
  for (const auto& c : cases) {
    const auto src = qvt::MakeNaturalImage(c.w, c.h, 1, 0, unsigned(c.w + c.h));
    auto dst = qvt::MakeImage(c.w, c.h, 1);
    ASSERT_EQ(QV_Retinex(src.ptr(), dst.ptr(), c.w, c.h, c.w, c.sigma, c.n, c.share), STATUS_OK);
    EXPECT_TRUE(NearBytes(RetinexGrayModel(src.data, c.w, c.h, c.sigma, c.n, c.share), dst.data)) << c.w << "x" << c.h;
  }
}

TEST(Retinex, ColourIsTheTransferOfTheGrayResult) {
  for (int c : {3, 4})
    for (int w : {1, 4, 5, 19, 36})
      for (int h : {1, 6, 23}) {
        const auto src = qvt::MakeNaturalImage(w, h, c, w > 4 ? 2 : 0, unsigned(w * h + c));
        auto dst = qvt::MakeImage(w, h, c, w > 4 ? 2 : 0);
        const auto before = dst;
        ASSERT_EQ(QV_Retinex(src.ptr(), dst.ptr(), w, h, src.Stride, 25, 3, 0.01f), STATUS_OK);
        // The pipeline runs on the luminance plane alone: on that plane as a
        // gray image it yields the new luminance, the colour rule does the rest.
        const auto lum = Luminance(src);
        auto gray = Gray(lum, w, h), n = gray;
        ASSERT_EQ(QV_Retinex(gray.ptr(), n.ptr(), w, h, w, 25, 3, 0.01f), STATUS_OK);
        auto expect = before;
        ASSERT_EQ(qv::ColourTransfer(src.ptr(), expect.ptr(), w, h, src.Stride, lum.data(), n.ptr(), 4), STATUS_OK);
        ASSERT_TRUE(qvt::SameBytes(expect.data, dst.data, src.Stride)) << w << "x" << h << " c" << c;
        ExpectTransferNear(src, dst, lum, RetinexGrayModel(lum, w, h, 25, 3, 0.01f), 4);
        // Four channels: rows are read as triples, the last Width bytes of a
        // row are not written.
        if (c != 4) continue;
        for (int y = 0; y < h; ++y)
          for (int x = 3 * w; x < src.Stride; ++x)
            ASSERT_EQ(dst.data[size_t(y) * src.Stride + x], before.data[size_t(y) * src.Stride + x]);
      }
}

TEST(Retinex, FlatImageAndNoScales) {
  // Flat: the log plane is 0, the clip gives 0.5, the stretch 128; each
  // colour is then carried from the old luminance to 128.
  auto flat = qvt::MakeImage(6, 3, 3, 0, false);
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 6; ++x) flat.at(x, y, 0) = 40, flat.at(x, y, 1) = 60, flat.at(x, y, 2) = 90;
  const int y = Luminance(flat)[0];
  auto dst = flat;
  ASSERT_EQ(QV_Retinex(flat.ptr(), dst.ptr(), 6, 3, 18, 20, 3, 0.01f), STATUS_OK);
  for (int x = 0; x < 6; ++x)
    for (int k = 0; k < 3; ++k) EXPECT_EQ(dst.at(x, 1, k), Transfer(flat.at(x, 1, k), y, 128, x < 4, 4)) << x;
  // No scale at all: no blur runs, the plane stays 0, gray comes out 128.
  const auto noisy = qvt::MakeImage(21, 5, 1);
  auto out = noisy;
  ASSERT_EQ(QV_Retinex(noisy.ptr(), out.ptr(), 21, 5, 21, 20, 0, 0.01f), STATUS_OK);
  for (unsigned char v : out.data) EXPECT_EQ(v, 128);
  // Deterministic.
  auto again = qvt::MakeImage(21, 5, 1);
  ASSERT_EQ(QV_Retinex(noisy.ptr(), out.ptr(), 21, 5, 21, 30, 3, 0.01f), STATUS_OK);
  ASSERT_EQ(QV_Retinex(noisy.ptr(), again.ptr(), 21, 5, 21, 30, 3, 0.01f), STATUS_OK);
  EXPECT_TRUE(qvt::SameBytes(out.data, again.data));
}

TEST(Retinex, NestedFailures) {
  const auto src = qvt::MakeNaturalImage(30, 20, 3);
  auto dst = src;
  // Every allocation in turn. The last two are the clip's grid: its status
  // is not looked at, so those calls succeed; all others give status 2.
  std::vector<int> statuses;
  for (int n = 1;; ++n) {
    qvt::AllocHook hook(n);
    const int status = QV_Retinex(src.ptr(), dst.ptr(), 30, 20, 90, 20, 2, 0.01f);
    ASSERT_EQ(hook.Live(), 0) << "allocation " << n;
    if (hook.Requests() < n) break;
    statuses.push_back(status);
  }
  ASSERT_GT(statuses.size(), 6u);  // own four, two blurs with their scratch, the clip
  for (size_t i = 0; i + 2 < statuses.size(); ++i) EXPECT_EQ(statuses[i], STATUS_OUT_OF_MEMORY) << i + 1;
  EXPECT_EQ(statuses[statuses.size() - 2], STATUS_OK);
  EXPECT_EQ(statuses.back(), STATUS_OK);
  // A refusal by the blur (a sigma of 0) ends the loop and comes back.
  qvt::AllocHook hook;
  EXPECT_EQ(QV_Retinex(src.ptr(), dst.ptr(), 30, 20, 90, 0, 1, 0.01f), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(QV_Retinex(src.ptr(), dst.ptr(), 30, 20, 90, 10, -1, 0.01f), STATUS_OUT_OF_MEMORY);
  EXPECT_EQ(hook.Live(), 0);
}

// Adaptive logarithmic mapping in long double, from the raw bytes' maximum.
qvt::Bytes AltmModel(const qvt::Image& src, const qvt::Bytes& lum, float share) {
  const int w = src.Width, h = src.Height;
  int lmax = 0;
  for (size_t i = 0; i < size_t(w) * h; ++i) lmax = std::max<int>(lmax, src.data[i]);
  if (lmax == 0) return {};  // no finite table: see MaximumComesFromTheFirstRawBytes
  const long double f = 0.003921569f;
  long double sum = 0;
  for (unsigned char v : lum) sum += std::log(v * f + 1e-6L);
  const long double lwa = std::exp(sum / lum.size());
  const long double d = std::log(lmax * f / lwa + 1);
  Doubles plane(lum.size());
  for (size_t i = 0; i < lum.size(); ++i) plane[i] = double(std::log(lum[i] * f / lwa + 1) / d);
  return StretchModel(share == 0 ? plane : ClipModel(plane, w, h, share));
}

TEST(AltmRetinex, MatchesModel) {
  int skipped = 0;
  for (int c : {1, 3, 4})
    for (int w : {2, 5, 24, 41})
      for (int h : {1, 4, 30})
        for (float share : {0.0f, 0.01f, 0.1f}) {
          const auto src = qvt::MakeNaturalImage(w, h, c, w > 4 ? 1 : 0, unsigned(w + h * 7 + c));
          auto dst = qvt::MakeImage(w, h, c, w > 4 ? 1 : 0);
          ASSERT_EQ(QV_ALTM_Retinex(src.ptr(), dst.ptr(), w, h, src.Stride, share), STATUS_OK);
          const auto lum = Luminance(src);
          const auto model = AltmModel(src, lum, share);
          if (model.empty()) {
            ++skipped;
            continue;
          }
          if (c == 1) {
            qvt::Bytes got(size_t(w) * h);
            for (int y = 0; y < h; ++y) std::memcpy(&got[size_t(y) * w], &dst.data[size_t(y) * dst.Stride], size_t(w));
            ASSERT_TRUE(NearBytes(model, got)) << w << "x" << h << " share " << share;
          } else {
            ExpectTransferNear(src, dst, lum, model, 0);
            ASSERT_FALSE(HasFailure()) << w << "x" << h << " c" << c << " share " << share;
          }
        }
  EXPECT_LT(skipped, 4);
}

TEST(AltmRetinex, MaximumComesFromTheFirstRawBytes) {
  // The maximum only scales the table, which the stretch to bytes undoes,
  // except when it is 0: the table is then 0 / 0 and x / 0. Three channels
  // whose top third is black have a maximum of 0 although the picture below
  // is bright: the plane is NaN and infinity, the clip finds no range and
  // gives 0.5, and every pixel is carried to a luminance of 128.
  auto src = qvt::MakeNaturalImage(30, 30, 3, 0, 9);
  std::fill(src.data.begin(), src.data.begin() + 30 * 30, 0);
  auto dst = src;
  ASSERT_EQ(QV_ALTM_Retinex(src.ptr(), dst.ptr(), 30, 30, 90, 0.01f), STATUS_OK);
  const auto lum = Luminance(src);
  for (int y = 0; y < 30; ++y)
    for (int x = 0; x < 30; ++x)
      for (int k = 0; k < 3; ++k)
        ASSERT_EQ(dst.at(x, y, k), Transfer(src.at(x, y, k), lum[size_t(y) * 30 + x], 128, x < 28, 0)) << x << "," << y;
  // The same picture as one gray plane has its true maximum: no flat result.
  auto gray = Gray(lum, 30, 30), out = gray;
  ASSERT_EQ(QV_ALTM_Retinex(gray.ptr(), out.ptr(), 30, 30, 30, 0.01f), STATUS_OK);
  EXPECT_TRUE(NearBytes(AltmModel(gray, lum, 0.01f), out.data));
}

TEST(AltmRetinex, AllocationFailuresAndSkippedClip) {
  const auto src = qvt::MakeNaturalImage(26, 19, 3);
  auto dst = src;
  const int with_clip = qvt::CheckEveryAllocationFailure(
      [&] { return QV_ALTM_Retinex(src.ptr(), dst.ptr(), 26, 19, 78, 0.02f); }, STATUS_OUT_OF_MEMORY);
  const int without = qvt::CheckEveryAllocationFailure(
      [&] { return QV_ALTM_Retinex(src.ptr(), dst.ptr(), 26, 19, 78, 0.0f); }, STATUS_OUT_OF_MEMORY);
  EXPECT_EQ(without, 4);  // three planes and the table: no grid without a clip
  EXPECT_EQ(with_clip, without + 2);
}

// ---- the iterative scheme -------------------------------------------------

using Shorts = std::vector<int16_t>;

int Sat16(int v) { return std::max(-32768, std::min(32767, v)); }

// Integer model of the iteration: T from R by the shifted comparison, then
// the mean, floored in blocks of eight and truncated in the last n mod 8.
void IterateModel(Shorts& L, int w, int h, int c, int iterations) {
  const size_t n = L.size();
  Shorts R(n, 32767), T(n);
  auto step = [&](int dx, int dy) {
    T = R;
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const int qx = x - dx, qy = y - dy;
        if (qx < 0 || qx >= w || qy < 0 || qy >= h) continue;
        for (int k = 0; k < c; ++k) {
          const size_t p = (size_t(y) * w + x) * c + k, q = (size_t(qy) * w + qx) * c + k;
          T[p] = int16_t(Sat16(R[q] + L[p] - L[q]));
        }
      }
    for (size_t i = 0; i < n; ++i) {
      const int s = T[i] + R[i];
      R[i] = int16_t(i < (n & ~size_t(7)) ? int(std::floor(s / 2.0)) : s / 2);
    }
  };
  for (int it = 0; it < iterations; ++it)
    for (int s = int(std::pow(2.0, std::floor(std::log2(double(std::min(w, h)))) - 1)); s != 0; s = -(s / 2)) {
      step(0, s);
      step(s, 0);
    }
  L = R;
}

qvt::Image FrankleModel(const qvt::Image& src, const qvt::Image& before, int iterations, std::vector<bool>* Body) {
  const int w = src.Width, h = src.Height, c = src.Channel;
  Shorts L(size_t(w) * h * c);
  for (int k = 0; k < c; ++k) {
    int mx = 0;
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) mx = std::max<int>(mx, src.at(x, y, k));
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        L[(size_t(y) * w + x) * c + k] =
            mx == 0 ? 0 : int16_t(std::log(src.at(x, y, k) + 1.0) / std::log(mx + 1.0) * 32767.0);
  }
  IterateModel(L, w, h, c, iterations);
  qvt::Image out = before;
  const long double k = std::log(255.0) * 3.0518509476e-05;
  Body->assign(out.data.size(), false);
  for (int y = 0; y < h; ++y)
    for (int i = 0; i < w * c; ++i) {
      const long double e = std::exp(L[size_t(y) * w * c + i] * k);
      const bool body = i < ((w * c) & ~7);
      const int v = body ? int(e) : int(e + 0.499999911f);
      out.data[size_t(y) * out.Stride + i] = static_cast<unsigned char>(std::min(255, v));
      (*Body)[size_t(y) * out.Stride + i] = body;
    }
  return out;
}

TEST(FrankleMccann, StepAndMeanMatchModelOnEveryTail) {
  for (int w = 1; w <= 21; ++w)
    for (int c : {1, 3})
      for (int shift : {1, -1, 2, -4}) {
        const int h = 3;
        Shorts L(size_t(w) * h * c), R(L.size()), T(L.size(), 5);
        std::mt19937 rng(unsigned(w * 10 + c));
        for (auto& v : L) v = int16_t(rng() % 32768);
        for (auto& v : R) v = int16_t(int(rng() % 65536) - 32768);
        for (int axis = 0; axis < 2; ++axis) {
          const int dx = axis ? shift : 0, dy = axis ? 0 : shift;
          qv::ShiftCompare(L.data(), R.data(), T.data(), w, h, c, dx, dy);
          Shorts expect = R;
          for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
              if (x - dx >= 0 && x - dx < w && y - dy >= 0 && y - dy < h)
                for (int k = 0; k < c; ++k) {
                  const size_t p = (size_t(y) * w + x) * c + k, q = (size_t(y - dy) * w + x - dx) * c + k;
                  expect[p] = int16_t(Sat16(R[q] + L[p] - L[q]));
                }
          ASSERT_EQ(expect, T) << "w " << w << " c " << c << " dx " << dx << " dy " << dy;
        }
      }
  // The mean: floored in blocks of eight, truncated after them.
  Shorts r = {-3, -3, 5, 7, -32768, 32767, 1, -1, -3, 5, -32768}, t = {0, 1, 0, 0, -32768, 32767, 0, 0, 0, 0, -1};
  qv::AverageInto(r.data(), t.data(), r.size());
  const Shorts expect = {-2, -1, 2, 3, -32768, 32767, 0, -1, -1, 2, -16384};
  EXPECT_EQ(r, expect);
}

TEST(FrankleMccann, MatchesModel) {
  for (int c : {1, 3})
    for (int w : {1, 2, 3, 8, 13, 40})
      for (int h : {1, 2, 5, 33})
        for (int iterations : {1, 3}) {
          const auto src = qvt::MakeNaturalImage(w, h, c, w > 4 ? 3 : 0, unsigned(w * 3 + h));
          auto dst = qvt::MakeImage(w, h, c, w > 4 ? 3 : 0);
          std::vector<bool> body;
          const auto expect = FrankleModel(src, dst, iterations, &body);
          ASSERT_EQ(QV_FrankleMccannRetinex(src.ptr(), dst.ptr(), w, h, src.Stride, iterations), STATUS_OK);
          // The tail is exact; the block's float exponential may land one
          // below the model where e^x is within about 1e-4 of an integer.
          size_t off = 0;
          for (size_t i = 0; i < expect.data.size(); ++i) {
            const int d = int(expect.data[i]) - int(dst.data[i]);
            ASSERT_TRUE(d == 0 || (body[i] && std::abs(d) == 1)) << w << "x" << h << " c" << c << " at " << i;
            off += d != 0;
          }
          EXPECT_LE(off, 2u);
        }
}

TEST(FrankleMccann, StatedCases) {
  // 1 by n: no step runs, R stays 32767, everything comes out 255.
  auto thin = qvt::MakeImage(1, 9, 3);
  auto out = thin;
  ASSERT_EQ(QV_FrankleMccannRetinex(thin.ptr(), out.ptr(), 1, 9, 3, 2), STATUS_OK);
  for (unsigned char v : out.data) EXPECT_EQ(v, 255);
  // n by 1 in the block loop too: 32767 maps to 255 there as well.
  auto wide = qvt::MakeImage(37, 1, 1);
  auto wout = wide;
  ASSERT_EQ(QV_FrankleMccannRetinex(wide.ptr(), wout.ptr(), 37, 1, 37, 1), STATUS_OK);
  for (unsigned char v : wout.data) EXPECT_EQ(v, 255);
  // An all-zero channel: its table is all 0 (no fault) and the operator
  // goes on; the other channels are unaffected by it.
  auto src = qvt::MakeNaturalImage(20, 12, 3, 0, 2);
  for (int y = 0; y < 12; ++y)
    for (int x = 0; x < 20; ++x) src.at(x, y, 1) = 0;
  auto dst = src;
  std::vector<bool> body;
  const auto expect = FrankleModel(src, dst, 2, &body);
  ASSERT_EQ(QV_FrankleMccannRetinex(src.ptr(), dst.ptr(), 20, 12, 60, 2), STATUS_OK);
  for (size_t i = 0; i < dst.data.size(); ++i) ASSERT_LE(std::abs(int(expect.data[i]) - int(dst.data[i])), 1) << i;
  // Deterministic.
  auto again = src;
  ASSERT_EQ(QV_FrankleMccannRetinex(src.ptr(), again.ptr(), 20, 12, 60, 2), STATUS_OK);
  EXPECT_TRUE(qvt::SameBytes(dst.data, again.data));
}

TEST(FrankleMccann, ExhaustedMemoryIsSuccessWithDestUnwritten) {
  const auto src = qvt::MakeNaturalImage(24, 16, 3);
  auto dst = src;
  std::fill(dst.data.begin(), dst.data.end(), 77);
  const int count = qvt::CheckEveryAllocationFailure(
      [&] { return QV_FrankleMccannRetinex(src.ptr(), dst.ptr(), 24, 16, 72, 1); }, STATUS_OK,
      [&] { EXPECT_TRUE(std::all_of(dst.data.begin(), dst.data.end(), [](unsigned char v) { return v == 77; })); });
  EXPECT_EQ(count, 4);  // log plane, tables, and the iteration's two planes
}

// ---- frames -------------------------------------------------------------------

TEST(RetinexFamily, FrameOrder) {
  unsigned char buf[64] = {1, 2, 3};
  struct Case {
    const char* what;
    const unsigned char* src;
    unsigned char* dst;
    int w, h, stride, iterations, expect, expect_fm;
  } cases[] = {
      // Channel first for the two luminance operators; pointers, sizes and
      // iterations, then Channel (5) for the iterative one.
      {"channel 2 before pointers", nullptr, buf, 4, 1, 8, 1, STATUS_INVALID_PARAMETER, STATUS_NULL_REFERENCE},
      {"channel 0 before sizes", buf, buf, 4, 0, 3, 1, STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER},
      {"channel 4", buf, buf, 4, 1, 16, 1, STATUS_OK, STATUS_NOT_SUPPORTED},
      {"channel 4, no iterations", buf, buf, 4, 1, 16, 0, STATUS_OK, STATUS_INVALID_PARAMETER},
      {"channel 5", buf, buf, 3, 1, 15, 1, STATUS_INVALID_PARAMETER, STATUS_NOT_SUPPORTED},
      {"null src", nullptr, buf, 3, 1, 9, 1, STATUS_NULL_REFERENCE, STATUS_NULL_REFERENCE},
      {"null dest", buf, nullptr, 3, 1, 9, 1, STATUS_NULL_REFERENCE, STATUS_NULL_REFERENCE},
      {"height 0", buf, buf, 3, 0, 9, 1, STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER},
      {"negative sizes", buf, buf, -3, -1, -9, 1, STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER},
      {"iterations 0, gray", buf, buf, 4, 1, 4, 0, STATUS_OK, STATUS_INVALID_PARAMETER},
  };
  for (auto& c : cases) {
    unsigned char before[64];
    std::copy(buf, buf + 64, before);
    const bool ok = c.expect == STATUS_OK;
    EXPECT_EQ(QV_Retinex(c.src, c.dst, c.w, c.h, c.stride, 10, 2, 0.01f), c.expect) << c.what;
    EXPECT_EQ(QV_ALTM_Retinex(c.src, c.dst, c.w, c.h, c.stride, 0.01f), c.expect) << c.what;
    const int fm = QV_FrankleMccannRetinex(c.src, c.dst, c.w, c.h, c.stride, c.iterations);
    EXPECT_EQ(fm, c.expect_fm) << c.what;
    if (!ok && fm != STATUS_OK) {
      EXPECT_TRUE(std::equal(buf, buf + 64, before)) << c.what << ": Dest touched";
    }
    std::copy(before, before + 64, buf);
  }
}

TEST(RetinexFamilyDeathTest, WidthZeroFaults) {
  unsigned char buf[16] = {};
  qvt::ExpectDivideFault([&](int w) { return QV_Retinex(nullptr, buf, w, 1, 4, 10, 2, 0.01f); });
  qvt::ExpectDivideFault([&](int w) { return QV_ALTM_Retinex(nullptr, buf, w, 1, 4, 0.01f); });
  qvt::ExpectDivideFault([&](int w) { return QV_FrankleMccannRetinex(nullptr, buf, w, 1, 4, 1); });
}

}  // namespace
