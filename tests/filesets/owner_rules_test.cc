// Where the reader's writer and the collector's group sink differ: old names, empty files, the cap.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "set_owners.h"

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
  // "" is the base path itself, other codes as settest::Coded reads them.
  std::string Path(const std::string& code) const {
    return code.empty() ? base_ : settest::Coded(base_, code);
  }
};

// The old-style sweep: the reader's is silent and leaves forming to the caller; the collector's
// runs once, reports what it cannot delete, purges other lengths and forms the set.
TEST_F(OwnerRulesTest, OldStyleSweepTable) {
  ReaderOwner reader(base_, 10), unnamed("", 10);
  MorvocatUtils plain(base_, 0, 10);
  CollectorOwner sink(base_, 10);
  std::vector<std::string> allOld = {"", "-10.tar.gz"};
  for (int n = 0; n <= 5; ++n) allOld.push_back("." + std::to_string(n));
  for (int n = 0; n < 10; ++n) allOld.push_back("-" + std::to_string(n) + ".tar.gz");
  std::string missing;
  for (int n = 3; n < 5; ++n) {
    missing += "unlink [" + Path("." + std::to_string(n)) + "] fail\n";
    missing += "unlink [" + Path("-" + std::to_string(n) + ".tar.gz") + "] fail\n";
  }
  const std::string odd = ".I03.20240105-081502.gz";
  std::vector<std::string> gone = {"", ".1", ".2", ".3", ".4"};
  for (int n = 0; n < 10; ++n) gone.push_back("-" + std::to_string(n) + ".tar.gz");
  // clang-format off
  struct Row { const char* what; FileSet* set; std::vector<std::string>* list; std::vector<std::string> made, gone; std::string messages; std::vector<std::string> formed; bool detectsAfter, sweepsAgain; };
  const std::vector<Row> rows = {
      {"reader", &reader, &reader.fileVec, allOld, gone, "", {}, true, true},
      {"reader not memory-mapped", &plain, nullptr, allOld, {}, "", {}, true, false},
      {"reader without a path", &unnamed, nullptr, allOld, {}, "", {}, false, false},
      {"collector", &sink, &sink.fileVec, {".0", ".1", ".2", "-0.tar.gz", "-1.tar.gz", "-2.tar.gz", "-7.tar.gz"},
       {".0", ".1", ".2", "-0.tar.gz", "-1.tar.gz", "-2.tar.gz", "-7.tar.gz", odd}, missing, {Path("3")}, false, false},
  };
  // clang-format on
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Clear();
    std::vector<std::string> made = row.made;
    made.insert(made.end(), {"3", odd});
    for (const std::string& code : made) morvotest::WriteFile(Path(code), "data\n");
    if (row.list != nullptr) *row.list = {Path("3")};
    CaptureStderr();
    row.set->DeleteOldStyleFiles();
    EXPECT_EQ(row.messages, GetCapturedStderr());
    for (const std::string& code : made) {
      bool goes = std::find(row.gone.begin(), row.gone.end(), code) != row.gone.end();
      EXPECT_NE(goes, morvotest::Exists(Path(code))) << code;
    }
    if (row.list != nullptr) {
      EXPECT_EQ(row.formed, *row.list);
    }
    EXPECT_EQ(row.detectsAfter, row.set->DetectOldStyleFiles(Path(".1").c_str()));
    morvotest::WriteFile(Path(".2"), "x");
    CaptureStderr();
    row.set->DeleteOldStyleFiles();
    EXPECT_EQ("", GetCapturedStderr());
    EXPECT_NE(row.sweepsAgain, morvotest::Exists(Path(".2")));
  }
  EXPECT_FALSE(sink.oldStyleCheck);
}

