// Gray morphology against a brute-force clipped window, over tail lengths,
// strip remainders, channel counts and padded rows; frames and statuses.
#include <csignal>

#include "support/support.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

using qvt::Image;

// Extremum over |dx|, |dy| <= Radius inside the image; padding keeps Dest's bytes.
Image WindowModel(const Image& src, const Image& dest_before, int Radius, bool Max) {
  Image out = dest_before;
  for (int y = 0; y < src.Height; ++y)
    for (int x = 0; x < src.Width; ++x)
      for (int c = 0; c < src.Channel; ++c) {
        int best = Max ? 0 : 255;
        for (int yy = std::max(0, y - Radius); yy <= std::min(src.Height - 1, y + Radius); ++yy)
          for (int xx = std::max(0, x - Radius); xx <= std::min(src.Width - 1, x + Radius); ++xx) {
            int v = src.at(xx, yy, c);
            best = Max ? std::max(best, v) : std::min(best, v);
          }
        out.at(x, y, c) = static_cast<unsigned char>(best);
      }
  return out;
}

using Filter = int (*)(const unsigned char*, unsigned char*, int, int, int, int);

void CheckShape(Filter f, bool Max, int w, int h, int c, int pad, int r) {
  auto src = qvt::MakeImage(w, h, c, pad);
  auto dst = qvt::MakeImage(w, h, c, pad);
  const auto expect = WindowModel(src, dst, r, Max);
  const std::string what = qvt::ToString({w, h, c, pad}) + " r=" + std::to_string(r) + (Max ? " max" : " min");
  ASSERT_EQ(f(src.ptr(), dst.ptr(), w, h, src.Stride, r), STATUS_OK) << what;
  ASSERT_TRUE(qvt::SameBytes(expect.data, dst.data, src.Stride)) << what;
  // In place: the padding is Src's own, and must stay.
  auto inplace = src;
  ASSERT_EQ(f(inplace.ptr(), inplace.ptr(), w, h, src.Stride, r), STATUS_OK) << what;
  ASSERT_TRUE(qvt::SameBytes(WindowModel(src, src, r, Max).data, inplace.data, src.Stride)) << what << " in place";
}

TEST(GrayMorphology, ExtremaMatchClippedWindowOnNarrowImages) {
  // Every width to 40: rows shorter and longer than one 32-byte strip; heights
  // below and above one band of 32 rows.
  for (int c : {1, 3, 4})
    for (int w = 1; w <= 40; ++w)
      for (int h : {1, 2, 33})
        for (int r : {0, 1, 2, 3, 6, 50}) {
          const int pad = w > 3 ? (w + h) % 3 : 0;
          CheckShape(QV_MaxFilter, true, w, h, c, pad, r);
          CheckShape(QV_MinFilter, false, w, h, c, pad, r);
        }
}

TEST(GrayMorphology, ExtremaMatchClippedWindowAroundRowGroupsAndVectors) {
  // The one-pass radii and the first above them: heights around the groups of
  // output rows, widths whose rows end on either side of a vector.
  for (int c : {1, 3, 4})
    for (int r = 1; r <= 17; ++r)
      for (int h : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 15, 16, 17})
        for (int w : {1, 2, 5, 6, 11, 15, 16, 17, 22, 31, 32, 33, 48, 49}) {
          const int pad = w > 3 ? (w + h + r) % 3 : 0;
          CheckShape(QV_MaxFilter, true, w, h, c, pad, r);
          CheckShape(QV_MinFilter, false, w, h, c, pad, r);
        }
}

TEST(GrayMorphology, ExtremaMatchClippedWindowAcrossColumnStrips) {
  // Rows of one to three strips of 1024 bytes, ending just before, on and
  // just after a strip end, so that the column pass's lead crosses it.
  for (int c : {1, 3, 4})
    for (int bytes : {1008, 1024, 1040, 2047, 2048, 2049, 3000})
      for (int r : {1, 2, 5, 8, 12, 16}) {
        const int w = bytes / c;
        CheckShape(QV_MaxFilter, true, w, 5, c, 1, r);
        CheckShape(QV_MinFilter, false, w, 9, c, 2, r);
      }
}

