#include "platform/tavo_cache.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/safe_string.h"

namespace platform {
namespace {

constexpr char kMagic[8] = {'T', 'A', 'V', 'O', 'C', 'A', '0', '1'};
static_assert(sizeof(TavoCacheHeader) <= TavoCache::kHeaderSize, "header too large");

// Every header field a restarted writer relies on is written with one
// aligned store, ordered after the data it describes.
void Store(uint64_t* field, uint64_t value) { __atomic_store_n(field, value, __ATOMIC_RELEASE); }
uint64_t Load(const uint64_t* field) { return __atomic_load_n(field, __ATOMIC_ACQUIRE); }

bool ReadHeader(int fd, TavoCacheHeader* header) {
  ssize_t got = pread(fd, header, sizeof(*header), 0);
  return got == static_cast<ssize_t>(sizeof(*header));
}

}  // namespace

TavoCache::~TavoCache() { Close(false); }

bool TavoCache::OpenFile(const char* cacheFile, size_t capacity) {
  Close(false);
  if (strcpy_s(file_, sizeof(file_), cacheFile) != 0) return false;
  int fd = open(cacheFile, O_RDWR | O_CREAT | O_CLOEXEC, 0664);
  if (fd < 0) return false;
  // A live writer holds the lock for as long as it maps the file; a dead
  // one has lost it, which is what lets its successor recover the data.
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    close(fd);
    return false;
  }
  struct stat st;
  TavoCacheHeader old;
  bool reuse = fstat(fd, &st) == 0 && ReadHeader(fd, &old) &&
               memcmp(old.magic, kMagic, sizeof(kMagic)) == 0 && old.headerSize == kHeaderSize &&
               old.capacity > 0 && st.st_size == static_cast<off_t>(kHeaderSize + old.capacity);
  if (reuse) {
    capacity = old.capacity;
  } else if (ftruncate(fd, 0) != 0 ||
             posix_fallocate(fd, 0, static_cast<off_t>(kHeaderSize + capacity)) != 0) {
    // Without reserved blocks a store into the mapping could fault on a
    // full disk; better no file cache at all.
    unlink(cacheFile);
    close(fd);
    return false;
  }
  if (!MapFile(fd, capacity)) {
    close(fd);
    return false;
  }
  if (reuse) {
    Repair();
  } else {
    memcpy(header_->magic, kMagic, sizeof(kMagic));
    header_->headerSize = kHeaderSize;
    header_->capacity = capacity;
  }
  return true;
}

bool TavoCache::MapFile(int fd, size_t capacity) {
  size_t size = kHeaderSize + capacity;
  void* map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (map == MAP_FAILED) return false;
  fd_ = fd;
  mapSize_ = size;
  header_ = static_cast<TavoCacheHeader*>(map);
  data_ = static_cast<unsigned char*>(map) + kHeaderSize;
  return true;
}

bool TavoCache::OpenMemory(size_t capacity) {
  Close(false);
  void* mem = calloc(1, kHeaderSize + capacity);
  if (mem == nullptr) return false;
  header_ = static_cast<TavoCacheHeader*>(mem);
  data_ = static_cast<unsigned char*>(mem) + kHeaderSize;
  mapSize_ = kHeaderSize + capacity;
  memcpy(header_->magic, kMagic, sizeof(kMagic));
  header_->headerSize = kHeaderSize;
  header_->capacity = capacity;
  return true;
}

// Brings a header left by a dead writer to a state this code can continue
// from; anything that cannot have been written by the protocol is dropped.
void TavoCache::Repair() {
  TavoCacheHeader* h = header_;
  h->path[sizeof(h->path) - 1] = '\0';
  bool sane = h->end <= h->capacity && h->flushed <= h->capacity && h->flushEnd <= h->end;
  if (!sane || h->flushed >= h->end) {
    Store(&h->flushEnd, 0);
    Store(&h->end, 0);
    Store(&h->flushed, 0);
    return;
  }
  if (h->flushEnd <= h->flushed) Store(&h->flushEnd, 0);
}

void TavoCache::Close(bool removeIfEmpty) {
  if (header_ == nullptr) return;
  if (fd_ >= 0) {
    uint64_t base;
    size_t pending;
    Pending(&pending);
    // Only our own file: another cache may have been made under the name.
    if (removeIfEmpty && pending == 0 && !Interrupted(&base) && IsLinked()) unlink(file_);
    munmap(header_, mapSize_);
    close(fd_);
  } else {
    free(header_);
  }
  fd_ = -1;
  header_ = nullptr;
  data_ = nullptr;
  mapSize_ = 0;
}

bool TavoCache::IsLinked() const {
  struct stat mapped, named;
  return fd_ >= 0 && fstat(fd_, &mapped) == 0 && stat(file_, &named) == 0 &&
         mapped.st_dev == named.st_dev && mapped.st_ino == named.st_ino;
}

size_t TavoCache::Room() const { return header_->capacity - Load(&header_->end); }

const unsigned char* TavoCache::Pending(size_t* length) const {
  uint64_t flushed = Load(&header_->flushed);
  uint64_t end = Load(&header_->end);
  *length = end > flushed ? end - flushed : 0;
  return data_ + flushed;
}

void TavoCache::Append(const void* data, size_t length) {
  uint64_t end = Load(&header_->end);
  memcpy(data_ + end, data, length);
  Store(&header_->end, end + length);
}

bool TavoCache::SetPath(const char* path) {
  return strcpy_s(header_->path, sizeof(header_->path), path) == 0;
}

bool TavoCache::Interrupted(uint64_t* base) const {
  *base = Load(&header_->flushBase);
  return Load(&header_->flushEnd) > Load(&header_->flushed);
}

void TavoCache::BeginFlush(uint64_t outputSize) {
  Store(&header_->flushBase, outputSize);
  Store(&header_->flushEnd, Load(&header_->end));
}

void TavoCache::CommitFlush() {
  Store(&header_->flushed, Load(&header_->flushEnd));
  Store(&header_->flushEnd, 0);
}

void TavoCache::ResetFlushed() {
  if (Load(&header_->flushed) != Load(&header_->end)) return;
  // With flushed at end every one of these states holds nothing pending.
  Store(&header_->end, 0);
  Store(&header_->flushed, 0);
}

void TavoCache::Discard() {
  Store(&header_->flushEnd, 0);
  Store(&header_->flushed, Load(&header_->end));
  ResetFlushed();
}

void TavoCache::AbortFlush() { Store(&header_->flushEnd, 0); }

}  // namespace platform
