// The quelvin command: lists the operators, runs one on an image file,
// describes an image file, or renders the gallery of every operator.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "demo.h"
#include "image_io.h"
#include "params.h"
#include "registry.h"

namespace {

using namespace qvtool;

// Exit codes: the library's refusal, the user's mistake, the file system's.
constexpr int kExitStatus = 1, kExitUsage = 2, kExitFile = 3;

void Usage(FILE* out) {
  std::fprintf(out,
               "usage: quelvin list [OPERATOR]\n"
               "       quelvin info IN\n"
               "       quelvin OPERATOR IN OUT [name=value ...]   (measuring operators take no OUT)\n"
               "       quelvin demo [OUTDIR] [--input=FILE]\n"
               "\n"
               "options: --channels=N  read IN as 1, 3 or 4 channels (gray, BGR, BGRA)\n"
               "         --quality=N   JPEG quality of OUT, 1..100 (default 95)\n"
               "         --repeat=N    run N times and report the fastest, 1..1000\n"
               "         --force       call the operator even with a channel count it refuses\n"
               "                       (to see the library's own status)\n"
               "\n"
               "Images are read as PNG, JPEG, BMP or TGA and written by OUT's extension\n"
               "(.png, .jpg; also .bmp, .tga). Operator names are matched without regard to\n"
               "case, with or without the QV_ prefix.\n"
               "exit status: 0 done, 1 the library returned a failure status, 2 bad command\n"
               "line or unsupported image, 3 a file could not be read or written\n");
}

int Fail(int code, const std::string& message) {
  std::fprintf(stderr, "quelvin: %s\n", message.c_str());
  return code;
}

std::string ChannelList(const char* channels) {
  std::string s;
  for (const char* p = channels; *p; ++p) s += std::string(s.empty() ? "" : ",") + *p;
  return s;
}

void PrintOperator(const Operator& op) {
  std::printf("  %-34s channels %-6s %s%s\n", op.name, ChannelList(op.channels).c_str(), op.help,
              op.output == Output::Measure ? " (measures; no OUT)" : "");
  for (const Param& p : op.params) {
    const std::string def = p.type != ParamType::Image ? "default " + ValueText(p, p.def)
                            : p.def != 0               ? "optional"
                                                       : "required";
    std::printf("      %-18s %-5s %-14s %-14s %s\n", p.name, TypeName(p.type).c_str(), RangeText(p).c_str(),
                def.c_str(), p.help);
  }
}

int List(const std::vector<std::string>& pos) {
  if (pos.size() > 2) return Fail(kExitUsage, "list takes at most one operator name");
  if (pos.size() == 2) {
    const Operator* op = FindOperator(pos[1]);
    if (op == nullptr) return Fail(kExitUsage, "unknown operator '" + pos[1] + "' (see: quelvin list)");
    std::printf("%s\n", op->family);
    PrintOperator(*op);
    return 0;
  }
  std::string family;
  for (const Operator& op : Registry()) {
    if (family != op.family) {
      family = op.family;
      std::printf("%s\n", family.c_str());
    }
    PrintOperator(op);
  }
  return 0;
}

int Info(const std::vector<std::string>& pos, int channels) {
  if (pos.size() != 2) return Fail(kExitUsage, "usage: quelvin info IN");
  std::string error;
  FileInfo fi;
  if (!ProbeImage(pos[1], &fi, &error)) return Fail(kExitFile, error);
  Image im;
  if (!ReadImage(pos[1], channels, &im, &error)) return Fail(kExitFile, error);
  static const char* kFileLayout[] = {"", "gray", "gray+alpha", "RGB", "RGBA"};
  static const char* kLibLayout[] = {"", "gray", "", "BGR", "BGRA"};
  std::printf("file:      %s\n", pos[1].c_str());
  std::printf("format:    %s, %s\n", fi.format.c_str(), kFileLayout[fi.FileChannel]);
  std::printf("size:      %d x %d\n", im.Width, im.Height);
  std::printf("library:   %d channels (%s), Stride %d\n", im.Channel, kLibLayout[im.Channel], im.Stride());
  // Per-sample statistics in the file's order (the library holds blue first),
  // and a checksum of the samples as the library sees them.
  static const char* kNames[] = {"R", "G", "B", "A"};
  for (int k = 0; k < im.Channel; ++k) {
    const int lane = im.Channel == 1 ? 0 : k < 3 ? 2 - k : 3;
    int lo = 255, hi = 0;
    double sum = 0;
    for (size_t i = lane; i < im.data.size(); i += im.Channel) {
      const int v = im.data[i];
      lo = v < lo ? v : lo;
      hi = v > hi ? v : hi;
      sum += v;
    }
    const std::string name = std::string(im.Channel == 1 ? "gray" : kNames[k]) + ":";
    std::printf("%-10s min %3d  mean %7.3f  max %3d\n", name.c_str(), lo, sum / (double(im.Width) * im.Height), hi);
  }
  uint32_t h = 2166136261u;  // FNV-1a over the samples in the library's order
  for (unsigned char v : im.data) h = (h ^ v) * 16777619u;
  std::printf("checksum:  %08x\n", h);
  return 0;
}

int Run(const Operator& op, const std::vector<std::string>& pos, int channels, int quality, int repeat, bool force) {
  const bool measure = op.output == Output::Measure;
  const size_t first_param = measure ? 2 : 3;
  if (pos.size() < first_param) {
    return Fail(kExitUsage,
                std::string("usage: quelvin ") + op.name + (measure ? " IN" : " IN OUT") + " [name=value ...]");
  }
  const std::string in = pos[1], out = measure ? "" : pos[2];
  if (!measure && out.find('=') != std::string::npos && pos.size() == 3)
    return Fail(kExitUsage, std::string(op.name) + " writes an image: give OUT before the parameters");

  if (!measure && !WritableName(out))
    return Fail(kExitUsage, "cannot tell the output format of " + out + ": name it .png or .jpg (or .bmp, .tga)");
  ParsedParams pp;
  std::string error;
  if (!ParseParams(op, std::vector<std::string>(pos.begin() + first_param, pos.end()), &pp, &error))
    return Fail(kExitUsage, error);

  Image src;
  if (!ReadImage(in, channels, &src, &error)) return Fail(kExitFile, error);
  if (!force && !AcceptsChannel(op, src.Channel)) {
    return Fail(kExitUsage, std::string(op.name) + " does not accept " + std::to_string(src.Channel) +
                                "-channel images (it takes " + ChannelList(op.channels) + "); " + in + " reads as " +
                                std::to_string(src.Channel) + ": add --channels=" + op.channels[0] + " to convert it");
  }
  std::vector<Image> images(op.params.size());
  for (size_t k = 0; k < op.params.size(); ++k) {
    if (op.params[k].type != ParamType::Image || !pp.given[k]) continue;
    const int like_in = op.params[k].min == 0;
    if (!ReadImage(pp.paths[k], like_in ? src.Channel : int(op.params[k].min), &images[k], &error))
      return Fail(kExitFile, error);
    if (like_in && (images[k].Width != src.Width || images[k].Height != src.Height))
      return Fail(kExitUsage, std::string(op.params[k].name) + " must be " + std::to_string(src.Width) + " x " +
                                  std::to_string(src.Height) + " like IN");
  }

  const RunResult r = RunOperator(op, src, pp.values, images, repeat);
  if (!r.refusal.empty()) return Fail(kExitUsage, std::string(op.name) + ": " + r.refusal);
  std::printf("%s: %s (%d) in %.3f ms%s%s\n", op.name, StatusName(r.status), r.status, r.ms,
              repeat > 1 ? " (fastest of " : "", repeat > 1 ? (std::to_string(repeat) + ")").c_str() : "");
  if (r.status != 0) return kExitStatus;
  if (!r.result.empty()) std::printf("%s\n", r.result.c_str());
  if (!measure) {
    if (!WriteImage(out, r.dest, quality, &error)) return Fail(kExitFile, error);
    std::printf("wrote %s (%d x %d, %d channels)\n", out.c_str(), r.dest.Width, r.dest.Height, r.dest.Channel);
  }
  return 0;
}

// Reads "--name=value" or "--name value" as an integer in [lo, hi].
bool IntOption(const std::vector<std::string>& args, size_t* i, const std::string& name, int lo, int hi, int* v,
               std::string* error) {
  const std::string& a = args[*i];
  std::string text;
  if (a == "--" + name) {
    if (*i + 1 >= args.size()) return *error = "--" + name + " needs a value", false;
    text = args[++*i];
  } else {
    text = a.substr(name.size() + 3);
  }
  char* end = nullptr;
  const long n = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || n < lo || n > hi) {
    *error = "--" + name + "=" + text + " must be an integer in " + std::to_string(lo) + ".." + std::to_string(hi);
    return false;
  }
  *v = int(n);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc), pos;
  int channels = 0, quality = 95, repeat = 1;
  bool force = false;
  std::string input, error;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto is = [&](const char* name) {
      return a == std::string("--") + name || a.rfind(std::string("--") + name + "=", 0) == 0;
    };
    if (a == "-h" || a == "--help" || a == "help") {
      Usage(stdout);
      return 0;
    } else if (is("channels")) {
      if (!IntOption(args, &i, "channels", 1, 4, &channels, &error)) return Fail(kExitUsage, error);
      if (channels == 2) return Fail(kExitUsage, "--channels must be 1, 3 or 4");
    } else if (is("quality")) {
      if (!IntOption(args, &i, "quality", 1, 100, &quality, &error)) return Fail(kExitUsage, error);
    } else if (is("repeat")) {
      if (!IntOption(args, &i, "repeat", 1, 1000, &repeat, &error)) return Fail(kExitUsage, error);
    } else if (a == "--force") {
      force = true;
    } else if (is("input")) {
      if (a == "--input") {
        if (i + 1 >= args.size()) return Fail(kExitUsage, "--input needs a file name");
        input = args[++i];
      } else {
        input = a.substr(8);
      }
    } else if (a.size() > 1 && a[0] == '-' && a.find('=') == std::string::npos && a != "-") {
      return Fail(kExitUsage, "unknown option " + a + " (see: quelvin --help)");
    } else {
      pos.push_back(a);
    }
  }
  if (pos.empty()) {
    Usage(stderr);
    return kExitUsage;
  }
  const std::string& cmd = pos[0];
  if (cmd == "list") return List(pos);
  if (cmd == "info") return Info(pos, channels);
  if (cmd == "demo") {
    if (pos.size() > 2) return Fail(kExitUsage, "usage: quelvin demo [OUTDIR] [--input=FILE]");
    return RunDemo(pos.size() == 2 ? pos[1] : "demo", input);
  }
  const Operator* op = FindOperator(cmd);
  if (op == nullptr) return Fail(kExitUsage, "unknown operator '" + cmd + "' (see: quelvin list)");
  return Run(*op, pos, channels, quality, repeat, force);
}
