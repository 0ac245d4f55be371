#include "config/group_parser.h"

#include <stdio.h>

#include <new>

#include "config/config_parser.h"
#include "config/config_records.h"
#include "config/config_tree.h"
#include "config/xml_document.h"

namespace TavoConfig {

using TavoCommon::COND_TRIGGER;
using TavoCommon::LogStyle;
using TavoCommon::MONITOR_DIR;
using TavoCommon::MONITOR_NODE;
using TavoCommon::POLL_CMD;
using TavoCommon::POLL_NODE;

namespace {

struct StyleName {
  const char* name;
  LogStyle style;
};

constexpr StyleName kStyleNames[] = {
    {"monitor_node", MONITOR_NODE}, {"monitor_dir", MONITOR_DIR},   {"poll_node", POLL_NODE},
    {"poll_cmd", POLL_CMD},         {"cond_trigger", COND_TRIGGER},
};

// Fills one node from the children of its inputNodeSet element; for each
// child the first rule that applies is used.
void FillInputNode(const xmlNode* element, TavocatInputNodeSetT* node) {
  ForEachElement(element->children, [node](const xmlNode* child) {
    if (IsElementNamed(child, "dataPath") && node->dataPath == nullptr) {
      ParseXmlNodeStr(child, &node->dataPath);
    } else if (IsElementNamed(child, "titlePath") && node->titlePath == nullptr) {
      ParseXmlNodeStr(child, &node->titlePath);
    } else if (IsElementNamed(child, "title") && node->title == nullptr) {
      ParseXmlNodeStr(child, &node->title);
    } else if (IsElementNamed(child, "alterdataPath")) {
      ParseXmlNodeStrList(child, &node->alterDataPath);
    } else if (IsElementNamed(child, "width") && node->width == 0) {
      ParseXmlNodeSize(child, &node->width);
    }
  });
}

}  // namespace

void ParseXmlNodeTavocatGroup(const xmlNode* element, TavocatInfoT* info) {
  if (element == nullptr || info == nullptr) return;
  auto* group = new (std::nothrow) TavocatGroupT();
  if (group == nullptr) return;
  group->info = info;
  AppendToList(info->groups, group);
  ForEachElement(element->children, [group](const xmlNode* child) {
    if (IsElementNamed(child, "inputNodeSet")) {
      ParseXmlNodeInputNodeSet(child, *group);
    } else if (IsElementNamed(child, "inputDirSet")) {
      ParseXmlNodeInputDirSet(child, group);
    } else if (IsElementNamed(child, "inputCmdSet")) {
      ParseXmlNodeInputCmdSet(child, group);
    } else if (IsElementNamed(child, "outputFilePath")) {
      ParseXmlNodeStr(child, &group->outputFilePath);
    } else if (IsElementNamed(child, "logStyle")) {
      ParseXmlNodeLogStyle(child, group);
    } else {
      fprintf(stderr, "Unsupport tavocatGroup para [%s]!\n",
              reinterpret_cast<const char*>(child->name));
    }
  });
}

void ParseXmlNodeLogStyle(const xmlNode* element, TavocatGroupT* group) {
  if (element == nullptr || group == nullptr) return;
  XmlAttr value(element, "value");
  for (const StyleName& known : kStyleNames) {
    if (!value.Is(known.name)) continue;
    // inputSet holds records of the current style: once it holds any, the
    // style must not change under them.
    if (group->inputSet == nullptr) group->style = known.style;
    break;
  }
  InitTavocatGroup(group, element);
}

void InitTavocatGroup(TavocatGroupT* group, const xmlNode* element) {
  if (group == nullptr || element == nullptr) return;
  StoreNumber(XmlAttr(element, "interval").get(), &group->pollingInterval);
  StoreNumber(XmlAttr(element, "cond_index").get(), &group->condIndex);
  StoreNumber(XmlAttr(element, "failureRetry").get(), &group->failureRetry);
}

void ParseXmlNodeInputNodeSet(const xmlNode* element, TavocatGroupT& group) {
  if (element == nullptr || !IsNodeStyle(group.style)) return;
  auto* node = new (std::nothrow) TavocatInputNodeSetT();
  if (node == nullptr) return;
  auto* head = static_cast<TavocatInputNodeSetT*>(group.inputSet);
  AppendToList(head, node);
  group.inputSet = head;
  FillInputNode(element, node);
}

void ParseXmlNodeInputDirSet(const xmlNode* element, TavocatGroupT* group) {
  if (element == nullptr || group == nullptr || group->style != MONITOR_DIR) return;
  if (group->inputSet != nullptr) {
    fprintf(stderr, "Only support one inputDirSet!\n");
    return;
  }
  auto* dirSet = new (std::nothrow) TavocatInputDirSetT();
  if (dirSet == nullptr) return;
  group->inputSet = dirSet;
  ForEachElement(element->children, [dirSet](const xmlNode* child) {
    if (IsElementNamed(child, "inputDirPath") && dirSet->inputDirPath == nullptr) {
      ParseXmlNodeStr(child, &dirSet->inputDirPath);
    } else if (IsElementNamed(child, "pickNode")) {
      ParseXmlNodeStrList(child, &dirSet->pickNode);
    }
  });
}

void ParseXmlNodeInputCmdSet(const xmlNode* element, TavocatGroupT* group) {
  if (element == nullptr || group == nullptr || group->style != POLL_CMD) return;
  auto* cmd = new (std::nothrow) TavocatInputCmdSetT();
  if (cmd == nullptr) return;
  auto* head = static_cast<TavocatInputCmdSetT*>(group->inputSet);
  AppendToList(head, cmd);
  group->inputSet = head;
  const xmlNode* first = nullptr;
  ForEachElement(element->children, [&first](const xmlNode* child) {
    if (first == nullptr && IsElementNamed(child, "command")) first = child;
  });
  ParseXmlNodeStr(first, &cmd->command);
}

}  // namespace TavoConfig
