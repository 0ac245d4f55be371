#include <string.h>

#include "platform/log_format.h"

namespace {

// Indexed by log id.
const char* const kBufferNames[LOG_ID_MAX] = {
    "morvo_main",  "morvo_radio", "morvo_events",   "morvo_system",
    "morvo_crash", "morvo_stats", "morvo_security", "morvo_kernel",
};

}  // namespace

extern "C" {

log_id_t qdlogging_name_to_log_id(const char* name) {
  if (name == nullptr) return LOG_ID_MAX;
  for (int id = LOG_ID_MIN; id < LOG_ID_MAX; ++id) {
    if (strcmp(name, kBufferNames[id]) == 0) return static_cast<log_id_t>(id);
  }
  return LOG_ID_MAX;
}

const char* qdlogging_log_id_to_name(log_id_t id) {
  if (id < LOG_ID_MIN || id >= LOG_ID_MAX) return "";
  return kBufferNames[id];
}

}  // extern "C"
