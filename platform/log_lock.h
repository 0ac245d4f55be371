#ifndef MORVOCAT_PLATFORM_LOG_LOCK_H_
#define MORVOCAT_PLATFORM_LOG_LOCK_H_

// The writers' lock of a ring, kept in the ring file's header. It holds
// plain numbers only (no address of any process, unlike a C library mutex
// with its robust list), and every writer may scribble over it, so each
// value read from it is only a claim:
// - the word is 0 when free, else the owner's thread id (plus a flag for
//   sleepers on it);
// - a word that names no live thread (its owner was killed) or the caller
//   itself is taken over at once; after one bounded wait, so is a word the
//   owner record does not name (scribbled over), a zombie, or a thread
//   started after the owner record (a reused id). Positions in the ring
//   are each stored whole, so the ring is as the last record left it;
// - an owner that lives but holds the lock past one bounded wait (a
//   stopped writer) is marked stalled, with its generation and the time;
//   from then on every writer sees the mark and fails at once with -EBUSY
//   instead of waiting again, until the lock changes hands. The caller
//   keeps the record aside (LogRing's spill slots) for the next owner.
// Readers never take it.

#include <stdint.h>

#include <atomic>

namespace platform {

struct RingLockState {
  std::atomic<uint32_t> word;
  // Moved by every owner when it takes the lock.
  std::atomic<uint32_t> generation;
  std::atomic<uint32_t> ownerTid;
  // The "stalled since" mark: the owner and generation that outlasted a
  // bounded wait, and when (CLOCK_REALTIME nanoseconds).
  std::atomic<uint32_t> stalledTid;
  std::atomic<uint32_t> stalledGeneration;
  uint32_t reserved;
  // The owner thread's start time, in clock ticks since boot.
  std::atomic<uint64_t> ownerStart;
  std::atomic<uint64_t> stalledSince;
};

// 0 once the caller holds the lock; -EBUSY when a live owner outlasted the
// bounded wait now or before.
int RingLock(RingLockState* lock);
// As RingLock without any wait.
int RingTryLock(RingLockState* lock);
// Lets go of a lock the caller holds; a lock taken over meanwhile is left
// to its new owner.
void RingUnlock(RingLockState* lock);
// For readers: true when no writer is inside the ring at this moment, or
// the one inside is gone or marked stalled.
bool RingLockSettled(const RingLockState& lock);
// For readers: true when nobody holds the lock (the cheap first look).
inline bool RingLockFree(const RingLockState& lock) {
  return lock.word.load(std::memory_order_acquire) == 0;
}

// The calling thread's id, asked of the kernel once per thread.
uint32_t CallerTid();
// True when no task has the id tid (or no task could: 0 or beyond the
// largest pid).
bool TaskGone(uint32_t tid);

// Bounded waits this process has taken on ring locks (a test seam).
uint64_t LockWaits();

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_LOG_LOCK_H_
