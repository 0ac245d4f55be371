// The rules every owner of a file set shares; each test runs once per owner.

#include <gtest/gtest.h>
#include <stdint.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "set_owners.h"

namespace {

using morvotest::Exists;
using morvotest::SetFiles;
using morvotest::Zcat;
using settest::Coded;
using settest::MakeSetFile;
using settest::SetName;
using strings = std::vector<std::string>;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

template <class Owner>
class FileSetTest : public settest::SetDirTest {};

TYPED_TEST_SUITE(FileSetTest, settest::SetOwners);

TYPED_TEST(FileSetTest, TimeStampIsTheLocalTimeNow) {
  std::string before = morvotest::TimeText(time(nullptr));
  std::string stamp = TypeParam(this->base_, 10).GetTimeStamp();
  EXPECT_TRUE(stamp == before || stamp == morvotest::TimeText(time(nullptr))) << stamp;
}

TYPED_TEST(FileSetTest, SortingIsByteOrderSoIndexThenStamp) {
  EXPECT_TRUE(TypeParam::SortByEarlyTime("ab", "abc"));
  EXPECT_FALSE(TypeParam::SortByEarlyTime("abc", "ab"));
  EXPECT_FALSE(TypeParam::SortByEarlyTime("ab", "ab"));
  EXPECT_TRUE(TypeParam::SortByEarlyTime("a", "\xff"));  // bytes compare unsigned
  strings names = Coded(this->base_, {"2", "1@L", "1"});
  std::sort(names.begin(), names.end(), TypeParam::SortByEarlyTime);
  EXPECT_EQ(Coded(this->base_, {"1", "1@L", "2"}), names);
}

// Empty arguments, a missing folder, folder-less bases and other modes scan and delete nothing.
TYPED_TEST(FileSetTest, ScansThatNeverHappen) {
  const std::string& dir = this->dir_;
  for (const std::string& name :
       {Coded(this->base_, "1"), dir + "/applog.gz", dir + "/" + std::string(21, 'a') + ".gz"}) {
    morvotest::WriteFile(name, "data\n");
  }
  char cwd[4096];
  ASSERT_NE(nullptr, getcwd(cwd, sizeof(cwd)));
  ASSERT_EQ(0, chdir(dir.c_str()));
  // clang-format off
  const struct { std::string base, folder, name; int mode, result; const char* err; } rows[] = {
      {this->base_, "", "applog", 0, 1, ""},
      {this->base_, dir, "", 0, 1, ""},
      {this->base_, dir + "/missing", "applog", 0, 1, "open pdir error.\n"},
      {dir + "/", "", "", 0, 0, ""},
      {"applog", "", "", 0, 0, ""},
      {"/applog", "", "", 0, 0, ""},
      {this->base_, "", "", 2, 0, ""},
      {this->base_, "", "", -1, 0, ""},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.base + " " + row.folder + " " + row.name + " " + std::to_string(row.mode));
    TypeParam set(row.base, 10);
    CaptureStderr();
    if (row.folder.empty() && row.name.empty()) {
      set.ProcessMmapFileVec(row.mode);
    } else {
      EXPECT_EQ(row.result, set.ScanDir(row.mode, row.folder, row.name));
    }
    EXPECT_EQ(row.err, GetCapturedStderr());
    EXPECT_TRUE(set.fileVec.empty());
  }
  ASSERT_EQ(0, chdir(cwd));
  EXPECT_EQ(4u, morvotest::Entries(dir).size());
}

TYPED_TEST(FileSetTest, RotateMovesWhatFollowsThePivotToTheFront) {
  TypeParam set(this->base_, 10);
  // clang-format off
  const struct { strings list; std::string pivot; strings rotated; } rows[] = {
      {{"a", "P", "b", "P", "c"}, "P", {"b", "c", "a", "P", "P"}},
      {{"a", "b", "c"}, "x", {"a", "b", "c"}},
      {{"a", "b", "c"}, "", {"a", "b", "c"}},
      {{"a", "b", "c"}, "c", {"a", "b", "c"}},
  };
  // clang-format on
  for (const auto& row : rows) {
    strings list = row.list;
    set.RotateVec(list, row.pivot);
    EXPECT_EQ(row.rotated, list) << row.pivot;
  }
  strings list = {"a", "b", "c"};
  set.RotateVec(list, list[0]);  // a pivot taken from the list itself
  EXPECT_EQ((strings{"b", "c", "a"}), list);
}

