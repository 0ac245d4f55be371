// The reader's rotating writer over the real memory-mapped writer: start-up
// over an existing folder, rotation, restarts, wrap-around and pruning.

#include <gtest/gtest.h>
#include <stdint.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "set_owners.h"
#include "support/planted.h"

namespace {

using morvotest::SetFiles;
using settest::Indices;
using settest::MakeSetFile;
using settest::ReaderOwner;

class MorvocatUtilsTest : public settest::SetDirTest {};

// A writer that is not memory-mapped or has no path chooses no file.
TEST_F(MorvocatUtilsTest, OtherModesAndEmptyPathsChooseNoFile) {
  ReaderOwner unnamed("", 10);
  MorvocatUtils plain(base_, 0, 10);
  EXPECT_TRUE(unnamed.IsMMapWriteMode());
  EXPECT_FALSE(plain.IsMMapWriteMode());
  for (MorvocatUtils* writer : {static_cast<MorvocatUtils*>(&unnamed), &plain}) {
    writer->Write("text", 4);
    writer->Flush();
    writer->InitLogFiles();
    writer->GetNewLog();
    EXPECT_EQ(1, writer->GetNewLogFileName());
    EXPECT_FALSE(writer->IsLogFileAccess());
  }
  EXPECT_TRUE(unnamed.logFilePath.empty());
  EXPECT_TRUE(unnamed.fileVec.empty());
  EXPECT_EQ(0u, SetFiles(dir_, "applog").size());
}

// Start over what is in the folder, open a file, write, restart: "e" marks
// an empty file, "@L" the later stamp; the other files hold a record.
TEST_F(MorvocatUtilsTest, StartNewFileAndRestartTable) {
  struct Row {
    const char* what;
    std::vector<std::string> files;
    uint64_t limit;
    std::vector<int> started, opened, restarted;
    bool plainScheme = false;  // the base path, .1 to .4, -0 to -9.tar.gz: removed
  };
  const std::vector<Row> rows = {
      {"limit 3 over 5 prunes on start and after each new file",
       {"0", "1", "2", "3", "4"},
       3,
       {2, 3, 4},
       {3, 4, 5},
       {4, 5, 6}},
      {"limit 0 prunes nothing below the cap",
       {"0", "1", "2", "3", "4"},
       0,
       {0, 1, 2, 3, 4},
       {0, 1, 2, 3, 4, 5},
       {0, 1, 2, 3, 4, 5, 6}},
      {"an empty newest file is continued as it is", {"0", "1e"}, 10, {0, 1}, {0, 1}, {0, 1, 2}},
      {"the index after the newest",
       {"3", "4@L", "10", "11"},
       10,
       {10, 11, 3, 4},
       {10, 11, 3, 4, 5},
       {10, 11, 3, 4, 5, 6}},
      {"999 wraps to 000",
       {"997", "998", "999"},
       10,
       {997, 998, 999},
       {997, 998, 999, 0},
       {997, 998, 999, 0, 1}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    for (const std::string& name : SetFiles(dir_, "applog")) unlink(name.c_str());
    std::vector<std::string> files;
    for (std::string code : row.files) {
      bool empty = code.back() == 'e';
      if (empty) code.pop_back();
      files.push_back(settest::Coded(base_, code));
      morvotest::WriteFile(files.back(), empty ? "" : "data\n");
    }
    std::vector<std::string> plain = {base_};
    for (int n = 1; n < 5; ++n) plain.push_back(platform::NumberedName(base_, n));
    for (int n = 0; n < 10; ++n) plain.push_back(platform::ArchiveName(base_, n));
    for (const auto& name : plain) {
      if (row.plainScheme) morvotest::WriteFile(name, "old");
    }
    ReaderOwner writer(base_, row.limit);
    writer.InitLogFiles();
    for (const auto& name : plain) EXPECT_FALSE(morvotest::Exists(name)) << name;
    EXPECT_FALSE(writer.IsLogFileAccess());  // no file chosen yet
    EXPECT_EQ(row.started, Indices(writer, writer.fileVec));
    writer.GetNewLog();
    EXPECT_EQ(row.opened, Indices(writer, writer.fileVec));
    EXPECT_EQ(writer.fileVec.back(), writer.logFilePath);
    EXPECT_TRUE(writer.IsLogFileAccess());
    EXPECT_EQ(0664u, settest::ModeOf(writer.logFilePath));
    for (size_t i = 0; i < files.size(); ++i) {
      int index = Indices(writer, {files[i]})[0];
      bool kept = std::find(row.opened.begin(), row.opened.end(), index) != row.opened.end();
      EXPECT_EQ(kept, morvotest::Exists(files[i])) << files[i];
    }
    writer.Write("continued\n", 64);
    writer.Flush();
    EXPECT_EQ("continued\n", morvotest::Gunzip(writer.logFilePath));
    ReaderOwner again(base_, row.limit);
    again.InitLogFiles();
    again.GetNewLog();
    EXPECT_EQ(row.restarted, Indices(again, again.fileVec));
  }
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

// Many files written in one run, then a restart: the set stays bounded and
// in order, and the restart goes on after the file that was really newest
// (without a limit the set keeps as many files as it can name).
TEST_F(MorvocatUtilsTest, WrappedSetsStayBoundedOrderedAndRestartAfterTheNewest) {
  struct Row {
    int files;
    uint64_t limit;
    size_t kept;
    int front, back;  // the restarted set's first and last index
  };
  for (const Row& row : {Row{2345, 4, 4, 342, 345}, Row{1300, 0, 999, 302, 300}}) {
    SCOPED_TRACE(row.files);
    for (const std::string& name : SetFiles(dir_, "applog")) unlink(name.c_str());
    ReaderOwner writer(base_, row.limit);
    writer.InitLogFiles();
    for (int i = 0; i < row.files; ++i) {
      writer.GetNewLog();
      writer.Write((std::to_string(i) + "\n").c_str(), 16);
      writer.Flush();
      ASSERT_EQ(writer.fileVec.back(), writer.logFilePath) << i;
      std::vector<int> indices = Indices(writer, writer.fileVec);
      ASSERT_LE(indices.size(), row.kept);
      for (size_t k = 1; k < indices.size(); ++k) {
        ASSERT_EQ((indices[k - 1] + 1) % 1000, indices[k]) << i;
      }
    }
    writer.Write("last\n", 16);
    writer.Flush();
    ASSERT_EQ(row.kept, writer.fileVec.size());
    EXPECT_EQ((row.back + 999) % 1000, Indices(writer, {writer.fileVec.back()})[0]);
    EXPECT_EQ(std::to_string(row.files - static_cast<int>(row.kept) + 1) + "\n",
              morvotest::Gunzip(writer.fileVec[1]));
    EXPECT_EQ(std::to_string(row.files - 1) + "\nlast\n", morvotest::Gunzip(writer.fileVec.back()));
    EXPECT_EQ(row.kept, SetFiles(dir_, "applog").size());
    ReaderOwner restarted(base_, row.limit);
    restarted.InitLogFiles();
    restarted.GetNewLog();
    std::vector<int> indices = Indices(restarted, restarted.fileVec);
    ASSERT_EQ(row.kept, indices.size());
    EXPECT_EQ(row.front, indices.front());
    EXPECT_EQ(row.back, indices.back());
  }
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

// The current file counts as there only as a regular file of one name:
// deleted, or a link, a FIFO or a second name put in its place, makes the
// caller open a new file of its own and go on there.
TEST_F(MorvocatUtilsTest, CurrentFileIsThereOnlyAsItsOwnRegularFile) {
  const std::string victim = root_.Under("/victim");
  morvotest::MakeVictim(victim);
  MakeSetFile(base_, 6);
  const std::vector<const char*> breaks = {"deleted", "link",          "hard link",
                                           "FIFO",    "dangling link", "second name"};
  const morvotest::Plant plants[] = {morvotest::Plant::SYMLINK, morvotest::Plant::HARD_LINK,
                                     morvotest::Plant::FIFO, morvotest::Plant::DANGLING_LINK};
  for (size_t k = 0; k < breaks.size(); ++k) {
    SCOPED_TRACE(breaks[k]);
    ReaderOwner writer(base_, 0);
    writer.InitLogFiles();
    writer.GetNewLog();
    ASSERT_TRUE(writer.IsLogFileAccess());
    const std::string lost = writer.logFilePath;
    if (k + 1 == breaks.size()) {
      ASSERT_EQ(0, link(lost.c_str(), (dir_ + "/second").c_str()));
    } else {
      ASSERT_EQ(0, unlink(lost.c_str()));
      if (k > 0) morvotest::PlantAt(lost, plants[k - 1], victim);
    }
    EXPECT_FALSE(writer.IsLogFileAccess());
    writer.InitLogFiles();
    writer.GetNewLog();
    EXPECT_TRUE(writer.IsLogFileAccess());
    if (k == 0) {
      EXPECT_EQ((std::vector<int>{6, 7}), Indices(writer, writer.fileVec));
    }
    writer.Write("after\n", 6);
    writer.Flush();
    EXPECT_EQ("after\n", morvotest::Gunzip(writer.logFilePath));
    morvotest::ExpectOwnFile(writer.logFilePath, 0664);
    morvotest::ExpectUntouched(victim);
  }
}

}  // namespace
