// The reading side of the log store: logger lists, merged reads, and the
// buffer operations (clear, sizes).

#include <errno.h>
#include <limits.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <new>

#include "platform/log_format.h"
#include "platform/log_ring.h"
#include "platform/log_store_dir.h"
#include "platform/logger.h"
#include "platform/safe_string.h"
#include "platform/thread_cancel.h"

using platform::LogRing;

namespace {

// A blocked read wakes at least this often to look for itself; writers
// normally wake it long before.
constexpr long kWaitSliceMs = 1000;
constexpr int kStaleRetries = 4;
// A writer holds its lock for microseconds, unless it is preempted; one
// that holds it for longer than this is taken as stopped and not waited for
// again until it lets go.
constexpr int64_t kSettleWaitNs = 200 * 1000 * 1000;

}  // namespace

struct qd_logger {
  qd_logger_list* list;
  LogRing* ring;
  // Position of the next record to look at.
  uint64_t pos;
  // The head as last read: the records below it are there to read without
  // asking the ring again.
  uint64_t head;
  // A writer held the lock past the settle wait; not waited for again
  // until the lock is seen free.
  bool stuck;
  // The header of the next record of this buffer, checked and waiting for
  // its turn in the merge; its payload is copied once, when it is taken.
  bool hasPending;
  uint64_t pendingPos;
  qd_logger_entry pending;
};

struct qd_logger_list {
  int mode;
  unsigned int tail;
  pid_t pid;
  bool started;
  char dir[PATH_MAX];
  qd_logger* loggers[LOG_ID_MAX];
  platform::StoreSignal signal;
};

