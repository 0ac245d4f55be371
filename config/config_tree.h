#ifndef MORVOCAT_CONFIG_CONFIG_TREE_H_
#define MORVOCAT_CONFIG_CONFIG_TREE_H_

// Building blocks of the configuration tree: owned string copies, list
// appends and the release of every record. A partly built tree is always in
// a state these functions can release, any number of times.

#include <stddef.h>
#include <stdint.h>

#include "config/tavo_common.h"

namespace TavoConfig {

// Replaces *field with a new[] copy of at most maxLength characters of
// source. Returns 0, or 1 with *field null on a null argument or a failed
// allocation or copy. An empty source gives a one-byte array, not null.
int CopyString(const char* source, char** field, size_t maxLength = SIZE_MAX);

// Frees name and every group; zero-fills the root's fields. The root itself
// belongs to the caller.
void FreeConfigFile(TavoCommon::TavocatInfoT* info);
// Frees the group's sources according to its style, its path, then the group.
void FreeLogcatGroup(TavoCommon::TavocatGroupT* group);
// These free one record and what it owns; none follows `next`.
void FreeInputNodeSet(TavoCommon::TavocatInputNodeSetT* node);
void FreeInputDirSet(TavoCommon::TavocatInputDirSetT* dirSet);
void FreeInputCmdSet(TavoCommon::TavocatInputCmdSetT* cmd);
void FreeStrList(TavoCommon::TavocatStrListT* entry);

// Frees a whole node list, unlinking each node before it goes; head is null
// afterwards.
void FreeInputNodeList(TavoCommon::TavocatInputNodeSetT*& head);

// Links item at the tail of a `next`-linked list.
template <typename T>
void AppendToList(T*& head, T* item) {
  T** slot = &head;
  while (*slot != nullptr) slot = &(*slot)->next;
  *slot = item;
}

}  // namespace TavoConfig

#endif  // MORVOCAT_CONFIG_CONFIG_TREE_H_
