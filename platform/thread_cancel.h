#ifndef MORVOCAT_PLATFORM_THREAD_CANCEL_H_
#define MORVOCAT_PLATFORM_THREAD_CANCEL_H_

// A stop flag that the blocking platform calls of one thread watch: a write
// to a full pipe and a blocking log read give up soon after it is set,
// instead of waiting for a reader or a record that may never come.

#include <atomic>

namespace platform {

// The calling thread's calls watch flag from now on; null stops watching.
void WatchCancelFlag(const std::atomic<bool>* flag);
bool CancelRequested();

// How long a watching call sleeps between two looks at its flag.
constexpr int kCancelPollMs = 20;

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_THREAD_CANCEL_H_
