// 100,000 numbered records through hundreds of rotations in each write
// mode, read back from the files and archives: nothing lost, nothing
// doubled, no record split across two files.

#include <dirent.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <time.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "sink_support.h"

namespace {

using sinktest::GroupConfig;
using sinktest::TestSink;

constexpr int kRecords = 100000;

// Record n, written in two parts so that only its end allows a rotation;
// lengths vary so the threshold falls at every offset.
int WriteRecord(TestSink& sink, int n) {
  char head[32];
  snprintf(head, sizeof(head), "record %06d ", n);
  std::string tail(static_cast<size_t>(n % 37), '.');
  tail += "\n";
  if (sink.LogcatWrite(head, strlen(head), false) != 0) return 1;
  return sink.LogcatWrite(tail.data(), tail.size(), true);
}

// Every piece holds whole records; together they are records 0 to
// count - 1, once each, in order.
void ExpectWholeSequence(const std::vector<std::string>& pieces, int count = kRecords) {
  int next = 0;
  for (size_t p = 0; p < pieces.size(); ++p) {
    const std::string& piece = pieces[p];
    ASSERT_FALSE(piece.empty()) << "piece " << p;
    ASSERT_EQ(piece.back(), '\n') << "piece " << p << " ends inside a record";
    size_t start = 0;
    for (size_t end; (end = piece.find('\n', start)) != std::string::npos; start = end + 1) {
      int n = -1;
      ASSERT_EQ(sscanf(piece.c_str() + start, "record %d ", &n), 1) << "piece " << p;
      ASSERT_EQ(n, next) << "piece " << p;
      ASSERT_EQ(end - start, 14 + static_cast<size_t>(n % 37)) << "record " << n;
      ++next;
    }
  }
  EXPECT_EQ(next, count);
}

class SequenceTest : public sinktest::SinkTest {};

TEST_F(SequenceTest, MmapModeKeepsEveryRecordOnce) {
  GroupConfig config(base_, 8, 1000);
  std::vector<std::string> files;
  {
    TestSink sink(config, TavoCommon::MMAP_WRITE);
    ASSERT_EQ(sink.SetupOutput(), 0);
    for (int n = 0; n < kRecords; ++n) ASSERT_EQ(WriteRecord(sink, n), 0) << n;
    files = sink.fileVec;
  }
  ASSERT_GT(files.size(), 300u);
  std::vector<std::string> pieces;
  for (const std::string& file : files) pieces.push_back(sinktest::Unzipped(file));
  ExpectWholeSequence(pieces);
}

TEST_F(SequenceTest, FactoryModeKeepsEveryRecordOnceThroughArchives) {
  GroupConfig config(base_, 8, 1000);  // room for 200 archives
  {
    TestSink sink(config, TavoCommon::FACTORY_WRITE);
    ASSERT_EQ(sink.SetupOutput(), 0);
    for (int n = 0; n < kRecords; ++n) ASSERT_EQ(WriteRecord(sink, n), 0) << n;
  }
  std::vector<std::string> pieces;
  int archives = 0;
  while (morvotest::Exists(base_ + "-" + std::to_string(archives) + ".tar.gz")) ++archives;
  ASSERT_GT(archives, 50);
  for (int k = archives - 1; k >= 0; --k) {
    std::string archive = base_ + "-" + std::to_string(k) + ".tar.gz";
    for (int member = 5; member >= 1; --member) {
      pieces.push_back(sinktest::TarMember(archive, "applog." + std::to_string(member)));
    }
  }
  for (int n = 5; n >= 1; --n) {
    std::string numbered = base_ + "." + std::to_string(n);
    if (morvotest::Exists(numbered)) pieces.push_back(morvotest::ReadFile(numbered));
  }
  pieces.push_back(morvotest::ReadFile(base_));
  ExpectWholeSequence(pieces);
  EXPECT_FALSE(morvotest::Exists(base_ + "_tmp"));
}

// The monitor flushes the writer from its own thread while the group writes
// and rotates; built with -DMORVO_SANITIZE=thread this is the race check.
TEST_F(SequenceTest, MonitorFlushesWhileTheGroupWrites) {
  constexpr int kRaceRecords = 20000;
  GroupConfig config(base_, 4, 1000);
  std::vector<std::string> files;
  {
    TestSink sink(config, TavoCommon::MMAP_WRITE);
    ASSERT_EQ(sink.SetupOutput(), 0);
    std::atomic<bool> done{false};
    const std::string dirs[] = {dir_, root_.Under("/data/log/ksv_log")};
    std::thread opener([&] {
      struct timespec pause = {0, 200000L};
      while (!done.load()) {
        for (const std::string& dir : dirs) {
          DIR* d = opendir(dir.c_str());
          if (d != nullptr) closedir(d);
        }
        nanosleep(&pause, nullptr);
      }
    });
    for (int n = 0; n < kRaceRecords; ++n) ASSERT_EQ(WriteRecord(sink, n), 0) << n;
    done.store(true);
    opener.join();
    files = sink.fileVec;
  }
  std::vector<std::string> pieces;
  for (const std::string& file : files) pieces.push_back(sinktest::Unzipped(file));
  ExpectWholeSequence(pieces, kRaceRecords);
}

}  // namespace
