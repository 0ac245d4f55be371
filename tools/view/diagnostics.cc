#include "tools/view/diagnostics.h"

#include <stdio.h>

namespace view {

namespace {

bool failed = false;

}  // namespace

void Warn(const std::string& path, const std::string& what) {
  fprintf(stderr, "morvo-view: %s: %s\n", path.c_str(), what.c_str());
}

void Fail(const std::string& path, const std::string& what) {
  failed = true;
  Warn(path, what);
}

bool AnyFailed() { return failed; }

}  // namespace view
