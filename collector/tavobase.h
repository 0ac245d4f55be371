#ifndef MORVOCAT_COLLECTOR_TAVOBASE_H_
#define MORVOCAT_COLLECTOR_TAVOBASE_H_

// The output half of one collector group: its rotating set of log files and
// the writes into the newest of them. Two write modes:
// - mmap: records go through the memory-mapped writer into indexed,
//   time-stamped .gz files; the links P and P.1 point at the newest two; a
//   directory monitor flushes the writer when the log directories are opened.
// - factory: plain writes to P, kept open; rotation renames P to P.1 ... P.5
//   and packs full sets of five into P-0.tar.gz, P-1.tar.gz, ...
// A rotation is only ever made before a write whose preceding write ended a
// record, so the parts of one record always share a file.
//
// The collector runs as root in folders others may write: every create,
// mode and owner change, rename and unlink there works on descriptors opened
// without following links, and owners are given in this process, never by a
// program found through PATH.
//
// A write the output refuses (a full disk, a folder that cannot be made) is
// no end: the sink reports the fault once, takes the records into a bounded
// hold meanwhile and returns success, retries the output at most every
// kRetryMillis, quietly, and writes what it holds once that works, saying
// how many records it had to drop.
//
// Layers, each calling only those below it: the write paths
// (tavobase_write.cc) over the file layer (group_rotation.cc: directory,
// set, names, links, rotation, compression) over the core (tavobase.cc:
// construction, modes, closing, fault reports). The file layer never writes
// a record and never calls the derived group: it marks a file it opened, and
// the opening operation tells the group through openLogFilePost once the
// step has returned.
//
// Threads: not thread-safe. REQUIRES: every operation runs on the group's
// one thread (or, before that thread starts and after it ends, on the
// thread that owns the sink), except LogcatClose and MmapClose in mmap mode,
// which the directory monitor calls from its own thread: they only flush
// the writer, whose Flush is safe beside a Write. The FileSet part (fileVec,
// the scans and pruning) and every field are the group thread's alone.

#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>

#include <string>

#include "collector/held_text.h"
#include "config/tavo_common.h"
#include "filesets/file_set.h"

class MonitorDir;
class Tavo;

class Tavobase : public FileSet {
 public:
  static constexpr long kRetryMillis = 500;
  // Looking for the current file costs a path lookup, several times what
  // the rest of a record costs: it is looked for at most this often (on a
  // clock that moves a tick of a few milliseconds at a time), and always
  // before a rotation. In mmap mode records written meanwhile wait
  // in the writer's cache, which follows into the file made next; in
  // factory mode each write first checks its descriptor's link count.
  static constexpr int64_t kFileCheckMillis = 2;

  // group may be null (nothing configured: the defaults stay).
  Tavobase(const TavoCommon::TavocatGroupT* group, TavoCommon::TypeWrite mode);
  // Stops and joins the monitor before the writer it flushes is destroyed;
  // closes the factory descriptor. Records still held are counted as lost
  // ("group %s: stopped, %zu lines lost"): the open that could take them
  // needs the runner, which is gone by now. REQUIRES: the group's thread
  // has ended.
  ~Tavobase() override;

  bool IsMMapWrite() const;
  bool IsFactoryWrite() const;
  // Factory mode: closes the descriptor; mmap mode: flushes the writer.
  // REQUIRES: the group's thread in factory mode; any thread in mmap mode.
  void LogcatClose();
  void MmapClose();
  void FactoryClose();
  // Closes the descriptor a heap-held int holds and frees the holder.
  static void ReleaseFD(int* holder);

  // The operations below run on the group's thread only.

  // Opening (tavobase_write.cc, over the steps of group_rotation.cc): each
  // tells the group of a file it opened (openLogFilePost) after its step.
  // Makes the directory, forms the set and opens the current file; starts
  // the directory monitor's thread in mmap mode. 0 or 1.
  int SetupOutput();
  void OpenLogFile();
  // Starts the next file before a write of length that would reach the
  // size threshold.
  void RotateLog(uint64_t length);
  void RotateLogsFactory();
  void OpenLogFileFactory();

  // Each returns 0 when the text was accepted (written, or held while the
  // output fails), 1 otherwise. endsRecord says whether the text finishes a
  // record.
  int LogcatWrite(const char* text, size_t length, bool endsRecord);
  int MmapWrite(const char* text, size_t length, bool endsRecord);
  int FactoryWrite(const char* text, size_t length, bool endsRecord);
  // The text left-justified and padded with blanks to width; 0 means the
  // text's own length here and refuses the write in LogcatWriteStr.
  int LogcatWriteFixLenBuffer(const char* text, size_t width, bool endsRecord);
  int LogcatWriteStr(const char* text, size_t width, bool endsRecord);
  // "MM-DD hh:mm:ss.mmm line\n" in local time.
  int LogcatWriteWithTimestamp(const char* line);
  // The same for length bytes of text, NUL bytes included.
  int LogcatWriteStamped(const char* text, size_t length);
  // While the output fails: tries it again, when a retry is due, and writes
  // what is held. Every write does this; a runner whose source is idle may
  // call it so that held records do not wait for the next one.
  void RetryHeld();
  // The same at once, due or not: at the group's end no later retry would
  // write what is held.
  void RetryHeldNow();

