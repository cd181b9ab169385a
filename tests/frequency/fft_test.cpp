// The Fourier engine against a plain double-precision DFT, its padding size
// table, factorisation, quadrant shifts and allocation behaviour.
#include "frequency/fft.h"

#include <cmath>
#include <complex>
#include <cstring>
#include <set>

#include "support/support.h"

namespace {

using qv::FFTComplex;
using CD = std::complex<double>;
using Plane = std::vector<FFTComplex>;

Plane RandomPlane(int Width, int Height, unsigned Seed) {
  std::mt19937 rng(Seed);
  std::uniform_real_distribution<float> d(-100.0f, 100.0f);
  Plane p(size_t(Width) * Height);
  for (auto& v : p) v = {d(rng), d(rng)};
  return p;
}

// Separable double-precision DFT with the engine's sign and scaling.
std::vector<CD> Dft2D(const Plane& in, int Width, int Height, bool Inverse) {
  std::vector<CD> a(in.size()), b(in.size());
  for (size_t i = 0; i < in.size(); ++i) a[i] = CD(in[i].Re, in[i].Im);
  const double sign = Inverse ? 1.0 : -1.0;
  auto roots = [&](int n) {
    std::vector<CD> w(n);
    for (int k = 0; k < n; ++k) w[k] = std::polar(1.0, sign * 2 * M_PI * k / n);
    return w;
  };
  const auto wx = roots(Width), wy = roots(Height);
  for (int y = 0; y < Height; ++y)
    for (int u = 0; u < Width; ++u) {
      CD s = 0;
      for (int x = 0; x < Width; ++x) s += a[size_t(y) * Width + x] * wx[(int64_t(u) * x) % Width];
      b[size_t(y) * Width + u] = Inverse ? s / double(Width) : s;
    }
  for (int u = 0; u < Width; ++u)
    for (int v = 0; v < Height; ++v) {
      CD s = 0;
      for (int y = 0; y < Height; ++y) s += b[size_t(y) * Width + u] * wy[(int64_t(v) * y) % Height];
      a[size_t(v) * Width + u] = Inverse ? s / double(Height) : s;
    }
  return a;
}

// Largest deviation relative to the largest magnitude of the reference.
double RelativeError(const std::vector<CD>& expect, const Plane& got) {
  double worst = 0, scale = 1e-30;
  for (size_t i = 0; i < expect.size(); ++i) {
    worst = std::max(worst, std::abs(expect[i] - CD(got[i].Re, got[i].Im)));
    scale = std::max(scale, std::abs(expect[i]));
  }
  return worst / scale;
}

TEST(FFTSizes, TableIsEverySmoothNumberWithFewThrees) {
  std::set<uint32_t> expect;
  const uint64_t limit = 2125764000u;
  for (uint64_t a = 1; a <= limit; a *= 2)
    for (uint64_t b = a, e3 = 0; b <= limit && e3 <= 14; b *= 3, ++e3)
      for (uint64_t c = b; c <= limit; c *= 5) expect.insert(uint32_t(c));
  ASSERT_EQ(expect.size(), size_t(qv::kFFTSizeCount));
  const uint32_t* table = qv::FFTSizeTable();
  size_t i = 0;
  for (uint32_t v : expect) ASSERT_EQ(table[i++], v) << "entry " << i - 1;
}

TEST(FFTSizes, OptimalSizeIsNextEntry) {
  const uint32_t* table = qv::FFTSizeTable();
  for (int n = 1; n <= 3000; ++n) {
    int expect = 0;
    for (int i = 0; i < qv::kFFTSizeCount; ++i)
      if (table[i] >= uint32_t(n)) {
        expect = int(table[i]);
        break;
      }
    ASSERT_EQ(qv::OptimalFFTSize(n), expect) << n;
  }
  EXPECT_EQ(qv::OptimalFFTSize(101), 108);
  EXPECT_EQ(qv::OptimalFFTSize(1080), 1080);
  EXPECT_EQ(qv::OptimalFFTSize(1921), 1944);
  EXPECT_EQ(qv::OptimalFFTSize(0), -1);
  EXPECT_EQ(qv::OptimalFFTSize(-5), -1);
  EXPECT_EQ(qv::OptimalFFTSize(2125764000), -1);  // "at least" the last entry
  EXPECT_EQ(qv::OptimalFFTSize(2125764001), -1);
  EXPECT_EQ(qv::OptimalFFTSize(2125763999), 2125764000);
  // 3^15 is not an entry: it pads to a larger one.
  const int p315 = 14348907;
  const int next = qv::OptimalFFTSize(p315);
  EXPECT_GT(next, p315);
  EXPECT_EQ(qv::OptimalFFTSize(p315 + 1), next);
}

TEST(FFTEngine, Factorisation) {
  struct Case {
    int n;
    std::vector<int> factors;
  } cases[] = {{1, {1}},
               {4, {4}},
               {5, {5}},
               {6, {2, 3}},
               {60, {4, 5, 3}},
               {45, {5, 3, 3}},
               {1024, {1024}},
               {77, {11, 7}},
               {131, {131}},
               {1080, {8, 5, 3, 3, 3}},
               {1920, {128, 5, 3}},
               {2 * 49, {2, 7, 7}},
               {9, {3, 3}},
               {262, {2, 131}}};
  for (const auto& c : cases) {
    int f[32];
    const int count = qv::FFTFactorize(c.n, f);
    EXPECT_EQ(std::vector<int>(f, f + count), c.factors) << c.n;
  }
}

// Every padding size up to a few hundred, primes and mixes of larger primes,
// as one-row transforms (the row pass) and one-column transforms.
TEST(FFTEngine, OneDimensionalMatchesDft) {
  std::vector<int> sizes;
  for (int i = 0; i < qv::kFFTSizeCount && qv::FFTSizeTable()[i] <= 400; ++i) sizes.push_back(qv::FFTSizeTable()[i]);
  for (int n : {7,   11,  13,  14,  21,  22,  26,      28,   49,   77,   84,   88,   98,
                121, 131, 147, 176, 262, 308, 512 * 7, 1024, 2048, 4096, 1080, 1920, 1944})
    sizes.push_back(n);
  for (int n : sizes) {
    const Plane in = RandomPlane(n, 1, n);
    const auto expect = Dft2D(in, n, 1, false);
    Plane out(in.size());
    ASSERT_EQ(qv::FFT2D(in.data(), out.data(), n, 1, 0, 0), STATUS_OK);
    EXPECT_LT(RelativeError(expect, out), 2e-6) << "row length " << n;
    if (n <= 200) {
      ASSERT_EQ(qv::FFT2D(in.data(), out.data(), 1, n, 0, 0), STATUS_OK);
      EXPECT_LT(RelativeError(expect, out), 2e-6) << "column length " << n;
    }
    // Inverse: the same with the opposite sign, divided by n.
    ASSERT_EQ(qv::FFT2D(in.data(), out.data(), n, 1, 1, 0), STATUS_OK);
    EXPECT_LT(RelativeError(Dft2D(in, n, 1, true), out), 2e-6) << "inverse length " << n;
  }
}

TEST(FFTEngine, TwoDimensionalMatchesDftAndRoundTrips) {
  const int shapes[][2] = {{1, 1}, {2, 2}, {8, 8},   {12, 12}, {7, 7},   {6, 10},  {15, 4},  {5, 7},
                           {1, 9}, {9, 1}, {16, 32}, {131, 2}, {30, 45}, {64, 64}, {27, 27}, {100, 36}};
  for (const auto& s : shapes) {
    const int w = s[0], h = s[1];
    const Plane in = RandomPlane(w, h, unsigned(w * 1000 + h));
    const auto expect = Dft2D(in, w, h, false);
    Plane out(in.size());
    ASSERT_EQ(qv::FFT2D(in.data(), out.data(), w, h, 0, 0), STATUS_OK);
    EXPECT_LT(RelativeError(expect, out), 3e-6) << w << "x" << h;
    // In place gives the same transform.
    Plane same = in;
    ASSERT_EQ(qv::FFT2D(same.data(), same.data(), w, h, 0, 0), STATUS_OK);
    EXPECT_LT(RelativeError(expect, same), 3e-6) << w << "x" << h << " in place";
    // Forward then inverse returns the input.
    ASSERT_EQ(qv::FFT2D(same.data(), same.data(), w, h, 1, 0), STATUS_OK);
    std::vector<CD> orig(in.size());
    for (size_t i = 0; i < in.size(); ++i) orig[i] = CD(in[i].Re, in[i].Im);
    EXPECT_LT(RelativeError(orig, same), 3e-6) << w << "x" << h << " round trip";
    EXPECT_EQ(qv::g_FFTTables.Size, -1);
    EXPECT_EQ(qv::g_FFTTables.Block, nullptr);
  }
}

TEST(FFTEngine, LargerPlanesRoundTrip) {
  for (const auto& s : std::vector<std::pair<int, int>>{{256, 256}, {240, 135}, {1080, 16}, {7, 131}}) {
    const Plane in = RandomPlane(s.first, s.second, 3);
    Plane p = in;
    ASSERT_EQ(qv::FFT2D(p.data(), p.data(), s.first, s.second, 0, 0), STATUS_OK);
    ASSERT_EQ(qv::FFT2D(p.data(), p.data(), s.first, s.second, 1, 0), STATUS_OK);
    double worst = 0;
    for (size_t i = 0; i < in.size(); ++i)
      worst = std::max({worst, double(std::fabs(p[i].Re - in[i].Re)), double(std::fabs(p[i].Im - in[i].Im))});
    EXPECT_LT(worst, 1e-3) << s.first << "x" << s.second;  // inputs up to 100
  }
}

TEST(FFTEngine, ZeroRowsAreNotRead) {
  for (const auto& s : std::vector<std::pair<int, int>>{{8, 8}, {6, 10}, {12, 5}}) {
    const int w = s.first, h = s.second;
    for (int zero : {0, 1, 3, h}) {
      Plane in = RandomPlane(w, h, 9);
      Plane clean = in;
      for (size_t i = size_t(h - zero) * w; i < in.size(); ++i) {
        clean[i] = {0, 0};
        in[i] = {NAN, 1e30f};  // must never be read
      }
      Plane out(in.size());
      ASSERT_EQ(qv::FFT2D(in.data(), out.data(), w, h, 0, zero), STATUS_OK);
      EXPECT_LT(RelativeError(Dft2D(clean, w, h, false), out), 3e-6) << w << "x" << h << " zero rows " << zero;
      if (zero == h) {
        for (const auto& v : out) ASSERT_TRUE(v.Re == 0 && v.Im == 0);
      }
    }
  }
}

Plane ShiftModel(const Plane& in, int w, int h, bool Ceil) {
  const int sx = Ceil ? (w + 1) / 2 : w / 2, sy = Ceil ? (h + 1) / 2 : h / 2;
  Plane out(in.size());
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) out[size_t(y) * w + x] = in[size_t((y + sy) % h) * w + (x + sx) % w];
  return out;
}

