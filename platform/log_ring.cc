#include "platform/log_ring.h"

#include <errno.h>
#include <stddef.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <new>

#include "platform/log_format.h"
#include "platform/safe_string.h"

namespace platform {

namespace {

constexpr uint32_t kRingMagic = 0x4d564c52;  // "MVLR"
// 2: the lock holds no address, spill slots follow the header page.
constexpr uint32_t kRingVersion = 2;
constexpr uint64_t kHeaderPage = 4096;
constexpr uint64_t kSpillSlotSize = kRecordHeaderSize + QD_LOGGER_ENTRY_MAX_PAYLOAD;
constexpr uint64_t kDataOffset = kHeaderPage + kSpillSlots * kSpillSlotSize;
static_assert(kDataOffset == kRingDataOffset, "records lie where tests look for them");

enum SpillState : uint32_t { kSlotFree = 0, kSlotFilling = 1, kSlotFull = 2 };

std::atomic<void (*)()> gLockHeldHook{nullptr};
std::atomic<void (*)(ResizeStep)> gResizeHook{nullptr};

void ResizeStepDone(ResizeStep step) {
  void (*hook)(ResizeStep) = gResizeHook.load();
  if (hook != nullptr) hook(step);
}

}  // namespace

void SetLockHeldHook(void (*hook)()) { gLockHeldHook.store(hook); }
void SetResizeHook(void (*hook)(ResizeStep step)) { gResizeHook.store(hook); }

struct SpillSlot {
  std::atomic<uint32_t> state;
  // The writer filling it, so that a slot it died in is freed.
  std::atomic<uint32_t> tid;
  // Slots are moved into the ring in this order.
  std::atomic<uint64_t> sequence;
};

struct LogRing::Header {
  uint32_t magic;
  uint32_t version;
  uint32_t headerSize;
  uint32_t logId;
  uint64_t capacity;
  std::atomic<uint32_t> retired;
  // Set, under the lock, while a resizer puts a new file in this one's
  // place; a mark found by the next owner of the lock is a dead resizer's.
  std::atomic<uint32_t> replacing;
  alignas(64) RingLockState lock;
  alignas(64) std::atomic<uint64_t> head;
  std::atomic<uint64_t> evicted;
  alignas(64) std::atomic<uint64_t> tail;
  alignas(64) std::atomic<uint64_t> spillSequence;
  SpillSlot spill[kSpillSlots];
  // marks[s % kRingMarks]: the first record that starts among positions
  // s << shift to (s + 1) << shift. Zero in files made before marks were
  // kept, which only ever names position 0.
  alignas(64) std::atomic<uint64_t> marks[kRingMarks];
};

static_assert(sizeof(LogRing::Header) <= kHeaderPage, "the ring header fits its page");
static_assert(offsetof(LogRing::Header, lock) == kRingLockOffset &&
                  sizeof(RingLockState) <= kRingLockSize,
              "the lock lies where tests look for it");
static_assert(offsetof(LogRing::Header, marks) == kRingMarksOffset,
              "the marks lie where tests look for them");
static_assert(offsetof(LogRing::Header, retired) == kRingRetiredOffset,
              "the retired word lies where tests look for it");
static_assert(std::atomic<uint64_t>::is_always_lock_free, "positions are shared lock-free");
static_assert(kSpillSlotSize == 4096, "a spill slot holds the largest record");

namespace {

// Stretches of a power of two positions, at least a page, so that
// kRingMarks of them cover the ring.
uint32_t MarkShift(uint64_t capacity) {
  uint32_t shift = 12;
  while ((uint64_t{1} << shift) * kRingMarks < capacity) ++shift;
  return shift;
}

// Notes a record that starts at pos, when it is the first of its stretch.
void MarkRecord(LogRing::Header* header, uint32_t shift, uint64_t pos) {
  std::atomic<uint64_t>& mark = header->marks[(pos >> shift) % kRingMarks];
  if (mark.load(std::memory_order_relaxed) >> shift != pos >> shift) {
    mark.store(pos, std::memory_order_relaxed);
  }
}

}  // namespace

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
  header->replacing.store(0, std::memory_order_relaxed);
  new (&header->lock) RingLockState();
  header->spillSequence.store(0, std::memory_order_relaxed);
  for (SpillSlot& slot : header->spill) slot.state.store(kSlotFree, std::memory_order_relaxed);
  header->head.store(layout->head, std::memory_order_relaxed);
  header->tail.store(layout->tail, std::memory_order_relaxed);
  header->evicted.store(layout->evicted, std::memory_order_relaxed);
  for (std::atomic<uint64_t>& mark : header->marks) mark.store(0, std::memory_order_relaxed);
  if (layout->source == nullptr) return;
  // The records keep their positions, so readers of the old file go on in
  // the new one where they were.
  unsigned char* data = static_cast<unsigned char*>(addr) + kDataOffset;
  for (uint64_t pos = layout->tail; pos < layout->head;) {
    uint64_t offset = pos % layout->capacity;
    uint64_t chunk = std::min(layout->head - pos, layout->capacity - offset);
    layout->source->CopyOut(pos, data + offset, chunk);
    pos += chunk;
  }
  MarkRecords(header, *layout);
}

