// Pyramid kernels against plain models of the row and column stages (bytes
// exact, floats in the same order of operations), the stated edge values,
// the level bookkeeping, the two exports and their failure paths.
#include "pyramid/kernels.h"

#include <cmath>
#include <csignal>

#include "frame/border.h"
#include "support/support.h"

namespace {

using qv::PyramidLevel;
using qv::Reflect101Index;

// A level held by the test: Stride elements a row, any element type.
template <typename T>
struct Level {
  int Width = 0, Height = 0, Stride = 0;
  std::vector<T> data;
  PyramidLevel rec() { return PyramidLevel{Width, Height, Stride, data.data(), 0}; }
  T& at(int i, int y) { return data[size_t(y) * Stride + i]; }
  T at(int i, int y) const { return data[size_t(y) * Stride + i]; }
};

template <typename T>
Level<T> MakeLevel(int w, int h, int c, int pad, unsigned seed) {
  Level<T> l;
  l.Width = w, l.Height = h, l.Stride = w * c + pad;
  l.data.resize(size_t(l.Stride) * h);
  std::mt19937 rng(seed);
  for (auto& v : l.data) v = T(rng() % 256);
  return l;
}

// ---- models, written from the definition ---------------------------------------

// Row stage of reduce at scale 16; Acc int or float, terms left to right.
template <typename Acc, typename T>
std::vector<Acc> ModelReduceRow(const T* s, int sw, int C) {
  const int dw = (sw + 1) >> 1;
  std::vector<Acc> d(size_t(dw) * C);
  for (int ch = 0; ch < C; ++ch) {
    auto S = [&](int p) { return Acc(s[p * C + ch]); };
    for (int j = 0; j < dw; ++j) {
      Acc v;
      if (j == 0) {
        v = Acc(6) * S(0) + Acc(8) * S(sw > 1 ? 1 : 0) + Acc(2) * S(Reflect101Index(sw, 2));
      } else if (j == dw - 1) {
        v = Acc(4) * S(Reflect101Index(sw, 2 * dw - 1)) + Acc(4) * S(2 * dw - 3) + Acc(6) * S(2 * dw - 2) +
            Acc(2) * S(Reflect101Index(sw, 2 * dw));
      } else {
        const int c = 2 * j;
        v = S(c - 2) + Acc(4) * S(c - 1) + Acc(6) * S(c) + Acc(4) * S(c + 1) + S(c + 2);
      }
      d[size_t(j) * C + ch] = v;
    }
  }
  return d;
}

template <typename T>
Level<T> ModelReduce(const Level<T>& src, int C) {
  using Acc = typename std::conditional<std::is_same<T, float>::value, float, int>::type;
  Level<T> out;
  out.Width = (src.Width + 1) >> 1, out.Height = (src.Height + 1) >> 1;
  out.Stride = out.Width * C;
  out.data.resize(size_t(out.Stride) * out.Height);
  for (int j = 0; j < out.Height; ++j) {
    std::vector<Acc> b[5];
    for (int k = 0; k < 5; ++k)
      b[k] =
          ModelReduceRow<Acc>(&src.data[size_t(Reflect101Index(src.Height, 2 * j - 2 + k)) * src.Stride], src.Width, C);
    for (int i = 0; i < out.Stride; ++i) {
      const Acc s = b[0][i] + b[4][i] + Acc(4) * (b[1][i] + b[3][i]) + Acc(6) * b[2][i];
      if constexpr (std::is_same<T, float>::value)
        out.at(i, j) = s * 0.00390625f;
      else
        out.at(i, j) = T((s + 128) >> 8);
    }
  }
  return out;
}

template <typename Acc, typename T>
std::vector<Acc> ModelExpandRow(const T* s, int cw, int fw, int C) {
  std::vector<Acc> d(size_t(fw) * C);
  for (int ch = 0; ch < C; ++ch) {
    auto S = [&](int p) { return Acc(s[p * C + ch]); };
    const int l = cw - 1;
    for (int x = 0; x < fw; ++x) {
      Acc v;
      if (fw > 2 && x == fw - 1) {
        v = (fw & 1) ? Acc(2) * (Acc(3) * S(l) + S(l - 1)) : Acc(8) * S(l);
      } else if (fw > 2 && x == fw - 2) {
        v = (fw & 1) ? Acc(4) * (S(l) + S(l - 1)) : Acc(2) * (Acc(3) * S(l) + S(l - 1));
      } else if (x == 0) {
        v = Acc(2) * (Acc(3) * S(0) + S(Reflect101Index(cw, 1)));
      } else if (x == 1) {
        v = Acc(4) * (S(0) + S(Reflect101Index(cw, 1)));
      } else if (x & 1) {
        v = Acc(4) * (S(x >> 1) + S((x >> 1) + 1));
      } else {
        v = S((x >> 1) - 1) + Acc(6) * S(x >> 1) + S((x >> 1) + 1);
      }
      d[size_t(x) * C + ch] = v;
    }
  }
  return d;
}

// The expanded value of every fine sample (bytes already rounded).
template <typename T>
Level<T> ModelExpand(const Level<T>& coarse, int fw, int fh, int C) {
  using Acc = typename std::conditional<std::is_same<T, float>::value, float, int>::type;
  Level<T> out;
  out.Width = fw, out.Height = fh, out.Stride = fw * C;
  out.data.resize(size_t(out.Stride) * fh);
  for (int y = 0; y < fh; ++y) {
    const int j = y >> 1;
    std::vector<Acc> r[3];
    for (int k = 0; k < 3; ++k)
      r[k] = ModelExpandRow<Acc>(&coarse.data[size_t(Reflect101Index(coarse.Height, j - 1 + k)) * coarse.Stride],
                                 coarse.Width, fw, C);
    for (int i = 0; i < out.Stride; ++i) {
      if constexpr (std::is_same<T, float>::value)
        out.at(i, y) = (y & 1) ? (r[1][i] + r[2][i]) * 0.0625f : (r[0][i] + 6.0f * r[1][i] + r[2][i]) * 0.015625f;
      else
        out.at(i, y) = T((y & 1) ? (r[1][i] + r[2][i] + 8) >> 4 : (r[0][i] + 6 * r[1][i] + r[2][i] + 32) >> 6);
    }
  }
  return out;
}

int Clamp(int v) { return v < 0 ? 0 : v > 255 ? 255 : v; }

// ---- byte reduce and expand over every size ----------------------------------------

TEST(PyramidKernels, ReduceMatchesModelOnEverySize) {
  for (int c : {1, 3, 4})
    for (int w = 1; w <= 40; ++w)
      for (int h = 1; h <= 40; ++h) {
        auto src = MakeLevel<uint8_t>(w, h, c, w % 3, w * 41 + h);
        Level<uint8_t> dst = MakeLevel<uint8_t>((w + 1) >> 1, (h + 1) >> 1, c, 1, 9);
        auto s = src.rec(), d = dst.rec();
        ASSERT_EQ(qv::PyrReduceU8(&s, &d, c), STATUS_OK);
        const auto expect = ModelReduce(src, c);
        for (int y = 0; y < d.Height; ++y)
          for (int i = 0; i < d.Width * c; ++i)
            ASSERT_EQ(dst.at(i, y), expect.at(i, y))
                << "w=" << w << " h=" << h << " c=" << c << " i=" << i << " y=" << y;
        ASSERT_EQ(dst.at(d.Width * c, 0), MakeLevel<uint8_t>(d.Width, d.Height, c, 1, 9).at(d.Width * c, 0));
      }
}

TEST(PyramidKernels, LargeOddAndEvenSizesMatchModel) {
  for (int c : {1, 3, 4})
    for (int w : {127, 200, 333}) {
      auto src = MakeLevel<uint8_t>(w, 9, c, 0, w);
      auto dst = MakeLevel<uint8_t>((w + 1) >> 1, 5, c, 0, 1);
      auto s = src.rec(), d = dst.rec();
      ASSERT_EQ(qv::PyrReduceU8(&s, &d, c), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(ModelReduce(src, c).data, dst.data)) << w << " c=" << c;
      for (int fw : {2 * dst.Width, 2 * dst.Width - 1}) {
        auto fine = MakeLevel<uint8_t>(fw, 9, c, 0, 3);
        auto f = fine.rec();
        ASSERT_EQ(qv::PyrExpandU8(&d, &f, c), STATUS_OK);
        ASSERT_TRUE(qvt::SameBytes(ModelExpand(dst, fw, 9, c).data, fine.data)) << fw << " c=" << c;
      }
    }
}

// Every coarse size 1..20 into both fine sizes per axis, the five byte forms.
TEST(PyramidKernels, ExpandFormsMatchModelOnEverySize) {
  for (int c : {1, 3, 4})
    for (int cw = 1; cw <= 20; ++cw)
      for (int chh : {1, 2, 3, 5, 8})
        for (int fw : {2 * cw - 1, 2 * cw})
          for (int fh : {2 * chh - 1, 2 * chh}) {
            const std::string at = "cw=" + std::to_string(cw) + " ch=" + std::to_string(chh) +
                                   " fw=" + std::to_string(fw) + " fh=" + std::to_string(fh) +
                                   " c=" + std::to_string(c);
            auto coarse = MakeLevel<uint8_t>(cw, chh, c, cw % 2, cw * 7 + chh);
            auto fine = MakeLevel<uint8_t>(fw, fh, c, 2, fw + fh);
            auto lvl16 = MakeLevel<int16_t>(fw, fh, c, 1, 5);
            for (auto& v : lvl16.data) v = int16_t(v * 3 - 380);  // -380 .. 385
            const auto e = ModelExpand(coarse, fw, fh, c);
            auto cr = coarse.rec(), fr = fine.rec(), lr = lvl16.rec();

            auto out8 = MakeLevel<uint8_t>(fw, fh, c, 3, 11);
            auto o8 = out8.rec();
            ASSERT_EQ(qv::PyrExpandU8(&cr, &o8, c), STATUS_OK) << at;
            auto out16 = MakeLevel<int16_t>(fw, fh, c, 0, 12);
            auto o16 = out16.rec();
            ASSERT_EQ(qv::PyrExpandSubtractI16(&cr, &fr, &o16, c), STATUS_OK) << at;
            auto outAdd = MakeLevel<uint8_t>(fw, fh, c, 0, 13);
            auto oa = outAdd.rec();
            ASSERT_EQ(qv::PyrExpandAddI16(&cr, &lr, &oa, c), STATUS_OK) << at;
            auto outSb = MakeLevel<uint8_t>(fw, fh, c, 0, 14);
            auto osb = outSb.rec();
            ASSERT_EQ(qv::PyrExpandSubtractBiased(&cr, &fr, &osb, c), STATUS_OK) << at;
            // The biased add in place on a copy of the fine level.
            auto inplace = fine;
            auto ip = inplace.rec();
            ASSERT_EQ(qv::PyrExpandAddBiased(&cr, &ip, &ip, c), STATUS_OK) << at;
            for (int y = 0; y < fh; ++y)
              for (int i = 0; i < fw * c; ++i) {
                const int ev = e.at(i, y);
                ASSERT_EQ(out8.at(i, y), ev) << at << " i=" << i << " y=" << y;
                ASSERT_EQ(out16.at(i, y), fine.at(i, y) - ev) << at;
                ASSERT_EQ(outAdd.at(i, y), Clamp(ev + lvl16.at(i, y))) << at;
                ASSERT_EQ(outSb.at(i, y), Clamp(fine.at(i, y) - ev + 127)) << at;
                ASSERT_EQ(inplace.at(i, y), Clamp(ev + fine.at(i, y) - 127)) << at;
              }
            // Padding of the outputs is left alone.
            ASSERT_EQ(out8.at(fw * c, 0), MakeLevel<uint8_t>(fw, fh, c, 3, 11).at(fw * c, 0));
          }
}

TEST(PyramidKernels, FloatFormsMatchModel) {
  for (int c : {1, 3, 4})
    for (int w = 1; w <= 21; ++w)
      for (int h : {1, 2, 3, 6, 7}) {
        auto src = MakeLevel<float>(w, h, c, 1, w * 3 + h);
        for (auto& v : src.data) v = v * 0.37f - 20.0f;
        Level<float> red = MakeLevel<float>((w + 1) >> 1, (h + 1) >> 1, c, 0, 1);
        auto s = src.rec(), r = red.rec();
        ASSERT_EQ(qv::PyrReduceF32(&s, &r, c), STATUS_OK);
        const auto er = ModelReduce(src, c);
        ASSERT_EQ(red.data, er.data) << w << "x" << h << " c=" << c;
        // Back up: fine - expanded, then expanded + that gives both forms.
        const auto ee = ModelExpand(red, w, h, c);
        auto lap = MakeLevel<float>(w, h, c, 0, 2);
        auto lr = lap.rec();
        ASSERT_EQ(qv::PyrExpandSubtractF32(&r, &s, &lr, c), STATUS_OK);
        auto sum = MakeLevel<float>(w, h, c, 0, 3);
        auto sr = sum.rec();
        ASSERT_EQ(qv::PyrExpandAddF32(&r, &lr, &sr, c), STATUS_OK);
        for (int y = 0; y < h; ++y)
          for (int i = 0; i < w * c; ++i) {
            ASSERT_EQ(lap.at(i, y), src.at(i, y) - ee.at(i, y)) << w << "x" << h << " c=" << c;
            ASSERT_EQ(sum.at(i, y), ee.at(i, y) + lap.at(i, y));
          }
      }
}

// ---- stated values --------------------------------------------------------------------

TEST(PyramidKernels, ConstantStaysConstant) {
  for (int v : {0, 1, 127, 200, 255}) {
    Level<uint8_t> src = MakeLevel<uint8_t>(37, 11, 3, 0, 1);
    std::fill(src.data.begin(), src.data.end(), uint8_t(v));
    auto dst = MakeLevel<uint8_t>(19, 6, 3, 0, 1);
    auto s = src.rec(), d = dst.rec();
    ASSERT_EQ(qv::PyrReduceU8(&s, &d, 3), STATUS_OK);
    for (auto b : dst.data) ASSERT_EQ(b, v);
    auto up = MakeLevel<uint8_t>(38, 12, 3, 0, 1);
    auto u = up.rec();
    ASSERT_EQ(qv::PyrExpandU8(&d, &u, 3), STATUS_OK);
    for (auto b : up.data) ASSERT_EQ(b, v);
  }
}

TEST(PyramidKernels, EvenRowReduceIsAsymmetricAtItsRightEdge) {
  // A symmetric row of 7 reduces to a symmetric row; the 8-column row that
  // mirrors it does not, since its last output drops the s[c-2] tap.
  uint16_t out7[16], out8[16];
  const uint8_t r7[7] = {10, 50, 90, 200, 90, 50, 10};
  const uint8_t r8[8] = {10, 50, 90, 200, 200, 90, 50, 10};
  qv::PyrReduceRowU8(r7, out7, 7, 1);
  qv::PyrReduceRowU8(r8, out8, 8, 1);
  EXPECT_EQ(out7[0], out7[3]);
  EXPECT_EQ(out7[1], out7[2]);
  EXPECT_EQ(out7[3], 2 * 90 + 8 * 50 + 6 * 10);  // mirrored kernel at an odd edge
  EXPECT_EQ(out8[3], 4 * 10 + 4 * 90 + 8 * 50);  // 4 s[7] + 4 s[5] + 8 s[6]
  EXPECT_EQ(out8[0], 6 * 10 + 8 * 50 + 2 * 90);
  EXPECT_NE(out8[0], out8[3]);
}

TEST(PyramidKernels, ExpandOfThreeColumnsIntoFiveAndSix) {
  const uint8_t s[3] = {8, 40, 100};
  uint16_t five[16], six[16];
  qv::PyrExpandRowU8(s, five, 3, 5, 1);
  qv::PyrExpandRowU8(s, six, 3, 6, 1);
  const uint16_t e5[5] = {2 * (3 * 8 + 40), 4 * (8 + 40), 8 + 6 * 40 + 100, 4 * (40 + 100), 2 * (3 * 100 + 40)};
  const uint16_t e6[6] = {2 * (3 * 8 + 40), 4 * (8 + 40),       8 + 6 * 40 + 100,
                          4 * (40 + 100),   2 * (3 * 100 + 40), 8 * 100};
  for (int i = 0; i < 5; ++i) EXPECT_EQ(five[i], e5[i]) << i;
  for (int i = 0; i < 6; ++i) EXPECT_EQ(six[i], e6[i]) << i;
}

TEST(PyramidKernels, OneRowCoarseLevelExpandsRowStageOverEight) {
  auto coarse = MakeLevel<uint8_t>(9, 1, 1, 0, 4);
  auto fine = MakeLevel<uint8_t>(18, 2, 1, 0, 4);
  auto cr = coarse.rec(), fr = fine.rec();
  ASSERT_EQ(qv::PyrExpandU8(&cr, &fr, 1), STATUS_OK);
  uint16_t row[32];
  qv::PyrExpandRowU8(coarse.data.data(), row, 9, 18, 1);
  for (int x = 0; x < 18; ++x) {
    EXPECT_EQ(fine.at(x, 0), (8 * row[x] + 32) >> 6);
    EXPECT_EQ(fine.at(x, 1), (2 * row[x] + 8) >> 4);
    EXPECT_EQ(fine.at(x, 0), fine.at(x, 1));
  }
}

TEST(PyramidKernels, OnePixelRowReadsItsOwnSampleForTheMissingOne) {
  const uint8_t s[4] = {77, 1, 2, 3};
  uint16_t out[16];
  qv::PyrReduceRowU8(s, out, 1, 1);
  EXPECT_EQ(out[0], 16 * 77);
  qv::PyrReduceRowU8(s, out, 1, 4);
  for (int c = 0; c < 4; ++c) EXPECT_EQ(out[c], 16 * s[c]);
}

// ---- bookkeeping -------------------------------------------------------------------------

TEST(PyramidLevels, MaxLevelStatedValues) {
  EXPECT_EQ(QV_GetMaxPyramidLevel(1, 1, 1), 1);
  EXPECT_EQ(QV_GetMaxPyramidLevel(640, 480, 16), 5);
  EXPECT_EQ(QV_GetMaxPyramidLevel(15, 100, 16), 0);
  EXPECT_EQ(QV_GetMaxPyramidLevel(0, 100, 1), 0);
  EXPECT_EQ(QV_GetMaxPyramidLevel(100, 100, 0), 0);
  EXPECT_EQ(QV_GetMaxPyramidLevel(1024, 1024, 1), 11);
  EXPECT_EQ(QV_GetMaxPyramidLevel(3, 1000, 1), 2);
}

TEST(PyramidLevels, AllocSizesStridesAndFrame) {
  PyramidLevel L[4];
  ASSERT_EQ(qv::PyramidAlloc(L, 13, 7, 39 + 2, 4, true, 2), STATUS_OK);
  const int w[4] = {13, 7, 4, 2}, h[4] = {7, 4, 2, 1}, st[4] = {40, 24, 12, 8};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(L[i].Width, w[i]);
    EXPECT_EQ(L[i].Height, h[i]);
    EXPECT_EQ(L[i].Stride, st[i]) << "level 0 too takes the rounded stride, not 41";
    EXPECT_EQ(L[i].Reserved, 0);
    EXPECT_EQ(L[i].Data == nullptr, i == 0);
  }
  qv::PyramidFree(L, 4, true);
  EXPECT_EQ(L[2].Data, nullptr);
  int ow, oh;
  qv::PyramidLevelSize(13, 7, 3, &ow, &oh);
  EXPECT_EQ(ow, 2);
  EXPECT_EQ(oh, 1);

