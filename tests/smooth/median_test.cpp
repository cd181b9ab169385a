// Rank filter against a brute-force window percentile with the edge rows and
// columns repeated, on every path (3x3 and 5x5 networks, histograms), plus
// the fourth-channel rule, the frame and the allocation failures.
#include <algorithm>
#include <climits>
#include <csignal>

#include "support/support.h"

namespace {

// The smallest v such that more than T window samples are at most v.
qvt::Bytes MedianModel(const qvt::Image& src, const qvt::Bytes& dst_before, int Radius, int Percent) {
  const int W = src.Width, H = src.Height, C = src.Channel;
  const long long area = (2LL * Radius + 1) * (2LL * Radius + 1);
  const long long T = Percent == 100 ? area - 1 : area * Percent / 100;
  const bool networks = Percent == 50 && Radius <= 2;
  qvt::Bytes out = dst_before;
  std::vector<int> window;
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x)
      for (int c = 0; c < C; ++c) {
        if (c == 3 && !networks) {
          out[size_t(y) * src.Stride + x * 4 + 3] = src.at(x, y, 3);
          continue;
        }
        window.clear();
        for (int dy = -Radius; dy <= Radius; ++dy)
          for (int dx = -Radius; dx <= Radius; ++dx) {
            const int yy = std::min(std::max(y + dy, 0), H - 1), xx = std::min(std::max(x + dx, 0), W - 1);
            window.push_back(src.at(xx, yy, c));
          }
        std::nth_element(window.begin(), window.begin() + T, window.end());
        out[size_t(y) * src.Stride + size_t(x) * C + c] = static_cast<unsigned char>(window[T]);
      }
  return out;
}

void Check(const qvt::Image& src, int Radius, int Percent) {
  auto dst = qvt::MakeImage(src.Width, src.Height, src.Channel, src.Stride - src.Width * src.Channel);
  const auto expect = MedianModel(src, dst.data, Radius, Percent);
  ASSERT_EQ(QV_MedianBlur(src.ptr(), dst.ptr(), src.Width, src.Height, src.Stride, Radius, Percent), STATUS_OK);
  ASSERT_TRUE(qvt::SameBytes(expect, dst.data, src.Stride))
      << "W=" << src.Width << " H=" << src.Height << " C=" << src.Channel << " stride=" << src.Stride << " r=" << Radius
      << " p=" << Percent;
}

TEST(MedianBlur, MatchesBruteForceOnEveryPath) {
  const int percents[] = {0, 10, 37, 50, 63, 99, 100};
  int turn = 0;
  for (int c : {1, 3, 4})
    for (int w = 1; w <= 40; ++w)
      for (int h : {1, 2, 3, 6, 11})
        for (int pad : {0, w > 3 && w % 2 ? (w + h) % 3 + 1 : -1}) {
          if (pad < 0) continue;
          auto src = qvt::MakeImage(w, h, c, pad);
          for (int r = 1; r <= 6; ++r) {
            if (r <= 2) Check(src, r, 50);
            Check(src, r, percents[turn++ % 7]);
          }
        }
  for (int c : {1, 3, 4})
    for (int w : {63, 64, 65, 255})
      for (int h : {3, 8}) {
        auto src = qvt::MakeNaturalImage(w, h, c, w % 3);
        for (int r = 1; r <= 6; ++r) Check(src, r, r <= 2 ? 50 : percents[turn++ % 7]);
      }
}

// A large radius, within the image and beyond it: past the image the window
// keeps repeating the edge rows and columns.
TEST(MedianBlur, LargeRadius) {
  for (int c : {1, 3}) {
    Check(qvt::MakeNaturalImage(70, 45, c, 1), 20, 50);
    Check(qvt::MakeImage(70, 45, c, 1), 20, 90);
    Check(qvt::MakeImage(17, 9, c), 12, 50);
    Check(qvt::MakeImage(5, 30, c), 7, 30);
  }
}

// Far past the image each step adds the last column and drops the first; that
// run is one weighted step, so a Radius near INT_MAX finishes at once and the
// window's update mark (x + Radius + 1) does not wrap before column 0.
TEST(MedianBlur, RadiusFarBeyondTheImage) {
  for (int c : {1, 3}) {
    Check(qvt::MakeImage(6, 5, c, 1), 100, 50);
    Check(qvt::MakeImage(3, 7, c), 127, 80);
    for (int r : {65535, INT_MAX - 1, INT_MAX}) {
      auto src = qvt::MakeImage(9, 4, c);
      auto dst = src;
      EXPECT_EQ(QV_MedianBlur(src.ptr(), dst.ptr(), 9, 4, src.Stride, r, 50), STATUS_OK) << r;
    }
  }
}

