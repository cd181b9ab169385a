// Canny against a plain model of its steps (gradients, magnitude, scaled
// thresholds, suppression by sectors or interpolation, both trackings, final
// pass) for every flag combination, plus its guarded frame.
#include <cmath>
#include <cstdint>

#include "support/support.h"

namespace {

struct Flags {
  int low, high;
  unsigned char l2, interp, track;
};

qvt::Bytes CannyModel(const qvt::Image& im, const Flags& f) {
  const int W = im.Width, H = im.Height, S = im.Stride;
  auto px = [&](int x, int y) {
    x = x < 0 ? 0 : x >= W ? W - 1 : x;
    y = y < 0 ? 0 : y >= H ? H - 1 : y;
    return int(im.data[size_t(y) * S + x]);
  };
  const bool interp = f.interp == 1;
  std::vector<int> gx(size_t(W) * H), gy(gx.size()), mag(gx.size());
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) {
      const int X =
          2 * (px(x + 1, y) - px(x - 1, y)) + px(x + 1, y - 1) - px(x - 1, y - 1) + px(x + 1, y + 1) - px(x - 1, y + 1);
      const int Y =
          2 * (px(x, y - 1) - px(x, y + 1)) + px(x - 1, y - 1) + px(x + 1, y - 1) - px(x - 1, y + 1) - px(x + 1, y + 1);
      const size_t i = size_t(y) * W + x;
      gx[i] = X, gy[i] = Y;
      const int s = X * X + Y * Y;
      if (!f.l2) {
        mag[i] = std::abs(X) + std::abs(Y);
      } else if (!interp) {
        mag[i] = s > 65535 ? 65535 : s;
      } else {
        const int32_t shifted = int32_t(uint32_t(s) << 12);  // wraps past 2^19
        const double r = x < (W & ~15) ? double(std::sqrt(float(shifted))) : std::sqrt(double(shifted));
        mag[i] = std::isnan(r) ? 0 : int(r);
      }
    }
  auto scale = [&](int t) {
    const uint32_t u = uint32_t(t);
    return f.l2 ? int32_t(interp ? u << 21 : u * u) : int32_t(interp ? u << 15 : u);
  };
  const int32_t low = scale(f.low), high = scale(f.high);
  auto m = [&](int x, int y) {
    x = x < 0 ? 0 : x >= W ? W - 1 : x;
    y = y < 0 ? 0 : y >= H ? H - 1 : y;
    return mag[size_t(y) * W + x];
  };
  std::vector<int> lab(size_t(W) * H, 0);
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) {
      const size_t i = size_t(y) * W + x;
      const int v = mag[i], X = gx[i], Y = gy[i], ax = std::abs(X), ay = std::abs(Y);
      bool keep;
      int64_t cmp = v;
      if (interp) {
        cmp = int64_t(v) * 32768;
        if (cmp <= low) continue;
        if (ax == 0 && ay == 0) continue;  // no direction: not a maximum
        int w, n1, n2, f1, f2;
        const bool neg = int64_t(X) * Y < 0;
        if (ay <= ax) {
          w = (ay << 15) / ax, n1 = m(x + 1, y), n2 = m(x - 1, y);
          f1 = neg ? m(x + 1, y + 1) : m(x + 1, y - 1);
          f2 = neg ? m(x - 1, y - 1) : m(x - 1, y + 1);
        } else {
          w = (ax << 15) / ay, n1 = m(x, y - 1), n2 = m(x, y + 1);
          f1 = neg ? m(x - 1, y - 1) : m(x + 1, y - 1);
          f2 = neg ? m(x + 1, y + 1) : m(x - 1, y + 1);
        }
        keep = cmp > int64_t(f1) * w + int64_t(n1) * (32768 - w) && cmp >= int64_t(f2) * w + int64_t(n2) * (32768 - w);
      } else {
        if (v <= low) continue;
        if (ay * 32768 < ax * 13573) {
          keep = v > m(x - 1, y) && v >= m(x + 1, y);
        } else if (ay * 32768 > ax * 65536 + ax * 13573) {
          keep = v > m(x, y - 1) && v >= m(x, y + 1);
        } else {
          const int d = (X < 0) == (Y < 0) ? 1 : -1;
          keep = v > m(x + d, y - 1) && v >= m(x - d, y + 1);
        }
      }
      if (keep) lab[i] = cmp > high ? 255 : 127;
    }
  auto strongNeighbour = [&](const std::vector<int>& L, int x, int y) {
    for (int dy = -1; dy <= 1; ++dy)
      for (int dx = -1; dx <= 1; ++dx) {
        const int nx = x + dx, ny = y + dy;
        if ((dx || dy) && nx >= 0 && ny >= 0 && nx < W && ny < H && L[size_t(ny) * W + nx] == 255) return true;
      }
    return false;
  };
  if (f.track) {
    // Any chain to a strong pixel: grow until nothing changes.
    for (bool changed = true; changed;) {
      changed = false;
      for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x)
          if (lab[size_t(y) * W + x] == 127 && strongNeighbour(lab, x, y)) lab[size_t(y) * W + x] = 255, changed = true;
    }
  } else {
    const auto old = lab;
    for (int y = 0; y < H; ++y)
      for (int x = 0; x < W; ++x)
        if (old[size_t(y) * W + x] == 127 && strongNeighbour(old, x, y)) lab[size_t(y) * W + x] = 255;
  }
  qvt::Bytes out(im.data.size(), 0);
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) out[size_t(y) * S + x] = lab[size_t(y) * W + x] == 255 ? 255 : 0;
  return out;
}

