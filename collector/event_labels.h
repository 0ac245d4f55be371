#ifndef MORVOCAT_COLLECTOR_EVENT_LABELS_H_
#define MORVOCAT_COLLECTOR_EVENT_LABELS_H_

// Lookups in the generated input-event label tables.

#include <stdint.h>

#include "collector/input_labels.h"

// The table of code names of an event type; null for a type without one.
const label* GetCodeLabel(int type);
// The table of value names for a type and code: key states for EV_KEY,
// tool types for ABS_MT_TOOL_TYPE; null otherwise.
const label* GetValueLabel(int type, int code);
// The first name whose value equals value; null for a null table or none.
const char* MonitorGetLabel(const label* table, int32_t value);

#endif  // MORVOCAT_COLLECTOR_EVENT_LABELS_H_
