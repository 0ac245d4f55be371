#include "platform/log_wake.h"

#include <limits.h>

#include "platform/log_signal.h"
#include "platform/log_store_dir.h"

namespace platform {

void WakeLogReaders() {
  char dir[PATH_MAX];
  StoreSignal signal;
  if (LogStoreDir(dir, sizeof(dir)) && signal.Open(dir)) signal.NotifyAll();
}

}  // namespace platform