bool SamePlane(const Plane& a, const Plane& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(FFTComplex)) == 0;
}

TEST(FFTShift, MatchesModelInAndOutOfPlace) {
  for (int w = 1; w <= 7; ++w)
    for (int h = 1; h <= 7; ++h)
      for (bool forward : {true, false}) {
        const Plane in = RandomPlane(w, h, unsigned(w * 10 + h));
        const Plane expect = ShiftModel(in, w, h, forward);
        auto shift = forward ? qv::FFTShift : qv::FFTInverseShift;
        Plane out(in.size());
        ASSERT_EQ(shift(in.data(), out.data(), w, h), STATUS_OK);
        EXPECT_TRUE(SamePlane(expect, out)) << w << "x" << h << (forward ? " shift" : " inverse");
        Plane same = in;
        ASSERT_EQ(shift(same.data(), same.data(), w, h), STATUS_OK);
        EXPECT_TRUE(SamePlane(expect, same)) << w << "x" << h << (forward ? " shift" : " inverse") << " in place";
      }
}

TEST(FFTShift, ZeroFrequencyToCentreAndBack) {
  const int w = 5, h = 7;
  Plane in(w * h, FFTComplex{0, 0});
  in[0] = {1, 0};
  Plane p = in;
  ASSERT_EQ(qv::FFTShift(p.data(), p.data(), w, h), STATUS_OK);
  EXPECT_EQ(p[size_t(h / 2) * w + w / 2].Re, 1.0f);
  ASSERT_EQ(qv::FFTInverseShift(p.data(), p.data(), w, h), STATUS_OK);
  EXPECT_TRUE(SamePlane(in, p));
  // Two forward shifts are not a round trip on odd sizes.
  ASSERT_EQ(qv::FFTShift(p.data(), p.data(), w, h), STATUS_OK);
  ASSERT_EQ(qv::FFTShift(p.data(), p.data(), w, h), STATUS_OK);
  EXPECT_FALSE(SamePlane(in, p));
}