// The marks of the records a new file took over, found as writers drop
// records: a damaged one is passed byte by byte.
void LogRing::MarkRecords(Header* header, const FileSpec& layout) {
  uint32_t shift = MarkShift(layout.capacity);
  for (uint64_t pos = layout.tail; pos < layout.head;) {
    MarkRecord(header, shift, pos);
    uint64_t size = layout.source->SoundSizeAt(pos, layout.head);
    pos = size != 0 ? pos + size : layout.source->NextSoundRecord(pos, layout.head);
  }
}

LogRing* LogRing::Open(const char* dir, log_id_t id, bool writer) {
  if (dir == nullptr || id < LOG_ID_MIN || id >= LOG_ID_MAX) return nullptr;
  LogRing* ring = new (std::nothrow) LogRing;
  if (ring == nullptr) return nullptr;
  ring->id_ = id;
  ring->writable_ = writer;
  ring->repair_ = writer;
  ring->name_ = qdlogging_log_id_to_name(id);
  ring->dirFd_ = OpenStoreDir(dir);
  if (ring->dirFd_ < 0 || ring->signal_.Open(ring->dirFd_) != 0 || ring->Map() != 0) {
    delete ring;
    return nullptr;
  }
  return ring;
}

LogRing::~LogRing() {
  UnmapShared(&mapping_);
  if (dirFd_ >= 0) close(dirFd_);
}

int LogRing::MakeWritable() {
  if (writable_) return 0;
  writable_ = true;
  int rc = Map();
  if (rc != 0) writable_ = false;
  return rc;
}

void LogRing::Adopt(const SharedMapping& mapping) {
  UnmapShared(&mapping_);
  mapping_ = mapping;
  header_ = static_cast<Header*>(mapping.addr);
  data_ = static_cast<unsigned char*>(mapping.addr) + kDataOffset;
  capacity_ = header_->capacity;
  markShift_ = MarkShift(capacity_);
}

bool LogRing::ValidHeader(const SharedMapping& mapping) const {
  const auto* header = static_cast<const Header*>(mapping.addr);
  return header->magic == kRingMagic && header->version == kRingVersion &&
         header->headerSize == kHeaderPage && header->logId == static_cast<uint32_t>(id_) &&
         header->capacity >= kRingMinSize && header->capacity <= kRingMaxSize &&
         mapping.size == kDataOffset + header->capacity;
}

