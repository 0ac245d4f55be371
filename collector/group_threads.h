#ifndef MORVOCAT_COLLECTOR_GROUP_THREADS_H_
#define MORVOCAT_COLLECTOR_GROUP_THREADS_H_

// The lock and condition that the group threads, the collector's main thread
// and its teardown share, so that exactly one of the last two joins each
// group thread and a group is never destroyed while its thread runs.

#include <time.h>

#include <atomic>

namespace GroupThreads {

void Lock();
void Unlock();
// With the lock held: waits until some group thread has ended.
void WaitForEnd();
// The same, but gives up at deadline (CLOCK_MONOTONIC); false once it has
// passed.
bool WaitForEndUntil(const struct timespec& deadline);
// Called by a group thread as it ends: sets *ended under the lock and wakes
// the waiters. The flag is atomic as well, since a thread cancelled at a wait
// unwinds to here.
void MarkEnded(std::atomic<bool>* ended);

}  // namespace GroupThreads

#endif  // MORVOCAT_COLLECTOR_GROUP_THREADS_H_
