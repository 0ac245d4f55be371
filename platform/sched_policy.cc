#include "platform/sched_policy.h"

#include <errno.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int kIoprioWhoProcess = 1;  // a thread id is a "process" to ioprio
constexpr int kIoprioClassShift = 13;
constexpr int kIoprioClassBestEffort = 2;

}  // namespace

extern "C" {

int set_sched_policy(int tid, SchedPolicy policy) {
  int level;
  switch (policy) {
    case SP_BACKGROUND:
      level = 7;
      break;
    case SP_FOREGROUND:
      level = 4;
      break;
    default:
      return -EINVAL;
  }
  if (tid < 0) return -EINVAL;
  if (tid == 0) tid = static_cast<int>(syscall(SYS_gettid));
  int prio = (kIoprioClassBestEffort << kIoprioClassShift) | level;
  if (syscall(SYS_ioprio_set, kIoprioWhoProcess, tid, prio) != 0) return -errno;
  return 0;
}

}  // extern "C"
