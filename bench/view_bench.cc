// morvo-view against zcat on the same files in the same run: a tree of
// indexed .gz sets written by the reader's own writer (about 100 MiB of
// compressed files by default), read back as one set and as a merge of
// all of them; zcat decompresses the same files to /dev/null.
//
// Usage: view_bench MORVO_VIEW [MIB]

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench/bench_row.h"
#include "bench/bench_spawn.h"
#include "filesets/morvocat_utils.h"

namespace {

constexpr int kSets = 4;
constexpr size_t kRotateBytes = 4u << 20;  // text per file before the writer moves on

double Now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

uint64_t Compressed(const std::string& dir) {
  uint64_t total = 0;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      struct stat st;
      if (e->d_name[0] != '.' && stat((dir + "/" + e->d_name).c_str(), &st) == 0) {
        total += static_cast<uint64_t>(st.st_size);
      }
    }
    closedir(d);
  }
  return total;
}

std::vector<std::string> SetFiles(const std::string& dir) {
  std::vector<std::string> files;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      if (e->d_name[0] != '.') files.push_back(dir + "/" + e->d_name);
    }
    closedir(d);
  }
  std::sort(files.begin(), files.end());
  return files;
}

// One set of text lines, with words drawn at random so that it compresses
// about as well as real logs do.
void WriteSet(const std::string& dir, int set, uint64_t targetBytes) {
  mkdir(dir.c_str(), 0775);
  static const char* kWords[] = {
      "start", "proc",   "activity", "window", "focus", "battery", "level",  "wifi", "signal",
      "scan",  "result", "binder",   "thread", "pool",  "gc",      "freed",  "ms",   "display",
      "vsync", "input",  "event",    "audio",  "track", "sensor",  "service"};
  MorvocatUtils writer(dir + "/out", MorvocatUtils::kMMapWriteMode, 0);
  writer.InitLogFiles();
  uint32_t seed = 12345u + static_cast<uint32_t>(set);
  size_t inFile = 0;
  char line[512];
  for (long i = 0; Compressed(dir) < targetBytes || i == 0; ++i) {
    for (int burst = 0; burst < 4096; ++burst, ++i) {
      long ms = i * 7 + set;
      int n = snprintf(line, sizeof(line),
                       "03-%02ld %02ld:%02ld:%02ld.%03ld %5d %5d %c %-8s: ", 1 + ms / 86400000 % 28,
                       ms / 3600000 % 24, ms / 60000 % 60, ms / 1000 % 60, ms % 1000, 1000 + set,
                       1000 + static_cast<int>(seed % 50), "VDIWE"[seed % 5], kWords[seed % 25]);
      for (int w = 0; w < 10; ++w) {
        seed = seed * 1103515245u + 12345u;
        n += snprintf(line + n, sizeof(line) - n, "%s%s%u", w ? " " : "", kWords[(seed >> 8) % 25],
                      (seed >> 16) % 1000);
      }
      line[n++] = '\n';
      line[n] = '\0';
      writer.Write(line, static_cast<uint64_t>(n));
      if (!writer.IsLogFileAccess()) {
        writer.InitLogFiles();
        writer.GetNewLog();
      }
      inFile += static_cast<size_t>(n);
      if (inFile >= kRotateBytes) {
        writer.Flush();
        writer.GetNewLog();
        inFile = 0;
      }
    }
    writer.Flush();
  }
}

double Time(const std::vector<std::string>& args) {
  double start = Now();
  pid_t pid = morvobench::Spawn(args);
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    fprintf(stderr, "%s failed\n", args[0].c_str());
    exit(1);
  }
  return Now() - start;
}

// The better of three runs.
double Best(const std::vector<std::string>& args) {
  double best = Time(args);
  for (int i = 0; i < 2; ++i) best = std::min(best, Time(args));
  return best;
}

}  // namespace

int main(int argc, char** argv) {
  std::string view = argc > 1 ? argv[1] : "build-release/tools/morvo-view";
  uint64_t mib = argc > 2 ? strtoull(argv[2], nullptr, 10) : 100;
  char templ[] = "/tmp/morvo_view_bench_XXXXXX";
  std::string root = mkdtemp(templ);
  std::vector<std::string> all;
  uint64_t allBytes = 0;
  for (int set = 0; set < kSets; ++set) {
    std::string dir = root + "/g" + std::to_string(set);
    WriteSet(dir, set, (mib << 20) / kSets);
    for (const std::string& f : SetFiles(dir)) all.push_back(f);
    allBytes += Compressed(dir);
  }
  std::vector<std::string> one = SetFiles(root + "/g0");
  double mibOne = Compressed(root + "/g0") / 1048576.0;
  double mibAll = allBytes / 1048576.0;

  std::vector<std::string> zcatOne = {"zcat"};
  zcatOne.insert(zcatOne.end(), one.begin(), one.end());
  std::vector<std::string> zcatAll = {"zcat"};
  zcatAll.insert(zcatAll.end(), all.begin(), all.end());
  double oursOne = mibOne / Best({view, root + "/g0/out"});
  double refOne = mibOne / Best(zcatOne);
  double oursAll = mibAll / Best({view, root});
  double refAll = mibAll / Best(zcatAll);
  morvobench::PrintRow("morvo-view one set vs zcat", "MiB/s gz", oursOne, refOne, oursOne / refOne,
                       ">= 0.8");
  morvobench::PrintRow("morvo-view merging all vs zcat", "MiB/s gz", oursAll, refAll,
                       oursAll / refAll, ">= 0.5");
  std::string cleanup = "rm -rf '" + root + "'";
  return system(cleanup.c_str()) == 0 ? 0 : 1;
}