TEST(GrayMorphology, ExtremaMatchClippedWindowOnLargerImages) {
  for (int c : {1, 3, 4})
    for (int w : {63, 64, 65, 97})
      for (int h : {31, 32, 40})
        for (int r : {1, 2, 3, 4, 5, 6, 20}) {
          CheckShape(QV_MaxFilter, true, w, h, c, r % 3, r);
          CheckShape(QV_MinFilter, false, w, h, c, r % 3, r);
        }
}

// The square window is separable: a clipped column extremum, then a clipped
// row extremum of that. Cheap enough for wide images and large radii.
Image SeparableModel(const Image& src, int Radius, bool Max) {
  Image col = src, out = src;
  const auto pick = [Max](int a, int b) { return Max ? std::max(a, b) : std::min(a, b); };
  for (int y = 0; y < src.Height; ++y)
    for (int x = 0; x < src.Width; ++x)
      for (int c = 0; c < src.Channel; ++c) {
        int best = src.at(x, y, c);
        for (int yy = std::max(0, y - Radius); yy <= std::min(src.Height - 1, y + Radius); ++yy)
          best = pick(best, src.at(x, yy, c));
        col.at(x, y, c) = static_cast<unsigned char>(best);
      }
  for (int y = 0; y < src.Height; ++y)
    for (int x = 0; x < src.Width; ++x)
      for (int c = 0; c < src.Channel; ++c) {
        int best = col.at(x, y, c);
        for (int xx = std::max(0, x - Radius); xx <= std::min(src.Width - 1, x + Radius); ++xx)
          best = pick(best, col.at(xx, y, c));
        out.at(x, y, c) = static_cast<unsigned char>(best);
      }
  return out;
}

TEST(GrayMorphology, ExtremaMatchOnWideImagesOverManyRadii) {
  // Rows of many vectors and bands of rows, heights that leave a partial
  // band, radii from small to beyond both sides, in place and not.
  for (int c : {1, 3, 4})
    for (int r : {3, 4, 5, 7, 8, 12, 19, 33, 64, 150, 299, 400}) {
      const int w = 300 + c, h = 70;
      for (bool Max : {false, true}) {
        auto src = qvt::MakeImage(w, h, c, 5);
        auto dst = qvt::MakeImage(w, h, c, 5);
        const auto model = SeparableModel(src, r, Max);
        const std::string what = "c=" + std::to_string(c) + " r=" + std::to_string(r) + (Max ? " max" : " min");
        Filter f = Max ? QV_MaxFilter : QV_MinFilter;
        ASSERT_EQ(f(src.ptr(), dst.ptr(), w, h, src.Stride, r), STATUS_OK) << what;
        for (int y = 0; y < h; ++y)
          ASSERT_TRUE(std::equal(model.data.begin() + size_t(y) * src.Stride,
                                 model.data.begin() + size_t(y) * src.Stride + w * c,
                                 dst.data.begin() + size_t(y) * src.Stride))
              << what << " row " << y;
        auto inplace = src;
        ASSERT_EQ(f(inplace.ptr(), inplace.ptr(), w, h, src.Stride, r), STATUS_OK) << what;
        ASSERT_TRUE(qvt::SameBytes(model.data, inplace.data, src.Stride)) << what << " in place";
      }
    }
}

TEST(GrayMorphology, RadiusBeyondBothSidesGivesWholeImageExtremum) {
  auto src = qvt::MakeImage(37, 35, 3);
  auto dst = src;
  ASSERT_EQ(QV_MaxFilter(src.ptr(), dst.ptr(), 37, 35, src.Stride, 2147483647), STATUS_OK);
  for (int c = 0; c < 3; ++c) {
    int m = 0;
    for (int y = 0; y < 35; ++y)
      for (int x = 0; x < 37; ++x) m = std::max(m, int(src.at(x, y, c)));
    for (int y = 0; y < 35; ++y)
      for (int x = 0; x < 37; ++x) ASSERT_EQ(dst.at(x, y, c), m);
  }
}

