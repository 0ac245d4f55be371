#include "collector/tavocat.h"

#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "collector/charger_event.h"
#include "collector/group_threads.h"
#include "collector/wait_point.h"
#include "platform/root_path.h"
#include "platform/safe_string.h"

using TavoCommon::COND_TRIGGER;
using TavoCommon::MONITOR_DIR;
using TavoCommon::MONITOR_NODE;
using TavoCommon::POLL_CMD;
using TavoCommon::POLL_NODE;
using TavoCommon::TavocatGroupT;
using TavoCommon::TavocatInputCmdSetT;
using TavoCommon::TavocatInputDirSetT;
using TavoCommon::TavocatInputNodeSetT;
using TavoCommon::TypeWrite;

namespace {

constexpr size_t kDateTimeSize = 128;
constexpr char kDateTimeNode[] = "DateTime";
constexpr char kCurrentTimeNode[] = "CurrentTime";
constexpr char kDateTimeFormat[] = "%.4d-%.2d-%.2d %.2d:%.2d:%.2d > ";
constexpr char kCurrentTimeFormat[] = "\ncurrent time: %d-%d-%d %d:%d:%d\r\n";

// The group as its sink sees it: an absolute output path under the root
// prefix. Lives for the sink's constructor, which copies the path.
class ResolvedGroup {
 public:
  explicit ResolvedGroup(const TavocatGroupT* group)
      : path(platform::ResolveNodePath(group != nullptr ? group->outputFilePath : nullptr)) {
    if (group == nullptr) return;
    copy = *group;
    valid = true;
    if (group->outputFilePath == nullptr) return;
    // Never the configured path as written: under a root it is the device's.
    if (!path.ok()) fprintf(stderr, "group %s: output path too long\n", group->outputFilePath);
    // The sink only reads the path; it copies it.
    copy.outputFilePath = const_cast<char*>(path.c_str());
  }
  const TavocatGroupT* get() const { return valid ? &copy : nullptr; }

 private:
  TavocatGroupT copy{};
  bool valid = false;
  platform::DevicePath path;
};

bool StartsWith(const char* text, const char* prefix) {
  return strncmp(text, prefix, strlen(prefix)) == 0;
}

void SleepWaiting(size_t seconds) {
  WaitPoint wait;
  pthread_testcancel();
  sleep(static_cast<unsigned>(seconds));
}

}  // namespace

Tavocat::Tavocat(TavocatGroupT* group, TypeWrite mode)
    : DataSrcReader(ResolvedGroup(group).get(), mode),
      group(group),
      inputMonitor(&Tavocat::WriteFromMonitor, this) {
  SetupOutput();
}

Tavocat::~Tavocat() = default;

void Tavocat::Cancel() {
  if (threadId != 0 && !runEnded) pthread_cancel(threadId);
}

void Tavocat::FlushAll() {
  if (inputMonitor.GatheredLength() > 0) inputMonitor.MonitorFlush();
  FlushStreamCarry();
  // Space may have come back since the last try, however short ago: what is
  // held goes out before the end counts it as lost.
  RetryHeldNow();
  LogcatClose();
}

int Tavocat::WriteFromMonitor(void* self, const char* text, size_t length, bool endsRecord) {
  return static_cast<Tavocat*>(self)->LogcatWrite(text, length, endsRecord);
}

void Tavocat::Run() {
  // Marks the end also when the thread is cancelled at a wait.
  struct EndMark {
    std::atomic<bool>* ended;
    ~EndMark() { GroupThreads::MarkEnded(ended); }
  } endMark{&runEnded};
  WaitPoint::CloseOutsideWaits();
  if (group == nullptr) return;
  switch (group->style) {
    case MONITOR_NODE:
      MonitorNode();
      break;
    case MONITOR_DIR:
      MonitorDir();
      break;
    case POLL_NODE:
      PollNode();
      break;
    case POLL_CMD:
      PollCmd();
      break;
    case COND_TRIGGER:
      CondTrigger();
      break;
    default:
      break;
  }
}

int Tavocat::MonitorNode() {
  auto* node = static_cast<TavocatInputNodeSetT*>(group->inputSet);
  if (node == nullptr) return 1;
  return NodeCatStream(node->dataPath);
}

