#include "reader/buffer_operations.h"

#include <string.h>
#include <unistd.h>

#include "platform/safe_string.h"
#include "platform/write_fully.h"
#include "reader/output_file.h"

namespace qdlogging {
namespace {

constexpr char kLogTagsEnv[] = "ANDROID_LOG_TAGS";

bool IsRedirection(const char* arg) { return arg[0] == '>' || (arg[0] == '2' && arg[1] == '>'); }

bool ApplyFilters(android_logcat_context_internal* ctx, const RunOptions& opts) {
  if (opts.firstFilterArg >= ctx->argCount) {
    const char* tags = GetEnv(ctx, kLogTagsEnv);
    if (tags != nullptr && qdlogging_log_addFilterString(ctx->logFormat, tags) < 0) {
      LogcatPanic(ctx, HELP_USAGE, "Invalid filter expression in ANDROID_LOG_TAGS\n");
      return false;
    }
    return true;
  }
  for (int i = opts.firstFilterArg; i < ctx->argCount; ++i) {
    const char* arg = ctx->argVector[i];
    if (IsRedirection(arg)) continue;
    if (qdlogging_log_addFilterString(ctx->logFormat, arg) < 0) {
      LogcatPanic(ctx, HELP_USAGE, "Invalid filter expression '%s'\n", arg);
      return false;
    }
  }
  return true;
}

// The first failing buffer of each kind of operation.
struct Failures {
  const char* open = nullptr;
  const char* clear = nullptr;
  const char* setSize = nullptr;
  const char* report = nullptr;
  bool filesDeleted = false;
};

// Shows a byte count in the largest unit (at most G) that keeps it >= 1.
const char* Scale(long* value) {
  static const char* const kSuffixes[] = {"", "K", "M", "G"};
  int i = 0;
  while (*value >= 1024 && i < 3) {
    *value /= 1024;
    i++;
  }
  return kSuffixes[i];
}

void WriteSizeReport(android_logcat_context_internal* ctx, const char* name, long size, long used) {
  const char* sizeSuffix = Scale(&size);
  const char* usedSuffix = Scale(&used);
  char line[512];
  int n = snprintf_s(line, sizeof(line), sizeof(line) - 1,
                     "%s: ring buffer is %ld%sb (%ld%sb consumed), max entry is %db, "
                     "max payload is %db\n",
                     name, size, sizeSuffix, used, usedSuffix, QD_LOGGER_ENTRY_MAX_LEN,
                     QD_LOGGER_ENTRY_MAX_PAYLOAD);
  if (n <= 0) return;
  platform::WriteFully(ctx->output_fd, line, static_cast<size_t>(n));
}

void OperateOn(android_logcat_context_internal* ctx, const RunOptions& opts, LogDevice* device,
               Failures* failures) {
  if (opts.clearRequest) {
    if (ctx->outputFileName != nullptr) {
      // The files are the run's, not the buffer's: deleted, and a failure
      // told, once.
      if (!failures->filesDeleted && !DeleteOutputFiles(ctx)) {
        ReportErrorName(&failures->clear, device->name);
      }
      failures->filesDeleted = true;
    } else if (qd_logger_clear(device->logger) != 0) {
      ReportErrorName(&failures->clear, device->name);
    }
  }
  if (opts.newSize != 0 &&
      qd_logger_set_log_size(device->logger, static_cast<unsigned long>(opts.newSize)) != 0) {
    ReportErrorName(&failures->setSize, device->name);
  }
  if (opts.sizeReport) {
    long size = qd_logger_get_log_size(device->logger);
    long used = qd_logger_get_log_readable_size(device->logger);
    if (size < 0 || used < 0) {
      ReportErrorName(&failures->report, device->name);
    } else {
      WriteSizeReport(ctx, device->name, size, used);
    }
  }
}

// Reports the first failure in the order open, clear, set size, report.
bool ReportFailures(android_logcat_context_internal* ctx, const Failures& failures) {
  if (failures.open != nullptr) {
    LogcatPanic(ctx, HELP_NONE, "Unable to open log device '%s'\n", failures.open);
  } else if (failures.clear != nullptr) {
    LogcatPanic(ctx, HELP_NONE, "failed to clear the '%s' log\n", failures.clear);
  } else if (failures.setSize != nullptr) {
    LogcatPanic(ctx, HELP_NONE, "failed to set the '%s' log size\n", failures.setSize);
  } else if (failures.report != nullptr) {
    LogcatPanic(ctx, HELP_NONE, "failed to get the readable '%s' log size", failures.report);
  } else {
    return false;
  }
  return true;
}

}  // namespace

bool OpenBuffers(android_logcat_context_internal* ctx, const RunOptions& opts) {
  if (ctx->rotateKBytes != 0 && ctx->outputFileName == nullptr) {
    LogcatPanic(ctx, HELP_USAGE, "-r requires -f as well\n");
    return false;
  }
  QdLogPrintFormat code = qdlogging_log_formatFromString("threadtime");
  if (code != FORMAT_OFF) qdlogging_log_setPrintFormat(ctx->logFormat, code);
  if (!ApplyFilters(ctx, opts)) return false;

  qd_logger_list* list =
      qd_logger_list_alloc(opts.readMode, static_cast<unsigned>(opts.tailLines), opts.pid);
  Failures failures;
  for (LogDevice* device = ctx->devices; device != nullptr; device = device->next) {
    device->loggerList = list;
    device->logger =
        list == nullptr ? nullptr : qd_logger_open(list, qdlogging_name_to_log_id(device->name));
    if (device->logger == nullptr) {
      ReportErrorName(&failures.open, device->name);
      continue;
    }
    OperateOn(ctx, opts, device, &failures);
  }
  ctx->exitStatus.store(0, std::memory_order_release);
  if (ReportFailures(ctx, failures) || IsBufferOperation(opts)) {
    FreeDevices(ctx);
    return false;
  }
  return true;
}

}  // namespace qdlogging
