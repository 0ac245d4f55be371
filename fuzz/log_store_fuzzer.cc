// The log store's reader over corrupt ring files. Each round builds one or
// two rings the way a writer does, with records taken from the input, then
// overwrites bytes anywhere in the files (positions, lock, records) and
// reads them without blocking until the reader reports it is drained or
// fails. Whatever the files hold, the reader must neither crash nor loop.

#include <errno.h>
#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <limits.h>
#include <stdint.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "platform/log_format.h"
#include "platform/log_ring.h"
#include "platform/logger.h"

using morvofuzz::Check;
using platform::LogRing;

namespace {

constexpr uint64_t kPage = 4096;
constexpr int kMaxPages = 4;
constexpr int kMaxRecords = 96;
constexpr int kMaxPatches = 16;
// Every record is at least header and three payload bytes, so no reader can
// return more records than this from the largest rings built here.
constexpr int kMaxReads = 2 * kMaxPages * kPage / (platform::kRecordHeaderSize + 3) + 2;

std::string gStore;

std::string RingPath(log_id_t id) { return gStore + "/" + qdlogging_log_id_to_name(id); }

void AppendRecords(FuzzedDataProvider& in, LogRing* ring, log_id_t id) {
  int count = in.ConsumeIntegralInRange(0, kMaxRecords);
  for (int i = 0; i < count && in.remaining_bytes() > 0; ++i) {
    uint8_t shape = in.ConsumeIntegral<uint8_t>();
    size_t len = in.ConsumeIntegralInRange<size_t>(platform::kRecordMinPayload, 300);
    std::vector<char> payload = in.ConsumeBytes<char>(len);
    payload.resize(len, 'x');
    // Mostly records as a writer forms them; sometimes without the last NUL.
    if ((shape & 1) == 0) payload.back() = '\0';
    qd_logger_entry entry = {};
    entry.len = static_cast<uint16_t>(len);
    entry.hdr_size = platform::kRecordHeaderSize;
    entry.pid = shape >> 6;
    entry.tid = shape >> 4;
    entry.lid = id;
    ring->Append(&entry, payload.data());
  }
}

// Writes bytes over the file: in the header page or anywhere in the data.
void Patch(FuzzedDataProvider& in, log_id_t id, uint64_t capacity) {
  int fd = open(RingPath(id).c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return;
  int count = in.ConsumeIntegralInRange(0, kMaxPatches);
  for (int i = 0; i < count && in.remaining_bytes() > 0; ++i) {
    bool inHeader = in.ConsumeBool();
    uint64_t offset = inHeader ? in.ConsumeIntegralInRange<uint64_t>(0, 255)
                               : kPage + in.ConsumeIntegralInRange<uint64_t>(0, capacity - 1);
    std::vector<uint8_t> bytes = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange(1, 8));
    if (pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset)) < 0) break;
  }
  close(fd);
}

bool BuildRing(FuzzedDataProvider& in, log_id_t id) {
  unlink(RingPath(id).c_str());
  LogRing* ring = LogRing::Open(gStore.c_str(), id, true);
  if (ring == nullptr) return false;
  uint64_t capacity = kPage * in.ConsumeIntegralInRange(1, kMaxPages);
  bool made = ring->Resize(capacity) == 0;
  if (made) AppendRecords(in, ring, id);
  delete ring;
  if (made) Patch(in, id, capacity);
  return made;
}

void ReadAll(qd_logger_list* list) {
  qd_log_msg msg;
  for (int n = 0;; ++n) {
    Check(n <= kMaxReads, "the reader returns more records than the rings hold");
    int rc = qd_logger_list_read(list, &msg);
    if (rc <= 0) break;
    Check(rc == static_cast<int>(platform::kRecordHeaderSize + msg.entry.len),
          "record length does not match its header");
    Check(msg.buf[rc - 1] == '\0' && msg.buf[rc] == '\0', "record returned without its NULs");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  gStore = morvofuzz::Root().Under("/store");
  setenv(MORVO_LOG_STORE_ENV, gStore.c_str(), 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  uint8_t flags = in.ConsumeIntegral<uint8_t>();
  bool two = (flags & 1) != 0;
  unsigned int tail = (flags & 2) != 0 ? in.ConsumeIntegralInRange(1, 64) : 0;
  pid_t pid = (flags & 4) != 0 ? in.ConsumeIntegralInRange(1, 3) : 0;
  if (!BuildRing(in, LOG_ID_MAIN) || (two && !BuildRing(in, LOG_ID_SYSTEM))) return 0;
  qd_logger_list* list = qd_logger_list_alloc(QD_LOGGER_MODE_NONBLOCK, tail, pid);
  if (list == nullptr) return 0;
  qd_logger* main = qd_logger_open(list, LOG_ID_MAIN);
  qd_logger* system = two ? qd_logger_open(list, LOG_ID_SYSTEM) : nullptr;
  if (main != nullptr || system != nullptr) ReadAll(list);
  for (qd_logger* logger : {main, system}) {
    qd_logger_get_log_size(logger);
    qd_logger_get_log_readable_size(logger);
  }
  qd_logger_list_free(list);
  return 0;
}
