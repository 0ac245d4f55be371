#ifndef MORVOCAT_PLATFORM_LOG_RING_H_
#define MORVOCAT_PLATFORM_LOG_RING_H_

// One log buffer: a ring file of the store folder, mapped shared by every
// process that writes or reads it. Records are addressed by their byte
// position since the buffer was made (a 64-bit count that only grows), so a
// position names one record for ever: a reader that finds its position
// below the ring's tail knows the record was dropped and skips forward.
// Writers take the ring's lock (log_lock.h); readers map the file
// read-only, take no lock and check the tail after copying, so they never
// return a record that was overwritten under them.
//
// A writer that finds the lock held by a stopped owner (past one bounded
// wait, or marked stalled by another writer) puts its record, stamped, in
// one of kSpillSlots slots of the file instead. Whoever lets the lock go
// next, the stopped owner once resumed included, first moves the slots'
// records into the ring in the order they came; so a stopped writer costs
// each other writer at most one wait and no record, until the slots are
// full (-EBUSY, without waiting). A spilled record keeps the time it was
// written, so it may sit in the ring after a newer one.
//
// Writers also mark, in the header, the first record that starts in each
// of kRingMarks stretches of the positions, so that a tail starts near the
// head instead of walking every record. A mark is a hint: readers take it
// only when the walk from it lands exactly on the next mark or the head.

#include <limits.h>
#include <stdint.h>

#include "platform/log_lock.h"
#include "platform/log_signal.h"
#include "platform/log_store_dir.h"
#include "platform/logger.h"

namespace platform {

constexpr uint64_t kRingMinSize = 4096;
constexpr uint64_t kRingMaxSize = 256ULL * 1024 * 1024;
constexpr uint32_t kRecordHeaderSize = sizeof(qd_logger_entry);
// Priority byte, tag NUL and message NUL.
constexpr uint32_t kRecordMinPayload = 3;

static_assert(sizeof(qd_logger_entry) == 28, "the record header is 28 bytes");

// Where the lock lies in a ring file (tests scribble over it).
constexpr uint64_t kRingLockOffset = 64;
constexpr uint64_t kRingLockSize = 64;
constexpr uint32_t kSpillSlots = 8;
constexpr uint32_t kRingMarks = 256;
// Where the marks lie in a ring file (tests scribble over them).
constexpr uint64_t kRingMarksOffset = 448;
// Where the records start in a ring file: after the header page and one
// 4096-byte page per spill slot.
constexpr uint64_t kRingDataOffset = 4096 + kSpillSlots * 4096;

// Where the "retired" word lies in a ring file (tests set it).
constexpr uint64_t kRingRetiredOffset = 24;

// Called by a writer right after it took a ring's lock (a test seam).
void SetLockHeldHook(void (*hook)());

// The steps of a resize that a process may die between: the old ring
// marked as being replaced, and the new file in place under the name.
enum ResizeStep { kResizeMarked, kResizePublished };
// Called by a resizer after each step (a test seam).
void SetResizeHook(void (*hook)(ResizeStep step));

class LogRing {
 public:
  // Maps the ring file of buffer id in the store folder dir, making the
  // folder and the file when missing. A writer maps it read-write and
  // replaces a file whose content fails validation by an empty ring; a
  // reader maps it read-only and refuses such a file. Files the store
  // refuses (log_store_dir.h) are refused by both. Null on failure.
  static LogRing* Open(const char* dir, log_id_t id, bool writer);
  ~LogRing();
  LogRing(const LogRing&) = delete;
  LogRing& operator=(const LogRing&) = delete;

  // Maps a reader's ring read-write for Clear and Resize. 0 or a negated
  // errno (-EACCES for a reader that may only read).
  int MakeWritable();

  log_id_t id() const { return id_; }
  uint64_t capacity() const { return capacity_; }
  StoreSignal& signal() { return signal_; }

  // True once another process replaced the file (resize), or when the
  // mapped header no longer reads as this ring's (overwritten in place);
  // Reopen then maps what is at the path now (0 or a negated errno).
  // Positions carry over.
  bool Stale() const;
  int Reopen();

