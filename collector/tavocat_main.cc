#include "collector/tavocat_main.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <new>

#include "collector/group_threads.h"
#include "collector/tavocat.h"
#include "config/config_check.h"
#include "config/config_tree.h"
#include "config/parse_apart.h"
#include "platform/root_path.h"
#include "platform/safe_string.h"

using TavoCommon::TavocatGroupT;
using TavoCommon::TavocatInfoT;

extern char** environ;

namespace {

constexpr unsigned long kCollectorKind = 2;
constexpr size_t kNameSize = 256;
constexpr size_t kPidTextSize = 128;
constexpr char kRebootWatchdog[] = "/proc/reboot_watchdog";
// How long the teardown waits for the groups' threads to stop at their next
// wait; a thread held past it (in a source's read) does not hold the exit.
constexpr long kGroupStopMillis = 1000;

struct RunningGroupNode {
  Tavocat* group;
  RunningGroupNode* next;
  // The group's configuration, to name it when its thread ends.
  const TavocatGroupT* config;
};

// Written by the main thread (and the teardown, under the group lock).
RunningGroupNode* runningGroups = nullptr;
TavocatInfoT* activeConfig = nullptr;
char** savedArgv = nullptr;
char* argAreaEnd = nullptr;
// Set by the teardown: the main thread neither joins nor destroys any more.
bool closing = false;
// Groups whose thread the teardown left running: their objects and the
// configuration they read are not freed, the process ends under them.
int groupsLeftRunning = 0;

void StartGroups(const TavocatInfoT& info) {
  for (TavocatGroupT* config = info.groups; config != nullptr; config = config->next) {
    auto* group = new (std::nothrow) Tavocat(config, info.writeMode);
    if (group == nullptr) {
      fprintf(stderr, "Main:tavocat [%s] new failed!\n", info.name);
      continue;
    }
    if (!group->Start()) {
      fprintf(stderr, "Main:tavocat [%s] start failed!\n", info.name);
      delete group;
      continue;
    }
    auto* node = new (std::nothrow) RunningGroupNode{group, runningGroups, config};
    if (node == nullptr) {
      // Its thread runs: the group lives on, unlisted, with the process.
      fprintf(stderr, "Main:tavocat [%s] runs unlisted!\n", info.name);
      continue;
    }
    runningGroups = node;
  }
}

void RenameProcess(const char* name, int argc, char** argv) {
  if (argc < 1 || argv == nullptr || argv[0] == nullptr) return;
  int envCount = 0;
  while (environ != nullptr && environ[envCount] != nullptr) ++envCount;
  const char* last = envCount == 0 ? argv[argc - 1] : environ[envCount - 1];
  savedArgv = argv;
  argAreaEnd = const_cast<char*>(last) + strlen(last);
  if (name == nullptr) return;
  size_t room = static_cast<size_t>(argAreaEnd - argv[0]);
  if (room == 0 || strlen(name) + 2 >= room) return;
  if (strcpy_s(argv[0], room - 1, name) != 0) return;
  prctl(PR_SET_NAME, name, 0, 0, 0);
}

void TellWatchdog() {
  platform::DevicePath path = platform::ResolvePath(kRebootWatchdog);
  // Non-blocking: a FIFO at the node must not hold the main thread.
  int fd = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return;
  char pid[kPidTextSize];
  int length = snprintf_s(pid, sizeof(pid), sizeof(pid) - 1, "%d", static_cast<int>(getpid()));
  if (length < 0 || write(fd, pid, static_cast<size_t>(length)) != length) {
    fprintf(stderr, "Main:tavocat write to REBOOT_WATCHDOG failed!\n");
  }
  close(fd);
}

void* SignalThread(void* set) {
  int signo = 0;
  while (sigwait(static_cast<sigset_t*>(set), &signo) != 0) {
  }
  CloseTavocats(signo);
  return nullptr;
}

// SIGUSR2 is blocked in every thread of the collector and taken by one
// thread of its own, so the teardown runs outside signal context.
bool BlockSigusr2(sigset_t* set) {
  // A file-size limit must be a refused write the sink waits out, not the
  // signal that would end the whole collector.
  signal(SIGXFSZ, SIG_IGN);
  sigemptyset(set);
  sigaddset(set, SIGUSR2);
  return pthread_sigmask(SIG_BLOCK, set, nullptr) == 0;
}

void StartSignalThread(sigset_t* set) {
  pthread_t thread;
  if (pthread_create(&thread, nullptr, SignalThread, set) == 0) pthread_detach(thread);
}

const char* EndReason(TavoCommon::LogStyle style) {
  switch (style) {
    case TavoCommon::MONITOR_NODE:
      return "its source could not be read any more";
    case TavoCommon::MONITOR_DIR:
      return "its input monitor could not start";
    case TavoCommon::POLL_NODE:
      return "its polling is done";
    case TavoCommon::COND_TRIGGER:
      return "its charger trigger is not valid";
    default:
      return "its thread returned";
  }
}

// No group ends silently: one line for each, as its thread is joined.
void ReportEnd(const RunningGroupNode& node) {
  const char* name = activeConfig != nullptr ? activeConfig->name : nullptr;
  const char* output = node.config->outputFilePath;
  fprintf(stderr, "Main:tavocat [%s] group %s ended: %s\n", name != nullptr ? name : "",
          output != nullptr ? output : "(standard output)", EndReason(node.config->style));
}

// Joins and reports the listed groups whose thread has ended; true while
// some listed group still runs.
bool JoinEnded() {
  bool running = false;
  for (RunningGroupNode* node = runningGroups; node != nullptr && node->group != nullptr;
       node = node->next) {
    if (!node->group->HasThread()) continue;
    if (!node->group->RunEnded()) {
      running = true;
      continue;
    }
    node->group->Wait();
    ReportEnd(*node);
  }
  return running;
}

// Waits until every listed group has ended, unless the teardown begins.
void JoinGroups() {
  GroupThreads::Lock();
  while (!closing && JoinEnded()) GroupThreads::WaitForEnd();
  GroupThreads::Unlock();
}

void TearDown(TavocatInfoT* info) {
  GroupThreads::Lock();
  if (!closing) {
    ListLogBaseFree();
    TavoConfig::FreeConfigFile(info);
  }
  GroupThreads::Unlock();
}

int PauseForever() {
  for (;;) {
    if (pause() != -1 || errno != EINTR) return 0;
  }
}

// With the lock held: waits for the listed groups' threads to end, for at
// most kGroupStopMillis in all.
void WaitForGroupEnds() {
  struct timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += kGroupStopMillis / 1000;
  deadline.tv_nsec += (kGroupStopMillis % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  for (RunningGroupNode* node = runningGroups; node != nullptr; node = node->next) {
    while (node->group != nullptr && !node->group->RunEnded()) {
      if (!GroupThreads::WaitForEndUntil(deadline)) return;
    }
  }
}

// A group whose thread ended is flushed and destroyed. One still running is
// left to the process's end; only its memory-mapped writer is flushed, which
// is safe beside a write.
void FreeGroup(Tavocat* group) {
  if (group->RunEnded()) {
    group->Wait();
    group->FlushAll();
    delete group;
    return;
  }
  if (group->IsMMapWrite()) group->MmapClose();
  ++groupsLeftRunning;
}

}  // namespace

void ListLogBaseFree() {
  for (RunningGroupNode* node = runningGroups; node != nullptr; node = node->next) {
    if (node->group != nullptr) node->group->Cancel();
  }
  WaitForGroupEnds();
  while (runningGroups != nullptr) {
    RunningGroupNode* node = runningGroups;
    if (node->group != nullptr) FreeGroup(node->group);
    node->group = nullptr;
    runningGroups = node->next;
    delete node;
  }
}

void TavocatInfoDeinit(TavocatInfoT* info) {
  if (info != nullptr) TavoConfig::FreeConfigFile(info);
}

void CloseTavocats(int signo) {
  GroupThreads::Lock();
  closing = true;
  ListLogBaseFree();
  if (groupsLeftRunning == 0) TavocatInfoDeinit(activeConfig);
  _exit(signo);
}

int TavocatMain(unsigned long kind, const char* name, int argc, char** argv) {
  if (getuid() == 0) umask(022);
  if (name == nullptr) return -1;
  if (kind != kCollectorKind) {
    fprintf(stderr, "Main:Unrecognized Option\n");
    return -1;
  }
  char collectorName[kNameSize];
  memset_s(collectorName, sizeof(collectorName), 0, sizeof(collectorName));
  if (strcpy_s(collectorName, sizeof(collectorName), name) != 0) {
    fprintf(stderr, "Main:tavocatName strncpy_sp error!");
    return -1;
  }
  TavocatInfoT info;
  memset_s(&info, sizeof(info), 0, sizeof(info));
  activeConfig = &info;
  if (TavoConfig::ParseConfigFileApart(collectorName, &info) != 0) {
    fprintf(stderr, "Main:parse_config_file failed, exit!!\n");
    TavoConfig::FreeConfigFile(&info);
    return PauseForever();
  }
  if (!TavoConfig::IsRunnableConfig(info)) {
    TavoConfig::FreeConfigFile(&info);
    activeConfig = nullptr;
    return -1;
  }
  static sigset_t sigusr2;
  BlockSigusr2(&sigusr2);
  StartGroups(info);
  RenameProcess(info.name, argc, argv);
  StartSignalThread(&sigusr2);
  TellWatchdog();
  JoinGroups();
  TearDown(&info);
  return PauseForever();
}
