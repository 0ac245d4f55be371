// Factory mode: plain P, numbered renames, archives of five, and what
// happens to the members when an archive cannot be made.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sink_support.h"

namespace {

using sinktest::GroupConfig;
using sinktest::TestSink;
using TavoCommon::FACTORY_WRITE;

class FactoryRotationTest : public sinktest::SinkTest {
 protected:
  std::string Numbered(int n) const { return base_ + "." + std::to_string(n); }
  std::string Archive(int n) const { return base_ + "-" + std::to_string(n) + ".tar.gz"; }
  std::string Work() const { return base_ + "_tmp"; }
  // A 700-byte record naming n: with a threshold of 1 KiB every record
  // after the first starts a new file, so each file holds one record.
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
  // The archive holds B.1 to B.5, newest first, ending with record last.
  void ExpectArchive(int k, int last) const {
    const std::vector<std::string> members = {"applog.1", "applog.2", "applog.3", "applog.4",
                                              "applog.5"};
    EXPECT_EQ(sinktest::TarMembers(Archive(k)), members) << k;
    for (int n = 1; n <= 5; ++n) {
      EXPECT_EQ(sinktest::TarMember(Archive(k), "applog." + std::to_string(n)),
                Record(last - n + 1))
          << k << " member " << n;
    }
  }
};

TEST_F(FactoryRotationTest, ArchivesKeepTheNewestFilesAndDropTheOldest) {
  GroupConfig config(base_, 1, 10);  // two archives of five
  TestSink sink(config, FACTORY_WRITE);
  EXPECT_EQ(sink.maxFiles, 2u);
  ASSERT_EQ(sink.SetupOutput(), 0);
  EXPECT_EQ(sink.logFilePath, base_);
  WriteRecords(sink, 0, 3);
  EXPECT_EQ(morvotest::ReadFile(Numbered(2)), Record(0));
  EXPECT_EQ(morvotest::ReadFile(Numbered(1)), Record(1));
  EXPECT_FALSE(morvotest::Exists(Numbered(3)));

  WriteRecords(sink, 3, 6);  // the sixth record's rotation packs 0 to 4
  ExpectArchive(0, 4);
  EXPECT_FALSE(morvotest::Exists(Numbered(1)));
  EXPECT_FALSE(morvotest::Exists(Work()));

  WriteRecords(sink, 6, 16);
  ExpectArchive(0, 14);
  ExpectArchive(1, 9);
  EXPECT_FALSE(morvotest::Exists(Archive(2)));
  EXPECT_EQ(morvotest::ReadFile(base_), Record(15));
  for (int n = 1; n <= 5; ++n) EXPECT_FALSE(morvotest::Exists(Numbered(n))) << n;
  EXPECT_EQ(sinktest::ModeOf(base_), 0664u);
}

TEST_F(FactoryRotationTest, ARestartAppendsToTheSameFile) {
  GroupConfig config(base_, 4096, 10);
  {
    TestSink sink(config, FACTORY_WRITE);
    ASSERT_EQ(sink.SetupOutput(), 0);
    ASSERT_EQ(sink.LogcatWrite("one\n", 4, true), 0);
  }
  TestSink sink(config, FACTORY_WRITE);
  ASSERT_EQ(sink.SetupOutput(), 0);
  EXPECT_EQ(sink.curFileSize, 4u);
  ASSERT_EQ(sink.LogcatWrite("two\n", 4, true), 0);
  EXPECT_EQ(morvotest::ReadFile(base_), "one\ntwo\n");
}

TEST_F(FactoryRotationTest, OneArchiveIsReplacedEachTime) {
  GroupConfig config(base_, 1, 1);
  TestSink sink(config, FACTORY_WRITE);
  EXPECT_EQ(sink.maxFiles, 1u);
  ASSERT_EQ(sink.SetupOutput(), 0);
  WriteRecords(sink, 0, 11);
  ExpectArchive(0, 9);
  EXPECT_FALSE(morvotest::Exists(Archive(1)));
}

TEST_F(FactoryRotationTest, AFailedArchiveKeepsItsMembersUntilOneCanBeMade) {
  GroupConfig config(base_, 1, 10);
  TestSink sink(config, FACTORY_WRITE);
  ASSERT_EQ(sink.SetupOutput(), 0);
  // Folders where the archives go: the shift cannot move them, and no
  // archive can be written over them.
  root_.MakeDirs("/data/log/group/applog-1.tar.gz/in");
  root_.MakeDirs("/data/log/group/applog-0.tar.gz");
  testing::internal::CaptureStderr();
  WriteRecords(sink, 0, 6);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("compress ["), std::string::npos) << err;
  for (int n = 1; n <= 5; ++n) {
    EXPECT_EQ(morvotest::ReadFile(Work() + "/applog." + std::to_string(n)), Record(5 - n)) << n;
  }
  std::string command =
      "rm -rf " + sinktest::Quoted(Archive(0)) + " " + sinktest::Quoted(Archive(1));
  ASSERT_EQ(system(command.c_str()), 0);
  // The kept members are packed before the next five move in.
  WriteRecords(sink, 6, 11);
  ExpectArchive(1, 4);
  ExpectArchive(0, 9);
  EXPECT_FALSE(morvotest::Exists(Work()));
}

