#ifndef MORVOCAT_COLLECTOR_TAVOCAT_H_
#define MORVOCAT_COLLECTOR_TAVOCAT_H_

// One collector group: its sink and sources, and the thread that copies the
// sources into the sink in the group's style (a stream, input devices,
// polled rows, dumpsys commands, rows on charger changes).
//
// The group drives its sources, which write into the sink; the sink tells
// the group of each new file through openLogFilePost, on the group's thread
// and after the sink's file step has returned, so the title row goes
// through the sink's write path like any other row.

#include <stddef.h>

#include <atomic>

#include "collector/data_src_reader.h"
#include "collector/input_monitor.h"
#include "collector/thread_base.h"
#include "config/tavo_common.h"

class Tavocat : public DataSrcReader, public ThreadBase {
 public:
  // Prepares the group's output; the group's files are taken under the
  // root prefix. group is not owned and must outlive the object.
  Tavocat(TavoCommon::TavocatGroupT* group, TavoCommon::TypeWrite mode);
  // Does not stop the thread. REQUIRES: it has ended (see RunEnded).
  ~Tavocat() override;

  void Run() override;
  // With the group-thread lock held: whether Run has ended, and a request
  // that a running Run end at its next wait.
  bool RunEnded() const { return runEnded; }
  void Cancel();
  // Hands over the input text gathered so far and the stream's partial
  // last line, and flushes or closes the sink. REQUIRES: the group's thread
  // has ended.
  void FlushAll();

  int MonitorNode();
  void MonitorDir();
  int PollNode();
  void CondTrigger();
  void PollCmd();
  // The local time in format (year, month, day, hour, minute, second) into
  // out; empty when it does not fit.
  static void PollingDateTime(const char* format, char* out, size_t size);
  int WriteEmptyLine();
  void HandleChargerPluginout();
  bool IsChargerPluginout() const;
  bool IsChargerAction();
  void WriteTitleLine();

 protected:
  // A polled or charger-triggered group's new file begins with its title row.
  void openLogFilePost() override;

 private:
  static int WriteFromMonitor(void* self, const char* text, size_t length, bool endsRecord);
  // Writes one node's part of a polled row.
  int PollOneNode(const TavoCommon::TavocatInputNodeSetT* node, bool last);

  TavoCommon::TavocatGroupT* group;
  InputMonitor inputMonitor;
  std::atomic<bool> runEnded{false};
};

#endif  // MORVOCAT_COLLECTOR_TAVOCAT_H_
