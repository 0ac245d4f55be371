#include <dirent.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "sink_support.h"

namespace {

using morvotest::Exists;
using morvotest::ReadFile;
using morvotest::Zcat;
using sinktest::GroupConfig;
using sinktest::TestSink;
using TavoCommon::FACTORY_WRITE;
using TavoCommon::MMAP_WRITE;

class RotationTest : public sinktest::SinkTest {
 protected:
  std::string Numbered(int n) const { return base_ + "." + std::to_string(n); }
  std::string Archive(int n) const { return base_ + "-" + std::to_string(n) + ".tar.gz"; }
  std::string Work() const { return base_ + "_tmp"; }
  static std::string Record(int n) {
    std::string text = "record " + std::to_string(n) + " ";
    text.resize(699, '.');
    return text + "\n";
  }
  static void WriteRecords(TestSink& sink, int from, int to) {
    for (int n = from; n < to; ++n) {
      std::string record = Record(n);
      ASSERT_EQ(sink.LogcatWrite(record.data(), record.size(), true), 0) << n;
    }
  }
  // Archive k of base holds B.1 to B.5, newest first, ending with record last.
  void ExpectArchive(int k, int last, const std::string& base = "") const {
    const std::string path = (base.empty() ? base_ : base) + "-" + std::to_string(k) + ".tar.gz";
    const std::string leaf = path.substr(dir_.size() + 1, path.rfind('-') - dir_.size() - 1);
    std::vector<std::string> members;
    for (int n = 1; n <= 5; ++n) members.push_back(leaf + "." + std::to_string(n));
    EXPECT_EQ(morvotest::Lines(morvotest::TarListing(path)), members) << k;
    for (int n = 1; n <= 5; ++n) {
      EXPECT_EQ(morvotest::Tar("-xzOf '" + path + "' " + members[n - 1]), Record(last - n + 1))
          << k;
    }
  }
  std::vector<std::string> SetFiles() const {
    std::vector<std::string> files;
    for (const std::string& name : morvotest::Entries(dir_)) {
      if (name.rfind("applog.I", 0) == 0) files.push_back(name.substr(7, 4));
    }
    return files;
  }
  static std::string LinkedIndex(const std::string& path) {
    std::string target = sinktest::LinkTarget(path);
    size_t at = target.rfind(".I");
    return at == std::string::npos ? std::string() : target.substr(at + 1, 4);
  }
  void ExpectSet(const std::vector<std::string>& files, const std::string& previous) const {
    EXPECT_EQ(SetFiles(), files);
    EXPECT_EQ(LinkedIndex(base_), files.back());
    EXPECT_EQ(LinkedIndex(base_ + ".1"), previous);
    EXPECT_TRUE(!previous.empty() || !sinktest::IsLink(base_ + ".1"));
  }
};

// Numbered files shift until five make an archive; the oldest archive goes.
TEST_F(RotationTest, FactoryArchivesKeepTheNewestFilesAndDropTheOldest) {
  for (size_t limit : {10, 1}) {  // two archives of five; one, replaced each time
    SCOPED_TRACE(limit);
    const std::string base = base_ + std::to_string(limit);
    sinktest::OwnSink sink(base, 1, limit, FACTORY_WRITE);
    EXPECT_EQ(sink.maxFiles, limit == 10 ? 2u : 1u);
    ASSERT_EQ(sink.SetupOutput(), 0);
    WriteRecords(sink, 0, 3);
    EXPECT_EQ(ReadFile(base + ".2"), Record(0));
    EXPECT_EQ(ReadFile(base + ".1"), Record(1));
    WriteRecords(sink, 3, 16);
    ExpectArchive(0, 14, base);
    if (limit == 10) ExpectArchive(1, 9, base);
    EXPECT_FALSE(Exists(base + (limit == 10 ? "-2.tar.gz" : "-1.tar.gz")));
    EXPECT_EQ(ReadFile(base), Record(15));
    for (int n = 1; n <= 5; ++n) EXPECT_FALSE(Exists(base + "." + std::to_string(n))) << n;
    EXPECT_FALSE(Exists(base + "_tmp"));
    EXPECT_EQ(morvotest::ModeOf(base), 0664u);
  }
}

// Archives blocked by folders keep their members in the work folder until one can.
TEST_F(RotationTest, AFailedArchiveKeepsItsMembersUntilOneCanBeMade) {
  sinktest::OwnSink sink(base_, 1, 10, FACTORY_WRITE);
  ASSERT_EQ(sink.SetupOutput(), 0);
  root_.MakeDirs("/data/log/group/applog-1.tar.gz/in");
  root_.MakeDirs("/data/log/group/applog-0.tar.gz");
  testing::internal::CaptureStderr();
  WriteRecords(sink, 0, 6);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("compress ["), std::string::npos) << err;
  for (int n = 1; n <= 5; ++n) {
    EXPECT_EQ(ReadFile(Work() + "/applog." + std::to_string(n)), Record(5 - n)) << n;
  }
  ASSERT_EQ(system(("rm -rf " + Archive(0) + " " + Archive(1)).c_str()), 0);
  WriteRecords(sink, 6, 11);
  ExpectArchive(1, 4);
  ExpectArchive(0, 9);
  EXPECT_FALSE(Exists(Work()));
  ASSERT_EQ(system(("rm -rf " + dir_ + "/*").c_str()), 0);
  sinktest::OwnSink stale(base_, 1, 10, FACTORY_WRITE);
  ASSERT_EQ(stale.SetupOutput(), 0);
  root_.MakeDirs("/data/log/group/applog_tmp");
  testing::internal::CaptureStderr();
  WriteRecords(stale, 0, 6);
  err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("couldn't create compress dir"), std::string::npos) << err;
  ExpectArchive(0, 4);
  EXPECT_FALSE(Exists(Work()));
}

