// The collector's configuration parser over arbitrary files: the input is
// installed as the configuration file under a temporary root and parsed
// for both built-in instance names.

#include <stdint.h>

#include <string>

#include "config/config_parser.h"
#include "config/config_tree.h"
#include "fuzz/fuzz_support.h"

namespace {

std::string gPath;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  morvofuzz::Root().MakeDirs("/system/etc");
  gPath = morvofuzz::Root().Under(TavoCommon::kConfigFilePath);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  morvotest::WriteFile(gPath, std::string(reinterpret_cast<const char*>(data), size));
  for (const char* name : {TavoCommon::kKmsgInstance, TavoCommon::kChargeInstance}) {
    TavoCommon::TavocatInfoT info{};
    TavoConfig::ParseConfigFile(name, &info);
    TavoConfig::FreeConfigFile(&info);
  }
  return 0;
}
