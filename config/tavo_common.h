#ifndef MORVOCAT_CONFIG_TAVO_COMMON_H_
#define MORVOCAT_CONFIG_TAVO_COMMON_H_

// The collector's configuration tree: plain records, each owned by exactly
// one parent. Every string is a NUL-terminated array from new[] (nothrow),
// owned by its record; a missing value is null, never "". Lists are singly
// linked through `next`.

#include <stddef.h>
#include <stdint.h>

namespace TavoCommon {

// How every group of an instance writes its files.
enum TypeWrite : uint32_t {
  MMAP_WRITE = 0,     // through the platform's memory-mapped writer
  FACTORY_WRITE = 1,  // plain files, numbered renames and tar.gz archives
};

// What a group does; decides the record type behind TavocatGroupT::inputSet.
enum LogStyle : uint32_t {
  LOG_STYLE_NONE = 0,
  MONITOR_NODE = 1,  // list of TavocatInputNodeSetT
  MONITOR_DIR = 2,   // one TavocatInputDirSetT
  POLL_NODE = 3,     // list of TavocatInputNodeSetT
  POLL_CMD = 4,      // list of TavocatInputCmdSetT
  COND_TRIGGER = 5,  // list of TavocatInputNodeSetT
};

struct TavocatStrListT {
  char* str;
  TavocatStrListT* next;
};

// One data node of a node-style group.
struct TavocatInputNodeSetT {
  size_t width;                    // column width the value is padded to; 0: none
  char* dataPath;                  // a path, or "DateTime" / "CurrentTime"
  char* titlePath;                 // file holding the column title
  char* title;                     // literal column title; wins over titlePath
  TavocatStrListT* alterDataPath;  // tried in order when dataPath is null
  TavocatInputNodeSetT* next;
};

// The one source of a MONITOR_DIR group.
struct TavocatInputDirSetT {
  char* inputDirPath;
  TavocatStrListT* pickNode;  // entry names picked in that directory
};

// One "dumpsys" command of a POLL_CMD group.
struct TavocatInputCmdSetT {
  char* command;
  TavocatInputCmdSetT* next;
};

struct TavocatInfoT;

struct TavocatGroupT {
  size_t pollingInterval;  // seconds between passes of a polling group
  size_t failureRetry;     // consecutive read failures a source tolerates
  LogStyle style;
  TavocatInfoT* info;  // the owning root; not owned
  void* inputSet;      // record type follows style
  char* outputFilePath;
  size_t condIndex;  // condition of a COND_TRIGGER group
  TavocatGroupT* next;
};

// The root of one collector instance; the caller owns it and zero-fills it.
struct TavocatInfoT {
  size_t rotateSizeKbytes;
  size_t maxCompressdFiles;
  TypeWrite writeMode;
  char* name;
  TavocatGroupT* groups;
};

inline bool IsNodeStyle(uint32_t style) {
  return style == MONITOR_NODE || style == POLL_NODE || style == COND_TRIGGER;
}

// The configuration file and the limits of the instance name.
constexpr const char kConfigFilePath[] = "/system/etc/tavocat_config.xml";
constexpr size_t kInstanceNameMax = 256;

// The built-in instances used when the configuration file is absent.
constexpr const char kKmsgInstance[] = "kmsglogcat";
constexpr const char kChargeInstance[] = "chargelogcat";
constexpr size_t kBuiltinRotateSizeKbytes = 4096;
constexpr size_t kKmsgMaxCompressdFiles = 25;
constexpr size_t kChargeMaxCompressdFiles = 20;
constexpr size_t kChargePollingInterval = 5;
constexpr size_t kChargeTimeWidth = 23;
constexpr const char kKmsgOutputPath[] = "/data/log/android_logs/kmsgcat-log";
constexpr const char kChargeOutputPath[] = "/data/log/charge-log/charge-log";
constexpr const char kKmsgDataPath[] = "/proc/kmsg";
constexpr const char kDateTimePath[] = "DateTime";
constexpr const char kDateTimeTitle[] = "Time";
constexpr const char kGaugeDataPath[] = "/sys/class/qd_power/coul/coul_data/gaugelog";
constexpr const char kGaugeTitlePath[] = "/sys/class/qd_power/coul/coul_data/gaugelog_head";
constexpr const char kChargeDataPath[] = "/sys/class/qd_power/charger/charge_data/chargelog";
constexpr const char kChargeTitlePath[] = "/sys/class/qd_power/charger/charge_data/chargelog_head";

}  // namespace TavoCommon

#endif  // MORVOCAT_CONFIG_TAVO_COMMON_H_
