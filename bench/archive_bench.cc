// Times the two compressing writers against the stock tools on the same
// generated log text and prints each as a ratio:
//   TarzipFiles on five 4 MiB files against `tar czf` (target: at most 1.05),
//   Tavo write + flush against `gzip -1` (target: at least 0.8 of its speed),
// and the deflate levels Tavo could use, in its 512 KiB members.
// Each side runs three times; the median counts.

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "archive/tarzip.h"
#include "bench/bench_lines.h"
#include "bench/bench_row.h"
#include "platform/tavo.h"

namespace {

constexpr size_t kFileSize = 4 << 20;
constexpr int kFiles = 5;
constexpr int kRuns = 3;

std::string Join(const std::vector<std::string>& lines, size_t limit) {
  std::string text;
  for (const auto& l : lines) {
    if (text.size() + l.size() > limit) break;
    text += l;
  }
  return text;
}

double Seconds(const std::function<void()>& body) {
  auto start = std::chrono::steady_clock::now();
  body();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double Median(const std::function<void()>& body) {
  std::vector<double> times;
  for (int i = 0; i < kRuns; i++) times.push_back(Seconds(body));
  std::sort(times.begin(), times.end());
  return times[kRuns / 2];
}

void Shell(const std::string& cmd) {
  if (system(cmd.c_str()) != 0) fprintf(stderr, "failed: %s\n", cmd.c_str());
}

// Speed and size of deflate at level on text, cut into members as Tavo does.
void ReportLevel(const std::string& text, int level) {
  constexpr size_t kMember = 512 << 10;
  std::vector<unsigned char> out(compressBound(kMember) + 64);
  z_stream zs = {};
  deflateInit2(&zs, level, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
  size_t packed = 0;
  double sec = Median([&] {
    packed = 0;
    for (size_t off = 0; off < text.size(); off += kMember) {
      deflateReset(&zs);
      zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data())) + off;
      zs.avail_in = static_cast<uInt>(std::min(kMember, text.size() - off));
      zs.next_out = out.data();
      zs.avail_out = static_cast<uInt>(out.size());
      deflate(&zs, Z_FINISH);
      packed += out.size() - zs.avail_out;
    }
  });
  deflateEnd(&zs);
  printf("deflate level %d: %.1f MB/s, %.1f%% of the input\n", level, text.size() / sec / 1e6,
         100.0 * static_cast<double>(packed) / static_cast<double>(text.size()));
}

int Remove(const char* path, const struct stat*, int, struct FTW*) { return ::remove(path); }

}  // namespace

int main() {
  char templ[] = "/tmp/morvo_archive_bench_XXXXXX";
  if (mkdtemp(templ) == nullptr) return 1;
  std::string dir = templ;

  std::vector<std::string> names, paths;
  for (int i = 1; i <= kFiles; i++) {
    names.push_back("main.log." + std::to_string(i));
    paths.push_back(dir + "/" + names.back());
    FILE* f = fopen(paths.back().c_str(), "w");
    std::string text =
        Join(morvobench::MakeLines(kFileSize + 4096, static_cast<unsigned>(i)), kFileSize);
    fwrite(text.data(), 1, text.size(), f);
    fclose(f);
  }
  std::vector<const char*> list;
  for (auto& p : paths) list.push_back(p.c_str());
  std::string ours = dir + "/ours.tar.gz";
  double tarzip = Median([&] { TarzipFiles(kFiles, list.data(), ours.c_str(), 0); });
  std::string members;
  for (auto& n : names) members += " " + n;
  double tar =
      Median([&] { Shell("tar czf '" + dir + "/tar.tar.gz' -C '" + dir + "'" + members); });
  struct stat a, b;
  stat(ours.c_str(), &a);
  stat((dir + "/tar.tar.gz").c_str(), &b);
  printf("TarzipFiles 5 x 4 MiB: %lld bytes, tar czf: %lld bytes\n",
         static_cast<long long>(a.st_size), static_cast<long long>(b.st_size));
  morvobench::PrintRow("TarzipFiles 5 x 4 MiB vs tar czf", "s", tarzip, tar, tar / tarzip,
                       "time <= 1.05x tar");

  std::vector<std::string> lines = morvobench::MakeLines(kFiles * kFileSize, 99);
  std::string text = Join(lines, SIZE_MAX);
  std::string plain = dir + "/text.log";
  FILE* f = fopen(plain.c_str(), "w");
  fwrite(text.data(), 1, text.size(), f);
  fclose(f);
  std::string out = dir + "/x.I000.20261123-090000.gz";
  double tavo = Median([&] {
    unlink(out.c_str());
    Tavo writer;
    writer.InitTavo();
    writer.SetOutputPath(out.c_str());
    for (const auto& l : lines) writer.Write(l.data(), l.size());
    writer.Flush();
  });
  double gzip = Median([&] { Shell("gzip -1 -c '" + plain + "' > '" + dir + "/text.gz'"); });
  double mb = static_cast<double>(text.size()) / 1e6;
  morvobench::PrintRow("Tavo write+flush vs gzip -1", "MB/s", mb / tavo, mb / gzip, gzip / tavo,
                       ">= 0.8x");

  struct stat gz;
  stat((dir + "/text.gz").c_str(), &gz);
  printf("gzip -1: %.1f%% of the input\n",
         100.0 * static_cast<double>(gz.st_size) / static_cast<double>(text.size()));
  for (int level : {1, 3, 6}) ReportLevel(text, level);

  nftw(dir.c_str(), Remove, 16, FTW_DEPTH | FTW_PHYS);
  return 0;
}