// A link, dangling link, FIFO or hard link at the next file is replaced, never used.
TEST_F(RotationTest, WhatIsPlantedWhereTheGroupWritesNextIsReplacedNeverUsed) {
  const std::string victim = root_.Under("/victim");
  int group = 0;
  for (morvotest::Plant plant : {morvotest::Plant::DANGLING_LINK, morvotest::Plant::FIFO,
                                 morvotest::Plant::HARD_LINK, morvotest::Plant::SYMLINK}) {
    for (TavoCommon::TypeWrite mode : {FACTORY_WRITE, MMAP_WRITE}) {
      SCOPED_TRACE(std::string(morvotest::NameOf(plant)) + (mode == MMAP_WRITE ? " mmap" : ""));
      morvotest::MakeVictim(victim);
      const std::string base = dir_ + "/planted" + std::to_string(group++);
      sinktest::OwnSink sink(base, 1, 10, mode);
      const std::string record = Record(0);
      if (mode == FACTORY_WRITE) {
        morvotest::PlantAt(base, plant, victim);
        morvotest::PlantAt(base + ".1", plant, victim);
        ASSERT_EQ(sink.SetupOutput(), 0);
        ASSERT_EQ(sink.LogcatWrite(record.data(), record.size(), true), 0);
        morvotest::ExpectOwnFile(base, 0664);
        EXPECT_EQ(ReadFile(base), record);
        EXPECT_FALSE(sinktest::IsLink(base + ".1"));
        ASSERT_EQ(rename(base.c_str(), (base + ".taken").c_str()), 0);
        morvotest::PlantAt(base, plant, victim);
        ASSERT_EQ(sink.LogcatWrite(record.data(), record.size(), true), 0);
        morvotest::ExpectOwnFile(base, 0664);
        EXPECT_EQ(ReadFile(base), record);
      } else {
        ASSERT_EQ(sink.SetupOutput(), 0);
        WriteRecords(sink, 1, 3);
        const std::vector<std::string> coming = morvotest::ComingSetNames(base, 2);
        for (const std::string& name : coming) morvotest::PlantAt(name, plant, victim);
        testing::internal::CaptureStderr();
        ASSERT_EQ(sink.LogcatWrite(record.data(), record.size(), true), 0);
        sink.LogcatClose();
        testing::internal::GetCapturedStderr();
        ASSERT_NE(std::find(coming.begin(), coming.end(), sink.logFilePath), coming.end());
        morvotest::ExpectOwnFile(sink.logFilePath, 0664);
        EXPECT_EQ(Zcat(sink.logFilePath), record);
        EXPECT_EQ(sinktest::LinkTarget(base), sink.logFilePath);
      }
      morvotest::ExpectUntouched(victim);
      EXPECT_FALSE(Exists(victim + ".new"));
    }
  }
}

