#ifndef MORVOCAT_READER_LOGCAT_CONTEXT_H_
#define MORVOCAT_READER_LOGCAT_CONTEXT_H_

// The reader's per-context record and the helpers every step of a run uses.

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include <atomic>
#include <string>
#include <vector>

#include "morvocat/morvocat.h"
#include "platform/log_format.h"
#include "platform/logger.h"

// One selected log buffer.
struct LogDevice {
  const char* name = nullptr;  // the platform's constant, not owned
  qd_logger* logger = nullptr;
  qd_logger_list* loggerList = nullptr;  // shared by every record of a run
  bool printed = false;                  // its divider was written
  LogDevice* next = nullptr;
};

struct android_logcat_context_internal {
  std::atomic<int> exitStatus{0};
  int argCount = 0;
  char** argVector = nullptr;
  char** envVector = nullptr;
  std::vector<std::string> argCopies;  // thread run only
  std::vector<char*> argPointers;
  std::vector<std::string> envCopies;
  std::vector<char*> envPointers;
  int output_fd = -1;
  int error_fd = -1;
  int pipeFds[2] = {-1, -1};
  // The thread run's pipe: a read end the host closed itself may have been
  // reused for another file by the time the context is destroyed.
  ino_t pipeInode = 0;
  FILE* outputStream = nullptr;
  FILE* errorStream = nullptr;
  pthread_t runThread{};
  std::atomic<bool> stopRequested{false};
  // A context that never ran counts as finished, so it can be destroyed.
  std::atomic<bool> runFinished{true};
  bool stderrToNull = false;
  bool stderrToStdout = false;
  QdLogFormat* logFormat = nullptr;
  const char* outputFileName = nullptr;  // borrowed from argVector
  uint64_t rotateKBytes = 0;
  uint64_t rotateCount = 4;
  uint64_t compressCount = 0;
  uint64_t outByteCount = 0;
  int deviceCount = 0;
  LogDevice* devices = nullptr;
  uint64_t printCount = 0;
  // This run holds the process's one output-file slot.
  bool writesFiles = false;
};

namespace qdlogging {

// Marks a message as a usage error; it adds no text.
enum HelpType { HELP_NONE, HELP_USAGE };

// Sets the exit status to 1, prints the message to the error stream when
// there is one, and requests the stop.
void LogcatPanic(android_logcat_context_internal* ctx, HelpType help, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Prints a message to the error stream, when there is one, at once.
void PrintError(android_logcat_context_internal* ctx, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

bool StopRequested(const android_logcat_context_internal* ctx);

// Unlinks and deletes every selected buffer record and frees the logger list
// they share.
void FreeDevices(android_logcat_context_internal* ctx);

}  // namespace qdlogging

#endif  // MORVOCAT_READER_LOGCAT_CONTEXT_H_
