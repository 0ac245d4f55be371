#include "config/platform_check.h"

#include <string.h>

#include "config/xml_document.h"
#include "platform/properties.h"

namespace TavoConfig {

namespace {

// Whole-value comparison: a value with anything appended does not match.
bool PropertyIs(const char* key, const char* expected) {
  char value[PROPERTY_VALUE_MAX] = {};
  property_get(key, value, "");
  return strcmp(value, expected) == 0;
}

struct PlatformRule {
  const char* substrings[2];
  const char* platform;
};

// Tested in order; the first rule that finds one of its substrings decides.
constexpr PlatformRule kPlatformRules[] = {
    {{"ze", "zu"}, "Zeru"},
    {{"qcom", nullptr}, "Qcom"},
    {{"mt", nullptr}, "Mtk"},
};

}  // namespace

bool IsFactoryVer() { return PropertyIs("ro.runmode", "factory"); }

bool IsChipsetVendorVer() {
  return PropertyIs("ro.build.type", "eng") && PropertyIs("ro.build.version.ovra", "");
}

bool IsRecoveryMode() { return PropertyIs("init.svc.recovery", "running"); }

std::string GetPlatformInfo() {
  char hardware[PROPERTY_VALUE_MAX] = {};
  property_get("ro.hardware", hardware, "");
  if (strlen(hardware) < 2) return "";
  for (const PlatformRule& rule : kPlatformRules) {
    for (const char* sub : rule.substrings) {
      if (sub != nullptr && strstr(hardware, sub) != nullptr) return rule.platform;
    }
  }
  return "";
}

bool IsRightPlatform(const xmlNode* element) {
  if (element == nullptr) return false;
  XmlAttr platforms(element, "platform");
  if (platforms.get() == nullptr) return false;
  std::string platform = GetPlatformInfo();
  return platform.empty() || strstr(platforms.get(), platform.c_str()) != nullptr;
}

}  // namespace TavoConfig