int LogRing::Map() {
  for (int attempt = 0; attempt < 4; ++attempt) {
    SharedMapping mapping;
    int rc = MapStoreFile(dirFd_, name_, writable_, kDataOffset + kRingMinSize,
                          kDataOffset + kRingMaxSize, &mapping);
    if (rc == 0) {
      if (ValidHeader(mapping)) {
        Adopt(mapping);
        if (!writable_ || header_->retired.load(std::memory_order_acquire) == 0) return 0;
        rc = Renew();
        if (rc != -EAGAIN) return rc;
        continue;
      }
      UnmapShared(&mapping);
      rc = -EINVAL;
    }
    if (rc != -ENOENT && !(rc == -EINVAL && repair_)) return rc;
    FileSpec layout = {id_, QD_LOGGER_DEFAULT_RING_SIZE, 0, 0, 0, nullptr};
    rc = PublishSharedFile(dirFd_, name_, kDataOffset + layout.capacity, kRingFileMode,
                           rc == -EINVAL, InitFile, &layout, &mapping);
    if (rc == 0) {
      Adopt(mapping);
      return 0;
    }
    if (rc != -EEXIST) return rc;
  }
  return -EIO;
}

bool LogRing::Stale() const {
  if (header_->magic != kRingMagic || header_->version != kRingVersion ||
      header_->logId != static_cast<uint32_t>(id_) || header_->capacity != capacity_ ||
      header_->retired.load(std::memory_order_acquire) != 0) {
    return true;
  }
  // Being replaced: once the new file holds the name this one is done,
  // even when its resizer died before saying so.
  return header_->replacing.load(std::memory_order_acquire) != 0 &&
         !NameHolds(dirFd_, name_, mapping_);
}

int LogRing::LockFresh() {
  if (Stale()) return -ESTALE;
  int rc = RingLock(&header_->lock);
  if (rc != 0) return rc;
  bool marked = header_->replacing.load(std::memory_order_relaxed) != 0;
  if (!Stale()) {
    // No resize is under way while the lock is held: the mark is a
    // resizer's that died before its file took the name; the ring goes on.
    if (marked) header_->replacing.store(0, std::memory_order_relaxed);
    return 0;
  }
  // Or after: the swap is finished for it, so readers stop asking the folder.
  if (marked) header_->retired.store(1, std::memory_order_release);
  RingUnlock(&header_->lock);
  return -ESTALE;
}

int LogRing::Reopen() { return Map(); }

bool LogRing::Settled() const { return RingLockSettled(header_->lock); }

void LogRing::Unlock() {
  for (int round = 0;; ++round) {
    DrainSpill();
    RingUnlock(&header_->lock);
    // Pairs with the fence in Append's spill path: either that writer
    // takes the lock and drains, or its slot is seen here.
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (round == 3 || !SpillWaiting() || RingTryLock(&header_->lock) != 0) return;
  }
}

unsigned char* LogRing::SpillData(uint32_t slot) const {
  return static_cast<unsigned char*>(mapping_.addr) + kHeaderPage + slot * kSpillSlotSize;
}

bool LogRing::SpillWaiting() const {
  for (const SpillSlot& slot : header_->spill) {
    if (slot.state.load(std::memory_order_acquire) == kSlotFull) return true;
  }
  return false;
}

int LogRing::Spill(const qd_logger_entry* entry, const char* payload) {
  for (uint32_t i = 0; i < kSpillSlots; ++i) {
    SpillSlot& slot = header_->spill[i];
    uint32_t state = kSlotFree;
    if (!slot.state.compare_exchange_strong(state, kSlotFilling, std::memory_order_acquire)) {
      continue;
    }
    slot.tid.store(CallerTid(), std::memory_order_relaxed);
    slot.sequence.store(header_->spillSequence.fetch_add(1, std::memory_order_relaxed),
                        std::memory_order_relaxed);
    memcpy(SpillData(i), entry, kRecordHeaderSize);
    memcpy(SpillData(i) + kRecordHeaderSize, payload, entry->len);
    slot.state.store(kSlotFull, std::memory_order_release);
    return 0;
  }
  return -EBUSY;
}

