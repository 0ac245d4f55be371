#ifndef MORVOCAT_PLATFORM_TAVO_CACHE_H_
#define MORVOCAT_PLATFORM_TAVO_CACHE_H_

// The memory-mapped cache behind Tavo: a header and a data area in one
// shared file mapping, so that bytes copied into it survive the death of the
// process and the next writer that maps the same file finds them.
//
// The header records the output file the data belongs to and how far a
// flush into that file got. A flush runs in three steps, each marked by one
// aligned 8-byte store: begin (flushEnd past flushed, flushBase = the output's
// size), commit (flushed = flushEnd), reset (flushEnd, end, flushed back to 0
// in an order where every intermediate state reads as "nothing pending").
// A writer that finds a begun but uncommitted flush truncates the output back
// to flushBase and appends the data again, so data is neither lost nor
// doubled whichever instruction the process died on.
//
// When no file can be mapped the cache lives on the heap with the same
// layout; it then works the same but does not survive the process.

#include <limits.h>
#include <stddef.h>
#include <stdint.h>

namespace platform {

struct TavoCacheHeader {
  char magic[8];
  uint64_t headerSize;
  uint64_t capacity;
  uint64_t end;
  uint64_t flushed;
  uint64_t flushEnd;
  uint64_t flushBase;
  char path[PATH_MAX];
};

class TavoCache {
 public:
  static constexpr size_t kHeaderSize = 8192;

  TavoCache() = default;
  ~TavoCache();
  TavoCache(const TavoCache&) = delete;
  TavoCache& operator=(const TavoCache&) = delete;

  // Maps cacheFile, creating it with capacity data bytes when it is absent
  // or not a cache. Fails when the file is locked by a live writer or cannot
  // be created with its blocks reserved.
  bool OpenFile(const char* cacheFile, size_t capacity);
  bool OpenMemory(size_t capacity);
  // Unmaps; the file is removed first when removeIfEmpty and nothing is
  // pending in it.
  void Close(bool removeIfEmpty);

  // True while the mapped file is still the one found under its name; a
  // removed cache would keep the data only as long as this process lives.
  bool IsLinked() const;
  size_t Room() const;
  // The bytes not yet in the output file.
  const unsigned char* Pending(size_t* length) const;
  // Copies length bytes (at most Room()) after the pending ones.
  void Append(const void* data, size_t length);

  const char* Path() const { return header_->path; }
  bool SetPath(const char* path);

  // True, with the output size to truncate back to, when a flush was begun
  // and not committed.
  bool Interrupted(uint64_t* base) const;
  void BeginFlush(uint64_t outputSize);
  // Marks the begun flush as in the output; ResetFlushed then empties the
  // data area when nothing is left pending.
  void CommitFlush();
  void ResetFlushed();
  // Drops what is pending, once it has been copied elsewhere.
  void Discard();
  // Forgets a begun flush once the output is back at its base size.
  void AbortFlush();

 private:
  bool MapFile(int fd, size_t capacity);
  void Repair();

  int fd_ = -1;
  TavoCacheHeader* header_ = nullptr;
  unsigned char* data_ = nullptr;
  size_t mapSize_ = 0;
  char file_[PATH_MAX] = {};
};

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_TAVO_CACHE_H_
