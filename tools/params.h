// Parsing "name=value" arguments against an operator's parameter list.
#pragma once

#include <string>
#include <vector>

#include "registry.h"

namespace qvtool {

// The parsed values of one call: defaults where no argument names them.
struct ParsedParams {
  std::vector<double> values;
  std::vector<std::string> paths;  // for Image parameters
  std::vector<bool> given;
};

// False with a message on a malformed, unknown, repeated or out-of-range
// argument, or (with need_images) a missing image parameter.
bool ParseParams(const Operator& op, const std::vector<std::string>& args, ParsedParams* out, std::string* error,
                 bool need_images = true);

// "1..255", "0.1..100", "0|1", "FILE".
std::string RangeText(const Param& p);
std::string ValueText(const Param& p, double v);
std::string TypeName(ParamType t);

}  // namespace qvtool