void LogRing::DrainSpill() {
  // Records kept aside for a ring that another file replaced stay there.
  if (Stale()) return;
  for (uint32_t round = 0; round < kSpillSlots; ++round) {
    SpillSlot* oldest = nullptr;
    uint32_t oldestIndex = 0;
    for (uint32_t i = 0; i < kSpillSlots; ++i) {
      SpillSlot& slot = header_->spill[i];
      uint32_t state = slot.state.load(std::memory_order_acquire);
      if (state == kSlotFull) {
        if (oldest == nullptr || slot.sequence.load(std::memory_order_relaxed) <
                                     oldest->sequence.load(std::memory_order_relaxed)) {
          oldest = &slot;
          oldestIndex = i;
        }
      } else if (state != kSlotFree &&
                 (state != kSlotFilling || TaskGone(slot.tid.load(std::memory_order_relaxed)))) {
        // Scribbled over, or its writer died filling it.
        slot.state.store(kSlotFree, std::memory_order_relaxed);
      }
    }
    if (oldest == nullptr) return;
    // Copied out first: the slot lies in memory every writer can change.
    qd_log_msg copy;
    memcpy(copy.buf, SpillData(oldestIndex), kSpillSlotSize);
    const qd_logger_entry& entry = copy.entry;
    if (entry.hdr_size == kRecordHeaderSize && entry.len >= kRecordMinPayload &&
        entry.len <= QD_LOGGER_ENTRY_MAX_PAYLOAD && entry.lid == static_cast<uint32_t>(id_) &&
        copy.buf[kRecordHeaderSize + entry.len - 1] == '\0') {
      AppendLocked(&copy.entry, reinterpret_cast<const char*>(copy.buf) + kRecordHeaderSize);
    }
    oldest->state.store(kSlotFree, std::memory_order_release);
  }
}

void LogRing::CopyIn(uint64_t pos, const void* src, uint64_t size) {
  uint64_t offset = pos % capacity_;
  uint64_t first = std::min(size, capacity_ - offset);
  memcpy(data_ + offset, src, first);
  memcpy(data_, static_cast<const unsigned char*>(src) + first, size - first);
}

void LogRing::CopyOut(uint64_t pos, void* dst, uint64_t size) const {
  CopyOutAt(pos % capacity_, dst, size);
}

void LogRing::CopyOutAt(uint64_t offset, void* dst, uint64_t size) const {
  uint64_t first = std::min(size, capacity_ - offset);
  memcpy(dst, data_ + offset, first);
  memcpy(static_cast<unsigned char*>(dst) + first, data_, size - first);
}

// The data offset size bytes after offset; one division per record saved.
uint64_t LogRing::Advance(uint64_t offset, uint64_t size) const {
  uint64_t next = offset + size;
  return next >= capacity_ ? next - capacity_ : next;
}

bool LogRing::Overwritten(uint64_t pos) const {
  // Writers move the tail past a record before they overwrite it; seeing
  // the tail still at or below pos after the copy proves the copy whole.
  std::atomic_thread_fence(std::memory_order_acquire);
  return header_->tail.load(std::memory_order_relaxed) > pos;
}

uint64_t LogRing::SoundSizeAt(uint64_t pos, uint64_t head) const {
  qd_logger_entry entry;
  if (pos >= head || head - pos < kRecordHeaderSize) return 0;
  CopyOut(pos, &entry, kRecordHeaderSize);
  if (entry.hdr_size != kRecordHeaderSize || entry.len < kRecordMinPayload ||
      entry.len > QD_LOGGER_ENTRY_MAX_PAYLOAD || entry.lid != static_cast<uint32_t>(id_) ||
      head - pos - kRecordHeaderSize < entry.len) {
    return 0;
  }
  unsigned char last;
  CopyOut(pos + kRecordHeaderSize + entry.len - 1, &last, 1);
  return last == '\0' ? kRecordHeaderSize + entry.len : 0;
}

// A sound record followed by another or by the head: a run of payload
// bytes that happens to read as a header is rarely followed by a second.
bool LogRing::SoundBoundary(uint64_t pos, uint64_t head) const {
  uint64_t size = SoundSizeAt(pos, head);
  return size != 0 && (pos + size == head || SoundSizeAt(pos + size, head) != 0);
}