  struct Case {
    PyramidLevel* levels;
    int w, h, stride, count, expect;
  } cases[] = {
      {nullptr, 4, 0, 4, 1, STATUS_NULL_REFERENCE}, {L, 4, 0, 4, 1, STATUS_INVALID_PARAMETER},
      {L, 4, 4, 4, 0, STATUS_INVALID_PARAMETER},    {L, 4, 4, 8, 1, STATUS_NOT_SUPPORTED},
      {L, 4, 0, 8, 1, STATUS_INVALID_PARAMETER},
  };
  for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i)
    EXPECT_EQ(qv::PyramidAlloc(cases[i].levels, cases[i].w, cases[i].h, cases[i].stride, cases[i].count, false, 1),
              cases[i].expect)
        << i;
  qvt::CheckEveryAllocationFailure([&] {
    int s = qv::PyramidAlloc(L, 40, 30, 120, 4, false, 4);
    if (s == STATUS_OK) qv::PyramidFreeAll(L, 4);
    return s;
  });
}

TEST(PyramidKernels, StatusTables) {
  auto a = MakeLevel<uint8_t>(8, 8, 1, 0, 1), b = MakeLevel<uint8_t>(4, 4, 1, 0, 1);
  auto c5 = MakeLevel<uint8_t>(5, 4, 1, 0, 1), f = MakeLevel<uint8_t>(7, 8, 1, 0, 1);
  auto ar = a.rec(), br = b.rec(), c5r = c5.rec(), fr = f.rec();
  PyramidLevel nodata = br;
  nodata.Data = nullptr;
  const auto before = b.data;
  EXPECT_EQ(qv::PyrReduceU8(nullptr, &br, 1), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::PyrReduceU8(&ar, &nodata, 1), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::PyrReduceU8(&ar, &c5r, 2), STATUS_NOT_SUPPORTED);  // Channel before sizes
  EXPECT_EQ(qv::PyrReduceU8(&ar, &c5r, 1), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::PyrExpandU8(&br, &c5r, 1), STATUS_INVALID_PARAMETER);  // 5 is neither 8 nor 7
  EXPECT_EQ(qv::PyrExpandU8(&br, &fr, 1), STATUS_OK);                  // 7 by 8 fits 4 by 4
  EXPECT_EQ(qv::PyrExpandU8(&br, &fr, 0), STATUS_NOT_SUPPORTED);
  EXPECT_EQ(qv::PyrExpandSubtractBiased(&br, &ar, &fr, 1), STATUS_INVALID_PARAMETER);  // fine and out differ
  EXPECT_EQ(qv::PyrExpandAddBiased(&br, nullptr, &ar, 1), STATUS_NULL_REFERENCE);
  EXPECT_EQ(b.data, before);
}

