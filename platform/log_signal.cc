#include "platform/log_signal.h"

#include <errno.h>
#include <limits.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <new>

namespace platform {

namespace {

constexpr uint32_t kSignalMagic = 0x4d564c53;  // "MVLS"
constexpr uint32_t kSignalVersion = 1;
constexpr size_t kSignalFileSize = 4096;
constexpr char kSignalFileName[] = "morvo_signal";

}  // namespace

struct StoreSignal::Page {
  uint32_t magic;
  uint32_t version;
  // Moved by writers whenever they wake sleepers; the futex word.
  std::atomic<uint32_t> sequence;
  // Set by a reader before it sleeps, cleared by the writer that wakes it.
  std::atomic<uint32_t> wanted;
};

static_assert(sizeof(std::atomic<uint32_t>) == 4 && std::atomic<uint32_t>::is_always_lock_free,
              "the futex word must be a plain 32-bit word");

namespace {

void InitPage(void* addr, size_t, const void*) {
  auto* page = new (addr) StoreSignal::Page;
  page->sequence.store(0, std::memory_order_relaxed);
  page->wanted.store(0, std::memory_order_relaxed);
  page->version = kSignalVersion;
  page->magic = kSignalMagic;
}

bool ValidPage(const SharedMapping& mapping) {
  const auto* page = static_cast<const StoreSignal::Page*>(mapping.addr);
  return mapping.size == kSignalFileSize && page->magic == kSignalMagic &&
         page->version == kSignalVersion;
}

int MapPage(int dirFd, bool writable, SharedMapping* out) {
  return MapStoreFile(dirFd, kSignalFileName, writable, kSignalFileSize, kSignalFileSize, out);
}

long Futex(std::atomic<uint32_t>* word, int op, uint32_t value, const struct timespec* timeout) {
  return syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), op, value, timeout, nullptr, 0);
}

}  // namespace

StoreSignal::~StoreSignal() { UnmapShared(&mapping_); }

int StoreSignal::Open(int dirFd) {
  UnmapShared(&mapping_);
  page_ = nullptr;
  readOnly_ = false;
  int rc = 0;
  for (int attempt = 0; attempt < 4; ++attempt) {
    rc = MapPage(dirFd, true, &mapping_);
    if (rc == -EACCES) {
      readOnly_ = true;
      rc = MapPage(dirFd, false, &mapping_);
    }
    if (rc == 0 && ValidPage(mapping_)) {
      page_ = static_cast<Page*>(mapping_.addr);
      return 0;
    }
    UnmapShared(&mapping_);
    readOnly_ = false;
    if (rc != 0 && rc != -ENOENT && rc != -EINVAL) return rc;
    // Missing: make it, unless another process is quicker. Malformed: replace.
    rc = PublishSharedFile(dirFd, kSignalFileName, kSignalFileSize, kSignalFileMode, rc != -ENOENT,
                           InitPage, nullptr, &mapping_);
    if (rc == 0) {
      page_ = static_cast<Page*>(mapping_.addr);
      return 0;
    }
    if (rc != -EEXIST) return rc;
  }
  return rc;
}

int StoreSignal::Open(const char* dir) {
  int dirFd = OpenStoreDir(dir);
  if (dirFd < 0) return dirFd;
  int rc = Open(dirFd);
  close(dirFd);
  return rc;
}

uint32_t StoreSignal::PrepareWait() {
  uint32_t seen = page_->sequence.load(std::memory_order_acquire);
  if (readOnly_) return seen;
  page_->wanted.store(1, std::memory_order_relaxed);
  // Pairs with the fence in Notify: either the writer sees the flag or this
  // reader sees the writer's record.
  std::atomic_thread_fence(std::memory_order_seq_cst);
  return seen;
}

void StoreSignal::Wait(uint32_t seen, long timeoutMs) {
  if (timeoutMs <= 0) return;
  if (readOnly_ && timeoutMs > kReadOnlyPollMs) timeoutMs = kReadOnlyPollMs;
  struct timespec timeout;
  timeout.tv_sec = timeoutMs / 1000;
  timeout.tv_nsec = (timeoutMs % 1000) * 1000000L;
  // Not FUTEX_PRIVATE: the writers live in other processes.
  Futex(&page_->sequence, FUTEX_WAIT, seen, &timeout);
}

void StoreSignal::Notify() {
  if (readOnly_) return;
  std::atomic_thread_fence(std::memory_order_seq_cst);
  if (page_->wanted.load(std::memory_order_relaxed) == 0) return;
  if (page_->wanted.exchange(0, std::memory_order_acq_rel) == 0) return;
  page_->sequence.fetch_add(1, std::memory_order_release);
  Futex(&page_->sequence, FUTEX_WAKE, INT_MAX, nullptr);
}

void StoreSignal::NotifyAll() {
  if (readOnly_) return;
  page_->wanted.store(0, std::memory_order_relaxed);
  page_->sequence.fetch_add(1, std::memory_order_acq_rel);
  Futex(&page_->sequence, FUTEX_WAKE, INT_MAX, nullptr);
}

}  // namespace platform
