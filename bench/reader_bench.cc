// The reader against the tools a user would otherwise pick, on the same
// records in the same run: writes a million records with the writer API
// into morvo_main, then times `morvocat -d` over the default buffers (main
// and the quiet system and crash) against `cat` of the same text and
// against `-d -b morvo_main`, `-d -f` against `gzip -1`, and the reader
// against journalctl on a journal file made from the same records by
// systemd-journal-remote: the whole dump, one tag, and the last 100 lines.
//
// Times are CPU time (user + system) of the child, the best of a few runs
// taken in turn, as other work shares the machine; a tail is timed by the
// clock, start-up included. Memory is sampled from /proc/PID/smaps_rollup
// while the child runs: resident counts the mapped ring pages a reader
// touched, private what the process itself holds.
//
// Notes from profiling: a write() to /dev/null costs about 1.3 us on this
// class of machine, twenty times the formatting of a line (about 60 ns), so
// a dump writes its lines in 64 KiB blocks; one write per line held -d at
// about 750k lines/s.

#include <fcntl.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench/bench_row.h"
#include "bench/bench_spawn.h"
#include "platform/logger.h"

namespace {

constexpr int kRounds = 5;
constexpr int kTags = 4;
constexpr char kJournalRemote[] = "/lib/systemd/systemd-journal-remote";
constexpr char kJournalctl[] = "/usr/bin/journalctl";

double Now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

double Seconds(const timeval& tv) { return tv.tv_sec + tv.tv_usec / 1e6; }

struct Timing {
  double cpu = INFINITY;   // user + system seconds
  double wall = INFINITY;  // seconds
  double rssKiB = 0;       // peak resident
  double privateKiB = 0;   // peak private (clean + dirty)
};

// Peak Rss and private memory of pid so far, from its smaps_rollup.
void SampleMemory(pid_t pid, Timing* t) {
  char path[64];
  snprintf(path, sizeof(path), "/proc/%d/smaps_rollup", pid);
  FILE* f = fopen(path, "r");
  if (f == nullptr) return;
  char line[256];
  double rss = 0, priv = 0;
  while (fgets(line, sizeof(line), f) != nullptr) {
    double kib = 0;
    if (sscanf(line, "Rss: %lf", &kib) == 1) rss = kib;
    if (sscanf(line, "Private_Clean: %lf", &kib) == 1) priv += kib;
    if (sscanf(line, "Private_Dirty: %lf", &kib) == 1) priv += kib;
  }
  fclose(f);
  t->rssKiB = std::max(t->rssKiB, rss);
  t->privateKiB = std::max(t->privateKiB, priv);
}

// Runs argv with standard input from inPath and standard output to outPath;
// with sample, polls its memory until it ends.
Timing RunOnce(const std::vector<std::string>& args, const char* inPath, const char* outPath,
               bool sample) {
  double start = Now();
  pid_t pid = morvobench::Spawn(args, inPath, outPath);
  Timing t;
  int status = 0;
  rusage usage;
  while (sample && wait4(pid, &status, WNOHANG, &usage) == 0) {
    SampleMemory(pid, &t);
    usleep(200);
  }
  if (!sample) wait4(pid, &status, 0, &usage);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    fprintf(stderr, "%s failed\n", args[0].c_str());
    exit(1);
  }
  t.wall = Now() - start;
  t.cpu = Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
  return t;
}

// The best of kRounds runs of each command, taken in turn, and the peak
// memory of one more run of each.
std::vector<Timing> RunEach(const std::vector<std::vector<std::string>>& commands,
                            const char* inPath = "/dev/null") {
  std::vector<Timing> best(commands.size());
  for (int round = 0; round < kRounds; ++round) {
    for (size_t c = 0; c < commands.size(); ++c) {
      Timing t = RunOnce(commands[c], inPath, "/dev/null", false);
      best[c].cpu = std::min(best[c].cpu, t.cpu);
      best[c].wall = std::min(best[c].wall, t.wall);
    }
  }
  for (size_t c = 0; c < commands.size(); ++c) {
    Timing t = RunOnce(commands[c], inPath, "/dev/null", true);
    best[c].rssKiB = t.rssKiB;
    best[c].privateKiB = t.privateKiB;
  }
  return best;
}

void WriteRecords(long from, long to) {
  for (long i = from; i < to; ++i) {
    char tag[16], msg[96];
    snprintf(tag, sizeof(tag), "bench%ld", i % kTags);
    snprintf(msg, sizeof(msg), "benchmark record %ld with some ordinary text after it", i);
    qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, tag, msg);
  }
}

// The records of main as a journal export stream, for systemd-journal-remote.
bool WriteExport(const std::string& path) {
  FILE* out = fopen(path.c_str(), "w");
  qd_logger_list* list = qd_logger_list_alloc(QD_LOGGER_MODE_NONBLOCK, 0, 0);
  if (out == nullptr || qd_logger_open(list, LOG_ID_MAIN) == nullptr) return false;
  qd_log_msg msg;
  uint64_t n = 0;
  while (qd_logger_list_read(list, &msg) > 0) {
    const char* tag = reinterpret_cast<const char*>(msg.buf) + msg.entry.hdr_size + 1;
    const char* text = tag + strlen(tag) + 1;
    uint64_t usec = static_cast<uint64_t>(msg.entry.sec) * 1000000 + msg.entry.nsec / 1000;
    fprintf(out,
            "__REALTIME_TIMESTAMP=%llu\n__MONOTONIC_TIMESTAMP=%llu\n"
            "_BOOT_ID=4d6f72766f6361742062656e63680a01\nPRIORITY=6\nSYSLOG_IDENTIFIER=%s\n"
            "_PID=%d\nMESSAGE=%s\n\n",
            static_cast<unsigned long long>(usec), static_cast<unsigned long long>(++n), tag,
            msg.entry.pid, text);
  }
  qd_logger_list_free(list);
  return fclose(out) == 0;
}