// Links at the numbered names are dropped by the shift, never archived.
TEST_F(RotationTest, WhatIsPlantedAtNumberedNamesNeverReachesAnArchive) {
  const std::string victim = root_.Under("/victim");
  morvotest::MakeVictim(victim);
  sinktest::OwnSink sink(base_, 1, 10, FACTORY_WRITE);
  ASSERT_EQ(sink.SetupOutput(), 0);
  for (int n : {2, 3, 4}) {
    morvotest::PlantAt(Numbered(n),
                       n == 3 ? morvotest::Plant::HARD_LINK : morvotest::Plant::SYMLINK, victim);
  }
  WriteRecords(sink, 0, 6);
  ExpectArchive(0, 4);
  EXPECT_FALSE(Exists(Archive(1)));
  morvotest::ExpectUntouched(victim);
}

TEST_F(RotationTest, MmapSetAndLinksThroughRotationsAndARestart) {
  GroupConfig config(base_, 1, 3);
  {
    TestSink sink(config, MMAP_WRITE);
    ASSERT_EQ(sink.SetupOutput(), 0);
    ExpectSet({"I000"}, "");
    WriteRecords(sink, 0, 1);
    EXPECT_EQ(SetFiles().size(), 1u);
    WriteRecords(sink, 1, 2);
    ExpectSet({"I000", "I001"}, "I000");
    WriteRecords(sink, 2, 3);
    ExpectSet({"I000", "I001", "I002"}, "I001");
    WriteRecords(sink, 3, 4);
    ExpectSet({"I001", "I002", "I003"}, "I002");
    EXPECT_EQ(sink.fileVec.size(), 3u);
  }
  EXPECT_EQ(Zcat(base_ + ".1"), Record(2));
  EXPECT_EQ(Zcat(base_), Record(3));
  TestSink restarted(config, MMAP_WRITE);
  ASSERT_EQ(restarted.SetupOutput(), 0);
  ExpectSet({"I001", "I002", "I003", "I004"}, "I003");
  WriteRecords(restarted, 4, 6);
  ExpectSet({"I003", "I004", "I005"}, "I004");
}

// Where a record ends is checked by the long run; here the threshold's unit.
TEST_F(RotationTest, MmapRotationFallsInWholeKibibytes) {
  sinktest::OwnSink big(base_, 4096, 10, MMAP_WRITE);
  ASSERT_EQ(big.SetupOutput(), 0);
  const std::string current = big.logFilePath;
  big.curFileSize = 4194000;
  big.RotateLog(303);  // 4095 KiB
  EXPECT_EQ(big.logFilePath, current);
  big.RotateLog(304);  // 4096 KiB
  EXPECT_NE(big.logFilePath, current);
  EXPECT_EQ(big.curFileSize, 0u);
  sinktest::OwnSink never(base_, 0, 10, MMAP_WRITE);
  ASSERT_EQ(never.SetupOutput(), 0);
  const std::string kept = never.logFilePath;
  never.curFileSize = SIZE_MAX / 2;
  never.RotateLog(1 << 20);
  EXPECT_EQ(never.logFilePath, kept);
}