void Tavocat::MonitorDir() {
  auto* dirSet = static_cast<TavocatInputDirSetT*>(group->inputSet);
  if (dirSet == nullptr || dirSet->inputDirPath == nullptr) return;
  platform::DevicePath dir = platform::ResolveNodePath(dirSet->inputDirPath);
  if (!dir.ok()) return;
  inputMonitor.Run(dir.c_str(), dirSet->pickNode);
}

void Tavocat::PollingDateTime(const char* format, char* out, size_t size) {
  time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) == nullptr) {
    memset_s(&local, sizeof(local), 0, sizeof(local));
  }
  if (snprintf_s(out, size, size - 1, format, local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                 local.tm_hour, local.tm_min, local.tm_sec) < 0) {
    out[0] = '\0';
  }
}

int Tavocat::PollOneNode(const TavocatInputNodeSetT* node, bool last) {
  const char* dataPath = node->dataPath;
  if (dataPath != nullptr &&
      (StartsWith(dataPath, kDateTimeNode) || StartsWith(dataPath, kCurrentTimeNode))) {
    char stamp[kDateTimeSize];
    PollingDateTime(StartsWith(dataPath, kDateTimeNode) ? kDateTimeFormat : kCurrentTimeFormat,
                    stamp, sizeof(stamp));
    return LogcatWriteFixLenBuffer(stamp, node->width, false);
  }
  if (dataPath != nullptr) return NodeCatOnce(dataPath, node->width, last);
  if (node->alterDataPath != nullptr) {
    return NodeCatAlterOnce(node->alterDataPath, node->width, last);
  }
  return 0;
}

int Tavocat::PollNode() {
  for (;;) {
    size_t interval = group->pollingInterval;
    for (auto* node = static_cast<TavocatInputNodeSetT*>(group->inputSet); node != nullptr;
         node = node->next) {
      if (PollOneNode(node, node->next == nullptr) != 0) {
        fprintf(stderr, "node_cat write data fail!!\n");
      }
    }
    int result = WriteEmptyLine();
    if (interval == 0) return result;
    SleepWaiting(interval);
  }
}

void Tavocat::WriteTitleLine() {
  auto* node = static_cast<TavocatInputNodeSetT*>(group->inputSet);
  while (node != nullptr && node->title == nullptr && node->titlePath == nullptr) {
    node = node->next;
  }
  if (node == nullptr) return;
  WriteEmptyLine();
  for (; node != nullptr; node = node->next) {
    int result = 0;
    if (node->title != nullptr) {
      result = LogcatWriteFixLenBuffer(node->title, node->width, false);
    } else if (node->titlePath != nullptr) {
      result = NodeCatOnce(node->titlePath, node->width, true);
    }
    if (result != 0) fprintf(stderr, "write title fail!!\n");
  }
  WriteEmptyLine();
}

void Tavocat::openLogFilePost() {
  if (group != nullptr && (group->style == POLL_NODE || group->style == COND_TRIGGER)) {
    WriteTitleLine();
  }
}

int Tavocat::WriteEmptyLine() { return LogcatWrite("\n", 1, true); }

void Tavocat::PollCmd() {
  for (;;) {
    for (auto* cmd = static_cast<TavocatInputCmdSetT*>(group->inputSet);
         cmd != nullptr && cmd->command != nullptr; cmd = cmd->next) {
      if (SystemCmdCat(cmd->command) != 0) fprintf(stderr, "SystemCmdCat write data fail!!\n");
    }
    SleepWaiting(group->pollingInterval);
  }
}

void Tavocat::CondTrigger() {
  if (group->condIndex != 0) {
    fprintf(stderr, "invalid index!!\n");
    return;
  }
  HandleChargerPluginout();
}

void Tavocat::HandleChargerPluginout() {
  for (;;) {
    if (IsChargerPluginout()) PollNode();
  }
}

bool Tavocat::IsChargerPluginout() const { return ChargerEventChanged(); }

bool Tavocat::IsChargerAction() {
  PollNode();
  return true;
}
