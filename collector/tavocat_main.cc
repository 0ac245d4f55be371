#include "collector/tavocat_main.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>

#include "collector/group_threads.h"
#include "collector/tavocat.h"
#include "config/config_check.h"
#include "config/config_tree.h"
#include "config/parse_apart.h"
#include "platform/root_path.h"
#include "platform/safe_string.h"

using namespace TavoCommon;

extern char** environ;

namespace {

constexpr unsigned long kCollectorKind = 2;
constexpr size_t kNameSize = 256;
constexpr size_t kPathSize = 4096;
constexpr size_t kPidTextSize = 128;
constexpr char kRebootWatchdog[] = "/proc/reboot_watchdog";

struct RunningGroupNode {
  Tavocat* group;
  RunningGroupNode* next;
};

// Written by the main thread (and the teardown, under the group lock).
RunningGroupNode* runningGroups = nullptr;
TavocatInfoT* activeConfig = nullptr;
char** savedArgv = nullptr;
char* argAreaEnd = nullptr;
// Set by the teardown: the main thread neither joins nor destroys any more.
bool closing = false;

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
    auto* node = new (std::nothrow) RunningGroupNode{group, runningGroups};
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
  char path[kPathSize];
  if (!platform::ResolvePath(kRebootWatchdog, path, sizeof(path))) return;
  int fd = open(path, O_WRONLY);
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
  sigemptyset(set);
  sigaddset(set, SIGUSR2);
  return pthread_sigmask(SIG_BLOCK, set, nullptr) == 0;
}

void StartSignalThread(sigset_t* set) {
  pthread_t thread;
  if (pthread_create(&thread, nullptr, SignalThread, set) == 0) pthread_detach(thread);
}

// Joins each listed group, newest first, unless the teardown has begun.
void JoinGroups() {
  GroupThreads::Lock();
  for (RunningGroupNode* node = runningGroups; node != nullptr && node->group != nullptr;
       node = node->next) {
    while (!closing && !node->group->RunEnded()) GroupThreads::WaitForEnd();
    if (closing) break;
    node->group->Wait();
  }
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

}  // namespace

void ListLogBaseFree() {
  for (RunningGroupNode* node = runningGroups; node != nullptr; node = node->next) {
    if (node->group != nullptr) node->group->Cancel();
  }
  for (RunningGroupNode* node = runningGroups; node != nullptr; node = node->next) {
    while (node->group != nullptr && !node->group->RunEnded()) GroupThreads::WaitForEnd();
  }
  while (runningGroups != nullptr) {
    RunningGroupNode* node = runningGroups;
    if (node->group != nullptr) {
      node->group->Wait();
      node->group->FlushAll();
      delete node->group;
      node->group = nullptr;
    }
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
  TavocatInfoDeinit(activeConfig);
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
