// The writing side of the log store. Each process keeps its ring mappings
// open, one slot per buffer, so a record costs the ring lock and two copies
// and no system call unless a reader sleeps.

#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "platform/log_ring.h"
#include "platform/log_store_dir.h"
#include "platform/logger.h"
#include "platform/safe_string.h"

using platform::LogRing;

namespace {

constexpr int kStaleRetries = 4;

struct WriterSlot {
  std::mutex mutex;
  LogRing* ring = nullptr;
  char dir[PATH_MAX] = {0};
};

// The rings stay mapped until the process ends.
WriterSlot gSlots[LOG_ID_MAX];

// The caller's ids, asked of the kernel once per process (per thread for
// the tid) rather than per record.
std::atomic<pid_t> gPid{0};
std::atomic<uid_t> gUid{0};
thread_local pid_t tTid = 0;
pthread_once_t gForkHookOnce = PTHREAD_ONCE_INIT;

// A fork while another thread is inside a slot would leave the child's copy
// of that slot locked for ever; the slots are held across the fork instead.
void HoldSlots() {
  for (int id = 0; id < LOG_ID_MAX; ++id) gSlots[id].mutex.lock();
}

void ReleaseSlots() {
  for (int id = LOG_ID_MAX - 1; id >= 0; --id) gSlots[id].mutex.unlock();
}

void ReleaseSlotsInChild() {
  gPid.store(0, std::memory_order_relaxed);
  tTid = 0;
  ReleaseSlots();
}

void InstallForkHook() { pthread_atfork(HoldSlots, ReleaseSlots, ReleaseSlotsInChild); }

void StampCaller(qd_logger_entry* entry) {
  pthread_once(&gForkHookOnce, InstallForkHook);
  pid_t pid = gPid.load(std::memory_order_relaxed);
  if (pid == 0) {
    pid = getpid();
    gUid.store(getuid(), std::memory_order_relaxed);
    gPid.store(pid, std::memory_order_relaxed);
  }
  if (tTid == 0) tTid = static_cast<pid_t>(syscall(SYS_gettid));
  entry->pid = pid;
  entry->tid = static_cast<uint32_t>(tTid);
  entry->uid = gUid.load(std::memory_order_relaxed);
}

// Priority byte, tag, NUL, message, NUL; the message is cut first, then the
// tag, to fit. Returns the payload length.
uint16_t BuildPayload(int priority, const char* tag, const char* message, char* out) {
  constexpr size_t kRoom = QD_LOGGER_ENTRY_MAX_PAYLOAD - platform::kRecordMinPayload;
  size_t tagLen = strnlen(tag, kRoom);
  size_t messageLen = strnlen(message, kRoom - tagLen);
  out[0] = static_cast<char>(priority);
  memcpy(out + 1, tag, tagLen);
  out[1 + tagLen] = '\0';
  memcpy(out + 2 + tagLen, message, messageLen);
  out[2 + tagLen + messageLen] = '\0';
  return static_cast<uint16_t>(platform::kRecordMinPayload + tagLen + messageLen);
}

// Appends through the slot, (re)opening its ring when the store folder
// changed or the file was replaced. Call with the slot locked.
int AppendLocked(WriterSlot* slot, log_id_t id, const char* dir, qd_logger_entry* entry,
                 const char* payload) {
  if (slot->ring != nullptr && strcmp(slot->dir, dir) != 0) {
    delete slot->ring;
    slot->ring = nullptr;
  }
  if (slot->ring == nullptr) {
    slot->ring = LogRing::Open(dir, id, true);
    if (slot->ring == nullptr) return -EIO;
    if (strcpy_s(slot->dir, sizeof(slot->dir), dir) != 0) return -ENAMETOOLONG;
  }
  for (int attempt = 0; attempt < kStaleRetries; ++attempt) {
    int rc = slot->ring->Append(entry, payload);
    if (rc != -ESTALE) return rc;
    if (slot->ring->Reopen() != 0) break;
  }
  delete slot->ring;
  slot->ring = nullptr;
  return -EIO;
}

}  // namespace

extern "C" {

int qd_log_write(int id, int priority, const char* tag, const char* message) {
  if (id < LOG_ID_MIN || id >= LOG_ID_MAX || priority < QD_LOG_UNKNOWN ||
      priority > QD_LOG_SILENT) {
    return -EINVAL;
  }
  char payload[QD_LOGGER_ENTRY_MAX_PAYLOAD];
  qd_logger_entry entry;
  entry.len =
      BuildPayload(priority, tag != nullptr ? tag : "", message != nullptr ? message : "", payload);
  entry.hdr_size = platform::kRecordHeaderSize;
  entry.lid = static_cast<uint32_t>(id);
  StampCaller(&entry);
  platform::DevicePath dir = platform::LogStoreDir();
  if (!dir.ok()) return dir.error();
  WriterSlot* slot = &gSlots[id];
  std::lock_guard<std::mutex> guard(slot->mutex);
  int rc = AppendLocked(slot, static_cast<log_id_t>(id), dir.c_str(), &entry, payload);
  return rc == 0 ? entry.len : rc;
}

}  // extern "C"
