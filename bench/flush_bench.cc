// What the background flush bound costs a memory-mapped writer: bytes per
// record for a slow stream (10 lines/s), whose members the bound keeps
// small, and throughput for a fast one, whose cache fills long before the
// bound. Each with the default bound of 2 s against the bound off.
//
// The slow stream runs on a scaled clock: records at 20 times the rate
// with a twentieth of the bound make members of the same records in a
// twentieth of the time (3 s for a minute of the real stream).

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench/bench_lines.h"
#include "bench/bench_row.h"
#include "platform/tavo.h"
#include "platform/tavo_flusher.h"

namespace {

constexpr int kScale = 20;
constexpr double kSlowRate = 10.0;     // lines per second
constexpr double kSlowSeconds = 60.0;  // of the real stream
// Without the bound a slow stream's members are full caches (many minutes
// of it).
constexpr size_t kCacheBytes = 512 << 10;

int Remove(const char* path, const struct stat*, int, struct FTW*) { return ::remove(path); }

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

double Now() { return static_cast<double>(platform::MonotonicNs()) / 1e9; }

long long FileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : 0;
}

// The gzip members in a file.
int Members(const std::string& path) {
  FILE* f = fopen(path.c_str(), "rb");
  if (f == nullptr) return 0;
  std::string bytes;
  char buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), f)) > 0) bytes.append(buf, n);
  fclose(f);
  int members = 0;
  size_t pos = 0;
  while (pos < bytes.size()) {
    z_stream z{};
    if (inflateInit2(&z, 16 + MAX_WBITS) != Z_OK) break;
    z.next_in = reinterpret_cast<Bytef*>(&bytes[pos]);
    z.avail_in = static_cast<uInt>(bytes.size() - pos);
    int rc = Z_OK;
    while (rc == Z_OK) {
      z.next_out = reinterpret_cast<Bytef*>(buf);
      z.avail_out = sizeof(buf);
      rc = inflate(&z, Z_NO_FLUSH);
    }
    pos = bytes.size() - z.avail_in;
    inflateEnd(&z);
    if (rc != Z_STREAM_END) break;
    members++;
  }
  return members;
}

class Bench {
 public:
  Bench() {
    char templ[] = "/tmp/morvo_flush_bench_XXXXXX";
    char* dir = mkdtemp(templ);
    dir_ = dir != nullptr ? dir : "/tmp";
  }
  ~Bench() { nftw(dir_.c_str(), Remove, 16, FTW_DEPTH | FTW_PHYS); }

  std::string Out(const char* base) const { return dir_ + "/" + base + ".I000.20261116-155203.gz"; }

  // Bytes per record of the slow stream written under bound (seconds, as
  // the environment gives it), paced on the scaled clock.
  double SlowBytesPerRecord(const char* bound, const char* base,
                            const std::vector<std::string>& lines, bool paced) {
    setenv(platform::kFlushBoundEnv, bound, 1);
    std::string out = Out(base);
    {
      Tavo writer;
      writer.InitTavo();
      writer.SetOutputPath(out.c_str());
      double start = Now();
      for (size_t i = 0; i < lines.size(); i++) {
        if (paced) {
          double due = start + i / (kSlowRate * kScale);
          double wait = due - Now();
          if (wait > 0) usleep(static_cast<useconds_t>(wait * 1e6));
        }
        writer.Write(lines[i].data(), lines[i].size());
      }
    }
    printf("slow stream, bound %s: %zu records in %d members, %lld bytes\n", bound, lines.size(),
           Members(out), FileSize(out));
    return static_cast<double>(FileSize(out)) / static_cast<double>(lines.size());
  }

  // MB/s of records written as fast as they come for about half a second.
  double FastMBps(const char* bound, const char* base) {
    setenv(platform::kFlushBoundEnv, bound, 1);
    std::vector<std::string> lines = morvobench::MakeLines(4 << 20, 7);
    std::string out = Out(base);
    double bytes = 0;
    double start, end;
    {
      Tavo writer;
      writer.InitTavo();
      writer.SetOutputPath(out.c_str());
      start = Now();
      for (int i = 0; Now() - start < 0.5; i++) {
        for (int j = 0; j < 1024; j++) {
          const std::string& l = lines[(i * 1024 + j) % lines.size()];
          writer.Write(l.data(), l.size());
          bytes += static_cast<double>(l.size());
        }
      }
      writer.Flush();
      end = Now();
    }
    unlink(out.c_str());
    return bytes / 1e6 / (end - start);
  }

 private:
  std::string dir_;
};

}  // namespace

int main() {
  Bench bench;
  char scaled[32];
  snprintf(scaled, sizeof(scaled), "%.3f", 2.0 / kScale);
  // The same lines both ways; a full cache's worth without the bound.
  std::vector<std::string> full = morvobench::MakeLines(kCacheBytes, 3);
  full.pop_back();
  std::vector<std::string> slow(full.begin(),
                                full.begin() + static_cast<long>(kSlowRate * kSlowSeconds));
  double on = bench.SlowBytesPerRecord(scaled, "slow-on", slow, true);
  double off = bench.SlowBytesPerRecord("0", "slow-off", full, false);
  morvobench::PrintRow("slow stream 10 lines/s, 2 s bound vs off", "B/record", on, off, off / on,
                       "reported");
  // Interleaved runs, the median of each: the machine's load drifts.
  std::vector<double> offRuns, onRuns;
  for (int run = 0; run < 5; run++) {
    offRuns.push_back(bench.FastMBps("0", "fast-off"));
    onRuns.push_back(bench.FastMBps("2", "fast-on"));
  }
  double fastOff = Median(offRuns);
  double fastOn = Median(onRuns);
  morvobench::PrintRow("fast stream, 2 s bound vs off", "MB/s", fastOn, fastOff, fastOn / fastOff,
                       ">= 0.95x");
  unsetenv(platform::kFlushBoundEnv);
  return 0;
}
