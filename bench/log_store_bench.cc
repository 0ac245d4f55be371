// Records per second into and out of the log store: qd_log_write from one
// thread, with and without a reader asleep in another process, draining
// reads of one buffer and of three merged buffers, and a tail of 100 over a
// full ring.

#include <benchmark/benchmark.h>
#include <ftw.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/logger.h"

namespace {

constexpr char kMessage[] =
    "Start proc 4321:com.example.app/u0a123 for service {com.example/.Sync}";
constexpr unsigned long kDrainRing = 8UL << 20;

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

// A store folder of the benchmark's own, removed at exit.
class TempStore {
 public:
  TempStore() {
    char templ[] = "/tmp/morvo_log_bench_XXXXXX";
    if (mkdtemp(templ) != nullptr) snprintf(dir_, sizeof(dir_), "%s", templ);
    setenv(MORVO_LOG_STORE_ENV, dir_, 1);
  }
  ~TempStore() { nftw(dir_, RemoveEntry, 16, FTW_DEPTH | FTW_PHYS); }

 private:
  char dir_[64] = "";
};

TempStore gStore;

void SetSize(log_id_t id, unsigned long size) {
  qd_logger_list* list = qd_logger_list_alloc(QD_LOGGER_MODE_NONBLOCK, 0, 0);
  qd_logger_set_log_size(qd_logger_open(list, id), size);
  qd_logger_list_free(list);
}

void BM_Write(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "ActivityManager", kMessage));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Write);

// A blocked reader makes every record that finds it asleep pay a wake-up.
void BM_WriteWhileAReaderFollows(benchmark::State& state) {
  pid_t reader = fork();
  if (reader == 0) {
    qd_logger_list* list = qd_logger_list_alloc(0, 0, 0);
    qd_logger_open(list, LOG_ID_SYSTEM);
    qd_log_msg msg;
    while (qd_logger_list_read(list, &msg) > 0) {
    }
    _exit(0);
  }
  usleep(50 * 1000);
  for (auto _ : state) {
    benchmark::DoNotOptimize(qd_log_write(LOG_ID_SYSTEM, QD_LOG_INFO, "ActivityManager", kMessage));
  }
  state.SetItemsProcessed(state.iterations());
  kill(reader, SIGKILL);
  waitpid(reader, nullptr, 0);
}
BENCHMARK(BM_WriteWhileAReaderFollows);

// Fills the buffers, then reads them all back without blocking.
void BM_DrainRead(benchmark::State& state) {
  const int buffers = static_cast<int>(state.range(0));
  const log_id_t ids[] = {LOG_ID_RADIO, LOG_ID_CRASH, LOG_ID_KERNEL};
  for (int b = 0; b < buffers; ++b) SetSize(ids[b], kDrainRing);
  int64_t records = 0;
  for (auto _ : state) {
    state.PauseTiming();
    for (int b = 0; b < buffers; ++b) {
      qd_logger_list* list = qd_logger_list_alloc(QD_LOGGER_MODE_NONBLOCK, 0, 0);
      qd_logger_clear(qd_logger_open(list, ids[b]));
      qd_logger_list_free(list);
    }
    for (int i = 0; i < 60000; ++i)
      qd_log_write(ids[i % buffers], QD_LOG_INFO, "WifiHAL", kMessage);
    qd_logger_list* list = qd_logger_list_alloc(QD_LOGGER_MODE_NONBLOCK, 0, 0);
    for (int b = 0; b < buffers; ++b) qd_logger_open(list, ids[b]);
    state.ResumeTiming();
    qd_log_msg msg;
    while (qd_logger_list_read(list, &msg) > 0) records++;
    state.PauseTiming();
    qd_logger_list_free(list);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(records);
}
BENCHMARK(BM_DrainRead)->Arg(1)->Arg(3)->Unit(benchmark::kMillisecond);

// The last 100 records of a full 64 MiB ring, positioning included.
void BM_TailRead(benchmark::State& state) {
  constexpr unsigned long kTailRing = 64UL << 20;
  SetSize(LOG_ID_EVENTS, kTailRing);
  qd_logger_list* probe = qd_logger_list_alloc(QD_LOGGER_MODE_NONBLOCK, 0, 0);
  qd_logger* events = qd_logger_open(probe, LOG_ID_EVENTS);
  while (qd_logger_get_log_readable_size(events) <
         static_cast<long>(kTailRing - QD_LOGGER_ENTRY_MAX_LEN)) {
    for (int i = 0; i < 10000; ++i) qd_log_write(LOG_ID_EVENTS, QD_LOG_INFO, "WifiHAL", kMessage);
  }
  qd_logger_list_free(probe);
  for (auto _ : state) {
    qd_logger_list* list = qd_logger_list_alloc(QD_LOGGER_MODE_NONBLOCK, 100, 0);
    qd_logger_open(list, LOG_ID_EVENTS);
    qd_log_msg msg;
    int records = 0;
    while (qd_logger_list_read(list, &msg) > 0) records++;
    benchmark::DoNotOptimize(records);
    qd_logger_list_free(list);
  }
}
BENCHMARK(BM_TailRead)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
