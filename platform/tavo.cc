// Tavo keeps what is written in a memory-mapped cache file and turns it into
// one gzip member appended to the output file at each flush, so the output is
// a valid gzip stream after every flush and a killed writer loses nothing.
//
// Where the cache lives: in the output's directory, named after the output's
// base name with the set's ".Iddd.YYYYMMDD-HHMMSS.gz" ending taken off
// (".x.tavocache" for "x.I004.20240101-120000.gz"). A writer restarted over
// the same set is handed a new file name (the next index), so only a name
// that leaves the index and stamp out lets it find its predecessor's cache.
// A ".gz" inside the stem is written "_gz", so no scan for set files takes
// the cache for one. A restarted writer appends a dead one's data to its own
// new file: the cache never names a file (see tavo_cache.h), so whoever can
// write a cache cannot steer the writer anywhere else. The cache is locked
// while mapped, so two live writers of one set in one directory take
// different cache files.
//
// Outputs and caches are opened relative to the output folder's descriptor
// without following links (platform/safe_file.h), and each cache keeps that
// descriptor: a folder renamed or replaced by a link later does not move
// where the writer's data goes.
//
// Before the first SetOutputPath there is no directory to put a cache in and
// no set a restarted writer could tie the data to, so those bytes wait on the
// heap (a kill in that window loses them); owners choose their first file
// right after the first record.
//
// A file that is still empty is left at size 0 rather than given an empty
// gzip member: owners take a size-0 newest file as one to continue in.
//
// Once it has an output, a writer is also flushed by the process's flusher
// thread (platform/tavo_flusher.h) when its oldest cached byte nears the
// bound of MORVOCAT_FLUSH_SECONDS, read when the writer is made.

#include "platform/tavo.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <new>
#include <string>

#include "platform/gzip_member.h"
#include "platform/log_file_names.h"
#include "platform/safe_file.h"
#include "platform/safe_string.h"
#include "platform/tavo_cache.h"
#include "platform/tavo_flusher.h"
#include "platform/tavo_hook.h"

using platform::TavoCache;

namespace {

// Half a MiB: the mapped cache counts in a resident collector's memory for
// each busy group, and members of this size compress as well as larger ones.
constexpr size_t kCacheCapacity = 512 << 10;
// Bytes accepted before the first SetOutputPath.
constexpr size_t kEarlyLimit = 16 << 20;
constexpr int kCacheSlots = 4;

std::atomic<platform::TavoFlushHook> gFlushHook{nullptr};

void RunHook(platform::TavoFlushStage stage) {
  platform::TavoFlushHook hook = gFlushHook.load();
  if (hook != nullptr) hook(stage);
}

// The cache's name for the output called base in slot slot: see the top of
// this file.
bool CacheNameFor(const char* base, int slot, char* out, size_t size) {
  size_t stemLen = strlen(base);
  if (!platform::ParseSetFileName(base, &stemLen, nullptr, nullptr) && stemLen > 3 &&
      strcmp(base + stemLen - 3, ".gz") == 0) {
    stemLen -= 3;
  }
  int rc = slot == 0
               ? snprintf_s(out, size, size - 1, ".%.*s.tavocache", static_cast<int>(stemLen), base)
               : snprintf_s(out, size, size - 1, ".%.*s-%d.tavocache", static_cast<int>(stemLen),
                            base, slot);
  if (rc < 0) return false;
  // Owners take names holding the base name and ".gz" for set files (and
  // purge the odd ones); a cache name must never look like that.
  for (char* p = out; (p = strstr(p, ".gz")) != nullptr; p++) *p = '_';
  return true;
}

// Opens the folder of an output path for *at calls and sets *name to the
// output's name in it; a bare name lives in the working folder.
int OpenOutputFolder(const char* path, std::string* name) {
  std::string folder;
  if (platform::SplitPath(path, &folder, name) != 0) {
    if (strchr(path, '/') != nullptr) return -EINVAL;
    folder = ".";
    name->assign(path);
  }
  return platform::OpenFolder(folder.c_str());
}

// Takes a dead writer's begun member, maybe cut short, off the output open
// as fd; *st describes the output and *size is its size afterwards. False
// when it stays.
bool UndoInterrupted(TavoCache* c, int fd, struct stat* st, uint64_t* size) {
  if (fstat(fd, st) != 0) return false;
  *size = static_cast<uint64_t>(st->st_size);
  uint64_t base;
  if (!c->Interrupted(*st, &base)) return true;
  if (*size > base) {
    if (ftruncate(fd, static_cast<off_t>(base)) != 0) return false;
    *size = base;
  }
  c->AbortFlush();
  return true;
}

// Creates name in the folder dirFd when absent; an existing file is kept as
// it is.
bool CreateOutput(int dirFd, const char* name) {
  int fd = platform::OpenFileAt(dirFd, name, O_WRONLY | O_CREAT, 0664);
  if (fd < 0) return false;
  struct stat st;
  if (fstat(fd, &st) == 0 && (st.st_mode & 07777) != 0664) fchmod(fd, 0664);
  close(fd);
  return true;
}

}  // namespace