TEST(PyramidKernels, RowBufferFailures) {
  auto a = MakeLevel<uint8_t>(30, 20, 3, 0, 1), b = MakeLevel<uint8_t>(15, 10, 3, 0, 1);
  auto ar = a.rec(), br = b.rec();
  const auto keep = b.data;
  EXPECT_EQ(qvt::CheckEveryAllocationFailure([&] { return qv::PyrReduceU8(&ar, &br, 3); }, STATUS_OUT_OF_MEMORY,
                                             [&] { EXPECT_EQ(b.data, keep); }),
            1);
  EXPECT_EQ(qvt::CheckEveryAllocationFailure([&] { return qv::PyrExpandSubtractBiased(&br, &ar, &ar, 3); }), 1);
  PyramidLevel L[3];
  EXPECT_EQ(qvt::CheckEveryAllocationFailure([&] {
              int s = qv::BuildGaussPyramidU8(a.data.data(), L, 30, 20, 90, 3);
              if (s == STATUS_OK) qv::PyramidFree(L, 3, true);
              return s;
            }),
            4);
}

// ---- builders and conversions ------------------------------------------------------------

TEST(PyramidBuild, GaussLevelsAreSuccessiveReductions) {
  auto src = MakeLevel<uint8_t>(45, 23, 3, 2, 8);
  PyramidLevel L[4];
  ASSERT_EQ(qv::BuildGaussPyramidU8(src.data.data(), L, 45, 23, src.Stride, 4), STATUS_OK);
  EXPECT_EQ(L[0].Data, src.data.data());
  EXPECT_EQ(L[0].Stride, src.Stride);  // the true pitch for the borrowed level
  Level<uint8_t> prev = src;
  for (int i = 1; i < 4; ++i) {
    const auto e = ModelReduce(prev, 3);
    for (int y = 0; y < L[i].Height; ++y)
      for (int x = 0; x < L[i].Width * 3; ++x)
        ASSERT_EQ(static_cast<uint8_t*>(L[i].Data)[y * L[i].Stride + x], e.at(x, y)) << i;
    prev = e;
  }
  qv::PyramidFree(L, 4, true);
}

