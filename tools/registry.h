// The operator registry of the command-line tool: one entry per export, with
// its parameters (type, range, default) and the call that runs it.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "image_io.h"

namespace qvtool {

enum class ParamType { Int, Float, Bool, Image };

struct Param {
  const char* name;  // the export's argument name; matched without regard to case
  ParamType type;
  double min, max;  // inclusive; for Image, min is the channel count to read it as
                    // (0: IN's count, and it must have IN's size)
  double def;       // for Image: 0 required (the gallery passes its second photograph), 1 optional
  const char* help;
};

// What an operator's call sees: the source, a destination that starts as a
// copy of it (a call may replace it, e.g. for a new size or channel count),
// the parameter values, and a line of text for operators that measure.
struct Call {
  const Image& src;
  Image& dest;
  const std::vector<Param>& params;
  const std::vector<double>& values;
  const std::vector<Image>& images;  // by parameter index; empty but for Image parameters
  std::string result;
  bool illustrated = false;  // a measuring call that drew its result into dest for the gallery
  std::string refusal;       // why the tool itself refused the call (see Refuse)
  std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point stop{};  // set by Stop; else the call's return

  int W() const { return src.Width; }
  int H() const { return src.Height; }
  int S() const { return src.Stride(); }
  const unsigned char* in() const { return src.ptr(); }
  unsigned char* out() { return dest.ptr(); }
  int Int(const char* name) const;
  float Float(const char* name) const;
  unsigned char Flag(const char* name) const;
  const Image& Img(const char* name) const;
  bool Given(const char* name) const { return !Img(name).empty(); }
  // Declines a call the library cannot be given (e.g. a table of the wrong
  // size); the tool reports the reason as a usage error.
  int Refuse(const std::string& why) {
    refusal = why;
    return kRefused;
  }
  static constexpr int kRefused = -1000;
  // Starts the clock again, so that the tool's own preparation (a built-in
  // table, a histogram) is not counted in the library's time.
  void Restart() { start = std::chrono::steady_clock::now(); }
  // Stops the clock, so that the tool's drawing of a measure is not counted.
  void Stop() { stop = std::chrono::steady_clock::now(); }
};

enum class Output { Image, Measure };

struct Operator {
  const char* name;      // the export's name without its QV_ prefix
  const char* family;    // as in the public header's family anchors
  const char* channels;  // the channel counts it accepts, e.g. "134"
  const char* help;      // one line
  std::vector<Param> params;
  int (*run)(Call&);
  const char* demo = "";  // gallery parameters, "name=value ...", over the defaults
  Output output = Output::Image;
  bool binary_input = false;  // the gallery feeds it a two-level image
  bool prefixed = true;       // the export is QV_ + name (LaplacePyramidTest is not)
  bool hazy_input = false;    // the gallery feeds it a hazed copy of the photograph
};

// The exported symbol's name.
std::string ExportName(const Operator& op);

const std::vector<Operator>& Registry();

// By name, case-insensitively, with or without the QV_ prefix; null if none.
const Operator* FindOperator(const std::string& name);

bool AcceptsChannel(const Operator& op, int Channel);

const char* StatusName(int status);

// Runs an operator once (or `repeat` times, keeping the fastest), with the
// destination starting as a copy of the source.
struct RunResult {
  int status = 0;
  double ms = 0;
  std::string result;
  bool illustrated = false;
  std::string refusal;  // non-empty: status is Call::kRefused
  Image dest;
};
RunResult RunOperator(const Operator& op, const Image& src, const std::vector<double>& values,
                      const std::vector<Image>& images, int repeat = 1);

}  // namespace qvtool
