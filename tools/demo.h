// The gallery: every operator of the registry on a bundled photograph, with a
// contact sheet and an index page.
#pragma once

#include <string>

namespace qvtool {

// Writes the results, contact-sheet.png and index.html into outdir; input
// empty means the bundled sample. Returns the process exit code.
int RunDemo(const std::string& outdir, const std::string& input);

}  // namespace qvtool