  // Appends header (stamped with the time here, under the lock) and
  // header->len payload bytes, dropping the oldest records to make room.
  // 0, -ESTALE when retired, or a negated errno.
  int Append(qd_logger_entry* header, const char* payload);
  // Drops every record. 0, -ESTALE or a negated errno.
  int Clear();
  // Replaces the file by one of capacity bytes holding the newest records
  // that fit, at their old positions. 0, -ESTALE, -EINVAL for a capacity
  // out of range, or a negated errno.
  int Resize(uint64_t capacity);

  // True when no writer is inside the ring at this moment, so every record
  // stamped before now is visible (or the one inside is stopped).
  bool Settled() const;

  // The positions of the oldest record and of the end. False when the
  // shared header is inconsistent.
  bool Span(uint64_t* tail, uint64_t* head) const;
  // True when the head is still head and the file is still this ring's: a
  // reader that reached head has nothing new, and need not ask further.
  bool Unchanged(uint64_t head) const;
  // As Unchanged, and no writer is inside the ring: nothing stamped before
  // now can still come.
  bool Idle(uint64_t head) const;
  // Bytes that writers have dropped to make room, ever.
  uint64_t Evicted() const;
  // Copies the header of the record at pos (below head), once the record
  // reads as whole (its terminator in place). Its total size, 0 when it was
  // overwritten while copied, -EINVAL when malformed.
  int ReadHeaderAt(uint64_t pos, uint64_t head, qd_logger_entry* out) const;
  // Copies the payload of the record at pos, whose header ReadHeaderAt put
  // in msg->entry, into msg, NUL after it. As ReadHeaderAt.
  int ReadPayloadAt(uint64_t pos, qd_log_msg* msg) const;
  // The newest marked record position in [tail, before), tail when no
  // mark there is this lap's.
  uint64_t MarkBelow(uint64_t before, uint64_t tail) const;
  // For a reader that found the record at pos malformed: *next is where
  // the next sound record starts, head when none does. False when writers
  // overwrote pos meanwhile (start again from the tail).
  bool SkipDamaged(uint64_t pos, uint64_t head, uint64_t* next) const;

  struct Header;

 private:
  struct FileSpec;

  LogRing() = default;
  static void InitFile(void* addr, size_t size, const void* arg);
  int Map();
  bool ValidHeader(const SharedMapping& mapping) const;
  void Adopt(const SharedMapping& mapping);
  static void MarkRecords(Header* header, const FileSpec& layout);
  // Takes the lock on a header that is still this ring's; -ESTALE when it
  // is not, -EBUSY when a stopped writer holds it.
  int LockFresh();
  // The ring under the name is marked retired, yet nothing replaced it (the
  // mark was scribbled over): a writer puts a copy of its records in its
  // place, under its lock. -EAGAIN when another process did first.
  int Renew();
  // Publishes a file of capacity bytes with the newest records that fit
  // in place of this one, retires this one and lets its lock go.
  int ReplaceLocked(uint64_t capacity);
  // Moves the spilled records into the ring, then lets the lock go.
  void Unlock();
  void Stamp(qd_logger_entry* entry) const;
  void AppendLocked(qd_logger_entry* entry, const char* payload);
  int Spill(const qd_logger_entry* entry, const char* payload);
  void DrainSpill();
  bool SpillWaiting() const;
  unsigned char* SpillData(uint32_t slot) const;
  uint64_t SoundSizeAt(uint64_t pos, uint64_t head) const;
  bool SoundBoundary(uint64_t pos, uint64_t head) const;
  uint64_t NextSoundRecord(uint64_t pos, uint64_t head) const;
  uint64_t DropUntilFree(uint64_t tail, uint64_t head, uint64_t keep) const;
  void CopyIn(uint64_t pos, const void* src, uint64_t size);
  void CopyOut(uint64_t pos, void* dst, uint64_t size) const;
  void CopyOutAt(uint64_t offset, void* dst, uint64_t size) const;
  uint64_t Advance(uint64_t offset, uint64_t size) const;
  bool Overwritten(uint64_t pos) const;

  log_id_t id_ = LOG_ID_MAIN;
  bool writable_ = false;
  bool repair_ = false;
  int dirFd_ = -1;
  const char* name_ = "";
  SharedMapping mapping_;
  Header* header_ = nullptr;
  unsigned char* data_ = nullptr;
  uint64_t capacity_ = 0;
  // Marks are kept per 1 << markShift_ positions.
  uint32_t markShift_ = 12;
  StoreSignal signal_;
};

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_LOG_RING_H_
