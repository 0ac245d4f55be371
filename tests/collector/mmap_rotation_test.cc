// Memory-mapped mode: indexed files, the links P and P.1, pruning, restart,
// and where rotations may fall.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "sink_support.h"

namespace {

using sinktest::GroupConfig;
using sinktest::TestSink;
using TavoCommon::MMAP_WRITE;

class MmapRotationTest : public sinktest::SinkTest {
 protected:
  // The set files in the folder, by index.
  std::vector<std::string> SetFiles() const {
    std::vector<std::string> files;
    for (const std::string& name : sinktest::Entries(dir_)) {
      if (name.rfind("applog.I", 0) == 0) files.push_back(name.substr(7, 4));
    }
    return files;
  }
  // "I004" for the file the link at path points to; "" for no link.
  static std::string LinkedIndex(const std::string& path) {
    std::string target = sinktest::LinkTarget(path);
    size_t at = target.rfind(".I");
    return at == std::string::npos ? std::string() : target.substr(at + 1, 4);
  }
  void ExpectLinks(const std::string& newest, const std::string& previous) const {
    EXPECT_EQ(LinkedIndex(base_), newest);
    EXPECT_EQ(LinkedIndex(base_ + ".1"), previous);
    if (previous.empty()) {
      EXPECT_FALSE(sinktest::IsLink(base_ + ".1"));
    }
  }
};

// With a threshold of 1 KiB, a record of 600 bytes after another one
// always starts a new file.
int WriteRecord(TestSink& sink, char fill) {
  std::string record(599, fill);
  record += '\n';
  return sink.LogcatWrite(record.data(), record.size(), true);
}

TEST_F(MmapRotationTest, SetAndLinksThroughRotationsAndARestart) {
  GroupConfig config(base_, 1, 3);
  {
    TestSink sink(config, MMAP_WRITE);
    ASSERT_EQ(sink.SetupOutput(), 0);
    EXPECT_EQ(SetFiles(), (std::vector<std::string>{"I000"}));
    ExpectLinks("I000", "");
    ASSERT_EQ(WriteRecord(sink, 'a'), 0);
    EXPECT_EQ(SetFiles().size(), 1u);

    ASSERT_EQ(WriteRecord(sink, 'b'), 0);
    EXPECT_EQ(SetFiles(), (std::vector<std::string>{"I000", "I001"}));
    ExpectLinks("I001", "I000");
    ASSERT_EQ(WriteRecord(sink, 'c'), 0);
    EXPECT_EQ(SetFiles(), (std::vector<std::string>{"I000", "I001", "I002"}));
    ExpectLinks("I002", "I001");
    ASSERT_EQ(WriteRecord(sink, 'd'), 0);
    EXPECT_EQ(SetFiles(), (std::vector<std::string>{"I001", "I002", "I003"}));
    ExpectLinks("I003", "I002");
    EXPECT_EQ(sink.fileVec.size(), 3u);
  }
  // Each record went to the file that was current when it was written.
  EXPECT_EQ(sinktest::Unzipped(base_ + ".1"), std::string(599, 'c') + "\n");
  EXPECT_EQ(sinktest::Unzipped(base_), std::string(599, 'd') + "\n");

  TestSink restarted(config, MMAP_WRITE);
  ASSERT_EQ(restarted.SetupOutput(), 0);
  EXPECT_EQ(SetFiles(), (std::vector<std::string>{"I001", "I002", "I003", "I004"}));
  ExpectLinks("I004", "I003");
  ASSERT_EQ(WriteRecord(restarted, 'e'), 0);
  ASSERT_EQ(WriteRecord(restarted, 'f'), 0);
  EXPECT_EQ(SetFiles(), (std::vector<std::string>{"I003", "I004", "I005"}));
  ExpectLinks("I005", "I004");
}

TEST_F(MmapRotationTest, RotationFallsOnlyWhereARecordEnded) {
  GroupConfig config(base_, 1, 10);
  TestSink sink(config, MMAP_WRITE);
  ASSERT_EQ(sink.SetupOutput(), 0);
  const std::string column(600, 'c');
  const std::string first = sink.logFilePath;
  // One row: three columns and its line end, far past the threshold.
  for (int i = 0; i < 3; ++i) ASSERT_EQ(sink.LogcatWrite(column.data(), column.size(), false), 0);
  ASSERT_EQ(sink.LogcatWrite("\n", 1, true), 0);
  EXPECT_EQ(sink.logFilePath, first);
  EXPECT_FALSE(sink.recordEnded == false);
  EXPECT_EQ(sink.curFileSize, 1801u);
  // The row ended: the next write starts a new file.
  ASSERT_EQ(sink.LogcatWrite("next\n", 5, true), 0);
  EXPECT_NE(sink.logFilePath, first);
  EXPECT_EQ(sink.curFileSize, 5u);
  sink.LogcatClose();
  EXPECT_EQ(sinktest::Unzipped(first), column + column + column + "\n");
  EXPECT_EQ(sinktest::Unzipped(sink.logFilePath), "next\n");
}

TEST_F(MmapRotationTest, ThresholdIsReachedInWholeKibibytes) {
  GroupConfig config(base_, 4096, 10);
  TestSink sink(config, MMAP_WRITE);
  ASSERT_EQ(sink.SetupOutput(), 0);
  const std::string first = sink.logFilePath;
  sink.curFileSize = 4194000;
  sink.RotateLog(303);  // 4095 KiB
  EXPECT_EQ(sink.logFilePath, first);
  sink.RotateLog(304);  // 4096 KiB
  EXPECT_NE(sink.logFilePath, first);
  EXPECT_EQ(sink.curFileSize, 0u);

  GroupConfig off(base_, 0, 10);
  TestSink never(off, MMAP_WRITE);
  ASSERT_EQ(never.SetupOutput(), 0);
  const std::string current = never.logFilePath;
  never.curFileSize = SIZE_MAX / 2;
  never.RotateLog(1 << 20);
  EXPECT_EQ(never.logFilePath, current);
}

// The current file taken away, or something else put at its name, while
// the clocks stand still: the file is looked for when a look is due, before
// a rotation, or when the writer's cache has nowhere to go; a new file of
// its own takes everything written since, and what was planted is never
// written through.
TEST_F(MmapRotationTest, AVanishedCurrentFileIsMadeAgainWithEveryRecord) {
  const std::string victim = root_.Under("/victim");
  const std::string removeFolder = "rm -rf " + sinktest::Quoted(dir_);
  auto unlinkFile = [](const std::string& file) { ASSERT_EQ(unlink(file.c_str()), 0); };
  auto removeAll = [&](const std::string&) { ASSERT_EQ(system(removeFolder.c_str()), 0); };
  auto plant = [&](morvotest::Plant what) {
    return [&victim, what](const std::string& file) {
      ASSERT_EQ(unlink(file.c_str()), 0);
      morvotest::PlantAt(file, what, victim);
    };
  };
  struct Case {
    const char* what;
    size_t rotateKbytes;
    std::function<void(const std::string&)> takeAway;
    int64_t waitMillis;
    std::string record;
    int records;
  };
  const int64_t due = TestSink::kFileCheckMillis;
  const Case cases[] = {
      {"deleted, looked for when due", 4096, unlinkFile, due, "two\n", 1},
      {"its folder removed", 4096, removeAll, due, "three\n", 1},
      // 4 + 1020 bytes reach 1 KiB: due, but the new file takes it whole.
      {"its folder removed, a rotation due first", 1, removeAll, 0, std::string(1019, 'r') + "\n",
       1},
      {"deleted, the cache full first", 4096, unlinkFile, 0, std::string(999, 'c') + "\n", 600},
      {"replaced by a link", 4096, plant(morvotest::Plant::SYMLINK), due, "two\n", 1},
      {"replaced by a dangling link", 4096, plant(morvotest::Plant::DANGLING_LINK), due, "two\n",
       1},
      {"replaced by a hard link", 4096, plant(morvotest::Plant::HARD_LINK), due, "two\n", 1},
      {"replaced by a FIFO", 4096, plant(morvotest::Plant::FIFO), due, "two\n", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    morvotest::MakeVictim(victim);
    root_.MakeDirs("/data/log/group");
    GroupConfig config(base_, c.rotateKbytes, 10);
    TestSink sink(config, MMAP_WRITE);
    sink.StopMonitor();
    sink.stillClocks = true;
    ASSERT_EQ(sink.SetupOutput(), 0);
    ASSERT_EQ(sink.LogcatWrite("one\n", 4, true), 0);
    // "one" still waits in the writer's cache: it goes to the new file.
    std::string expected = "one\n";
    c.takeAway(sink.logFilePath);
    sink.millis += c.waitMillis;
    testing::internal::CaptureStderr();
    for (int i = 0; i < c.records; ++i) {
      ASSERT_EQ(sink.LogcatWrite(c.record.data(), c.record.size(), true), 0);
      expected += c.record;
    }
    sink.LogcatClose();
    testing::internal::GetCapturedStderr();
    morvotest::ExpectOwnFile(sink.logFilePath, 0664);
    EXPECT_EQ(sinktest::LinkTarget(base_), sink.logFilePath);
    EXPECT_EQ(sinktest::Unzipped(sink.logFilePath), expected);
    morvotest::ExpectUntouched(victim);
    EXPECT_FALSE(morvotest::Exists(victim + ".new"));
    ASSERT_EQ(system(removeFolder.c_str()), 0);
  }
}

// The path lookup is what a record cost most: it is made once a look is
// due, not for every record.
TEST_F(MmapRotationTest, AVanishedFileIsLookedForOnlyWhenALookIsDue) {
  GroupConfig config(base_, 4096, 10);
  TestSink sink(config, MMAP_WRITE);
  sink.StopMonitor();
  sink.stillClocks = true;
  ASSERT_EQ(sink.SetupOutput(), 0);
  ASSERT_EQ(sink.LogcatWrite("one\n", 4, true), 0);
  const std::string first = sink.logFilePath;
  ASSERT_EQ(unlink(first.c_str()), 0);
  ASSERT_EQ(sink.LogcatWrite("two\n", 4, true), 0);
  sink.millis += TestSink::kFileCheckMillis - 1;
  ASSERT_EQ(sink.LogcatWrite("three\n", 6, true), 0);
  EXPECT_EQ(sink.opens, 1);
  EXPECT_FALSE(morvotest::Exists(first));
  sink.millis += 1;
  ASSERT_EQ(sink.LogcatWrite("four\n", 5, true), 0);
  EXPECT_EQ(sink.opens, 2);
  EXPECT_TRUE(morvotest::Exists(sink.logFilePath));
  sink.LogcatClose();
  EXPECT_EQ(sinktest::Unzipped(sink.logFilePath), "one\ntwo\nthree\nfour\n");
}

TEST_F(MmapRotationTest, ALimitOfZeroNeverDeletesTheFileBeingWritten) {
  GroupConfig config(base_, 1, 0);
  TestSink sink(config, MMAP_WRITE);
  EXPECT_EQ(sink.maxFiles, 0u);
  ASSERT_EQ(sink.SetupOutput(), 0);
  for (char fill = 'a'; fill < 'f'; ++fill) {
    ASSERT_EQ(WriteRecord(sink, fill), 0);
    EXPECT_TRUE(morvotest::Exists(sink.logFilePath)) << fill;
  }
  EXPECT_EQ(SetFiles().size(), 5u);
  EXPECT_EQ(sink.fileVec.size(), 5u);
}

TEST_F(MmapRotationTest, EveryNewFileGetsItsTitleFirst) {
  GroupConfig config(base_, 1, 10);
  TestSink sink(config, MMAP_WRITE);
  sink.title = "TITLE\n";
  ASSERT_EQ(sink.SetupOutput(), 0);
  const std::string first = sink.logFilePath;
  ASSERT_EQ(WriteRecord(sink, 'a'), 0);
  ASSERT_EQ(WriteRecord(sink, 'b'), 0);
  EXPECT_EQ(sink.opens, 2);
  sink.LogcatClose();
  EXPECT_EQ(sinktest::Unzipped(first), "TITLE\n" + std::string(599, 'a') + "\n");
  EXPECT_EQ(sinktest::Unzipped(sink.logFilePath), "TITLE\n" + std::string(599, 'b') + "\n");
}

// A local user puts something at the name the next file will take (for the
// coming seconds): the rotation removes it and makes its own file there;
// nothing outside the tree is written, given away or changed in mode.
TEST_F(MmapRotationTest, WhatIsPlantedAtTheNextNameIsReplacedNeverUsed) {
  const std::string victim = root_.Under("/victim");
  int group = 0;
  for (morvotest::Plant plant : {morvotest::Plant::SYMLINK, morvotest::Plant::HARD_LINK,
                                 morvotest::Plant::FIFO, morvotest::Plant::DANGLING_LINK}) {
    SCOPED_TRACE(morvotest::NameOf(plant));
    morvotest::MakeVictim(victim);
    const std::string base = dir_ + "/planted" + std::to_string(group++);
    GroupConfig config(base, 1, 10);
    TestSink sink(config, MMAP_WRITE);
    ASSERT_EQ(sink.SetupOutput(), 0);
    // Past the first rotation, which scans the folder again.
    ASSERT_EQ(WriteRecord(sink, 'a'), 0);
    ASSERT_EQ(WriteRecord(sink, 'b'), 0);
    const std::vector<std::string> coming = morvotest::ComingSetNames(base, 2);
    for (const std::string& name : coming) morvotest::PlantAt(name, plant, victim);
    testing::internal::CaptureStderr();
    ASSERT_EQ(WriteRecord(sink, 'c'), 0);
    sink.LogcatClose();
    testing::internal::GetCapturedStderr();
    morvotest::ExpectUntouched(victim);
    EXPECT_FALSE(morvotest::Exists(victim + ".new"));
    ASSERT_NE(std::find(coming.begin(), coming.end(), sink.logFilePath), coming.end());
    morvotest::ExpectOwnFile(sink.logFilePath, 0664);
    EXPECT_EQ(sinktest::Unzipped(sink.logFilePath), std::string(599, 'c') + "\n");
    EXPECT_EQ(sinktest::LinkTarget(base), sink.logFilePath);
  }
}

}  // namespace
