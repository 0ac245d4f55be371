#include "config/config_wire.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <new>

#include "config/config_records.h"
#include "config/config_tree.h"

namespace TavoConfig {

using TavoCommon::LogStyle;
using TavoCommon::MONITOR_DIR;
using TavoCommon::POLL_CMD;
using TavoCommon::TypeWrite;

namespace {

// Opens and closes every encoding, so a cut or stray stream is refused.
constexpr uint64_t kMark = 0x5441564f57495245ULL;
constexpr uint64_t kNull = UINT64_MAX;
constexpr size_t kWord = sizeof(uint64_t);

class Encoder {
 public:
  explicit Encoder(WireBuffer* out) : out_(out) {}

  void Info(const TavocatInfoT& info) {
    Word(kMark);
    Word(info.rotateSizeKbytes);
    Word(info.maxCompressdFiles);
    Word(info.writeMode);
    String(info.name);
    Count(info.groups);
    for (const TavocatGroupT* group = info.groups; group != nullptr; group = group->next) {
      Group(*group);
    }
    Word(kMark);
  }

 private:
  void Word(uint64_t value) { out_->Append(&value, sizeof(value)); }

  void String(const char* text) {
    if (text == nullptr) return Word(kNull);
    size_t length = strlen(text);
    Word(length);
    out_->Append(text, length);
  }

  template <typename T>
  void Count(const T* head) {
    uint64_t count = 0;
    for (; head != nullptr; head = head->next) count++;
    Word(count);
  }

  void StrList(const TavocatStrListT* head) {
    Count(head);
    for (; head != nullptr; head = head->next) String(head->str);
  }

  void Group(const TavocatGroupT& group) {
    Word(group.pollingInterval);
    Word(group.failureRetry);
    Word(group.style);
    Word(group.condIndex);
    String(group.outputFilePath);
    if (IsNodeStyle(group.style)) {
      Nodes(static_cast<const TavocatInputNodeSetT*>(group.inputSet));
    } else if (group.style == MONITOR_DIR) {
      DirSet(static_cast<const TavocatInputDirSetT*>(group.inputSet));
    } else if (group.style == POLL_CMD) {
      Commands(static_cast<const TavocatInputCmdSetT*>(group.inputSet));
    }
  }

  void Nodes(const TavocatInputNodeSetT* node) {
    Count(node);
    for (; node != nullptr; node = node->next) {
      Word(node->width);
      String(node->dataPath);
      String(node->titlePath);
      String(node->title);
      StrList(node->alterDataPath);
    }
  }

  void DirSet(const TavocatInputDirSetT* dirSet) {
    Word(dirSet != nullptr ? 1 : 0);
    if (dirSet == nullptr) return;
    String(dirSet->inputDirPath);
    StrList(dirSet->pickNode);
  }

  void Commands(const TavocatInputCmdSetT* cmd) {
    Count(cmd);
    for (; cmd != nullptr; cmd = cmd->next) String(cmd->command);
  }

  WireBuffer* out_;
};

// Every record is linked into the tree before it is filled, so a failure
// at any point leaves a tree FreeConfigFile releases whole.
class Decoder {
 public:
  Decoder(const unsigned char* bytes, size_t size) : next_(bytes), left_(size) {}

  bool Info(TavocatInfoT* info) {
    if (Word() != kMark) return false;
    info->rotateSizeKbytes = Word();
    info->maxCompressdFiles = Word();
    info->writeMode = static_cast<TypeWrite>(Word32());
    String(&info->name);
    TavocatGroupT** tail = &info->groups;
    for (uint64_t n = Count(); ok_ && n > 0; n--) Group(info, tail);
    return Word() == kMark && ok_ && left_ == 0;
  }

 private:
  // Links a new record at *tail and moves tail to its `next`: a list is
  // built in one pass however long it is.
  template <typename T>
  T* NewLinked(T**& tail) {
    T* item = new (std::nothrow) T();
    if (item == nullptr) {
      ok_ = false;
      return nullptr;
    }
    *tail = item;
    tail = &item->next;
    return item;
  }

  uint64_t Word() {
    uint64_t value = 0;
    if (!ok_ || left_ < kWord) {
      ok_ = false;
      return 0;
    }
    memcpy(&value, next_, kWord);
    next_ += kWord;
    left_ -= kWord;
    return value;
  }

