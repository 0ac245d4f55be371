// The reader's rotating writer over the real memory-mapped writer: start-up
// over an existing folder, rotation, restarts, wrap-around and pruning.

#include <gtest/gtest.h>
#include <stdint.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "set_owners.h"
#include "support/gzip_text.h"
#include "support/planted.h"

namespace {

using settest::Indices;
using settest::MakeSetFile;
using settest::ReaderOwner;
using settest::SetName;

class MorvocatUtilsTest : public settest::SetDirTest {
 protected:
  // The set files now in the folder, in no particular order.
  size_t SetFilesOnDisk() const {
    ReaderOwner scan(base_, 0);
    scan.ProcessMmapFileVec(0);
    return scan.fileVec.size();
  }
};

TEST_F(MorvocatUtilsTest, EmptyPathChoosesNoFile) {
  ReaderOwner writer("", 10);
  EXPECT_TRUE(writer.IsMMapWriteMode());
  writer.Write("text", 4);
  writer.Flush();
  writer.InitLogFiles();
  writer.GetNewLog();
  EXPECT_EQ(1, writer.GetNewLogFileName());
  EXPECT_TRUE(writer.logFilePath.empty());
  EXPECT_TRUE(writer.fileVec.empty());
  EXPECT_FALSE(writer.IsLogFileAccess());
}

TEST_F(MorvocatUtilsTest, OtherModesAreNotMemoryMappedAndChooseNoFile) {
  MorvocatUtils plain(base_, 0, 10);
  EXPECT_FALSE(plain.IsMMapWriteMode());
  plain.Write("text", 4);
  EXPECT_EQ(1, plain.GetNewLogFileName());
  EXPECT_FALSE(plain.IsLogFileAccess());
  EXPECT_EQ(0u, SetFilesOnDisk());
}

TEST_F(MorvocatUtilsTest, StartRemovesThePlainSchemeAndKeepsTheSet) {
  std::vector<std::string> plain = {base_};
  for (int n = 1; n < 5; ++n) plain.push_back(base_ + "." + std::to_string(n));
  for (int n = 0; n < 10; ++n) plain.push_back(base_ + "-" + std::to_string(n) + ".tar.gz");
  for (const auto& name : plain) morvotest::WriteFile(name, "old");
  std::string kept = MakeSetFile(base_, 0);
  ReaderOwner writer(base_, 10);
  writer.InitLogFiles();
  for (const auto& name : plain) EXPECT_FALSE(morvotest::Exists(name)) << name;
  EXPECT_EQ(std::vector<std::string>{kept}, writer.fileVec);
  EXPECT_FALSE(writer.IsLogFileAccess());  // no file chosen yet
}

TEST_F(MorvocatUtilsTest, LimitThreeOverFiveFilesPrunesOnStartAndAfterEachNewFile) {
  std::vector<std::string> files;
  for (int index = 0; index < 5; ++index) files.push_back(MakeSetFile(base_, index));
  ReaderOwner writer(base_, 3);
  writer.InitLogFiles();
  EXPECT_FALSE(morvotest::Exists(files[0]));
  EXPECT_FALSE(morvotest::Exists(files[1]));
  EXPECT_EQ((std::vector<int>{2, 3, 4}), Indices(writer, writer.fileVec));

  writer.GetNewLog();
  EXPECT_EQ((std::vector<int>{3, 4, 5}), Indices(writer, writer.fileVec));
  EXPECT_EQ(writer.fileVec.back(), writer.logFilePath);
  EXPECT_FALSE(morvotest::Exists(files[2]));
  EXPECT_TRUE(writer.IsLogFileAccess());
  EXPECT_EQ(0664u, settest::ModeOf(writer.logFilePath));
}

TEST_F(MorvocatUtilsTest, RestartContinuesInAnEmptyNewestFileAsItIs) {
  MakeSetFile(base_, 0);
  std::string empty = SetName(base_, 1, "20240105-081502");
  morvotest::WriteFile(empty, "");
  ReaderOwner writer(base_, 10);
  writer.InitLogFiles();
  writer.GetNewLog();
  EXPECT_EQ(empty, writer.logFilePath);
  EXPECT_EQ(2u, writer.fileVec.size());

  writer.Write("continued\n", 64);
  writer.Flush();
  EXPECT_EQ("continued\n", morvotest::Gunzip(empty));
}

TEST_F(MorvocatUtilsTest, RestartOpensTheIndexAfterTheNewest) {
  MakeSetFile(base_, 3, "20240101-000000");
  MakeSetFile(base_, 4, "20240301-000000");
  MakeSetFile(base_, 10, "20240101-000000");
  MakeSetFile(base_, 11, "20240101-000000");
  ReaderOwner writer(base_, 10);
  writer.InitLogFiles();
  writer.GetNewLog();
  EXPECT_EQ((std::vector<int>{10, 11, 3, 4, 5}), Indices(writer, writer.fileVec));
  EXPECT_EQ("005", writer.GetIndex(writer.logFilePath));
}

TEST_F(MorvocatUtilsTest, RestartAfterIndex999WrapsTo000) {
  for (int index : {997, 998, 999}) MakeSetFile(base_, index);
  ReaderOwner writer(base_, 10);
  writer.InitLogFiles();
  writer.GetNewLog();
  EXPECT_EQ((std::vector<int>{997, 998, 999, 0}), Indices(writer, writer.fileVec));

  // The same set found again after the wrap keeps its order.
  writer.Write("x\n", 2);
  writer.Flush();
  ReaderOwner again(base_, 10);
  again.InitLogFiles();
  again.GetNewLog();
  EXPECT_EQ((std::vector<int>{997, 998, 999, 0, 1}), Indices(again, again.fileVec));
}

TEST_F(MorvocatUtilsTest, TwoNewFilesInOneSecondDifferOnlyInTheIndex) {
  ReaderOwner writer(base_, 0);
  writer.InitLogFiles();
  std::string first;
  std::string second;
  for (int attempt = 0; attempt < 5; ++attempt) {
    writer.Write("a record\n", 64);
    writer.GetNewLog();
    first = writer.logFilePath;
    writer.Write("another\n", 64);
    writer.Flush();
    writer.GetNewLog();
    second = writer.logFilePath;
    ASSERT_NE(first, second);
    if (writer.GetTimestamp(first) == writer.GetTimestamp(second)) break;
    writer.Write("z\n", 2);  // crossed a second: try again from a full file
    writer.Flush();
  }
  ASSERT_EQ(writer.GetTimestamp(first), writer.GetTimestamp(second));
  EXPECT_EQ(writer.ConvertStringToIndex(writer.GetIndex(first)),
            static_cast<uint32_t>(atoi(writer.GetIndex(second).c_str())));
  std::string withoutIndex = first;
  withoutIndex.replace(base_.size() + 2, 3, writer.GetIndex(second));
  EXPECT_EQ(second, withoutIndex);
  EXPECT_TRUE(morvotest::Exists(first));
}

TEST_F(MorvocatUtilsTest, WriteStopsAtTheFirstNulOrTheMaximumLength) {
  ReaderOwner writer(base_, 10);
  writer.InitLogFiles();
  writer.Write("abc\0def", 7);  // before any file is chosen
  writer.GetNewLog();
  writer.Write("xyzw", 2);
  writer.Write(nullptr, 5);
  writer.Flush();
  EXPECT_EQ("abcxy", morvotest::Gunzip(writer.logFilePath));
}

TEST_F(MorvocatUtilsTest, DeletedCurrentFileIsNoticedAndReplaced) {
  MakeSetFile(base_, 6);
  ReaderOwner writer(base_, 10);
  EXPECT_FALSE(writer.IsLogFileAccess());
  writer.InitLogFiles();
  writer.GetNewLog();
  ASSERT_TRUE(writer.IsLogFileAccess());
  std::string lost = writer.logFilePath;
  ASSERT_EQ(0, unlink(lost.c_str()));
  EXPECT_FALSE(writer.IsLogFileAccess());

  writer.InitLogFiles();
  writer.GetNewLog();
  EXPECT_TRUE(writer.IsLogFileAccess());
  EXPECT_EQ((std::vector<int>{6, 7}), Indices(writer, writer.fileVec));
  writer.Write("after\n", 6);
  writer.Flush();
  EXPECT_EQ("after\n", morvotest::Gunzip(writer.logFilePath));
}

TEST_F(MorvocatUtilsTest, LimitZeroPrunesNothingBelowTheCap) {
  std::vector<std::string> files;
  for (int index = 0; index < 5; ++index) files.push_back(MakeSetFile(base_, index));
  ReaderOwner writer(base_, 0);
  writer.InitLogFiles();
  writer.GetNewLog();
  EXPECT_EQ(6u, writer.fileVec.size());
  for (const auto& name : files) EXPECT_TRUE(morvotest::Exists(name)) << name;
  EXPECT_TRUE(writer.IsLogFileAccess());
}

TEST_F(MorvocatUtilsTest, SetThatWrappedSeveralTimesStaysBoundedAndOrdered) {
  constexpr int kFiles = 2345;
  ReaderOwner writer(base_, 4);
  writer.InitLogFiles();
  for (int i = 0; i < kFiles; ++i) {
    writer.GetNewLog();
    writer.Write((std::to_string(i) + "\n").c_str(), 16);
    writer.Flush();
    ASSERT_EQ(writer.fileVec.back(), writer.logFilePath) << i;
    std::vector<int> indices = Indices(writer, writer.fileVec);
    ASSERT_LE(indices.size(), 4u);
    for (size_t k = 1; k < indices.size(); ++k) {
      ASSERT_EQ((indices[k - 1] + 1) % 1000, indices[k]) << i;
    }
  }
  writer.Write("last\n", 16);
  writer.Flush();
  EXPECT_EQ((std::vector<int>{341, 342, 343, 344}), Indices(writer, writer.fileVec));
  EXPECT_EQ("2342\n", morvotest::Gunzip(writer.fileVec[1]));
  EXPECT_EQ("2344\nlast\n", morvotest::Gunzip(writer.fileVec[3]));
  EXPECT_EQ(4u, SetFilesOnDisk());

  ReaderOwner restarted(base_, 4);
  restarted.InitLogFiles();
  restarted.GetNewLog();
  EXPECT_EQ((std::vector<int>{342, 343, 344, 345}), Indices(restarted, restarted.fileVec));
}

// Without a limit the set keeps as many files as it can name; a restart
// must still go on after the file that was really the newest.
TEST_F(MorvocatUtilsTest, RestartOverAFullWrappedSetContinuesAfterTheNewest) {
  constexpr int kFiles = 1300;
  ReaderOwner writer(base_, 0);
  writer.InitLogFiles();
  for (int i = 0; i < kFiles; ++i) {
    writer.GetNewLog();
    writer.Write((std::to_string(i) + "\n").c_str(), 16);
    writer.Flush();
  }
  EXPECT_EQ(999u, SetFilesOnDisk());
  ReaderOwner restarted(base_, 0);
  restarted.InitLogFiles();
  restarted.GetNewLog();
  std::vector<int> indices = Indices(restarted, restarted.fileVec);
  ASSERT_EQ(999u, indices.size());
  EXPECT_EQ(302, indices.front());
  EXPECT_EQ(300, indices.back());
}

TEST_F(MorvocatUtilsTest, FileSizeComesFromTheFileStatus) {
  ReaderOwner writer(base_, 10);
  std::string name = MakeSetFile(base_, 1);
  EXPECT_EQ(5u, writer.GetFileSize(name));
  EXPECT_EQ(UINT64_MAX, writer.GetFileSize(base_ + ".missing"));
}

// What a local user puts at the name of the next file is removed and the
// writer's own file made there; the file outside the tree stays as it was.
TEST_F(MorvocatUtilsTest, WhatIsPlantedAtTheNextNameIsReplacedNeverUsed) {
  const std::string victim = root_.Under("/victim");
  int set = 0;
  for (morvotest::Plant plant :
       {morvotest::Plant::HARD_LINK, morvotest::Plant::SYMLINK, morvotest::Plant::FIFO}) {
    SCOPED_TRACE(morvotest::NameOf(plant));
    morvotest::MakeVictim(victim);
    const std::string base = dir_ + "/planted" + std::to_string(set++);
    ReaderOwner writer(base, 0);
    writer.InitLogFiles();
    const std::vector<std::string> coming = morvotest::ComingSetNames(base, 0);
    for (const std::string& name : coming) morvotest::PlantAt(name, plant, victim);
    EXPECT_EQ(0, writer.GetNewLogFileName());
    writer.Write("mine\n", 64);
    writer.Flush();
    morvotest::ExpectUntouched(victim);
    ASSERT_NE(std::find(coming.begin(), coming.end(), writer.logFilePath), coming.end());
    morvotest::ExpectOwnFile(writer.logFilePath, 0664);
    EXPECT_EQ("mine\n", morvotest::Gunzip(writer.logFilePath));
  }
}

// The current file counts as there only as a regular file of one name: a
// link, a FIFO or a second name put in its place makes the caller open a
// new file of its own.
TEST_F(MorvocatUtilsTest, CurrentFileIsThereOnlyAsItsOwnRegularFile) {
  const std::string victim = root_.Under("/victim");
  morvotest::MakeVictim(victim);
  for (morvotest::Plant plant : {morvotest::Plant::SYMLINK, morvotest::Plant::HARD_LINK,
                                 morvotest::Plant::FIFO, morvotest::Plant::DANGLING_LINK}) {
    SCOPED_TRACE(morvotest::NameOf(plant));
    ReaderOwner writer(base_, 0);
    writer.InitLogFiles();
    writer.GetNewLog();
    ASSERT_TRUE(writer.IsLogFileAccess());
    ASSERT_EQ(0, unlink(writer.logFilePath.c_str()));
    morvotest::PlantAt(writer.logFilePath, plant, victim);
    EXPECT_FALSE(writer.IsLogFileAccess());
    unlink(writer.logFilePath.c_str());
  }
  // The own file given a second name elsewhere.
  ReaderOwner writer(base_, 0);
  writer.InitLogFiles();
  writer.GetNewLog();
  ASSERT_EQ(0, link(writer.logFilePath.c_str(), (dir_ + "/second").c_str()));
  EXPECT_FALSE(writer.IsLogFileAccess());
  morvotest::ExpectUntouched(victim);
}

}  // namespace