TEST(GrayMorphology, FramesOfTheExtrema) {
  unsigned char buf[64] = {7};
  const qvt::FrameCase cases[] = {
      {"null src before sizes", nullptr, buf, 3, 0, 9, STATUS_NULL_REFERENCE},
      {"null dest", buf, nullptr, 3, 1, 9, STATUS_NULL_REFERENCE},
      {"height 0", buf, buf, 3, 0, 9, STATUS_INVALID_PARAMETER},
      {"negative width", buf, buf, -3, 1, 9, STATUS_INVALID_PARAMETER},
      {"channel 2 is 1, not 5", buf, buf, 4, 1, 8, STATUS_INVALID_PARAMETER},
      {"channel 0", buf, buf, 4, 1, 3, STATUS_INVALID_PARAMETER},
  };
  for (Filter f : {QV_MaxFilter, QV_MinFilter})
    qvt::CheckStatusTable(cases, buf, sizeof buf,
                          [f](const qvt::FrameCase& c) { return f(c.src, c.dst, c.w, c.h, c.stride, 1); });
}

TEST(GrayMorphology, ExtremaReportExhaustedMemory) {
  for (Filter f : {QV_MaxFilter, QV_MinFilter}) {
    auto src = qvt::MakeImage(40, 40, 3);
    auto dst = qvt::MakeImage(40, 40, 3);
    // Small radii: one scratch block for the single pass.
    int allocations = qvt::CheckEveryAllocationFailure([&] { return f(src.ptr(), dst.ptr(), 40, 40, 120, 2); });
    EXPECT_EQ(allocations, 1);
    // Larger: two arrays for the columns, two and the strip for the rows.
    allocations = qvt::CheckEveryAllocationFailure([&] { return f(src.ptr(), dst.ptr(), 40, 40, 120, 20); });
    EXPECT_EQ(allocations, 5);
  }
}

TEST(GrayMorphology, OpenAndCloseComposeTheExtrema) {
  for (int c : {1, 3, 4})
    for (int w : {1, 7, 33, 50})
      for (int h : {1, 5, 40})
        for (int r : {0, 1, 3}) {
          auto src = qvt::MakeImage(w, h, c, w > 3 ? 1 : 0);
          auto dst = qvt::MakeImage(w, h, c, w > 3 ? 1 : 0);
          const auto mn = WindowModel(src, dst, r, false), mx = WindowModel(src, dst, r, true);
          const auto open = WindowModel(mn, mn, r, true), close = WindowModel(mx, mx, r, false);
          ASSERT_EQ(QV_Open(src.ptr(), dst.ptr(), w, h, src.Stride, r), STATUS_OK);
          ASSERT_TRUE(qvt::SameBytes(open.data, dst.data, src.Stride)) << qvt::ToString({w, h, c, 1}) << " open";
          ASSERT_EQ(QV_Close(src.ptr(), dst.ptr(), w, h, src.Stride, r), STATUS_OK);
          ASSERT_TRUE(qvt::SameBytes(close.data, dst.data, src.Stride)) << qvt::ToString({w, h, c, 1}) << " close";
        }
}

TEST(GrayMorphology, OpenRemovesALoneBrightPixel) {
  auto src = qvt::MakeImage(9, 9, 1, 0, false);
  src.at(4, 4, 0) = 200;
  auto dst = src;
  ASSERT_EQ(QV_Open(src.ptr(), dst.ptr(), 9, 9, 9, 1), STATUS_OK);
  EXPECT_TRUE(std::all_of(dst.data.begin(), dst.data.end(), [](unsigned char v) { return v == 0; }));
}

