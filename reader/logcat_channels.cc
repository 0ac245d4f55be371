#include "reader/logcat_channels.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

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

bool WrapErrorDescriptor(android_logcat_context_internal* ctx) {
  if (ctx->error_fd < 0) return true;
  if (ctx->error_fd == ctx->output_fd) {
    ctx->stderrToStdout = true;
  } else if (ctx->stderrToNull) {
    close(ctx->error_fd);
    ctx->error_fd = -1;
  } else {
    ctx->errorStream = fdopen(ctx->error_fd, "web");
    if (ctx->errorStream == nullptr) {
      int err = errno;
      ctx->exitStatus.store(-err, std::memory_order_release);
      fprintf(ctx->stderrToStdout ? stdout : stderr, "Failed to fdopen(error_fd=%d) %s\n",
              ctx->error_fd, strerror(err));
      return false;
    }
  }
  return true;
}

bool WrapOutputDescriptor(android_logcat_context_internal* ctx, const char* target) {
  if (ctx->output_fd < 0) {
    if (target != nullptr) ctx->outputStream = fopen(target, "web");
    return true;
  }
  if (target != nullptr) {
    close(ctx->output_fd);
    if (ctx->output_fd == ctx->pipeFds[1]) ctx->pipeFds[1] = -1;
    ctx->output_fd = -1;
    ctx->outputStream = fopen(target, "web");
  } else {
    ctx->outputStream = fdopen(ctx->output_fd, "web");
  }
  if (ctx->outputStream == nullptr) {
    int err = errno;
    ctx->exitStatus.store(-err, std::memory_order_release);
    fprintf(ctx->stderrToStdout ? stdout : stderr, "Failed to fdopen(output_fd=%d) %s\n",
            ctx->output_fd, strerror(err));
    return false;
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
  if (ctx->output_fd == -1 && ctx->outputStream != nullptr) ctx->output_fd = fileno(ctx->outputStream);
  if (ctx->error_fd == -1 && ctx->errorStream != nullptr) ctx->error_fd = fileno(ctx->errorStream);
  return true;
}

void CloseOutput(android_logcat_context_internal* ctx) {
  if (ctx->errorStream == ctx->outputStream) {
    ctx->outputStream = nullptr;
    ctx->output_fd = -1;
  }
  if (ctx->errorStream != nullptr && ctx->output_fd == fileno(ctx->errorStream)) ctx->output_fd = -1;
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
  if (ctx->outputStream != nullptr && ctx->error_fd == fileno(ctx->outputStream)) ctx->error_fd = -1;
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
