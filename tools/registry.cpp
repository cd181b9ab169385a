// The registry table. Each export is one entry, grouped under the same family
// lines as the public header so that parallel additions merge cleanly.
#include "registry.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quelvin.h"

namespace qvtool {

namespace {

bool SameName(const char* a, const char* b) {
  for (; *a && *b; ++a, ++b)
    if (std::tolower(static_cast<unsigned char>(*a)) != std::tolower(static_cast<unsigned char>(*b))) return false;
  return *a == *b;
}

int ParamIndex(const std::vector<Param>& params, const char* name) {
  for (size_t k = 0; k < params.size(); ++k)
    if (SameName(params[k].name, name)) return int(k);
  // A registry entry asking for a parameter it did not declare is a bug in the table.
  std::fprintf(stderr, "internal error: registry entry uses undeclared parameter %s\n", name);
  std::abort();
}

using P = Param;
constexpr auto kInt = ParamType::Int;
constexpr auto kFloat = ParamType::Float;
constexpr auto kBool = ParamType::Bool;
constexpr auto kImage = ParamType::Image;

// A 512 x 512 colour table (blue picks the 64 x 64 tile, green the row, red
// the column), samples stored blue first: a warm, slightly faded tone.
[[maybe_unused]] Image WarmLut() {
  Image t = MakeImage(512, 512, 3);
  auto clamp = [](double v) { return static_cast<unsigned char>(v < 0 ? 0 : v > 255 ? 255 : v + 0.5); };
  for (int b6 = 0; b6 < 64; ++b6)
    for (int g6 = 0; g6 < 64; ++g6)
      for (int r6 = 0; r6 < 64; ++r6) {
        const double b = b6 * 255.0 / 63, g = g6 * 255.0 / 63, r = r6 * 255.0 / 63;
        unsigned char* p = t.ptr() + ((size_t((b6 / 8) * 64 + g6) * 512) + (b6 % 8) * 64 + r6) * 3;
        p[0] = clamp(12 + b * 0.80);
        p[1] = clamp(8 + g * 0.95);
        p[2] = clamp(20 + r * 1.02);
      }
  return t;
}

// The global thresholds measure; the gallery shows the image cut at the value.
[[maybe_unused]] int MeasureThreshold(Call& c, int (*fn)(const unsigned char*, int, int, int, int*)) {
  constexpr int kUnwritten = -1;
  int t = kUnwritten;
  const int status = fn(c.in(), c.W(), c.H(), c.S(), &t);
  if (status != STATUS_OK) return status;
  if (t == kUnwritten) {
    c.result = "no threshold written (the operator leaves it alone for this histogram)";
    return status;
  }
  c.result = "threshold " + std::to_string(t);
  for (size_t i = 0; i < c.dest.data.size(); ++i) c.dest.data[i] = c.src.data[i] > t ? 255 : 0;
  c.illustrated = true;
  return status;
}

}  // namespace

int Call::Int(const char* name) const { return static_cast<int>(values[ParamIndex(params, name)]); }
float Call::Float(const char* name) const { return static_cast<float>(values[ParamIndex(params, name)]); }
unsigned char Call::Flag(const char* name) const { return values[ParamIndex(params, name)] != 0 ? 1 : 0; }
const Image& Call::Img(const char* name) const { return images[ParamIndex(params, name)]; }

const std::vector<Operator>& Registry() {
  static const std::vector<Operator> table = {
      // ---- point operators
      {"Invert",
       "point operators",
       "134",
       "255 - v on every sample; the fourth sample is kept",
       {},
       [](Call& c) { return QV_Invert(c.in(), c.out(), c.W(), c.H(), c.S()); }},

      // ---- brightness, contrast, vibrance

      // ---- histogram adjustments

      // ---- luminance, desaturation

      // ---- white balance

      // ---- box mean

      // ---- exponential and Gaussian blur

      // ---- median

      // ---- guided filters

      // ---- global thresholds

      // ---- gray morphology

      // ---- copy, flip, rotate, transpose

      // ---- resample

      // ---- dehazing

      // ---- Retinex

      // ---- frequency filters

      // ---- pyramids

      // ---- sharpening

      // ---- edges and saliency
  };
  (void)kInt, (void)kFloat, (void)kBool, (void)kImage;
  return table;
}

const Operator* FindOperator(const std::string& name) {
  const char* n = name.c_str();
  if ((n[0] == 'Q' || n[0] == 'q') && (n[1] == 'V' || n[1] == 'v') && n[2] == '_') n += 3;
  for (const Operator& op : Registry())
    if (SameName(op.name, n)) return &op;
  return nullptr;
}

bool AcceptsChannel(const Operator& op, int Channel) {
  return Channel >= 1 && Channel <= 9 && std::strchr(op.channels, '0' + Channel) != nullptr;
}

const char* StatusName(int status) {
  switch (status) {
    case STATUS_OK:
      return "STATUS_OK";
    case STATUS_INVALID_PARAMETER:
      return "STATUS_INVALID_PARAMETER";
    case STATUS_OUT_OF_MEMORY:
      return "STATUS_OUT_OF_MEMORY";
    case STATUS_NULL_REFERENCE:
      return "STATUS_NULL_REFERENCE";
    case STATUS_UNKNOWN_MODE:
      return "STATUS_UNKNOWN_MODE";
    case STATUS_NOT_SUPPORTED:
      return "STATUS_NOT_SUPPORTED";
    default:
      return "unknown status";
  }
}

RunResult RunOperator(const Operator& op, const Image& src, const std::vector<double>& values,
                      const std::vector<Image>& images, int repeat) {
  RunResult r;
  for (int k = 0; k < (repeat < 1 ? 1 : repeat); ++k) {
    Image dest = src;
    Call call{src, dest, op.params, values, images, {}, false, {}};
    call.Restart();
    const int status = op.run(call);
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - call.start).count();
    if (k == 0 || ms < r.ms) r.ms = ms;
    r.status = status;
    r.result = call.result;
    r.illustrated = call.illustrated;
    r.refusal = call.refusal;
    r.dest = std::move(dest);
    if (status != STATUS_OK) break;
  }
  return r;
}

}  // namespace qvtool
