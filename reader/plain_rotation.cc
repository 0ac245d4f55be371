#include "reader/plain_rotation.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "archive/tarzip.h"
#include "platform/safe_string.h"
#include "reader/logcat_channels.h"
#include "reader/output_file.h"

namespace qdlogging {
namespace {

// A rotated file's name inside the work folder while it is packed.
std::string MemberName(const std::string& folder, const char* base, uint64_t k) {
  char name[PATH_MAX];
  if (snprintf_s(name, sizeof(name), sizeof(name) - 1, "%s/%s.%zu", folder.c_str(), base,
                 static_cast<size_t>(k)) < 0) {
    return std::string();
  }
  return name;
}

std::string ArchiveName(const char* path, size_t j) {
  char name[PATH_MAX];
  if (snprintf_s(name, sizeof(name), sizeof(name) - 1, "%s-%zu.tar.gz", path, j) < 0) {
    return std::string();
  }
  return name;
}

void ShiftRotatedFiles(const char* path, uint64_t count) {
  int digits = RotationDigits(count);
  for (uint64_t i = count; i > 0; --i) {
    std::string from = RotatedName(path, digits, i - 1);
    std::string to = RotatedName(path, digits, i);
    if (from.empty() || to.empty()) {
      perror("while rotating log files");
      return;
    }
    if (rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT) {
      perror("while rotating log files");
    }
  }
}

void ShiftArchives(const char* path, uint64_t count) {
  for (uint64_t j = count > 0 ? count - 1 : 0; j > 0; --j) {
    std::string from = ArchiveName(path, j - 1);
    std::string to = ArchiveName(path, j);
    if (rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT) {
      perror("while rename compressed files");
    }
  }
}

// Packs P.1 .. P.N through the work folder into P-0.tar.gz. The members are
// deleted only when the archive was written whole.
void ArchiveRotatedFiles(const android_logcat_context_internal* ctx) {
  const char* path = ctx->outputFileName;
  uint64_t count = ctx->rotateCount;
  std::string folder = std::string(path) + "_tmp";
  if (mkdir(folder.c_str(), 0775) != 0) perror("couldn't create compress dir");
  const char* slash = strrchr(path, '/');
  if (slash == nullptr) {
    fprintf(stderr, "creat outputFileName err %s:\n", strerror(errno));
    return;
  }
  const char* base = slash + 1;
  int digits = RotationDigits(count);
  std::vector<std::string> members;
  for (uint64_t k = count; k > 0; --k) {
    std::string member = MemberName(folder, base, k);
    if (rename(RotatedName(path, digits, k).c_str(), member.c_str()) != 0) {
      perror("while rename log files");
    }
  }
  ShiftArchives(path, ctx->compressCount);
  for (uint64_t k = 1; k <= count; ++k) {
    members.push_back(MemberName(folder, base, k));
  }
  std::vector<const char*> names;
  for (const std::string& m : members) names.push_back(m.c_str());
  std::string archive = ArchiveName(path, 0);
  bool complete = TarzipFilesComplete(static_cast<int>(names.size()), names.data(),
                                      archive.c_str(), 0);
  if (chmod(archive.c_str(), 0664) != 0) {
    fprintf(stderr, "chmod file[%s] err %s:\n", archive.c_str(), strerror(errno));
  }
  if (!complete) return;
  for (const std::string& m : members) {
    if (unlink(m.c_str()) != 0) perror("unlink failed");
  }
  if (rmdir(folder.c_str()) != 0) perror("unlink failed");
}

}  // namespace

int RotationDigits(uint64_t count) {
  int digits = 0;
  for (; count != 0; count /= 10) digits++;
  return digits;
}

std::string RotatedName(const char* path, int digits, uint64_t i) {
  if (i == 0) return path;
  char name[PATH_MAX];
  if (snprintf_s(name, sizeof(name), sizeof(name) - 1, "%s.%.*llu", path, digits,
                 static_cast<unsigned long long>(i)) < 0) {
    return std::string();
  }
  return name;
}

void RotateLogs(android_logcat_context_internal* ctx) {
  if (ctx->outputFileName == nullptr) return;
  CloseOutput(ctx);
  ShiftRotatedFiles(ctx->outputFileName, ctx->rotateCount);
  std::string last = RotatedName(ctx->outputFileName, RotationDigits(ctx->rotateCount),
                                 ctx->rotateCount);
  if (ctx->compressCount != 0 && !last.empty() && access(last.c_str(), F_OK) == 0) {
    ArchiveRotatedFiles(ctx);
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
