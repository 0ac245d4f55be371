#include "reader/logcat_context.h"

#include <stdarg.h>
#include <string.h>

namespace qdlogging {

namespace {

void PrintErrorList(android_logcat_context_internal* ctx, const char* format, va_list args) {
  if (ctx->errorStream == nullptr) return;
  vfprintf(ctx->errorStream, format, args);
  // The error stream may be the host's buffered stream: a message left in
  // it would be lost when the process ends by a signal.
  fflush(ctx->errorStream);
}

}  // namespace

void PrintError(android_logcat_context_internal* ctx, const char* format, ...) {
  va_list args;
  va_start(args, format);
  PrintErrorList(ctx, format, args);
  va_end(args);
}

void LogcatPanic(android_logcat_context_internal* ctx, HelpType help, const char* format, ...) {
  ctx->exitStatus.store(1, std::memory_order_release);
  va_list args;
  va_start(args, format);
  PrintErrorList(ctx, format, args);
  va_end(args);
  ctx->stopRequested.store(true, std::memory_order_release);
}

bool StopRequested(const android_logcat_context_internal* ctx) {
  return ctx->stopRequested.load(std::memory_order_acquire);
}

void FreeDevices(android_logcat_context_internal* ctx) {
  while (ctx->devices != nullptr) {
    qd_logger_list* list = ctx->devices->loggerList;
    if (list != nullptr) {
      for (LogDevice* d = ctx->devices; d != nullptr; d = d->next) {
        if (d->loggerList == list) d->loggerList = nullptr;
      }
      qd_logger_list_free(list);
    }
    LogDevice* first = ctx->devices;
    ctx->devices = first->next;
    delete first;
  }
  ctx->deviceCount = 0;
}

const char* GetEnv(android_logcat_context ctx, const char* name) {
  if (ctx == nullptr || name == nullptr || name[0] == '\0' || ctx->envVector == nullptr) {
    return nullptr;
  }
  size_t len = strlen(name);
  for (char** env = ctx->envVector; *env != nullptr; ++env) {
    if (strncmp(*env, name, len) == 0 && (*env)[len] == '=') return *env + len + 1;
  }
  return nullptr;
}

}  // namespace qdlogging

extern "C" void ReportErrorName(const char** slot, const char* name) {
  if (slot != nullptr && *slot == nullptr) *slot = name;
}
