#ifndef MORVOCAT_PLATFORM_LOG_WAKE_H_
#define MORVOCAT_PLATFORM_LOG_WAKE_H_

namespace platform {

// Wakes every reader blocked in the log store. A reader whose thread's
// cancel flag is set then returns -EINTR; the others sleep again.
void WakeLogReaders();

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_LOG_WAKE_H_
