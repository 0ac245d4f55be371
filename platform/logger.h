#ifndef MORVOCAT_PLATFORM_LOGGER_H_
#define MORVOCAT_PLATFORM_LOGGER_H_

// The log store: eight ring buffers that processes write and read with no
// daemon. Each buffer is a memory-mapped ring file in the store directory
// (root prefix + MORVO_LOG_STORE_DIR, or MORVOCAT_LOG_STORE when set),
// guarded by a cross-process lock that readers never take; records are
// whole or absent. Root and the store's owner write, the files' group
// reads (README: "The log store's trust model"); a record's pid, tid and
// uid are its writer's claim.

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

extern "C" {

#define MORVO_LOG_STORE_DIR "/dev/shm/morvo_log"
#define MORVO_LOG_STORE_ENV "MORVOCAT_LOG_STORE"

typedef enum log_id {
  LOG_ID_MIN = 0,
  LOG_ID_MAIN = 0,      // "morvo_main"
  LOG_ID_RADIO = 1,     // "morvo_radio"
  LOG_ID_EVENTS = 2,    // "morvo_events"
  LOG_ID_SYSTEM = 3,    // "morvo_system"
  LOG_ID_CRASH = 4,     // "morvo_crash"
  LOG_ID_STATS = 5,     // "morvo_stats"
  LOG_ID_SECURITY = 6,  // "morvo_security"
  LOG_ID_KERNEL = 7,    // "morvo_kernel"
  LOG_ID_MAX = 8,
} log_id_t;

// Priorities, as stored in the first payload byte.
typedef enum qd_LogPriority {
  QD_LOG_UNKNOWN = 0,
  QD_LOG_DEFAULT = 1,
  QD_LOG_VERBOSE = 2,
  QD_LOG_DEBUG = 3,
  QD_LOG_INFO = 4,
  QD_LOG_WARN = 5,
  QD_LOG_ERROR = 6,
  QD_LOG_FATAL = 7,
  QD_LOG_SILENT = 8,
} qd_LogPriority;

#define QD_LOGGER_ENTRY_MAX_LEN 5120
#define QD_LOGGER_ENTRY_MAX_PAYLOAD 4068
#define QD_LOGGER_DEFAULT_RING_SIZE (256 * 1024)

// Read modes for qd_logger_list_alloc.
#define QD_LOGGER_MODE_NONBLOCK 0x00000800
#define QD_LOGGER_MODE_WRAP 0x40000000
#define QD_LOGGER_WRAP_MAX_SECONDS 7200

// The 28-byte record header; the payload follows it: priority byte, tag,
// NUL, message, NUL.
struct qd_logger_entry {
  uint16_t len;       // payload length
  uint16_t hdr_size;  // sizeof(struct qd_logger_entry)
  int32_t pid;
  uint32_t tid;
  uint32_t sec;
  uint32_t nsec;
  uint32_t lid;  // log id, at offset 20
  uint32_t uid;
};

// A record as read: header and payload, plus one byte for a terminator.
struct qd_log_msg {
  union {
    unsigned char buf[QD_LOGGER_ENTRY_MAX_LEN + 1];
    struct qd_logger_entry entry;
  };
};

struct qd_logger_list;
struct qd_logger;

struct qd_logger_list* qd_logger_list_alloc(int mode, unsigned int tail, pid_t pid);
void qd_logger_list_free(struct qd_logger_list* list);
// Opens buffer id on the list; null on failure (bad id, unreadable store).
struct qd_logger* qd_logger_open(struct qd_logger_list* list, log_id_t id);
// Next record of the opened buffers in time order: its length, 0 at an
// unexpected end, a negated errno on failure, -EAGAIN when a non-blocking
// read is drained.
int qd_logger_list_read(struct qd_logger_list* list, struct qd_log_msg* msg);
int qd_logger_clear(struct qd_logger* logger);
long qd_logger_get_log_size(struct qd_logger* logger);
int qd_logger_set_log_size(struct qd_logger* logger, unsigned long size);
long qd_logger_get_log_readable_size(struct qd_logger* logger);

// The writer side: appends one record to buffer id, stamped with the
// caller's pid, tid, uid and the current time. Returns the payload bytes
// stored or a negated errno. An over-long message is cut to fit the payload.
int qd_log_write(int id, int priority, const char* tag, const char* message);

}  // extern "C"

#endif  // MORVOCAT_PLATFORM_LOGGER_H_
