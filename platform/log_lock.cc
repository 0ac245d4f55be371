#include "platform/log_lock.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/futex.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace platform {

namespace {

constexpr uint32_t kWaiters = 0x80000000u;
// No pid or tid reaches this: the kernel's largest pid_max.
constexpr uint32_t kTidLimit = 1u << 22;
// A writer holds the lock for microseconds unless it is preempted; one
// that holds it for this long is taken as stopped.
constexpr int64_t kLockWaitNs = 2 * 1000000000LL;

std::atomic<uint64_t> gLockWaits{0};
thread_local uint32_t tTid = 0;
thread_local uint64_t tStart = 0;
pthread_once_t gForkHookOnce = PTHREAD_ONCE_INIT;

// The child of a fork runs as the forking thread under a new id.
void ForgetSelf() {
  tTid = 0;
  tStart = 0;
}

void InstallForkHook() { pthread_atfork(nullptr, nullptr, ForgetSelf); }

struct TaskStat {
  bool found = false;
  char state = '?';
  uint64_t start = 0;
};

// The state and start time of a task, from its stat line in /proc (the
// real one: this is about processes of this host, not the device tree).
TaskStat ReadTaskStat(const char* path) {
  TaskStat stat;
  char line[1024];
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return stat;
  ssize_t got = read(fd, line, sizeof(line) - 1);
  close(fd);
  if (got <= 0) return stat;
  line[got] = '\0';
  // The command name may hold anything; the fields follow its last ')'.
  const char* p = strrchr(line, ')');
  if (p == nullptr || p[1] != ' ') return stat;
  p += 2;
  stat.state = *p;
  // Field 22, the start time, is the 19th after the state.
  for (int field = 0; field < 19 && p != nullptr; ++field) {
    p = strchr(p, ' ');
    if (p != nullptr) ++p;
  }
  if (p == nullptr) return stat;
  stat.start = strtoull(p, nullptr, 10);
  stat.found = true;
  return stat;
}

int64_t ClockNs(clockid_t clock) {
  struct timespec now;
  clock_gettime(clock, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

void FutexWait(std::atomic<uint32_t>* word, uint32_t value, int64_t ns) {
  struct timespec timeout;
  timeout.tv_sec = ns / 1000000000LL;
  timeout.tv_nsec = ns % 1000000000LL;
  // Not FUTEX_PRIVATE: the owner lives in another process.
  syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAIT, value, &timeout, nullptr, 0);
}

int Own(RingLockState* lock, uint32_t self) {
  lock->ownerTid.store(self, std::memory_order_relaxed);
  lock->ownerStart.store(tStart, std::memory_order_relaxed);
  lock->generation.fetch_add(1, std::memory_order_relaxed);
  return 0;
}

// True when the word's owner cannot be holding the lock any more.
bool OwnerGone(uint32_t owner, uint32_t self) { return owner == self || TaskGone(owner); }

// After the bounded wait: the owner is looked at closely once. An owner
// writes its record right after taking the word, so a word the record does
// not name is garbled; a zombie, or a thread younger than the record (a
// reused id), holds nothing. Without /proc the live task is taken as the
// owner: taking the lock from a stopped writer would let it write over
// records once it is resumed.
bool OwnerGoneForGood(const RingLockState& lock, uint32_t owner) {
  if (lock.ownerTid.load(std::memory_order_relaxed) != owner) return true;
  char path[64];
  snprintf(path, sizeof(path), "/proc/%u/stat", owner);
  TaskStat stat = ReadTaskStat(path);
  if (!stat.found) return false;
  if (stat.state == 'Z' || stat.state == 'X') return true;
  uint64_t start = lock.ownerStart.load(std::memory_order_relaxed);
  return start != 0 && start != stat.start;
}

void MarkStalled(RingLockState* lock, uint32_t owner, uint32_t generation) {
  if ((lock->word.load(std::memory_order_relaxed) & ~kWaiters) != owner ||
      lock->generation.load(std::memory_order_relaxed) != generation) {
    return;
  }
  lock->stalledGeneration.store(generation, std::memory_order_relaxed);
  lock->stalledTid.store(owner, std::memory_order_relaxed);
  lock->stalledSince.store(static_cast<uint64_t>(ClockNs(CLOCK_REALTIME)),
                           std::memory_order_relaxed);
}

bool MarkedStalled(const RingLockState& lock, uint32_t owner) {
  return lock.stalledTid.load(std::memory_order_relaxed) == owner &&
         lock.stalledGeneration.load(std::memory_order_relaxed) ==
             lock.generation.load(std::memory_order_relaxed);
}

bool Take(RingLockState* lock, uint32_t expected, uint32_t self) {
  return lock->word.compare_exchange_strong(expected, self, std::memory_order_acquire,
                                            std::memory_order_relaxed);
}

}  // namespace

uint32_t CallerTid() {
  if (tTid == 0) {
    pthread_once(&gForkHookOnce, InstallForkHook);
    tTid = static_cast<uint32_t>(syscall(SYS_gettid));
    tStart = ReadTaskStat("/proc/thread-self/stat").start;
  }
  return tTid;
}

bool TaskGone(uint32_t tid) {
  if (tid == 0 || tid >= kTidLimit) return true;
  return kill(static_cast<pid_t>(tid), 0) != 0 && errno == ESRCH;
}

int RingTryLock(RingLockState* lock) {
  uint32_t self = CallerTid();
  uint32_t word = lock->word.load(std::memory_order_relaxed);
  if (word == 0 || OwnerGone(word & ~kWaiters, self)) {
    if (Take(lock, word, self)) return Own(lock, self);
  }
  return -EBUSY;
}

int RingLock(RingLockState* lock) {
  uint32_t self = CallerTid();
  int64_t deadline = 0;
  for (;;) {
    uint32_t word = lock->word.load(std::memory_order_relaxed);
    uint32_t owner = word & ~kWaiters;
    if (word == 0 || OwnerGone(owner, self)) {
      if (Take(lock, word, self)) return Own(lock, self);
      continue;
    }
    uint32_t generation = lock->generation.load(std::memory_order_relaxed);
    if (MarkedStalled(*lock, owner)) return -EBUSY;
    int64_t now = ClockNs(CLOCK_MONOTONIC);
    if (deadline == 0) {
      deadline = now + kLockWaitNs;
      gLockWaits.fetch_add(1, std::memory_order_relaxed);
    } else if (now >= deadline) {
      if (OwnerGoneForGood(*lock, owner)) {
        if (Take(lock, word, self)) return Own(lock, self);
        continue;
      }
      MarkStalled(lock, owner, generation);
      return -EBUSY;
    }
    if ((word & kWaiters) == 0 &&
        !lock->word.compare_exchange_strong(word, word | kWaiters, std::memory_order_relaxed)) {
      continue;
    }
    FutexWait(&lock->word, word | kWaiters, deadline - now);
  }
}

void RingUnlock(RingLockState* lock) {
  uint32_t self = CallerTid();
  uint32_t word = lock->word.load(std::memory_order_relaxed);
  while ((word & ~kWaiters) == self) {
    if (lock->word.compare_exchange_weak(word, 0, std::memory_order_release,
                                         std::memory_order_relaxed)) {
      if ((word & kWaiters) != 0) {
        syscall(SYS_futex, reinterpret_cast<uint32_t*>(&lock->word), FUTEX_WAKE, INT_MAX, nullptr,
                nullptr, 0);
      }
      return;
    }
  }
}

bool RingLockSettled(const RingLockState& lock) {
  uint32_t owner = lock.word.load(std::memory_order_acquire) & ~kWaiters;
  return owner == 0 || TaskGone(owner) || MarkedStalled(lock, owner);
}

uint64_t LockWaits() { return gLockWaits.load(std::memory_order_relaxed); }

}  // namespace platform