// Values that sit on the edges of the 16-value bins and jump across them, so
// that the answer leaves the bin of the previous column upwards and
// downwards, lands on the first and last value of a bin, and does so for
// windows of any size up to the largest without wrapping counters (Radius
// 127, 65025 samples).
TEST(MedianBlur, AnswersCrossingBinEdges) {
  const unsigned char edges[] = {0, 15, 16, 31, 32, 127, 128, 143, 240, 255};
  auto striped = [&](int w, int h, int c, int period) {
    auto im = qvt::MakeImage(w, h, c, 1, false);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        for (int k = 0; k < c; ++k) im.at(x, y, k) = edges[(x / period + y + k) % 10];
    return im;
  };
  for (int c : {1, 3, 4}) {
    for (int p : {0, 1, 50, 99, 100}) {
      Check(striped(37, 9, c, 1), 3, p);
      Check(striped(64, 7, c, 5), 7, p);
    }
    Check(striped(71, 6, c, 9), 20, 45);
  }
  // A dark half beside a bright one: far from the edge the answer falls from
  // the bright bins to the dark ones with nearly a whole window below it.
  auto halves = qvt::MakeImage(300, 2, 1, 0, false);
  for (int x = 0; x < 300; ++x)
    for (int y = 0; y < 2; ++y) halves.at(x, y, 0) = static_cast<unsigned char>(x < 150 ? 250 - x % 3 : 17 + x % 2);
  for (int p : {10, 50, 97}) Check(halves, 127, p);
}

// From Radius 128 a window holds more than 65535 samples and its 16-bit
// counts wrap; both walks then go over the wrapped counts from bin 0 and stop
// at bin 15 when no sum passes the rank.
TEST(MedianBlur, WindowCountsWrapFromRadius128) {
  auto src = qvt::MakeImage(7, 5, 1, 0, false);
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 7; ++x) src.at(x, y, 0) = static_cast<unsigned char>(100 + (x + y) % 7);
  // Nearly all of a window is coarse bin 6, whose count passes 65535.
  src.at(3, 2, 0) = 200;
  src.at(2, 1, 0) = 9;
  const int R = 130;
  const long long d = 2 * R + 1, area = d * d;
  int differs = 0;
  for (int p : {0, 50, 100}) {
    const unsigned T = static_cast<unsigned>(p == 100 ? area - 1 : area * p / 100);
    auto dst = qvt::MakeImage(7, 5, 1);
    ASSERT_EQ(QV_MedianBlur(src.ptr(), dst.ptr(), 7, 5, 7, R, p), STATUS_OK);
    for (int y = 0; y < 5; ++y)
      for (int x = 0; x < 7; ++x) {
        long long hist[256] = {};
        for (int dy = -R; dy <= R; ++dy)
          for (int dx = -R; dx <= R; ++dx)
            ++hist[src.at(std::min(std::max(x + dx, 0), 6), std::min(std::max(y + dy, 0), 4), 0)];
        unsigned sum = 0;
        int k = 0, b = 0;
        for (; k < 15; ++k) {
          long long bin = 0;
          for (int j = 0; j < 16; ++j) bin += hist[16 * k + j];
          const unsigned wrapped = static_cast<unsigned>(bin % 65536);
          if (sum + wrapped > T) break;
          sum += wrapped;
        }
        for (; b < 15; ++b) {
          sum += static_cast<unsigned>(hist[16 * k + b] % 65536);
          if (sum > T) break;
        }
        EXPECT_EQ(dst.at(x, y, 0), 16 * k + b) << x << " " << y << " p=" << p;
        long long below = 0;
        int v = 0;
        while (below + hist[v] <= static_cast<long long>(T)) below += hist[v++];
        differs += dst.at(x, y, 0) != v;
      }
  }
  EXPECT_GT(differs, 0) << "no pixel shows the wrap";
}

