#include "config/config_parser.h"

#include <stdlib.h>
#include <unistd.h>

#include <new>

#include "config/builtin_config.h"
#include "config/config_check.h"
#include "config/config_records.h"
#include "config/config_tree.h"
#include "config/group_parser.h"
#include "config/platform_check.h"
#include "config/xml_document.h"
#include "platform/root_path.h"

namespace TavoConfig {

using TavoCommon::FACTORY_WRITE;
using TavoCommon::kConfigFilePath;
using TavoCommon::kInstanceNameMax;
using TavoCommon::MMAP_WRITE;

int ParseConfigFile(const char* name, TavocatInfoT* info) {
  if (name == nullptr || info == nullptr) return 1;
  platform::DevicePath path = platform::ResolvePath(kConfigFilePath);
  if (!path.ok()) return 1;
  return ParseConfigFileAt(path.c_str(), name, info);
}

int ParseConfigFileAt(const char* path, const char* name, TavocatInfoT* info) {
  if (path == nullptr || name == nullptr || info == nullptr) return 1;
  // Only an absent file falls back to the built-in instances; a file that
  // exists but does not serve this name is a failure.
  if (access(path, F_OK) != 0) return ParseDefault(name, *info);
  ConfigDocument doc(path);
  const xmlNode* root = doc.root();
  return root != nullptr && ParseTavocatConfigs(root->children, name, info) == 0 ? 0 : 1;
}

int ParseTavocatConfigs(const xmlNode* first, const char* name, TavocatInfoT* info) {
  if (first == nullptr || name == nullptr || info == nullptr) return 1;
  const xmlNode* chosen = nullptr;
  ForEachElement(first, [&](const xmlNode* element) {
    if (chosen != nullptr || !IsElementNamed(element, "tavocat")) return;
    // One instance may have one entry per platform: a matching name on the
    // wrong platform is passed over.
    if (XmlAttr(element, "name").Is(name) && IsRightPlatform(element)) chosen = element;
  });
  return chosen != nullptr ? ParseTavocat(chosen, name, info) : 1;
}

int ParseTavocat(const xmlNode* element, const char* name, TavocatInfoT* info) {
  if (element == nullptr || name == nullptr || info == nullptr) return 1;
  if (CopyString(name, &info->name, kInstanceNameMax) != 0) return 1;
  ForEachElement(element->children, [info](const xmlNode* child) {
    if (IsElementNamed(child, "logRotateSizeKBytes")) {
      ParseXmlNodeSize(child, &info->rotateSizeKbytes);
    } else if (IsElementNamed(child, "maxCompressdFiles")) {
      ParseXmlNodeSize(child, &info->maxCompressdFiles);
    } else if (IsElementNamed(child, "writeMode")) {
      ParseXmlNodeWriteMode(child, info);
    } else if (IsElementNamed(child, "tavocatGroup")) {
      ParseXmlNodeTavocatGroup(child, info);
    }
  });
  return ValidateTavocatInfo(*info);
}

void ParseXmlNodeWriteMode(const xmlNode* element, TavocatInfoT* info) {
  if (element == nullptr || info == nullptr) return;
  info->writeMode = FACTORY_WRITE;
  if (IsFactoryVer() || IsChipsetVendorVer()) return;
  if (XmlAttr(element, "value").Is("mmap")) info->writeMode = MMAP_WRITE;
}

void ParseXmlNodeStr(const xmlNode* element, char** field) {
  if (element == nullptr || field == nullptr) return;
  XmlAttr value(element, "value");
  if (value.get() != nullptr) CopyString(value.get(), field);
}

void ParseXmlNodeSize(const xmlNode* element, size_t* field) {
  if (element == nullptr || field == nullptr) return;
  StoreNumber(XmlAttr(element, "value").get(), field);
}

void ParseXmlNodeStrList(const xmlNode* element, TavocatStrListT** head) {
  if (element == nullptr || head == nullptr) return;
  XmlAttr value(element, "value");
  if (value.get() == nullptr) return;
  auto* entry = new (std::nothrow) TavocatStrListT();
  if (entry == nullptr) return;
  if (CopyString(value.get(), &entry->str) != 0) {
    FreeStrList(entry);
    return;
  }
  AppendToList(*head, entry);
}

void StoreNumber(const char* text, size_t* field) {
  if (text == nullptr || field == nullptr) return;
  int number = atoi(text);
  if (number >= 0) *field = static_cast<size_t>(number);
}

}  // namespace TavoConfig
