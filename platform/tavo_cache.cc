#include "platform/tavo_cache.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/safe_file.h"
#include "platform/safe_string.h"

namespace platform {
namespace {

constexpr char kMagic[8] = {'T', 'A', 'V', 'O', 'C', 'A', '0', '2'};
// Far above what a writer asks for; bounds what a header can make us map.
constexpr uint64_t kMaxCapacity = 64 << 20;
static_assert(sizeof(TavoCacheHeader) <= TavoCache::kHeaderSize, "header too large");

// Only a file nobody but this user can have written is read at all.
bool IsOwnFile(const struct stat& st) {
  return S_ISREG(st.st_mode) && st.st_uid == geteuid() && st.st_nlink == 1 &&
         (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// True for a header the protocol can have left in a file of size bytes.
bool IsWellFormed(const TavoCacheHeader& h, off_t size) {
  return memcmp(h.magic, kMagic, sizeof(kMagic)) == 0 && h.headerSize == TavoCache::kHeaderSize &&
         h.capacity > 0 && h.capacity <= kMaxCapacity &&
         static_cast<uint64_t>(size) == TavoCache::kHeaderSize + h.capacity &&
         h.end <= h.capacity && h.flushed <= h.capacity && h.flushEnd <= h.end &&
         h.flushBase <= static_cast<uint64_t>(INT64_MAX);
}

// Open errors that mean something other than a cache is at the name.
bool IsInTheWay(int rc) {
  return rc == -ELOOP || rc == -EINVAL || rc == -EMLINK || rc == -ENXIO || rc == -EACCES ||
         rc == -EPERM || rc == -EISDIR;
}

// Removes the name itself: a link goes, not what it points at.
void SetAside(int dirFd, const char* name) {
  if (unlinkat(dirFd, name, 0) == 0) fprintf(stderr, "tavo: cache [%s] set aside\n", name);
}

bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Closes fd and passes rc on.
int CloseWith(int fd, int rc) {
  close(fd);
  return rc;
}

}  // namespace

TavoCache::~TavoCache() { Close(false); }

int TavoCache::OpenFile(int dirFd, const char* name, size_t capacity) {
  Close(false);
  if (capacity == 0 || capacity > kMaxCapacity) return -EINVAL;
  if (strcpy_s(name_, sizeof(name_), name) != 0) return -ENAMETOOLONG;
  int fd = OpenFileAt(dirFd, name, O_RDWR, 0);
  if (fd == -ENOENT) return Create(dirFd, capacity);
  if (fd < 0 && !IsInTheWay(fd)) return fd;
  struct stat st;
  if (fd >= 0 && fstat(fd, &st) == 0 && IsOwnFile(st)) {
    // A live writer holds the lock for as long as it maps the file; a dead
    // one has lost it, which is what lets its successor recover the data.
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) return CloseWith(fd, -errno);
    TavoCacheHeader header;
    if (pread(fd, &header, sizeof(header), 0) == static_cast<ssize_t>(sizeof(header)) &&
        IsWellFormed(header, st.st_size)) {
      int rc = Adopt(fd, dirFd, header);
      return rc == 0 ? 0 : CloseWith(fd, rc);
    }
  }
  if (fd >= 0) close(fd);
  SetAside(dirFd, name);
  return Create(dirFd, capacity);
}

int TavoCache::Create(int dirFd, size_t capacity) {
  int fd = OpenFileAt(dirFd, name_, O_RDWR | O_CREAT | O_EXCL, 0600);
  if (fd < 0) return fd;
  int rc = fchmod(fd, 0600) == 0 && flock(fd, LOCK_EX | LOCK_NB) == 0 ? 0 : -errno;
  // Without reserved blocks a store into the mapping could fault on a full
  // disk; better no file cache at all.
  if (rc == 0) {
    rc = -posix_fallocate(fd, 0, static_cast<off_t>(kHeaderSize + capacity));
    if (rc != 0) unlinkat(dirFd, name_, 0);
  }
  if (rc == 0) rc = MapFile(fd, dirFd, capacity);
  if (rc != 0) return CloseWith(fd, rc);
  capacity_ = capacity;
  header_->headerSize = kHeaderSize;
  header_->capacity = capacity;
  memcpy(header_->magic, kMagic, sizeof(kMagic));
  return 0;
}

// Takes over a dead writer's cache from a header checked by IsWellFormed;
// anything but pending data and a begun flush is cleared.
int TavoCache::Adopt(int fd, int dirFd, const TavoCacheHeader& h) {
  int rc = MapFile(fd, dirFd, h.capacity);
  if (rc != 0) return rc;
  capacity_ = h.capacity;
  bool pending = h.flushed < h.end;
  bool begun = pending && h.flushEnd > h.flushed;
  flushBase_ = h.flushBase;
  flushDev_ = h.flushDev;
  flushIno_ = h.flushIno;
  Store(&TavoCacheHeader::flushEnd, &flushEnd_, begun ? h.flushEnd : 0);
  Store(&TavoCacheHeader::end, &end_, pending ? h.end : 0);
  Store(&TavoCacheHeader::flushed, &flushed_, pending ? h.flushed : 0);
  return 0;
}

int TavoCache::MapFile(int fd, int dirFd, size_t capacity) {
  int dir = fcntl(dirFd, F_DUPFD_CLOEXEC, 0);
  if (dir < 0) return -errno;
  size_t size = kHeaderSize + capacity;
  void* map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (map == MAP_FAILED) return CloseWith(dir, -errno);
  fd_ = fd;
  dirFd_ = dir;
  mapSize_ = size;
  header_ = static_cast<TavoCacheHeader*>(map);
  data_ = static_cast<unsigned char*>(map) + kHeaderSize;
  return 0;
}

int TavoCache::OpenMemory(size_t capacity) {
  Close(false);
  data_ = static_cast<unsigned char*>(malloc(capacity));
  if (data_ == nullptr) return -ENOMEM;
  capacity_ = capacity;
  return 0;
}

void TavoCache::Close(bool removeIfEmpty) {
  if (fd_ >= 0) {
    // Only our own file: another cache may have been made under the name.
    if (removeIfEmpty && end_ == flushed_ && IsLinked()) unlinkat(dirFd_, name_, 0);
    munmap(header_, mapSize_);
    close(fd_);
  } else {
    free(data_);
  }
  if (dirFd_ >= 0) close(dirFd_);
  fd_ = -1;
  dirFd_ = -1;
  header_ = nullptr;
  data_ = nullptr;
  mapSize_ = 0;
  capacity_ = end_ = flushed_ = flushEnd_ = flushBase_ = flushDev_ = flushIno_ = 0;
  name_[0] = '\0';
  target_[0] = '\0';
}

bool TavoCache::IsLinked() const {
  struct stat mapped, named;
  return fd_ >= 0 && fstat(fd_, &mapped) == 0 &&
         fstatat(dirFd_, name_, &named, AT_SYMLINK_NOFOLLOW) == 0 && SameFile(mapped, named);
}

bool TavoCache::InFolder(int dirFd) const {
  struct stat own, other;
  return fd_ >= 0 && fstat(dirFd_, &own) == 0 && fstat(dirFd, &other) == 0 && SameFile(own, other);
}

const unsigned char* TavoCache::Pending(size_t* length) const {
  *length = end_ - flushed_;
  return data_ + flushed_;
}

void TavoCache::Append(const void* data, size_t length) {
  memcpy(data_ + end_, data, length);
  Store(&TavoCacheHeader::end, &end_, end_ + length);
}

int TavoCache::SetTarget(int dirFd, const char* name) {
  if (strlen(name) >= sizeof(target_)) return -ENAMETOOLONG;
  int dir = fcntl(dirFd, F_DUPFD_CLOEXEC, 0);
  if (dir < 0) return -errno;
  if (dirFd_ >= 0) close(dirFd_);
  dirFd_ = dir;
  strcpy_s(target_, sizeof(target_), name);
  return 0;
}

bool TavoCache::Interrupted(const struct stat& output, uint64_t* base) {
  if (!FlushBegun()) return false;
  if (static_cast<uint64_t>(output.st_dev) != flushDev_ ||
      static_cast<uint64_t>(output.st_ino) != flushIno_) {
    AbortFlush();
    return false;
  }
  *base = flushBase_;
  return true;
}

void TavoCache::BeginFlush(uint64_t outputSize, const struct stat& output) {
  Store(&TavoCacheHeader::flushBase, &flushBase_, outputSize);
  Store(&TavoCacheHeader::flushDev, &flushDev_, static_cast<uint64_t>(output.st_dev));
  Store(&TavoCacheHeader::flushIno, &flushIno_, static_cast<uint64_t>(output.st_ino));
  Store(&TavoCacheHeader::flushEnd, &flushEnd_, end_);
}

void TavoCache::CommitFlush() {
  Store(&TavoCacheHeader::flushed, &flushed_, flushEnd_);
  Store(&TavoCacheHeader::flushEnd, &flushEnd_, 0);
}

void TavoCache::ResetFlushed() {
  if (flushed_ != end_) return;
  // With flushed at end every one of these states holds nothing pending.
  Store(&TavoCacheHeader::end, &end_, 0);
  Store(&TavoCacheHeader::flushed, &flushed_, 0);
}

void TavoCache::Discard() {
  Store(&TavoCacheHeader::flushEnd, &flushEnd_, 0);
  Store(&TavoCacheHeader::flushed, &flushed_, end_);
  ResetFlushed();
}

void TavoCache::AbortFlush() { Store(&TavoCacheHeader::flushEnd, &flushEnd_, 0); }

// Every header field a restarted writer relies on is written with one
// aligned store, ordered after the data it describes; the writer itself only
// ever reads its copy.
void TavoCache::Store(uint64_t TavoCacheHeader::*field, uint64_t* copy, uint64_t value) {
  *copy = value;
  if (header_ != nullptr) __atomic_store_n(&(header_->*field), value, __ATOMIC_RELEASE);
}

}  // namespace platform
