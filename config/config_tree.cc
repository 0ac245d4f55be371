#include "config/config_tree.h"

#include <string.h>

#include <new>

#include "config/config_records.h"
#include "platform/safe_string.h"

namespace TavoConfig {

using TavoCommon::MMAP_WRITE;
using TavoCommon::MONITOR_DIR;
using TavoCommon::POLL_CMD;

namespace {

void FreeString(char*& str) {
  char* old = str;
  str = nullptr;
  delete[] old;
}

// Frees a list whose entries are released one by one by freeOne.
template <typename T, typename FreeOne>
void FreeList(T*& head, FreeOne freeOne) {
  while (head != nullptr) {
    T* item = head;
    head = item->next;
    item->next = nullptr;
    freeOne(item);
  }
}

void FreeStrListAll(TavocatStrListT*& head) { FreeList(head, FreeStrList); }

void FreeInputCmdList(TavocatInputCmdSetT*& head) { FreeList(head, FreeInputCmdSet); }

}  // namespace

int CopyString(const char* source, char** field, size_t maxLength) {
  if (field == nullptr) return 1;
  FreeString(*field);
  if (source == nullptr) return 1;
  size_t length = strnlen(source, maxLength);
  char* copy = new (std::nothrow) char[length + 1];
  if (copy == nullptr) return 1;
  if (strncpy_s(copy, length + 1, source, length) != 0) {
    delete[] copy;
    return 1;
  }
  copy[length] = '\0';
  *field = copy;
  return 0;
}

void FreeConfigFile(TavocatInfoT* info) {
  if (info == nullptr) return;
  FreeString(info->name);
  FreeList(info->groups, FreeLogcatGroup);
  info->rotateSizeKbytes = 0;
  info->maxCompressdFiles = 0;
  info->writeMode = MMAP_WRITE;
}

void FreeLogcatGroup(TavocatGroupT* group) {
  if (group == nullptr) return;
  group->info = nullptr;
  if (IsNodeStyle(group->style)) {
    auto* nodes = static_cast<TavocatInputNodeSetT*>(group->inputSet);
    FreeInputNodeList(nodes);
  } else if (group->style == MONITOR_DIR) {
    FreeInputDirSet(static_cast<TavocatInputDirSetT*>(group->inputSet));
  } else if (group->style == POLL_CMD) {
    auto* cmds = static_cast<TavocatInputCmdSetT*>(group->inputSet);
    FreeInputCmdList(cmds);
  }
  group->inputSet = nullptr;
  FreeString(group->outputFilePath);
  delete group;
}

void FreeInputNodeSet(TavocatInputNodeSetT* node) {
  if (node == nullptr) return;
  FreeString(node->dataPath);
  FreeString(node->titlePath);
  FreeString(node->title);
  FreeStrListAll(node->alterDataPath);
  delete node;
}

void FreeInputDirSet(TavocatInputDirSetT* dirSet) {
  if (dirSet == nullptr) return;
  FreeString(dirSet->inputDirPath);
  FreeStrListAll(dirSet->pickNode);
  delete dirSet;
}

void FreeInputCmdSet(TavocatInputCmdSetT* cmd) {
  if (cmd == nullptr) return;
  FreeString(cmd->command);
  delete cmd;
}

void FreeStrList(TavocatStrListT* entry) {
  if (entry == nullptr) return;
  FreeString(entry->str);
  delete entry;
}

void FreeInputNodeList(TavocatInputNodeSetT*& head) { FreeList(head, FreeInputNodeSet); }

}  // namespace TavoConfig
