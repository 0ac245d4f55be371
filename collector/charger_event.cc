#include "collector/charger_event.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include "collector/wait_point.h"
#include "platform/root_path.h"

struct pollfd g_changePollefd;

namespace {

constexpr char kChargeEventNode[] = "/sys/class/qd_power/bq_bci/poll_charge_start_event";
constexpr char kChargerTypeNode[] = "/sys/class/qd_power/charger/charge_data/chargerType";
constexpr int kNoCharger = 5;
constexpr int kUnknownType = -1;
// Between failed tries at the event node, so a node that is missing, cannot
// be seeked or read, or wakes without an event is waited on, never spun on.
constexpr unsigned kRetrySeconds = 1;

int chargeEventFd = -1;
bool chargeEventOpen = false;
bool chargerPlugged = false;

// Non-blocking, so a FIFO planted at a node cannot hold the thread in open.
int OpenNode(const platform::DevicePath& path) {
  return open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
}

void PauseBeforeRetry() { WaitPoint::Sleep(kRetrySeconds); }

bool OpenChargeEvent() {
  if (chargeEventOpen) return true;
  chargeEventFd = OpenNode(platform::ResolvePath(kChargeEventNode));
  if (chargeEventFd < 0) {
    PauseBeforeRetry();
    return false;
  }
  chargeEventOpen = true;
  g_changePollefd.fd = chargeEventFd;
  g_changePollefd.events = POLLPRI | POLLERR;
  return true;
}

// The node is opened afresh after the pause: it may have been replaced.
void DropChargeEvent() {
  close(chargeEventFd);
  chargeEventFd = -1;
  chargeEventOpen = false;
  g_changePollefd.fd = -1;
  PauseBeforeRetry();
}

}  // namespace

bool ChargerEventChanged() {
  if (!OpenChargeEvent()) return false;
  if (lseek(chargeEventFd, 0, SEEK_SET) < 0) {
    DropChargeEvent();
    return false;
  }
  int ready;
  {
    WaitPoint wait;
    ready = poll(&g_changePollefd, 1, -1);
  }
  if (ready > 0 && (g_changePollefd.revents & POLLPRI) != 0) {
    // Reading clears the event; what it says is not needed.
    char event[8];
    if (read(chargeEventFd, event, sizeof(event) - 1) < 0 && errno != EAGAIN && errno != EINTR) {
      DropChargeEvent();
      return false;
    }
  } else if (ready >= 0 || errno != EINTR) {
    // Woken by an error or hang-up alone: no event, and the next poll
    // would wake at once again.
    PauseBeforeRetry();
  }
  return ChargerTypeChanged();
}

bool ChargerTypeChanged() {
  int fd = OpenNode(platform::ResolvePath(kChargerTypeNode));
  if (fd < 0) return false;
  char text[16] = {0};
  ssize_t n = read(fd, text, sizeof(text) - 1);
  close(fd);
  if (n < 0) return false;
  int type = atoi(text);
  if (type == kUnknownType) return false;
  bool plugged = type != kNoCharger;
  if (plugged == chargerPlugged) return false;
  chargerPlugged = plugged;
  return true;
}
