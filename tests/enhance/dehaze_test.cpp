// Dark-channel dehazing: each stage against a model written from its
// definition, the whole chain against a model that calls the same minimum,
// guided and gamma exports, the frame, and failures from nested calls.
#include "enhance/dehaze.h"

#include <algorithm>
#include <climits>
#include <cmath>

#include "support/support.h"

namespace {

struct Planes {
  qvt::Bytes dark, guide;
};

Planes DarkModel(const qvt::Image& im) {
  Planes p{qvt::Bytes(size_t(im.Width) * im.Height), qvt::Bytes(size_t(im.Width) * im.Height)};
  for (int y = 0; y < im.Height; ++y)
    for (int x = 0; x < im.Width; ++x) {
      const int b = im.at(x, y, 0), g = im.at(x, y, 1), r = im.at(x, y, 2);
      const int lo = std::min({b, g, r}), hi = std::max({b, g, r});
      const size_t i = size_t(y) * im.Width + x;
      p.dark[i] = static_cast<unsigned char>(lo);
      // Rounded up in blocks of 16 pixels, down in the rest of the row.
      p.guide[i] = static_cast<unsigned char>((lo + hi + (x < (im.Width & ~15) ? 1 : 0)) >> 1);
    }
  return p;
}

void LightModel(const qvt::Image& im, const qvt::Bytes& dark, int Limit, int* A) {
  int hist[256] = {};
  for (unsigned char d : dark) ++hist[d];
  const float limit = float(im.Width * im.Height) * 0.01f;
  int t = 0, total = 0;
  for (int b = 255; b >= 0; --b)
    if ((total += hist[b]) > limit) {
      t = b;
      break;
    }
  long long sum[3] = {}, count = 0;
  for (int y = 0; y < im.Height; ++y)
    for (int x = 0; x < im.Width; ++x)
      if (dark[size_t(y) * im.Width + x] >= t) {
        for (int k = 0; k < 3; ++k) sum[k] += im.at(x, y, k);
        ++count;
      }
  for (int k = 0; k < 3; ++k) A[k] = std::min(int(sum[k] / count), Limit);
}

int Clamp255(long long v) { return int(v < 0 ? 0 : (v > 255 ? 255 : v)); }

// Recovery: blocks of four pixels round to even in float ((s - A) * 255 + t A
// over t for three channels; (s - A) * 255 over t, then + A, for four), the
// rest of a row truncates in integers.
void RecoverModel(const qvt::Image& src, qvt::Image& dst, const qvt::Bytes& trans, const int* A, int t0) {
  for (int y = 0; y < src.Height; ++y)
    for (int x = 0; x < src.Width; ++x) {
      const int t = std::max<int>(trans[size_t(y) * src.Width + x], t0) & 255;
      const bool block = x < (src.Width & ~3);
      for (int k = 0; k < 3; ++k) {
        const long long s = src.at(x, y, k);
        long long v;
        if (!block)
          v = t == 0 ? 0 : (s - A[k]) * 255 / t + A[k];
        else if (src.Channel == 3)
          v = t == 0 ? 0 : (long long)std::nearbyint(double((s - A[k]) * 255 + t * A[k]) / t);
        else
          v = t == 0 ? 0 : (long long)std::nearbyint(double((s - A[k]) * 255) / t) + A[k];
        dst.at(x, y, k) = static_cast<unsigned char>(Clamp255(v));
      }
      if (src.Channel == 4) dst.at(x, y, 3) = src.at(x, y, 3);
    }
}

struct Params {
  int dark_radius, guide_radius, limit;
  float omega, min_t, gamma;
};

// The chain as described; the minimum, guided filter and gamma are the
// library's own exports, called as the operator calls them.
qvt::Image DehazeModel(const qvt::Image& src, const qvt::Image& before, const Params& p) {
  const int w = src.Width, h = src.Height;
  Planes pl = DarkModel(src);
  EXPECT_EQ(QV_MinFilter(pl.dark.data(), pl.dark.data(), w, h, w, p.dark_radius), STATUS_OK);
  int A[3];
  LightModel(src, pl.dark, p.limit, A);
  const int m = (A[0] + A[1] + A[2]) / 3;
  const long long k = (long long)(double(p.omega) * 65536.0 / m);
  for (auto& d : pl.dark) d = static_cast<unsigned char>(Clamp255(255 - ((d * k) >> 8)));
  EXPECT_EQ(QV_GuidedFilter(pl.dark.data(), pl.guide.data(), pl.dark.data(), w, h, w, p.guide_radius, 20, 20.0f),
            STATUS_OK);
  qvt::Image out = before;
  RecoverModel(src, out, pl.dark, A, int(double(p.min_t) * 255.0));
  EXPECT_EQ(QV_GammaCorrection(out.ptr(), out.ptr(), w, h, src.Stride, p.gamma), STATUS_OK);
  return out;
}

int Dehaze(const qvt::Image& src, qvt::Image& dst, const Params& p) {
  return QV_HazeRemovalBasedOnDarkChannelPrior(src.ptr(), dst.ptr(), src.Width, src.Height, src.Stride, p.dark_radius,
                                               p.guide_radius, p.limit, p.omega, p.min_t, p.gamma);
}

// A hazy picture: a bright veil over natural content, so the top percent,
// the transmission and the recovery all have something to do.
qvt::Image Hazy(int w, int h, int c, int pad, unsigned seed) {
  auto im = qvt::MakeNaturalImage(w, h, c, pad, seed);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int k = 0; k < 3; ++k) im.at(x, y, k) = static_cast<unsigned char>(120 + im.at(x, y, k) * 135 / 255);
  return im;
}

