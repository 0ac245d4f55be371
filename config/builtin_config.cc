#include "config/builtin_config.h"

#include <string.h>

#include <new>

#include "config/config_records.h"
#include "config/config_tree.h"
#include "config/platform_check.h"

namespace TavoConfig {

using TavoCommon::FACTORY_WRITE;
using TavoCommon::kBuiltinRotateSizeKbytes;
using TavoCommon::kChargeDataPath;
using TavoCommon::kChargeInstance;
using TavoCommon::kChargeMaxCompressdFiles;
using TavoCommon::kChargeOutputPath;
using TavoCommon::kChargePollingInterval;
using TavoCommon::kChargeTimeWidth;
using TavoCommon::kChargeTitlePath;
using TavoCommon::kDateTimePath;
using TavoCommon::kDateTimeTitle;
using TavoCommon::kGaugeDataPath;
using TavoCommon::kGaugeTitlePath;
using TavoCommon::kKmsgDataPath;
using TavoCommon::kKmsgInstance;
using TavoCommon::kKmsgMaxCompressdFiles;
using TavoCommon::kKmsgOutputPath;
using TavoCommon::MMAP_WRITE;
using TavoCommon::MONITOR_NODE;
using TavoCommon::POLL_NODE;

namespace {

bool IsName(const char* name, const char* instance) {
  return name != nullptr && strcmp(name, instance) == 0;
}

// Makes a node and only then links it in front of head, so the list never
// holds a half-made node; on failure frees the whole list.
int PushNode(TavocatInputNodeSetT*& head, const char* dataPath, const char* titlePath,
             size_t width) {
  auto* node = new (std::nothrow) TavocatInputNodeSetT();
  bool made = node != nullptr && CopyString(dataPath, &node->dataPath) == 0 &&
              (titlePath == nullptr || CopyString(titlePath, &node->titlePath) == 0);
  if (!made) {
    FreeInputNodeSet(node);
    FreeInputNodeList(head);
    return 1;
  }
  node->width = width;
  node->next = head;
  head = node;
  return 0;
}

}  // namespace

int ParseDefault(const char* name, TavocatInfoT& info) {
  if (name == nullptr || IsRecoveryMode()) return 1;
  TavocatGroupT* group = GenerateTavocatGroup(name);
  if (group == nullptr) return 1;
  group->info = &info;
  if (group->inputSet == nullptr || ParseTavocatInfo(info, name) != 0) {
    FreeLogcatGroup(group);
    return 1;
  }
  info.groups = group;
  return 0;
}

TavocatGroupT* GenerateTavocatGroup(const char* name) {
  if (name == nullptr) return nullptr;
  auto* group = new (std::nothrow) TavocatGroupT();
  if (group == nullptr) return nullptr;
  const char* outputPath = nullptr;
  if (IsName(name, kKmsgInstance)) {
    group->style = MONITOR_NODE;
    outputPath = kKmsgOutputPath;
  } else if (IsName(name, kChargeInstance)) {
    group->style = POLL_NODE;
    group->pollingInterval = kChargePollingInterval;
    outputPath = kChargeOutputPath;
  }
  if (outputPath == nullptr || CopyString(outputPath, &group->outputFilePath) != 0) {
    FreeLogcatGroup(group);
    return nullptr;
  }
  group->inputSet = GenerateTavocatInputNodeSet(name);
  return group;
}

TavocatInputNodeSetT* GenerateTavocatInputNodeSet(const char* name) {
  TavocatInputNodeSetT* head = nullptr;
  if (IsName(name, kKmsgInstance)) {
    ParseKmsgcatNodeSet(head);
  } else if (IsName(name, kChargeInstance)) {
    ParseChargelogcatNodeSet(head);
  }
  return head;
}

int ParseTavocatInfo(TavocatInfoT& info, const char* name) {
  if (IsName(name, kKmsgInstance)) {
    info.maxCompressdFiles = kKmsgMaxCompressdFiles;
    info.writeMode = IsFactoryVer() || IsChipsetVendorVer() ? FACTORY_WRITE : MMAP_WRITE;
  } else if (IsName(name, kChargeInstance)) {
    info.maxCompressdFiles = kChargeMaxCompressdFiles;
    info.writeMode = FACTORY_WRITE;
  } else {
    return 1;
  }
  info.rotateSizeKbytes = kBuiltinRotateSizeKbytes;
  return CopyString(name, &info.name);
}

int ParseKmsgcatNodeSet(TavocatInputNodeSetT*& head) {
  return PushNode(head, kKmsgDataPath, nullptr, 0);
}

int ParseChargelogcatNodeSet(TavocatInputNodeSetT*& head) {
  // Pushed at the front, so the list reads time, gauge, charge.
  if (PushNode(head, kChargeDataPath, kChargeTitlePath, 0) != 0) return 1;
  if (PushNode(head, kGaugeDataPath, kGaugeTitlePath, 0) != 0) return 1;
  return PushNode(head, kDateTimePath, kDateTimeTitle, kChargeTimeWidth);
}

}  // namespace TavoConfig
