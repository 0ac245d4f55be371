// Collector benchmark, one run prints both figures:
// - resident memory of a collector running the sample file's three groups,
//   idle after its start and again once it has streamed the kernel lines
//   (its writers' caches and compressors then in use);
// - lines per second of the kmsg stream into its memory-mapped files, from
//   the append until the collector has ended on SIGUSR2 (so the final flush
//   counts), against cat of the same lines into a file.

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "bench/bench_row.h"

namespace {

constexpr int kLines = 200000;

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

long long ReadOffset(pid_t pid, const std::string& path) {
  for (int fd = 0; fd < 64; ++fd) {
    std::string base = "/proc/" + std::to_string(pid);
    char target[4096] = {0};
    std::string link = base + "/fd/" + std::to_string(fd);
    if (readlink(link.c_str(), target, sizeof(target) - 1) <= 0 || path != target) continue;
    std::string info = Read(base + "/fdinfo/" + std::to_string(fd));
    return atoll(info.c_str() + info.find("pos:") + 4);
  }
  return -1;
}

std::string Prepare(const std::string& root) {
  for (const char* dir : {"/proc", "/data", "/data/log", "/data/log/ksv_log", "/dev", "/dev/input",
                          "/bin", "/system", "/system/etc"}) {
    mkdir((root + dir).c_str(), 0775);
  }
  Write(root + "/proc/reboot_watchdog", "");
  Write(root + "/proc/kmsg", "");
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

}  // namespace

int main() {
  char templ[] = "/tmp/morvo_bench_XXXXXX";
  std::string root = mkdtemp(templ);
  setenv("MORVOCAT_ROOT", root.c_str(), 1);
  setenv("PATH", (root + "/bin:" + getenv("PATH")).c_str(), 1);
  std::string lines = Prepare(root);

  pid_t pid = StartCollector(root);
  sleep(1);
  PrintResident(pid, "idle");

  std::string kmsg = root + "/proc/kmsg";
  auto start = std::chrono::steady_clock::now();
  Write(kmsg, lines, true);
  while (ReadOffset(pid, kmsg) < static_cast<long long>(lines.size())) usleep(1000);
  double streamed = Seconds(start);
  PrintResident(pid, "streaming");
  start = std::chrono::steady_clock::now();
  kill(pid, SIGUSR2);
  int status = 0;
  waitpid(pid, &status, 0);
  double collector = streamed + Seconds(start);
  printf("kmsg stream into mmap files: %.0f lines/s (%d lines, exit status %d)\n",
         kLines / collector, kLines, WIFEXITED(status) ? WEXITSTATUS(status) : -1);

  start = std::chrono::steady_clock::now();
  std::string cat = "cat " + kmsg + " > " + root + "/cat-copy";
  if (system(cat.c_str()) != 0) return 1;
  double catSeconds = Seconds(start);
  printf("cat of the same lines to a file: %.0f lines/s\n", kLines / catSeconds);
  morvobench::PrintRow("collector kmsg stream vs cat to a file", "lines/s", kLines / collector,
                       kLines / catSeconds, catSeconds / collector, "-");
  std::string clean = "rm -rf " + root;
  return system(clean.c_str()) == 0 ? 0 : 1;
}