TYPED_TEST(FileSetTest, LatestStampWinsAndTiesKeepTheEarlierEntry) {
  TypeParam set(this->base_, 10);
  const std::string& b = this->base_;
  strings names = Coded(b, {"1", "2@L", "3@L"});
  EXPECT_EQ(names[1], set.GetFileByMaxTimestamp(names));
  EXPECT_EQ(names[1], set.GetFileByMaxTimestamp({"short", names[0], names[1], b + "x"}));
  EXPECT_EQ("", set.GetFileByMaxTimestamp({"short", b + "x"}));
  EXPECT_EQ("", set.GetFileByMaxTimestamp({}));
}

TYPED_TEST(FileSetTest, PruningDropsEntriesEvenWhenTheFileIsGone) {
  const std::string& b = this->base_;
  std::string gone = Coded(b, "0");
  std::string present = MakeSetFile(b, "1");
  std::string newest = MakeSetFile(b, "2");
  TypeParam set(b, 1);
  set.fileVec = {gone, present, newest};
  CaptureStderr();
  set.RemoveRedundancy();
  EXPECT_EQ("unlink [" + gone + "] fail\n", GetCapturedStderr());
  EXPECT_EQ(strings{newest}, set.fileVec);
  EXPECT_FALSE(Exists(present));
  EXPECT_TRUE(Exists(newest));

  // Index 0 came round within one second: only the duplicate entry goes.
  TypeParam again(b, 2);
  again.fileVec = {newest, present, newest};
  again.RemoveRedundancy();
  EXPECT_EQ((strings{present, newest}), again.fileVec);
  EXPECT_TRUE(Exists(newest));
}

// The set's folder swapped for a link to an outside folder: nothing is deleted through it.
TYPED_TEST(FileSetTest, PruningAndPurgeNeverDeleteThroughALinkedFolder) {
  const std::string& b = this->base_;
  strings names;
  for (int index = 0; index < 3; ++index) names.push_back(MakeSetFile(b, std::to_string(index)));
  for (const std::string& other : {b + ".I03.20240105-081502.gz", b + ".1", b + "-0.tar.gz"}) {
    morvotest::WriteFile(other, "x");
  }
  TypeParam set(b, 1);
  set.fileVec = names;
  const std::string outside = this->root_.Under("/outside");
  ASSERT_EQ(rename(this->dir_.c_str(), outside.c_str()), 0);
  ASSERT_EQ(symlink(outside.c_str(), this->dir_.c_str()), 0);
  const strings before = morvotest::Entries(outside);
  CaptureStderr();
  set.RemoveRedundancy();
  set.DeleteOldStyleFiles();
  set.ProcessMmapFileVec(1);
  set.FormFileVectors();
  GetCapturedStderr();
  EXPECT_EQ(before, morvotest::Entries(outside));
}

// A new set file is a whole gzip stream at once: a kill before the first flush leaves it valid.
TYPED_TEST(FileSetTest, NewSetFilesAreWholeGzipStreamsBeforeAnyWrite) {
  TypeParam set(this->base_, 10);
  std::string first, second;
  ASSERT_TRUE(set.AddNewFile(0, &first));
  ASSERT_TRUE(set.AddNewFile(1, &second));
  for (int index : {0, 1}) {
    const std::string& name = index == 0 ? first : second;
    EXPECT_EQ(SetName(this->base_, index, set.GetTimestamp(name)), name);
    EXPECT_EQ("", Zcat(name)) << name;
    EXPECT_EQ(20u, morvotest::ReadFile(name).size());
  }
  EXPECT_EQ((strings{first, second}), set.fileVec);
}