TEST(FFTEngine, NullPlanes) {
  Plane p(4);
  EXPECT_EQ(qv::FFT2D(nullptr, p.data(), 2, 2, 0, 0), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::FFT2D(p.data(), nullptr, 2, 2, 0, 0), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::FFTShift(nullptr, p.data(), 2, 2), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::FFTInverseShift(p.data(), nullptr, 2, 2), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::TransposeComplex(p.data(), nullptr, 2, 2), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::TransposeComplex(p.data(), p.data(), 0, 2), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::FFTPrepareTables(0), 1);
}

TEST(FFTEngine, TablesLiveForOneCall) {
  EXPECT_EQ(qv::FFTPrepareTables(12), 0);
  EXPECT_EQ(qv::g_FFTTables.Size, 12);
  EXPECT_EQ(qv::g_FFTTables.FactorCount, 2);
  const int index[12] = {0, 6, 3, 9, 1, 7, 4, 10, 2, 8, 5, 11};
  EXPECT_TRUE(std::equal(index, index + 12, qv::g_FFTTables.IndexTable));
  const void* block = qv::g_FFTTables.Block;
  EXPECT_EQ(qv::FFTPrepareTables(12), 0);  // same length: kept as is
  EXPECT_EQ(qv::g_FFTTables.Block, block);
  qv::FFTReleaseTables();
  EXPECT_EQ(qv::g_FFTTables.Size, -1);
  EXPECT_EQ(qv::g_FFTTables.FactorCount, -1);
  EXPECT_EQ(qv::g_FFTTables.Twiddles, nullptr);
}

