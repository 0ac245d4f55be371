// Collector benchmark, one run prints every figure:
// - resident memory of a collector running the sample file's three groups,
//   idle after its start and again once it has streamed the kernel lines
//   (its writers' caches and compressors then in use);
// - lines per second of the kmsg stream into its time-stamped .gz files,
//   fed through a FIFO, from the first line until it has ended on SIGUSR2
//   (so the final flush counts), against gawk stamping the same lines into
//   gzip -1 and against cat of them into gzip -1; and the size of its files
//   against gzip -1's of the stamped lines. Each figure is the median of
//   kRuns, the runs of the three programs interleaved.

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "bench/bench_row.h"

namespace {

constexpr int kLines = 1000000;
constexpr int kRuns = 3;
const char kLogFolder[] = "/data/log/android_logs";

std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void Write(const std::string& path, const std::string& text, bool append = false) {
  std::ofstream out(path, std::ios::binary | (append ? std::ios::app : std::ios::trunc));
  out << text;
}

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// Bytes still in the pipe written through fd.
int Unread(int fd) {
  int pending = 0;
  return ioctl(fd, FIONREAD, &pending) == 0 ? pending : 0;
}

// Bytes in the .gz files of dir whose names begin with prefix.
long long GzBytes(const std::string& dir, const std::string& prefix) {
  std::string command = "find '" + dir + "' -maxdepth 1 -type f -name '" + prefix +
                        "*.gz' -printf '%s\\n' | awk '{s += $1} END {print s + 0}'";
  FILE* out = popen(command.c_str(), "r");
  long long total = 0;
  if (out != nullptr) {
    if (fscanf(out, "%lld", &total) != 1) total = 0;
    pclose(out);
  }
  return total;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// Seconds a shell command takes; negative when it fails.
double TimeCommand(const std::string& command) {
  auto start = std::chrono::steady_clock::now();
  if (system(command.c_str()) != 0) return -1;
  return Seconds(start);
}

std::string Prepare(const std::string& root) {
  for (const char* dir : {"/proc", "/data", "/data/log", "/data/log/ksv_log", "/dev", "/dev/input",
                          "/bin", "/system", "/system/etc"}) {
    mkdir((root + dir).c_str(), 0775);
  }
  Write(root + "/proc/reboot_watchdog", "");
  // A FIFO blocks its reader as the kernel's stream does.
  mkfifo((root + "/proc/kmsg").c_str(), 0600);
  Write(root + "/system/etc/tavocat_config.xml",
        Read(std::string(MORVO_SOURCE_DIR) + "/etc/tavocat_config.xml"));
  Write(root + "/bin/dumpsys", "#!/bin/sh\necho \"level: 87\"\n");
  chmod((root + "/bin/dumpsys").c_str(), 0755);
  std::string lines;
  char line[128];
  for (int i = 0; i < kLines; ++i) {
    snprintf(line, sizeof(line), "<6>[%6d.%06d] bench: line %07d of the kernel log stream\n",
             i / 1000, i % 1000, i);
    lines += line;
  }
  return lines;
}

pid_t StartCollector(const std::string& root) {
  pid_t pid = fork();
  if (pid == 0) {
    int null = open("/dev/null", O_WRONLY);
    dup2(null, STDERR_FILENO);
    execl(MORVOCAT_PROGRAM, "morvocat", "--tavo", "2", "-x", "kmsglogcat", nullptr);
    _exit(127);
  }
  std::string watchdog = root + "/proc/reboot_watchdog";
  while (Read(watchdog) != std::to_string(pid)) usleep(10000);
  return pid;
}

long StatusKib(pid_t pid, const std::string& field) {
  std::string status = Read("/proc/" + std::to_string(pid) + "/status");
  size_t at = status.find(field + ":");
  return at == std::string::npos ? -1 : atol(status.c_str() + at + field.size() + 1);
}

void PrintResident(pid_t pid, const char* when) {
  printf("collector RSS %s: %ld KiB (anonymous %ld, files %ld, shared %ld)\n", when,
         StatusKib(pid, "VmRSS"), StatusKib(pid, "RssAnon"), StatusKib(pid, "RssFile"),
         StatusKib(pid, "RssShmem"));
  std::string figure = std::string("collector resident memory, ") + when;
  morvobench::PrintRow(figure.c_str(), "KiB", static_cast<double>(StatusKib(pid, "VmRSS")), NAN,
                       NAN, "< 4096 KiB");
}

// One collector's run over the lines, from the first until it has ended;
// memory is shown on the way when asked.
struct StreamRun {
  double seconds = -1;
  long long gzBytes = 0;
  long long lines = 0;
};

StreamRun RunCollector(const std::string& root, const std::string& lines, bool showMemory) {
  StreamRun run;
  const std::string logs = root + kLogFolder;
  if (system(("rm -rf '" + logs + "'").c_str()) != 0) return run;
  Write(root + "/proc/reboot_watchdog", "");
  pid_t pid = StartCollector(root);
  sleep(1);
  if (showMemory) PrintResident(pid, "idle");
  // Opens once the collector has opened its end.
  int fd = open((root + "/proc/kmsg").c_str(), O_WRONLY);
  auto start = std::chrono::steady_clock::now();
  bool fed = fd >= 0 && write(fd, lines.data(), lines.size()) == static_cast<ssize_t>(lines.size());
  while (fed && Unread(fd) > 0) usleep(1000);
  if (showMemory) PrintResident(pid, "streaming");
  kill(pid, SIGUSR2);
  int status = 0;
  waitpid(pid, &status, 0);
  if (fd >= 0) close(fd);
  if (!fed) return run;
  run.seconds = Seconds(start);
  run.gzBytes = GzBytes(logs, "kmsgcat-log");
  std::string count = "cat '" + logs + "'/kmsgcat-log*.gz | gzip -dc | wc -l";
  FILE* out = popen(count.c_str(), "r");
  if (out != nullptr) {
    if (fscanf(out, "%lld", &run.lines) != 1) run.lines = 0;
    pclose(out);
  }
  printf("kmsg stream into .gz files: %.0f lines/s, %lld lines in %lld bytes (exit status %d)\n",
         kLines / run.seconds, run.lines, run.gzBytes,
         WIFEXITED(status) ? WEXITSTATUS(status) : -1);
  return run;
}

}  // namespace

int main() {
  char templ[] = "/tmp/morvo_bench_XXXXXX";
  std::string root = mkdtemp(templ);
  setenv("MORVOCAT_ROOT", root.c_str(), 1);
  setenv("PATH", (root + "/bin:" + getenv("PATH")).c_str(), 1);
  std::string lines = Prepare(root);
  std::string copy = root + "/lines";
  Write(copy, lines);
  std::string stamped = root + "/gawk.gz";
  std::string gawk =
      "gawk '{print strftime(\"%m-%d %H:%M:%S\"), $0}' < " + copy + " | gzip -1 > " + stamped;
  std::string cat = "cat " + copy + " | gzip -1 > " + root + "/cat.gz";

  std::vector<double> ours, gawks, cats;
  long long gzBytes = 0;
  for (int i = 0; i < kRuns; ++i) {
    StreamRun run = RunCollector(root, lines, i == 0);
    double gawkSeconds = TimeCommand(gawk);
    double catSeconds = TimeCommand(cat);
    if (run.seconds <= 0 || run.lines != kLines || gawkSeconds <= 0 || catSeconds <= 0) return 1;
    printf("gawk strftime | gzip -1: %.0f lines/s; cat | gzip -1: %.0f lines/s\n",
           kLines / gawkSeconds, kLines / catSeconds);
    ours.push_back(kLines / run.seconds);
    gawks.push_back(kLines / gawkSeconds);
    cats.push_back(kLines / catSeconds);
    gzBytes = run.gzBytes;
  }
  double rate = Median(ours);
  morvobench::PrintRow("kmsg lines into .gz vs gawk | gzip -1", "lines/s", rate, Median(gawks),
                       rate / Median(gawks), ">= 1.2e6, >= 3x");
  morvobench::PrintRow("kmsg lines into .gz vs cat | gzip -1", "lines/s", rate, Median(cats),
                       rate / Median(cats), ">= 0.45x");
  // gawk's stamps lack the milliseconds: four bytes a line fewer.
  double gawkBytes = static_cast<double>(GzBytes(root, "gawk"));
  morvobench::PrintRow("kmsg .gz size vs gawk | gzip -1", "bytes", static_cast<double>(gzBytes),
                       gawkBytes, gawkBytes / static_cast<double>(gzBytes), "-");
  std::string clean = "rm -rf " + root;
  return system(clean.c_str()) == 0 ? 0 : 1;
}
