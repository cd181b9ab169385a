// Channel split and merge: exact sample moves over every tail length, padding
// left alone, and the frame (pointers first, then sizes and channel count).
#include "point/channels.h"

#include "support/support.h"

namespace {

TEST(Channels, SplitThenMergeOnEveryShape) {
  for (const auto& s : qvt::TailShapes({3, 4})) {
    auto src = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    const size_t n = size_t(s.Width) * s.Height;
    std::vector<qvt::Bytes> planes(4, qvt::Bytes(n, 0));
    int st = s.Channel == 3 ? qv::SplitChannels3(src.ptr(), planes[0].data(), planes[1].data(), planes[2].data(),
                                                 s.Width, s.Height, src.Stride)
                            : qv::SplitChannels4(src.ptr(), planes[0].data(), planes[1].data(), planes[2].data(),
                                                 planes[3].data(), s.Width, s.Height, src.Stride);
    ASSERT_EQ(st, STATUS_OK) << qvt::ToString(s);
    for (int y = 0; y < s.Height; ++y)
      for (int x = 0; x < s.Width; ++x)
        for (int c = 0; c < s.Channel; ++c)
          ASSERT_EQ(planes[c][size_t(y) * s.Width + x], src.at(x, y, c)) << qvt::ToString(s) << " x=" << x;

    // Merge into a random buffer: samples come back, padding keeps its bytes.
    auto dst = qvt::MakeImage(s.Width, s.Height, s.Channel, s.Pad);
    auto expect = dst.data;
    for (int y = 0; y < s.Height; ++y)
      for (int i = 0; i < s.Width * s.Channel; ++i)
        expect[size_t(y) * src.Stride + i] = src.data[size_t(y) * src.Stride + i];
    st = s.Channel == 3 ? qv::MergeChannels3(planes[0].data(), planes[1].data(), planes[2].data(), dst.ptr(), s.Width,
                                             s.Height, dst.Stride)
                        : qv::MergeChannels4(planes[0].data(), planes[1].data(), planes[2].data(), planes[3].data(),
                                             dst.ptr(), s.Width, s.Height, dst.Stride);
    ASSERT_EQ(st, STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(expect, dst.data, dst.Stride)) << qvt::ToString(s);
  }
}

TEST(Channels, FrameOrderAndNothingWritten) {
  unsigned char img[64], p[4][64];
  std::fill(img, img + 64, 7);
  for (auto& q : p) std::fill(q, q + 64, 9);
  struct Case {
    const char* what;
    bool null_plane;
    int w, h, stride, expect;
  } cases[] = {
      {"null plane before sizes", true, 0, 0, 0, STATUS_NULL_REFERENCE},
      {"width 0", false, 0, 1, 12, STATUS_INVALID_PARAMETER},
      {"height 0", false, 4, 0, 12, STATUS_INVALID_PARAMETER},
      {"negative stride", false, 4, 1, -12, STATUS_INVALID_PARAMETER},
  };
  for (auto& c : cases) {
    unsigned char* p1 = c.null_plane ? nullptr : p[1];
    EXPECT_EQ(qv::SplitChannels3(img, p[0], p1, p[2], c.w, c.h, c.stride), c.expect) << c.what;
    EXPECT_EQ(qv::SplitChannels4(img, p[0], p1, p[2], p[3], c.w, c.h, c.stride * 4 / 3), c.expect) << c.what;
    EXPECT_EQ(qv::MergeChannels3(p[0], p1, p[2], img, c.w, c.h, c.stride), c.expect) << c.what;
    EXPECT_EQ(qv::MergeChannels4(p[0], p1, p[2], p[3], img, c.w, c.h, c.stride * 4 / 3), c.expect) << c.what;
  }
  // The exact count is asked for: three planes refuse a 4-channel image and
  // four planes a 3-channel one.
  EXPECT_EQ(qv::SplitChannels3(img, p[0], p[1], p[2], 4, 1, 16), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::MergeChannels3(p[0], p[1], p[2], img, 4, 1, 16), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::SplitChannels4(img, p[0], p[1], p[2], p[3], 4, 1, 12), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::MergeChannels4(p[0], p[1], p[2], p[3], img, 4, 1, 12), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::SplitChannels3(nullptr, p[0], p[1], p[2], 4, 1, 16), STATUS_NULL_REFERENCE);
  for (int i = 0; i < 64; ++i) ASSERT_EQ(img[i], 7);
  for (auto& q : p)
    for (int i = 0; i < 64; ++i) ASSERT_EQ(q[i], 9);
}

}  // namespace
