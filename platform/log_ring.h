#ifndef MORVOCAT_PLATFORM_LOG_RING_H_
#define MORVOCAT_PLATFORM_LOG_RING_H_

// One log buffer: a ring file of the store folder, mapped shared by every
// process that writes or reads it. Records are addressed by their byte
// position since the buffer was made (a 64-bit count that only grows), so a
// position names one record for ever: a reader that finds its position
// below the ring's tail knows the record was dropped and skips forward.
// Writers take a robust process-shared lock; readers take none and check
// the tail after copying, so they never return a record that was
// overwritten under them.

#include <limits.h>
#include <stdint.h>

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

class LogRing {
 public:
  // Maps the ring file of buffer id in the store folder dir, making the
  // folder and the file when missing. A file that fails validation is
  // replaced by an empty ring when repair is set (writers), else refused
  // (readers). Null on failure.
  static LogRing* Open(const char* dir, log_id_t id, bool repair);
  ~LogRing();
  LogRing(const LogRing&) = delete;
  LogRing& operator=(const LogRing&) = delete;

  log_id_t id() const { return id_; }
  uint64_t capacity() const { return capacity_; }
  StoreSignal& signal() { return signal_; }

  // True once another process replaced the file (resize), or when the
  // mapped header no longer reads as this ring's (overwritten in place);
  // Reopen then maps what is at the path now. Positions carry over.
  bool Stale() const;
  bool Reopen();

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
  // stamped before now is visible.
  bool Settled();

  // The positions of the oldest record and of the end. False when the
  // shared header is inconsistent.
  bool Span(uint64_t* tail, uint64_t* head) const;
  // Bytes that writers have dropped to make room, ever.
  uint64_t Evicted() const;
  // Copies the header of the record at pos (below head). Its total size, 0
  // when it was overwritten while copied, -EINVAL when malformed.
  int ReadHeaderAt(uint64_t pos, uint64_t head, qd_logger_entry* out) const;
  // Copies the whole record at pos into msg, NUL after it. As ReadHeaderAt.
  int ReadAt(uint64_t pos, uint64_t head, qd_log_msg* msg) const;

  struct Header;

 private:
  struct FileSpec;

  LogRing() = default;
  static void InitFile(void* addr, size_t size, const void* arg);
  int Map();
  void Adopt(const SharedMapping& mapping);
  int Lock();
  // Lock() on a header that is still this ring's; -ESTALE when it is not.
  int LockFresh();
  void Unlock();
  uint64_t RecordSizeAt(uint64_t pos, uint64_t head) const;
  uint64_t DropUntilFree(uint64_t tail, uint64_t head, uint64_t keep) const;
  void CopyIn(uint64_t pos, const void* src, uint64_t size);
  void CopyOut(uint64_t pos, void* dst, uint64_t size) const;
  bool Overwritten(uint64_t pos) const;

  log_id_t id_ = LOG_ID_MAIN;
  bool repair_ = false;
  char path_[PATH_MAX] = {0};
  SharedMapping mapping_;
  Header* header_ = nullptr;
  unsigned char* data_ = nullptr;
  uint64_t capacity_ = 0;
  StoreSignal signal_;
};

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_LOG_RING_H_