TEST(Dehaze, StageOneMatchesModel) {
  for (const auto& s : qvt::TailShapes({3, 4}, 2)) {
    const auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    const size_t n = size_t(s.Width) * s.Height;
    qvt::Bytes dark(n, 7), guide(n, 7);
    qv::DarkAndLightness(src.ptr(), dark.data(), guide.data(), s.Width, s.Height, src.Stride, s.Channel);
    const Planes p = DarkModel(src);
    ASSERT_TRUE(qvt::SameBytes(p.dark, dark, s.Width)) << qvt::ToString(s);
    ASSERT_TRUE(qvt::SameBytes(p.guide, guide, s.Width)) << qvt::ToString(s);
  }
}

TEST(Dehaze, LightnessRoundsUpInBlocksDownInTail) {
  // Width 17, every pixel (10, 21, 15): lo + hi = 31 is odd.
  auto im = qvt::MakeImage(17, 1, 3, 0, false);
  for (int x = 0; x < 17; ++x) im.at(x, 0, 0) = 10, im.at(x, 0, 1) = 21, im.at(x, 0, 2) = 15;
  qvt::Bytes dark(17), guide(17);
  qv::DarkAndLightness(im.ptr(), dark.data(), guide.data(), 17, 1, 51, 3);
  EXPECT_EQ(guide[0], 16);
  EXPECT_EQ(guide[15], 16);
  EXPECT_EQ(guide[16], 15);
  EXPECT_EQ(dark[16], 10);
}

TEST(Dehaze, AtmosphericLightFromTheTopPercent) {
  // All one gray value: one bin, A is that value.
  auto flat = qvt::MakeImage(9, 7, 3, 0, false);
  std::fill(flat.data.begin(), flat.data.end(), 93);
  qvt::Bytes dark(63, 93);
  int A[3];
  qv::AtmosphericLight(flat.ptr(), dark.data(), 9, 7, 27, 3, 255, A);
  EXPECT_EQ(A[0], 93);
  EXPECT_EQ(A[2], 93);

  // 100 x 100 with exactly 1% at 255, 50 pixels at 200 and the rest at 10.
  // 10000 * 0.01f rounds to 100.0f, so the total at bin 255 equals the limit
  // and the strict comparison walks on to bin 200 (in double the product is
  // just below 100 and the walk would stop at 255).
  auto im = qvt::MakeImage(100, 100, 4, 0);
  qvt::Bytes d(10000, 10);
  std::fill(d.begin(), d.begin() + 100, 255);
  std::fill(d.begin() + 5000, d.begin() + 5050, 200);
  qv::AtmosphericLight(im.ptr(), d.data(), 100, 100, 400, 4, 255, A);
  int expect[3];
  LightModel(im, d, 255, expect);
  long long sum = 0;
  for (int i = 0; i < 100; ++i) sum += im.data[4 * i + 1];
  for (int i = 5000; i < 5050; ++i) sum += im.data[4 * i + 1];
  EXPECT_EQ(A[1], int(sum / 150));
  for (int k = 0; k < 3; ++k) EXPECT_EQ(A[k], expect[k]);

  // A bright image against a limit of 220, a dark one under it.
  std::fill(flat.data.begin(), flat.data.end(), 250);
  std::fill(dark.begin(), dark.end(), 250);
  qv::AtmosphericLight(flat.ptr(), dark.data(), 9, 7, 27, 3, 220, A);
  EXPECT_EQ(A[0], 220);
  EXPECT_EQ(A[1], 220);
  std::fill(flat.data.begin(), flat.data.end(), 60);
  std::fill(dark.begin(), dark.end(), 60);
  qv::AtmosphericLight(flat.ptr(), dark.data(), 9, 7, 27, 3, 220, A);
  EXPECT_EQ(A[2], 60);
}

