#include "collector/tavocat_main.h"

#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/safe_string.h"

namespace {

constexpr unsigned long kCollectorKind = 2;
constexpr size_t kNameSize = 256;

}  // namespace

// The group runner is not part of this build yet: every start is refused
// after the checks of the arguments, so the reader's run ends.
int TavocatMain(unsigned long kind, const char* name, int argc, char** argv) {
  if (getuid() == 0) umask(022);
  if (name == nullptr) return -1;
  if (kind != kCollectorKind) {
    fprintf(stderr, "Main:Unrecognized Option\n");
    return -1;
  }
  char collectorName[kNameSize];
  memset_s(collectorName, sizeof(collectorName), 0, sizeof(collectorName));
  if (strcpy_s(collectorName, sizeof(collectorName), name) != 0) {
    fprintf(stderr, "Main:tavocatName strncpy_sp error!");
    return -1;
  }
  fprintf(stderr, "Main:collector [%s] is not available in this build\n", collectorName);
  return -1;
}
