// The two unsharp masks against models of their vector body and scalar tail
// (split at the run rounded down to 8), built on the exported blur; the
// documented differences between body and tail pinned one by one.
#include <cmath>
#include <cstdint>

#include "sharpen/frame_cases.h"

namespace {

qvt::Bytes UnsharpModel(const qvt::Image& src, const qvt::Bytes& dest, int Radius, int Amount, int Threshold) {
  const qvt::Bytes blur = qvt::BlurOver(src, dest, Radius);
  const float scale = static_cast<float>(Amount * 0.01 / std::sqrt(255.0));
  const int t16 = static_cast<int16_t>(Threshold & 0xFFFF);
  qvt::Bytes out(blur.size());
  const size_t body = out.size() / 8 * 8;
  for (size_t i = 0; i < out.size(); ++i) {
    const int s = src.data[i], d = s - blur[i];
    if (i < body) {  // strict comparisons, full gain inside, ties to even
      int g = s, e = d;
      if (d > t16)
        g = 255 - s, e = static_cast<int16_t>(d - t16);
      else if (d < static_cast<int16_t>(-t16))
        e = static_cast<int16_t>(d + t16);
      const float v = std::sqrt(static_cast<float>(g)) * (static_cast<float>(e) * scale);
      out[i] = static_cast<unsigned char>(qvt::Clamp255(s + static_cast<long long>(std::nearbyint(v))));
    } else {  // d >= T, nothing inside, +0.5 and truncation
      float g = 0.0f;
      long long e = d;
      if (d >= static_cast<long long>(Threshold))
        g = std::sqrt(static_cast<float>(255 - s)), e = d - static_cast<long long>(Threshold);
      else if (d < -static_cast<long long>(Threshold))
        g = std::sqrt(static_cast<float>(s)), e = d + static_cast<long long>(Threshold);
      const float v = g * (static_cast<float>(e) * scale) + 0.5f;
      out[i] = static_cast<unsigned char>(qvt::Clamp255(s + static_cast<long long>(std::trunc(v))));
    }
  }
  return out;
}

qvt::Bytes UnsharpPsModel(const qvt::Image& src, const qvt::Bytes& dest, int Radius, int Amount, int Threshold) {
  const qvt::Bytes blur = qvt::BlurOver(src, dest, Radius);
  const int a = std::min(std::max(Amount, 0), 4096);
  const int k = static_cast<int>(a * 1.27999997 * 4);
  qvt::Bytes out(blur.size());
  const size_t body = out.size() / 8 * 8;
  for (size_t i = 0; i < out.size(); ++i) {
    const long long s = src.data[i];
    long long d, t = Threshold;
    if (i < body) {
      d = static_cast<long long>(std::floor((s - blur[i]) * 128.0 * k / 65536.0));
      t = std::min(std::max(t, -32768LL), 32767LL);
    } else {
      d = (s - blur[i]) * a / 100;
    }
    const long long r = d > t ? s + d - t : (d < -t ? s + d + t : s);
    out[i] = static_cast<unsigned char>(qvt::Clamp255(r));
  }
  return out;
}

TEST(UnsharpMask, MatchesModelOnEveryShape) {
  struct {
    int radius, amount, threshold;
  } params[] = {{1, 100, 0}, {3, 250, 4}, {2, -80, 10}, {5, 1000, -3}, {2, 60, 65536 + 2}};
  for (const auto& p : params)
    for (const auto& s : qvt::TailShapes({1, 3, 4}, 2)) {
      auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      const qvt::Bytes expect = UnsharpModel(src, dst.data, p.radius, p.amount, p.threshold);
      ASSERT_EQ(QV_UnsharpMask(src.ptr(), dst.ptr(), s.Width, s.Height, src.Stride, p.radius, p.amount, p.threshold),
                STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(expect, dst.data, src.Stride))
          << qvt::ToString(s) << " amount " << p.amount << " threshold " << p.threshold;
    }
}

// Runs of 2^18 bytes and more take the body from a table of every byte pair;
// when that table cannot be allocated the body is computed, with the same bytes.
TEST(UnsharpMask, LargeRunsMatchModel) {
  struct {
    int radius, amount, threshold;
  } params[] = {{2, 150, 0}, {3, 250, 4}, {2, -80, 10}, {5, 1000, -3}, {2, 60, 65536 + 2}, {4, 300, -40000}};
  for (const auto& p : params)
    for (int c : {1, 3}) {
      auto src = qvt::MakeImage(733 / c, 361, c, 3);
      auto dst = qvt::MakeImage(733 / c, 361, c, 3);
      ASSERT_GE(src.data.size(), size_t(1) << 18);
      const qvt::Bytes expect = UnsharpModel(src, dst.data, p.radius, p.amount, p.threshold);
      for (int fail : {0, 3}) {
        auto got = dst;
        qvt::AllocHook hook(fail);
        ASSERT_EQ(QV_UnsharpMask(src.ptr(), got.ptr(), src.Width, 361, src.Stride, p.radius, p.amount, p.threshold),
                  STATUS_OK);
        EXPECT_EQ(hook.Requests(), 3);
        EXPECT_EQ(hook.Live(), 0);
        ASSERT_TRUE(qvt::SameBytes(expect, got.data, src.Stride))
            << "c=" << c << " amount " << p.amount << " threshold " << p.threshold << " fail " << fail;
      }
    }
}

// Offsets of the run where |Src - blur| is within T and not 0, split by body
// (the run rounded down to 8) and tail.
void InsideThreshold(const qvt::Image& src, const qvt::Bytes& blur, int T, std::vector<size_t>* Body,
                     std::vector<size_t>* Tail) {
  const size_t body = blur.size() / 8 * 8;
  for (size_t i = 0; i < blur.size(); ++i) {
    const int d = src.data[i] - blur[i];
    if (d != 0 && std::abs(d) < T) (i < body ? Body : Tail)->push_back(i);
  }
}

TEST(UnsharpMask, InsideTheThresholdBodySharpensTailKeeps) {
  auto src = qvt::MakeImage(39, 9, 1);  // 351 bytes: a 7-byte tail per call
  auto dst = qvt::MakeImage(39, 9, 1);
  const qvt::Bytes blur = qvt::BlurOver(src, dst.data, 2);
  std::vector<size_t> body, tail;
  InsideThreshold(src, blur, 300, &body, &tail);
  ASSERT_FALSE(body.empty());
  ASSERT_FALSE(tail.empty());
  ASSERT_EQ(QV_UnsharpMask(src.ptr(), dst.ptr(), 39, 9, 39, 2, 400, 300), STATUS_OK);
  size_t moved = 0;
  for (size_t i : body) moved += dst.data[i] != src.data[i];
  EXPECT_GT(moved, body.size() / 2);
  for (size_t i : tail) EXPECT_EQ(dst.data[i], src.data[i]) << i;
}

TEST(UnsharpMask, AmountZeroKeepsSrcAndThresholdIs16BitInTheBody) {
  auto src = qvt::MakeImage(37, 5, 3, 2);
  auto dst = qvt::MakeImage(37, 5, 3, 2);
  ASSERT_EQ(QV_UnsharpMask(src.ptr(), dst.ptr(), 37, 5, src.Stride, 3, 0, 0), STATUS_OK);
  EXPECT_TRUE(qvt::SameBytes(src.data, dst.data));
  ASSERT_EQ(QV_UnsharpMask(src.ptr(), dst.ptr(), 37, 5, src.Stride, 3, 0, -40), STATUS_OK);
  EXPECT_TRUE(qvt::SameBytes(src.data, dst.data));
  // Threshold 65536 + 3: the body works with 3, the tail with the full value
  // and so leaves every tail sample alone.
  auto a = qvt::MakeImage(37, 5, 3, 2);
  auto b = a;
  ASSERT_EQ(QV_UnsharpMask(src.ptr(), a.ptr(), 37, 5, src.Stride, 3, 300, 65536 + 3), STATUS_OK);
  ASSERT_EQ(QV_UnsharpMask(src.ptr(), b.ptr(), 37, 5, src.Stride, 3, 300, 3), STATUS_OK);
  const size_t body = a.data.size() / 8 * 8;
  EXPECT_TRUE(std::equal(a.data.begin(), a.data.begin() + body, b.data.begin()));
  EXPECT_TRUE(std::equal(a.data.begin() + body, a.data.end(), src.data.begin() + body));
  // Extreme arguments stay defined.
  ASSERT_EQ(QV_UnsharpMask(src.ptr(), a.ptr(), 37, 5, src.Stride, 3, 2000000000, -2147483647 - 1), STATUS_OK);
}

TEST(UnsharpMaskPs, MatchesModelOnEveryShape) {
  struct {
    int radius, amount, threshold;
  } params[] = {{1, 100, 0}, {3, 250, 4}, {2, 5000, 10}, {5, -20, 0}, {2, 80, -3}, {2, 150, 40000}, {4, 4096, -40000}};
  for (const auto& p : params)
    for (const auto& s : qvt::TailShapes({1, 3, 4}, 2)) {
      auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      const qvt::Bytes expect = UnsharpPsModel(src, dst.data, p.radius, p.amount, p.threshold);
      ASSERT_EQ(QV_UnsharpMask_PS(src.ptr(), dst.ptr(), s.Width, s.Height, src.Stride, p.radius, p.amount, p.threshold),
                STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(expect, dst.data, src.Stride))
          << qvt::ToString(s) << " amount " << p.amount << " threshold " << p.threshold;
    }
}

TEST(UnsharpMaskPs, Amount100Gives511) {
  // From Radius 150731 on the blur's gain is 0 and the blur is the top-left
  // sample everywhere, here 100. A difference of 1: the body's
  // (128 * 511) >> 16 is 0 (512 would give 1), the tail's 1 * 100 / 100 is 1;
  // with Threshold 0 only the tail moves. A difference of -1 is -1 in both.
  auto src = qvt::MakeImage(20, 1, 1, 0, false);
  for (int x = 0; x < 20; ++x) src.data[x] = static_cast<unsigned char>(x == 0 ? 100 : (x % 2 ? 101 : 99));
  auto dst = src;
  ASSERT_EQ(QV_UnsharpMask_PS(src.ptr(), dst.ptr(), 20, 1, 20, 200000, 100, 0), STATUS_OK);
  for (int x = 1; x < 20; ++x) EXPECT_EQ(dst.data[x], x % 2 ? (x < 16 ? 101 : 102) : 98) << x;
}

TEST(UnsharpMaskPs, LargeThresholdKeepsSrcAndSameBufferGivesBlur) {
  auto src = qvt::MakeImage(37, 5, 4, 3);
  for (int t : {255, 1000, 70000, 2147483647}) {
    auto dst = qvt::MakeImage(37, 5, 4, 3);
    ASSERT_EQ(QV_UnsharpMask_PS(src.ptr(), dst.ptr(), 37, 5, src.Stride, 2, 100, t), STATUS_OK);
    EXPECT_TRUE(qvt::SameBytes(src.data, dst.data)) << t;
  }
  const qvt::Bytes blur = qvt::BlurOver(src, src.data, 2);
  ASSERT_EQ(QV_UnsharpMask_PS(src.ptr(), src.ptr(), 37, 5, src.Stride, 2, 300, 0), STATUS_OK);
  EXPECT_TRUE(qvt::SameBytes(blur, src.data));
}

TEST(UnsharpMask, FramesAndAllocation) {
  for (auto op : {QV_UnsharpMask, QV_UnsharpMask_PS}) {
    qvt::CheckStandardFrame(
        [op](const unsigned char* s, unsigned char* d, int w, int h, int st) { return op(s, d, w, h, st, 2, 100, 0); },
        STATUS_INVALID_PARAMETER);
    auto im = qvt::MakeImage(19, 6, 3, 1);
    auto dst = im;
    EXPECT_EQ(op(im.ptr(), dst.ptr(), 19, 6, im.Stride, 0, 100, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(qvt::CheckEveryAllocationFailure([&] { return op(im.ptr(), dst.ptr(), 19, 6, im.Stride, 2, 100, 0); }),
              2);
  }
}

TEST(UnsharpMaskDeathTest, ZeroWidthFaults) {
  for (auto op : {QV_UnsharpMask, QV_UnsharpMask_PS})
    qvt::ExpectZeroWidthFaults(
        [op](const unsigned char* s, unsigned char* d, int w, int h, int st) { return op(s, d, w, h, st, 2, 100, 0); });
}

}  // namespace