  // Files (group_rotation.cc).
  // Makes the directory part of path and gives it to root:system. 1 only
  // for a path that has no directory part.
  int CreateBugreportsDir(const char* path) const;
  // Names the next indexed file and appends it to the set; 1 when the index
  // cannot be formatted.
  int ChooseFileName();
  void RefreshSymlink() const;
  // Removes path when it is a symbolic link, one whose target is gone
  // included: the group never writes through a link.
  void ReleaseSymlink(const char* path) const;
  bool RotationDue(uint64_t length) const;
  // Makes path and its missing parents with mode. 0 or 1; 1 also when a
  // link stands where one of them should be.
  int MkdirP(const char* path, uint32_t mode) const;
  void CreateDir(const char* path) const;

  // Packs P.1 to P.5 into P-0.tar.gz after shifting the older archives.
  void CompressLogsFactory() const;
  void CompressRunFactory(const std::string& workDir) const;

 protected:
  // Called each time a new current file has been opened, by the opening
  // operation once the file layer's step has returned; it may write.
  virtual void openLogFilePost() = 0;
  // The clocks of the time stamps and of the checks and retries; tests
  // put their own in.
  virtual void WallClock(struct timeval* now) const;
  virtual int64_t MonotonicMillis() const;

  Tavo* tavoWriter = nullptr;
  MonitorDir* dirMonitor = nullptr;
  TavoCommon::TypeWrite writeMode;
  std::string logFilePath;
  std::string prevLinkPath;
  int logFd = -1;
  size_t curFileSize = 0;
  size_t rotateSizeKbytes = 4096;
  size_t failureCount = 0;
  size_t failureRetry = 0;
  bool recordEnded = true;

 private:
  static constexpr mode_t kLogFileMode = 0664;
  static constexpr size_t kStampBuffer = 32;

  // The file layer's steps behind the opening operations: they open, and
  // set fileOpened_ for a file opened, but tell no one.
  int SetupFiles();
  void OpenNextFile();
  void RotateFiles(uint64_t length);
  void ShiftFactoryFiles();
  void OpenFactoryFile();
  // openLogFilePost once for a file the last step opened.
  void TellFileOpened();
  // After an open of logFilePath into logFd in the folder dirFd (or the
  // negated errno of either): false, the fault begun, when it failed;
  // otherwise sets the file's mode and gives it to root:system. The two
  // messages take logFilePath.
  bool TakeOpenedFile(int dirFd, const char* openFailed, const char* chownFailed);

  // What every write does first: rebuild a vanished file, rotate where a
  // record ended, remember whether this one does.
  void PrepareWrite(size_t length, bool endsRecord);
  // The current file is gone, renamed, or replaced by something else;
  // rotating forces the look that is otherwise made only when due.
  bool CurrentFileGone(bool rotating);
  // "MM-DD hh:mm:ss" for second, formatted once a second; null without a
  // local time.
  const char* StampOf(time_t second);
  // Writes now, or holds the text while the output fails. 0.
  int Accept(const char* text, size_t length, bool endsRecord);
  // False when the output refused the text (lastError_ says why).
  bool WriteNow(const char* text, size_t length, bool endsRecord);
  bool WriteFactoryNow(const char* text, size_t length);
  // Sets up again what a fault left closed or missing; false while it fails.
  bool Reopen();
  void BeginFault(int error);
  // Standard error, except while a retry runs: a fault is told once.
  void Say(const char* format, ...) const __attribute__((format(printf, 2, 3)));
  // As perror, under the same rule.
  void SayError(const char* text) const;
  // RefreshSymlink in the log folder opened as dirFd.
  void RefreshSymlinkAt(int dirFd) const;
  int WriteFormatted(const char* text, size_t width, bool endsRecord);

  HeldText held_;
  int lastError_ = 0;
  int64_t retryAtMillis_ = 0;
  bool failing_ = false;
  bool resuming_ = false;
  // A retry is opening the file: title rows it cannot write are written
  // again at the next open, and are not held.
  bool reopening_ = false;
  bool fileOpened_ = false;
  int64_t fileCheckAtMillis_ = 0;
  time_t stampSecond_ = 0;
  bool stampMade_ = false;
  bool stampLocal_ = false;
  size_t stampLength_ = 0;
  char stamp_[kStampBuffer] = {};
};

#endif  // MORVOCAT_COLLECTOR_TAVOBASE_H_
