#ifndef MORVOCAT_COLLECTOR_CHARGER_EVENT_H_
#define MORVOCAT_COLLECTOR_CHARGER_EVENT_H_

// The charger wait shared by the process: it blocks until the charge event
// node reports an event and then tells whether the charger was plugged in or
// pulled out since the last report. Only one trigger group may use it.

#include <poll.h>

extern "C" struct pollfd g_changePollefd;

// Waits for the next charge event; true when the charger's presence changed.
bool ChargerEventChanged();
// Reads the charger type node; true when its value changes the presence
// remembered from the last report (5 means no charger, -1 is ignored).
bool ChargerTypeChanged();

#endif  // MORVOCAT_COLLECTOR_CHARGER_EVENT_H_