TEST(PyramidBuild, Conversions) {
  for (int n = 1; n <= 40; ++n) {
    std::vector<float> f(n);
    for (int i = 0; i < n; ++i) f[i] = -3.0f + i * 7.3f - (i % 3 == 0 ? 0.5f : 0.0f);
    f[0] = 2.5f;
    std::vector<uint8_t> out(n);
    ASSERT_EQ(qv::FloatsToBytes(f.data(), out.data(), n), STATUS_OK);
    const int body = n & ~15;
    for (int i = 0; i < n; ++i) {
      // Body truncates; tail adds 0.4999999 first.
      const float v = i < body ? f[i] : f[i] + 0.4999999f;
      const int t = v >= 255.0f ? 255 : v <= 0.0f ? 0 : int(v);
      ASSERT_EQ(out[i], t) << "n=" << n << " i=" << i;
    }
    std::vector<int16_t> s16(n);
    for (int i = 0; i < n; ++i) s16[i] = int16_t(i * 23 - 100);
    ASSERT_EQ(qv::I16ToBytes(s16.data(), out.data(), n), STATUS_OK);
    for (int i = 0; i < n; ++i) ASSERT_EQ(out[i], Clamp(s16[i]));
    ASSERT_EQ(qv::BytesToI16(out.data(), s16.data(), n), STATUS_OK);
    ASSERT_EQ(qv::BytesToFloats(out.data(), f.data(), n), STATUS_OK);
    for (int i = 0; i < n; ++i) ASSERT_TRUE(s16[i] == out[i] && f[i] == out[i]);
  }
  // 2.5 truncates in the body and rounds in the tail.
  std::vector<float> h(17, 2.5f);
  std::vector<uint8_t> o(17);
  qv::FloatsToBytes(h.data(), o.data(), 17);
  EXPECT_EQ(o[0], 2);
  EXPECT_EQ(o[16], 3);
  EXPECT_EQ(qv::FloatsToBytes(nullptr, o.data(), 1), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::BytesToI16(o.data(), nullptr, 1), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::I16ToBytes(nullptr, o.data(), 0), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::BytesToFloats(o.data(), h.data(), 0), STATUS_INVALID_PARAMETER);
}

