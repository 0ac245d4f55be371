// tavocat-config: checks a collector configuration before it is deployed.
// Runs the collector's own path for an instance name (the parse in a child
// process, then the collector's own checks), on the installed file (under
// $MORVOCAT_ROOT) or on a file given on the command line, and prints the
// dump and messages on standard error and the verdict on standard output.

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "config/config_check.h"
#include "config/config_tree.h"
#include "config/parse_apart.h"
#include "config/tavo_common.h"
#include "platform/root_path.h"

namespace {

constexpr int kExitUsage = 2;

void PrintUsage(FILE* out) {
  fprintf(out,
          "usage: tavocat-config NAME [FILE]\n"
          "Parses the collector configuration of instance NAME from FILE, or from\n"
          "%s under $MORVOCAT_ROOT (the built-in instance when that file\n"
          "is absent), as the collector would on this platform and build. The dump\n"
          "and the parser's messages go to standard error; exit status 0 when the\n"
          "configuration is valid, 1 when it is not.\n",
          TavoCommon::kConfigFilePath);
}

int Check(const char* name, const char* path) {
  bool fromFile = access(path, F_OK) == 0;
  TavoCommon::TavocatInfoT info = {};
  int result = TavoConfig::ParseConfigFileApartAt(path, name, &info);
  // A file's tree is dumped by its validation; a built-in one is not.
  if (result == 0 && !fromFile) TavoConfig::PrintTavocatInfo(info);
  if (result == 0 && !TavoConfig::IsRunnableConfig(info)) result = 1;
  TavoConfig::FreeConfigFile(&info);
  if (fromFile) {
    printf("%s: %s configuration in %s\n", name, result == 0 ? "valid" : "no valid", path);
  } else {
    printf("%s: %s (%s is absent)\n", name,
           result == 0 ? "built-in configuration" : "no built-in configuration here", path);
  }
  return result == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0)) {
    PrintUsage(stdout);
    return 0;
  }
  if (argc < 2 || argc > 3 || argv[1][0] == '\0') {
    PrintUsage(stderr);
    return kExitUsage;
  }
  const char* name = argv[1];
  if (strlen(name) >= TavoCommon::kInstanceNameMax) {
    fprintf(stderr, "tavocat-config: the collector refuses names of %zu characters or more\n",
            TavoCommon::kInstanceNameMax);
    return kExitUsage;
  }
  platform::DevicePath installed = platform::ResolvePath(TavoCommon::kConfigFilePath);
  const char* path = argv[2];
  if (path == nullptr) {
    if (!installed.ok()) {
      fprintf(stderr, "tavocat-config: the configuration path is too long\n");
      return kExitUsage;
    }
    path = installed.c_str();
  } else if (access(path, F_OK) != 0) {
    fprintf(stderr, "tavocat-config: %s: no such file\n", path);
    return kExitUsage;
  }
  return Check(name, path);
}