// The current file taken away or replaced: a new own file takes what came since.
TEST_F(RotationTest, AVanishedCurrentFileIsMadeAgain) {
  const std::string victim = root_.Under("/victim");
  const std::string renamed = base_ + ".old";
  auto unlinkFile = [](const std::string& file) { ASSERT_EQ(unlink(file.c_str()), 0); };
  auto removeAll = [&](const std::string&) { ASSERT_EQ(system(("rm -rf " + dir_).c_str()), 0); };
  auto renameFile = [&](const std::string& file) {
    ASSERT_EQ(rename(file.c_str(), renamed.c_str()), 0);
  };
  auto plant = [&](morvotest::Plant what) {
    return [&victim, what](const std::string& file) {
      ASSERT_EQ(unlink(file.c_str()), 0);
      morvotest::PlantAt(file, what, victim);
    };
  };
  const int64_t due = TestSink::kFileCheckMillis;
  const std::string rotating = std::string(1015, 'r') + "\n", full = std::string(999, 'c') + "\n";
  using P = morvotest::Plant;
  const auto M = MMAP_WRITE, F = FACTORY_WRITE;
  // before: factory, what the old file keeps (null: it is gone).
  // clang-format off
  const struct { const char* what; TavoCommon::TypeWrite mode; size_t rotateKbytes;
                 std::function<void(const std::string&)> takeAway; int64_t waitMillis;
                 std::string record; int records; const char* before; } kCases[] = {
      {"deleted", M, 4096, unlinkFile, due, "three\n", 1, nullptr},
      {"its folder removed", M, 4096, removeAll, due, "three\n", 1, nullptr},
      {"folder removed, a rotation first", M, 1, removeAll, 0, rotating, 1, nullptr},
      {"deleted, the cache full first", M, 4096, unlinkFile, 0, full, 600, nullptr},
      {"a link", M, 4096, plant(P::SYMLINK), due, "three\n", 1, nullptr},
      {"a dangling link", M, 4096, plant(P::DANGLING_LINK), due, "three\n", 1, nullptr},
      {"a hard link", M, 4096, plant(P::HARD_LINK), due, "three\n", 1, nullptr},
      {"a FIFO", M, 4096, plant(P::FIFO), due, "three\n", 1, nullptr},
      {"deleted", F, 4096, unlinkFile, due, "three\n", 1, nullptr},
      {"a link", F, 4096, plant(P::SYMLINK), due, "three\n", 1, nullptr},
      {"a hard link", F, 4096, plant(P::HARD_LINK), due, "three\n", 1, nullptr},
      {"renamed", F, 4096, renameFile, due, "three\n", 1, "one\ntwo\n"},
  };
  // clang-format on
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.what) + (c.mode == MMAP_WRITE ? " mmap" : " factory"));
    morvotest::MakeVictim(victim);
    root_.MakeDirs("/data/log/group");
    sinktest::OwnSink sink(base_, c.rotateKbytes, 10, c.mode);
    sink.StopMonitor();
    sink.stillClocks = true;
    ASSERT_EQ(sink.SetupOutput(), 0);
    ASSERT_EQ(sink.LogcatWrite("one\n", 4, true), 0);
    c.takeAway(sink.logFilePath);
    testing::internal::CaptureStderr();
    ASSERT_EQ(sink.LogcatWrite("two\n", 4, true), 0);
    std::string expected = c.mode == MMAP_WRITE ? "one\ntwo\n" : c.before ? "" : "two\n";
    EXPECT_TRUE(c.mode != MMAP_WRITE || sink.opens == 1) << sink.opens;
    sink.millis += c.waitMillis;
    for (int i = 0; i < c.records; ++i) {
      ASSERT_EQ(sink.LogcatWrite(c.record.data(), c.record.size(), true), 0);
      expected += c.record;
    }
    sink.LogcatClose();
    testing::internal::GetCapturedStderr();
    morvotest::ExpectOwnFile(sink.logFilePath, 0664);
    if (c.mode == MMAP_WRITE) {
      EXPECT_EQ(sinktest::LinkTarget(base_), sink.logFilePath);
      EXPECT_EQ(Zcat(sink.logFilePath), expected);
    } else {
      EXPECT_EQ(sink.logFilePath, base_);
      EXPECT_EQ(ReadFile(base_), expected);
      EXPECT_TRUE(c.before == nullptr || ReadFile(renamed) == c.before) << ReadFile(renamed);
    }
    morvotest::ExpectUntouched(victim);
    EXPECT_FALSE(Exists(victim + ".new"));
    ASSERT_EQ(system(("rm -rf " + dir_).c_str()), 0);
  }
}

