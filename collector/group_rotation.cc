// Which file a group writes and when it moves on: the directory and the
// set, indexed names with the links P and P.1 in mmap mode, numbered renames
// and archives in factory mode. This is the file layer under the write
// paths: it writes no record and never calls the group; a file it opens is
// only marked (fileOpened_), and the write layer tells the group once the
// step has returned.

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "archive/factory_compress.h"
#include "collector/monitor_dir.h"
#include "collector/tavobase.h"
#include "filesets/file_name.h"
#include "platform/log_file_names.h"
#include "platform/safe_file.h"
#include "platform/tavo.h"

namespace {

// Numbered copies kept beside the factory file before they are archived.
constexpr int kNumberedCopies = archive::kFactoryArchiveMembers;
constexpr mode_t kFactoryCreateMode = 0640;
constexpr mode_t kDirMode = 0775;
constexpr size_t kPathLimit = 254;

std::string Numbered(const std::string& path, int n) { return platform::NumberedName(path, n); }

// A link named link in the folder dirFd, pointing at target as given.
int SymlinkIn(int dirFd, const std::string& target, const std::string& link) {
  if (dirFd < 0) return -1;
  return symlinkat(target.c_str(), dirFd, filesets::NameInFolder(link));
}

// Moves the numbered file from on to the name to. Anything but a plain file
// of one name was put there by someone else: it is removed rather than
// handed on to the archive step. -1 with errno set on failure.
int ShiftIn(int dirFd, const std::string& from, const std::string& to) {
  if (dirFd < 0) {
    errno = EBADF;
    return -1;
  }
  const char* name = filesets::NameInFolder(from);
  struct stat st;
  if (fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return -1;
  if (!S_ISDIR(st.st_mode) && (!S_ISREG(st.st_mode) || st.st_nlink > 1)) {
    return unlinkat(dirFd, name, 0);
  }
  return renameat(dirFd, name, dirFd, filesets::NameInFolder(to));
}

// Enters the folder name of parent, making it with mode when missing; a
// link there is refused. A descriptor, or -1 with *failed naming the step.
int EnterFolder(int parent, const char* name, mode_t mode, const char** failed) {
  bool created = mkdirat(parent, name, mode) == 0;
  int fd = -1;
  if (created || errno == EEXIST) {
    fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  }
  if (fd < 0) {
    *failed = "mkdir";
    return -1;
  }
  // The file-creation mask may have taken bits off.
  if (created && fchmod(fd, mode) != 0) {
    *failed = "chmod";
    close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

int Tavobase::ChooseFileName() {
  return AddNewFile(GetNewLogFileIndex(fileVec), &logFilePath) ? 0 : 1;
}

void Tavobase::RefreshSymlink() const {
  if (IsFactoryWrite()) return;
  std::string name;
  int dirFd = OpenFolderOf(outputFilePath, &name);
  RefreshSymlinkAt(dirFd);
  if (dirFd >= 0) close(dirFd);
}

void Tavobase::RefreshSymlinkAt(int dirFd) const {
  if (IsFactoryWrite()) return;
  for (const std::string* link : {&outputFilePath, &prevLinkPath}) {
    if (UnlinkIn(dirFd, *link) != 0) {
      Say("RefreshSymlink unlink [%s] fail\n", link->c_str());
    }
  }
  if (SymlinkIn(dirFd, logFilePath, outputFilePath) != 0) {
    Say("RefreshSymlink symlink [%s] fail\n", logFilePath.c_str());
  }
  if (fileVec.size() < 2) return;
  const std::string& previous = fileVec[fileVec.size() - 2];
  if (SymlinkIn(dirFd, previous, prevLinkPath) != 0) {
    Say("RefreshSymlink symlink [%s] fail\n", previous.c_str());
  }
}

void Tavobase::ReleaseSymlink(const char* path) const {
  if (path == nullptr) return;
  std::string name;
  int dirFd = OpenFolderOf(path, &name);
  if (dirFd < 0) return;
  struct stat st;
  if (fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno != ENOENT) Say("lstat file %s err\n", path);
  } else if (S_ISLNK(st.st_mode) && unlinkat(dirFd, name.c_str(), 0) != 0) {
    Say("unlink [%s] fail\n", path);
  }
  close(dirFd);
}

bool Tavobase::RotationDue(uint64_t length) const {
  if (outputFilePath.empty() || logFilePath.empty()) return false;
  return rotateSizeKbytes != 0 && rotateSizeKbytes <= ((curFileSize + length) >> 10);
}

void Tavobase::RotateFiles(uint64_t length) {
  if (!RotationDue(length)) return;
  DeleteOldStyleFiles();
  if (IsFactoryWrite()) {
    ShiftFactoryFiles();
    return;
  }
  OpenNextFile();
  RemoveRedundancy();
}

void Tavobase::ShiftFactoryFiles() {
  if (logFilePath.empty()) return;
  FactoryClose();
  std::string name;
  int dirFd = OpenFolderOf(logFilePath, &name);
  for (int i = kNumberedCopies; i >= 1; --i) {
    if (ShiftIn(dirFd, Numbered(logFilePath, i - 1), Numbered(logFilePath, i)) != 0 &&
        errno != ENOENT) {
      SayError("while rotating log files");
    }
  }
  curFileSize = 0;
  const std::string last = Numbered(logFilePath, kNumberedCopies);
  struct stat st;
  bool setFull =
      dirFd >= 0 && fstatat(dirFd, filesets::NameInFolder(last), &st, AT_SYMLINK_NOFOLLOW) == 0;
  if (dirFd >= 0) close(dirFd);
  if (setFull && maxFiles != 0) CompressLogsFactory();
  OpenFactoryFile();
  if (logFd < 0) SayError("couldn't open output file");
}

void Tavobase::OpenFactoryFile() {
  if (outputFilePath.empty()) return;
  if (logFilePath.empty()) logFilePath = outputFilePath;
  // Links left by an mmap run of the same group: factory files are plain.
  ReleaseSymlink(logFilePath.c_str());
  ReleaseSymlink(prevLinkPath.c_str());
  std::string name;
  int dirFd = OpenFolderOf(logFilePath, &name);
  logFd = OpenOwnFileAt(dirFd, name, O_WRONLY | O_APPEND, kFactoryCreateMode);
  if (dirFd >= 0) close(dirFd);
  if (!TakeOpenedFile(dirFd, "open file[%s] err\n", "chown file[%s] err\n")) return;
  fileOpened_ = true;
}

int Tavobase::MkdirP(const char* path, uint32_t mode) const {
  if (path == nullptr) return 1;
  std::string dir(path);
  if (dir.empty() || dir.size() > kPathLimit) return 1;
  if (dir.back() != '/') dir.push_back('/');
  if (dir.size() < 2) return 0;
  // Folder by folder from the start, each entered without following a
  // link: a link put in place of one would carry the mkdir and the mode
  // change out of the tree.
  int parent = open(dir[0] == '/' ? "/" : ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  size_t start = dir[0] == '/' ? 1 : 0;
  for (size_t pos = dir.find('/', 1); parent >= 0 && pos != std::string::npos;
       pos = dir.find('/', pos + 1)) {
    std::string name = dir.substr(start, pos - start);
    start = pos + 1;
    if (name.empty()) continue;
    const char* failed = nullptr;
    int child = EnterFolder(parent, name.c_str(), mode, &failed);
    if (child < 0) Say("%s: %s [%s] err.\n", "MkdirP", failed, dir.substr(0, pos).c_str());
    close(parent);
    parent = child;
  }
  if (parent < 0) return 1;
  close(parent);
  return 0;
}

void Tavobase::CreateDir(const char* path) const {
  if (MkdirP(path, kDirMode) == 1) {
    Say("MkdirP dir[%s] err\n", path != nullptr ? path : "");
    return;
  }
  int dirFd = platform::OpenFolder(path);
  if (dirFd < 0 || fchmod(dirFd, kDirMode) != 0) Say("chmod dir[%s] err\n", path);
  if (dirFd >= 0) close(dirFd);
}

void Tavobase::CompressLogsFactory() const {
  archive::CompressLogsFactory(logFilePath, static_cast<int32_t>(maxFiles));
}

void Tavobase::CompressRunFactory(const std::string& workDir) const {
  archive::CompressRunFactory(logFilePath, static_cast<int32_t>(maxFiles), workDir);
}

int Tavobase::SetupFiles() {
  if (outputFilePath.empty()) {
    logFd = STDOUT_FILENO;
    return 0;
  }
  if (CreateBugreportsDir(outputFilePath.c_str()) == 1) {
    Say("create bugreports dir error!!\n");
    return 1;
  }
  // The monitor starts once the folder it watches exists: on a fresh device
  // a watch added before would fail and end the monitor for good.
  if (dirMonitor != nullptr) dirMonitor->Start();
  FormFileVectors();
  OpenNextFile();
  if (IsMMapWrite()) return 0;
  if (logFd < 0) {
    Say("couldn't open output file!!\n");
    return 1;
  }
  struct stat st;
  if (fstat(logFd, &st) != 0) {
    Say("fstat file %s err\n", logFilePath.c_str());
  } else {
    curFileSize = static_cast<size_t>(st.st_size);
  }
  return 0;
}

int Tavobase::CreateBugreportsDir(const char* path) const {
  if (path == nullptr || path[0] == '\0') {
    Say("bugreport dir is invalide.\n");
    return 1;
  }
  const char* slash = strrchr(path, '/');
  if (slash == nullptr) {
    Say("pend is invalide.\n");
    return 1;
  }
  std::string dir(path, static_cast<size_t>(slash - path));
  CreateDir(dir.c_str());
  // On the folder itself, in this process: no program found through PATH
  // runs as root, and a link put in place of the folder is not followed.
  int dirFd = platform::OpenFolder(dir.c_str());
  if (dirFd < 0 || platform::GiveToRootSystem(dirFd) != 0) {
    Say("chown [%s] err\n", dir.c_str());
  }
  if (dirFd >= 0) close(dirFd);
  return 0;
}

void Tavobase::OpenNextFile() {
  if (outputFilePath.empty()) return;
  if (IsFactoryWrite()) {
    FactoryClose();
    OpenFactoryFile();
    return;
  }
  MmapClose();
  if (ChooseFileName() != 0) return;
  std::string name;
  int dirFd = OpenFolderOf(logFilePath, &name);
  if (tavoWriter != nullptr) {
    // Made before the writer opens it, so that the writer finds our own
    // file at the name and never what someone put there.
    logFd = OpenOwnFileAt(dirFd, name, O_WRONLY, kLogFileMode);
    if (logFd >= 0 && !tavoWriter->SetOutputPath(logFilePath.c_str())) {
      Say("error while set mmap output path\n");
    }
  }
  curFileSize = 0;
  if (!TakeOpenedFile(dirFd, "open or mmap file[%s] err \n", "chown [%s] err\n")) {
    if (dirFd >= 0) close(dirFd);
    return;
  }
  RefreshSymlinkAt(dirFd);
  close(dirFd);
  close(logFd);
  logFd = -1;
  fileOpened_ = true;
}

bool Tavobase::TakeOpenedFile(int dirFd, const char* openFailed, const char* chownFailed) {
  if (logFd < 0) {
    lastError_ = dirFd < 0 ? -dirFd : -logFd;
    logFd = -1;
    Say(openFailed, logFilePath.c_str());
    BeginFault(lastError_);
    return false;
  }
  if (fchmod(logFd, kLogFileMode) != 0) Say("fchmod file[%s] err\n", logFilePath.c_str());
  if (platform::GiveToRootSystem(logFd) != 0) Say(chownFailed, logFilePath.c_str());
  return true;
}