namespace {

uint64_t StampOf(const qd_logger_entry& entry) {
  return static_cast<uint64_t>(entry.sec) * 1000000000ULL + entry.nsec;
}

// Follows a resize made by another process. False when the file now at the
// path cannot be mapped.
bool Refresh(LogRing* ring) { return !ring->Stale() || ring->Reopen() == 0; }

// Runs op on the logger's ring, again on the new file while the ring it
// held was replaced under it.
template <typename Op>
int WithCurrentRing(qd_logger* logger, Op op) {
  if (logger == nullptr) return -EINVAL;
  for (int attempt = 0; attempt < kStaleRetries; ++attempt) {
    if (!Refresh(logger->ring)) return -EIO;
    int rc = op(logger->ring);
    if (rc != -ESTALE) return rc;
  }
  return -EIO;
}

// Reads the ring's span again (after a resize, on the new file) and puts
// the logger back inside it. 0 or a negated errno.
int Resync(qd_logger* logger) {
  LogRing* ring = logger->ring;
  if (!Refresh(ring)) return -EIO;
  uint64_t tail, head;
  if (!ring->Span(&tail, &head)) return -EIO;
  // Past the head: the file was made anew; below the tail: dropped.
  if (logger->pos > head || logger->pos < tail) logger->pos = tail;
  logger->head = head;
  return 0;
}

// Checks the header of the next record of logger that passes the pid
// filter into its pending slot, when there is one. 0 or a negated errno.
int FillPending(qd_logger* logger) {
  if (logger->hasPending) return 0;
  LogRing* ring = logger->ring;
  bool resync = false;
  for (;;) {
    if (resync || logger->pos >= logger->head) {
      // A buffer with nothing new costs one look at its head.
      if (!resync && logger->pos == logger->head && ring->Unchanged(logger->head)) return 0;
      int rc = Resync(logger);
      if (rc < 0) return rc;
      resync = false;
      if (logger->pos == logger->head) return 0;
    }
    int size = ring->ReadHeaderAt(logger->pos, logger->head, &logger->pending);
    if (size == -EINVAL) {
      // One damaged stretch costs its records and one line, not the read.
      uint64_t next;
      resync = !ring->SkipDamaged(logger->pos, logger->head, &next);
      if (resync) continue;
      fprintf(stderr, "log store: skipped a damaged record in %s\n",
              qdlogging_log_id_to_name(ring->id()));
      logger->pos = next;
      continue;
    }
    if (size < 0) return size;
    // Overwritten while copied: the tail moved on.
    resync = size == 0;
    if (resync) continue;
    logger->pendingPos = logger->pos;
    logger->pos += static_cast<uint64_t>(size);
    pid_t pid = logger->list->pid;
    if (pid != 0 && logger->pending.pid != pid) continue;
    logger->hasPending = true;
    return 0;
  }
}

int64_t MonotonicNs() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

// Waits, briefly, for a writer inside the logger's ring: a record stamped
// before the one about to be returned may still be on its way there.
void AwaitWriters(qd_logger* logger) {
  if (logger->ring->Settled()) {
    logger->stuck = false;
    return;
  }
  if (logger->stuck) return;
  int64_t deadline = MonotonicNs() + kSettleWaitNs;
  do {
    sched_yield();
    if (logger->ring->Settled()) return;
  } while (MonotonicNs() < deadline);
  logger->stuck = true;
}

// True when the logger has read all its ring held when last asked.
bool AtHead(const qd_logger* logger) { return !logger->hasPending && logger->pos == logger->head; }

// Before a record is returned, the buffers with nothing pending are looked
// at once more, after their writers are done: true when one has a record
// now, which may be older.
int CatchUpOthers(qd_logger_list* list, const qd_logger* chosen) {
  int found = 0;
  for (qd_logger* logger : list->loggers) {
    if (logger == nullptr || logger == chosen || logger->hasPending) continue;
    // The usual case, a buffer with no writer inside and nothing new, in
    // one look at its lock and head.
    if (logger->pos == logger->head && logger->ring->Idle(logger->head)) {
      logger->stuck = false;
      continue;
    }
    AwaitWriters(logger);
    int rc = FillPending(logger);
    if (rc < 0) return rc;
    found |= logger->hasPending ? 1 : 0;
  }
  return found;
}

// Looks once more at every buffer that read all it had: true when one has
// a record now.
int LookAgain(qd_logger_list* list) {
  int found = 0;
  for (qd_logger* logger : list->loggers) {
    if (logger == nullptr) continue;
    int rc = FillPending(logger);
    if (rc < 0) return rc;
    found |= logger->hasPending ? 1 : 0;
  }
  return found;
}

// The oldest pending record across the list into msg: its length, 0 when
// no buffer has one, or a negated errno.
int TakeOldest(qd_logger_list* list, qd_log_msg* msg) {
  for (;;) {
    qd_logger* oldest = nullptr;
    for (qd_logger* logger : list->loggers) {
      // A buffer at its head is looked at below, once its writers are done.
      if (logger == nullptr || AtHead(logger)) continue;
      int rc = FillPending(logger);
      if (rc < 0) return rc;
      if (logger->hasPending &&
          (oldest == nullptr || StampOf(logger->pending) < StampOf(oldest->pending))) {
        oldest = logger;
      }
    }
    int rc = oldest != nullptr ? CatchUpOthers(list, oldest) : LookAgain(list);
    if (rc < 0) return rc;
    if (oldest == nullptr && rc == 0) return 0;
    if (rc > 0) continue;
    oldest->hasPending = false;
    msg->entry = oldest->pending;
    int size = oldest->ring->ReadPayloadAt(oldest->pendingPos, msg);
    if (size > 0) return size;
    // Changed since its header was read: dropped (a clear drops it too), or
    // damaged, which the next look at it tells.
    if (size < 0) oldest->pos = oldest->pendingPos;
  }
}

// The timestamps and positions of the newest records of one buffer, as
// many as a tail can take: a circular window over the buffer's records.
struct Stamps {
  uint64_t* stamp = nullptr;
  uint64_t* pos = nullptr;
  size_t slots = 0;
  size_t count = 0;  // records seen; the window holds the last slots of them
  uint64_t head = 0;
  ~Stamps() {
    free(stamp);
    free(pos);
  }
  size_t held() const { return count < slots ? count : slots; }
  // back = 0 is the newest record.
  size_t Index(size_t back) const { return (count - 1 - back) % slots; }
};

// Counts the records of the pid filter from pos up to end. False when the
// walk does not land on end exactly: damage, a record overwritten, or a
// mark that is no record's start.
bool CountRecords(const qd_logger* logger, uint64_t pos, uint64_t end, uint64_t head,
                  size_t* count) {
  pid_t pid = logger->list->pid;
  while (pos < end) {
    qd_logger_entry entry;
    int size = logger->ring->ReadHeaderAt(pos, head, &entry);
    if (size <= 0) return false;
    if (pid == 0 || entry.pid == pid) ++*count;
    pos += static_cast<uint64_t>(size);
  }
  return pos == end;
}

// Where a tail of want records may start its walk: from the head back, mark
// by mark, until the stretch holds enough of them. first (the oldest
// record) when it does not, or when a stretch does not walk cleanly.
uint64_t TailStart(const qd_logger* logger, uint64_t first, uint64_t head, size_t want) {
  uint64_t start = head;
  size_t count = 0;
  while (count < want && start > first) {
    uint64_t from = logger->ring->MarkBelow(start, first);
    if (from == first) return first;
    if (!CountRecords(logger, from, start, head, &count)) return first;
    start = from;
  }
  return start;
}

int CollectStamps(qd_logger* logger, unsigned int tail, Stamps* out) {
  for (;;) {
    if (!Refresh(logger->ring)) return -EIO;
    uint64_t first, head;
    if (!logger->ring->Span(&first, &head)) return -EIO;
    uint64_t most =
        (head - first) / (platform::kRecordHeaderSize + platform::kRecordMinPayload) + 1;
    free(out->stamp);
    free(out->pos);
    out->slots = static_cast<size_t>(most < tail ? most : tail);
    out->stamp = static_cast<uint64_t*>(malloc(out->slots * sizeof(uint64_t)));
    out->pos = static_cast<uint64_t*>(malloc(out->slots * sizeof(uint64_t)));
    if (out->stamp == nullptr || out->pos == nullptr) return -ENOMEM;
    out->count = 0;
    out->head = head;
    bool overwritten = false;
    for (uint64_t pos = TailStart(logger, first, head, out->slots); pos < head && !overwritten;) {
      qd_logger_entry entry;
      int size = logger->ring->ReadHeaderAt(pos, head, &entry);
      if (size < 0) {
        // Damaged: the read that reaches it says so.
        overwritten = !logger->ring->SkipDamaged(pos, head, &pos);
        continue;
      }
      overwritten = size == 0;
      pid_t pid = logger->list->pid;
      if (size > 0 && (pid == 0 || entry.pid == pid)) {
        size_t slot = out->count++ % out->slots;
        out->stamp[slot] = StampOf(entry);
        out->pos[slot] = pos;
      }
      pos += static_cast<uint64_t>(size);
    }
    // Overwritten while scanned: scan again from the new tail.
    if (!overwritten) return 0;
  }
}

// Starts each buffer so that the last list->tail records across all of
// them, by time, are read.
int PositionForTail(qd_logger_list* list) {
  Stamps stamps[LOG_ID_MAX];
  size_t taken[LOG_ID_MAX] = {0};
  for (int id = 0; id < LOG_ID_MAX; ++id) {
    if (list->loggers[id] == nullptr) continue;
    int rc = CollectStamps(list->loggers[id], list->tail, &stamps[id]);
    if (rc < 0) return rc;
  }
  // Walk back from the newest end of every buffer, newest first; on equal
  // times the higher id goes first, as the merge puts it last.
  for (unsigned int n = 0; n < list->tail; ++n) {
    int newest = -1;
    uint64_t newestStamp = 0;
    for (int id = 0; id < LOG_ID_MAX; ++id) {
      if (taken[id] == stamps[id].held()) continue;
      uint64_t stamp = stamps[id].stamp[stamps[id].Index(taken[id])];
      if (newest < 0 || stamp >= newestStamp) {
        newest = id;
        newestStamp = stamp;
      }
    }
    if (newest < 0) break;
    taken[newest]++;
  }
  for (int id = 0; id < LOG_ID_MAX; ++id) {
    qd_logger* logger = list->loggers[id];
    if (logger == nullptr) continue;
    const Stamps& s = stamps[id];
    logger->pos = taken[id] == 0 ? s.head : s.pos[s.Index(taken[id] - 1)];
  }
  return 0;
}

// True when a buffer of the list is full enough that the next record may
// drop old ones, or already did since dropped[] was taken.
int AboutToWrap(qd_logger_list* list, const uint64_t* dropped) {
  for (int id = 0; id < LOG_ID_MAX; ++id) {
    qd_logger* logger = list->loggers[id];
    if (logger == nullptr) continue;
    if (!Refresh(logger->ring)) return -EIO;
    uint64_t tail, head;
    if (!logger->ring->Span(&tail, &head)) return -EIO;
    uint64_t room = logger->ring->capacity() - (head - tail);
    if (room < QD_LOGGER_ENTRY_MAX_LEN || logger->ring->Evicted() != dropped[id]) return 1;
  }
  return 0;
}

int WaitForWrap(qd_logger_list* list) {
  uint64_t dropped[LOG_ID_MAX] = {0};
  for (int id = 0; id < LOG_ID_MAX; ++id) {
    if (list->loggers[id] != nullptr) dropped[id] = list->loggers[id]->ring->Evicted();
  }
  int64_t deadline = MonotonicNs() / 1000000 + QD_LOGGER_WRAP_MAX_SECONDS * 1000LL;
  for (;;) {
    uint32_t seen = list->signal.PrepareWait();
    int rc = AboutToWrap(list, dropped);
    if (rc != 0) return rc < 0 ? rc : 0;
    int64_t left = deadline - MonotonicNs() / 1000000;
    if (left <= 0) return 0;
    list->signal.Wait(seen, left < kWaitSliceMs ? static_cast<long>(left) : kWaitSliceMs);
  }
}

int Start(qd_logger_list* list) {
  if (list->mode & QD_LOGGER_MODE_WRAP) {
    int rc = WaitForWrap(list);
    if (rc < 0) return rc;
    // After the wait the buffers are read as they stand.
    list->mode |= QD_LOGGER_MODE_NONBLOCK;
  }
  if (list->tail > 0) {
    int rc = PositionForTail(list);
    if (rc < 0) return rc;
  }
  list->started = true;
  return 0;
}

}  // namespace

