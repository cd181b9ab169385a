// Row extension and row sums against plain models on every count, and the
// window sum skeleton against a brute-force window with its asymmetric
// borders (rows repeat the edge, columns do not).
#include "frame/rows.h"

#include <cstring>
#include <random>
#include <vector>

#include "frame/window.h"
#include "support/support.h"

namespace {

std::vector<int> Counts() {
  std::vector<int> c;
  for (int n = 0; n <= 40; ++n) c.push_back(n);
  for (int n : {63, 64, 65, 127, 1000, 4099}) c.push_back(n);
  return c;
}

template <typename T>
std::vector<T> RandomRow(size_t n, double lo, double hi, unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<T> v(n);
  if constexpr (std::is_floating_point<T>::value) {
    std::uniform_real_distribution<double> d(lo, hi);
    for (auto& e : v) e = static_cast<T>(d(rng));
  } else {
    std::uniform_int_distribution<long long> d(static_cast<long long>(lo), static_cast<long long>(hi));
    for (auto& e : v) e = static_cast<T>(d(rng));
  }
  return v;
}

// ---- extension ------------------------------------------------------------------

template <typename T, int Lanes>
void CheckExtension(void (*Extend)(T*, int, int), double lo, double hi) {
  for (int w : Counts()) {
    if (w == 0) continue;
    std::vector<int> radii;
    for (int r = 0; r < w && r <= 40; ++r) radii.push_back(r);
    if (w > 41) radii.push_back(w - 1);
    for (int r : radii) {
      // One spare pixel each side, with sentinels, to catch writes past the row.
      const size_t n = size_t(w + 2 * r + 2) * Lanes;
      auto buf = RandomRow<T>(n, lo, hi, unsigned(w * 131 + r));
      auto expect = buf;
      T* row = expect.data() + Lanes;
      for (int i = 0; i < r; ++i)
        for (int c = 0; c < Lanes; ++c) {
          row[i * Lanes + c] = row[(2 * r - i) * Lanes + c];
          row[(w + r + i) * Lanes + c] = row[(w + r - 2 - i) * Lanes + c];
        }
      Extend(buf.data() + Lanes, w, r);
      ASSERT_EQ(0, std::memcmp(buf.data(), expect.data(), n * sizeof(T))) << "width " << w << " radius " << r;
    }
  }
}

TEST(ExtendRow, EveryWidthAndRadius) {
  CheckExtension<uint8_t, 1>(qv::ExtendRowU8, 0, 255);
  CheckExtension<uint16_t, 1>(qv::ExtendRowU16, 0, 65535);
  CheckExtension<int32_t, 1>(qv::ExtendRowI32, -2e9, 2e9);
  CheckExtension<float, 1>(qv::ExtendRowF32, -1e6, 1e6);
  CheckExtension<uint16_t, 4>(qv::ExtendPixelsU16x4, 0, 65535);
  CheckExtension<int32_t, 3>(qv::ExtendPixelsI32x3, -2e9, 2e9);
  CheckExtension<int32_t, 4>(qv::ExtendPixelsI32x4, -2e9, 2e9);
  CheckExtension<float, 3>(qv::ExtendPixelsF32x3, -1e6, 1e6);
  CheckExtension<float, 4>(qv::ExtendPixelsF32x4, -1e6, 1e6);
}

TEST(ExtendRow, ColumnMinusOneIsColumnOne) {
  uint8_t row[3 + 4 + 3] = {0, 0, 0, 10, 11, 12, 13, 0, 0, 0};
  qv::ExtendRowU8(row, 4, 3);
  const uint8_t expect[] = {13, 12, 11, 10, 11, 12, 13, 12, 11, 10};
  EXPECT_EQ(0, std::memcmp(row, expect, sizeof row));
}

// ---- sums ---------------------------------------------------------------------------

// The float-lane sum as the text orders it: blocks of 8 in two accumulators of
// four lanes, lane sums reduced (l0 + l1) + (l2 + l3), the rest in double by
// groups of 4 and then singly.
template <typename T>
double FloatLaneSumModel(const T* p, int n) {
  float a0[4] = {}, a1[4] = {};
  const int blocks = n / 8 * 8;
  for (int i = 0; i < blocks; i += 8)
    for (int j = 0; j < 4; ++j) {
      a0[j] += static_cast<float>(p[i + j]);
      a1[j] += static_cast<float>(p[i + 4 + j]);
    }
  float l[4];
  for (int j = 0; j < 4; ++j) l[j] = a0[j] + a1[j];
  double rest = 0;
  int i = blocks;
  for (; i + 4 <= n; i += 4) rest += double(p[i]) + double(p[i + 1]) + double(p[i + 2]) + double(p[i + 3]);
  for (; i < n; ++i) rest += double(p[i]);
  return double((l[0] + l[1]) + (l[2] + l[3])) + rest;
}

TEST(SumRow, EveryCount) {
  for (int n : Counts()) {
    auto u8 = RandomRow<uint8_t>(n, 0, 255, n + 1);
    uint32_t s8 = 0;
    for (auto v : u8) s8 += v;
    EXPECT_EQ(qv::SumRowU8(u8.data(), n), s8) << n;

    auto u16 = RandomRow<uint16_t>(n, 0, 65535, n + 2);
    uint16_t s16 = 0;
    for (auto v : u16) s16 = uint16_t(s16 + v);
    EXPECT_EQ(qv::SumRowU16(u16.data(), n), s16) << n;

    auto i32 = RandomRow<int32_t>(n, -2147483647.0, 2147483647.0, n + 3);  // wraps
    uint32_t s32 = 0;
    for (auto v : i32) s32 += uint32_t(v);
    EXPECT_EQ(qv::SumRowI32(i32.data(), n), int32_t(s32)) << n;

    // Values past 2^24 in float lanes make the block order visible.
    auto big = RandomRow<int32_t>(n, -3e7, 3e7, n + 4);
    EXPECT_EQ(qv::SumRowI32Float(big.data(), n), FloatLaneSumModel(big.data(), n)) << n;

    auto f32 = RandomRow<float>(n, -1e5, 1e5, n + 5);
    EXPECT_EQ(qv::SumRowF32(f32.data(), n), FloatLaneSumModel(f32.data(), n)) << n;
  }
}

template <typename T, int Lanes, typename Sum, typename Fn>
void CheckPixelSums(Fn fn, double lo, double hi) {
  for (int n : Counts()) {
    auto row = RandomRow<T>(size_t(n) * Lanes + 1, lo, hi, n + 7);
    Sum expect[Lanes] = {};
    for (int i = 0; i < n; ++i)
      for (int c = 0; c < Lanes; ++c) {
        if constexpr (std::is_floating_point<Sum>::value)
          expect[c] += row[i * Lanes + c];
        else
          expect[c] = Sum(std::make_unsigned_t<Sum>(expect[c]) + std::make_unsigned_t<Sum>(row[i * Lanes + c]));
      }
    Sum got[Lanes + 1];
    got[Lanes] = Sum(77);
    EXPECT_EQ(fn(row.data(), n, got), got) << n;
    for (int c = 0; c < Lanes; ++c) EXPECT_EQ(got[c], expect[c]) << "count " << n << " lane " << c;
    EXPECT_EQ(got[Lanes], Sum(77)) << "wrote past the lanes";
  }
}

TEST(SumPixels, EveryCount) {
  CheckPixelSums<uint16_t, 4, uint16_t>(qv::SumPixelsU16x4, 0, 65535);
  CheckPixelSums<int32_t, 3, int32_t>(qv::SumPixelsI32x3, -2e9, 2e9);
  CheckPixelSums<int32_t, 4, int32_t>(qv::SumPixelsI32x4, -2e9, 2e9);
  CheckPixelSums<float, 3, float>(qv::SumPixelsF32x3, -1e5, 1e5);
  CheckPixelSums<float, 4, float>(qv::SumPixelsF32x4, -1e5, 1e5);
}

// ---- the skeleton ------------------------------------------------------------------------

// Brute-force window sum of one sample with the skeleton's borders: rows by
// MirrorIndex (edge repeated), columns reflected once without the edge.
template <typename MapFn>
long long BruteWindow(const qvt::Image& im, int x, int y, int c, int R, MapFn map) {
  long long s = 0;
  for (int dy = -R; dy <= R; ++dy)
    for (int dx = -R; dx <= R; ++dx) {
      const int yy = qv::MirrorIndex(im.Height, y + dy);
      int xx = x + dx;
      if (xx < 0) xx = -xx;
      if (xx >= im.Width) xx = 2 * im.Width - 2 - xx;
      s += map(im.at(xx, yy, c));
    }
  return s;
}

std::vector<int> Radii() { return {0, 1, 2, 3, 4, 5, 6, 9, 30}; }

template <typename T, int Pitch, typename Map = qv::SampleIdentity>
struct SkeletonRun {
  // Sums[y][x][c] for every pixel, as the operator's Op sees them.
  std::vector<long long> sums;
  std::vector<bool> seen;
  int W, H, C;

