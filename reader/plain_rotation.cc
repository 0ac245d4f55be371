#include "reader/plain_rotation.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "archive/folder.h"
#include "archive/tarzip.h"
#include "platform/log_file_names.h"
#include "platform/safe_file.h"
#include "reader/logcat_channels.h"
#include "reader/output_file.h"

namespace qdlogging {
namespace {

constexpr mode_t kArchiveMode = 0664;

void ShiftRotatedFiles(int dirFd, const std::string& base, uint64_t count) {
  int digits = RotationDigits(count);
  for (uint64_t i = count; i > 0; --i) {
    std::string from = RotatedName(base.c_str(), digits, i - 1);
    std::string to = RotatedName(base.c_str(), digits, i);
    if (from.empty() || to.empty()) {
      perror("while rotating log files");
      return;
    }
    if (renameat(dirFd, from.c_str(), dirFd, to.c_str()) != 0 && errno != ENOENT) {
      perror("while rotating log files");
    }
  }
}

void ShiftArchives(int dirFd, const std::string& base, uint64_t count) {
  for (uint64_t j = count > 0 ? count - 1 : 0; j > 0; --j) {
    std::string from = platform::ArchiveName(base, j - 1);
    std::string to = platform::ArchiveName(base, j);
    if (renameat(dirFd, from.c_str(), dirFd, to.c_str()) != 0 && errno != ENOENT) {
      perror("while rename compressed files");
    }
  }
}

// Packs P.1 .. P.N through the work folder into P-0.tar.gz. The members are
// deleted only when the archive was written whole.
void ArchiveRotatedFiles(const android_logcat_context_internal* ctx, int dirFd,
                         const std::string& base) {
  const char* path = ctx->outputFileName;
  uint64_t count = ctx->rotateCount;
  std::string folder = platform::WorkFolderName(path);
  archive::Folder work(archive::MakeWorkFolder(folder));
  if (!work.ok()) return;
  if (strchr(path, '/') == nullptr) {
    fprintf(stderr, "creat outputFileName err %s:\n", strerror(errno));
    return;
  }
  int digits = RotationDigits(count);
  for (uint64_t k = count; k > 0; --k) {
    std::string member = platform::NumberedName(base, k);
    if (renameat(dirFd, RotatedName(base.c_str(), digits, k).c_str(), work.fd(), member.c_str()) !=
        0) {
      perror("while rename log files");
    }
  }
  ShiftArchives(dirFd, base, ctx->compressCount);
  std::vector<std::string> members;
  for (uint64_t k = 1; k <= count; ++k) {
    members.push_back(platform::NumberedName(folder + "/" + base, k));
  }
  std::vector<const char*> names;
  for (const std::string& m : members) names.push_back(m.c_str());
  std::string archive = platform::ArchiveName(path, 0);
  int modeError = 0;
  bool complete = TarzipFilesComplete(static_cast<int>(names.size()), names.data(), archive.c_str(),
                                      0, kArchiveMode, &modeError);
  if (modeError != 0) {
    fprintf(stderr, "chmod file[%s] err %s:\n", archive.c_str(), strerror(modeError));
  }
  if (!complete) return;
  for (uint64_t k = 1; k <= count; ++k) {
    if (unlinkat(work.fd(), platform::NumberedName(base, k).c_str(), 0) != 0)
      perror("unlink failed");
  }
  if (unlinkat(dirFd, platform::WorkFolderName(base).c_str(), AT_REMOVEDIR) != 0)
    perror("unlink failed");
}

}  // namespace

int RotationDigits(uint64_t count) {
  int digits = 0;
  for (; count != 0; count /= 10) digits++;
  return digits;
}

std::string RotatedName(const char* path, int digits, uint64_t i) {
  return platform::NumberedName(path, i, digits);
}

void RotateLogs(android_logcat_context_internal* ctx) {
  if (ctx->outputFileName == nullptr) return;
  CloseOutput(ctx);
  std::string base;
  archive::Folder dir(archive::OpenParentFolder(ctx->outputFileName, &base));
  if (dir.ok()) {
    ShiftRotatedFiles(dir.fd(), base, ctx->rotateCount);
    std::string last =
        RotatedName(base.c_str(), RotationDigits(ctx->rotateCount), ctx->rotateCount);
    if (ctx->compressCount != 0 && !last.empty() &&
        faccessat(dir.fd(), last.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) {
      ArchiveRotatedFiles(ctx, dir.fd(), base);
    }
  }
  ctx->output_fd = OpenLogFile(ctx->outputFileName);
  if (ctx->output_fd < 0) {
    LogcatPanic(ctx, HELP_NONE, "couldn't open output file");
    return;
  }
  ctx->outputStream = fdopen(ctx->output_fd, "web");
  if (ctx->outputStream == nullptr) {
    LogcatPanic(ctx, HELP_NONE, "couldn't fdopen output file");
    return;
  }
  if (ctx->stderrToStdout) {
    CloseError(ctx);
    ctx->errorStream = ctx->outputStream;
    ctx->error_fd = ctx->output_fd;
  }
  ctx->outByteCount = 0;
}

}  // namespace qdlogging
