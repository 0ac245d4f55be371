#include "collector/event_labels.h"

#include <stddef.h>

namespace {

constexpr int kEvKey = 1;
constexpr int kEvAbs = 3;
constexpr int kAbsMtToolType = 55;

// Indexed by event type; types without names stay null.
const label* const kCodeTables[] = {
    kSynLabels, kKeyLabels, kRelLabels, kAbsLabels, kMscLabels, kSwLabels, nullptr, nullptr,
    nullptr,    nullptr,    nullptr,    nullptr,    nullptr,    nullptr,   nullptr, nullptr,
    nullptr,    kLedLabels, kSndLabels, nullptr,    kRepLabels, kFfLabels, nullptr, kFfStatusLabels,
};

}  // namespace

const label* GetCodeLabel(int type) {
  if (type < 0 || static_cast<size_t>(type) >= sizeof(kCodeTables) / sizeof(kCodeTables[0])) {
    return nullptr;
  }
  return kCodeTables[type];
}

const label* GetValueLabel(int type, int code) {
  if (type == kEvKey) return kKeyValueLabels;
  if (type == kEvAbs && code == kAbsMtToolType) return kMtToolLabels;
  return nullptr;
}

const char* MonitorGetLabel(const label* table, int32_t value) {
  if (table == nullptr) return nullptr;
  for (; table->name != nullptr; ++table) {
    if (table->value == value) return table->name;
  }
  return nullptr;
}