  SkeletonRun(const qvt::Image& im, int R) : W(im.Width), H(im.Height), C(im.Channel) {
    sums.assign(size_t(W) * H * C, 0);
    seen.assign(size_t(W) * H, false);
    std::vector<T> cols(qv::WindowColumnCount<T, Pitch>(W, R));
    std::vector<int> table(qv::WindowRowTableCount(H, R));
    qv::FillRowTable(table.data(), H, R);
    qv::ForEachWindowRow<T, Pitch, Map>(im.ptr(), im.Stride, W, H, C, R, cols.data(), table.data(),
                                        [&](int y, const T* Cols) { Horizontal(y, Cols, R); });
  }
  void Put(int x, int y, int c, long long v) {
    sums[(size_t(y) * W + x) * C + c] = v;
    if (c == 0) {
      EXPECT_FALSE(seen[size_t(y) * W + x]) << "pixel " << x << "," << y << " given twice";
      seen[size_t(y) * W + x] = true;
    }
  }
  void Horizontal(int y, const T* Cols, int R) {
    if constexpr (Pitch == 1) {
      struct Op {
        SkeletonRun* run;
        int y;
        void Scalar(int x, typename qv::WindowLane<T>::Scalar S) { run->Put(x, y, 0, (long long)S); }
        void Vector(int x, __m128i S) {
          if constexpr (std::is_same<T, int32_t>::value) {
            alignas(16) int32_t l[4];
            _mm_store_si128((__m128i*)l, S);
            for (int i = 0; i < 4; ++i) run->Put(x + i, y, 0, l[i]);
          } else {
            alignas(16) uint16_t l[8];
            _mm_store_si128((__m128i*)l, S);
            for (int i = 0; i < 8; ++i) run->Put(x + i, y, 0, l[i]);
          }
        }
        void Vector(int x, __m128 S) {
          alignas(16) float l[4];
          _mm_store_ps(l, S);
          for (int i = 0; i < 4; ++i) run->Put(x + i, y, 0, (long long)l[i]);
        }
      } op{this, y};
      qv::SlideWindowRow<T>(Cols, W, R, op);
    } else if constexpr (std::is_same<T, uint16_t>::value) {
      struct Op {
        SkeletonRun* run;
        int y;
        void Scalar(int x, const uint16_t* S) {
          for (int c = 0; c < run->C; ++c) run->Put(x, y, c, S[c]);
        }
        void Vector(int x, __m128i S) {
          alignas(16) uint16_t l[8];
          _mm_store_si128((__m128i*)l, S);
          for (int c = 0; c < run->C; ++c) run->Put(x, y, c, l[c]);
          for (int c = 0; c < run->C; ++c) run->Put(x + 1, y, c, l[4 + c]);
          EXPECT_EQ(l[3], run->C == 3 ? 0 : l[3]) << "spread lane must stay 0";
        }
      } op{this, y};
      qv::SlideWindowPixelsU16x4(Cols, W, R, op);
    } else {
      struct Op {
        SkeletonRun* run;
        int y;
        void Scalar(int x, const int32_t* S) {
          for (int c = 0; c < run->C; ++c) run->Put(x, y, c, S[c]);
        }
        void Vector(int x, __m128i S0, __m128i S1) {
          alignas(16) int32_t l[8];
          _mm_store_si128((__m128i*)l, S0);
          _mm_store_si128((__m128i*)(l + 4), S1);
          for (int c = 0; c < run->C; ++c) run->Put(x, y, c, l[c]);
          for (int c = 0; c < run->C; ++c) run->Put(x + 1, y, c, l[4 + c]);
        }
      } op{this, y};
      const int end = Pitch == 3 ? ((W - 1) / 2) * 2 : ((W - 2) / 2) * 2;
      qv::SlideWindowPixels<T, Pitch>(Cols, W, R, end, op);
    }
  }
};

template <typename T, int Pitch, typename Map = qv::SampleIdentity, typename MapFn>
void CheckSkeleton(int Channel, long long Modulus, MapFn map, std::initializer_list<int> Widths = {}) {
  std::vector<int> widths = Widths;
  if (widths.empty())
    for (int w = 1; w <= 40; ++w) widths.push_back(w);
  for (int w : widths)
    for (int h : {1, 2, 5, 13})
      for (int r : Radii()) {
        const int R = qv::ClampWindowRadius(r, w, h);
        auto im = qvt::MakeImage(w, h, Channel, w > 3 ? 3 : 0);
        SkeletonRun<T, Pitch, Map> run(im, R);
        for (int y = 0; y < h; ++y)
          for (int x = 0; x < w; ++x) {
            ASSERT_TRUE(run.seen[size_t(y) * w + x]) << "pixel " << x << "," << y << " never given";
            for (int c = 0; c < Channel; ++c) {
              long long e = BruteWindow(im, x, y, c, R, map);
              long long g = run.sums[(size_t(y) * w + x) * Channel + c];
              // 16-bit sums wrap once the window passes 257 bytes.
              if (std::is_same<T, uint16_t>::value) Modulus = 65536;
              if (Modulus) {
                e = ((e % Modulus) + Modulus) % Modulus;
                g = ((g % Modulus) + Modulus) % Modulus;
              }
              ASSERT_EQ(g, e) << "w " << w << " h " << h << " R " << R << " x " << x << " y " << y << " c " << c;
            }
          }
      }
}

auto Identity = [](int v) { return (long long)v; };
auto Square = [](int v) { return (long long)v * v; };

TEST(WindowSkeleton, SingleLaneMatchesBruteForce) {
  CheckSkeleton<uint16_t, 1>(1, 0, Identity);
  CheckSkeleton<int32_t, 1>(1, 0, Identity);
  CheckSkeleton<float, 1>(1, 0, Identity);
  CheckSkeleton<int32_t, 1>(1, 0, Identity, {333});
}

TEST(WindowSkeleton, PixelFormsMatchBruteForce) {
  CheckSkeleton<uint16_t, 4>(3, 0, Identity);
  CheckSkeleton<uint16_t, 4>(4, 0, Identity);
  CheckSkeleton<int32_t, 3>(3, 0, Identity);
  CheckSkeleton<int32_t, 4>(4, 0, Identity);
  CheckSkeleton<int32_t, 4>(4, 0, Identity, {255});
}

TEST(WindowSkeleton, SixteenBitSumsWrap) {
  // Squares of bytes overflow 16-bit columns at once; the sums stay right
  // modulo 2^16 because nothing saturates.
  CheckSkeleton<uint16_t, 1, qv::SampleSquare>(1, 65536, Square);
  CheckSkeleton<uint16_t, 4, qv::SampleSquare>(4, 65536, Square, {7, 8, 9, 31});
  CheckSkeleton<int32_t, 1, qv::SampleSquare>(1, 0, Square, {17, 40});
}

TEST(WindowSkeleton, RowsRepeatTheEdgeColumnsDoNot) {
  // 3x3 image, radius 1, window at the corner (0, 0).
  auto im = qvt::MakeImage(3, 3, 1, 0, false);
  for (int i = 0; i < 9; ++i) im.data[i] = uint8_t(1 << i % 8);  // distinct weights per pixel
  im.data[8] = 0;
  SkeletonRun<int32_t, 1> run(im, 1);
  // rows -1,0,1 -> 0,0,1; columns -1,0,1 -> 1,0,1
  const long long expect = 2 * (2 * im.data[1] + im.data[0]) + (2 * im.data[4] + im.data[3]);
  EXPECT_EQ(run.sums[0], expect);
}

TEST(WindowSkeleton, FirstRowOverManyRows) {
  // 2R + 1 = 601 rows: more than one run of 257 rows in 16-bit partial sums.
  for (int c : {1, 3, 4})
    for (int w : {1, 5, 6, 16, 21, 37}) {
      const int h = 310, R = 300;
      auto im = qvt::MakeImage(w, h, c, w > 3 ? 2 : 0);
      std::vector<int> table(qv::WindowRowTableCount(h, R));
      qv::FillRowTable(table.data(), h, R);
      std::vector<int32_t> cols(size_t(w) * c, -1);
      qv::ColumnSumsFirstRow<int32_t, 1>(cols.data(), im.ptr(), im.Stride, w, c, table.data(), R);
      for (int i = 0; i < w * c; ++i) {
        int32_t e = 0;
        for (int k = 0; k <= 2 * R; ++k) e += im.data[size_t(table[k]) * im.Stride + i];
        ASSERT_EQ(cols[i], e) << "channels " << c << " width " << w << " sample " << i;
      }
    }
}

TEST(WindowSkeleton, FloatImageRunningSumOrder) {
  // Float images: the model follows the text step by step, with the float
  // vertical update C += a - b, the first sum by SumRowF32 (double), float
  // blocks of four in sequential order and the rest in double.
  for (int w : {1, 2, 5, 6, 9, 23}) {
    const int h = 4, R = qv::ClampWindowRadius(3, w, h);
    auto src = RandomRow<float>(size_t(w) * h, -1000.0, 1000.0, unsigned(w));
    std::vector<float> cols(qv::WindowColumnCount<float, 1>(w, R)), model(cols.size(), 0.0f);
    std::vector<int> table(qv::WindowRowTableCount(h, R));
    qv::FillRowTable(table.data(), h, R);
    std::vector<double> got(size_t(w) * h);
    qv::ForEachWindowRow<float, 1>(src.data(), w, w, h, 1, R, cols.data(), table.data(), [&](int y, const float* C) {
      // Model columns.
      float* m = model.data() + R;
      for (int x = 0; x < w; ++x) {
        if (y == 0) {
          m[x] = 0.0f;
          for (int k = 0; k <= 2 * R; ++k) m[x] = m[x] + src[size_t(table[k]) * w + x];
        } else {
          m[x] = m[x] + (src[size_t(table[y + 2 * R]) * w + x] - src[size_t(table[y - 1]) * w + x]);
        }
      }
      for (int i = 0; i < R; ++i) {
        m[-1 - i] = m[1 + i];
        m[w + i] = m[w - 2 - i];
      }
      ASSERT_EQ(0, std::memcmp(C, model.data(), sizeof(float) * (w + 2 * R))) << "columns, row " << y;
      struct Op {
        double* out;
        void Scalar(int x, double S) { out[x] = S; }
        void Vector(int x, __m128 S) {
          float l[4];
          _mm_storeu_ps(l, S);
          for (int i = 0; i < 4; ++i) out[x + i] = l[i];
        }
      } op{got.data() + size_t(y) * w};
      qv::SlideWindowRow<float>(C, w, R, op);
      const float* c = model.data();
      double S = FloatLaneSumModel(c, 2 * R + 1);
      ASSERT_EQ(got[size_t(y) * w], S);
      const int block_end = ((w - 1) / 4) * 4 + 1;
      int x = 1;
      if (block_end > 1) {
        float f = float(S);
        for (; x < block_end; ++x) {
          f = f + (c[x + 2 * R] - c[x - 1]);
          ASSERT_EQ(got[size_t(y) * w + x], double(f)) << "block pixel " << x;
        }
        S = f;
      }
      for (; x < w; ++x) {
        S += double(c[x + 2 * R]) - double(c[x - 1]);
        ASSERT_EQ(got[size_t(y) * w + x], S) << "rest pixel " << x;
      }
    });
  }
}

}  // namespace
