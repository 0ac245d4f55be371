// A collector group's write path: records of about a kernel-log line's
// length through LogcatWrite in each write mode, and kernel lines stamped on
// their way in mmap mode, rotations included at the default threshold of
// 4 MiB; and the cost of one rotation on its own.

#include <benchmark/benchmark.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "collector/tavobase.h"

namespace {

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return ::remove(path); }

class BenchSink : public Tavobase {
 public:
  BenchSink(const TavoCommon::TavocatGroupT* group, TavoCommon::TypeWrite mode)
      : Tavobase(group, mode) {}
  using Tavobase::curFileSize;

 protected:
  void openLogFilePost() override {}
};

// A group under a fresh folder, removed afterwards.
class BenchGroup {
 public:
  BenchGroup() {
    char templ[] = "/tmp/morvo_sink_bench_XXXXXX";
    char* dir = mkdtemp(templ);
    dir_ = dir != nullptr ? dir : "";
    setenv("MORVOCAT_ROOT", dir_.c_str(), 1);
    path_ = dir_ + "/group/kmsgcat-log";
    info_.rotateSizeKbytes = 4096;
    info_.maxCompressdFiles = 1000;
    group_.info = &info_;
    group_.outputFilePath = &path_[0];
  }
  ~BenchGroup() {
    nftw(dir_.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
    unsetenv("MORVOCAT_ROOT");
  }
  const TavoCommon::TavocatGroupT* group() const { return &group_; }

 private:
  std::string dir_;
  std::string path_;
  TavoCommon::TavocatInfoT info_{};
  TavoCommon::TavocatGroupT group_{};
};

const std::string kLine =
    "11-16 15:52:03.042 <6>[ 1234.567890] healthd: battery l=87 v=4102 t=31.0 h=2 st=3\n";

void Write(benchmark::State& state, TavoCommon::TypeWrite mode) {
  BenchGroup group;
  BenchSink sink(group.group(), mode);
  sink.SetupOutput();
  for (auto _ : state) {
    benchmark::DoNotOptimize(sink.LogcatWrite(kLine.data(), kLine.size(), true));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kLine.size()));
}

void BM_WriteMmap(benchmark::State& state) { Write(state, TavoCommon::MMAP_WRITE); }

void BM_StampedLineMmap(benchmark::State& state) {
  BenchGroup group;
  BenchSink sink(group.group(), TavoCommon::MMAP_WRITE);
  sink.SetupOutput();
  const std::string line = kLine.substr(19, kLine.size() - 20);
  for (auto _ : state) benchmark::DoNotOptimize(sink.LogcatWriteWithTimestamp(line.c_str()));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kLine.size()));
}
void BM_WriteFactory(benchmark::State& state) { Write(state, TavoCommon::FACTORY_WRITE); }

// One rotation: new name, file, owner change and links (mmap), or renames,
// and every fifth time an archive of five empty files (factory).
void Rotate(benchmark::State& state, TavoCommon::TypeWrite mode) {
  BenchGroup group;
  BenchSink sink(group.group(), mode);
  sink.SetupOutput();
  for (auto _ : state) {
    sink.curFileSize = 4096 << 10;
    sink.RotateLog(1);
  }
}

void BM_RotateMmap(benchmark::State& state) { Rotate(state, TavoCommon::MMAP_WRITE); }
void BM_RotateFactory(benchmark::State& state) { Rotate(state, TavoCommon::FACTORY_WRITE); }

BENCHMARK(BM_WriteMmap);
BENCHMARK(BM_StampedLineMmap);
BENCHMARK(BM_WriteFactory);
BENCHMARK(BM_RotateMmap)->Iterations(500);
BENCHMARK(BM_RotateFactory)->Iterations(500);

}  // namespace

BENCHMARK_MAIN();
