#include "reader/output_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <new>
#include <string>

#include "platform/safe_string.h"
#include "reader/logcat_channels.h"
#include "reader/plain_rotation.h"

namespace qdlogging {
namespace {

// The platform's system user and group own the reader's folder and files.
constexpr uid_t kSystemId = 1000;
constexpr int kMmapWriteMode = 1;

// Looking for the current file costs a path lookup, more than everything
// else a record costs together; a file that was found is looked for again
// after this long, or before a rotation flushes into it. Records written in
// between stay in the writer's cache, which follows into the next file.
constexpr int64_t kFileRecheckNs = 1000 * 1000;

// One file-writing run per process: the slot is process-wide.
MorvocatUtils* writerSlot = nullptr;
int64_t nextFileCheckNs = 0;

int64_t MonotonicNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

bool FileCheckDue() {
  int64_t now = MonotonicNs();
  if (now < nextFileCheckNs) return false;
  nextFileCheckNs = now + kFileRecheckNs;
  return true;
}

bool RotationDue(const android_logcat_context_internal* ctx) {
  return ctx->rotateKBytes != 0 && ctx->outByteCount / 1024 >= ctx->rotateKBytes;
}

void OpenPlainOutput(android_logcat_context_internal* ctx) {
  ctx->output_fd = OpenLogFile(ctx->outputFileName);
  if (ctx->output_fd < 0) {
    LogcatPanic(ctx, HELP_NONE, "couldn't open output file");
    return;
  }
  struct stat st;
  if (fstat(ctx->output_fd, &st) != 0) {
    CloseOutput(ctx);
    LogcatPanic(ctx, HELP_NONE, "couldn't get output file stat\n");
    return;
  }
  if (st.st_size < 0) {
    CloseOutput(ctx);
    LogcatPanic(ctx, HELP_NONE, "invalid output file stat\n");
    return;
  }
  ctx->outputStream = fdopen(ctx->output_fd, "web");
  ctx->outByteCount = static_cast<uint64_t>(st.st_size);
}

void CheckWriterOutput(android_logcat_context_internal* ctx, MorvocatUtils* writer) {
  if ((RotationDue(ctx) || FileCheckDue()) && !writer->IsLogFileAccess()) {
    ctx->outByteCount = 0;
    if (CreateLogFolder(ctx->outputFileName) == -1) return;
    writer->InitLogFiles();
    writer->GetNewLog();
  }
  if (RotationDue(ctx)) {
    writer->Flush();
    CloseOutput(ctx);
    writer->GetNewLog();
    ctx->outByteCount = 0;
  }
}

}  // namespace

MorvocatUtils* MmapWriter() {
  return writerSlot != nullptr && writerSlot->IsMMapWriteMode() ? writerSlot : nullptr;
}

void SetupOutputFile(android_logcat_context_internal* ctx) {
  CloseOutput(ctx);
  if (CreateLogFolder(ctx->outputFileName) == -1) return;
  uint64_t maxFiles = ctx->rotateCount * ctx->compressCount;
  writerSlot = new (std::nothrow) MorvocatUtils(ctx->outputFileName, kMmapWriteMode, maxFiles);
  nextFileCheckNs = 0;
  if (MmapWriter() != nullptr) {
    writerSlot->InitLogFiles();
    return;
  }
  OpenPlainOutput(ctx);
}

void CheckOutput(android_logcat_context_internal* ctx) {
  MorvocatUtils* writer = MmapWriter();
  if (writer != nullptr) {
    CheckWriterOutput(ctx, writer);
    return;
  }
  if (ctx->outputFileName == nullptr) return;
  if (access(ctx->outputFileName, F_OK) != 0) RotateLogs(ctx);
  if (RotationDue(ctx)) RotateLogs(ctx);
}

void DestroyWriter() {
  delete writerSlot;
  writerSlot = nullptr;
}

int CreateLogFolder(const char* path) {
  const char* slash = path != nullptr ? strrchr(path, '/') : nullptr;
  if (slash == nullptr) {
    fprintf(stderr, "logFile path [%s] is invalid.\n", path != nullptr ? path : "");
    return -1;
  }
  std::string folder(path, static_cast<size_t>(slash - path));
  if (access(folder.c_str(), F_OK) != 0 && mkdir(folder.c_str(), 0775) != 0) {
    fprintf(stderr, "mkdir [%s] failed: %s\n", folder.c_str(), strerror(errno));
    return -1;
  }
  if (chmod(folder.c_str(), 0775) != 0) {
    fprintf(stderr, "chmod [%s] failed: %s\n", folder.c_str(), strerror(errno));
  }
  if (lchown(folder.c_str(), kSystemId, kSystemId) != 0) {
    fprintf(stderr, "lchown [%s] failed: %s\n", folder.c_str(), strerror(errno));
  }
  return 0;
}

int OpenLogFile(const char* path) {
  int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0664);
  if (fd < 0) {
    fprintf(stderr, "open [%s] failed: %s\n", path, strerror(errno));
    return -1;
  }
  if (chmod(path, 0664) != 0) fprintf(stderr, "chmod [%s] failed: %s\n", path, strerror(errno));
  if (fchown(fd, kSystemId, kSystemId) != 0) {
    fprintf(stderr, "fchown [%s] failed: %s\n", path, strerror(errno));
  }
  return fd;
}

bool DeleteOutputFiles(const android_logcat_context_internal* ctx) {
  int digits = RotationDigits(ctx->rotateCount);
  bool ok = true;
  for (uint64_t i = ctx->rotateCount + 1; i-- > 0;) {
    std::string name = RotatedName(ctx->outputFileName, digits, i);
    if (name.empty()) {
      perror("while clearing log files");
      return false;
    }
    if (unlink(name.c_str()) != 0 && errno != ENOENT && ok) {
      perror("while clearing log files");
      ok = false;
    }
  }
  return ok;
}

}  // namespace qdlogging