TEST(Dehaze, RawTransmissionOnEveryTail) {
  const int factors[] = {0, 1, 255, 311, 1000, 65536, -7, INT_MIN, INT_MAX};
  for (int n = 1; n <= 40; ++n)
    for (int k : factors) {
      qvt::Bytes plane(static_cast<size_t>(n));
      qvt::FillRandom(plane);
      qvt::Bytes expect(plane);
      for (auto& d : expect)
        d = static_cast<unsigned char>(Clamp255(255 - (long long)((uint32_t(d) * uint32_t(k)) >> 8)));
      qv::RawTransmission(plane.data(), plane.size(), k);
      ASSERT_TRUE(qvt::SameBytes(expect, plane)) << "n " << n << " k " << k;
    }
  const int A[3] = {200, 190, 210}, zero[3] = {0, 0, 0};
  EXPECT_EQ(qv::TransmissionFactor(A, 0.95f), int(0.95f * 65536.0 / 200));
  EXPECT_EQ(qv::TransmissionFactor(zero, 0.95f), INT_MIN);  // no fault, an indefinite factor
}

TEST(Dehaze, RecoveryMatchesModel) {
  const int lights[][3] = {{200, 190, 210}, {255, 0, 128}, {17, 250, 99}};
  for (const auto& s : qvt::TailShapes({3, 4}, 2)) {
    const auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    qvt::Bytes trans(size_t(s.Width) * s.Height);
    qvt::FillRandom(trans);
    for (const auto& A : lights)
      for (int t0 : {0, 1, 25, 300, -5}) {
        auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
        auto expect = dst;
        RecoverModel(src, expect, trans, A, t0);
        qv::RecoverHaze(src.ptr(), dst.ptr(), trans.data(), s.Width, s.Height, src.Stride, s.Channel, A, t0);
        ASSERT_TRUE(qvt::SameBytes(expect.data, dst.data, src.Stride)) << qvt::ToString(s) << " t0 " << t0;
      }
  }
}

TEST(Dehaze, RecoveryRoundingDiffersByLayoutAndPlace) {
  // s - A = 1, t = 2: 255 / 2 = 127.5 lands on a half. Five pixels: four in
  // the block, one in the tail.
  const int A[3] = {101, 101, 101};
  qvt::Bytes trans(5, 2);
  auto c3 = qvt::MakeImage(5, 1, 3, 0, false), d3 = c3;
  std::fill(c3.data.begin(), c3.data.end(), 102);
  qv::RecoverHaze(c3.ptr(), d3.ptr(), trans.data(), 5, 1, 15, 3, A, 0);
  EXPECT_EQ(d3.data[0], 228);   // 457 / 2 = 228.5, to even
  EXPECT_EQ(d3.data[12], 228);  // 127 + 101, truncated
  auto c4 = qvt::MakeImage(5, 1, 4, 0, false), d4 = c4;
  std::fill(c4.data.begin(), c4.data.end(), 102);
  qv::RecoverHaze(c4.ptr(), d4.ptr(), trans.data(), 5, 1, 20, 4, A, 0);
  EXPECT_EQ(d4.data[0], 229);  // 127.5 to 128, then + 101
  EXPECT_EQ(d4.data[3], 102);  // the fourth byte comes back
  EXPECT_EQ(d4.data[16], 228);
  // A transmission of 0 in the tail: no fault, the pixel is 0 (the block's
  // indefinite quotient clamps to 0 likewise).
  qvt::Bytes none(5, 0);
  qv::RecoverHaze(c3.ptr(), d3.ptr(), none.data(), 5, 1, 15, 3, A, 0);
  for (unsigned char v : d3.data) EXPECT_EQ(v, 0);
}

TEST(Dehaze, ChainMatchesModel) {
  const Params params[] = {
      {3, 6, 230, 0.95f, 0.1f, 0.8f}, {1, 8, 200, 0.7f, 0.05f, 1.2f}, {7, 12, 255, 1.0f, 0.3f, 1.0f}};
  int shape = 0;
  for (int c : {3, 4})
    for (int w : {1, 3, 4, 7, 16, 17, 21, 40, 67})
      for (int h : {1, 2, 9, 33}) {
        const auto src = Hazy(w, h, c, (w > 3 && h > 2) ? 2 : 0, unsigned(w * 100 + h));
        const Params& p = params[shape++ % 3];
        auto dst = qvt::MakeImage(w, h, c, src.Stride - w * c);
        const auto expect = DehazeModel(src, dst, p);
        ASSERT_EQ(Dehaze(src, dst, p), STATUS_OK) << w << "x" << h << " c" << c;
        ASSERT_TRUE(qvt::SameBytes(expect.data, dst.data, src.Stride)) << w << "x" << h << " c" << c;
        // In place, and again: the same bytes.
        auto same = src;
        ASSERT_EQ(Dehaze(same, same, p), STATUS_OK);
        for (int y = 0; y < h; ++y)
          for (int x = 0; x < w * c; ++x)
            ASSERT_EQ(same.data[size_t(y) * src.Stride + x], dst.data[size_t(y) * src.Stride + x]);
      }
}