// ---- LaplacePyramidTest --------------------------------------------------------------------

// The whole experiment from its steps, on the models above.
qvt::Bytes ModelLaplaceTest(const qvt::Image& im, int Levels) {
  const int C = im.Stride / im.Width;
  int n = QV_GetMaxPyramidLevel(im.Width, im.Height, 1);
  if (Levels > n) Levels = n;
  std::vector<Level<float>> g(Levels), lap(Levels);
  g[0].Width = im.Width, g[0].Height = im.Height, g[0].Stride = im.Stride;
  for (auto b : im.data) g[0].data.push_back(float(b));
  for (int i = 1; i < Levels; ++i) g[i] = ModelReduce(g[i - 1], C);
  for (int i = 0; i < Levels; ++i) {
    // Laplace levels use the rounded stride, padding zero.
    lap[i].Width = g[i].Width, lap[i].Height = g[i].Height;
    lap[i].Stride = ((g[i].Width * C * 8 + 31) / 32) * 4;
    lap[i].data.assign(size_t(lap[i].Stride) * lap[i].Height, 0.0f);
    const Level<float> e = i + 1 < Levels ? ModelExpand(g[i + 1], g[i].Width, g[i].Height, C) : g[i];
    for (int y = 0; y < g[i].Height; ++y)
      for (int x = 0; x < g[i].Width * C; ++x)
        lap[i].at(x, y) = i + 1 < Levels ? g[i].at(x, y) - e.at(x, y) : g[i].at(x, y);
  }
  for (int l = Levels - 2; l >= 0; --l)
    for (int y = 0; y < lap[l].Height; ++y)
      for (size_t i = size_t(y) * lap[l].Stride;
           i < std::min(size_t(y) * lap[l].Stride + 3 * size_t(lap[l].Width), lap[l].data.size()); ++i) {
        const float x = lap[l].data[i] + 1e-05f;
        lap[l].data[i] = float((x * 4.0f / std::fabs(x)) * std::pow(double(std::fabs(x)), 0.6));
      }
  for (int l = Levels - 2; l >= 0; --l) {
    const auto e = ModelExpand(g[l + 1], g[l].Width, g[l].Height, C);
    for (int y = 0; y < g[l].Height; ++y)
      for (int x = 0; x < g[l].Width * C; ++x) g[l].at(x, y) = e.at(x, y) + lap[l].at(x, y);
  }
  qvt::Bytes out(g[0].data.size());
  const size_t body = out.size() & ~size_t(15);
  for (size_t i = 0; i < out.size(); ++i) {
    const float v = i < body ? g[0].data[i] : g[0].data[i] + 0.4999999f;
    out[i] = uint8_t(std::isnan(v) || v <= 0 ? 0 : v >= 255 ? 255 : int(v));
  }
  return out;
}