// Past a damaged record at pos, byte by byte: its own length is not to be
// trusted. Each step reads a few bytes, so the walk is bounded by the ring.
uint64_t LogRing::NextSoundRecord(uint64_t pos, uint64_t head) const {
  for (uint64_t at = pos + 1; at < head; ++at) {
    if (SoundBoundary(at, head)) return at;
  }
  return head;
}

uint64_t LogRing::DropUntilFree(uint64_t tail, uint64_t head, uint64_t keep) const {
  while (head - tail > keep) {
    uint64_t size = SoundSizeAt(tail, head);
    // A damaged record goes alone; the records after it stay.
    tail = size != 0 ? tail + size : NextSoundRecord(tail, head);
  }
  return tail;
}

void LogRing::Stamp(qd_logger_entry* entry) const {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  entry->sec = static_cast<uint32_t>(now.tv_sec);
  entry->nsec = static_cast<uint32_t>(now.tv_nsec);
}

void LogRing::AppendLocked(qd_logger_entry* entry, const char* payload) {
  uint64_t size = kRecordHeaderSize + entry->len;
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
  CopyIn(head, entry, kRecordHeaderSize);
  CopyIn(head + kRecordHeaderSize, payload, entry->len);
  MarkRecord(header_, markShift_, head);
  header_->head.store(head + size, std::memory_order_release);
}

int LogRing::Append(qd_logger_entry* entry, const char* payload) {
  uint64_t size = kRecordHeaderSize + entry->len;
  if (entry->len > QD_LOGGER_ENTRY_MAX_PAYLOAD || size > capacity_) return -EMSGSIZE;
  int rc = LockFresh();
  if (rc == -EBUSY) {
    Stamp(entry);
    rc = Spill(entry, payload);
    std::atomic_thread_fence(std::memory_order_seq_cst);
    // The owner may have let go meanwhile: then nobody else drains.
    if (rc == 0 && RingTryLock(&header_->lock) == 0) Unlock();
    return rc;
  }
  if (rc != 0) return rc;
  void (*hook)() = gLockHeldHook.load();
  if (hook != nullptr) hook();
  Stamp(entry);
  AppendLocked(entry, payload);
  Unlock();
  signal_.Notify();
  return 0;
}

int LogRing::Clear() {
  int rc = LockFresh();
  if (rc != 0) return rc;
  // Records kept aside are older than the clear: they go too.
  DrainSpill();
  header_->tail.store(header_->head.load(std::memory_order_relaxed), std::memory_order_release);
  Unlock();
  return 0;
}

int LogRing::Resize(uint64_t capacity) {
  if (capacity < kRingMinSize || capacity > kRingMaxSize) return -EINVAL;
  int rc = LockFresh();
  if (rc != 0) return rc;
  DrainSpill();
  if (capacity == capacity_) {
    Unlock();
    return 0;
  }
  return ReplaceLocked(capacity);
}

int LogRing::Renew() {
  int rc = RingLock(&header_->lock);
  if (rc != 0) return rc;
  if (!NameHolds(dirFd_, name_, mapping_)) {
    RingUnlock(&header_->lock);
    return -EAGAIN;
  }
  return ReplaceLocked(capacity_);
}