namespace platform {

void SetTavoFlushHook(TavoFlushHook hook) { gFlushHook.store(hook); }

}  // namespace platform

struct Tavo::Impl final : platform::TavoFlushClient {
  std::mutex mu;
  TavoCache* cache = nullptr;  // null until the first SetOutputPath
  char cacheKey[NAME_MAX + 1] = {};
  unsigned char* early = nullptr;
  size_t earlyLen = 0;
  size_t earlyCap = 0;

  Impl() { boundNs = platform::FlushBoundFromEnv() * 1000000; }
  ~Impl();
  void FlushIfDue(int64_t nowNs) override;
  void NoteHeld();
  bool FlushCache(TavoCache* c);
  bool WriteLocked(const unsigned char* data, size_t length);
  bool DrainEarly();
  bool KeepEarly(const unsigned char* data, size_t length);
  bool Retarget(TavoCache* c, int dirFd, const char* name);
  TavoCache* OpenCache(int dirFd, const char* name);
  bool UseOutput(int dirFd, const char* name);
};

Tavo::Impl::~Impl() {
  if (cache != nullptr) {
    FlushCache(cache);
    cache->Close(true);
    delete cache;
  }
  free(early);
}

// Appends what c holds to the file it belongs to. On failure the output is
// put back to its size before the flush and the data stays for a later one.
bool Tavo::Impl::FlushCache(TavoCache* c) {
  size_t length;
  const unsigned char* data = c->Pending(&length);
  if (length == 0) return true;
  if (!c->HasTarget()) return false;
  int fd = platform::OpenFileAt(c->Folder(), c->Target(), O_WRONLY | O_APPEND, 0);
  if (fd < 0) return false;
  struct stat st;
  uint64_t size = 0;
  bool ok = UndoInterrupted(c, fd, &st, &size);
  if (ok) {
    c->BeginFlush(size, st);
    ok = platform::AppendGzipMember(fd, data, length) == 0;
    if (ok) {
      RunHook(platform::TavoFlushStage::kAppended);
      c->CommitFlush();
      RunHook(platform::TavoFlushStage::kCommitted);
      c->ResetFlushed();
      // Bytes kept from before the path are older than anything cached.
      if (c == cache && earlyLen == 0) heldSinceNs.store(0, std::memory_order_relaxed);
    } else if (ftruncate(fd, static_cast<off_t>(size)) == 0) {
      c->AbortFlush();
    }
  }
  close(fd);
  return ok;
}

void Tavo::Impl::FlushIfDue(int64_t nowNs) {
  std::lock_guard<std::mutex> lock(mu);
  if (cache != nullptr && Due(nowNs) && DrainEarly()) FlushCache(cache);
  NoteHeld();
}

// Stamps the first byte held after a flush; called with mu held after
// every change to what is held.
void Tavo::Impl::NoteHeld() {
  size_t pending = 0;
  if (cache != nullptr) cache->Pending(&pending);
  if (pending == 0 && earlyLen == 0) {
    heldSinceNs.store(0, std::memory_order_relaxed);
  } else if (heldSinceNs.load(std::memory_order_relaxed) == 0) {
    heldSinceNs.store(platform::MonotonicNs(), std::memory_order_relaxed);
  }
}

bool Tavo::Impl::WriteLocked(const unsigned char* data, size_t length) {
  // A record that does not fit waits for a flush rather than being split
  // across a failed one.
  if (length > cache->Room() && !FlushCache(cache)) return false;
  while (length > 0) {
    size_t room = cache->Room();
    if (room == 0) {
      if (!FlushCache(cache)) return false;
      room = cache->Room();
      if (room == 0) return false;
    }
    size_t n = length < room ? length : room;
    cache->Append(data, n);
    data += n;
    length -= n;
  }
  return true;
}

bool Tavo::Impl::KeepEarly(const unsigned char* data, size_t length) {
  if (length > kEarlyLimit - earlyLen) return false;
  if (earlyLen + length > earlyCap) {
    size_t cap = earlyCap == 0 ? 64 << 10 : earlyCap;
    while (cap < earlyLen + length) cap *= 2;
    void* grown = realloc(early, cap);
    if (grown == nullptr) return false;
    early = static_cast<unsigned char*>(grown);
    earlyCap = cap;
  }
  memcpy(early + earlyLen, data, length);
  earlyLen += length;
  return true;
}

