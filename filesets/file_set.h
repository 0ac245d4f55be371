#ifndef MORVOCAT_FILESETS_FILE_SET_H_
#define MORVOCAT_FILESETS_FILE_SET_H_

// The rotating set of log files of one base path, shared by its two owners:
// the reader's writer (MorvocatUtils) and the collector's group sink. The
// set is rebuilt from the directory alone (names carry index and time), kept
// oldest first, and pruned from the front.
//
// The owners differ only in the few rules of FileSetRules and in the scheme
// they write; an owner derives from FileSet, passes its rules and scheme, and
// gets every operation of the set as its own member.

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "filesets/file_name.h"

struct FileSetRules {
  // GetNewLogFileIndex answers kContinueNewest when the newest file exists
  // and is empty, so a restarted owner goes on in it.
  bool continueInEmptyNewest;
  // The old-style sweep runs once per set: afterwards old names are no
  // longer recognised. It reports every deletion that fails (a missing file
  // included), purges names of the wrong length and forms the set again.
  // Without it the sweep runs silently whenever asked, in the indexed scheme
  // only, and leaves forming the set to the caller.
  bool sweepOnce;
};

// The reader's writer, and the collector's group sink.
constexpr FileSetRules kReaderSetRules{true, false};
constexpr FileSetRules kCollectorSetRules{false, true};

// What the owner writes, fixed for its lifetime.
enum class SetScheme {
  INDEXED,   // indexed, time-stamped files through the memory-mapped writer
  NUMBERED,  // one plain file with numbered copies (the collector's factory mode)
  NONE,      // nothing through the set (a reader writer not in memory-mapped mode)
};

class FileSet {
 public:
  virtual ~FileSet();
  FileSet(const FileSet&) = delete;
  FileSet& operator=(const FileSet&) = delete;

  // count characters of name from start, when name is total bytes long and
  // the field ends within it; empty otherwise.
  std::string GetInterger(const std::string& name, uint32_t total, uint32_t start,
                          uint32_t count) const;
  // The index and time-stamp fields of a set name; empty when name is not
  // of a set name's length.
  std::string GetIndex(const std::string& name) const;
  std::string GetTimestamp(const std::string& name) const;
  // The index after three digits (999 is followed by 0); 0 for other text.
  uint32_t ConvertStringToIndex(const std::string& text) const;
  // The local time now as YYYYMMDD-HHMMSS, or empty.
  std::string GetTimeStamp() const;
  static bool SortByEarlyTime(const std::string& a, const std::string& b);

  // mode 0 collects set names from directory into fileVec; mode 1 deletes
  // the set's own names there (baseName.I... and baseName-n.tar.gz) that are
  // not of a set name's length. Only an entry's own name is read, never the
  // folder's. 1 when nothing could be scanned.
  int ScanDir(int mode, const std::string& directory, const std::string& baseName);
  // ScanDir over the base path's own directory.
  void ProcessMmapFileVec(int mode);
  bool DetectOldStyleFiles(const char* path) const;
  void DeleteOldStyleFiles();

  // Moves the entries after the first pivot to the front, keeping order.
  void RotateVec(std::vector<std::string>& list, const std::string& pivot) const;
  std::string GetFileByMaxTimestamp(const std::vector<std::string>& list) const;
  // Puts a sorted list into writing order across index wrap and gaps (a
  // list holding every index, which shows no gap, by its stamps); drops
  // entries whose index field reads negative.
  void AdjustFileVecOrder(std::vector<std::string>& list) const;
  // The index for the next file after the newest of list (reordered first),
  // or kContinueNewest where the rules allow it.
  uint32_t GetNewLogFileIndex(std::vector<std::string>& list) const;
  uint32_t GetNewLogFileIndex();

  // Rebuilds fileVec from the directory: collect, give empty files their
  // empty gzip member, sort, order, prune.
  void FormFileVectors();
  // Deletes the oldest files beyond the limit.
  void RemoveRedundancy();

 protected:
  FileSet(std::string basePath, uint64_t fileLimit, FileSetRules rules, SetScheme scheme);

  // The set name for index opened now; false when it cannot be formatted.
  bool MakeLogFileName(uint32_t index, std::string* name) const;
  // Names the file for index, makes it holding one empty gzip member and
  // appends it to the set, first pruning the oldest so that the set never
  // holds every index; gives its name in *path. False when the name cannot
  // be formatted.
  bool AddNewFile(uint32_t index, std::string* path);
  // path is there as a regular file of one name (a link is not followed).
  static bool IsOwnFileThere(const std::string& path);

  // The folder of path opened for *at calls (a link there is refused), and
  // path's name in it. A descriptor or a negated errno.
  static int OpenFolderOf(const std::string& path, std::string* name);
  // Opens name in the folder dirFd for writing, creating it with mode.
  // Whatever else stands at a name the owner writes (a link, a FIFO or
  // device, a second name of another file) was put there by someone else:
  // it is removed first, never followed or written. A descriptor or a
  // negated errno.
  static int OpenOwnFileAt(int dirFd, const std::string& name, int flags, mode_t mode);
  // Deletes path's name in its folder, opened as dirFd; -1 with errno set
  // when that fails (also for a negative dirFd).
  static int UnlinkIn(int dirFd, const std::string& path);

  std::string outputFilePath;
  std::vector<std::string> fileVec;
  uint64_t maxFiles;
  // Old-style names may still exist (cleared by a once-per-set sweep).
  bool oldStyleCheck = true;

 private:
  uint64_t FileLimit() const;
  static bool NewestHoldsNoRecord(const std::string& path);
  void GiveEmptyFilesAMember();
  // Deletes the first count files of fileVec, all but a file named keep,
  // and takes them off the list.
  void DropOldest(size_t count, const std::string& keep);

  void SweepNamesSilently();
  void SweepOnce();

  const FileSetRules rules_;
  const SetScheme scheme_;
};

#endif  // MORVOCAT_FILESETS_FILE_SET_H_
