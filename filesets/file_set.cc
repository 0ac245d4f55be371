#include "filesets/file_set.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "filesets/set_order.h"
#include "platform/safe_file.h"
#include "platform/write_fully.h"

namespace {

constexpr int kCollect = 0;
constexpr int kPurge = 1;
// The reader's plain rotation packed up to ten archives.
constexpr int kReaderArchiveCount = 10;
constexpr mode_t kSetFileMode = 0664;
// One index value always stays unused: a set holding all 1000 would read as
// one unbroken run after a restart, whatever file was newest, while a gap
// shows where writing stopped.
constexpr uint64_t kMaxKept = filesets::kIndexCount - 1;

// One gzip member of no data (header, an empty final block, CRC and size 0):
// what a set file holds before its first flush, so that it is never a file
// zcat rejects.
constexpr unsigned char kEmptyMember[] = {0x1f, 0x8b, 8, 0, 0, 0, 0, 0, 0, 3,
                                          3,    0,    0, 0, 0, 0, 0, 0, 0, 0};

// Gives the empty set file open as fd its empty member; one that holds
// anything already is left as it is. A failed write is taken back.
void GiveEmptyMember(int fd) {
  struct stat st;
  if (fstat(fd, &st) != 0 || st.st_size != 0) return;
  if (platform::WriteFully(fd, kEmptyMember, sizeof(kEmptyMember)) < 0 && ftruncate(fd, 0) != 0) {
    fprintf(stderr, "empty member: truncate fail %s\n", strerror(errno));
  }
}

// The file name in dirFd is a regular file of one name holding no record:
// nothing at all, or the empty member alone. Never follows a link.
bool HoldsNoRecord(int dirFd, const char* name) {
  struct stat st;
  if (fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode) ||
      st.st_nlink != 1) {
    return false;
  }
  if (st.st_size == 0) return true;
  if (st.st_size != static_cast<off_t>(sizeof(kEmptyMember))) return false;
  int fd = openat(dirFd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  unsigned char head[sizeof(kEmptyMember)];
  bool empty = pread(fd, head, sizeof(head), 0) == static_cast<ssize_t>(sizeof(head)) &&
               memcmp(head, kEmptyMember, sizeof(head)) == 0;
  close(fd);
  return empty;
}

}  // namespace

using filesets::kIndexCount;

FileSet::FileSet(std::string basePath, uint64_t fileLimit, FileSetRules rules, SetScheme scheme)
    : outputFilePath(std::move(basePath)), maxFiles(fileLimit), rules_(rules), scheme_(scheme) {}

FileSet::~FileSet() = default;

std::string FileSet::GetInterger(const std::string& name, uint32_t total, uint32_t start,
                                 uint32_t count) const {
  return platform::NameField(name, total, start, count);
}

std::string FileSet::GetIndex(const std::string& name) const {
  return platform::SetIndexField(name, outputFilePath);
}

std::string FileSet::GetTimestamp(const std::string& name) const {
  return platform::SetStampField(name, outputFilePath);
}

uint32_t FileSet::ConvertStringToIndex(const std::string& text) const {
  return platform::IndexAfter(text);
}

std::string FileSet::GetTimeStamp() const { return platform::LocalStamp(); }

bool FileSet::SortByEarlyTime(const std::string& a, const std::string& b) {
  return filesets::ByteOrderBefore(a, b);
}

int FileSet::ScanDir(int mode, const std::string& directory, const std::string& baseName) {
  if (directory.empty() || baseName.empty()) return 1;
  // Not through a link put in place of the folder: a purge would delete
  // files of the folder it points to.
  int dirFd = platform::OpenFolder(directory.c_str());
  DIR* dir = dirFd >= 0 ? fdopendir(dirFd) : nullptr;
  if (dir == nullptr) {
    if (dirFd >= 0) close(dirFd);
    fprintf(stderr, "open pdir error.\n");
    return 1;
  }
  const size_t nameLength = outputFilePath.size() + platform::kSetNameTail;
  std::string full;
  while (struct dirent* entry = readdir(dir)) {
    // Links (such as the collector's current-file links) and anything of
    // unknown type are not set files.
    if (entry->d_type != DT_REG) continue;
    full.assign(directory).append("/").append(entry->d_name);
    if (DetectOldStyleFiles(full.c_str())) continue;
    // The entry's own name only: the base name found in the folder's path
    // (a group at .../log/log) would take in every other group's files.
    bool setName = platform::IsSetEntryName(entry->d_name, baseName);
    if (!setName && !platform::IsArchiveEntryName(entry->d_name, baseName)) continue;
    if (mode == kCollect && setName && full.size() == nameLength) {
      fileVec.push_back(full);
    } else if (mode == kPurge && full.size() != nameLength &&
               unlinkat(dirfd(dir), entry->d_name, 0) != 0) {
      fprintf(stderr, "ProcessMmapFileVec unlink [%s] fail\n", full.c_str());
    }
  }
  closedir(dir);
  return 0;
}