TEST(LaplacePyramidTest, MatchesModel) {
  for (int c : {1, 3, 4})
    for (auto wh : {std::pair<int, int>{1, 1}, {5, 3}, {17, 9}, {24, 31}, {40, 40}})
      for (int levels : {1, 2, 3, 9}) {
        auto im = qvt::MakeNaturalImage(wh.first, wh.second, c, wh.first > 4 ? 2 : 0);
        auto out = qvt::MakeImage(wh.first, wh.second, c, wh.first > 4 ? 2 : 0);
        ASSERT_EQ(LaplacePyramidTest(im.ptr(), out.ptr(), im.Width, im.Height, im.Stride, levels), STATUS_OK);
        ASSERT_TRUE(qvt::SameBytes(ModelLaplaceTest(im, levels), out.data, im.Stride))
            << wh.first << "x" << wh.second << " c=" << c << " levels=" << levels;
      }
}

TEST(LaplacePyramidTest, OneLevelIsIdentityAndStatuses) {
  auto im = qvt::MakeImage(19, 7, 3, 2);
  auto out = qvt::MakeImage(19, 7, 3, 2);
  ASSERT_EQ(LaplacePyramidTest(im.ptr(), out.ptr(), 19, 7, im.Stride, 1), STATUS_OK);
  EXPECT_TRUE(qvt::SameBytes(im.data, out.data));
  const auto keep = out.data;
  EXPECT_EQ(LaplacePyramidTest(im.ptr(), out.ptr(), 19, 0, im.Stride, 3), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(LaplacePyramidTest(im.ptr(), out.ptr(), 19, 7, im.Stride, 0), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(LaplacePyramidTest(im.ptr(), out.ptr(), 19, 7, 38, 3), STATUS_NOT_SUPPORTED);
  EXPECT_EQ(LaplacePyramidTest(nullptr, out.ptr(), 19, 7, im.Stride, 3), STATUS_NULL_REFERENCE);
  EXPECT_EQ(out.data, keep);
  qvt::CheckEveryAllocationFailure([&] { return LaplacePyramidTest(im.ptr(), out.ptr(), 19, 7, im.Stride, 3); },
                                   STATUS_OUT_OF_MEMORY);
}

TEST(LaplacePyramidTestDeathTest, ZeroWidthFaults) {
  unsigned char buf[16] = {};
  volatile int w = 0;
  EXPECT_EXIT(LaplacePyramidTest(buf, buf, w, 1, 4, 1), ::testing::KilledBySignal(SIGFPE), "");
}

}  // namespace