// A journal of the same records under dir/journal; false when the tools
// are missing or fail.
bool MakeJournal(const std::string& dir) {
  if (access(kJournalRemote, X_OK) != 0 || access(kJournalctl, X_OK) != 0) return false;
  std::string stream = dir + "/export.txt";
  if (!WriteExport(stream)) return false;
  mkdir((dir + "/journal").c_str(), 0755);
  std::string make = std::string(kJournalRemote) + " -o '" + dir +
                     "/journal/remote.journal' - < '" + stream + "' 2>/dev/null";
  bool made = system(make.c_str()) == 0;
  unlink(stream.c_str());
  return made;
}

void PrintJournalMissing(const char* figure) {
  morvobench::PrintRow(figure, "-", NAN, NAN, NAN, "journalctl or systemd-journal-remote missing");
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
  double start = Now();
  WriteRecords(0, records);
  double writeSeconds = Now() - start;
  morvobench::PrintRow("writer records (qd_log_write)", "records/s", records / writeSeconds, NAN,
                       NAN, ">= 1M/s");

  std::string text = dir + "/formatted.txt";
  RunOnce({morvocat, "-d"}, "/dev/null", text.c_str(), false);
  std::string base = dir + "/out/x";
  std::vector<Timing> t = RunEach({{morvocat, "-d"},
                                   {morvocat, "-d", "-b", "morvo_main"},
                                   {"/bin/cat", text},
                                   {morvocat, "-d", "-b", "morvo_main", "-f", base}});
  Timing gzipRun = RunEach({{"/bin/gzip", "-1"}}, text.c_str())[0];
  morvobench::PrintRow("reader -d (3 buffers) vs cat, CPU", "lines/s", records / t[0].cpu,
                       records / t[2].cpu, t[2].cpu / t[0].cpu, ">= 0.15x");
  morvobench::PrintRow("reader -d 3 buffers vs -b morvo_main", "ms CPU", t[0].cpu * 1e3,
                       t[1].cpu * 1e3, t[1].cpu / t[0].cpu, ">= 0.91x (<= 1.1x time)");
  morvobench::PrintRow("reader -d -f vs gzip -1", "lines/s", records / t[3].cpu,
                       records / gzipRun.cpu, gzipRun.cpu / t[3].cpu, ">= 0.8x");
  morvobench::PrintRow("reader -d resident vs cat", "KiB", t[0].rssKiB, t[2].rssKiB,
                       t[2].rssKiB / t[0].rssKiB, "- (ring pages read)");
  morvobench::PrintRow("reader -d private vs cat", "KiB", t[0].privateKiB, t[2].privateKiB,
                       t[2].privateKiB / t[0].privateKiB, "-");

  std::string journal = "--file=" + dir + "/journal/*.journal";
  bool haveJournal = MakeJournal(dir);
  if (haveJournal) {
    std::vector<Timing> j =
        RunEach({{morvocat, "-d"},
                 {kJournalctl, "-q", "-o", "short-precise", journal},
                 {morvocat, "-d", "bench1:V", "*:S"},
                 {kJournalctl, "-q", "-o", "short-precise", "-t", "bench1", journal}});
    morvobench::PrintRow("reader -d vs journalctl, CPU", "lines/s", records / j[0].cpu,
                         records / j[1].cpu, j[1].cpu / j[0].cpu, ">= 1x");
    morvobench::PrintRow("one tag: -d TAG:V *:S vs journalctl -t", "ms CPU", j[2].cpu * 1e3,
                         j[3].cpu * 1e3, j[3].cpu / j[2].cpu, ">= 1x");
  } else {
    PrintJournalMissing("reader -d vs journalctl, CPU");
    PrintJournalMissing("one tag: -d TAG:V *:S vs journalctl -t");
  }

  // A full ring for the tail: records until writers drop the oldest.
  uint64_t readable = 0;
  for (long n = records; readable < (256ul << 20) - QD_LOGGER_ENTRY_MAX_LEN; n += 100000) {
    WriteRecords(n, n + 100000);
    readable = static_cast<uint64_t>(qd_logger_get_log_readable_size(main));
  }
  qd_logger_list_free(list);
  std::vector<std::vector<std::string>> tails = {{morvocat, "-t", "100"}};
  if (haveJournal) tails.push_back({kJournalctl, "-q", "-n", "100", journal});
  std::vector<Timing> tail = RunEach(tails);
  double peer = haveJournal ? tail[1].wall : NAN;
  morvobench::PrintRow("tail -t 100 (full 256 MiB ring) vs journalctl -n 100", "ms",
                       tail[0].wall * 1e3, peer * 1e3, peer / tail[0].wall, ">= 1x");
  morvobench::PrintRow("tail -t 100 resident vs journalctl -n 100", "KiB", tail[0].rssKiB,
                       haveJournal ? tail[1].rssKiB : NAN,
                       haveJournal ? tail[1].rssKiB / tail[0].rssKiB : NAN, "-");
  morvobench::PrintRow("tail -t 100 private vs journalctl -n 100", "KiB", tail[0].privateKiB,
                       haveJournal ? tail[1].privateKiB : NAN,
                       haveJournal ? tail[1].privateKiB / tail[0].privateKiB : NAN, "-");
  std::string cleanup = "rm -rf '" + dir + "'";
  return system(cleanup.c_str()) == 0 ? 0 : 1;
}
