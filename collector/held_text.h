#ifndef MORVOCAT_COLLECTOR_HELD_TEXT_H_
#define MORVOCAT_COLLECTOR_HELD_TEXT_H_

// Text a group took while its output failed (a full disk, a folder that
// cannot be made), kept in order until the output works again. Bounded:
// when it is full the oldest whole records go and are counted as lost, so
// what came last, after the cause cleared, is kept. The space is taken at
// the first record and given back by Release.

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <new>

class HeldText {
 public:
  static constexpr size_t kLimit = 256 << 10;
  static constexpr size_t kMostRecords = 8192;

  HeldText() = default;
  ~HeldText() { Release(); }
  HeldText(const HeldText&) = delete;
  HeldText& operator=(const HeldText&) = delete;

  bool Empty() const { return used_ == 0 && records_ == 0; }
  // Records dropped, or refused for want of memory, since the last Release.
  size_t Lost() const { return lost_; }
  // Records held, an unfinished one included.
  size_t Pending() const { return records_ + (used_ > EndOf(records_) ? 1 : 0); }

  void Add(const char* data, size_t length, bool endsRecord) {
    if (text_ == nullptr && !Reserve()) {
      if (endsRecord) ++lost_;
      return;
    }
    MakeRoom(length, endsRecord);
    if (length > kLimit - used_) {
      if (endsRecord) ++lost_;
      return;
    }
    memcpy(text_ + used_, data, length);
    used_ += length;
    if (endsRecord) ends_[records_++] = static_cast<uint32_t>(used_);
  }

  // The oldest piece held: a whole record, or the unfinished one at the end.
  void Front(const char** data, size_t* length, bool* endsRecord) const {
    *data = text_;
    *endsRecord = records_ > 0;
    *length = *endsRecord ? ends_[0] : used_;
  }
  void PopFront() {
    size_t cut = records_ > 0 ? ends_[0] : used_;
    Drop(cut, records_ > 0 ? 1 : 0);
  }

  void Release() {
    delete[] text_;
    delete[] ends_;
    text_ = nullptr;
    ends_ = nullptr;
    used_ = 0;
    records_ = 0;
    lost_ = 0;
  }

 private:
  size_t EndOf(size_t records) const { return records == 0 ? 0 : ends_[records - 1]; }

  bool Reserve() {
    text_ = new (std::nothrow) char[kLimit];
    ends_ = new (std::nothrow) uint32_t[kMostRecords];
    if (text_ != nullptr && ends_ != nullptr) return true;
    delete[] text_;
    delete[] ends_;
    text_ = nullptr;
    ends_ = nullptr;
    return false;
  }

  // Drops the oldest records until length more fits; a quarter at least,
  // so that a long fault does not move the text at every record.
  void MakeRoom(size_t length, bool endsRecord) {
    bool textFits = length <= kLimit - used_;
    bool recordFits = !endsRecord || records_ < kMostRecords;
    if (textFits && recordFits) return;
    size_t need = textFits ? 0 : used_ + length - kLimit;
    if (need < kLimit / 4) need = kLimit / 4;
    size_t needRecords = recordFits ? 0 : kMostRecords / 4;
    size_t dropped = 0;
    while (dropped < records_ && (EndOf(dropped) < need || dropped < needRecords)) ++dropped;
    size_t cut = EndOf(dropped);
    if (dropped == records_ && cut < need) cut = used_;
    lost_ += dropped + (cut > EndOf(records_) ? 1 : 0);
    Drop(cut, dropped);
  }

  void Drop(size_t cut, size_t records) {
    memmove(text_, text_ + cut, used_ - cut);
    used_ -= cut;
    for (size_t i = records; i < records_; ++i) {
      ends_[i - records] = ends_[i] - static_cast<uint32_t>(cut);
    }
    records_ -= records;
  }

  char* text_ = nullptr;
  uint32_t* ends_ = nullptr;
  size_t used_ = 0;
  size_t records_ = 0;
  size_t lost_ = 0;
};

#endif  // MORVOCAT_COLLECTOR_HELD_TEXT_H_