// Moves the bytes written before the first path into the cache, in order.
bool Tavo::Impl::DrainEarly() {
  if (earlyLen == 0) return true;
  size_t moved = 0;
  bool ok = true;
  while (ok && moved < earlyLen) {
    size_t room = cache->Room();
    if (room == 0) {
      ok = FlushCache(cache) && cache->Room() > 0;
      continue;
    }
    size_t n = earlyLen - moved < room ? earlyLen - moved : room;
    cache->Append(early + moved, n);
    moved += n;
  }
  memmove(early, early + moved, earlyLen - moved);
  earlyLen -= moved;
  return ok;
}

// Points c at the output name in the folder dirFd; a begun flush into its
// former file is undone first, as the data now goes elsewhere.
bool Tavo::Impl::Retarget(TavoCache* c, int dirFd, const char* name) {
  if (c->HasTarget() && c->FlushBegun()) {
    int fd = platform::OpenFileAt(c->Folder(), c->Target(), O_WRONLY, 0);
    struct stat st;
    uint64_t size;
    // Whether or not the old file could be put back, the data goes elsewhere.
    if (fd < 0 || !UndoInterrupted(c, fd, &st, &size)) c->AbortFlush();
    if (fd >= 0) close(fd);
  }
  return c->SetTarget(dirFd, name) == 0;
}

// The first free cache file for the output name in dirFd, or one on the heap.
TavoCache* Tavo::Impl::OpenCache(int dirFd, const char* name) {
  TavoCache* c = new (std::nothrow) TavoCache();
  if (c == nullptr) return nullptr;
  char file[NAME_MAX + 1];
  for (int slot = 0; slot < kCacheSlots; slot++) {
    if (CacheNameFor(name, slot, file, sizeof(file)) &&
        c->OpenFile(dirFd, file, kCacheCapacity) == 0) {
      return c;
    }
  }
  if (c->OpenMemory(kCacheCapacity) == 0) return c;
  delete c;
  return nullptr;
}

// Later output goes to name in the folder dirFd, which exists.
bool Tavo::Impl::UseOutput(int dirFd, const char* name) {
  char key[NAME_MAX + 1];
  if (!CacheNameFor(name, 0, key, sizeof(key))) key[0] = '\0';
  if (cache != nullptr && cache->IsLinked() && cache->InFolder(dirFd) &&
      strcmp(key, cacheKey) == 0) {
    // What cannot reach the old file goes to the new one.
    FlushCache(cache);
    return Retarget(cache, dirFd, name) && DrainEarly();
  }
  TavoCache* next = OpenCache(dirFd, name);
  if (next == nullptr) return false;
  if (!Retarget(next, dirFd, name)) {
    delete next;
    return false;
  }
  // A dead writer's data, if any, goes to this writer's own file.
  FlushCache(next);
  TavoCache* old = cache;
  cache = next;
  strcpy_s(cacheKey, sizeof(cacheKey), key);
  bool ok = true;
  if (old != nullptr) {
    if (!FlushCache(old)) {
      size_t pending;
      const unsigned char* data = old->Pending(&pending);
      ok = WriteLocked(data, pending);
      // Written twice rather than lost should the process die right here.
      if (ok) old->Discard();
    }
    old->Close(true);
    delete old;
  }
  return DrainEarly() && ok;
}

Tavo::Tavo() : impl_(new (std::nothrow) Impl()) {}

Tavo::~Tavo() {
  // No flush by the flusher thread may still be running or begin after this.
  platform::UnregisterFlushClient(impl_);
  delete impl_;
}

int Tavo::InitTavo() {
  if (impl_ == nullptr) return -1;
  // Nothing to set up ahead: the process's compressor is made at the
  // first flush.
  return 0;
}

bool Tavo::SetOutputPath(const char* path) {
  if (impl_ == nullptr || path == nullptr || path[0] == '\0') return false;
  std::string name;
  int dirFd = OpenOutputFolder(path, &name);
  if (dirFd < 0) return false;
  bool ok = CreateOutput(dirFd, name.c_str());
  if (ok) {
    std::lock_guard<std::mutex> lock(impl_->mu);
    ok = impl_->UseOutput(dirFd, name.c_str());
    impl_->NoteHeld();
  }
  close(dirFd);
  if (ok) platform::RegisterFlushClient(impl_);
  return ok;
}

bool Tavo::Write(const char* data, size_t length) {
  if (impl_ == nullptr || (data == nullptr && length > 0)) return false;
  if (length == 0) return true;
  std::lock_guard<std::mutex> lock(impl_->mu);
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(data);
  bool ok = impl_->cache == nullptr ? impl_->KeepEarly(bytes, length)
                                    : impl_->DrainEarly() && impl_->WriteLocked(bytes, length);
  impl_->NoteHeld();
  return ok;
}

bool Tavo::Flush() {
  if (impl_ == nullptr) return false;
  std::lock_guard<std::mutex> lock(impl_->mu);
  if (impl_->cache == nullptr) return impl_->earlyLen == 0;
  bool ok = impl_->DrainEarly() && impl_->FlushCache(impl_->cache);
  impl_->NoteHeld();
  return ok;
}
