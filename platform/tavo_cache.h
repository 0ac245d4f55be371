#ifndef MORVOCAT_PLATFORM_TAVO_CACHE_H_
#define MORVOCAT_PLATFORM_TAVO_CACHE_H_

// The memory-mapped cache behind Tavo: a header and a data area in one
// shared file mapping, so that bytes copied into it survive the death of the
// process and the next writer that maps the same file finds them.
//
// The header records how far a flush into the output got. A flush runs in
// three steps, each marked by one aligned 8-byte store: begin (flushEnd past
// flushed, flushBase = the output's size, flushDev/flushIno = the output),
// commit (flushed = flushEnd), reset (flushEnd, end, flushed back to 0 in an
// order where every intermediate state reads as "nothing pending"). A writer
// that finds a begun but uncommitted flush into the very file it writes
// truncates it back to flushBase and appends the data again, so data is
// neither lost nor doubled whichever instruction the process died on.
//
// Trust: the header is read once, when the file is opened, from a file this
// user owns alone (mode 0600, one name, not a link), and checked against the
// file's size; from then on the writer works from its own copies and only
// stores into the mapping. The header names no file: the output is always
// the one the writer was given, so a forged header can at worst cut that
// output back, never reach another file. Anything else found at the cache's
// name is removed (never followed) and a fresh cache made.
//
// When no file can be mapped the cache lives on the heap; it then works the
// same but does not survive the process.

#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>

namespace platform {

struct TavoCacheHeader {
  char magic[8];
  uint64_t headerSize;
  uint64_t capacity;
  uint64_t end;
  uint64_t flushed;
  uint64_t flushEnd;
  uint64_t flushBase;
  uint64_t flushDev;
  uint64_t flushIno;
};

class TavoCache {
 public:
  static constexpr size_t kHeaderSize = 8192;

  TavoCache() = default;
  ~TavoCache();
  TavoCache(const TavoCache&) = delete;
  TavoCache& operator=(const TavoCache&) = delete;

  // Maps the cache called name in the folder dirFd, creating it with
  // capacity data bytes when absent; what is there and is not this user's
  // well-formed cache is removed first. Fails when the file is locked by a
  // live writer (-EWOULDBLOCK) or cannot be created with its blocks
  // reserved. 0 or a negated errno, as every call here.
  int OpenFile(int dirFd, const char* name, size_t capacity);
  int OpenMemory(size_t capacity);
  // Unmaps; the file is removed first when removeIfEmpty and nothing is
  // pending in it.
  void Close(bool removeIfEmpty);

  // True while the mapped file is still the one found under its name; a
  // removed cache would keep the data only as long as this process lives.
  bool IsLinked() const;
  // True when the cache file lives in the folder open as dirFd.
  bool InFolder(int dirFd) const;
  size_t Room() const { return capacity_ - end_; }
  // The bytes not yet in the output file.
  const unsigned char* Pending(size_t* length) const;
  // Copies length bytes (at most Room()) after the pending ones.
  void Append(const void* data, size_t length);

  // The output the pending bytes go to, a name in the folder Folder(); a
  // cache recovered from a dead writer has none until SetTarget.
  bool HasTarget() const { return target_[0] != '\0'; }
  int Folder() const { return dirFd_; }
  const char* Target() const { return target_; }
  // dirFd must be the cache file's own folder; it is duplicated.
  int SetTarget(int dirFd, const char* name);

  // True when a flush was begun and not committed.
  bool FlushBegun() const { return flushEnd_ > flushed_; }
  // True, with the output size to truncate back to, when a flush into the
  // file output (fstat of the open output) was begun and not committed. A
  // begun flush into any other file is forgotten: that file is not ours to
  // cut, and its data goes to output again.
  bool Interrupted(const struct stat& output, uint64_t* base);
  void BeginFlush(uint64_t outputSize, const struct stat& output);
  // Marks the begun flush as in the output; ResetFlushed then empties the
  // data area when nothing is left pending.
  void CommitFlush();
  void ResetFlushed();
  // Drops what is pending, once it has been copied elsewhere.
  void Discard();
  // Forgets a begun flush once the output is back at its base size.
  void AbortFlush();

 private:
  int Create(int dirFd, size_t capacity);
  int Adopt(int fd, int dirFd, const TavoCacheHeader& header);
  int MapFile(int fd, int dirFd, size_t capacity);
  void Store(uint64_t TavoCacheHeader::*field, uint64_t* copy, uint64_t value);

  int fd_ = -1;
  int dirFd_ = -1;
  TavoCacheHeader* header_ = nullptr;  // only stored into; null on the heap
  unsigned char* data_ = nullptr;
  size_t mapSize_ = 0;
  // The writer's own copies of the header's fields.
  uint64_t capacity_ = 0;
  uint64_t end_ = 0;
  uint64_t flushed_ = 0;
  uint64_t flushEnd_ = 0;
  uint64_t flushBase_ = 0;
  uint64_t flushDev_ = 0;
  uint64_t flushIno_ = 0;
  char name_[NAME_MAX + 1] = {};
  char target_[NAME_MAX + 1] = {};
};

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_TAVO_CACHE_H_