// Only the scratch plane of the non-square path is reported; a missing
// table or row scratch goes unreported, but nothing leaks or breaks.
TEST(FFTEngine, AllocationFailures) {
  for (const auto& s : std::vector<std::pair<int, int>>{{12, 10}, {12, 12}, {8, 6}, {7, 7}}) {
    const int w = s.first, h = s.second;
    const Plane in = RandomPlane(w, h, 5);
    for (int n = 1;; ++n) {
      Plane out(in.size(), FFTComplex{1, 2});
      Plane before = out;
      qvt::AllocHook hook(n);
      const int status = qv::FFT2D(in.data(), out.data(), w, h, 0, 0);
      const bool reached = hook.Requests() >= n;
      EXPECT_EQ(hook.Live(), 0);
      if (!reached) break;
      if (n == 1 && w != h) {
        EXPECT_EQ(status, STATUS_OUT_OF_MEMORY);
        EXPECT_TRUE(SamePlane(before, out));
      } else {
        EXPECT_EQ(status, STATUS_OK) << w << "x" << h << " allocation " << n;
      }
      EXPECT_EQ(qv::g_FFTTables.Size, -1);
      ASSERT_LT(n, 200);
    }
  }
  // In-place shifts report their scratch.
  for (const auto& s : std::vector<std::pair<int, int>>{{4, 6}, {5, 6}, {4, 5}}) {
    Plane p = RandomPlane(s.first, s.second, 1), before = p;
    const int calls =
        qvt::CheckEveryAllocationFailure([&] { return qv::FFTShift(p.data(), p.data(), s.first, s.second); },
                                         STATUS_OUT_OF_MEMORY, [&] { EXPECT_TRUE(SamePlane(before, p)); });
    EXPECT_EQ(calls, 1);
  }
}

}  // namespace