TEST_F(FactoryRotationTest, AStaleEmptyWorkFolderIsUsed) {
  GroupConfig config(base_, 1, 10);
  TestSink sink(config, FACTORY_WRITE);
  ASSERT_EQ(sink.SetupOutput(), 0);
  root_.MakeDirs("/data/log/group/applog_tmp");
  testing::internal::CaptureStderr();
  WriteRecords(sink, 0, 6);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("couldn't create compress dir"), std::string::npos) << err;
  ExpectArchive(0, 4);
  EXPECT_FALSE(morvotest::Exists(Work()));
}

TEST_F(FactoryRotationTest, LinksOfAnEarlierMmapRunGiveWayToPlainFiles) {
  root_.MakeDirs("/data/log/group");
  morvotest::WriteFile(dir_ + "/target", "kept");
  ASSERT_EQ(symlink((dir_ + "/target").c_str(), base_.c_str()), 0);
  ASSERT_EQ(symlink((dir_ + "/target").c_str(), Numbered(1).c_str()), 0);
  GroupConfig config(base_, 4096, 10);
  TestSink sink(config, FACTORY_WRITE);
  ASSERT_EQ(sink.SetupOutput(), 0);
  EXPECT_FALSE(sinktest::IsLink(base_));
  EXPECT_FALSE(sinktest::IsLink(Numbered(1)));
  ASSERT_EQ(sink.LogcatWrite("x\n", 2, true), 0);
  EXPECT_EQ(morvotest::ReadFile(base_), "x\n");
  EXPECT_EQ(morvotest::ReadFile(dir_ + "/target"), "kept");
  EXPECT_EQ(sinktest::ModeOf(base_), 0664u);
}

// What a local user puts at P before the group opens it, or again before a
// rotation, is removed and P made as a plain file of the group's own: a
// link is never followed (not even a dangling one, which would make a file
// outside the tree), a FIFO never blocks the group, and a second name of an
// outside file is never written.
TEST_F(FactoryRotationTest, WhatIsPlantedAtPIsReplacedByAPlainFile) {
  const std::string victim = root_.Under("/victim");
  int group = 0;
  for (morvotest::Plant plant : {morvotest::Plant::DANGLING_LINK, morvotest::Plant::FIFO,
                                 morvotest::Plant::HARD_LINK, morvotest::Plant::SYMLINK}) {
    SCOPED_TRACE(morvotest::NameOf(plant));
    morvotest::MakeVictim(victim);
    const std::string base = dir_ + "/planted" + std::to_string(group++);
    morvotest::PlantAt(base, plant, victim);
    morvotest::PlantAt(base + ".1", plant, victim);
    GroupConfig config(base, 1, 10);
    TestSink sink(config, FACTORY_WRITE);
    ASSERT_EQ(sink.SetupOutput(), 0);
    const std::string record = Record(0);
    ASSERT_EQ(sink.LogcatWrite(record.data(), record.size(), true), 0);
    morvotest::ExpectOwnFile(base, 0664);
    EXPECT_EQ(morvotest::ReadFile(base), record);
    EXPECT_FALSE(sinktest::IsLink(base + ".1"));
    // P given away between rotations: the group goes on in a file of its own.
    ASSERT_EQ(rename(base.c_str(), (base + ".taken").c_str()), 0);
    morvotest::PlantAt(base, plant, victim);
    ASSERT_EQ(sink.LogcatWrite(record.data(), record.size(), true), 0);
    morvotest::ExpectOwnFile(base, 0664);
    EXPECT_EQ(morvotest::ReadFile(base), record);
    morvotest::ExpectUntouched(victim);
    EXPECT_FALSE(morvotest::Exists(victim + ".new"));
  }
}

// Links and second names of outside files put at the numbered names are
// dropped by the shift, never handed on to the archive step.
TEST_F(FactoryRotationTest, WhatIsPlantedAtNumberedNamesNeverReachesAnArchive) {
  const std::string victim = root_.Under("/victim");
  morvotest::MakeVictim(victim);
  GroupConfig config(base_, 1, 10);
  TestSink sink(config, FACTORY_WRITE);
  ASSERT_EQ(sink.SetupOutput(), 0);
  morvotest::PlantAt(Numbered(2), morvotest::Plant::SYMLINK, victim);
  morvotest::PlantAt(Numbered(3), morvotest::Plant::HARD_LINK, victim);
  morvotest::PlantAt(Numbered(4), morvotest::Plant::SYMLINK, victim);
  WriteRecords(sink, 0, 6);
  ExpectArchive(0, 4);
  EXPECT_FALSE(morvotest::Exists(Archive(1)));
  morvotest::ExpectUntouched(victim);
}

}  // namespace
