// The rules in which the reader's writer and the collector's group sink
// differ: old-style names and their sweep, continuing an empty newest file,
// forming and pruning in the numbered scheme, and the 1000-file cap.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "set_owners.h"
#include "support/planted.h"

namespace {

using settest::CollectorOwner;
using settest::Indices;
using settest::MakeSetFile;
using settest::ReaderOwner;
using settest::TavobaseOwner;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

class OwnerRulesTest : public settest::SetDirTest {
 protected:
  std::string Numbered(int n) const { return platform::OldStyleNumberedName(base_, n); }
  std::string Archive(int n) const { return platform::ArchiveName(base_, n); }
  // The base path, B.0 to B.5 and B-0.tar.gz to B-10.tar.gz.
  void MakeOldStyleFiles() const {
    morvotest::WriteFile(base_, "x");
    for (int n = 0; n <= 5; ++n) morvotest::WriteFile(Numbered(n), "x");
    for (int n = 0; n <= 10; ++n) morvotest::WriteFile(Archive(n), "x");
  }
};

TEST_F(OwnerRulesTest, ReaderSweepsSilentlyEveryTimeAndLeavesFormingToTheCaller) {
  MakeOldStyleFiles();
  std::string kept = MakeSetFile(base_, 3);
  std::string wrongLength = base_ + ".I03.20240105-081502.gz";
  morvotest::WriteFile(wrongLength, "x");
  ReaderOwner reader(base_, 10);
  reader.fileVec = {kept};
  CaptureStderr();
  reader.DeleteOldStyleFiles();
  EXPECT_EQ("", GetCapturedStderr());
  EXPECT_TRUE(reader.fileVec.empty());
  EXPECT_FALSE(morvotest::Exists(base_));
  for (int n = 1; n < 5; ++n) EXPECT_FALSE(morvotest::Exists(Numbered(n))) << n;
  for (int n = 0; n < 10; ++n) EXPECT_FALSE(morvotest::Exists(Archive(n))) << n;
  EXPECT_TRUE(morvotest::Exists(Numbered(0)));
  EXPECT_TRUE(morvotest::Exists(Numbered(5)));
  EXPECT_TRUE(morvotest::Exists(Archive(10)));
  EXPECT_TRUE(morvotest::Exists(kept));
  EXPECT_TRUE(morvotest::Exists(wrongLength));  // no purge

  // Still recognised afterwards, and swept again on the next call.
  EXPECT_TRUE(reader.DetectOldStyleFiles(Numbered(1).c_str()));
  morvotest::WriteFile(Numbered(2), "x");
  reader.DeleteOldStyleFiles();
  EXPECT_FALSE(morvotest::Exists(Numbered(2)));
}

TEST_F(OwnerRulesTest, ReaderSweepsOnlyInMemoryMappedModeWithABasePath) {
  MakeOldStyleFiles();
  MorvocatUtils plain(base_, 0, 10);
  plain.DeleteOldStyleFiles();
  MorvocatUtils unnamed("", MorvocatUtils::kMMapWriteMode, 10);
  unnamed.DeleteOldStyleFiles();
  EXPECT_TRUE(morvotest::Exists(base_));
  EXPECT_TRUE(morvotest::Exists(Numbered(1)));
  EXPECT_TRUE(morvotest::Exists(Archive(9)));
}

TEST_F(OwnerRulesTest, CollectorSweepsOnceLoudlyThenPurgesAndForms) {
  for (int n = 0; n < 3; ++n) {
    morvotest::WriteFile(Numbered(n), "x");
    morvotest::WriteFile(Archive(n), "x");
  }
  morvotest::WriteFile(Archive(7), "x");
  std::string kept = MakeSetFile(base_, 3);
  std::string wrongLength = base_ + ".I03.20240105-081502.gz";
  morvotest::WriteFile(wrongLength, "x");

  CollectorOwner sink(base_, 10);
  CaptureStderr();
  sink.DeleteOldStyleFiles();
  std::string messages = GetCapturedStderr();
  std::string missing;
  for (int n = 3; n < 5; ++n) {
    missing += "unlink [" + Numbered(n) + "] fail\n";
    missing += "unlink [" + Archive(n) + "] fail\n";
  }
  EXPECT_EQ(missing, messages);
  for (int n = 0; n < 3; ++n) EXPECT_FALSE(morvotest::Exists(Numbered(n))) << n;
  EXPECT_FALSE(morvotest::Exists(wrongLength));
  EXPECT_FALSE(morvotest::Exists(Archive(7)));  // not an old name: purged by its length
  EXPECT_FALSE(sink.oldStyleCheck);
  EXPECT_EQ(std::vector<std::string>{kept}, sink.fileVec);

  // Once per set: old names are now plain names, and a second call is idle.
  EXPECT_FALSE(sink.DetectOldStyleFiles(Numbered(1).c_str()));
  morvotest::WriteFile(Numbered(1), "x");
  CaptureStderr();
  sink.DeleteOldStyleFiles();
  EXPECT_EQ("", GetCapturedStderr());
  EXPECT_TRUE(morvotest::Exists(Numbered(1)));
}

TEST_F(OwnerRulesTest, CollectorNumberedSchemeDropsIndexedFilesAndKeepsNoList) {
  std::vector<std::string> indexed = {MakeSetFile(base_, 0), MakeSetFile(base_, 1),
                                      MakeSetFile(base_, 2)};
  morvotest::WriteFile(Numbered(1), "x");
  CollectorOwner sink(base_, 1, SetScheme::NUMBERED);
  sink.FormFileVectors();  // before the sweep it still lists and never prunes
  EXPECT_EQ((std::vector<int>{0, 1, 2}), Indices(sink, sink.fileVec));
  sink.RemoveRedundancy();
  EXPECT_EQ(3u, sink.fileVec.size());

  std::string gone = settest::SetName(base_, 9, "20240105-081502");
  sink.fileVec.push_back(gone);
  CaptureStderr();
  sink.DeleteOldStyleFiles();
  EXPECT_EQ("unlink [" + gone + "] fail\n", GetCapturedStderr());
  for (const std::string& name : indexed) EXPECT_FALSE(morvotest::Exists(name)) << name;
  EXPECT_TRUE(morvotest::Exists(Numbered(1)));  // the scheme's own file
  EXPECT_TRUE(sink.fileVec.empty());

  MakeSetFile(base_, 5);
  sink.fileVec = {"kept as it is"};
  sink.FormFileVectors();
  EXPECT_EQ(std::vector<std::string>{"kept as it is"}, sink.fileVec);
}

TEST_F(OwnerRulesTest, OnlyTheReaderContinuesAnEmptyNewestFile) {
  MakeSetFile(base_, 0);
  std::string empty = settest::SetName(base_, 1, "20240105-081502");
  morvotest::WriteFile(empty, "");
  ReaderOwner reader(base_, 10);
  reader.FormFileVectors();
  // Forming gave the empty file its empty member; it still holds no record.
  EXPECT_EQ("", morvotest::Zcat(empty));
  EXPECT_EQ(filesets::kContinueNewest, reader.GetNewLogFileIndex());
  EXPECT_EQ(filesets::kContinueNewest, reader.GetNewLogFileIndex(reader.fileVec));
  CollectorOwner sink(base_, 10);
  sink.FormFileVectors();
  EXPECT_EQ(2u, sink.GetNewLogFileIndex(sink.fileVec));

  // A newest entry whose status cannot be read is not an empty file.
  reader.fileVec.push_back(settest::SetName(base_, 2, "20240105-081502"));
  EXPECT_EQ(3u, reader.GetNewLogFileIndex());
}

TEST_F(OwnerRulesTest, BothOwnersKeepOneIndexFreeWhateverTheLimit) {
  std::vector<std::string> names;
  for (int index = 0; index < 1000; ++index) names.push_back(MakeSetFile(base_, index));
  names.push_back(MakeSetFile(base_, 0, "20240301-000000"));
  ReaderOwner reader(base_, 5000);
  reader.fileVec = names;
  reader.RemoveRedundancy();
  EXPECT_EQ(999u, reader.fileVec.size());
  EXPECT_FALSE(morvotest::Exists(names[1]));

  CollectorOwner sink(base_, 1000);
  sink.fileVec = std::vector<std::string>(names.begin() + 2, names.end());
  sink.fileVec.push_back(MakeSetFile(base_, 1, "20240301-000000"));
  sink.RemoveRedundancy();
  EXPECT_EQ(999u, sink.fileVec.size());
  EXPECT_FALSE(morvotest::Exists(names[2]));
}

// What stands at the newest name instead of the reader's own empty file (a
// link to an empty file outside, a second name of one) is not continued:
// the writer would write through it, or refuse it and keep the records.
TEST_F(OwnerRulesTest, ReaderContinuesOnlyItsOwnEmptyFile) {
  const std::string victim = root_.Under("/victim");
  MakeSetFile(base_, 0);
  std::string newest = settest::SetName(base_, 1, "20240105-081502");
  for (morvotest::Plant plant : {morvotest::Plant::SYMLINK, morvotest::Plant::HARD_LINK}) {
    SCOPED_TRACE(morvotest::NameOf(plant));
    morvotest::WriteFile(newest, "");
    ReaderOwner reader(base_, 10);
    reader.FormFileVectors();
    ASSERT_EQ(newest, reader.fileVec.back());
    morvotest::WriteFile(victim, "");
    ASSERT_EQ(0, unlink(newest.c_str()));
    morvotest::PlantAt(newest, plant, victim);
    EXPECT_EQ(2u, reader.GetNewLogFileIndex());
    unlink(newest.c_str());
    unlink(victim.c_str());
  }
}

// The file each owner opens is a whole gzip stream before its first flush,
// and stays one, record after record.
TEST_F(OwnerRulesTest, EachOwnersNewFileIsAWholeGzipStreamFromTheStart) {
  ReaderOwner reader(dir_ + "/reader", 10);
  reader.InitLogFiles();
  reader.GetNewLog();
  TavobaseOwner sink(base_, 10);
  sink.FormFileVectors();
  sink.OpenLogFile();
  ASSERT_EQ(1u, sink.fileVec.size());
  for (const std::string& name : {reader.logFilePath, sink.fileVec.back()}) {
    EXPECT_EQ("", morvotest::Zcat(name)) << name;
  }
  reader.Write("one\n", 16);
  reader.Flush();
  sink.MmapWrite("two\n", 4, true);
  sink.MmapClose();
  EXPECT_EQ("one\n", morvotest::Zcat(reader.logFilePath));
  EXPECT_EQ("two\n", morvotest::Zcat(sink.fileVec.back()));
}

// A group with the default limit restarted over a set holding all 1000
// indices: setup and the first rotation (which forms the set again) keep
// the previous run's newest files and go on after them.
TEST_F(OwnerRulesTest, GroupRestartOverAFullSetKeepsTheNewestThroughItsFirstRotation) {
  for (uint64_t limit : {uint64_t{0}, uint64_t{999}}) {
    SCOPED_TRACE(limit);
    for (const std::string& name : morvotest::SetFiles(dir_, "applog")) unlink(name.c_str());
    std::vector<std::string> written;
    for (int k = 0; k < 1000; ++k) {
      written.push_back(settest::SetName(base_, (301 + k) % 1000, settest::StampAfter(k)));
      morvotest::WriteFile(written.back(), "data\n");
    }
    TavobaseOwner sink(base_, limit);
    sink.FormFileVectors();
    sink.OpenLogFile();
    EXPECT_LE(morvotest::SetFiles(dir_, "applog").size(), 999u);
    testing::internal::CaptureStderr();
    sink.RotateLog(uint64_t{4096} << 10);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(999u, morvotest::SetFiles(dir_, "applog").size());
    ASSERT_EQ(999u, sink.fileVec.size());
    EXPECT_EQ((std::vector<int>{300, 301, 302}),
              Indices(sink, {sink.fileVec.end() - 3, sink.fileVec.end()}));
    EXPECT_EQ(written.back(), sink.fileVec[996]);
    for (size_t k = 3; k < written.size(); ++k) {
      ASSERT_TRUE(morvotest::Exists(written[k])) << written[k];
    }
  }
}

}  // namespace
