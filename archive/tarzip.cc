#include "archive/tarzip.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <limits>
#include <string>

#include "archive/folder.h"
#include "platform/safe_file.h"
#include "platform/safe_string.h"

namespace {

constexpr size_t kBlock = 512;
constexpr size_t kNameField = 100;
constexpr size_t kNameMax = kNameField - 1;  // prefixed names and prefixes
constexpr size_t kPathMax = 4096;
// The mode, owner and group fields with their NULs add up to this.
constexpr unsigned kFixedFieldsSum = 819;
constexpr unsigned kChecksumAsSpaces = 8 * ' ';
// Names for the temporary that someone else already holds, tried in turn.
constexpr int kTempTries = 16;
// Members are read, never written or followed: a device or FIFO planted in
// their place is not even opened, and a link is not read through.
constexpr int kMemberFlags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

// The archive being written: whether every member's content went in, and
// whether the archive itself took every block.
struct Sink {
  gzFile gz;
  bool whole;
  bool writeFailed;
};

bool PutBlock(Sink* sink, const void* block) {
  if (gzwrite(sink->gz, block, kBlock) == static_cast<int>(kBlock)) return true;
  sink->whole = false;
  sink->writeFailed = true;
  return false;
}

// Reads up to want bytes; fewer only at the end of the file or on an error.
size_t ReadUpTo(int fd, unsigned char* block, size_t want, bool* failed) {
  size_t got = 0;
  while (got < want) {
    ssize_t n = read(fd, block + got, want - got);
    if (n > 0) {
      got += static_cast<size_t>(n);
    } else if (n == 0 || errno != EINTR) {
      *failed = n < 0;
      break;
    }
  }
  return got;
}

// Streams ceil(size / 512) blocks of the open member fd, which it closes;
// false when they are not the file's own bytes.
bool PutContent(Sink* sink, int fd, int64_t size) {
  unsigned char block[kBlock];
  memset_s(block, sizeof(block), 0, sizeof(block));
  bool whole = true;
  for (int64_t left = size; left > 0; left -= static_cast<int64_t>(kBlock)) {
    // Past the recorded size (or the end of a file that shrank) the block
    // is padded with zeros.
    size_t want = left < static_cast<int64_t>(kBlock) ? static_cast<size_t>(left) : kBlock;
    bool failed = false;
    size_t got = ReadUpTo(fd, block, want, &failed);
    if (got < kBlock) memset_s(block + got, kBlock - got, 0, kBlock - got);
    if (failed) whole = false;
    if (!PutBlock(sink, block)) {
      whole = false;
      break;
    }
  }
  close(fd);
  return whole;
}

// Opens the member name in dirFd when it is still the regular file st
// described; -1 otherwise.
int OpenMember(int dirFd, const char* name, const struct stat& st) {
  int fd = openat(dirFd, name, kMemberFlags);
  if (fd < 0) return -1;
  struct stat now;
  if (fstat(fd, &now) != 0 || !S_ISREG(now.st_mode) || now.st_ino != st.st_ino ||
      now.st_dev != st.st_dev) {
    close(fd);
    return -1;
  }
  return fd;
}

// The member name in dirFd (AT_FDCWD for a path), stored as entryName.
void AddFile(Sink* sink, int dirFd, const char* name, const char* entryName,
             const struct stat& st) {
  char block[kBlock];
  memset_s(block, sizeof(block), 0, sizeof(block));
  uint32_t size = static_cast<uint32_t>(st.st_size);
  if (static_cast<uint64_t>(st.st_size) > std::numeric_limits<uint32_t>::max()) {
    sink->whole = false;  // the size field cannot hold it
  }
  WriteHeader(block, entryName, size);
  if (!PutBlock(sink, block)) return;
  int fd = OpenMember(dirFd, name, st);
  bool read = fd >= 0 && PutContent(sink, fd, size);
  if (!read && size > 0) sink->whole = false;
}

// out = "first/second" cut to 99 characters; message when it was cut.
void JoinCut(char* out, const char* first, const char* second, const char* message) {
  strncpy_s(out, kNameField, first, kNameMax);
  strncat_s(out, kNameField, "/", kNameMax - strlen(out));
  strncat_s(out, kNameField, second, kNameMax - strlen(out));
  if (strlen(first) + 1 + strlen(second) > kNameMax) fputs(message, stderr);
}

int OpenDir(int parentFd, const char* name) {
  return openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

// Walks the folder open at dirFd (which it closes), named dir; entries are
// taken relative to it so that no link on the way is followed.
void AddDir(Sink* sink, int dirFd, const char* dir, const char* prefix) {
  DIR* d = dirFd >= 0 ? fdopendir(dirFd) : nullptr;
  if (d == nullptr) {
    if (dirFd >= 0) close(dirFd);
    return;
  }
  char path[kPathMax];
  size_t len = 0;
  bool ok = strcpy_s(path, sizeof(path), dir) == 0;
  if (ok) {
    len = strlen(path);
    if (len == 0 || path[len - 1] != '/') ok = strncat_s(path, sizeof(path), "/", 1) == 0;
    len = strlen(path);
  }
  if (!ok) fputs("dir write failed\n", stderr);
  while (struct dirent* entry = ok ? readdir(d) : nullptr) {
    const char* name = entry->d_name;
    if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
    if (strcpy_s(path + len, sizeof(path) - len, name) != 0) {
      fputs("dirp->d_name write failed\n", stderr);
      continue;
    }
    struct stat st;
    if (fstatat(dirfd(d), name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    char joined[kNameField];
    if (S_ISDIR(st.st_mode)) {
      if (prefix != nullptr) JoinCut(joined, prefix, name, "path write failed\n");
      AddDir(sink, OpenDir(dirfd(d), name), path, prefix != nullptr ? joined : nullptr);
    } else if (S_ISREG(st.st_mode)) {
      if (prefix != nullptr) JoinCut(joined, prefix, name, "filepath write failed\n");
      AddFile(sink, dirfd(d), name, prefix != nullptr ? joined : name, st);
    }
  }
  closedir(d);
}

const char* LastComponent(const char* path) {
  const char* slash = strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

void AddPath(Sink* sink, const char* path, int dirMode) {
  struct stat st;
  if (path == nullptr || lstat(path, &st) != 0) return;
  if (S_ISDIR(st.st_mode)) {
    char top[kNameField];
    const char* prefix = nullptr;
    if (dirMode != 0) {
      if (strncpy_s(top, sizeof(top), path, kNameMax) != 0) fputs("tmp write failed\n", stderr);
      size_t len = strlen(top);
      if (len > 0 && top[len - 1] == '/') top[len - 1] = '\0';
      prefix = LastComponent(top);
    }
    AddDir(sink, OpenDir(AT_FDCWD, path), path, prefix);
  } else if (S_ISREG(st.st_mode)) {
    AddFile(sink, AT_FDCWD, path, LastComponent(path), st);
  }
}

// A new file in dirFd that nobody else can have prepared: whatever sits at
// the archive's name is only ever replaced, never written through.
int CreateTemp(int dirFd, std::string* temp) {
  static std::atomic<unsigned> serial{0};
  for (int i = 0; i < kTempTries; ++i) {
    char name[64];
    if (snprintf_s(name, sizeof(name), sizeof(name) - 1, ".tarzip-%d-%u.tmp",
                   static_cast<int>(getpid()), serial++) < 0) {
      return -EINVAL;
    }
    int fd = platform::OpenFileAt(dirFd, name, O_WRONLY | O_CREAT | O_EXCL, 0666);
    if (fd != -EEXIST) {
      if (fd >= 0) temp->assign(name);
      return fd;
    }
  }
  return -EEXIST;
}

// Writes the members into the temporary fd (closed here); false when the
// archive did not take every block or could not be made durable.
bool WriteArchive(int fd, int count, const char* const* paths, int dirMode, bool* whole) {
  // Kept open past gzclose to make the data durable before the archive
  // takes its name: callers delete the members right after.
  int gzFd = dup(fd);
  gzFile gz = gzFd >= 0 ? gzdopen(gzFd, "w") : nullptr;
  if (gz == nullptr) {
    if (gzFd >= 0) close(gzFd);
    close(fd);
    return false;
  }
  Sink sink{gz, true, false};
  for (int i = 0; i < count; i++) AddPath(&sink, paths[i], dirMode);
  char end[kBlock];
  memset_s(end, sizeof(end), 0, sizeof(end));
  PutBlock(&sink, end);
  if (gzclose(gz) != Z_OK) sink.writeFailed = true;
  if (fsync(fd) != 0) sink.writeFailed = true;
  close(fd);
  *whole = sink.whole && !sink.writeFailed;
  return !sink.writeFailed;
}

}  // namespace

bool TarzipFilesComplete(int count, const char* const* paths, const char* archive, int dirMode,
                         mode_t mode, int* modeError) {
  if (paths == nullptr || archive == nullptr) return false;
  std::string name;
  archive::Folder dir(archive::OpenParentFolder(archive, &name));
  std::string temp;
  int fd = dir.ok() ? CreateTemp(dir.fd(), &temp) : -1;
  if (fd < 0) return false;
  platform::GiveToSystemUser(fd);
  if (mode != 0 && fchmod(fd, mode) != 0 && modeError != nullptr) *modeError = errno;
  bool whole = false;
  bool written = WriteArchive(fd, count, paths, dirMode, &whole);
  if (!written || renameat(dir.fd(), temp.c_str(), dir.fd(), name.c_str()) != 0) {
    unlinkat(dir.fd(), temp.c_str(), 0);
    whole = false;
  }
  return whole;
}

extern "C" {

void TarzipFiles(int count, const char* const* paths, const char* archive, int dirMode) {
  TarzipFilesComplete(count, paths, archive, dirMode);
}

void TarzipDirRecursive(gzFile stream, const char* dir, const char* prefix) {
  if (stream == nullptr || dir == nullptr) return;
  Sink sink{stream, true, false};
  AddDir(&sink, OpenDir(AT_FDCWD, dir), dir, prefix);
}

void WriteHeader(char* block, const char* name, uint32_t size) {
  unsigned sum = 0;
  size_t nameLen = strnlen(name, kNameField);
  for (size_t i = 0; i < nameLen; i++) {
    block[i] = name[i];
    sum += static_cast<unsigned char>(name[i]);
  }
  memcpy(block + 100, "100666 ", 8);
  memcpy(block + 108, "     0 ", 8);
  memcpy(block + 116, "     0 ", 8);
  char sizeField[12];
  memset_s(sizeField, sizeof(sizeField), 0, sizeof(sizeField));
  if (snprintf_s(sizeField, sizeof(sizeField), sizeof(sizeField) - 1, "%o", size) < 0) {
    fputs("size write failed\n", stderr);
  }
  memcpy(block + 124, sizeField, sizeof(sizeField));
  for (char c : sizeField) sum += static_cast<unsigned char>(c);
  sum += kFixedFieldsSum + kChecksumAsSpaces;
  char sumField[8];
  memset_s(sumField, sizeof(sumField), 0, sizeof(sumField));
  if (snprintf_s(sumField, sizeof(sumField), sizeof(sumField) - 1, "%o", sum) < 0) {
    fputs("sum write failed\n", stderr);
  }
  memcpy(block + 148, sumField, sizeof(sumField));
}

void WriteZipContent(gzFile stream, const char* path, int64_t size) {
  struct stat st;
  if (stream == nullptr || path == nullptr || strnlen(path, kPathMax + 1) > kPathMax ||
      lstat(path, &st) != 0 || !S_ISREG(st.st_mode)) {
    return;
  }
  int fd = OpenMember(AT_FDCWD, path, st);
  if (fd < 0) return;
  Sink sink{stream, true, false};
  PutContent(&sink, fd, size);
}

}  // extern "C"
