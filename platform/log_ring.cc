#include "platform/log_ring.h"

#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <new>

#include "platform/log_format.h"
#include "platform/safe_string.h"

namespace platform {

namespace {

constexpr uint32_t kRingMagic = 0x4d564c52;  // "MVLR"
constexpr uint32_t kRingVersion = 1;
constexpr uint64_t kHeaderPage = 4096;
// A lock held this long belongs to a stopped or scribbled-over process;
// failing the call beats hanging every writer.
constexpr int kLockTimeoutSeconds = 2;

// Every ring lock is robust and shared between processes.
void InitLock(pthread_mutex_t* lock) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(lock, &attr);
  pthread_mutexattr_destroy(&attr);
}

// The C library keeps the kind of a mutex inside it, and every call on the
// mutex obeys it: a scribbled kind can make even a trylock abort the
// process (a priority-protected kind with a wild ceiling). A lock whose
// kind is not the one InitLock gives is never used.
bool LockIntact(const pthread_mutex_t& lock) {
  static const int kKind = [] {
    pthread_mutex_t model;
    InitLock(&model);
    int kind = model.__data.__kind;
    pthread_mutex_destroy(&model);
    return kind;
  }();
  return __atomic_load_n(&lock.__data.__kind, __ATOMIC_RELAXED) == kKind;
}

}  // namespace

struct LogRing::Header {
  uint32_t magic;
  uint32_t version;
  uint32_t headerSize;
  uint32_t logId;
  uint64_t capacity;
  std::atomic<uint32_t> retired;
  uint32_t reserved;
  pthread_mutex_t lock;
  alignas(64) std::atomic<uint64_t> head;
  std::atomic<uint64_t> evicted;
  alignas(64) std::atomic<uint64_t> tail;
};

static_assert(sizeof(LogRing::Header) <= kHeaderPage, "the ring header fits its page");
static_assert(std::atomic<uint64_t>::is_always_lock_free, "positions are shared lock-free");

// What a new ring file starts with; source, when set, lends the records
// between tail and head.
struct LogRing::FileSpec {
  log_id_t id;
  uint64_t capacity;
  uint64_t head;
  uint64_t tail;
  uint64_t evicted;
  const LogRing* source;
};

void LogRing::InitFile(void* addr, size_t, const void* arg) {
  const auto* layout = static_cast<const FileSpec*>(arg);
  auto* header = new (addr) Header;
  header->magic = kRingMagic;
  header->version = kRingVersion;
  header->headerSize = kHeaderPage;
  header->logId = layout->id;
  header->capacity = layout->capacity;
  header->retired.store(0, std::memory_order_relaxed);
  header->reserved = 0;
  InitLock(&header->lock);
  header->head.store(layout->head, std::memory_order_relaxed);
  header->tail.store(layout->tail, std::memory_order_relaxed);
  header->evicted.store(layout->evicted, std::memory_order_relaxed);
  if (layout->source == nullptr) return;
  // The records keep their positions, so readers of the old file go on in
  // the new one where they were.
  unsigned char* data = static_cast<unsigned char*>(addr) + kHeaderPage;
  for (uint64_t pos = layout->tail; pos < layout->head;) {
    uint64_t offset = pos % layout->capacity;
    uint64_t chunk = std::min(layout->head - pos, layout->capacity - offset);
    layout->source->CopyOut(pos, data + offset, chunk);
    pos += chunk;
  }
}

LogRing* LogRing::Open(const char* dir, log_id_t id, bool repair) {
  if (dir == nullptr || id < LOG_ID_MIN || id >= LOG_ID_MAX || !MakeStoreDir(dir)) return nullptr;
  LogRing* ring = new (std::nothrow) LogRing;
  if (ring == nullptr) return nullptr;
  ring->id_ = id;
  ring->repair_ = repair;
  if (snprintf_s(ring->path_, sizeof(ring->path_), sizeof(ring->path_) - 1, "%s/%s", dir,
                 qdlogging_log_id_to_name(id)) < 0 ||
      !ring->signal_.Open(dir) || ring->Map() != 0) {
    delete ring;
    return nullptr;
  }
  return ring;
}

LogRing::~LogRing() { UnmapShared(&mapping_); }

void LogRing::Adopt(const SharedMapping& mapping) {
  UnmapShared(&mapping_);
  mapping_ = mapping;
  header_ = static_cast<Header*>(mapping.addr);
  data_ = static_cast<unsigned char*>(mapping.addr) + kHeaderPage;
  capacity_ = header_->capacity;
}

