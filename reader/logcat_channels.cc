#include "reader/logcat_channels.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "platform/safe_file.h"

namespace qdlogging {
namespace {

// "2>/dev/null", "2>&1" or "2>>..." among the arguments: only the first counts.
void FindErrorRedirection(android_logcat_context_internal* ctx) {
  for (int i = 0; i < ctx->argCount; ++i) {
    const char* arg = ctx->argVector[i];
    if (arg == nullptr || arg[0] != '2' || arg[1] != '>') continue;
    const char* target = arg + 2;
    if (*target == '>') target++;
    if (strcmp(target, "/dev/null") == 0) {
      ctx->stderrToNull = true;
    } else if (strcmp(target, "&1") == 0) {
      ctx->stderrToStdout = true;
    } else {
      fprintf(ctx->stderrToStdout ? stdout : stderr,
              "stderr redirection to file %s unsupported, skipping\n", target);
    }
    return;
  }
}

// The target of the first ">" or ">>" argument, or null.
const char* FindOutputRedirection(const android_logcat_context_internal* ctx) {
  for (int i = 0; i < ctx->argCount; ++i) {
    const char* arg = ctx->argVector[i];
    if (arg == nullptr || arg[0] != '>') continue;
    return arg[1] == '>' ? arg + 2 : arg + 1;
  }
  return nullptr;
}

// The run writes through its own copy of a descriptor the host handed in:
// the host's descriptor stays open, and the same context can run again with
// it. Messages are unbuffered so that none waits in a stream when the run
// ends by a signal.
FILE* WrapCopy(int fd, int* copy) {
  *copy = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (*copy < 0) return nullptr;
  FILE* stream = fdopen(*copy, "we");
  if (stream == nullptr) {
    int err = errno;
    close(*copy);
    *copy = -1;
    errno = err;
    return nullptr;
  }
  setvbuf(stream, nullptr, _IONBF, 0);
  return stream;
}

bool FailWrap(android_logcat_context_internal* ctx, const char* format, int fd) {
  int err = errno;
  ctx->exitStatus.store(-err, std::memory_order_release);
  fprintf(ctx->stderrToStdout ? stdout : stderr, format, fd, strerror(err));
  return false;
}

bool WrapErrorDescriptor(android_logcat_context_internal* ctx) {
  if (ctx->error_fd < 0) return true;
  if (ctx->error_fd == ctx->output_fd) {
    ctx->stderrToStdout = true;
  } else if (ctx->stderrToNull) {
    ctx->error_fd = -1;
  } else {
    int given = ctx->error_fd;
    ctx->errorStream = WrapCopy(given, &ctx->error_fd);
    if (ctx->errorStream == nullptr) {
      ctx->error_fd = -1;
      return FailWrap(ctx, "Failed to fdopen(error_fd=%d) %s\n", given);
    }
  }
  return true;
}

// The ">" target as a stream; null, errno set, when it cannot be opened.
FILE* OpenTarget(const char* target) {
  int fd = platform::OpenHostTarget(target);
  if (fd < 0) {
    errno = -fd;
    return nullptr;
  }
  FILE* stream = fdopen(fd, "we");
  if (stream == nullptr) close(fd);
  return stream;
}

bool WrapOutputDescriptor(android_logcat_context_internal* ctx, const char* target) {
  if (ctx->output_fd < 0) {
    if (target != nullptr) ctx->outputStream = OpenTarget(target);
    return true;
  }
  int given = ctx->output_fd;
  if (target != nullptr) {
    // The pipe's write end is the run's own; the host's descriptor is not.
    if (given == ctx->pipeFds[1]) {
      close(given);
      ctx->pipeFds[1] = -1;
    }
    ctx->output_fd = -1;
    ctx->outputStream = OpenTarget(target);
  } else if (given == ctx->pipeFds[1]) {
    ctx->outputStream = fdopen(given, "we");
    if (ctx->outputStream != nullptr) setvbuf(ctx->outputStream, nullptr, _IONBF, 0);
  } else {
    ctx->outputStream = WrapCopy(given, &ctx->output_fd);
  }
  if (ctx->outputStream == nullptr) {
    ctx->output_fd = -1;
    return FailWrap(ctx, "Failed to fdopen(output_fd=%d) %s\n", given);
  }
  return true;
}

}  // namespace

bool SetupChannels(android_logcat_context_internal* ctx) {
  ctx->errorStream = stderr;
  ctx->outputStream = stdout;
  const char* target = nullptr;
  if (ctx->argCount >= 1) {
    FindErrorRedirection(ctx);
    target = FindOutputRedirection(ctx);
  }
  if (!WrapErrorDescriptor(ctx)) return false;
  if (!WrapOutputDescriptor(ctx, target)) return false;
  if (ctx->stderrToStdout) ctx->errorStream = ctx->outputStream;
  if (ctx->stderrToNull) {
    ctx->errorStream = nullptr;
    ctx->error_fd = -1;
  }
  if (ctx->output_fd == -1 && ctx->outputStream != nullptr)
    ctx->output_fd = fileno(ctx->outputStream);
  if (ctx->error_fd == -1 && ctx->errorStream != nullptr) ctx->error_fd = fileno(ctx->errorStream);
  return true;
}

void CloseOutput(android_logcat_context_internal* ctx) {
  if (ctx->errorStream == ctx->outputStream) {
    ctx->outputStream = nullptr;
    ctx->output_fd = -1;
  }
  if (ctx->errorStream != nullptr && ctx->output_fd == fileno(ctx->errorStream))
    ctx->output_fd = -1;
  if (ctx->output_fd == ctx->error_fd) ctx->output_fd = -1;
  if (ctx->outputStream != nullptr && ctx->outputStream != stdout) {
    int fd = fileno(ctx->outputStream);
    if (ctx->output_fd == fd) ctx->output_fd = -1;
    if (ctx->pipeFds[1] == fd) ctx->pipeFds[1] = -1;
    fclose(ctx->outputStream);
  }
  ctx->outputStream = nullptr;
  if (ctx->output_fd >= 0) {
    if (ctx->output_fd != fileno(stdout)) {
      if (ctx->pipeFds[1] == ctx->output_fd) ctx->pipeFds[1] = -1;
      close(ctx->output_fd);
    }
    ctx->output_fd = -1;
  }
}

void CloseError(android_logcat_context_internal* ctx) {
  if (ctx->outputStream == ctx->errorStream) {
    ctx->errorStream = nullptr;
    ctx->error_fd = -1;
  }
  if (ctx->outputStream != nullptr && ctx->error_fd == fileno(ctx->outputStream))
    ctx->error_fd = -1;
  if (ctx->error_fd == ctx->output_fd) ctx->error_fd = -1;
  if (ctx->errorStream != nullptr && ctx->errorStream != stderr && ctx->errorStream != stdout) {
    int fd = fileno(ctx->errorStream);
    if (ctx->error_fd == fd) ctx->error_fd = -1;
    if (ctx->pipeFds[1] == fd) ctx->pipeFds[1] = -1;
    fclose(ctx->errorStream);
  }
  ctx->errorStream = nullptr;
  if (ctx->error_fd >= 0) {
    if (ctx->error_fd != fileno(stdout) && ctx->error_fd != fileno(stderr)) {
      if (ctx->pipeFds[1] == ctx->error_fd) ctx->pipeFds[1] = -1;
      close(ctx->error_fd);
    }
    ctx->error_fd = -1;
  }
}

void ReleasePipeChannels(android_logcat_context_internal* ctx) {
  if (ctx->pipeFds[1] >= 0 && ctx->output_fd == ctx->pipeFds[1]) CloseOutput(ctx);
  if (ctx->pipeFds[1] >= 0 && ctx->error_fd == ctx->pipeFds[1]) CloseError(ctx);
  if (ctx->pipeFds[1] >= 0) {
    int saved = errno;
    close(ctx->pipeFds[1]);
    ctx->pipeFds[1] = -1;
    errno = saved;
  }
}

}  // namespace qdlogging