  uint32_t Word32() {
    uint64_t value = Word();
    if (value > UINT32_MAX) ok_ = false;
    return static_cast<uint32_t>(value);
  }

  // Every item takes at least a word, so no count can outrun the bytes.
  uint64_t Count() {
    uint64_t count = Word();
    if (count > left_ / kWord) ok_ = false;
    return ok_ ? count : 0;
  }

  void String(char** field) {
    uint64_t length = Word();
    if (!ok_ || length == kNull) return;
    char* text = length <= left_ ? new (std::nothrow) char[length + 1] : nullptr;
    if (text == nullptr) {
      ok_ = false;
      return;
    }
    memcpy(text, next_, length);
    text[length] = '\0';
    next_ += length;
    left_ -= length;
    *field = text;
  }

  void StrList(TavocatStrListT** head) {
    TavocatStrListT** tail = head;
    for (uint64_t n = Count(); ok_ && n > 0; n--) {
      TavocatStrListT* entry = NewLinked(tail);
      if (entry != nullptr) String(&entry->str);
    }
  }

  void Group(TavocatInfoT* info, TavocatGroupT**& tail) {
    TavocatGroupT* group = NewLinked(tail);
    if (group == nullptr) return;
    group->info = info;
    group->pollingInterval = Word();
    group->failureRetry = Word();
    group->style = static_cast<LogStyle>(Word32());
    group->condIndex = Word();
    String(&group->outputFilePath);
    if (IsNodeStyle(group->style)) {
      Nodes(group);
    } else if (group->style == MONITOR_DIR) {
      DirSet(group);
    } else if (group->style == POLL_CMD) {
      Commands(group);
    }
  }

  void Nodes(TavocatGroupT* group) {
    TavocatInputNodeSetT* head = nullptr;
    TavocatInputNodeSetT** tail = &head;
    for (uint64_t n = Count(); ok_ && n > 0; n--) {
      TavocatInputNodeSetT* node = NewLinked(tail);
      if (node == nullptr) return;
      group->inputSet = head;
      node->width = Word();
      String(&node->dataPath);
      String(&node->titlePath);
      String(&node->title);
      StrList(&node->alterDataPath);
    }
  }

  void DirSet(TavocatGroupT* group) {
    if (Word() == 0) return;
    auto* dirSet = new (std::nothrow) TavocatInputDirSetT();
    if (dirSet == nullptr) {
      ok_ = false;
      return;
    }
    group->inputSet = dirSet;
    String(&dirSet->inputDirPath);
    StrList(&dirSet->pickNode);
  }

  void Commands(TavocatGroupT* group) {
    TavocatInputCmdSetT* head = nullptr;
    TavocatInputCmdSetT** tail = &head;
    for (uint64_t n = Count(); ok_ && n > 0; n--) {
      TavocatInputCmdSetT* cmd = NewLinked(tail);
      if (cmd == nullptr) return;
      group->inputSet = head;
      String(&cmd->command);
    }
  }

  const unsigned char* next_;
  size_t left_;
  bool ok_ = true;
};

}  // namespace

WireBuffer::~WireBuffer() { free(data); }

void WireBuffer::Append(const void* bytes, size_t length) {
  if (failed || length == 0) return;
  if (length > capacity - size) {
    size_t grown = capacity == 0 ? 4096 : capacity;
    while (grown - size < length) grown *= 2;
    void* more = realloc(data, grown);
    if (more == nullptr) {
      failed = true;
      return;
    }
    data = static_cast<unsigned char*>(more);
    capacity = grown;
  }
  memcpy(data + size, bytes, length);
  size += length;
}

bool EncodeTavocatInfo(const TavocatInfoT& info, WireBuffer* out) {
  if (out == nullptr) return false;
  Encoder(out).Info(info);
  return !out->failed;
}

int DecodeTavocatInfo(const unsigned char* bytes, size_t size, TavocatInfoT* info) {
  if (info == nullptr) return 1;
  if (bytes != nullptr && Decoder(bytes, size).Info(info)) return 0;
  FreeConfigFile(info);
  return 1;
}

}  // namespace TavoConfig
