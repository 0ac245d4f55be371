#include "reader/output_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <new>
#include <string>

#include "archive/folder.h"
#include "platform/safe_file.h"
#include "platform/safe_string.h"
#include "reader/logcat_channels.h"
#include "reader/plain_rotation.h"

namespace qdlogging {
namespace {

// The platform's system user and group own the reader's folder and files.
constexpr uid_t kSystemId = 1000;
constexpr mode_t kFolderMode = 0775;
constexpr mode_t kFileMode = 0664;
constexpr int kMmapWriteMode = 1;

// Looking for the current file costs a path lookup, more than everything
// else a record costs together; a file that was found is looked for again
// after this long, or before a rotation flushes into it. Records written in
// between stay in the writer's cache, which follows into the next file.
constexpr int64_t kFileRecheckNs = 1000 * 1000;

// One file-writing run per process: the slot is process-wide. A run claims
// it before using it and only the claiming run (writesFiles) sees or frees
// its writer, so a run beside it neither writes into its files nor destroys
// its writer at its own end.
MorvocatUtils* writerSlot = nullptr;
std::atomic<bool> slotClaimed{false};

MorvocatUtils* NewWriter(const char* path, uint32_t mode, uint64_t maxFiles) {
  return new (std::nothrow) MorvocatUtils(path, mode, maxFiles);
}

WriterFactory newWriter = NewWriter;
int64_t nextFileCheckNs = 0;
bool writerHadFile = false;

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

// CreateLogFolder for a run: a path or folder that must not be written ends
// the run.
bool PrepareFolder(android_logcat_context_internal* ctx) {
  std::string refusal;
  if (CreateLogFolder(ctx->outputFileName, &refusal) == 0) return true;
  if (!refusal.empty()) LogcatPanic(ctx, HELP_NONE, "%s", refusal.c_str());
  return false;
}

void CheckWriterOutput(android_logcat_context_internal* ctx, MorvocatUtils* writer) {
  if ((RotationDue(ctx) || FileCheckDue()) && !writer->IsLogFileAccess()) {
    ctx->outByteCount = 0;
    if (!PrepareFolder(ctx)) return;
    writer->InitLogFiles();
    // GetNewLog, telling whether a file was opened: one that is deleted
    // before the next look still counts.
    if (writer->GetNewLogFileName() == 0) writerHadFile = true;
    writer->RemoveRedundancy();
    // A run that never got a file reads every record into nowhere; one
    // whose file went later keeps records in the writer's cache and tries
    // again.
    if (!writerHadFile) {
      LogcatPanic(ctx, HELP_NONE, "no output file can be written\n");
      return;
    }
  }
  if (RotationDue(ctx)) {
    writer->Flush();
    CloseOutput(ctx);
    writer->GetNewLog();
    ctx->outByteCount = 0;
  }
}

// Refusals are whole lines for the run's error stream.
std::string Refusal(const char* what, const std::string& path, const char* why) {
  return std::string(what) + " [" + path + "] " + why + "\n";
}

// Gives the folder mode 0775 and the system user; failures are only told.
// Only for a folder the reader made, or the system user's (its mode is
// repaired): any other, root's "/dev" or "/etc" included, is written as it is.
void TakeOver(int dirFd, const std::string& folder) {
  if (fchmod(dirFd, kFolderMode) != 0) {
    fprintf(stderr, "chmod [%s] failed: %s\n", folder.c_str(), strerror(errno));
  }
  if (fchown(dirFd, kSystemId, kSystemId) != 0) {
    fprintf(stderr, "lchown [%s] failed: %s\n", folder.c_str(), strerror(errno));
  }
}

// The folder of path, made or found, checked and given to the system user.
// Nothing is changed before every check has passed.
int PrepareLogFolder(const char* path, std::string* refusal) {
  struct stat st;
  // Unlinked by the writer's sweep, opened by the plain file: a device,
  // FIFO, socket, folder or link at the output path is not the reader's.
  if (path != nullptr && lstat(path, &st) == 0 && !S_ISREG(st.st_mode)) {
    *refusal = Refusal("logFile", path, "is not a regular file.");
    return -1;
  }
  std::string folder;
  std::string name;
  if (platform::SplitPath(path, &folder, &name) != 0) {
    fprintf(stderr, "logFile path [%s] is invalid.\n", path != nullptr ? path : "");
    return -1;
  }
  if (folder == "/") {
    // The text before the only "/" names no folder; the root folder is
    // never the reader's to take over.
    fprintf(stderr, "mkdir [] failed: %s\n", strerror(ENOENT));
    return -1;
  }
  bool created = false;
  archive::Folder dir(platform::MakeFolder(folder.c_str(), kFolderMode, &created));
  if (dir.fd() == -ENOTDIR || dir.fd() == -ELOOP) {
    *refusal = Refusal("logFile folder", folder, "is not a folder.");
    return -1;
  }
  if (!dir.ok() || fstat(dir.fd(), &st) != 0) {
    int error = dir.ok() ? errno : -dir.fd();
    fprintf(stderr, "mkdir [%s] failed: %s\n", folder.c_str(), strerror(error));
    return -1;
  }
  // As logrotate does with insecure parents: anyone could plant names in
  // a folder that others may write, and a shared folder is nobody's.
  if (!created && (st.st_mode & (S_IWOTH | S_ISVTX)) != 0) {
    *refusal = Refusal("logFile folder", folder, "is writable by others or shared (sticky bit).");
    return -1;
  }
  if (created || st.st_uid == kSystemId) TakeOver(dir.fd(), folder);
  return 0;
}

// Deletes name in dirFd when it is a regular file; a missing file is fine.
bool DeleteRegularFile(int dirFd, const char* name) {
  struct stat st;
  if (fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT;
  if (!S_ISREG(st.st_mode)) {
    errno = EPERM;
    return false;
  }
  return unlinkat(dirFd, name, 0) == 0 || errno == ENOENT;
}

}  // namespace

void SetWriterFactory(WriterFactory factory) {
  newWriter = factory != nullptr ? factory : NewWriter;
}

MorvocatUtils* MmapWriter(const android_logcat_context_internal* ctx) {
  if (!ctx->writesFiles) return nullptr;
  return writerSlot != nullptr && writerSlot->IsMMapWriteMode() ? writerSlot : nullptr;
}

void SetupOutputFile(android_logcat_context_internal* ctx) {
  CloseOutput(ctx);
  bool expected = false;
  if (!slotClaimed.compare_exchange_strong(expected, true)) {
    LogcatPanic(ctx, HELP_NONE, "another run of this process is writing output files\n");
    return;
  }
  ctx->writesFiles = true;
  if (!PrepareFolder(ctx)) {
    // Nothing could be written: the run ends instead of reading every
    // record into nowhere.
    if (!StopRequested(ctx)) LogcatPanic(ctx, HELP_NONE, "no output file can be written\n");
    return;
  }
  uint64_t maxFiles = ctx->rotateCount * ctx->compressCount;
  writerSlot = newWriter(ctx->outputFileName, kMmapWriteMode, maxFiles);
  nextFileCheckNs = 0;
  writerHadFile = false;
  if (MmapWriter(ctx) != nullptr) {
    writerSlot->InitLogFiles();
    return;
  }
  OpenPlainOutput(ctx);
}

void CheckOutput(android_logcat_context_internal* ctx) {
  MorvocatUtils* writer = MmapWriter(ctx);
  if (writer != nullptr) {
    CheckWriterOutput(ctx, writer);
    return;
  }
  if (ctx->outputFileName == nullptr) return;
  if (access(ctx->outputFileName, F_OK) != 0) RotateLogs(ctx);
  if (RotationDue(ctx)) RotateLogs(ctx);
}

void DestroyWriter(android_logcat_context_internal* ctx) {
  if (!ctx->writesFiles) return;
  delete writerSlot;
  writerSlot = nullptr;
  ctx->writesFiles = false;
  slotClaimed.store(false);
}

int CreateLogFolder(const char* path, std::string* refusal) {
  std::string reason;
  int result = PrepareLogFolder(path, &reason);
  if (refusal != nullptr) {
    *refusal = reason;
  } else {
    fputs(reason.c_str(), stderr);
  }
  return result;
}

int OpenLogFile(const char* path) {
  int fd = platform::OpenFile(path, O_WRONLY | O_CREAT | O_APPEND, kFileMode);
  if (fd < 0) {
    fprintf(stderr, "open [%s] failed: %s\n", path, strerror(-fd));
    return -1;
  }
  if (fchmod(fd, kFileMode) != 0) fprintf(stderr, "chmod [%s] failed: %s\n", path, strerror(errno));
  if (fchown(fd, kSystemId, kSystemId) != 0) {
    fprintf(stderr, "fchown [%s] failed: %s\n", path, strerror(errno));
  }
  return fd;
}

bool DeleteOutputFiles(const android_logcat_context_internal* ctx) {
  std::string base;
  archive::Folder dir(archive::OpenParentFolder(ctx->outputFileName, &base));
  if (!dir.ok()) {
    errno = -dir.fd();
    perror("while clearing log files");
    return false;
  }
  int digits = RotationDigits(ctx->rotateCount);
  bool ok = true;
  for (uint64_t i = ctx->rotateCount + 1; i-- > 0;) {
    std::string name = RotatedName(base.c_str(), digits, i);
    if (name.empty()) {
      perror("while clearing log files");
      return false;
    }
    if (!DeleteRegularFile(dir.fd(), name.c_str()) && ok) {
      perror("while clearing log files");
      ok = false;
    }
  }
  return ok;
}

}  // namespace qdlogging