void FileSet::ProcessMmapFileVec(int mode) {
  if (static_cast<unsigned>(mode) > kPurge || outputFilePath.empty()) return;
  size_t slash = outputFilePath.rfind('/');
  if (slash == std::string::npos) return;
  ScanDir(mode, outputFilePath.substr(0, slash), outputFilePath.substr(slash + 1));
}

bool FileSet::DetectOldStyleFiles(const char* path) const {
  if (!oldStyleCheck || path == nullptr) return false;
  return platform::IsOldStyleName(path, outputFilePath, filesets::kOldStyleCount);
}

void FileSet::DeleteOldStyleFiles() {
  if (rules_.sweepOnce) {
    SweepOnce();
  } else {
    SweepNamesSilently();
  }
}

void FileSet::SweepNamesSilently() {
  if (scheme_ != SetScheme::INDEXED || outputFilePath.empty()) return;
  fileVec.clear();
  std::string base;
  int dirFd = OpenFolderOf(outputFilePath, &base);
  if (dirFd < 0) return;
  // The indexed scheme never writes the base path itself either. Missing
  // names are no news here.
  for (int n = 0; n < filesets::kOldStyleCount; ++n) {
    UnlinkIn(dirFd, platform::NumberedName(outputFilePath, n));
  }
  for (int n = 0; n < kReaderArchiveCount; ++n) {
    UnlinkIn(dirFd, platform::ArchiveName(outputFilePath, n));
  }
  close(dirFd);
}

void FileSet::SweepOnce() {
  if (!oldStyleCheck) return;
  if (scheme_ == SetScheme::NUMBERED) {
    // Left by an earlier indexed run of the same owner.
    DropOldest(fileVec.size(), std::string());
  } else {
    std::string base;
    int dirFd = OpenFolderOf(outputFilePath, &base);
    for (int n = 0; n < filesets::kOldStyleCount; ++n) {
      for (const std::string& name : {platform::OldStyleNumberedName(outputFilePath, n),
                                      platform::ArchiveName(outputFilePath, n)}) {
        if (UnlinkIn(dirFd, name) != 0) fprintf(stderr, "unlink [%s] fail\n", name.c_str());
      }
    }
    if (dirFd >= 0) close(dirFd);
    ProcessMmapFileVec(kPurge);
  }
  oldStyleCheck = false;
  FormFileVectors();
}

void FileSet::RotateVec(std::vector<std::string>& list, const std::string& pivot) const {
  filesets::RotateToBack(list, pivot);
}

std::string FileSet::GetFileByMaxTimestamp(const std::vector<std::string>& list) const {
  return filesets::NewestByStamp(list, outputFilePath);
}

void FileSet::AdjustFileVecOrder(std::vector<std::string>& list) const {
  filesets::OrderAsWritten(list, outputFilePath);
}

uint32_t FileSet::GetNewLogFileIndex(std::vector<std::string>& list) const {
  if (list.empty()) return 0;
  AdjustFileVecOrder(list);
  if (list.empty()) return 0;
  if (rules_.continueInEmptyNewest && NewestHoldsNoRecord(list.back())) {
    return filesets::kContinueNewest;
  }
  return ConvertStringToIndex(GetIndex(list.back()));
}

bool FileSet::NewestHoldsNoRecord(const std::string& path) {
  // Only the owner's own file: a link or a second name put at the newest
  // name is not gone on in.
  std::string name;
  int dirFd = OpenFolderOf(path, &name);
  if (dirFd < 0) return false;
  bool empty = HoldsNoRecord(dirFd, name.c_str());
  close(dirFd);
  return empty;
}

uint32_t FileSet::GetNewLogFileIndex() { return GetNewLogFileIndex(fileVec); }

void FileSet::FormFileVectors() {
  // The numbered scheme keeps no list once the indexed files are gone.
  if (scheme_ == SetScheme::NUMBERED && !oldStyleCheck) return;
  fileVec.clear();
  ProcessMmapFileVec(kCollect);
  GiveEmptyFilesAMember();
  std::sort(fileVec.begin(), fileVec.end(), SortByEarlyTime);
  AdjustFileVecOrder(fileVec);
  RemoveRedundancy();
}