TEST_F(OwnerRulesTest, CollectorNumberedSchemeDropsIndexedFilesAndKeepsNoList) {
  std::vector<std::string> indexed = {MakeSetFile(base_, "0"), MakeSetFile(base_, "1"),
                                      MakeSetFile(base_, "2")};
  morvotest::WriteFile(Path(".1"), "x");
  CollectorOwner sink(base_, 1, SetScheme::NUMBERED);
  sink.FormFileVectors();  // before the sweep it still lists and never prunes
  EXPECT_EQ((std::vector<int>{0, 1, 2}), Indices(sink, sink.fileVec));
  sink.RemoveRedundancy();
  EXPECT_EQ(3u, sink.fileVec.size());

  std::string gone = settest::Coded(base_, "9");
  sink.fileVec.push_back(gone);
  CaptureStderr();
  sink.DeleteOldStyleFiles();
  EXPECT_EQ("unlink [" + gone + "] fail\n", GetCapturedStderr());
  for (const std::string& name : indexed) EXPECT_FALSE(morvotest::Exists(name)) << name;
  EXPECT_TRUE(morvotest::Exists(Path(".1")));  // the scheme's own file
  EXPECT_TRUE(sink.fileVec.empty());

  MakeSetFile(base_, "5");
  sink.fileVec = {"kept as it is"};
  sink.FormFileVectors();
  EXPECT_EQ(std::vector<std::string>{"kept as it is"}, sink.fileVec);
}

// Only the reader continues a zero-byte newest file, and only its own regular file (not via links).
TEST_F(OwnerRulesTest, OnlyTheReaderContinuesItsOwnEmptyNewestFile) {
  const std::string victim = root_.Under("/victim");
  MakeSetFile(base_, "0");
  std::string newest = settest::Coded(base_, "1");
  CollectorOwner sink(base_, 10);
  morvotest::WriteFile(newest, "");
  sink.FormFileVectors();
  EXPECT_EQ(2u, sink.GetNewLogFileIndex(sink.fileVec));
  for (int plant : {-1, int(morvotest::Plant::SYMLINK), int(morvotest::Plant::HARD_LINK)}) {
    SCOPED_TRACE(plant);
    morvotest::WriteFile(newest, "");
    ReaderOwner reader(base_, 10);
    reader.FormFileVectors();
    ASSERT_EQ(newest, reader.fileVec.back());
    EXPECT_EQ("", morvotest::Zcat(newest));
    if (plant >= 0) {
      morvotest::WriteFile(victim, "");
      ASSERT_EQ(0, unlink(newest.c_str()));
      morvotest::PlantAt(newest, morvotest::Plant(plant), victim);
    }
    uint32_t next = plant < 0 ? filesets::kContinueNewest : 2u;
    EXPECT_EQ(next, reader.GetNewLogFileIndex());
    EXPECT_EQ(next, reader.GetNewLogFileIndex(reader.fileVec));
    unlink(newest.c_str());
    unlink(victim.c_str());
  }
  // A newest entry whose status cannot be read is not an empty file.
  ReaderOwner reader(base_, 10);
  reader.fileVec = {newest};
  EXPECT_EQ(2u, reader.GetNewLogFileIndex());
}

// A group restarted over a full set keeps the newest files and goes on after them in whole gzip.
TEST_F(OwnerRulesTest, GroupRestartOverAFullSetKeepsTheNewestThroughItsFirstRotation) {
  for (uint64_t limit : {uint64_t{0}, uint64_t{999}}) {
    SCOPED_TRACE(limit);
    for (const std::string& name : morvotest::SetFiles(dir_, "applog")) unlink(name.c_str());
    std::vector<std::string> written = settest::FullSet(base_, 300);
    for (const std::string& name : written) morvotest::WriteFile(name, "data\n");
    TavobaseOwner sink(base_, limit);
    sink.FormFileVectors();
    sink.OpenLogFile();
    EXPECT_LE(morvotest::SetFiles(dir_, "applog").size(), 999u);
    const std::string opened = sink.fileVec.back();
    EXPECT_EQ("", morvotest::Zcat(opened));
    sink.MmapWrite("two\n", 4, true);
    CaptureStderr();
    sink.RotateLog(uint64_t{4096} << 10);
    GetCapturedStderr();
    EXPECT_EQ("two\n", morvotest::Zcat(opened));
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