// Lists in (as sorted), writing order and next index out.
TYPED_TEST(FileSetTest, OrderAndNextIndexTable) {
  // clang-format off
  const struct { const char* what; strings list, order; uint32_t next; } rows[] = {
      {"one run", {"0", "1", "2"}, {"0", "1", "2"}, 3},
      {"wrapped once", {"0", "1", "2", "997", "998", "999"}, {"997", "998", "999", "0", "1", "2"}, 3},
      {"wrapped, one file each side", {"0", "999"}, {"999", "0"}, 1},
      {"gap, newest run end by stamp", {"3", "4@L", "10", "11"}, {"10", "11", "3", "4@L"}, 5},
      {"three runs", {"0", "1@L", "500", "999"}, {"500", "999", "0", "1@L"}, 2},
      {"previous result again", {"500", "999", "0", "1@L"}, {"999", "0", "1@L", "500"}, 501},
      {"single", {"5"}, {"5"}, 6},
      {"ordered across the wrap", {"997", "998", "999", "0", "1"}, {"997", "998", "999", "0", "1"}, 2},
      {"ordered to the wrap", {"997", "998", "999"}, {"997", "998", "999"}, 0},
      {"ordered", {"10", "11", "12"}, {"10", "11", "12"}, 13},
      {"empty", {}, {}, 0},
      {"negative indices dropped", {"-12@L", "-01@L"}, {}, 0},
      {"non-numeric reads as 0", {"001", "002", "abc@L"}, {"001", "002", "abc@L"}, 0},
  };
  // clang-format on
  TypeParam set(this->base_, 10);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    strings list = Coded(this->base_, row.list);
    set.AdjustFileVecOrder(list);
    EXPECT_EQ(Coded(this->base_, row.order), list);
    list = Coded(this->base_, row.list);
    EXPECT_EQ(row.next, set.GetNewLogFileIndex(list));
    EXPECT_EQ(Coded(this->base_, row.order), list);
  }
}

// Sets formed over a stale list; zero-byte files ("e": killed before a flush) keep their place.
TYPED_TEST(FileSetTest, FormingTable) {
  // clang-format off
  const struct { const char* what; strings files; uint64_t limit; strings formed, gone; uint32_t next; } rows[] = {
      {"negative index: off the list, on disk", {"-12@L", "0", "1"}, 1, {"1"}, {"0"}, 2},
      {"wrap restored, oldest pruned", {"998", "999", "0", "1", "2"}, 3, {"0", "1", "2"}, {"998", "999"}, 3},
      {"empty folder", {}, 10, {}, {}, 0},
      {"zero-byte files", {"0", "1e", "2e", "3"}, 10, {"0", "1", "2", "3"}, {}, 4},
      {"old-style names only", {".0", ".1", ".2", ".3", ".4", "-0.tar.gz", "-1.tar.gz", "-2.tar.gz", "-3.tar.gz"}, 10, {}, {}, 0},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    this->Clear();
    for (const std::string& code : row.files) MakeSetFile(this->base_, code);
    TypeParam set(this->base_, row.limit);
    set.fileVec = {"stale"};
    set.FormFileVectors();
    EXPECT_EQ(Coded(this->base_, row.formed), set.fileVec);
    EXPECT_EQ(row.next, set.GetNewLogFileIndex(set.fileVec));
    for (std::string code : row.files) {
      bool gone = std::find(row.gone.begin(), row.gone.end(), code) != row.gone.end();
      bool empty = code.back() == 'e';
      if (empty) code.pop_back();
      std::string name = Coded(this->base_, code);
      EXPECT_NE(gone, Exists(name)) << code;
      if (!gone) {
        EXPECT_EQ(empty ? "" : "data\n", empty ? Zcat(name) : morvotest::ReadFile(name));
      }
    }
  }
  TypeParam lost(this->dir_ + "/missing/applog", 10);
  CaptureStderr();
  lost.FormFileVectors();
  EXPECT_EQ("open pdir error.\n", GetCapturedStderr());
  EXPECT_TRUE(lost.fileVec.empty());
}