// Range model: the whole run, padding included (its range is 0 there).
qvt::Bytes RangeModel(const Image& src, int Radius, int Amount) {
  const auto mx = WindowModel(src, src, Radius, true), mn = WindowModel(src, src, Radius, false);
  qvt::Bytes out(src.data.size());
  const int m = static_cast<int>(static_cast<float>(Amount) * 20.48f);
  for (size_t i = 0; i < out.size(); ++i) {
    const bool pad = int(i % src.Stride) >= src.Width * src.Channel;
    const int d = pad ? 0 : mx.data[i] - mn.data[i];
    const long long v = Amount == 100 ? d : (static_cast<long long>(d) * m) >> 11;
    out[i] = static_cast<unsigned char>(std::min<long long>(255, std::max<long long>(0, v)));
  }
  return out;
}

TEST(GrayMorphology, RangeFilterScalesTheRangeOnEveryShape) {
  for (int amount : {100, 0, 50, 37, 200, 3199})
    for (const auto& s : qvt::TailShapes({1, 3, 4}, 2)) {
      if (s.Width > 65) continue;
      auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
      ASSERT_EQ(QV_RangeFilter(src.ptr(), dst.ptr(), s.Width, s.Height, src.Stride, 2, amount), STATUS_OK);
      ASSERT_TRUE(qvt::SameBytes(RangeModel(src, 2, amount), dst.data, src.Stride))
          << qvt::ToString(s) << " amount " << amount;
    }
}

TEST(GrayMorphology, RangeAmountIsAFloatProduct) {
  // 50 * 20.48f rounds to 1024 in float, where a double product gives 1023:
  // a range of 2 then gives (2 * 1024) >> 11 = 1 rather than 0, in the block
  // loop (byte 0) and in the scalar tail (byte 34) alike.
  unsigned char src[35] = {}, dst[35];
  src[0] = 2;
  src[34] = 2;
  ASSERT_EQ(QV_RangeFilter(src, dst, 35, 1, 35, 1, 50), STATUS_OK);
  EXPECT_EQ(dst[0], 1);
  EXPECT_EQ(dst[10], 0);
  EXPECT_EQ(dst[34], 1);
}

TEST(GrayMorphology, RangeFilterFrameAndMemory) {
  unsigned char buf[64] = {9};
  EXPECT_EQ(QV_RangeFilter(nullptr, buf, 3, 0, 9, 1, 100), STATUS_NULL_REFERENCE);
  EXPECT_EQ(QV_RangeFilter(buf, buf, 3, 0, 9, 1, 100), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(QV_RangeFilter(buf, buf, 4, 1, 8, 1, 100), STATUS_INVALID_PARAMETER);
  auto src = qvt::MakeImage(20, 20, 1);
  auto dst = qvt::MakeImage(20, 20, 1);
  const auto before = dst.data;
  for (int n : {1, 2}) {  // either run buffer missing: success, nothing written, nothing kept
    qvt::AllocHook hook(n);
    EXPECT_EQ(QV_RangeFilter(src.ptr(), dst.ptr(), 20, 20, 20, 1, 100), STATUS_OK);
    EXPECT_EQ(hook.Live(), 0);
    EXPECT_TRUE(qvt::SameBytes(before, dst.data));
  }
  {
    // A failure inside the nested filter is passed up and loses both buffers.
#if defined(__SANITIZE_ADDRESS__)
    __lsan::ScopedDisabler keep_quiet;
#endif
    qvt::AllocHook hook(3);
    EXPECT_EQ(QV_RangeFilter(src.ptr(), dst.ptr(), 20, 20, 20, 1, 100), STATUS_OUT_OF_MEMORY);
    EXPECT_EQ(hook.Live(), 2);
  }
}

TEST(GrayMorphologyDeathTest, ZeroWidthFaults) {
  unsigned char buf[16] = {};
  volatile int w = 0;
  EXPECT_EXIT(QV_MaxFilter(nullptr, buf, w, 0, 4, 1), ::testing::KilledBySignal(SIGFPE), "");
  EXPECT_EXIT(QV_MinFilter(nullptr, buf, w, 0, 4, 1), ::testing::KilledBySignal(SIGFPE), "");
}

}  // namespace
