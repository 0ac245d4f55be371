// The reader's rotating writer over the real memory-mapped writer.

#include <gtest/gtest.h>
#include <stdint.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "set_owners.h"

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

// Start over the folder, open, write, restart: "e" an empty file, "@L" the later stamp.
TEST_F(MorvocatUtilsTest, StartNewFileAndRestartTable) {
  // clang-format off
  const struct { const char* what; std::vector<std::string> files; uint64_t limit; std::vector<int> started, opened, restarted; } rows[] = {
      {"limit 3 over 5 prunes on start and after each new file", {"0", "1", "2", "3", "4"}, 3, {2, 3, 4}, {3, 4, 5}, {4, 5, 6}},
      {"limit 0 prunes nothing below the cap", {"0", "1", "2", "3", "4"}, 0, {0, 1, 2, 3, 4}, {0, 1, 2, 3, 4, 5}, {0, 1, 2, 3, 4, 5, 6}},
      {"an empty newest file is continued as it is", {"0", "1e"}, 10, {0, 1}, {0, 1}, {0, 1, 2}},
      {"the index after the newest", {"3", "4@L", "10", "11"}, 10, {10, 11, 3, 4}, {10, 11, 3, 4, 5}, {10, 11, 3, 4, 5, 6}},
      {"999 wraps to 000", {"997", "998", "999"}, 10, {997, 998, 999}, {997, 998, 999, 0}, {997, 998, 999, 0, 1}},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    for (const std::string& name : SetFiles(dir_, "applog")) unlink(name.c_str());
    std::vector<std::string> files;
    for (const std::string& code : row.files) files.push_back(MakeSetFile(base_, code));
    ReaderOwner writer(base_, row.limit);
    writer.InitLogFiles();
    EXPECT_FALSE(writer.IsLogFileAccess());  // no file chosen yet
    EXPECT_EQ(row.started, Indices(writer, writer.fileVec));
    writer.GetNewLog();
    EXPECT_EQ(row.opened, Indices(writer, writer.fileVec));
    EXPECT_EQ(writer.fileVec.back(), writer.logFilePath);
    EXPECT_TRUE(writer.IsLogFileAccess());
    EXPECT_EQ(0664u, settest::ModeOf(writer.logFilePath));
    for (const std::string& file : files) {
      int index = Indices(writer, {file})[0];
      bool kept = std::find(row.opened.begin(), row.opened.end(), index) != row.opened.end();
      EXPECT_EQ(kept, morvotest::Exists(file)) << file;
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

TEST_F(MorvocatUtilsTest, FileSizeComesFromTheFileStatus) {
  ReaderOwner writer(base_, 10);
  std::string name = MakeSetFile(base_, "1");
  EXPECT_EQ(5u, writer.GetFileSize(name));
  EXPECT_EQ(UINT64_MAX, writer.GetFileSize(base_ + ".missing"));
}

// What a local user plants at the next file's name is replaced; the file outside stays as it was.
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

// The current file counts only as a regular file of one name; otherwise the caller opens a new one.
TEST_F(MorvocatUtilsTest, CurrentFileIsThereOnlyAsItsOwnRegularFile) {
  const std::string victim = root_.Under("/victim");
  morvotest::MakeVictim(victim);
  MakeSetFile(base_, "6");
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
