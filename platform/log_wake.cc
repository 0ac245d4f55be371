#include "platform/log_wake.h"

#include "platform/log_signal.h"
#include "platform/log_store_dir.h"

namespace platform {

void WakeLogReaders() {
  DevicePath dir = LogStoreDir();
  StoreSignal signal;
  if (dir.ok() && signal.Open(dir.c_str()) == 0) signal.NotifyAll();
}

}  // namespace platform