int LogRing::ReplaceLocked(uint64_t capacity) {
  uint64_t head = header_->head.load(std::memory_order_relaxed);
  uint64_t tail = header_->tail.load(std::memory_order_relaxed);
  if (tail > head || head - tail > capacity_) tail = head;
  uint64_t keepFrom = DropUntilFree(tail, head, capacity);
  FileSpec layout = {id_,
                     capacity,
                     head,
                     keepFrom,
                     header_->evicted.load(std::memory_order_relaxed) + (keepFrom - tail),
                     this};
  SharedMapping mapping;
  // Replaced under the old file's lock, and the old file is marked before
  // the lock is let go: a writer waiting on it then finds it retired. The
  // mark before the swap tells the next owner, should this process die
  // between the steps, which of them happened.
  header_->replacing.store(1, std::memory_order_release);
  ResizeStepDone(kResizeMarked);
  int rc = PublishSharedFile(dirFd_, name_, kDataOffset + capacity, kRingFileMode, true, InitFile,
                             &layout, &mapping);
  if (rc == 0) {
    ResizeStepDone(kResizePublished);
    header_->retired.store(1, std::memory_order_release);
  } else {
    header_->replacing.store(0, std::memory_order_relaxed);
  }
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

bool LogRing::Unchanged(uint64_t head) const {
  return header_->head.load(std::memory_order_acquire) == head && !Stale();
}

bool LogRing::Idle(uint64_t head) const {
  // The lock first: a writer publishes the head before it lets go.
  return RingLockFree(header_->lock) && Unchanged(head);
}

int LogRing::ReadHeaderAt(uint64_t pos, uint64_t head, qd_logger_entry* out) const {
  if (pos >= head || head - pos < kRecordHeaderSize) return -EINVAL;
  uint64_t offset = pos % capacity_;
  CopyOutAt(offset, out, kRecordHeaderSize);
  unsigned char last = 1;
  uint64_t size = kRecordHeaderSize + out->len;
  bool fits = out->len >= kRecordMinPayload && out->len <= QD_LOGGER_ENTRY_MAX_PAYLOAD &&
              head - pos >= size;
  if (fits) CopyOutAt(Advance(offset, size - 1), &last, 1);
  if (Overwritten(pos)) return 0;
  if (!fits || out->hdr_size != kRecordHeaderSize || out->lid != static_cast<uint32_t>(id_) ||
      last != '\0') {
    return -EINVAL;
  }
  return static_cast<int>(size);
}

int LogRing::ReadPayloadAt(uint64_t pos, qd_log_msg* msg) const {
  uint32_t len = msg->entry.len;
  if (len > QD_LOGGER_ENTRY_MAX_PAYLOAD) return -EINVAL;
  uint64_t offset = Advance(pos % capacity_, kRecordHeaderSize);
  unsigned char* dst = msg->buf + kRecordHeaderSize;
  constexpr uint32_t kBlock = 32;
  uint32_t blocks = (len + kBlock - 1) / kBlock;
  static_assert(kRecordHeaderSize + (QD_LOGGER_ENTRY_MAX_PAYLOAD + kBlock - 1) / kBlock * kBlock <=
                    sizeof(qd_log_msg::buf),
                "a record copied in whole blocks fits the buffer");
  if (capacity_ - offset >= uint64_t{blocks} * kBlock) {
    // In whole blocks: a library copy of a hundred bytes costs more than
    // the bytes, and the few read past the record are still the ring's.
    for (uint32_t b = 0; b < blocks; ++b)
      memcpy(dst + b * kBlock, data_ + offset + b * kBlock, kBlock);
  } else {
    CopyOutAt(offset, dst, len);
  }
  if (Overwritten(pos)) return 0;
  uint32_t size = kRecordHeaderSize + len;
  if (msg->buf[size - 1] != '\0') return -EINVAL;
  msg->buf[size] = '\0';
  return static_cast<int>(size);
}

uint64_t LogRing::MarkBelow(uint64_t before, uint64_t tail) const {
  if (before <= tail) return tail;
  // The stretches between tail and before: at most kRingMarks + 1, as the
  // ring holds at most capacity bytes.
  for (uint64_t s = (before - 1) >> markShift_;; --s) {
    uint64_t mark = header_->marks[s % kRingMarks].load(std::memory_order_acquire);
    if (mark >> markShift_ == s && mark >= tail && mark < before) return mark;
    if ((s << markShift_) <= tail || s == 0) return tail;
  }
}

bool LogRing::SkipDamaged(uint64_t pos, uint64_t head, uint64_t* next) const {
  *next = NextSoundRecord(pos, head);
  return !Overwritten(pos);
}

}  // namespace platform