extern "C" {

qd_logger_list* qd_logger_list_alloc(int mode, unsigned int tail, pid_t pid) {
  qd_logger_list* list = new (std::nothrow) qd_logger_list;
  if (list == nullptr) return nullptr;
  list->mode = mode;
  list->tail = tail;
  list->pid = pid;
  list->started = false;
  list->dir[0] = '\0';
  for (qd_logger*& logger : list->loggers) logger = nullptr;
  return list;
}

void qd_logger_list_free(qd_logger_list* list) {
  if (list == nullptr) return;
  for (qd_logger* logger : list->loggers) {
    if (logger == nullptr) continue;
    delete logger->ring;
    delete logger;
  }
  delete list;
}

qd_logger* qd_logger_open(qd_logger_list* list, log_id_t id) {
  if (list == nullptr || id < LOG_ID_MIN || id >= LOG_ID_MAX) return nullptr;
  if (list->loggers[id] != nullptr) return list->loggers[id];
  // Every buffer of a list comes from the store the first one came from.
  if (list->dir[0] == '\0') {
    platform::DevicePath dir = platform::LogStoreDir();
    if (!dir.ok() || strcpy_s(list->dir, sizeof(list->dir), dir.c_str()) != 0) return nullptr;
  }
  if (!list->signal.IsOpen() && list->signal.Open(list->dir) != 0) return nullptr;
  qd_logger* logger = new (std::nothrow) qd_logger;
  if (logger == nullptr) return nullptr;
  logger->ring = LogRing::Open(list->dir, id, false);
  if (logger->ring == nullptr) {
    delete logger;
    return nullptr;
  }
  logger->list = list;
  logger->pos = 0;
  logger->head = 0;
  logger->stuck = false;
  logger->hasPending = false;
  logger->pendingPos = 0;
  list->loggers[id] = logger;
  return logger;
}

int qd_logger_list_read(qd_logger_list* list, qd_log_msg* msg) {
  if (list == nullptr || msg == nullptr) return -EINVAL;
  bool any = false;
  for (qd_logger* logger : list->loggers) any = any || logger != nullptr;
  if (!any) return -EINVAL;
  if (!list->started) {
    int rc = Start(list);
    if (rc < 0) return rc;
  }
  for (;;) {
    int rc = TakeOldest(list, msg);
    if (rc != 0) return rc;
    if (list->mode & QD_LOGGER_MODE_NONBLOCK) return -EAGAIN;
    // Ask to be woken, then look once more before sleeping: a record
    // written in between is either seen now or wakes the sleep.
    uint32_t seen = list->signal.PrepareWait();
    rc = TakeOldest(list, msg);
    if (rc != 0) return rc;
    list->signal.Wait(seen, kWaitSliceMs);
    if (platform::CancelRequested()) return -EINTR;
  }
}

// Readers map their rings read-only; clearing and resizing write.
int qd_logger_clear(qd_logger* logger) {
  return WithCurrentRing(logger, [](LogRing* ring) {
    int rc = ring->MakeWritable();
    return rc != 0 ? rc : ring->Clear();
  });
}

int qd_logger_set_log_size(qd_logger* logger, unsigned long size) {
  return WithCurrentRing(logger, [size](LogRing* ring) {
    int rc = ring->MakeWritable();
    return rc != 0 ? rc : ring->Resize(size);
  });
}

long qd_logger_get_log_size(qd_logger* logger) {
  if (logger == nullptr) return -EINVAL;
  if (!Refresh(logger->ring)) return -EIO;
  return static_cast<long>(logger->ring->capacity());
}

long qd_logger_get_log_readable_size(qd_logger* logger) {
  if (logger == nullptr) return -EINVAL;
  if (!Refresh(logger->ring)) return -EIO;
  uint64_t tail, head;
  if (!logger->ring->Span(&tail, &head)) return -EIO;
  return static_cast<long>(head - tail);
}

}  // extern "C"
