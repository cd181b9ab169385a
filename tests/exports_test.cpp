// The shared library exports exactly the functions the public header
// declares: nothing internal leaks out, nothing declared is missing.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

namespace {

std::set<std::string> DeclaredNames() {
  // A declaration starts its line with QV_API; the name is the word before '('.
  std::ifstream in(QV_PUBLIC_HEADER);
  std::set<std::string> names;
  const std::regex decl(R"(^\s*QV_API\s+[^;(]*?\b(\w+)\s*\()");
  std::string line;
  std::smatch m;
  while (std::getline(in, line))
    if (std::regex_search(line, m, decl)) names.insert(m[1]);
  return names;
}

std::set<std::string> ExportedNames() {
  std::set<std::string> names;
  const std::string cmd = std::string("nm -D --defined-only ") + QV_SHARED_LIBRARY;
  FILE* p = popen(cmd.c_str(), "r");
  if (p == nullptr) return names;
  char line[1024];
  while (fgets(line, sizeof line, p)) {
    std::istringstream ls(line);
    std::string addr, type, name;
    if (!(ls >> addr >> type >> name)) continue;
    if (type == "T" || type == "W" || type == "D" || type == "B" || type == "R" || type == "V") names.insert(name);
  }
  pclose(p);
  return names;
}

TEST(Exports, SharedLibraryExportsExactlyTheHeader) {
  const auto declared = DeclaredNames();
  const auto exported = ExportedNames();
  ASSERT_FALSE(declared.empty());
  ASSERT_FALSE(exported.empty()) << "nm found nothing in " << QV_SHARED_LIBRARY;
  for (const auto& n : declared) EXPECT_TRUE(exported.count(n)) << n << " is declared but not exported";
  for (const auto& n : exported) {
    const bool ours = n.rfind("QV_", 0) == 0 || n == "LaplacePyramidTest";
    EXPECT_TRUE(ours && declared.count(n)) << n << " is exported but not declared";
  }
}

}  // namespace
