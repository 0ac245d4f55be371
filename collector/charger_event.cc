#include "collector/charger_event.h"

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
// Between failed opens of the event node, so a missing node is no busy loop.
constexpr unsigned kOpenRetrySeconds = 1;
constexpr size_t kPathSize = 4096;

int chargeEventFd = -1;
bool chargeEventOpen = false;
bool chargerPlugged = false;

int OpenNode(const char* devicePath) {
  char path[kPathSize];
  if (!platform::ResolvePath(devicePath, path, sizeof(path))) return -1;
  return open(path, O_RDONLY);
}

bool OpenChargeEvent() {
  if (chargeEventOpen) return true;
  chargeEventFd = OpenNode(kChargeEventNode);
  if (chargeEventFd < 0) {
    WaitPoint wait;
    sleep(kOpenRetrySeconds);
    return false;
  }
  chargeEventOpen = true;
  g_changePollefd.fd = chargeEventFd;
  g_changePollefd.events = POLLPRI | POLLERR;
  return true;
}

}  // namespace

bool ChargerEventChanged() {
  if (!OpenChargeEvent()) return false;
  if (lseek(chargeEventFd, 0, SEEK_SET) < 0) return false;
  int ready;
  {
    WaitPoint wait;
    ready = poll(&g_changePollefd, 1, -1);
  }
  if (ready != 0 && (g_changePollefd.revents & POLLPRI) != 0) {
    // Reading clears the event; what it says is not needed.
    char event[8];
    ssize_t ignored = read(chargeEventFd, event, sizeof(event) - 1);
    (void)ignored;
  }
  return ChargerTypeChanged();
}

bool ChargerTypeChanged() {
  int fd = OpenNode(kChargerTypeNode);
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
