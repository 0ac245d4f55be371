#include "reader/read_loop.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <new>

#include "platform/safe_string.h"
#include "platform/write_fully.h"
#include "reader/line_batch.h"
#include "reader/output_file.h"

namespace qdlogging {
namespace {

constexpr size_t kDividerSize = 1024;
constexpr size_t kLineSize = 512;

// The state of one loop: the record buffers indexed by log id once instead
// of searching the list by name for every record, and the line batch of a
// run that does not wait.
struct LoopState {
  LogDevice* byId[LOG_ID_MAX] = {};
  LogDevice unexpected;
  LogDevice* previous = nullptr;
  LineBatch* batch = nullptr;
};

void StartLoop(const android_logcat_context_internal* ctx, LoopState* loop) {
  loop->unexpected.name = "unexpected";
  for (LogDevice* d = ctx->devices; d != nullptr; d = d->next) {
    log_id_t id = qdlogging_name_to_log_id(d->name);
    if (id < LOG_ID_MAX && loop->byId[id] == nullptr) loop->byId[id] = d;
  }
}

// False ends the loop; the read result decides how.
bool CheckReadResult(android_logcat_context_internal* ctx, int result) {
  if (result > 0) return true;
  if (result == -EINTR && StopRequested(ctx)) return false;  // woken for the stop
  switch (result) {
    case -EAGAIN:
      break;
    case 0:
    case -EIO:
      LogcatPanic(ctx, HELP_NONE, "read: unexpected EOF!\n");
      break;
    case -EINVAL:
      LogcatPanic(ctx, HELP_NONE, "read: unexpected length.\n");
      break;
    default:
      LogcatPanic(ctx, HELP_NONE, "logcat read failure\n");
      break;
  }
  return false;
}

// A line that could not be written is reported and the run goes on, except
// when nobody reads the output any more: then nothing later can be written.
void OutputError(android_logcat_context_internal* ctx, int err) {
  if (err == ECANCELED) return;  // the write gave up for the stop request
  fprintf(stderr, "%s\n", "output error");
  if (err == EPIPE) {
    ctx->exitStatus.store(1, std::memory_order_release);
    ctx->stopRequested.store(true, std::memory_order_release);
  }
}

void MaybePrintStart(android_logcat_context_internal* ctx, LogDevice* device, LineBatch* batch) {
  if (ctx->deviceCount > 1) {
    char divider[kDividerSize];
    memset_s(divider, sizeof(divider), 0, sizeof(divider));
    if (snprintf_s(divider, sizeof(divider), sizeof(divider) - 1, "--------- %s %s\n",
                   "beginning of", device->name) < 0) {
      LogcatPanic(ctx, HELP_NONE, "MaybePrintStart snprintf_s error");
    }
    MorvocatUtils* writer = MmapWriter(ctx);
    if (batch != nullptr && !batch->Flush()) OutputError(ctx, errno);
    if (writer != nullptr) {
      writer->Write(divider, strnlen(divider, sizeof(divider)));
    } else if (platform::WriteFully(ctx->output_fd, divider, strlen(divider)) < 0) {
      LogcatPanic(ctx, HELP_NONE, "output error");
      return;
    }
  }
  device->printed = true;
}

// Writes one parsed entry; returns the bytes written, or -1 when the line
// could not be written to the output descriptor.
long WriteEntry(android_logcat_context_internal* ctx, const QdLogEntry& entry, LineBatch* batch) {
  if (batch != nullptr) {
    long written = batch->Add(ctx->logFormat, entry);
    if (written < 0) OutputError(ctx, errno);
    return written;
  }
  MorvocatUtils* writer = MmapWriter(ctx);
  if (writer != nullptr) {
    char lineBuffer[kLineSize];
    size_t length = 0;
    char* line = qdlogging_log_formatLogLine(ctx->logFormat, lineBuffer, sizeof(lineBuffer), &entry,
                                             &length);
    if (line == nullptr) return 0;
    writer->Write(line, length);
    if (line != lineBuffer) free(line);
    return static_cast<long>(length);
  }
  int written = qdlogging_log_printLogLine(ctx->logFormat, ctx->output_fd, &entry);
  if (written < 0) {
    OutputError(ctx, -written);
    return -1;
  }
  return written;
}

// One record: divider, parse, filter, write, account. False ends the loop.
bool HandleRecord(android_logcat_context_internal* ctx, LoopState* loop, qd_log_msg* msg) {
  uint32_t lid = msg->entry.lid;
  LogDevice* device = lid < LOG_ID_MAX ? loop->byId[lid] : nullptr;
  if (device == nullptr) {
    device = &loop->unexpected;
    ctx->deviceCount = 2;
  }
  if (device != loop->previous && !device->printed) MaybePrintStart(ctx, device, loop->batch);
  loop->previous = device;
  if (StopRequested(ctx)) return false;

  QdLogEntry entry;
  if (qdlogging_log_processLogBuffer(&msg->entry, &entry) < 0) return true;
  char tag[QD_LOGGER_ENTRY_MAX_PAYLOAD + 1];
  size_t tagLen = entry.tagLen < sizeof(tag) ? entry.tagLen : sizeof(tag) - 1;
  memcpy(tag, entry.tag, tagLen);
  tag[tagLen] = '\0';
  long written = 0;
  if (qdlogging_log_shouldPrintLine(ctx->logFormat, tag, entry.priority) != 0) {
    ctx->printCount++;
    written = WriteEntry(ctx, entry, loop->batch);
    if (written <= 0) return true;
  }
  ctx->outByteCount += static_cast<uint64_t>(written);
  CheckOutput(ctx);
  return true;
}

}  // namespace

void ReadLoop(android_logcat_context_internal* ctx, bool nonBlocking) {
  qd_logger_list* list = ctx->devices != nullptr ? ctx->devices->loggerList : nullptr;
  LoopState loop;
  StartLoop(ctx, &loop);
  // Only lines to the host's output are batched: an output file is checked
  // for rotation after every record.
  LineBatch* batch = nullptr;
  if (nonBlocking && ctx->outputFileName == nullptr)
    batch = new (std::nothrow) LineBatch(ctx->output_fd);
  loop.batch = batch;
  qd_log_msg msg;
  while (!StopRequested(ctx)) {
    int result = qd_logger_list_read(list, &msg);
    if (!CheckReadResult(ctx, result)) break;
    if (!HandleRecord(ctx, &loop, &msg)) break;
  }
  if (batch != nullptr && !batch->Flush()) OutputError(ctx, errno);
  delete batch;
  FreeDevices(ctx);
}

}  // namespace qdlogging
