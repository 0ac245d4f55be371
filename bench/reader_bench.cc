// The reader against the tools a user would otherwise pick, on the same
// records in the same run: writes a million records with the writer API,
// then times `morvocat -d` against `cat` of the same text, and
// `morvocat -d -f` (compressed, indexed files) against `gzip -1` of it.
//
// Notes from profiling: a write() to /dev/null costs about 1.3 us on this
// class of machine, twenty times the formatting of a line (about 60 ns), so
// a dump writes its lines in 64 KiB blocks; one write per line held -d at
// about 750k lines/s.

#include <fcntl.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "bench/bench_row.h"
#include "platform/logger.h"

namespace {

double Now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

struct Timing {
  double seconds = 0;
  long maxRssKiB = 0;
};

// Runs argv with standard input from inPath and standard output to outPath.
Timing TimeCommand(const char* const* argv, const char* inPath, const char* outPath) {
  double start = Now();
  pid_t pid = fork();
  if (pid == 0) {
    int in = open(inPath, O_RDONLY);
    int out = open(outPath, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    execv(argv[0], const_cast<char* const*>(argv));
    _exit(127);
  }
  int status = 0;
  rusage usage;
  wait4(pid, &status, 0, &usage);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    fprintf(stderr, "%s failed\n", argv[0]);
    exit(1);
  }
  return Timing{Now() - start, usage.ru_maxrss};
}

}  // namespace

int main(int argc, char** argv) {
  std::string morvocat = argc > 1 ? argv[1] : "build-release/tools/morvocat";
  long records = argc > 2 ? atol(argv[2]) : 1000000;
  char storeTemplate[] = "/tmp/morvo_bench_XXXXXX";
  std::string dir = mkdtemp(storeTemplate);
  setenv("MORVOCAT_LOG_STORE", dir.c_str(), 1);

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

  std::string text = dir + "/formatted.txt";
  const char* dump[] = {morvocat.c_str(), "-d", "-b", "morvo_main", nullptr};
  TimeCommand(dump, "/dev/null", text.c_str());
  Timing reader = TimeCommand(dump, "/dev/null", "/dev/null");
  const char* cat[] = {"/bin/cat", text.c_str(), nullptr};
  Timing catRun = TimeCommand(cat, "/dev/null", "/dev/null");
  std::string base = dir + "/out/x";
  const char* toFiles[] = {morvocat.c_str(), "-d", "-b", "morvo_main", "-f", base.c_str(), nullptr};
  Timing files = TimeCommand(toFiles, "/dev/null", "/dev/null");
  const char* gzip[] = {"/bin/gzip", "-1", nullptr};
  Timing gzipRun = TimeCommand(gzip, text.c_str(), "/dev/null");

  morvobench::PrintRow("writer records (qd_log_write)", "records/s", records / writeSeconds, NAN,
                       NAN, ">= 1M/s");
  morvobench::PrintRow("reader -d vs cat", "lines/s", records / reader.seconds,
                       records / catRun.seconds, catRun.seconds / reader.seconds, ">= 1.5M lines/s");
  morvobench::PrintRow("reader -d -f vs gzip -1", "lines/s", records / files.seconds,
                       records / gzipRun.seconds, gzipRun.seconds / files.seconds, ">= 0.8x");
  morvobench::PrintRow("reader resident memory (-d)", "KiB", reader.maxRssKiB, catRun.maxRssKiB,
                       static_cast<double>(catRun.maxRssKiB) / reader.maxRssKiB, "-");
  std::string cleanup = "rm -rf '" + dir + "'";
  return system(cleanup.c_str()) == 0 ? 0 : 1;
}
