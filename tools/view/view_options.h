#ifndef MORVOCAT_TOOLS_VIEW_VIEW_OPTIONS_H_
#define MORVOCAT_TOOLS_VIEW_VIEW_OPTIONS_H_

// morvo-view's command line.

#include <string>
#include <vector>

#include "tools/view/output.h"
#include "tools/view/record_filter.h"

namespace view {

struct ViewOptions {
  std::vector<std::string> paths;
  FilterOptions filter;
  OutputFormat format = OutputFormat::kThreadTime;
  bool list = false;
  bool help = false;
};

extern const char kUsage[];

// False with *error set on a malformed command line.
bool ParseViewOptions(int argc, char** argv, ViewOptions* options, std::string* error);

}  // namespace view

#endif  // MORVOCAT_TOOLS_VIEW_VIEW_OPTIONS_H_
