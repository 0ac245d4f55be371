// Lines per second through the reader's per-record path: parse, filter on
// the tag, format a "threadtime" line.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <vector>

#include "platform/log_format.h"

namespace {

constexpr int kRecords = 4096;
// Records per second of log time; a busy buffer has many per second.
constexpr int kRecordsPerSecond = 1000;

std::vector<qd_log_msg> MakeRecords() {
  static const char* const kTags[] = {"ActivityManager", "WifiHAL", "vold", "audio_hw_primary"};
  std::vector<qd_log_msg> records(kRecords);
  for (int i = 0; i < kRecords; ++i) {
    qd_log_msg& msg = records[i];
    memset(&msg, 0, sizeof(msg));
    char* payload = reinterpret_cast<char*>(msg.buf) + sizeof(qd_logger_entry);
    payload[0] = static_cast<char>(QD_LOG_VERBOSE + i % 6);
    int n = 1 + snprintf(payload + 1, QD_LOGGER_ENTRY_MAX_PAYLOAD - 1, "%s", kTags[i % 4]) + 1;
    n += snprintf(payload + n, QD_LOGGER_ENTRY_MAX_PAYLOAD - n,
                  "Start proc %d:com.example.app/u0a%d for service {com.example/.Sync}", 1000 + i,
                  i % 300) +
         1;
    msg.entry.len = static_cast<uint16_t>(n);
    msg.entry.hdr_size = sizeof(qd_logger_entry);
    msg.entry.pid = 100 + i % 3000;
    msg.entry.tid = 100 + i % 30000;
    msg.entry.sec = 1700000000 + i / kRecordsPerSecond;
    msg.entry.nsec = (i % kRecordsPerSecond) * 1000000u;
  }
  return records;
}

QdLogFormat* MakeFormat() {
  QdLogFormat* format = qdlogging_log_format_new();
  qdlogging_log_setPrintFormat(format, qdlogging_log_formatFromString("threadtime"));
  qdlogging_log_addFilterString(format, "*:V vold:D WifiHAL:I");
  return format;
}

// What the reader does per record before writing.
void BM_ParseFilterFormat(benchmark::State& state) {
  std::vector<qd_log_msg> records = MakeRecords();
  QdLogFormat* format = MakeFormat();
  char line[512];
  size_t i = 0;
  for (auto _ : state) {
    QdLogEntry entry;
    if (qdlogging_log_processLogBuffer(&records[i].entry, &entry) < 0) abort();
    char tag[64];
    memcpy(tag, entry.tag, entry.tagLen);
    tag[entry.tagLen] = '\0';
    if (qdlogging_log_shouldPrintLine(format, tag, entry.priority)) {
      size_t length = 0;
      char* text = qdlogging_log_formatLogLine(format, line, sizeof(line), &entry, &length);
      benchmark::DoNotOptimize(text);
    }
    i = (i + 1) % kRecords;
  }
  state.SetItemsProcessed(state.iterations());
  qdlogging_log_format_free(format);
}
BENCHMARK(BM_ParseFilterFormat);

// The same with the line written to /dev/null, as printLogLine does.
void BM_PrintToDevNull(benchmark::State& state) {
  std::vector<qd_log_msg> records = MakeRecords();
  QdLogFormat* format = MakeFormat();
  int fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  size_t i = 0;
  for (auto _ : state) {
    QdLogEntry entry;
    if (qdlogging_log_processLogBuffer(&records[i].entry, &entry) < 0) abort();
    benchmark::DoNotOptimize(qdlogging_log_printLogLine(format, fd, &entry));
    i = (i + 1) % kRecords;
  }
  state.SetItemsProcessed(state.iterations());
  close(fd);
  qdlogging_log_format_free(format);
}
BENCHMARK(BM_PrintToDevNull);

}  // namespace

BENCHMARK_MAIN();
