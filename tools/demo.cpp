// The gallery: runs each registered operator with its gallery parameters on a
// sample photograph, writes every result, a contact sheet of labelled
// thumbnails drawn with a small vector font, and an HTML index.
#include "demo.h"

#include <stb_easy_font.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "image_io.h"
#include "params.h"
#include "registry.h"

namespace qvtool {

namespace {

namespace fs = std::filesystem;

struct Shot {
  const Operator* op = nullptr;
  std::string params;  // as shown: the gallery's name=value list
  std::string file;    // result file name, empty if it failed or measures
  int status = 0;
  double ms = 0;
  std::string result;  // measuring operators
  std::string input;   // which form of the sample it was given
  std::string refusal;
  Image thumb;
};

// The samples directory: the source tree's when run from a build tree, the
// installed one, else ./samples.
std::string FindSample(const char* name) {
  std::vector<std::string> dirs;
#ifdef QV_SAMPLES_DIR
  dirs.push_back(QV_SAMPLES_DIR);
#endif
#ifdef QV_INSTALLED_SAMPLES_DIR
  dirs.push_back(QV_INSTALLED_SAMPLES_DIR);
#endif
  dirs.push_back("samples");
  for (const std::string& d : dirs)
    if (fs::exists(fs::path(d) / name)) return (fs::path(d) / name).string();
  return "";
}

// ---- drawing ---------------------------------------------------------------

struct Rgb {
  unsigned char r, g, b;
};

void FillRect(Image& c, int x0, int y0, int x1, int y1, Rgb col) {
  x0 = std::max(x0, 0), y0 = std::max(y0, 0), x1 = std::min(x1, c.Width), y1 = std::min(y1, c.Height);
  for (int y = y0; y < y1; ++y)
    for (int x = x0; x < x1; ++x) {
      unsigned char* p = c.ptr() + size_t(y) * c.Stride() + size_t(x) * 3;
      p[0] = col.b, p[1] = col.g, p[2] = col.r;
    }
}

int TextWidth(const std::string& s, int scale) {
  stb_easy_font_spacing(scale == 1 ? 0.5f : 0);
  return stb_easy_font_width(const_cast<char*>(s.c_str())) * scale;
}

void DrawText(Image& c, int x, int y, const std::string& s, int scale, Rgb col) {
  static float buf[4 * 4 * 4000];                // ~270 bytes a character; labels are short
  stb_easy_font_spacing(scale == 1 ? 0.5f : 0);  // the small print needs air
  const int quads = stb_easy_font_print(0, 0, const_cast<char*>(s.c_str()), nullptr, buf, sizeof buf);
  for (int q = 0; q < quads; ++q) {
    const float* v = buf + q * 16;  // four vertices of x, y, z, colour
    const int qx0 = int(v[0]), qy0 = int(v[1]), qx1 = int(v[8]), qy1 = int(v[9]);
    FillRect(c, x + qx0 * scale, y + qy0 * scale, x + qx1 * scale, y + qy1 * scale, col);
  }
}

// Shortens a label to fit, marking the cut.
std::string Fit(const std::string& s, int scale, int width) {
  if (TextWidth(s, scale) <= width) return s;
  std::string t = s;
  while (!t.empty() && TextWidth(t + "..", scale) > width) t.pop_back();
  return t + "..";
}

// Splits a long CamelCase name into two lines at the capital nearest its middle.
std::vector<std::string> NameLines(const std::string& name, int scale, int width) {
  if (TextWidth(name, scale) <= width) return {name};
  size_t best = 0;
  for (size_t i = 1; i < name.size(); ++i) {
    const bool cut = std::isupper(static_cast<unsigned char>(name[i])) || name[i] == '_';
    if (cut && (best == 0 || std::abs(int(2 * i) - int(name.size())) < std::abs(int(2 * best) - int(name.size()))))
      best = i;
  }
  if (best == 0) return {Fit(name, scale, width)};
  const size_t rest = name[best] == '_' ? best + 1 : best;
  return {Fit(name.substr(0, best), scale, width), Fit(name.substr(rest), scale, width)};
}

void Blit(Image& c, const Image& im, int x, int y) {
  const Image rgb = ConvertChannels(im, 3);
  for (int r = 0; r < rgb.Height; ++r) {
    if (y + r < 0 || y + r >= c.Height) continue;
    for (int k = 0; k < rgb.Width; ++k) {
      if (x + k < 0 || x + k >= c.Width) continue;
      const unsigned char* s = rgb.ptr() + size_t(r) * rgb.Stride() + size_t(k) * 3;
      unsigned char* d = c.ptr() + size_t(y + r) * c.Stride() + size_t(x + k) * 3;
      d[0] = s[0], d[1] = s[1], d[2] = s[2];
    }
  }
}

Image Thumbnail(const Image& im, int box_w, int box_h) {
  const double s = std::min(double(box_w) / im.Width, double(box_h) / im.Height);
  const int w = std::max(1, int(im.Width * s + 0.5)), h = std::max(1, int(im.Height * s + 0.5));
  return ResizeImage(ConvertChannels(im, im.Channel == 4 ? 3 : im.Channel), w, h);
}

// ---- layout ----------------------------------------------------------------

constexpr int kColumns = 5, kThumbW = 240, kThumbH = 160, kPad = 12;
constexpr int kCellW = kThumbW + 2 * kPad, kCellH = kThumbH + 92;
constexpr int kMargin = 24, kTitleH = 84, kFamilyH = 34;
const Rgb kBackground{28, 30, 34}, kCell{44, 47, 53}, kText{236, 236, 236}, kDim{150, 156, 166}, kAccent{242, 166, 60},
    kBad{235, 90, 80};

void DrawCell(Image& sheet, int x, int y, const Shot& s) {
  FillRect(sheet, x, y, x + kCellW - 8, y + kCellH - 8, kCell);
  const int tx = x + kPad - 4 + (kThumbW - s.thumb.Width) / 2, ty = y + kPad - 4 + (kThumbH - s.thumb.Height) / 2;
  if (!s.thumb.empty()) Blit(sheet, s.thumb, tx, ty);
  const int label_x = x + kPad - 4, label_y = y + kPad - 4 + kThumbH + 8, text_w = kThumbW;
  const std::vector<std::string> lines = NameLines(s.op ? s.op->name : "original", 2, text_w);
  for (size_t k = 0; k < lines.size(); ++k) DrawText(sheet, label_x, label_y + int(k) * 18, lines[k], 2, kText);
  std::string sub = s.params;
  if (s.status != 0)
    sub = s.refusal.empty() ? StatusName(s.status) : s.refusal;
  else if (!s.result.empty())
    sub = s.result;
  if (s.status == 0 && s.op) {
    char ms[32];
    std::snprintf(ms, sizeof ms, "%.2f ms", s.ms);
    sub = sub.empty() ? ms : sub + "  " + ms;
  }
  // The small print wraps at spaces; three label lines in all, the last one cut.
  std::vector<std::string> subs;
  std::istringstream words(sub);
  for (std::string w; words >> w;) {
    if (!subs.empty() && TextWidth(subs.back() + " " + w, 2) <= text_w)
      subs.back() += " " + w;
    else
      subs.push_back(w);
  }
  const size_t room = 3 - lines.size();
  if (subs.size() > room) {
    subs.resize(room);
    subs.back() += " ..";
  }
  const Rgb colour = s.status != 0 ? kBad : kDim;
  for (size_t k = 0; k < subs.size(); ++k)
    DrawText(sheet, label_x, label_y + int(lines.size()) * 18 + 2 + int(k) * 16, Fit(subs[k], 2, text_w), 2, colour);
}

Image ContactSheet(const std::string& title, const std::string& subtitle, const Shot& original,
                   const std::vector<Shot>& shots) {
  // Families in registry order, each starting a new row under its heading.
  std::vector<std::string> families;
  for (const Shot& s : shots)
    if (std::find(families.begin(), families.end(), s.op->family) == families.end()) families.push_back(s.op->family);
  int height = kMargin + kTitleH + kCellH;
  for (const std::string& f : families) {
    const int n = int(std::count_if(shots.begin(), shots.end(), [&](const Shot& s) { return s.op->family == f; }));
    height += kFamilyH + ((n + kColumns - 1) / kColumns) * kCellH;
  }
  height += kMargin;
  Image sheet = MakeImage(2 * kMargin + kColumns * kCellW - 8, height, 3);
  FillRect(sheet, 0, 0, sheet.Width, sheet.Height, kBackground);
  DrawText(sheet, kMargin, kMargin, title, 3, kText);
  DrawText(sheet, kMargin, kMargin + 42, subtitle, 2, kDim);
  int y = kMargin + kTitleH;
  DrawCell(sheet, kMargin, y, original);
  y += kCellH;
  for (const std::string& f : families) {
    DrawText(sheet, kMargin, y + 8, f, 2, kAccent);
    FillRect(sheet, kMargin, y + kFamilyH - 8, sheet.Width - kMargin, y + kFamilyH - 6, kAccent);
    y += kFamilyH;
    int k = 0;
    for (const Shot& s : shots) {
      if (s.op->family != f) continue;
      DrawCell(sheet, kMargin + (k % kColumns) * kCellW, y + (k / kColumns) * kCellH, s);
      ++k;
    }
    y += ((k + kColumns - 1) / kColumns) * kCellH;
  }
  return sheet;
}

// ---- index page ------------------------------------------------------------

std::string Html(const std::string& s) {
  std::string out;
  for (char ch : s) {
    if (ch == '<')
      out += "&lt;";
    else if (ch == '>')
      out += "&gt;";
    else if (ch == '&')
      out += "&amp;";
    else if (ch == '"')
      out += "&quot;";
    else
      out += ch;
  }
  return out;
}

std::string IndexPage(const std::string& sample, const std::vector<Shot>& shots) {
  std::ostringstream h;
  h << "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>Quelvin operators</title>\n"
    << "<style>body{font-family:sans-serif;background:#1c1e22;color:#ececec;margin:2em}"
    << "h2{color:#f2a63c;border-bottom:2px solid #f2a63c}a{color:#9cc4ff}"
    << ".grid{display:flex;flex-wrap:wrap;gap:14px}figure{background:#2c2f35;margin:0;padding:10px;width:300px}"
    << "figure img{max-width:300px;max-height:220px;display:block;margin:auto}figcaption{font-size:13px}"
    << "figcaption b{font-size:15px}.dim{color:#969ca6}.bad{color:#eb5a50}code{color:#e0e0e0}</style></head><body>\n"
    << "<h1>Quelvin operators</h1>\n<p>Every operator of <code>quelvin list</code> on <code>" << Html(sample)
    << "</code>, with the parameters shown. <a href=\"contact-sheet.png\">Contact sheet</a>.</p>\n"
    << "<figure><a href=\"original.png\"><img src=\"original.png\" alt=\"original\"></a>"
    << "<figcaption><b>original</b></figcaption></figure>\n";
  std::string family;
  for (const Shot& s : shots) {
    if (family != s.op->family) {
      if (!family.empty()) h << "</div>\n";
      family = s.op->family;
      h << "<h2>" << Html(family) << "</h2>\n<div class=\"grid\">\n";
    }
    h << "<figure>";
    if (!s.file.empty())
      h << "<a href=\"" << s.file << "\"><img src=\"" << s.file << "\" alt=\"" << s.op->name << "\"></a>";
    h << "<figcaption><b>QV_" << Html(s.op->name) << "</b><br>" << Html(s.op->help) << "<br><span class=\"dim\">"
      << Html(s.input) << (s.params.empty() ? "" : ", <code>" + Html(s.params) + "</code>") << "</span><br>";
    if (s.status != 0) {
      h << "<span class=\"bad\">" << (s.refusal.empty() ? StatusName(s.status) : Html(s.refusal)) << " (" << s.status
        << ")</span>";
    } else {
      char ms[32];
      std::snprintf(ms, sizeof ms, "%.3f ms", s.ms);
      h << "<span class=\"dim\">" << ms << "</span>";
      if (!s.result.empty()) h << "<br><b>" << Html(s.result) << "</b>";
    }
    h << "</figcaption></figure>\n";
  }
  if (!family.empty()) h << "</div>\n";
  h << "</body></html>\n";
  return h.str();
}

}  // namespace

int RunDemo(const std::string& outdir, const std::string& input) {
  std::string error;
  const std::string sample = input.empty() ? FindSample("cat.jpg") : input;
  if (sample.empty()) {
    std::fprintf(stderr, "quelvin: cannot find the bundled sample (samples/cat.jpg); give --input=FILE\n");
    return 3;
  }
  Image color, second;
  if (!ReadImage(sample, 3, &color, &error)) return std::fprintf(stderr, "quelvin: %s\n", error.c_str()), 3;
  // Two-image operators get a second photograph of the same size.
  const std::string other = FindSample("coffee.jpg");
  if (other.empty() || other == sample || !ReadImage(other, 3, &second, &error)) {
    second = color;
    for (int y = 0; y < second.Height; ++y)  // mirrored, when there is no second sample
      for (int x = 0; x < second.Width; ++x)
        for (int k = 0; k < 3; ++k)
          second.data[(size_t(y) * second.Width + x) * 3 + k] =
              color.data[(size_t(y) * color.Width + (color.Width - 1 - x)) * 3 + k];
  }
  second = ResizeImage(second, color.Width, color.Height);
  const Image gray = ConvertChannels(color, 1), bgra = ConvertChannels(color, 4);
  Image binary = gray;
  for (unsigned char& v : binary.data) v = v >= 128 ? 255 : 0;

  std::error_code ec;
  fs::create_directories(outdir, ec);
  if (ec || !fs::is_directory(outdir)) {
    std::fprintf(stderr, "quelvin: cannot create %s: %s\n", outdir.c_str(), ec.message().c_str());
    return 3;
  }
  const fs::path dir(outdir);
  if (!WriteImage((dir / "original.png").string(), color, 95, &error))
    return std::fprintf(stderr, "quelvin: %s\n", error.c_str()), 3;

  std::vector<Shot> shots;
  int failed = 0;
  for (const Operator& op : Registry()) {
    Shot s;
    s.op = &op;
    const Image* src = &color;
    s.input = "colour";
    if (op.binary_input && AcceptsChannel(op, 1)) {
      src = &binary, s.input = "two-level gray";
    } else if (!AcceptsChannel(op, 3)) {
      if (AcceptsChannel(op, 1))
        src = &gray, s.input = "gray";
      else
        src = &bgra, s.input = "BGRA";
    }
    std::vector<std::string> args;
    std::istringstream demo(op.demo);
    for (std::string a; demo >> a;) args.push_back(a);
    ParsedParams pp;
    if (!ParseParams(op, args, &pp, &error, false)) {
      std::fprintf(stderr, "quelvin: gallery parameters of %s: %s\n", op.name, error.c_str());
      return 2;
    }
    s.params = op.demo;
    std::vector<Image> images(op.params.size());
    for (size_t k = 0; k < op.params.size(); ++k)
      if (op.params[k].type == ParamType::Image && op.params[k].def == 0)
        images[k] = ConvertChannels(second, src->Channel);
    const RunResult r = RunOperator(op, *src, pp.values, images);
    s.status = r.status;
    s.ms = r.ms;
    s.result = r.result;
    s.refusal = r.refusal;
    std::printf("%-34s %-26s %9.3f ms  %s\n", op.name, StatusName(r.status), r.ms,
                (r.refusal.empty() ? r.result : r.refusal).c_str());
    if (r.status != 0) {
      ++failed;
    } else if (op.output == Output::Image || r.illustrated) {
      s.file = std::string(op.name) + ".png";
      if (!WriteImage((dir / s.file).string(), r.dest, 95, &error))
        return std::fprintf(stderr, "quelvin: %s\n", error.c_str()), 3;
      s.thumb = Thumbnail(r.dest, kThumbW, kThumbH);
    }
    shots.push_back(std::move(s));
  }

  Shot original;
  original.thumb = Thumbnail(color, kThumbW, kThumbH);
  original.params =
      fs::path(sample).filename().string() + ", " + std::to_string(color.Width) + " x " + std::to_string(color.Height);
  const std::string title =
      "Quelvin: " + std::to_string(shots.size()) + (shots.size() == 1 ? " operator" : " operators");
  const std::string subtitle = "time per call on this image; full-size results in index.html";
  const Image sheet = ContactSheet(title, subtitle, original, shots);
  if (!WriteImage((dir / "contact-sheet.png").string(), sheet, 95, &error))
    return std::fprintf(stderr, "quelvin: %s\n", error.c_str()), 3;
  std::ofstream html(dir / "index.html");
  html << IndexPage(fs::path(sample).filename().string(), shots);
  if (!html) return std::fprintf(stderr, "quelvin: cannot write %s\n", (dir / "index.html").c_str()), 3;

  std::printf("%zu operator%s, %d failed; wrote %s and %s\n", shots.size(), shots.size() == 1 ? "" : "s", failed,
              (dir / "contact-sheet.png").c_str(), (dir / "index.html").c_str());
  return failed ? 1 : 0;
}

}  // namespace qvtool
