// What the background flush bound costs a memory-mapped writer: bytes per
// record for a slow stream (10 lines/s), whose members the bound keeps
// small, and throughput for a fast one, whose cache fills long before the
// bound. Each with the default bound of 2 s against the bound off.
//
// The slow stream runs on a scaled clock: records at 20 times the rate
// with a twentieth of the bound make members of the same records in a
// twentieth of the time (3 s for a minute of the real stream).

#include <dirent.h>
#include <ftw.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <string>
#include <vector>

#include "bench/bench_row.h"
#include "platform/tavo.h"
#include "platform/tavo_flusher.h"

namespace {

constexpr int kScale = 20;
constexpr double kSlowRate = 10.0;     // lines per second
constexpr double kSlowSeconds = 60.0;  // of the real stream
// Lines a 512 KiB cache holds: the members a slow stream makes without the
// bound (many minutes of it).
constexpr int kFullCacheLines = 6400;

int Remove(const char* path, const struct stat*, int, struct FTW*) { return ::remove(path); }

std::string Line(int i) {
  char buf[160];
  snprintf(buf, sizeof(buf),
           "11-16 15:%02d:%02d.%03d <6>[ %5d.%06d] healthd: battery l=%d v=%d t=%.1f h=2 st=3\n",
           (i / 600) % 60, (i / 10) % 60, (i * 100) % 1000, 1234 + i / 10, (i * 7919) % 1000000,
           87 - (i / 500) % 80, 4102 - (i % 37), 31.0 + (i % 13) / 10.0);
  return buf;
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
  double SlowBytesPerRecord(const char* bound, const char* base, int records, bool paced) {
    setenv(platform::kFlushBoundEnv, bound, 1);
    std::string out = Out(base);
    {
      Tavo writer;
      writer.InitTavo();
      writer.SetOutputPath(out.c_str());
      double start = Now();
      for (int i = 0; i < records; i++) {
        if (paced) {
          double due = start + i / (kSlowRate * kScale);
          double wait = due - Now();
          if (wait > 0) usleep(static_cast<useconds_t>(wait * 1e6));
        }
        std::string line = Line(i);
        writer.Write(line.data(), line.size());
      }
    }
    printf("slow stream, bound %s: %d records in %d members, %lld bytes\n", bound, records,
           Members(out), FileSize(out));
    return static_cast<double>(FileSize(out)) / records;
  }

  // MB/s of records written as fast as they come for about a second.
  double FastMBps(const char* bound, const char* base) {
    setenv(platform::kFlushBoundEnv, bound, 1);
    std::vector<std::string> lines;
    for (int i = 0; i < 4096; i++) lines.push_back(Line(i));
    std::string out = Out(base);
    double bytes = 0;
    double start, end;
    {
      Tavo writer;
      writer.InitTavo();
      writer.SetOutputPath(out.c_str());
      start = Now();
      for (int i = 0; Now() - start < 1.0; i++) {
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
  int slowRecords = static_cast<int>(kSlowRate * kSlowSeconds);
  double on = bench.SlowBytesPerRecord(scaled, "slow-on", slowRecords, true);
  double off = bench.SlowBytesPerRecord("0", "slow-off", kFullCacheLines, false);
  morvobench::PrintRow("slow stream 10 lines/s, 2 s bound vs off", "B/record", on, off, off / on,
                       "reported");
  double fastOff = bench.FastMBps("0", "fast-off");
  double fastOn = bench.FastMBps("2", "fast-on");
  morvobench::PrintRow("fast stream, 2 s bound vs off", "MB/s", fastOn, fastOff, fastOn / fastOff,
                       ">= 0.95x");
  unsetenv(platform::kFlushBoundEnv);
  return 0;
}