void FileSet::RemoveRedundancy() {
  if (scheme_ == SetScheme::NUMBERED) return;
  uint64_t limit = FileLimit();
  if (fileVec.size() <= limit) return;
  // The newest entry is the file being written. Its name can also stand at
  // the front when the index came round within one second: keep that file.
  DropOldest(fileVec.size() - limit, fileVec.back());
}

void FileSet::GiveEmptyFilesAMember() {
  // A kill before a file's first flush left it empty (made so by an earlier
  // run). Its name keeps its place in the set; the reader goes on in it.
  if (fileVec.empty()) return;
  std::string name;
  int dirFd = OpenFolderOf(outputFilePath, &name);
  if (dirFd < 0) return;
  for (const std::string& path : fileVec) {
    const char* leaf = filesets::NameInFolder(path);
    struct stat st;
    if (fstatat(dirFd, leaf, &st, AT_SYMLINK_NOFOLLOW) != 0 || st.st_size != 0) continue;
    int fd = platform::OpenFileAt(dirFd, leaf, O_WRONLY, 0);
    if (fd < 0) continue;
    GiveEmptyMember(fd);
    close(fd);
  }
  close(dirFd);
}

uint64_t FileSet::FileLimit() const {
  // A limit of 0 keeps only the cap, so the file being written is never
  // pruned.
  if (maxFiles == 0) return kMaxKept;
  return std::min<uint64_t>(maxFiles, kMaxKept);
}

void FileSet::DropOldest(size_t count, const std::string& keep) {
  count = std::min(count, fileVec.size());
  std::string base;
  int dirFd = count > 0 ? OpenFolderOf(outputFilePath, &base) : -EBADF;
  for (size_t i = 0; i < count; ++i) {
    const std::string& name = fileVec[i];
    if (name == keep) continue;
    if (UnlinkIn(dirFd, name) != 0) fprintf(stderr, "unlink [%s] fail\n", name.c_str());
  }
  if (dirFd >= 0) close(dirFd);
  fileVec.erase(fileVec.begin(), fileVec.begin() + static_cast<std::ptrdiff_t>(count));
}

bool FileSet::MakeLogFileName(uint32_t index, std::string* name) const {
  *name = platform::SetFileName(outputFilePath, index, GetTimeStamp());
  return !name->empty();
}

bool FileSet::AddNewFile(uint32_t index, std::string* path) {
  std::string name;
  if (!MakeLogFileName(index, &name)) return false;
  // Whatever path opens a file (a setup, which does not prune, or a
  // rotation killed before it pruned), the set never holds every index.
  if (fileVec.size() >= kMaxKept) DropOldest(fileVec.size() - (kMaxKept - 1), std::string());
  // Made here with its empty member: a kill before the first flush leaves a
  // whole gzip stream. The owner opens it afterwards and reports a failure.
  std::string leaf;
  int dirFd = OpenFolderOf(name, &leaf);
  int fd = OpenOwnFileAt(dirFd, leaf, O_WRONLY, kSetFileMode);
  if (fd >= 0) {
    GiveEmptyMember(fd);
    close(fd);
  }
  if (dirFd >= 0) close(dirFd);
  *path = name;
  fileVec.push_back(std::move(name));
  return true;
}

int FileSet::OpenFolderOf(const std::string& path, std::string* name) {
  std::string folder;
  if (platform::SplitPath(path.c_str(), &folder, name) != 0) return -EINVAL;
  return platform::OpenFolder(folder.c_str());
}

int FileSet::OpenOwnFileAt(int dirFd, const std::string& name, int flags, mode_t mode) {
  if (dirFd < 0) return -EBADF;
  struct stat st;
  if (fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISDIR(st.st_mode) &&
      (!S_ISREG(st.st_mode) || st.st_nlink > 1) && unlinkat(dirFd, name.c_str(), 0) != 0) {
    return -errno;
  }
  return platform::OpenFileAt(dirFd, name.c_str(), flags | O_CREAT, mode);
}

int FileSet::UnlinkIn(int dirFd, const std::string& path) {
  // A negative descriptor could read as AT_FDCWD.
  if (dirFd < 0) {
    errno = EBADF;
    return -1;
  }
  return unlinkat(dirFd, filesets::NameInFolder(path), 0);
}

bool FileSet::IsOwnFileThere(const std::string& path) {
  std::string name;
  int dirFd = OpenFolderOf(path, &name);
  if (dirFd < 0) return false;
  struct stat st;
  bool there = fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode) &&
               st.st_nlink == 1;
  close(dirFd);
  return there;
}