int LogRing::Map() {
  for (int attempt = 0; attempt < 4; ++attempt) {
    SharedMapping mapping;
    int rc = MapExistingFile(path_, kHeaderPage + kRingMinSize, kHeaderPage + kRingMaxSize,
                             &mapping);
    if (rc == 0) {
      const auto* header = static_cast<const Header*>(mapping.addr);
      if (header->magic == kRingMagic && header->version == kRingVersion &&
          header->headerSize == kHeaderPage && header->logId == static_cast<uint32_t>(id_) &&
          header->capacity >= kRingMinSize && header->capacity <= kRingMaxSize &&
          mapping.size == kHeaderPage + header->capacity && LockIntact(header->lock)) {
        Adopt(mapping);
        return 0;
      }
      UnmapShared(&mapping);
      rc = -EINVAL;
    }
    if (rc != -ENOENT && !(rc == -EINVAL && repair_)) return rc;
    FileSpec layout = {id_, QD_LOGGER_DEFAULT_RING_SIZE, 0, 0, 0, nullptr};
    rc = PublishSharedFile(path_, kHeaderPage + layout.capacity, rc == -EINVAL, InitFile, &layout,
                           &mapping);
    if (rc == 0) {
      Adopt(mapping);
      return 0;
    }
    if (rc != -EEXIST) return rc;
  }
  return -EIO;
}

bool LogRing::Stale() const {
  return header_->magic != kRingMagic || header_->version != kRingVersion ||
         header_->logId != static_cast<uint32_t>(id_) || header_->capacity != capacity_ ||
         header_->retired.load(std::memory_order_acquire) != 0 || !LockIntact(header_->lock);
}

int LogRing::LockFresh() {
  // Checked before the lock too: the lock of a scribbled header is no lock.
  if (Stale()) return -ESTALE;
  int rc = Lock();
  if (rc != 0) return rc;
  if (Stale()) {
    Unlock();
    return -ESTALE;
  }
  return 0;
}

bool LogRing::Reopen() { return Map() == 0; }

int LogRing::Lock() {
  int rc = pthread_mutex_trylock(&header_->lock);
  if (rc == EBUSY) {
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += kLockTimeoutSeconds;
    rc = pthread_mutex_timedlock(&header_->lock, &deadline);
  }
  if (rc == EOWNERDEAD) {
    // A writer died holding the lock. Head and tail are each stored whole
    // and head only after the record, so the ring is as it was.
    rc = pthread_mutex_consistent(&header_->lock);
    if (rc != 0) pthread_mutex_unlock(&header_->lock);
  }
  if (rc == 0) return 0;
  return rc == ETIMEDOUT ? -EBUSY : -EIO;
}

bool LogRing::Settled() {
  // No writer takes a lock that is not intact: it makes the file anew.
  if (!LockIntact(header_->lock)) return true;
  int rc = pthread_mutex_trylock(&header_->lock);
  if (rc == EBUSY) return false;
  if (rc == EOWNERDEAD) rc = pthread_mutex_consistent(&header_->lock);
  pthread_mutex_unlock(&header_->lock);
  return true;
}

void LogRing::Unlock() { pthread_mutex_unlock(&header_->lock); }

void LogRing::CopyIn(uint64_t pos, const void* src, uint64_t size) {
  uint64_t offset = pos % capacity_;
  uint64_t first = std::min(size, capacity_ - offset);
  memcpy(data_ + offset, src, first);
  memcpy(data_, static_cast<const unsigned char*>(src) + first, size - first);
}

void LogRing::CopyOut(uint64_t pos, void* dst, uint64_t size) const {
  uint64_t offset = pos % capacity_;
  uint64_t first = std::min(size, capacity_ - offset);
  memcpy(dst, data_ + offset, first);
  memcpy(static_cast<unsigned char*>(dst) + first, data_, size - first);
}

bool LogRing::Overwritten(uint64_t pos) const {
  // Writers move the tail past a record before they overwrite it; seeing
  // the tail still at or below pos after the copy proves the copy whole.
  std::atomic_thread_fence(std::memory_order_acquire);
  return header_->tail.load(std::memory_order_relaxed) > pos;
}

uint64_t LogRing::RecordSizeAt(uint64_t pos, uint64_t head) const {
  qd_logger_entry entry;
  if (head - pos < kRecordHeaderSize) return 0;
  CopyOut(pos, &entry, kRecordHeaderSize);
  if (entry.hdr_size != kRecordHeaderSize || entry.len < kRecordMinPayload ||
      entry.len > QD_LOGGER_ENTRY_MAX_PAYLOAD || head - pos - kRecordHeaderSize < entry.len) {
    return 0;
  }
  return kRecordHeaderSize + entry.len;
}

uint64_t LogRing::DropUntilFree(uint64_t tail, uint64_t head, uint64_t keep) const {
  while (head - tail > keep) {
    uint64_t size = RecordSizeAt(tail, head);
    // A malformed record ends the walk: everything up to head goes.
    if (size == 0) return head;
    tail += size;
  }
  return tail;
}

