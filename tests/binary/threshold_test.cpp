// Global thresholds against plain models written from their definitions, on
// random, natural and degenerate histograms; the stated special results; the
// guarded-division frame and the allocation failures.
#include <cmath>
#include <cstring>

#include "support/support.h"

namespace {

using Hist = std::vector<int>;
using ThresholdFn = int (*)(const unsigned char*, int, int, int, int*);

Hist HistogramOf(const qvt::Image& im) {
  Hist h(256, 0);
  for (int y = 0; y < im.Height; ++y)
    for (int x = 0; x < im.Width; ++x) ++h[im.at(x, y, 0)];
  return h;
}

int FirstBin(const Hist& h) {
  int i = 0;
  while (h[i] == 0) ++i;
  return i;
}
int LastBin(const Hist& h) {
  int i = 255;
  while (h[i] == 0) --i;
  return i;
}

// ---- models -----------------------------------------------------------------
// Each returns the threshold, or -1 where ThresholdOut is to be left alone.

int OtsuModel(const Hist& h) {
  const int f = FirstBin(h), l = LastBin(h);
  if (f == l) return f;
  long long total = 0, integral = 0;
  for (int i = f; i <= l; ++i) total += h[i], integral += (long long)i * h[i];
  double best = -1.0;
  int result = f;
  for (int t = f; t <= l; ++t) {
    long long back = 0, back_int = 0;
    for (int i = f; i <= t; ++i) back += h[i], back_int += (long long)i * h[i];
    const long long fore = total - back, fore_int = integral - back_int;
    const double d = double(back_int) / double(back) - double(fore_int) / double(fore);
    const double v = (double(fore) / double(total)) * (double(back) / double(total)) * d * d;
    if (v > best) best = v, result = t;
  }
  return result;
}

int MaxEntropyModel(const Hist& h) {
  const int f = FirstBin(h), l = LastBin(h);
  if (f == l) return f;
  int n = 0;
  for (int v : h) n += v;
  std::vector<float> p(256);
  for (int i = 0; i < 256; ++i) p[i] = float(h[i]) / float(n) + 2.220446e-16f;
  float best = -3.4028231e38f;
  int result = -1;
  for (int y = f + 1; y < l; ++y) {
    float s = 0;
    for (int i = f; i <= y; ++i) s += p[i];
    // Ratios in float, logarithms in double, entropies kept in float.
    float eb = 0, ef = 0;
    for (int i = f; i <= y; ++i) eb = float(eb - double(p[i] / s) * std::log(double(p[i] / s)));
    for (int i = y + 1; i <= l; ++i) ef = float(ef - double(p[i] / (1.0f - s)) * std::log(double(p[i] / (1.0f - s))));
    if (eb + ef > best) best = eb + ef, result = y;
  }
  return result;
}

int IterativeModel(const Hist& h) {
  const int f = FirstBin(h), l = LastBin(h);
  if (f == l) return f;
  int t = (f + l) / 2;
  if (t == f) return f;
  int result = f;
  for (int round = 0; round < 100; ++round) {
    result = t;
    long long sb = 0, cb = 0, sf = 0, cf = 0;
    for (int i = f; i <= l; ++i) {
      if (i <= t)
        sb += (long long)i * h[i], cb += h[i];
      else
        sf += (long long)i * h[i], cf += h[i];
    }
    t = int(sb / cb + sf / cf) / 2;
    if (t == result) break;
  }
  return result;
}

int MinimumModel(const Hist& h) {
  std::vector<float> a(h.begin(), h.end()), b = a;
  auto is_peak = [&](int i) { return b[i] > b[i - 1] && b[i] > b[i + 1]; };
  for (int round = 0; round < 501; ++round) {
    int peaks = 0;
    for (int i = 1; i <= 254; ++i) peaks += is_peak(i);
    if (peaks == 2) {
      int i = 1;
      while (!is_peak(i)) ++i;
      for (; i <= 254; ++i)
        if (b[i - 1] >= b[i] && b[i + 1] >= b[i]) return i - 1;
      return 127;
    }
    const float c = 0.33333334f;
    for (int i = 0; i < 256; ++i) {
      const float lo = i == 0 ? a[0] : a[i - 1], hi = i == 255 ? a[255] : a[i + 1];
      b[i] = i == 0 ? (2 * a[0] + a[1]) * c : i == 255 ? (a[254] + 2 * a[255]) * c : (lo + a[i] + hi) * c;
    }
    a = b;
  }
  return 127;
}

int HuangModel(const Hist& h) {
  const int f = FirstBin(h), l = LastBin(h);
  if (l - f <= 1) return f;
  const int d = l - f;
  std::vector<float> smu(d + 1, 0.0f);
  for (int i = 1; i <= d; ++i) {
    const double mu = 1.0 / (1.0 + double(i) / double(d));
    smu[i] = float(-mu * std::log(mu) - (1 - mu) * std::log(1 - mu));
  }
  auto mean_bin = [&](int lo, int hi) {
    long long s = 0, w = 0;
    for (int i = lo; i <= hi; ++i) s += h[i], w += (long long)i * h[i];
    return int(std::floor(float(w) / float(s)));
  };
  float best = 3.402823e38f;
  int result = f;
  for (int y = f; y <= l; ++y) {
    float e = 0;
    int m = mean_bin(f, y);
    for (int i = f; i <= y; ++i) e += smu[std::abs(i - m)] * h[i];
    if (y < l) {
      m = mean_bin(y + 1, l);
      for (int i = y + 1; i <= l; ++i) e += smu[std::abs(i - m)] * h[i];
    }
    if (e < best) best = e, result = y;
  }
  return result;
}

int TriangleModel(const Hist& h) {
  const int left = FirstBin(h), right = LastBin(h);
  if (right - left <= 1) return left;
  std::vector<float> s(256);
  for (int i = 0; i < 256; ++i) {
    int sum = 0, lo = std::max(0, i - 2), hi = std::min(255, i + 2);
    for (int k = lo; k <= hi; ++k) sum += h[k];
    const int count = hi - lo + 1;
    s[i] = float(sum * (count == 3 ? 0.3333333333333333 : count == 4 ? 0.25 : 0.2));
  }
  int peak = left;
  for (int i = left; i <= right; ++i)
    if (s[i] > s[peak]) peak = i;
  if (peak - left <= 1) return peak;
  const float a = s[peak];
  const int b = peak - left, c = (left - peak) * left;
  const double dd = std::sqrt(double(a * a + float(b * b))) + 1e-7;
  int result = left;
  double best = -1;
  for (int i = left; i <= peak; ++i) {
    const double d = std::fabs(double(s[i] * a + float(i * b) + float(c))) / dd;
    if (d > best) best = d, result = i;
  }
  return result;
}

// Gradient-weighted mean: edges repeat the border sample, each row's products
// are summed in four float lanes (index mod 4) over blocks of 16, the lanes
// reduced pairwise, the tail added singly, then the row added to the total.
int SimpleStatisticsModel(const qvt::Image& im) {
  const int w = im.Width, h = im.Height;
  auto px = [&](int x, int y) {
    return int(im.at(std::min(std::max(x, 0), w - 1), std::min(std::max(y, 0), h - 1), 0));
  };
  long long weight = 0;
  float total = 0;
  for (int y = 0; y < h; ++y) {
    float lanes[4] = {0, 0, 0, 0};
    for (int x = 0; x < w; ++x) {
      const int e = std::max(std::abs(px(x - 1, y) - px(x + 1, y)), std::abs(px(x, y - 1) - px(x, y + 1)));
      weight += e;
      if (x < (w / 16) * 16) lanes[x % 4] += float(px(x, y) * e);
    }
    float row = (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
    for (int x = (w / 16) * 16; x < w; ++x) {
      const int e = std::max(std::abs(px(x - 1, y) - px(x + 1, y)), std::abs(px(x, y - 1) - px(x, y + 1)));
      row += float(px(x, y) * e);
    }
    total += row;
  }
  return weight == 0 ? 0 : int(total / float(weight));
}

// ---- inputs -------------------------------------------------------------------

// An image whose samples follow a chosen kind of histogram.
qvt::Image MakeInput(int Width, int Height, int Pad, int Kind, std::mt19937& rng) {
  auto im = qvt::MakeImage(Width, Height, 1, Pad, false);
  std::normal_distribution<double> n1(60 + rng() % 40, 6 + rng() % 20), n2(170 + rng() % 60, 5 + rng() % 25);
  std::uniform_int_distribution<int> any(0, 255), pick(0, 99);
  const int lo = any(rng), span = 1 + rng() % 6;
  const int share = 10 + rng() % 80;
  for (int y = 0; y < Height; ++y)
    for (int x = 0; x < Width; ++x) {
      int v = 0;
      switch (Kind) {
        case 0:
          v = any(rng);
          break;  // uniform
        case 1:
          v = int(std::lround(pick(rng) < share ? n1(rng) : n2(rng)));
          break;  // two modes
        case 2:
          v = std::min(255, lo + any(rng) % span);
          break;  // narrow range
        case 3:
          v = pick(rng) < share ? lo : std::min(255, lo + span);
          break;  // two levels
        case 4:
          v = pick(rng) < share ? 0 : 255;
          break;  // extremes
        default:
          v = lo;  // flat
      }
      im.at(x, y, 0) = static_cast<unsigned char>(std::min(255, std::max(0, v)));
    }
  return im;
}

struct Named {
  const char* name;
  ThresholdFn fn;
  int (*model)(const Hist&);
};
const Named kHistogramThresholds[] = {
    {"Otsu", QV_GetOSTUThreshold, OtsuModel},
    {"MaxEntropy", QV_GetMaxEntropyThreshold, MaxEntropyModel},
    {"Iterative", QV_GetIterativeBestThreshold, IterativeModel},
    {"Minimum", QV_GetMinimumThreshold, MinimumModel},
    {"Huang", QV_GetHuangFuzzyThreshold, HuangModel},
    {"Triangle", QV_GetTriangleThreshold, TriangleModel},
};

int Threshold(ThresholdFn fn, const qvt::Image& im, int Sentinel = -12345) {
  int out = Sentinel;
  EXPECT_EQ(fn(im.ptr(), im.Width, im.Height, im.Stride, &out), STATUS_OK);
  return out;
}

TEST(GlobalThreshold, HistogramOperatorsMatchModels) {
  std::mt19937 rng(2024);
  int cases = 0;
  for (int round = 0; round < 60; ++round)
    for (int kind = 0; kind <= 5; ++kind) {
      const int w = 1 + rng() % 70, h = 1 + rng() % 9, pad = w > 3 ? int(rng() % std::min(w, 4)) : 0;
      const auto im = MakeInput(w, h, pad, kind, rng);
      const Hist hist = HistogramOf(im);
      for (const auto& t : kHistogramThresholds) {
        const int want = t.model(hist);
        ASSERT_EQ(Threshold(t.fn, im), want == -1 ? -12345 : want)
            << t.name << " kind " << kind << " " << w << "x" << h << " pad " << pad;
      }
      ++cases;
    }
  // Natural pictures at a few sizes, and a large noisy one.
  for (int s : {17, 64, 250}) {
    const auto im = qvt::MakeNaturalImage(s, s / 2 + 1, 1, 3, s);
    for (const auto& t : kHistogramThresholds) {
      const int want = t.model(HistogramOf(im));
      EXPECT_EQ(Threshold(t.fn, im), want == -1 ? -12345 : want) << t.name << " natural " << s;
    }
  }
  EXPECT_GT(cases, 300);
}

TEST(GlobalThreshold, SimpleStatisticsMatchesModel) {
  std::mt19937 rng(77);
  for (const auto& s : qvt::TailShapes({1}, 4)) {
    const auto im = MakeInput(s.Width, s.Height, s.Pad, int(rng() % 6), rng);
    ASSERT_EQ(Threshold(QV_GetSimpleStatisticsThreshold, im), SimpleStatisticsModel(im)) << qvt::ToString(s);
  }
  const auto nat = qvt::MakeNaturalImage(301, 40, 1, 2);
  EXPECT_EQ(Threshold(QV_GetSimpleStatisticsThreshold, nat), SimpleStatisticsModel(nat));
}

// The results the definitions state for degenerate histograms.
TEST(GlobalThreshold, StatedDegenerateResults) {
  auto flat = qvt::MakeImage(23, 5, 1, 2, false);
  std::fill(flat.data.begin(), flat.data.end(), 37);
  for (ThresholdFn fn : {QV_GetOSTUThreshold, QV_GetIterativeBestThreshold, QV_GetMaxEntropyThreshold,
                         QV_GetHuangFuzzyThreshold, QV_GetTriangleThreshold})
    EXPECT_EQ(Threshold(fn, flat), 37);
  EXPECT_EQ(Threshold(QV_GetMinimumThreshold, flat), 127);
  EXPECT_EQ(Threshold(QV_GetSimpleStatisticsThreshold, flat), 0);

  // Two neighbouring levels, unequal shares so that no tie hides the rule.
  auto two = qvt::MakeImage(9, 4, 1, 0, false);
  for (size_t i = 0; i < two.data.size(); ++i) two.data[i] = i % 3 ? 10 : 11;
  EXPECT_EQ(Threshold(QV_GetOSTUThreshold, two), 10);
  EXPECT_EQ(Threshold(QV_GetMaxEntropyThreshold, two, 999), 999);  // not written, status 0
  EXPECT_EQ(Threshold(QV_GetIterativeBestThreshold, two), 10);
  EXPECT_EQ(Threshold(QV_GetHuangFuzzyThreshold, two), 10);
  EXPECT_EQ(Threshold(QV_GetTriangleThreshold, two), 10);
  EXPECT_EQ(Threshold(QV_GetMinimumThreshold, two), 127);  // one raw peak, then one smoothed peak

  // 0 and 255 in equal parts: the variance is the same at every t below 255,
  // and the strict comparison keeps the first.
  auto ends = qvt::MakeImage(8, 2, 1, 0, false);
  for (size_t i = 0; i < ends.data.size(); ++i) ends.data[i] = i % 2 ? 255 : 0;
  EXPECT_EQ(Threshold(QV_GetOSTUThreshold, ends), 0);

  // Two isolated levels are two raw peaks at once: the first valley is one
  // bin above the lower level, and the answer is one below that valley.
  auto apart = qvt::MakeImage(6, 3, 1, 0, false);
  for (size_t i = 0; i < apart.data.size(); ++i) apart.data[i] = i % 4 ? 50 : 200;
  EXPECT_EQ(Threshold(QV_GetMinimumThreshold, apart), 50);
}

TEST(GlobalThreshold, SimpleStatisticsByHand) {
  // One row 0, 100, 200: the row is its own upper and lower neighbour, the
  // ends repeat, so e = 100, 200, 100 and S / W = (100*200 + 200*100) / 400.
  auto row = qvt::MakeImage(3, 1, 1, 0, false);
  row.data = {0, 100, 200};
  EXPECT_EQ(Threshold(QV_GetSimpleStatisticsThreshold, row), 100);
  // A vertical step: only the rows beside the edge carry weight, both ways.
  auto step = qvt::MakeImage(5, 4, 1, 0, false);
  for (int x = 0; x < 5; ++x) step.at(x, 0, 0) = step.at(x, 1, 0) = 20, step.at(x, 2, 0) = step.at(x, 3, 0) = 220;
  EXPECT_EQ(Threshold(QV_GetSimpleStatisticsThreshold, step), 120);
}

TEST(GlobalThreshold, GuardedFrame) {
  unsigned char buf[64] = {5, 9, 200, 7};
  struct Case {
    const char* what;
    const unsigned char* src;
    int w, h, stride, expect;
  } cases[] = {
      {"null src before sizes", nullptr, 0, 0, 0, STATUS_NULL_REFERENCE},
      {"width 0 is a status", buf, 0, 2, 4, STATUS_INVALID_PARAMETER},
      {"width 0 stride 0", buf, 0, 1, 0, STATUS_INVALID_PARAMETER},
      {"negative width", buf, -4, 2, 4, STATUS_INVALID_PARAMETER},
      {"height 0", buf, 4, 0, 4, STATUS_INVALID_PARAMETER},
      {"stride below width", buf, 4, 2, 3, STATUS_INVALID_PARAMETER},
      {"padding of Width", buf, 4, 2, 8, STATUS_INVALID_PARAMETER},
      {"three channels", buf, 4, 2, 12, STATUS_INVALID_PARAMETER},
      {"padding below Width", buf, 4, 2, 7, STATUS_OK},
  };
  for (ThresholdFn fn :
       {QV_GetOSTUThreshold, QV_GetMaxEntropyThreshold, QV_GetIterativeBestThreshold, QV_GetMinimumThreshold,
        QV_GetHuangFuzzyThreshold, QV_GetTriangleThreshold, QV_GetSimpleStatisticsThreshold})
    for (const auto& c : cases) {
      int out = -777;
      EXPECT_EQ(fn(c.src, c.w, c.h, c.stride, &out), c.expect) << c.what;
      if (c.expect != STATUS_OK) {
        EXPECT_EQ(out, -777) << c.what << ": ThresholdOut written";
      }
    }
}

TEST(GlobalThreshold, AllocationFailures) {
  const auto im = MakeInput(37, 6, 2, 1, qvt::Rng());
  for (ThresholdFn fn : {QV_GetHuangFuzzyThreshold, QV_GetTriangleThreshold, QV_GetSimpleStatisticsThreshold}) {
    int out = -777;
    const int n = qvt::CheckEveryAllocationFailure([&] { return fn(im.ptr(), im.Width, im.Height, im.Stride, &out); },
                                                   STATUS_OUT_OF_MEMORY, [&] { EXPECT_EQ(out, -777); });
    EXPECT_GT(n, 0);
  }
  // The other four work in the frame alone.
  for (ThresholdFn fn :
       {QV_GetOSTUThreshold, QV_GetMaxEntropyThreshold, QV_GetIterativeBestThreshold, QV_GetMinimumThreshold}) {
    qvt::AllocHook hook(1);
    int out = -777;
    EXPECT_EQ(fn(im.ptr(), im.Width, im.Height, im.Stride, &out), STATUS_OK);
    EXPECT_EQ(hook.Requests(), 0);
  }
}

}  // namespace