// A limit of zero never deletes the file being written; each file gets its title.
TEST_F(RotationTest, AnMmapLimitOfZeroKeepsEveryFileEachWithItsTitle) {
  sinktest::OwnSink sink(base_, 1, 0, MMAP_WRITE);
  sink.title = "TITLE\n";
  EXPECT_EQ(sink.maxFiles, 0u);
  ASSERT_EQ(sink.SetupOutput(), 0);
  std::vector<std::string> files;
  for (int n = 0; n < 5; ++n) {
    WriteRecords(sink, n, n + 1);
    EXPECT_TRUE(Exists(sink.logFilePath)) << n;
    files.push_back(sink.logFilePath);
  }
  EXPECT_EQ(sink.opens, 5);
  EXPECT_EQ(SetFiles().size(), 5u);
  EXPECT_EQ(sink.fileVec.size(), 5u);
  sink.LogcatClose();
  for (int n = 0; n < 5; ++n) EXPECT_EQ(Zcat(files[n]), "TITLE\n" + Record(n)) << n;
}

// Mmap rotations while the monitor flushes from its own thread (TSan race check).
TEST_F(RotationTest, LongMmapRunsKeepEveryRecordOnceAndWhole) {
  constexpr int kRecords = 50000;
  std::vector<std::string> files;
  {
    sinktest::OwnSink sink(base_, 4, 1000, MMAP_WRITE);
    ASSERT_EQ(sink.SetupOutput(), 0);
    std::atomic<bool> done{false};
    std::thread opener([&] {
      const std::string dirs[] = {dir_, root_.Under("/data/log/ksv_log")};
      while (!done.load()) {
        for (const std::string& dir : dirs) {
          DIR* d = opendir(dir.c_str());
          if (d != nullptr) closedir(d);
        }
        usleep(200);
      }
    });
    int refused = -1;
    for (int n = 0; n < kRecords && refused < 0; ++n) {
      char head[32];  // record n in two parts of varying length: only its end allows a rotation
      snprintf(head, sizeof(head), "record %06d ", n);
      const std::string tail = std::string(static_cast<size_t>(n % 37), '.') + "\n";
      if (sink.LogcatWrite(head, strlen(head), false) != 0 ||
          sink.LogcatWrite(tail.data(), tail.size(), true) != 0)
        refused = n;
    }
    done.store(true);
    opener.join();
    ASSERT_EQ(refused, -1);
    ASSERT_GT(sink.fileVec.size(), 300u);
    files = sink.fileVec;
  }
  int next = 0;
  for (const std::string& file : files) {
    const std::string piece = Zcat(file);
    ASSERT_FALSE(piece.empty()) << file;
    ASSERT_EQ(piece.back(), '\n') << file << " ends inside a record";
    for (const std::string& line : morvotest::Lines(piece)) {
      int n = -1;
      ASSERT_EQ(sscanf(line.c_str(), "record %d ", &n), 1) << file;
      ASSERT_EQ(n, next) << file;
      ASSERT_EQ(line.size(), 14 + static_cast<size_t>(n % 37)) << "record " << n;
      ++next;
    }
  }
  EXPECT_EQ(next, kRecords);
}

}  // namespace