TEST(Dehaze, WhiteImageClampsAndFourthByteIsKept) {
  auto white = qvt::MakeImage(23, 11, 3, 0, false);
  std::fill(white.data.begin(), white.data.end(), 255);
  auto dst = white;
  // A is limited to 220, the transmission falls to 0 and is held at t0 = 25:
  // (255 - 220) * 255 / 25 + 220 is far above 255.
  ASSERT_EQ(Dehaze(white, dst, {2, 4, 220, 0.95f, 0.1f, 1.0f}), STATUS_OK);
  for (unsigned char v : dst.data) ASSERT_EQ(v, 255);

  const auto src = Hazy(29, 13, 4, 0, 5);
  auto out = qvt::MakeImage(29, 13, 4);
  ASSERT_EQ(Dehaze(src, out, {2, 5, 240, 0.9f, 0.1f, 0.7f}), STATUS_OK);
  for (size_t i = 3; i < out.data.size(); i += 4) ASSERT_EQ(out.data[i], src.data[i]) << i;
}

TEST(Dehaze, FrameOrder) {
  unsigned char buf[64] = {1, 2, 3};
  const qvt::FrameCase cases[] = {
      {"gray refused before pointers", nullptr, nullptr, 4, 1, 4, STATUS_INVALID_PARAMETER},
      {"channel 0 before pointers", nullptr, buf, 4, 1, 3, STATUS_INVALID_PARAMETER},
      {"channel 2", buf, buf, 4, 1, 8, STATUS_INVALID_PARAMETER},
      {"null src before sizes", nullptr, buf, 3, 0, 9, STATUS_NULL_REFERENCE},
      {"null dest", buf, nullptr, 3, 1, 9, STATUS_NULL_REFERENCE},
      {"height 0", buf, buf, 3, 0, 9, STATUS_INVALID_PARAMETER},
      {"negative sizes", buf, buf, -3, -1, -9, STATUS_INVALID_PARAMETER},
  };
  qvt::CheckStatusTable(cases, buf, 64, [&](const auto& c) {
    return QV_HazeRemovalBasedOnDarkChannelPrior(c.src, c.dst, c.w, c.h, c.stride, 3, 6, 230, 0.95f, 0.1f, 1.0f);
  });
}

TEST(DehazeDeathTest, WidthZeroFaults) {
  unsigned char buf[16] = {};
  qvt::ExpectDivideFault([&](int w) {
    return QV_HazeRemovalBasedOnDarkChannelPrior(nullptr, buf, w, 1, 4, 3, 6, 230, 0.95f, 0.1f, 1.0f);
  });
}

TEST(Dehaze, NestedFailuresComeBackWithNothingLeaked) {
  const auto src = Hazy(37, 21, 3, 1, 3);
  auto dst = src;
  std::fill(dst.data.begin(), dst.data.end(), 77);
  const Params p{3, 6, 230, 0.95f, 0.1f, 0.8f};
  // The two planes, then the minimum filter's and the guided filter's own
  // scratch: every failure is status 2 and Dest has not been written yet.
  const int count = qvt::CheckEveryAllocationFailure(
      [&] { return Dehaze(src, dst, p); }, STATUS_OUT_OF_MEMORY,
      [&] { EXPECT_TRUE(std::all_of(dst.data.begin(), dst.data.end(), [](unsigned char v) { return v == 77; })); });
  EXPECT_GT(count, 2);  // nested allocations were reached and failed too
  // A refusal by the guided filter (radius 0) is passed up, planes freed.
  std::fill(dst.data.begin(), dst.data.end(), 77);
  qvt::AllocHook hook;
  EXPECT_EQ(Dehaze(src, dst, {3, 0, 230, 0.95f, 0.1f, 0.8f}), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(hook.Live(), 0);
  // So is its refusal of a radius of 4 on a 20% grid (a box radius of 0.8),
  // once the image is large enough for the grid to be reduced at all.
  const auto big = Hazy(60, 40, 3, 0, 4);
  auto out = big;
  EXPECT_EQ(Dehaze(big, out, {3, 4, 230, 0.95f, 0.1f, 0.8f}), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(Dehaze(big, out, {3, 5, 230, 0.95f, 0.1f, 0.8f}), STATUS_OK);
  EXPECT_EQ(hook.Live(), 0);
  EXPECT_TRUE(std::all_of(dst.data.begin(), dst.data.end(), [](unsigned char v) { return v == 77; }));
}

}  // namespace