std::string Describe(const qvt::Shape& s, const Flags& f) {
  return qvt::ToString(s) + " low=" + std::to_string(f.low) + " high=" + std::to_string(f.high) +
         " l2=" + std::to_string(f.l2) + " interp=" + std::to_string(f.interp) + " track=" + std::to_string(f.track);
}

TEST(Canny, MatchesModelForEveryFlagCombination) {
  std::vector<qvt::Shape> shapes;
  for (int w = 1; w <= 40; ++w)
    for (int h : {1, 2, 5}) shapes.push_back({w, h, 1, w > 3 ? w % 3 : 0});
  for (int w : {63, 64, 65, 130}) shapes.push_back({w, 24, 1, 2});
  for (const auto& s : shapes)
    for (unsigned char l2 : {0, 1})
      for (unsigned char interp : {0, 1, 2})
        for (unsigned char track : {0, 1})
          // Squared, 300 and 400 pass the largest magnitude: no strong or no
          // candidate pixel at all.
          for (auto th : {std::pair<int, int>{40, 160}, {90, 90}, {-3, 200}, {10, 60}, {200, 300}, {300, 400}}) {
            const Flags f{th.first, th.second, l2, interp, track};
            // Smooth content with a little noise gives long weak chains;
            // random content gives strong edges everywhere.
            auto src = (s.Width + s.Height) % 2 ? qvt::MakeNaturalImage(s.Width, s.Height, 1, s.Pad, s.Width)
                                                : qvt::MakeImage(s.Width, s.Height, 1, s.Pad);
            auto dst = qvt::MakeImage(s.Width, s.Height, 1, s.Pad);
            ASSERT_EQ(
                QV_Canny(src.ptr(), dst.ptr(), s.Width, s.Height, src.Stride, f.low, f.high, f.l2, f.interp, f.track),
                STATUS_OK)
                << Describe(s, f);
            const auto expect = CannyModel(src, f);
            ASSERT_TRUE(qvt::SameBytes(expect, dst.data, src.Stride)) << Describe(s, f);
            // In place, the same.
            ASSERT_EQ(
                QV_Canny(src.ptr(), src.ptr(), s.Width, s.Height, src.Stride, f.low, f.high, f.l2, f.interp, f.track),
                STATUS_OK);
            ASSERT_TRUE(qvt::SameBytes(expect, src.data)) << Describe(s, f);
          }
}

