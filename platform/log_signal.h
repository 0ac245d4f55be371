#ifndef MORVOCAT_PLATFORM_LOG_SIGNAL_H_
#define MORVOCAT_PLATFORM_LOG_SIGNAL_H_

// The store-wide wake-up word: a small shared page holding a sequence
// number that blocked readers sleep on (futex) and a flag by which they ask
// writers to wake them. Writers make no system call unless a reader asked.

#include <stdint.h>

#include "platform/log_store_dir.h"

namespace platform {

class StoreSignal {
 public:
  StoreSignal() = default;
  ~StoreSignal();
  StoreSignal(const StoreSignal&) = delete;
  StoreSignal& operator=(const StoreSignal&) = delete;

  // Maps the signal page of the store folder dirFd, making it when missing
  // or malformed (it holds no log data). A reader that may only read it
  // maps it read-only and cannot ask to be woken: it looks for records
  // every kReadOnlyPollMs instead. 0 or a negated errno.
  int Open(int dirFd);
  // Open on the store folder dir, opened and checked as OpenStoreDir does.
  int Open(const char* dir);
  bool IsOpen() const { return page_ != nullptr; }

  // Announces a reader about to sleep; check for records after this call
  // and pass its result to Wait, so no wake-up falls between the two.
  uint32_t PrepareWait();
  // Sleeps until a writer wakes the store, the sequence moved past seen, or
  // timeoutMs passed.
  void Wait(uint32_t seen, long timeoutMs);
  // After a record is published: wakes the sleepers when one asked.
  void Notify();
  // Wakes every sleeper (clear, resize).
  void NotifyAll();

  static constexpr long kReadOnlyPollMs = 100;

  // The layout of the shared page.
  struct Page;

 private:
  Page* page_ = nullptr;
  bool readOnly_ = false;
  SharedMapping mapping_;
};

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_LOG_SIGNAL_H_
