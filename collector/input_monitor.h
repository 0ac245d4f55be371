#ifndef MORVOCAT_COLLECTOR_INPUT_MONITOR_H_
#define MORVOCAT_COLLECTOR_INPUT_MONITOR_H_

// Records the events of picked input devices of one directory as text lines.
// Devices are followed as they appear and disappear; the text is gathered
// and handed to the group's sink in large pieces, at once after a power key.

#include <poll.h>
#include <stddef.h>
#include <stdint.h>

#include "config/tavo_common.h"

class InputMonitor {
 public:
  // The sink's write: text, length, whether the text ends a record.
  using Writer = int (*)(void* owner, const char* text, size_t length, bool endsRecord);

  static constexpr size_t kEventBufSize = 512;
  static constexpr size_t kFileBufSize = 16384;

  InputMonitor(Writer writer, void* owner);
  // Closes every descriptor, last first, and frees the buffers; gathered
  // text that was not handed over is dropped.
  ~InputMonitor();
  InputMonitor(const InputMonitor&) = delete;
  InputMonitor& operator=(const InputMonitor&) = delete;

  // Sets up, scans dir (a host path) and polls; returns only when the
  // monitor cannot start. A folder that is missing or removed is watched
  // again once it is back; a device that fails a read is skipped or let go.
  // It waits only at its thread's cancellation points.
  void Run(const char* dir, const TavoCommon::TavocatStrListT* picks);

  int AddDevice2Cache(const char* name, int fd);
  int MonitorScanDir(const char* dir, const TavoCommon::TavocatStrListT* picks);
  void MonitorDirLoop(const char* dir, const TavoCommon::TavocatStrListT* picks);
  int MonitorReadNotify(const char* dir, int fd, const TavoCommon::TavocatStrListT* picks);
  int MonitorOpenDevice(const char* path, const TavoCommon::TavocatStrListT* picks);
  int MonitorCloseDevice(const char* path);
  void MonitorWriteToBuf(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void MonitorPrintEvent(int type, int code, int value);
  void MonitorFlush();
  // Stamps the local time into the process-wide stamp and points *stamp at it.
  static int MonitorLoggingTime(char** stamp);
  // Whether a device of this reported name is picked by the list.
  static bool IsPicked(const char* name, const TavoCommon::TavocatStrListT* picks);

  int DeviceCount() const { return ufdCount; }
  const char* DeviceName(int index) const { return deviceNames[index]; }
  int GatheredLength() const { return fileBufLen; }
  // Used by the tests to gather without the whole set-up.
  bool AllocateBuffers();

 private:
  // One input_event record as the kernel hands it over on a 64-bit system.
  struct RawInputEvent {
    int64_t sec;
    int64_t usec;
    uint16_t type;
    uint16_t code;
    int32_t value;
  };
  void GatherEvent(const RawInputEvent& event, long long* lastSyn);
  // Watches dir and opens the picked devices in it, trying again every
  // second while that fails.
  void WatchAndScan(const char* dir, const TavoCommon::TavocatStrListT* picks);
  // Reads one event of device index; false when the device was let go.
  bool ReadDevice(int index, int pollResult, long long* lastSyn);
  // The entry of path among the devices, or 0 when none holds it.
  int HeldIndex(const char* path) const;
  void RemoveDevice(int index);

  Writer writer;
  void* owner;
  pollfd* ufds = nullptr;
  int ufdCount = 0;
  char** deviceNames = nullptr;
  char* eventBuf = nullptr;
  char* fileBuf = nullptr;
  int fileBufLen = 0;
  // The folder's watch is gone (the folder was removed).
  bool watchLost = false;
};

#endif  // MORVOCAT_COLLECTOR_INPUT_MONITOR_H_
