#include "config/config_check.h"

#include <stdio.h>

#include "config/config_records.h"

namespace TavoConfig {

using TavoCommon::COND_TRIGGER;
using TavoCommon::MONITOR_DIR;
using TavoCommon::POLL_CMD;

namespace {

const char* Shown(const char* str) { return str != nullptr ? str : "nullptr"; }

bool IsValidGroup(const TavocatGroupT& group) {
  if (group.outputFilePath == nullptr || group.inputSet == nullptr) return false;
  if (IsNodeStyle(group.style)) {
    return IsValidNodeSet(static_cast<const TavocatInputNodeSetT*>(group.inputSet));
  }
  if (group.style == MONITOR_DIR) {
    return IsValidDirSet(static_cast<const TavocatInputDirSetT*>(group.inputSet));
  }
  if (group.style == POLL_CMD) {
    return IsValidCmdSet(static_cast<const TavocatInputCmdSetT*>(group.inputSet));
  }
  return false;
}

void PrintGroup(const TavocatGroupT& group) {
  fprintf(stderr, "~~~~~~ TavocatGroup begin ~~~~~~\n");
  fprintf(stderr, "pollingInterval   : %zu\n", group.pollingInterval);
  fprintf(stderr, "failureRetry      : %zu\n", group.failureRetry);
  fprintf(stderr, "condition index   : %zu\n", group.condIndex);
  fprintf(stderr, "style             : %zu\n", static_cast<size_t>(group.style));
  fprintf(stderr, "outputFilePath    : %s\n", Shown(group.outputFilePath));
  if (IsNodeStyle(group.style)) {
    PrintTavocatInfoNodeAndTrigger(static_cast<const TavocatInputNodeSetT*>(group.inputSet));
  } else if (group.style == MONITOR_DIR) {
    PrintTavocatInfoDir(static_cast<const TavocatInputDirSetT*>(group.inputSet));
  } else if (group.style == POLL_CMD) {
    PrintTavocatInfoCmd(static_cast<const TavocatInputCmdSetT*>(group.inputSet));
  }
  fprintf(stderr, "~~~~~~ TavocatGroup end ~~~~~~~~\n");
}

}  // namespace

int ValidateTavocatInfo(const TavocatInfoT& info) {
  PrintTavocatInfo(info);
  if (info.name == nullptr || info.groups == nullptr) return 1;
  for (const TavocatGroupT* group = info.groups; group != nullptr; group = group->next) {
    if (!IsValidGroup(*group)) return 1;
  }
  return 0;
}

bool IsValidNodeSet(const TavocatInputNodeSetT* set) {
  if (set == nullptr) return false;
  for (const TavocatInputNodeSetT* node = set; node != nullptr; node = node->next) {
    if (node->dataPath == nullptr && node->alterDataPath == nullptr) return false;
  }
  return true;
}

bool IsValidDirSet(const TavocatInputDirSetT* set) {
  return set != nullptr && set->inputDirPath != nullptr;
}

bool IsValidCmdSet(const TavocatInputCmdSetT* set) {
  if (set == nullptr) return false;
  for (const TavocatInputCmdSetT* cmd = set; cmd != nullptr; cmd = cmd->next) {
    if (cmd->command == nullptr) return false;
  }
  return true;
}

bool IsRunnableConfig(const TavocatInfoT& info) {
  int triggers = 0;
  for (const TavocatGroupT* group = info.groups; group != nullptr; group = group->next) {
    if (group->style == COND_TRIGGER) ++triggers;
  }
  if (triggers <= 1) return true;
  fprintf(stderr, "Main:tavocat [%s] has more than one cond_trigger group, refused!\n",
          Shown(info.name));
  return false;
}

void PrintTavocatInfo(const TavocatInfoT& info) {
  fprintf(stderr, "------------- printTavocatInfo begin -------------\n");
  fprintf(stderr, "name              : %s\n", Shown(info.name));
  fprintf(stderr, "rotateSizeKbytes  : %zu\n", info.rotateSizeKbytes);
  fprintf(stderr, "maxCompressdFiles : %zu\n", info.maxCompressdFiles);
  fprintf(stderr, "writeMode         : %zu\n", static_cast<size_t>(info.writeMode));
  for (const TavocatGroupT* group = info.groups; group != nullptr; group = group->next) {
    PrintGroup(*group);
  }
  fprintf(stderr, "------------- printTavocatInfo end ---------------\n");
}

void PrintTavocatInfoNodeAndTrigger(const TavocatInputNodeSetT* nodes) {
  for (const TavocatInputNodeSetT* node = nodes; node != nullptr; node = node->next) {
    fprintf(stderr, "dataPath         : %s\n", Shown(node->dataPath));
    fprintf(stderr, "titlePath        : %s\n", Shown(node->titlePath));
    fprintf(stderr, "title             : %s\n", Shown(node->title));
    fprintf(stderr, "width             : %zu\n", node->width);
    for (const TavocatStrListT* alt = node->alterDataPath; alt != nullptr; alt = alt->next) {
      fprintf(stderr, "alterDataPath   : %s\n", Shown(alt->str));
    }
  }
}

void PrintTavocatInfoDir(const TavocatInputDirSetT* dirSet) {
  if (dirSet == nullptr) return;
  fprintf(stderr, "inputDirPath      : %s\n", Shown(dirSet->inputDirPath));
  for (const TavocatStrListT* pick = dirSet->pickNode; pick != nullptr; pick = pick->next) {
    fprintf(stderr, "pickNode          : %s\n", Shown(pick->str));
  }
}

void PrintTavocatInfoCmd(const TavocatInputCmdSetT* cmds) {
  for (const TavocatInputCmdSetT* cmd = cmds; cmd != nullptr; cmd = cmd->next) {
    fprintf(stderr, "command           : %s\n", Shown(cmd->command));
  }
}

}  // namespace TavoConfig
