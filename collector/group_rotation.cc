// Which file a group writes and when it moves on: indexed names with the
// links P and P.1 in mmap mode, numbered renames and archives in factory
// mode, and the directories they live in.

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "archive/factory_compress.h"
#include "collector/owner_change.h"
#include "collector/tavobase.h"
#include "filesets/file_name.h"

namespace {

// Numbered copies kept beside the factory file before they are archived.
constexpr int kNumberedCopies = archive::kFactoryArchiveMembers;
constexpr mode_t kFactoryCreateMode = 0640;
constexpr mode_t kDirMode = 0775;
constexpr size_t kPathLimit = 254;

std::string Numbered(const std::string& path, int n) {
  return n == 0 ? path : filesets::NumberedName(path, n);
}

}  // namespace

int Tavobase::ChooseFileName() {
  return AddNewFile(GetNewLogFileIndex(fileVec), &logFilePath) ? 0 : 1;
}

void Tavobase::RefreshSymlink() const {
  if (IsFactoryWrite()) return;
  for (const std::string* link : {&outputFilePath, &prevLinkPath}) {
    if (unlink(link->c_str()) != 0) {
      fprintf(stderr, "RefreshSymlink unlink [%s] fail\n", link->c_str());
    }
  }
  if (symlink(logFilePath.c_str(), outputFilePath.c_str()) != 0) {
    fprintf(stderr, "RefreshSymlink symlink [%s] fail\n", logFilePath.c_str());
  }
  if (fileVec.size() < 2) return;
  const std::string& previous = fileVec[fileVec.size() - 2];
  if (symlink(previous.c_str(), prevLinkPath.c_str()) != 0) {
    fprintf(stderr, "RefreshSymlink symlink [%s] fail\n", previous.c_str());
  }
}

void Tavobase::ReleaseSymlink(const char* path) const {
  // A link whose target is gone fails this test and stays.
  if (path == nullptr || access(path, F_OK) != 0) return;
  struct stat st;
  if (lstat(path, &st) != 0) {
    fprintf(stderr, "lstat file %s err\n", path);
    return;
  }
  if (S_ISLNK(st.st_mode) && unlink(path) != 0) fprintf(stderr, "unlink [%s] fail\n", path);
}

void Tavobase::RotateLog(uint64_t length) {
  if (outputFilePath.empty() || logFilePath.empty()) return;
  if (rotateSizeKbytes == 0 || rotateSizeKbytes > ((curFileSize + length) >> 10)) return;
  DeleteOldStyleFiles();
  if (IsFactoryWrite()) {
    RotateLogsFactory();
    return;
  }
  OpenLogFile();
  RemoveRedundancy();
}

void Tavobase::RotateLogsFactory() {
  if (logFilePath.empty()) return;
  FactoryClose();
  for (int i = kNumberedCopies; i >= 1; --i) {
    std::string from = Numbered(logFilePath, i - 1);
    if (rename(from.c_str(), Numbered(logFilePath, i).c_str()) != 0 && errno != ENOENT) {
      perror("while rotating log files");
    }
  }
  curFileSize = 0;
  if (access(Numbered(logFilePath, kNumberedCopies).c_str(), F_OK) == 0 && maxFiles != 0) {
    CompressLogsFactory();
  }
  OpenLogFileFactory();
  if (logFd < 0) perror("couldn't open output file");
}

void Tavobase::OpenLogFileFactory() {
  if (outputFilePath.empty()) return;
  if (logFilePath.empty()) logFilePath = outputFilePath;
  // Links left by an mmap run of the same group: factory files are plain.
  ReleaseSymlink(logFilePath.c_str());
  ReleaseSymlink(prevLinkPath.c_str());
  logFd = open(logFilePath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kFactoryCreateMode);
  if (logFd < 0) {
    fprintf(stderr, "open file[%s] err\n", logFilePath.c_str());
    return;
  }
  if (fchmod(logFd, kLogFileMode) != 0) fprintf(stderr, "fchmod file[%s] err\n", logFilePath.c_str());
  ChownRootSystem(logFilePath.c_str(), "chown file[%s] err\n");
  openLogFilePost();
}

int Tavobase::MkdirP(const char* path, uint32_t mode) const {
  if (path == nullptr) return 1;
  std::string dir(path);
  if (dir.empty() || dir.size() > kPathLimit) return 1;
  if (dir.back() != '/') dir.push_back('/');
  if (dir.size() < 2) return 0;
  for (size_t pos = dir.find('/', 1); pos != std::string::npos; pos = dir.find('/', pos + 1)) {
    dir[pos] = '\0';
    const char* prefix = dir.c_str();
    if (access(prefix, F_OK) != 0) {
      if (mkdir(prefix, mode) != 0) {
        fprintf(stderr, "%s: mkdir [%s] err.\n", "MkdirP", prefix);
        return 1;
      }
      // The file-creation mask may have taken bits off.
      if (chmod(prefix, mode) != 0) {
        fprintf(stderr, "%s: chmod [%s] err.\n", "MkdirP", prefix);
        return 1;
      }
    }
    dir[pos] = '/';
  }
  return 0;
}

void Tavobase::CreateDir(const char* path) const {
  if (MkdirP(path, kDirMode) == 1) {
    fprintf(stderr, "MkdirP dir[%s] err\n", path != nullptr ? path : "");
  } else if (chmod(path, kDirMode) != 0) {
    fprintf(stderr, "chmod dir[%s] err\n", path);
  }
}

void Tavobase::CompressLogsFactory() const {
  archive::CompressLogsFactory(logFilePath, static_cast<int32_t>(maxFiles));
}

void Tavobase::CompressRunFactory(const std::string& workDir) const {
  archive::CompressRunFactory(logFilePath, static_cast<int32_t>(maxFiles), workDir);
}