// Percent 50 with Radius 3 runs the histograms, which keep the fourth
// channel; Radius 2 runs the network, which filters it.
TEST(MedianBlur, FourthChannelByPath) {
  auto src = qvt::MakeImage(30, 12, 4);
  auto a = src, b = src;
  ASSERT_EQ(QV_MedianBlur(src.ptr(), a.ptr(), 30, 12, src.Stride, 3, 50), STATUS_OK);
  ASSERT_EQ(QV_MedianBlur(src.ptr(), b.ptr(), 30, 12, src.Stride, 2, 50), STATUS_OK);
  int kept = 0, filtered_differs = 0;
  for (int y = 0; y < 12; ++y)
    for (int x = 0; x < 30; ++x) {
      kept += a.at(x, y, 3) == src.at(x, y, 3);
      filtered_differs += b.at(x, y, 3) != src.at(x, y, 3);
    }
  EXPECT_EQ(kept, 30 * 12);
  EXPECT_GT(filtered_differs, 30 * 12 / 2);
}

TEST(MedianBlur, FlatStaysFlat) {
  for (int c : {1, 3, 4})
    for (int r : {1, 2, 3, 9})
      for (int p : {0, 50, 100}) {
        auto src = qvt::MakeImage(33, 21, c, 0, false);
        std::fill(src.data.begin(), src.data.end(), 201);
        auto dst = qvt::MakeImage(33, 21, c);
        ASSERT_EQ(QV_MedianBlur(src.ptr(), dst.ptr(), 33, 21, src.Stride, r, p), STATUS_OK);
        EXPECT_TRUE(qvt::SameBytes(src.data, dst.data)) << c << " " << r << " " << p;
      }
}

TEST(MedianBlur, FrameOrder) {
  unsigned char buf[64];
  struct Case {
    const char* what;
    bool null_src, null_dst;
    int w, h, stride, radius, percent, expect;
  } cases[] = {
      {"null src before sizes", true, false, 3, 0, 9, 1, 50, STATUS_NULL_REFERENCE},
      {"null dest before sizes", false, true, 3, 0, 9, 1, 50, STATUS_NULL_REFERENCE},
      {"height 0", false, false, 3, 0, 9, 1, 50, STATUS_INVALID_PARAMETER},
      {"width negative", false, false, -3, 1, -9, 1, 50, STATUS_INVALID_PARAMETER},
      {"radius 0", false, false, 3, 2, 9, 0, 50, STATUS_INVALID_PARAMETER},
      {"percent 101", false, false, 3, 2, 9, 1, 101, STATUS_INVALID_PARAMETER},
      {"percent -1 as unsigned", false, false, 3, 2, 9, 1, -1, STATUS_INVALID_PARAMETER},
      {"percent before channel", false, false, 4, 2, 8, 1, 101, STATUS_INVALID_PARAMETER},
      {"channel 2", false, false, 4, 2, 8, 1, 50, STATUS_NOT_SUPPORTED},
      {"channel 0", false, false, 4, 1, 3, 1, 50, STATUS_NOT_SUPPORTED},
      {"channel 5", false, false, 3, 1, 15, 2, 50, STATUS_NOT_SUPPORTED},
  };
  for (auto& c : cases) {
    qvt::Bytes src(64, 9);
    std::fill(buf, buf + 64, 77);
    EXPECT_EQ(QV_MedianBlur(c.null_src ? nullptr : src.data(), c.null_dst ? nullptr : buf, c.w, c.h, c.stride, c.radius,
                            c.percent),
              c.expect)
        << c.what;
    EXPECT_TRUE(std::all_of(buf, buf + 64, [](unsigned char v) { return v == 77; })) << c.what << ": Dest touched";
  }
}

TEST(MedianBlurDeathTest, ZeroWidthFaults) {
  unsigned char buf[16] = {};
  volatile int w = 0;
  EXPECT_EXIT(QV_MedianBlur(nullptr, buf, w, 0, 4, 1, 50), ::testing::KilledBySignal(SIGFPE), "");
}

TEST(MedianBlur, AllocationFailures) {
  struct {
    int radius, percent, allocations;
  } paths[] = {{1, 50, 3}, {2, 50, 5}, {2, 40, 5}, {4, 50, 5}};
  for (auto& p : paths) {
    auto src = qvt::MakeImage(45, 18, 3, 2);
    const auto before = qvt::MakeImage(45, 18, 3, 2);
    auto dst = before;
    const int n = qvt::CheckEveryAllocationFailure(
        [&] { return QV_MedianBlur(src.ptr(), dst.ptr(), 45, 18, src.Stride, p.radius, p.percent); },
        STATUS_OUT_OF_MEMORY, [&] { EXPECT_TRUE(qvt::SameBytes(before.data, dst.data)) << "Dest touched"; });
    EXPECT_EQ(n, p.allocations) << p.radius << " " << p.percent;
  }
}

}  // namespace
