#ifndef MORVOCAT_COLLECTOR_MONITOR_DIR_H_
#define MORVOCAT_COLLECTOR_MONITOR_DIR_H_

// Flushes a group's memory-mapped writer whenever a directory is opened in
// the group's log directory or in the diagnostic-log directory, so a tool
// that lists them to collect the logs finds every record written so far.
// Opening a regular file there does not count, so the group's own file
// opens never trigger it.
//
// The group stops and joins its monitor before it frees anything the
// monitor uses: the watch loop also waits on a stop descriptor. A folder
// missing at the start, or removed later, is watched once it is there.

#include <stddef.h>
#include <sys/types.h>

#include "collector/thread_base.h"

class Tavobase;

class MonitorDir : public ThreadBase {
 public:
  // dir becomes everything of path before its last '/'.
  explicit MonitorDir(const char* path);
  // Stops and joins the watch loop first.
  ~MonitorDir() override;

  void GetDir(const char* path);
  void SetupLogBase(Tavobase* base);
  void Run() override;
  // Ends the watch loop and joins its thread; the group is not touched
  // afterwards. Safe to call more than once and before Start.
  void Stop();
  // Flushes the group once for each directory record among the n bytes of
  // inotify records in events; returns how many flushes it made.
  int HandleEvents(const char* events, ssize_t n);

 private:
  static constexpr int kTargets = 2;
  struct WatchTarget {
    const char* path;
    int wd = -1;
    bool told = false;  // its failure has been reported
  };
  // The watch loop over the group's folder and the diagnostic-log folder.
  void Watch(WatchTarget* targets);
  // A new inotify descriptor; -1 when there is none, FD_SETSIZE when it is
  // too large for select.
  int OpenNotify(bool* told);
  bool AddWatch(int notifyFd, WatchTarget* target);
  int WaitReadable(int notifyFd, bool complete);
  void ForgetLostWatches(const char* events, ssize_t n, WatchTarget* targets);

  char* dir = nullptr;
  Tavobase* logBase = nullptr;
  int stopFd_ = -1;
};

#endif  // MORVOCAT_COLLECTOR_MONITOR_DIR_H_
