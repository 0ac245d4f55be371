// The reader's throughput against the floor any reader pays: writes a
// million records with the writer API, then times `morvocat -d` over them
// and `cat` of the same text, each to /dev/null, in the same run.
//
// Notes from profiling: on this class of machine a write() to /dev/null
// costs about 1.3 us, so one write per printed line (the reader's output
// descriptor path) bounds the rate near 700k lines/s whatever the formatting
// costs; formatting itself is about 60 ns per line.

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "platform/logger.h"

namespace {

double Now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

// Runs argv with standard output sent to outPath; returns the seconds taken.
double TimeCommand(const char* const* argv, const char* outPath) {
  double start = Now();
  pid_t pid = fork();
  if (pid == 0) {
    int fd = open(outPath, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(fd, STDOUT_FILENO);
    execv(argv[0], const_cast<char* const*>(argv));
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    fprintf(stderr, "%s failed\n", argv[0]);
    exit(1);
  }
  return Now() - start;
}

}  // namespace

int main(int argc, char** argv) {
  long records = argc > 2 ? atol(argv[2]) : 1000000;
  std::string morvocat = argc > 1 ? argv[1] : "build-release/tools/morvocat";
  char storeTemplate[] = "/tmp/morvo_bench_XXXXXX";
  std::string store = mkdtemp(storeTemplate);
  setenv("MORVOCAT_LOG_STORE", store.c_str(), 1);

  qd_logger_list* list = qd_logger_list_alloc(QD_LOGGER_MODE_NONBLOCK, 0, 0);
  qd_logger* main = qd_logger_open(list, LOG_ID_MAIN);
  if (main == nullptr || qd_logger_set_log_size(main, 256ul << 20) != 0) {
    fprintf(stderr, "cannot size the ring\n");
    return 1;
  }
  qd_logger_list_free(list);

  double start = Now();
  for (long i = 0; i < records; ++i) {
    char msg[96];
    snprintf(msg, sizeof(msg), "benchmark record %ld with some ordinary text after it", i);
    qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "bench", msg);
  }
  double writeSeconds = Now() - start;

  std::string text = store + "/formatted.txt";
  const char* makeText[] = {morvocat.c_str(), "-d", "-b", "morvo_main", nullptr};
  TimeCommand(makeText, text.c_str());
  const char* reader[] = {morvocat.c_str(), "-d", "-b", "morvo_main", nullptr};
  double readSeconds = TimeCommand(reader, "/dev/null");
  const char* cat[] = {"/bin/cat", text.c_str(), nullptr};
  double catSeconds = TimeCommand(cat, "/dev/null");

  printf("%-34s %14s %14s %8s\n", "figure", "ours", "reference", "ratio");
  printf("%-34s %14.0f %14s %8s\n", "writer records/s (qd_log_write)", records / writeSeconds,
         "-", "-");
  printf("%-34s %14.0f %14.0f %8.2f\n", "reader -d lines/s vs cat", records / readSeconds,
         records / catSeconds, catSeconds / readSeconds);
  std::string cleanup = "rm -rf '" + store + "'";
  return system(cleanup.c_str()) == 0 ? 0 : 1;
}
