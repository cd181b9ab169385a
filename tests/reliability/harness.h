// Buffers for one row of the export table: exact-size heap images for Src, a
// second source or guide, Dest in the row's shape, the colour table and the
// target histograms, all with deterministic content.
#pragma once

#include <random>
#include <vector>

#include "reliability/export_table.h"
#include "support/support.h"

namespace qvr {

// A 512 x 512 colour table and three target histograms, built once and only
// read afterwards (so threads may share them).
inline const std::vector<unsigned char>& ColourTable() {
  static const std::vector<unsigned char> table = [] {
    std::vector<unsigned char> t(512 * 512 * 3);
    std::mt19937 rng(99);
    for (auto& v : t) v = static_cast<unsigned char>(rng());
    return t;
  }();
  return table;
}
inline const std::vector<int>& TargetHistograms() {
  static const std::vector<int> target = [] {
    std::vector<int> t(768);
    for (int i = 0; i < 768; ++i) t[i] = 1 + (i * 37) % 50;
    return t;
  }();
  return target;
}

struct Buffers {
  qvt::Image Src, Src2, Dest;
  int Out = -777;

  // Width x Height with Channel samples and Pad bytes of row padding (Pad is
  // dropped where the row's shape needs packed rows). Seed varies the content.
  Buffers(const Export& e, int Width, int Height, int Channel, int Pad, unsigned Seed) {
    if (e.Geometry == Shape::Turned) Pad = 0;  // four-channel turns need packed rows
    Src = qvt::MakeNaturalImage(Width, Height, Channel, Pad, Seed);
    Src2 = qvt::MakeNaturalImage(Width, Height, Channel, Pad, Seed + 1000);
    std::mt19937 rng(Seed);
    for (auto& v : Src2.data) v = static_cast<unsigned char>(v ^ (rng() & 15));
    switch (e.Geometry) {
      case Shape::Same:
        Dest = qvt::MakeImage(Width, Height, Channel, Pad, false);
        break;
      case Shape::InPlace:
        Dest = Src;
        break;
      case Shape::Turned:
        Dest = qvt::MakeImage(Height, Width, Channel, 0, false);
        break;
      case Shape::Scaled:
        Dest = qvt::MakeImage(Width * 3 / 4 + 2, Height * 5 / 4 + 1, Channel, Pad, false);
        break;
      case Shape::Plane:
        Dest = qvt::MakeImage(Width, Height, 1, 0, false);
        break;
    }
    if (e.Geometry != Shape::InPlace)
      for (size_t i = 0; i < Dest.data.size(); ++i) Dest.data[i] = static_cast<unsigned char>(i * 7 + Seed);
  }

  Call Args() {
    return Call{Src.ptr(),  Src2.ptr(),  Dest.ptr(),  Src.Width, Src.Height,           Src.Stride,
                Dest.Width, Dest.Height, Dest.Stride, &Out,      ColourTable().data(), TargetHistograms().data()};
  }
};

// The channel counts (of 1, 3, 4) a row accepts: those its plain call takes.
inline std::vector<int> AcceptedChannels(const Export& e) {
  std::vector<int> out;
  for (int c : {1, 3, 4}) {
    Buffers b(e, 19, 11, c, 1, 5);
    if (e.Run(b.Args()) == STATUS_OK) out.push_back(c);
  }
  return out;
}

}  // namespace qvr
