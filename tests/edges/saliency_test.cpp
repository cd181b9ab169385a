// Saliency against a model of its steps (fixed-point Lab, the means and the
// library's own blur, the distance, the stretch), the Lab conversion and the
// stretch over every tail length, and the frame.
#include <cmath>

#include "edges/edges.h"
#include "point/luminance.h"
#include "support/support.h"

namespace {

int LabF(int i) {
  if (i > 9) return int(std::pow(double(i * 0.0009803922f), double(0.33333334f)) * 1024 + 0.5);
  return int(1024 * (float(i * 841) * 9.077705e-6f + 0.13793103f) + 0.5f);
}

void ModelLab(const qvt::Image& im, int pitch, qvt::Bytes& L, qvt::Bytes& A, qvt::Bytes& B) {
  for (int y = 0; y < im.Height; ++y)
    for (int x = 0; x < im.Width; ++x) {
      const int c0 = im.at(x, y, 0), c1 = im.at(x, y, 1), c2 = im.at(x, y, 2);
      const int fx = LabF((195 * c0 + 385 * c1 + 444 * c2 + 512) >> 8);
      const int fy = LabF((74 * c0 + 732 * c1 + 218 * c2 + 512) >> 8);
      const int fz = LabF((894 * c0 + 112 * c1 + 18 * c2 + 512) >> 8);
      const size_t i = size_t(y) * pitch + x;
      L[i] = uint8_t((fy * 296 - 41267) / 1024);  // never negative
      A[i] = uint8_t(int(std::floor(((fx - fy) * 500 + 512) / 1024.0)) + 128);
      B[i] = uint8_t(int(std::floor(((fy - fz) * 200 + 512) / 1024.0)) + 128);
    }
}

qvt::Bytes ModelStretch(const std::vector<int>& v) {
  const int lo = *std::min_element(v.begin(), v.end()), hi = *std::max_element(v.begin(), v.end());
  qvt::Bytes out(v.size(), 128);
  if (lo == hi) return out;
  const double scale = 255.0 / (double(hi) - double(lo));
  const size_t body = v.size() & ~size_t(7);
  for (size_t i = 0; i < v.size(); ++i)
    out[i] = i < body ? uint8_t(std::nearbyint(float(v[i] - lo) * float(scale)))
                      : uint8_t(int((v[i] - double(lo)) * scale + 0.5));
  return out;
}

TEST(Saliency, LabPlanesMatchModelOnEveryWidth) {
  for (int w = 1; w <= 40; ++w)
    for (unsigned char padded : {0, 1}) {
      auto im = qvt::MakeImage(w, 3, 3, w > 3 ? 1 : 0);
      const int pitch = padded ? ((w * 8 + 31) / 32) * 4 : w;
      qvt::Bytes L(size_t(pitch) * 3, 7), A = L, B = L, eL = L, eA = L, eB = L;
      ASSERT_EQ(qv::RgbToLabPlanes(im.ptr(), L.data(), A.data(), B.data(), w, 3, im.Stride, padded), STATUS_OK);
      ModelLab(im, pitch, eL, eA, eB);
      ASSERT_TRUE(qvt::SameBytes(eL, L)) << w;
      ASSERT_TRUE(qvt::SameBytes(eA, A)) << w;
      ASSERT_TRUE(qvt::SameBytes(eB, B)) << w;
    }
  unsigned char white[3] = {255, 255, 255}, l, a, b;
  ASSERT_EQ(qv::RgbToLabPlanes(white, &l, &a, &b, 1, 1, 3, 0), STATUS_OK);
  EXPECT_EQ(l, 255);  // white: index 1022 on all three
  EXPECT_EQ(a, 128);
  EXPECT_EQ(b, 128);
  EXPECT_EQ(qv::RgbToLabPlanes(white, &l, &a, nullptr, 1, 1, 3, 0), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::RgbToLabPlanes(white, &l, &a, &b, 0, 1, 3, 0), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(qv::RgbToLabPlanes(white, &l, &a, &b, 1, 1, 4, 0), STATUS_INVALID_PARAMETER);
  // A failed scratch block is reported as a null reference.
  auto im = qvt::MakeImage(9, 2, 3);
  qvt::Bytes P(18 * 3);
  EXPECT_EQ(qvt::CheckEveryAllocationFailure(
                [&] { return qv::RgbToLabPlanes(im.ptr(), P.data(), P.data() + 18, P.data() + 36, 9, 2, 27, 0); },
                STATUS_NULL_REFERENCE),
            1);
}

TEST(Saliency, IntPlaneStretchBodyAndTail) {
  for (int n = 1; n <= 40; ++n) {
    std::vector<int> v(n);
    for (int i = 0; i < n; ++i) v[i] = (i * 7919) % 1001 - 300;
    qvt::Bytes out(n);
    ASSERT_EQ(qv::IntPlaneToBytes(v.data(), out.data(), n, 1), STATUS_OK);
    ASSERT_TRUE(qvt::SameBytes(ModelStretch(v), out)) << n;
  }
  // 0..2 stretched by 127.5: 1 rounds to even (128) in the body, up in the tail.
  std::vector<int> v = {0, 2, 1, 1, 1, 1, 1, 1, 1};
  qvt::Bytes out(9);
  ASSERT_EQ(qv::IntPlaneToBytes(v.data(), out.data(), 9, 1), STATUS_OK);
  EXPECT_EQ(out[2], 128);
  EXPECT_EQ(out[8], 128);
  std::vector<int> flat(5, -9);
  ASSERT_EQ(qv::IntPlaneToBytes(flat.data(), out.data(), 5, 1), STATUS_OK);
  EXPECT_EQ(out[4], 128);
  EXPECT_EQ(qv::IntPlaneToBytes(nullptr, out.data(), 5, 1), STATUS_NULL_REFERENCE);
  EXPECT_EQ(qv::IntPlaneToBytes(flat.data(), out.data(), 5, 0), STATUS_INVALID_PARAMETER);
}

qvt::Bytes ModelSaliency(const qvt::Image& im, bool padded) {
  const int w = im.Width, h = im.Height, pitch = padded ? ((w * 8 + 31) / 32) * 4 : w;
  qvt::Bytes P[3];
  for (auto& p : P) p.assign(size_t(pitch) * h, 0);  // padding cleared
  ModelLab(im, pitch, P[0], P[1], P[2]);
  int mean[3];
  for (int k = 0; k < 3; ++k) {
    int m1, m2, m3;
    EXPECT_EQ(qv::ImageChannelMeans(P[k].data(), w, h, pitch, &mean[k], &m1, &m2, &m3), STATUS_OK);
  }
  for (auto& p : P) EXPECT_EQ(QV_ExpBlur(p.data(), p.data(), w, h, pitch, 1), STATUS_OK);
  std::vector<int> S(size_t(pitch) * h, 0);  // past Width * Height: cleared
  for (int i = 0; i < w * h; ++i) {
    const int db = mean[2] - P[2][i], da = mean[1] - P[1][i], dl = mean[0] - P[0][i];
    S[i] = int(uint32_t(db * db + da * da) << 14) + dl * dl * 2500;
  }
  return ModelStretch(S);
}

TEST(Saliency, MatchesModel) {
  for (int w : {1, 3, 4, 5, 7, 8, 16, 17, 31, 64})
    for (int h : {1, 2, 9})
      for (unsigned char padded : {0, 1}) {
        auto im = qvt::MakeNaturalImage(w, h, 3, w > 3 ? 2 : 0, w + h);
        const int pitch = padded ? ((w * 8 + 31) / 32) * 4 : w;
        qvt::Bytes out(size_t(pitch) * h, 1);
        ASSERT_EQ(QV_SalientRegionDetection_FT(im.ptr(), out.data(), w, h, im.Stride, padded), STATUS_OK)
            << w << "x" << h << " padded=" << int(padded);
        ASSERT_TRUE(qvt::SameBytes(ModelSaliency(im, padded), out)) << w << "x" << h << " padded=" << int(padded);
      }
}

TEST(Saliency, FlatImageAndPaddedWidthFive) {
  auto flat = qvt::MakeImage(13, 6, 3, 0, false);
  std::fill(flat.data.begin(), flat.data.end(), 90);
  qvt::Bytes out(13 * 6, 0);
  ASSERT_EQ(QV_SalientRegionDetection_FT(flat.ptr(), out.data(), 13, 6, flat.Stride, 0), STATUS_OK);
  for (auto v : out) ASSERT_EQ(v, 128);
  // Width 5, padded: a pitch of 8, and all 8 bytes of each row written.
  auto im = qvt::MakeNaturalImage(5, 4, 3);
  qvt::Bytes d(8 * 4, 77), d2(8 * 4, 78);
  ASSERT_EQ(QV_SalientRegionDetection_FT(im.ptr(), d.data(), 5, 4, 15, 1), STATUS_OK);
  ASSERT_EQ(QV_SalientRegionDetection_FT(im.ptr(), d2.data(), 5, 4, 15, 1), STATUS_OK);
  EXPECT_EQ(d, d2);
}

TEST(Saliency, FrameOrderAndFailures) {
  unsigned char buf[64] = {1, 2, 3};
  const qvt::FrameCase cases[] = {
      {"null src before sizes", nullptr, buf, 3, 0, 9, STATUS_NULL_REFERENCE},
      {"null dest", buf, nullptr, 3, 1, 9, STATUS_NULL_REFERENCE},
      {"height 0 before channel", buf, buf, 3, 0, 3, STATUS_INVALID_PARAMETER},
      {"one channel", buf, buf, 4, 1, 4, STATUS_NOT_SUPPORTED},
      {"four channels pass, then the conversion says 1", buf, buf, 4, 1, 16, STATUS_INVALID_PARAMETER},
  };
  qvt::CheckStatusTable(
      cases, buf, 64, [&](const auto& c) { return QV_SalientRegionDetection_FT(c.src, c.dst, c.w, c.h, c.stride, 0); });
  // Width 2 padded to 4 makes the planes look 2-channel to the means.
  auto small = qvt::MakeImage(2, 3, 3);
  qvt::Bytes d(12);
  EXPECT_EQ(QV_SalientRegionDetection_FT(small.ptr(), d.data(), 2, 3, 6, 1), STATUS_NOT_SUPPORTED);
  auto im = qvt::MakeNaturalImage(19, 7, 3);
  qvt::Bytes out(19 * 7, 5);
  const auto keep = out;
  // The four planes come first (2 each); the conversion's scratch is the
  // fifth request, and its failure comes back as 3, passed up unchanged.
  int n = 1;
  for (;; ++n) {
    qvt::AllocHook hook(n);
    const int status = QV_SalientRegionDetection_FT(im.ptr(), out.data(), 19, 7, 57, 0);
    if (hook.Requests() < n) {
      EXPECT_EQ(status, STATUS_OK);
      break;
    }
    EXPECT_EQ(status, n == 5 ? STATUS_NULL_REFERENCE : STATUS_OUT_OF_MEMORY) << n;
    EXPECT_EQ(hook.Live(), 0) << n;
    if (n <= 5) {
      EXPECT_EQ(out, keep) << n;
    }
  }
  EXPECT_GT(n, 6);  // the blurs allocate too
}

TEST(SaliencyDeathTest, ZeroWidthFaults) {
  unsigned char buf[16] = {};
  qvt::ExpectDivideFault([&](int w) { return QV_SalientRegionDetection_FT(nullptr, buf, w, 0, 4, 0); });
}

}  // namespace