// Scans read an entry's own name; odd lengths of the set's names are purged, other files left.
TYPED_TEST(FileSetTest, ScanTable) {
  // clang-format off
  const struct { const char* folder; const char* base; strings collected, stay, gone; } rows[] = {
      {"/data/log/sets", "applog",
       {"applog.I001.20240105-081502.gz", "applog.I002.20240105-081502.gz", "applog.I000.2024010X-08150Y.gz", "applog.Iabc.20240105-081502.gz"},
       {"applog.I003.20240105-081502.xz", "apples.I004.20240105-081502.gz", "applog-1.tar.gz", "applog-4.tar.gz", "applog.1", "other.gz", "applog.gz", "applog.I01.20240105-081502.xz"},
       {"applog.I01.20240105-081502.gz", "applog.I0001.20240105-081502.gz", "applog-7.tar.gz"}},
      {"/data/log", "log", {"log.I001.20240105-081502.gz"},
       {"applog.I001.20240105-081502.gz", "applog-3.tar.gz", "kmsg.gz", "abc.I001.20240105-081502.gz", "logcat.I001.20240105-081502.gz", "log-kernel.I001.20240105-081502.gz", "log-kernel-0.tar.gz", "log.gz"},
       {"log.I01.20240105-081502.gz", "log-12.tar.gz"}},
      {"/data/log/charge-log", "charge-log", {"charge-log.I001.20240105-081502.gz"},
       {"kernel.I001.20240105-081502.gz", "bugreport.tar.gz", "charge-log_old.gz", "charge-log-x.tar.gz", "xxxxxxxxxx.I001.20240105-081502.gz"},
       {"charge-log.I1.20240105-081502.gz", "charge-log-5.tar.gz"}},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.folder);
    const std::string folder = this->root_.Under(row.folder);
    this->root_.MakeDirs(row.folder);
    for (const auto* names : {&row.collected, &row.stay, &row.gone}) {
      for (const std::string& name : *names) morvotest::WriteFile(folder + "/" + name, "x");
    }
    const std::string base = folder + "/" + row.base;
    ASSERT_EQ(0, symlink((folder + "/" + row.collected[0]).c_str(), Coded(base, "5").c_str()));
    ASSERT_EQ(0, mkdir(Coded(base, "6").c_str(), 0775));
    TypeParam set(base, 10);
    set.ProcessMmapFileVec(0);
    strings found = set.fileVec, expected;
    for (const std::string& name : row.collected) expected.push_back(folder + "/" + name);
    std::sort(found.begin(), found.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, found);
    set.fileVec.clear();
    EXPECT_EQ(0, set.ScanDir(1, folder, row.base));
    EXPECT_TRUE(set.fileVec.empty());
    for (const auto* names : {&row.collected, &row.stay, &row.gone}) {
      for (const std::string& name : *names) {
        EXPECT_EQ(names != &row.gone, Exists(folder + "/" + name)) << name;
      }
    }
    EXPECT_TRUE(Exists(Coded(base, "6")));
  }
}

// Full sets (all 1000 indices, or one free): stamps order them, adding never fills the last index.
// newest: last written; perSecond: files per stamp; kept: entries after adding (0: order only).
TYPED_TEST(FileSetTest, FullSetsAreOrderedByStampsAndKeepAnIndexFree) {
  // clang-format off
  struct Row { uint64_t limit; int newest, perSecond; bool oneFree; size_t kept; };
  for (const Row& row : {Row{0, 300, 1, false, 999}, Row{1000, 999, 1, false, 999}, Row{5, 0, 3, false, 6},
                         Row{0, 2, 7, false, 0}, Row{0, 641, 16, false, 0}, Row{0, 998, 1, true, 999},
                         Row{999, 999, 1, true, 0}, Row{999, 400, 1, true, 999}}) {
    // clang-format on
    TypeParam order(this->base_, 0);
    SCOPED_TRACE(testing::Message() << "limit " << row.limit << " newest " << row.newest);
    strings written = settest::FullSet(this->base_, row.newest, row.perSecond);
    if (row.oneFree) written.erase(written.begin());
    strings list = written;
    std::sort(list.begin(), list.end(), TypeParam::SortByEarlyTime);
    for (int again = 0; again < 2; ++again) {
      order.AdjustFileVecOrder(list);
      EXPECT_EQ(written, list);
    }
    if (row.kept == 0) continue;
    for (const std::string& name : SetFiles(this->dir_, "applog")) unlink(name.c_str());
    for (const std::string& name : written) morvotest::WriteFile(name, "data\n");

    TypeParam set(this->base_, row.limit);
    set.FormFileVectors();
    EXPECT_LE(SetFiles(this->dir_, "applog").size(), 999u);
    EXPECT_EQ(written.back(), set.fileVec.back());
    std::string added;
    ASSERT_TRUE(set.AddNewFile(set.GetNewLogFileIndex(set.fileVec), &added));
    EXPECT_EQ(static_cast<int>((row.newest + 1) % 1000), settest::Indices(set, {added})[0]);
    strings expected(written.end() - static_cast<long>(row.kept - 1), written.end());
    expected.push_back(added);
    EXPECT_EQ(expected, set.fileVec);
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, SetFiles(this->dir_, "applog"));

    TypeParam restarted(this->base_, row.limit);
    restarted.FormFileVectors();
    uint64_t cap = row.limit == 0 ? 999 : std::min<uint64_t>(row.limit, 999);
    ASSERT_EQ(std::min<uint64_t>(row.kept, cap), restarted.fileVec.size());
    EXPECT_EQ(added, restarted.fileVec.back());
    EXPECT_EQ(written.back(), restarted.fileVec[restarted.fileVec.size() - 2]);
    EXPECT_TRUE(Exists(written.back()));
  }
}

}  // namespace
