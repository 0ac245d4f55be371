// morvo-log: writes records into the log store. The message is the
// arguments joined by spaces; without any, every line of standard input is
// one record.

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "platform/log_format.h"
#include "platform/logger.h"

namespace {

void Usage(FILE* to) {
  fprintf(to,
          "usage: morvo-log [-b BUFFER] [-p PRIORITY] [-t TAG] [MESSAGE...]\n"
          "  -b BUFFER    buffer name (default morvo_main)\n"
          "  -p PRIORITY  one of V D I W E F, either case (default I)\n"
          "  -t TAG       tag (default morvo-log)\n"
          "Without MESSAGE every line of standard input is written as one record.\n");
}

int PriorityOf(const char* letter) {
  static const char kLetters[] = "VDIWEF";
  if (letter[0] == '\0' || letter[1] != '\0') return -1;
  const char* found = strchr(kLetters, toupper(static_cast<unsigned char>(letter[0])));
  if (found == nullptr) return -1;
  return QD_LOG_VERBOSE + static_cast<int>(found - kLetters);
}

bool Report(int rc) {
  if (rc >= 0) return true;
  fprintf(stderr, "morvo-log: write failed: %s\n", strerror(-rc));
  return false;
}

int WriteLines(log_id_t id, int priority, const char* tag) {
  char* line = nullptr;
  size_t room = 0;
  ssize_t length;
  int status = 0;
  while ((length = getline(&line, &room, stdin)) >= 0) {
    if (length > 0 && line[length - 1] == '\n') line[length - 1] = '\0';
    if (!Report(qd_log_write(id, priority, tag, line))) {
      status = 1;
      break;
    }
  }
  free(line);
  return status;
}

// The words joined by single spaces, in a block the caller frees.
char* JoinArguments(int count, char** words) {
  size_t total = 1;
  for (int i = 0; i < count; ++i) total += strlen(words[i]) + 1;
  char* joined = static_cast<char*>(malloc(total));
  if (joined == nullptr) return nullptr;
  char* end = joined;
  for (int i = 0; i < count; ++i) {
    if (i > 0) *end++ = ' ';
    size_t length = strlen(words[i]);
    memcpy(end, words[i], length);
    end += length;
  }
  *end = '\0';
  return joined;
}

}  // namespace

int main(int argc, char** argv) {
  log_id_t id = LOG_ID_MAIN;
  int priority = QD_LOG_INFO;
  const char* tag = "morvo-log";
  int option;
  while ((option = getopt(argc, argv, "b:p:t:h")) != -1) {
    switch (option) {
      case 'b':
        id = qdlogging_name_to_log_id(optarg);
        if (id == LOG_ID_MAX) {
          fprintf(stderr, "morvo-log: unknown buffer %s\n", optarg);
          Usage(stderr);
          return 1;
        }
        break;
      case 'p':
        priority = PriorityOf(optarg);
        if (priority < 0) {
          fprintf(stderr, "morvo-log: unknown priority %s\n", optarg);
          Usage(stderr);
          return 1;
        }
        break;
      case 't':
        tag = optarg;
        break;
      case 'h':
        Usage(stdout);
        return 0;
      default:
        Usage(stderr);
        return 1;
    }
  }
  if (optind == argc) return WriteLines(id, priority, tag);
  char* message = JoinArguments(argc - optind, argv + optind);
  if (message == nullptr) {
    fprintf(stderr, "morvo-log: out of memory\n");
    return 1;
  }
  int status = Report(qd_log_write(id, priority, tag, message)) ? 0 : 1;
  free(message);
  return status;
}
