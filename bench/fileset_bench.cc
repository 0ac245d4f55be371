// Forming a file set from a folder of 1000 set files (scan, sort, order,
// prune), as the reader's writer does at start and after a lost file.
// Target: under 5 ms.

#include <benchmark/benchmark.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "filesets/morvocat_utils.h"

namespace {

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return ::remove(path); }

// A folder holding count set files whose newest index is last (so a set
// that has wrapped when last is below count - 1), plus some foreign files.
class SetFolder {
 public:
  SetFolder(int count, int last) {
    char templ[] = "/tmp/morvo_fileset_bench_XXXXXX";
    char* dir = mkdtemp(templ);
    dir_ = dir != nullptr ? dir : "";
    base_ = dir_ + "/applog";
    for (int i = 0; i < count; ++i) {
      int index = (last + 1000 - i) % 1000;
      char name[64];
      snprintf(name, sizeof(name), ".I%03d.20240105-%06d.gz", index, 235959 - i);
      Touch(base_ + name);
    }
    Touch(dir_ + "/.applog.tavocache");
    Touch(dir_ + "/other.txt");
  }
  ~SetFolder() { nftw(dir_.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS); }
  const std::string& base() const { return base_; }

 private:
  static void Touch(const std::string& path) {
    FILE* file = fopen(path.c_str(), "w");
    if (file != nullptr) {
      fputs("x\n", file);
      fclose(file);
    }
  }
  std::string dir_;
  std::string base_;
};

void Form(benchmark::State& state, int last) {
  const int count = static_cast<int>(state.range(0));
  SetFolder folder(count, last);
  MorvocatUtils writer(folder.base(), MorvocatUtils::kMMapWriteMode, 0);
  for (auto _ : state) {
    writer.FormFileVectors();
    benchmark::DoNotOptimize(writer.GetNewLogFileIndex());
  }
  state.SetItemsProcessed(state.iterations() * count);
}

void BM_FormFileVectors(benchmark::State& state) { Form(state, 999); }
void BM_FormFileVectorsWrapped(benchmark::State& state) { Form(state, 400); }

}  // namespace

BENCHMARK(BM_FormFileVectors)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FormFileVectorsWrapped)->Arg(999)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
