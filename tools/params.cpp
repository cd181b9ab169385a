// Parameter parsing: strict numbers (the whole text must be the number),
// ranges checked against the registry, every failure worded for the user.
#include "params.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace qvtool {

namespace {

std::string Lower(std::string s) {
  for (char& ch : s) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  return s;
}

bool ParseInt(const std::string& text, double* v) {
  if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return false;
  char* end = nullptr;
  errno = 0;
  const long long n = std::strtoll(text.c_str(), &end, 10);
  if (*end != '\0' || errno == ERANGE) return false;
  *v = double(n);
  return true;
}

bool ParseFloat(const std::string& text, double* v) {
  if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return false;
  char* end = nullptr;
  errno = 0;
  const double d = std::strtod(text.c_str(), &end);
  if (*end != '\0' || !std::isfinite(d)) return false;
  *v = d;
  return true;
}

bool ParseBool(const std::string& text, double* v) {
  const std::string t = Lower(text);
  if (t == "1" || t == "true" || t == "yes" || t == "on") return *v = 1, true;
  if (t == "0" || t == "false" || t == "no" || t == "off") return *v = 0, true;
  return false;
}

std::string Number(double v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%g", v);
  return buf;
}

std::string ParamNames(const Operator& op) {
  if (op.params.empty()) return "it takes no parameters";
  std::string s = "its parameters are";
  for (const Param& p : op.params) s += std::string(" ") + p.name;
  return s;
}

}  // namespace

std::string TypeName(ParamType t) {
  switch (t) {
    case ParamType::Int:
      return "int";
    case ParamType::Float:
      return "float";
    case ParamType::Bool:
      return "bool";
    case ParamType::Image:
      return "image";
  }
  return "?";
}

std::string RangeText(const Param& p) {
  switch (p.type) {
    case ParamType::Bool:
      return "0|1";
    case ParamType::Image:
      return "FILE";
    default:
      return Number(p.min) + ".." + Number(p.max);
  }
}

std::string ValueText(const Param& p, double v) {
  if (p.type == ParamType::Image) return "FILE";
  return Number(v);
}

bool ParseParams(const Operator& op, const std::vector<std::string>& args, ParsedParams* out, std::string* error,
                 bool need_images) {
  const size_t n = op.params.size();
  out->values.assign(n, 0);
  out->paths.assign(n, "");
  out->given.assign(n, false);
  for (size_t k = 0; k < n; ++k) out->values[k] = op.params[k].def;

  for (const std::string& arg : args) {
    const size_t eq = arg.find('=');
    if (eq == std::string::npos || eq == 0) {
      *error = "malformed parameter '" + arg + "': write name=value (" + ParamNames(op) + ")";
      return false;
    }
    const std::string name = arg.substr(0, eq), text = arg.substr(eq + 1);
    size_t k = 0;
    while (k < n && Lower(op.params[k].name) != Lower(name)) ++k;
    if (k == n) {
      *error = std::string(op.name) + " has no parameter '" + name + "'; " + ParamNames(op);
      return false;
    }
    const Param& p = op.params[k];
    if (out->given[k]) {
      *error = std::string("parameter ") + p.name + " is given twice";
      return false;
    }
    out->given[k] = true;
    double v = 0;
    switch (p.type) {
      case ParamType::Int:
        if (!ParseInt(text, &v)) {
          *error = std::string(p.name) + "='" + text + "' is not an integer";
          return false;
        }
        break;
      case ParamType::Float:
        if (!ParseFloat(text, &v)) {
          *error = std::string(p.name) + "='" + text + "' is not a number";
          return false;
        }
        break;
      case ParamType::Bool:
        if (!ParseBool(text, &v)) {
          *error = std::string(p.name) + "='" + text + "' is not 0 or 1 (or true/false)";
          return false;
        }
        break;
      case ParamType::Image:
        if (text.empty()) {
          *error = std::string(p.name) + " needs a file name";
          return false;
        }
        out->paths[k] = text;
        continue;
    }
    if (p.type != ParamType::Bool && (v < p.min || v > p.max)) {
      *error = std::string(p.name) + "=" + text + " is out of range: " + RangeText(p);
      return false;
    }
    out->values[k] = v;
  }
  for (size_t k = 0; k < n; ++k)
    if (need_images && op.params[k].type == ParamType::Image && op.params[k].def == 0 && !out->given[k]) {
      *error = std::string(op.name) + " needs a second image: " + op.params[k].name + "=FILE";
      return false;
    }
  return true;
}

}  // namespace qvtool