int LogRing::Append(qd_logger_entry* entry, const char* payload) {
  uint64_t size = kRecordHeaderSize + entry->len;
  if (entry->len > QD_LOGGER_ENTRY_MAX_PAYLOAD || size > capacity_) return -EMSGSIZE;
  int rc = LockFresh();
  if (rc != 0) return rc;
  uint64_t head = header_->head.load(std::memory_order_relaxed);
  uint64_t oldTail = header_->tail.load(std::memory_order_relaxed);
  // Scribbled positions cost the records they held, not the buffer.
  uint64_t tail = oldTail > head || head - oldTail > capacity_ ? head : oldTail;
  uint64_t newTail = DropUntilFree(tail, head, capacity_ - size);
  if (newTail != oldTail) {
    header_->evicted.store(header_->evicted.load(std::memory_order_relaxed) + (newTail - tail),
                           std::memory_order_relaxed);
    header_->tail.store(newTail, std::memory_order_relaxed);
    // The new tail must be visible before any byte of the dropped records
    // changes.
    std::atomic_thread_fence(std::memory_order_release);
  }
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  entry->sec = static_cast<uint32_t>(now.tv_sec);
  entry->nsec = static_cast<uint32_t>(now.tv_nsec);
  CopyIn(head, entry, kRecordHeaderSize);
  CopyIn(head + kRecordHeaderSize, payload, entry->len);
  header_->head.store(head + size, std::memory_order_release);
  Unlock();
  signal_.Notify();
  return 0;
}

int LogRing::Clear() {
  int rc = LockFresh();
  if (rc != 0) return rc;
  header_->tail.store(header_->head.load(std::memory_order_relaxed), std::memory_order_release);
  Unlock();
  return 0;
}

int LogRing::Resize(uint64_t capacity) {
  if (capacity < kRingMinSize || capacity > kRingMaxSize) return -EINVAL;
  int rc = LockFresh();
  if (rc != 0) return rc;
  if (capacity == capacity_) {
    Unlock();
    return 0;
  }
  uint64_t head = header_->head.load(std::memory_order_relaxed);
  uint64_t tail = header_->tail.load(std::memory_order_relaxed);
  if (tail > head || head - tail > capacity_) tail = head;
  uint64_t keepFrom = DropUntilFree(tail, head, capacity);
  FileSpec layout = {id_, capacity, head, keepFrom,
                   header_->evicted.load(std::memory_order_relaxed) + (keepFrom - tail), this};
  SharedMapping mapping;
  // Replaced under the old file's lock, and the old file is marked before
  // the lock is let go: a writer waiting on it then finds it retired.
  rc = PublishSharedFile(path_, kHeaderPage + capacity, true, InitFile, &layout, &mapping);
  if (rc == 0) header_->retired.store(1, std::memory_order_release);
  Unlock();
  if (rc != 0) return rc;
  Adopt(mapping);
  signal_.NotifyAll();
  return 0;
}

bool LogRing::Span(uint64_t* tail, uint64_t* head) const {
  // Head first: the tail read after it can only be newer, and the tail
  // never passes the head at any moment.
  uint64_t h = header_->head.load(std::memory_order_acquire);
  uint64_t t = header_->tail.load(std::memory_order_acquire);
  if (t > h) {
    h = header_->head.load(std::memory_order_acquire);
    if (t > h) return false;
  } else if (h - t > capacity_) {
    return false;
  }
  *tail = t;
  *head = h;
  return true;
}

uint64_t LogRing::Evicted() const { return header_->evicted.load(std::memory_order_acquire); }

int LogRing::ReadHeaderAt(uint64_t pos, uint64_t head, qd_logger_entry* out) const {
  if (pos >= head || head - pos < kRecordHeaderSize) return -EINVAL;
  CopyOut(pos, out, kRecordHeaderSize);
  if (Overwritten(pos)) return 0;
  if (out->hdr_size != kRecordHeaderSize || out->len < kRecordMinPayload ||
      out->len > QD_LOGGER_ENTRY_MAX_PAYLOAD || out->lid != static_cast<uint32_t>(id_) ||
      head - pos - kRecordHeaderSize < out->len) {
    return -EINVAL;
  }
  return static_cast<int>(kRecordHeaderSize + out->len);
}

int LogRing::ReadAt(uint64_t pos, uint64_t head, qd_log_msg* msg) const {
  int size = ReadHeaderAt(pos, head, &msg->entry);
  if (size <= 0) return size;
  CopyOut(pos + kRecordHeaderSize, msg->buf + kRecordHeaderSize, msg->entry.len);
  if (Overwritten(pos)) return 0;
  if (msg->buf[size - 1] != '\0') return -EINVAL;
  msg->buf[size] = '\0';
  return size;
}

}  // namespace platform