TEST(Canny, StrongEdgesWrapPastTheL2Limit) {
  // A black/white step: s = 1020^2 far above 2^19, so the interpolated L2
  // magnitude wraps to 0 and no edge survives, where the L1 norm finds one.
  auto im = qvt::MakeImage(32, 6, 1, 0, false);
  for (int y = 0; y < 6; ++y)
    for (int x = 16; x < 32; ++x) im.at(x, y, 0) = 255;
  auto out = im;
  ASSERT_EQ(QV_Canny(im.ptr(), out.ptr(), 32, 6, 32, 10, 20, 1, 1, 1), STATUS_OK);
  for (auto v : out.data) ASSERT_EQ(v, 0);
  ASSERT_EQ(QV_Canny(im.ptr(), out.ptr(), 32, 6, 32, 10, 20, 0, 1, 1), STATUS_OK);
  // Both columns beside the step are equal; the strict test is on the right
  // (near1), so the right one, column 16, is kept.
  for (int y = 0; y < 6; ++y) EXPECT_EQ(out.at(16, y, 0), 255);
  for (int y = 0; y < 6; ++y) EXPECT_EQ(out.at(15, y, 0), 0);
}

TEST(Canny, InterpolateTwoActsAsSectors) {
  auto im = qvt::MakeNaturalImage(45, 17, 1, 0, 3);
  auto a = im, b = im;
  ASSERT_EQ(QV_Canny(im.ptr(), a.ptr(), 45, 17, 45, 20, 60, 0, 2, 1), STATUS_OK);
  ASSERT_EQ(QV_Canny(im.ptr(), b.ptr(), 45, 17, 45, 20, 60, 0, 0, 1), STATUS_OK);
  EXPECT_EQ(a.data, b.data);
}

TEST(Canny, GuardedFrame) {
  unsigned char buf[64] = {1, 2, 3};
  const qvt::FrameCase cases[] = {
      {"null src before sizes", nullptr, buf, 0, 0, 4, STATUS_NULL_REFERENCE},
      {"null dest", buf, nullptr, 4, 1, 4, STATUS_NULL_REFERENCE},
      {"width 0 is a status, not a fault", buf, buf, 0, 1, 4, STATUS_INVALID_PARAMETER},
      {"height 0", buf, buf, 4, 0, 4, STATUS_INVALID_PARAMETER},
      {"stride of two channels", buf, buf, 4, 1, 8, STATUS_INVALID_PARAMETER},
      {"three channels", buf, buf, 4, 1, 12, STATUS_INVALID_PARAMETER},
      {"stride below width", buf, buf, 4, 1, 3, STATUS_INVALID_PARAMETER},
  };
  qvt::CheckStatusTable(cases, buf, sizeof buf, [](const qvt::FrameCase& c) {
    return QV_Canny(c.src, c.dst, c.w, c.h, c.stride, 10, 20, 0, 0, 0);
  });
  // A stride between Width and 2 * Width is padding; the padding is cleared.
  auto im = qvt::MakeImage(8, 3, 1, 7);
  EXPECT_EQ(QV_Canny(im.ptr(), im.ptr(), 8, 3, 15, 10, 20, 0, 0, 0), STATUS_OK);
  for (int y = 0; y < 3; ++y)
    for (int p = 8; p < 15; ++p) EXPECT_EQ(im.data[y * 15 + p], 0);

  auto src = qvt::MakeImage(23, 5, 1);
  auto out = qvt::MakeImage(23, 5, 1);
  const auto keep = out.data;
  EXPECT_EQ(qvt::CheckEveryAllocationFailure([&] { return QV_Canny(src.ptr(), out.ptr(), 23, 5, 23, 10, 40, 1, 1, 1); },
                                             STATUS_OUT_OF_MEMORY, [&] { EXPECT_EQ(out.data, keep); }),
            4);
}

}  // namespace
