// The rules every owner of a file set shares: names, scan, ordering, next
// index, forming and pruning. Each test runs once per owner.

#include <gtest/gtest.h>
#include <stdint.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "set_owners.h"
#include "support/planted.h"

namespace {

using settest::Indices;
using settest::MakeSetFile;
using settest::SetFilesIn;
using settest::SetName;
using settest::StampAfter;
using settest::WholeGzip;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

template <class Owner>
class FileSetTest : public settest::SetDirTest {};

TYPED_TEST_SUITE(FileSetTest, settest::SetOwners);

TYPED_TEST(FileSetTest, FieldsAreTakenOnlyFromNamesOfTheSetLength) {
  TypeParam set(this->base_, 10);
  EXPECT_EQ("cde", set.GetInterger("abcdef", 6, 2, 3));
  EXPECT_EQ("", set.GetInterger("abcdef", 7, 2, 3));            // length differs
  EXPECT_EQ("", set.GetInterger("abcdef", 6, 5, 3));            // field ends past the name
  EXPECT_EQ("f", set.GetInterger("abcdef", 6, 5, 2));           // ends one past: cut short
  EXPECT_EQ("", set.GetInterger("abcdef", 6, 6, 1));            // starts at the end
  EXPECT_EQ("", set.GetInterger("abcdef", 6, 0xFFFFFFFFu, 2));  // sum wraps to 0
  EXPECT_EQ("", set.GetInterger("abcdef", 6, 0, 0));            // 0 - 1 wraps to the top

  std::string name = SetName(this->base_, 7, "20240105-081502");
  EXPECT_EQ(this->base_ + ".I007.20240105-081502.gz", name);
  EXPECT_EQ("007", set.GetIndex(name));
  EXPECT_EQ("20240105-081502", set.GetTimestamp(name));
  EXPECT_EQ("", set.GetIndex(name + "x"));
  EXPECT_EQ("", set.GetTimestamp(name.substr(1)));
  // The fields are not examined.
  EXPECT_EQ("-12", set.GetIndex(this->base_ + ".I-12.20240105-081502.gz"));

  TypeParam unnamed("", 10);
  EXPECT_EQ("", unnamed.GetIndex(".I007.20240105-081502.gz"));
  EXPECT_EQ("", unnamed.GetTimestamp(".I007.20240105-081502.gz"));
}

TYPED_TEST(FileSetTest, IndexAfterThreeDigitsWrapsAt999) {
  TypeParam set(this->base_, 10);
  EXPECT_EQ(1u, set.ConvertStringToIndex("000"));
  EXPECT_EQ(42u, set.ConvertStringToIndex("041"));
  EXPECT_EQ(999u, set.ConvertStringToIndex("998"));
  EXPECT_EQ(0u, set.ConvertStringToIndex("999"));
  for (const char* bad : {"", "99", "1000", "-12", "a01", "01a", " 01", "+01"}) {
    EXPECT_EQ(0u, set.ConvertStringToIndex(bad)) << bad;
  }
}

TYPED_TEST(FileSetTest, TimeStampIsTheLocalTimeNow) {
  TypeParam set(this->base_, 10);
  auto localNow = [] {
    char text[32];
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    strftime(text, sizeof(text), "%Y%m%d-%H%M%S", &local);
    return std::string(text);
  };
  std::string before = localNow();
  std::string stamp = set.GetTimeStamp();
  std::string after = localNow();
  EXPECT_EQ(15u, stamp.size());
  EXPECT_TRUE(stamp == before || stamp == after) << stamp;
}

TYPED_TEST(FileSetTest, SortingIsByteOrderSoIndexThenStamp) {
  EXPECT_TRUE(TypeParam::SortByEarlyTime("ab", "abc"));
  EXPECT_FALSE(TypeParam::SortByEarlyTime("abc", "ab"));
  EXPECT_FALSE(TypeParam::SortByEarlyTime("ab", "ab"));
  EXPECT_TRUE(TypeParam::SortByEarlyTime("a", "\xff"));  // bytes compare unsigned
  const std::string& b = this->base_;
  std::vector<std::string> names = {SetName(b, 2, "20240101-000000"),
                                    SetName(b, 1, "20250101-000000"),
                                    SetName(b, 1, "20240101-000000")};
  std::sort(names.begin(), names.end(), TypeParam::SortByEarlyTime);
  EXPECT_EQ(
      (std::vector<std::string>{SetName(b, 1, "20240101-000000"), SetName(b, 1, "20250101-000000"),
                                SetName(b, 2, "20240101-000000")}),
      names);
}

TYPED_TEST(FileSetTest, ScanCollectsOnlyRegularFilesOfTheSetLength) {
  const std::string& b = this->base_;
  std::string wanted1 = MakeSetFile(b, 1);
  std::string wanted2 = MakeSetFile(b, 2);
  std::string oddIndex = MakeSetFile(b, 0, "2024010X-08150Y");
  morvotest::WriteFile(b + ".Iabc.20240105-081502.gz", "x");   // collected: length only
  morvotest::WriteFile(b + ".I01.20240105-081502.gz", "x");    // one short
  morvotest::WriteFile(b + ".I0001.20240105-081502.gz", "x");  // one long
  morvotest::WriteFile(b + ".I003.20240105-081502.xz", "x");   // no ".gz"
  morvotest::WriteFile(this->dir_ + "/apples.I004.20240105-081502.gz", "x");  // other base
  morvotest::WriteFile(b + "-1.tar.gz", "x");
  morvotest::WriteFile(b + ".1", "x");
  ASSERT_EQ(0, symlink(wanted1.c_str(), SetName(b, 5, "20240105-081502").c_str()));
  ASSERT_EQ(0, mkdir(SetName(b, 6, "20240105-081502").c_str(), 0775));

  TypeParam set(b, 10);
  EXPECT_EQ(0, set.ScanDir(0, this->dir_, "applog"));
  std::vector<std::string> found = set.fileVec;
  std::sort(found.begin(), found.end());
  std::vector<std::string> expected = {oddIndex, wanted1, wanted2, b + ".Iabc.20240105-081502.gz"};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(expected, found);
}

TYPED_TEST(FileSetTest, PurgeDeletesMatchingNamesOfOtherLengthsOnly) {
  const std::string& b = this->base_;
  std::string kept = MakeSetFile(b, 1);
  std::vector<std::string> gone = {b + ".I01.20240105-081502.gz", b + "-7.tar.gz"};
  // applog.gz is not a name any of the set's schemes makes.
  std::vector<std::string> stay = {b + "-4.tar.gz", b + ".I01.20240105-081502.xz",
                                   this->dir_ + "/other.gz", this->dir_ + "/applog.gz"};
  for (const auto& name : gone) morvotest::WriteFile(name, "x");
  for (const auto& name : stay) morvotest::WriteFile(name, "x");

  TypeParam set(b, 10);
  EXPECT_EQ(0, set.ScanDir(1, this->dir_, "applog"));
  EXPECT_TRUE(set.fileVec.empty());
  EXPECT_TRUE(morvotest::Exists(kept));
  for (const auto& name : gone) EXPECT_FALSE(morvotest::Exists(name)) << name;
  for (const auto& name : stay) EXPECT_TRUE(morvotest::Exists(name)) << name;
}

TYPED_TEST(FileSetTest, ScanRefusesEmptyArgumentsAndMissingFolders) {
  MakeSetFile(this->base_, 1);
  TypeParam set(this->base_, 10);
  EXPECT_EQ(1, set.ScanDir(0, "", "applog"));
  EXPECT_EQ(1, set.ScanDir(0, this->dir_, ""));
  CaptureStderr();
  EXPECT_EQ(1, set.ScanDir(0, this->dir_ + "/missing", "applog"));
  EXPECT_EQ("open pdir error.\n", GetCapturedStderr());
  EXPECT_TRUE(set.fileVec.empty());
}

TYPED_TEST(FileSetTest, BasePathsWithoutAFolderPartAreNeverScanned) {
  // A base path ending in "/" would match every name of the right length.
  std::string slashBase = this->dir_ + "/";
  morvotest::WriteFile(slashBase + std::string(24 - 3, 'a') + ".gz", "x");
  TypeParam trailing(slashBase, 10);
  trailing.ProcessMmapFileVec(0);
  EXPECT_TRUE(trailing.fileVec.empty());

  // Relative and root-level base paths.
  char cwd[4096];
  ASSERT_NE(nullptr, getcwd(cwd, sizeof(cwd)));
  ASSERT_EQ(0, chdir(this->dir_.c_str()));
  MakeSetFile("applog", 1);
  TypeParam relative("applog", 10);
  relative.ProcessMmapFileVec(0);
  EXPECT_TRUE(relative.fileVec.empty());
  ASSERT_EQ(0, chdir(cwd));

  TypeParam atRoot("/applog", 10);
  CaptureStderr();
  atRoot.ProcessMmapFileVec(0);
  EXPECT_EQ("", GetCapturedStderr());
  EXPECT_TRUE(atRoot.fileVec.empty());

  // Modes other than collect and purge do nothing.
  std::string shortName = this->base_ + ".gz";
  morvotest::WriteFile(shortName, "x");
  TypeParam set(this->base_, 10);
  set.ProcessMmapFileVec(2);
  set.ProcessMmapFileVec(-1);
  EXPECT_TRUE(set.fileVec.empty());
  EXPECT_TRUE(morvotest::Exists(shortName));
}

TYPED_TEST(FileSetTest, RotateMovesWhatFollowsThePivotToTheFront) {
  TypeParam set(this->base_, 10);
  std::vector<std::string> list = {"a", "P", "b", "P", "c"};
  set.RotateVec(list, "P");
  EXPECT_EQ((std::vector<std::string>{"b", "c", "a", "P", "P"}), list);

  list = {"a", "b", "c"};
  set.RotateVec(list, "x");
  set.RotateVec(list, "");
  set.RotateVec(list, "c");
  EXPECT_EQ((std::vector<std::string>{"a", "b", "c"}), list);
  set.RotateVec(list, list[0]);  // a pivot taken from the list itself
  EXPECT_EQ((std::vector<std::string>{"b", "c", "a"}), list);
}

TYPED_TEST(FileSetTest, LatestStampWinsAndTiesKeepTheEarlierEntry) {
  TypeParam set(this->base_, 10);
  const std::string& b = this->base_;
  std::string early = SetName(b, 1, "20240101-000000");
  std::string late = SetName(b, 2, "20240301-000000");
  std::string lateToo = SetName(b, 3, "20240301-000000");
  EXPECT_EQ(late, set.GetFileByMaxTimestamp({early, late, lateToo}));
  EXPECT_EQ(late, set.GetFileByMaxTimestamp({"short", early, late, b + "x"}));
  EXPECT_EQ("", set.GetFileByMaxTimestamp({"short", b + "x"}));
  EXPECT_EQ("", set.GetFileByMaxTimestamp({}));
}

struct OrderRow {
  const char* what;
  std::vector<int> sorted;
  int newest;  // the index with the latest stamp, -1 when all are equal
  std::vector<int> expected;
};

TYPED_TEST(FileSetTest, OrderingTableRowByRow) {
  const std::vector<OrderRow> rows = {
      {"one run", {0, 1, 2}, -1, {0, 1, 2}},
      {"wrapped once", {0, 1, 2, 997, 998, 999}, -1, {997, 998, 999, 0, 1, 2}},
      {"wrapped, one file each side", {0, 999}, -1, {999, 0}},
      {"gap, newest run end by stamp", {3, 4, 10, 11}, 4, {10, 11, 3, 4}},
      {"three runs", {0, 1, 500, 999}, 1, {500, 999, 0, 1}},
      {"previous result again", {500, 999, 0, 1}, 1, {999, 0, 1, 500}},
  };
  TypeParam set(this->base_, 10);
  for (const OrderRow& row : rows) {
    SCOPED_TRACE(row.what);
    std::vector<std::string> list;
    for (int index : row.sorted) {
      list.push_back(
          SetName(this->base_, index, index == row.newest ? "20240301-000000" : "20240101-000000"));
    }
    set.AdjustFileVecOrder(list);
    EXPECT_EQ(row.expected, Indices(set, list));
  }
}

TYPED_TEST(FileSetTest, OrderedListsOfConsecutiveIndicesStayAsTheyAre) {
  TypeParam set(this->base_, 10);
  for (const std::vector<int>& order :
       {std::vector<int>{5}, std::vector<int>{997, 998, 999, 0, 1}, std::vector<int>{998, 999, 0},
        std::vector<int>{10, 11, 12}}) {
    std::vector<std::string> list;
    for (int index : order) list.push_back(SetName(this->base_, index, "20240101-000000"));
    set.AdjustFileVecOrder(list);
    EXPECT_EQ(order, Indices(set, list));
  }
  std::vector<std::string> empty;
  set.AdjustFileVecOrder(empty);
  EXPECT_TRUE(empty.empty());
}

TYPED_TEST(FileSetTest, NegativeIndexLeavesTheListButNotTheDisk) {
  const std::string& b = this->base_;
  std::string negative = b + ".I-12.20240301-000000.gz";
  morvotest::WriteFile(negative, "x");
  std::string first = MakeSetFile(b, 0);
  std::string second = MakeSetFile(b, 1);
  TypeParam set(b, 1);
  set.FormFileVectors();
  EXPECT_EQ(std::vector<std::string>{second}, set.fileVec);
  EXPECT_FALSE(morvotest::Exists(first));
  EXPECT_TRUE(morvotest::Exists(negative));

  std::vector<std::string> onlyNegative = {negative, b + ".I-01.20240301-000000.gz"};
  EXPECT_EQ(0u, set.GetNewLogFileIndex(onlyNegative));
  EXPECT_TRUE(onlyNegative.empty());
}

TYPED_TEST(FileSetTest, NonNumericIndexReadsAsZero) {
  const std::string& b = this->base_;
  std::string odd = b + ".Iabc.20240301-000000.gz";
  morvotest::WriteFile(odd, "x");
  MakeSetFile(b, 1);
  MakeSetFile(b, 2);
  TypeParam set(b, 10);
  set.FormFileVectors();
  // 001 002 | abc(0): two runs without 999, the later stamp is the newest.
  EXPECT_EQ(odd, set.fileVec.back());
  EXPECT_EQ(0u, set.GetNewLogFileIndex(set.fileVec));
}

TYPED_TEST(FileSetTest, NextIndexFollowsTheNewestAcrossTheWrap) {
  const std::string& b = this->base_;
  TypeParam set(b, 10);
  std::vector<std::string> list;
  EXPECT_EQ(0u, set.GetNewLogFileIndex(list));
  list = {MakeSetFile(b, 997), MakeSetFile(b, 998), MakeSetFile(b, 999)};
  EXPECT_EQ(0u, set.GetNewLogFileIndex(list));
  list = {MakeSetFile(b, 0), MakeSetFile(b, 1), list[0], list[1], list[2]};  // as sorted
  EXPECT_EQ(2u, set.GetNewLogFileIndex(list));
  EXPECT_EQ((std::vector<int>{997, 998, 999, 0, 1}), Indices(set, list));
  list = {MakeSetFile(b, 41)};
  EXPECT_EQ(42u, set.GetNewLogFileIndex(list));
}

TYPED_TEST(FileSetTest, EmptyOrOldStyleOnlyFoldersFormAnEmptySet) {
  const std::string& b = this->base_;
  TypeParam set(b, 10);
  set.fileVec = {"stale"};
  set.FormFileVectors();
  EXPECT_TRUE(set.fileVec.empty());
  EXPECT_EQ(0u, set.GetNewLogFileIndex(set.fileVec));

  for (int n = 0; n < 5; ++n) {
    morvotest::WriteFile(b + "." + std::to_string(n), "x");
    morvotest::WriteFile(b + "-" + std::to_string(n) + ".tar.gz", "x");
  }
  set.FormFileVectors();
  EXPECT_TRUE(set.fileVec.empty());

  TypeParam lost(this->dir_ + "/missing/applog", 10);
  CaptureStderr();
  lost.FormFileVectors();
  EXPECT_EQ("open pdir error.\n", GetCapturedStderr());
  EXPECT_TRUE(lost.fileVec.empty());
}

TYPED_TEST(FileSetTest, FormingRestoresWritingOrderAndPrunesTheOldest) {
  const std::string& b = this->base_;
  std::vector<std::string> files;
  for (int index : {998, 999, 0, 1, 2}) files.push_back(MakeSetFile(b, index));
  TypeParam set(b, 3);
  set.FormFileVectors();
  EXPECT_EQ((std::vector<int>{0, 1, 2}), Indices(set, set.fileVec));
  EXPECT_FALSE(morvotest::Exists(files[0]));
  EXPECT_FALSE(morvotest::Exists(files[1]));
  EXPECT_TRUE(morvotest::Exists(files[2]));
  EXPECT_EQ(3u, set.GetNewLogFileIndex(set.fileVec));
}

TYPED_TEST(FileSetTest, PruningDropsEntriesEvenWhenTheFileIsGone) {
  const std::string& b = this->base_;
  std::string gone = SetName(b, 0, "20240101-000000");
  std::string present = MakeSetFile(b, 1);
  std::string newest = MakeSetFile(b, 2);
  TypeParam set(b, 1);
  set.fileVec = {gone, present, newest};
  CaptureStderr();
  set.RemoveRedundancy();
  EXPECT_EQ("unlink [" + gone + "] fail\n", GetCapturedStderr());
  EXPECT_EQ(std::vector<std::string>{newest}, set.fileVec);
  EXPECT_FALSE(morvotest::Exists(present));
  EXPECT_TRUE(morvotest::Exists(newest));
}

TYPED_TEST(FileSetTest, LimitZeroLeavesOneIndexFreeAndNeverTheCurrentFile) {
  const std::string& b = this->base_;
  TypeParam set(b, 0);
  std::vector<std::string> names;
  for (int index = 0; index < 1000; ++index) names.push_back(MakeSetFile(b, index));
  std::string current = MakeSetFile(b, 0, "20240301-000000");
  set.fileVec = names;
  set.fileVec.push_back(current);
  set.RemoveRedundancy();
  ASSERT_EQ(999u, set.fileVec.size());
  EXPECT_EQ(names[2], set.fileVec.front());
  EXPECT_EQ(current, set.fileVec.back());
  EXPECT_FALSE(morvotest::Exists(names[1]));
  EXPECT_TRUE(morvotest::Exists(current));

  // Index 0 came round within the same second: the oldest name is the
  // current file's, and only the entry goes.
  set.maxFiles = 2;
  set.fileVec = {current, names[5], current};
  set.RemoveRedundancy();
  EXPECT_EQ((std::vector<std::string>{names[5], current}), set.fileVec);
  EXPECT_TRUE(morvotest::Exists(current));
}

// The set's folder swapped for a link to a folder outside the tree that
// holds files of the set's names: pruning, the old-style sweep and the purge
// delete nothing there.
TYPED_TEST(FileSetTest, PruningAndPurgeNeverDeleteThroughALinkedFolder) {
  const std::string& b = this->base_;
  std::vector<std::string> names;
  for (int index = 0; index < 3; ++index) names.push_back(MakeSetFile(b, index));
  for (const std::string& other : {b + ".I03.20240105-081502.gz", b + ".1", b + "-0.tar.gz"}) {
    morvotest::WriteFile(other, "x");
  }
  TypeParam set(b, 1);
  set.fileVec = names;
  const std::string outside = this->root_.Under("/outside");
  ASSERT_EQ(rename(this->dir_.c_str(), outside.c_str()), 0);
  ASSERT_EQ(symlink(outside.c_str(), this->dir_.c_str()), 0);
  const std::vector<std::string> before = morvotest::Entries(outside);
  CaptureStderr();
  set.RemoveRedundancy();
  set.DeleteOldStyleFiles();
  set.ProcessMmapFileVec(1);
  set.FormFileVectors();
  GetCapturedStderr();
  EXPECT_EQ(before, morvotest::Entries(outside));
}

// The 1000 names of a set that holds every index, in writing order: the
// oldest has the index after the newest's. perSecond files share a stamp.
std::vector<std::string> FullSetInWritingOrder(const std::string& base, int newest, int perSecond) {
  std::vector<std::string> names;
  for (int k = 0; k < 1000; ++k) {
    names.push_back(SetName(base, (newest + 1 + k) % 1000, StampAfter(k / perSecond)));
  }
  return names;
}

struct FullSetRow {
  const char* what;
  int newest;     // the index written last
  int perSecond;  // files opened within one second
};

const std::vector<FullSetRow> kFullSets = {
    {"wrapped, newest in the middle", 300, 1},
    {"never wrapped", 999, 1},
    {"newest at 000", 0, 3},
    {"one second spans the wrap", 2, 7},
    {"many files a second", 641, 16},
};

// With every index present there is no gap to show where writing stopped:
// the stamps do.
TYPED_TEST(FileSetTest, FullSetOfEveryIndexIsOrderedByItsStamps) {
  TypeParam set(this->base_, 0);
  for (const FullSetRow& row : kFullSets) {
    SCOPED_TRACE(row.what);
    std::vector<std::string> written =
        FullSetInWritingOrder(this->base_, row.newest, row.perSecond);
    std::vector<std::string> list = written;
    std::sort(list.begin(), list.end(), TypeParam::SortByEarlyTime);
    set.AdjustFileVecOrder(list);
    EXPECT_EQ(written, list);
    set.AdjustFileVecOrder(list);
    EXPECT_EQ(written, list);
  }
}

// A set left holding all 1000 indices (by a run that opened a file without
// pruning, or a kill between opening and pruning): a restart keeps the
// newest files, drops the oldest, and never again holds them all.
TYPED_TEST(FileSetTest, RestartOverAFullSetPrunesTheOldestNeverTheNewest) {
  struct Row {
    uint64_t limit;
    int newest;
    size_t kept;  // entries after the new file was added
  };
  for (const Row& row : {Row{0, 300, 999}, Row{1000, 999, 999}, Row{5, 0, 6}}) {
    SCOPED_TRACE(testing::Message() << "limit " << row.limit << " newest " << row.newest);
    for (const std::string& name : SetFilesIn(this->dir_, "applog")) unlink(name.c_str());
    std::vector<std::string> written = FullSetInWritingOrder(this->base_, row.newest, 1);
    for (const std::string& name : written) morvotest::WriteFile(name, "data\n");

    TypeParam set(this->base_, row.limit);
    set.FormFileVectors();
    EXPECT_LE(SetFilesIn(this->dir_, "applog").size(), 999u);
    EXPECT_EQ(written.back(), set.fileVec.back());
    std::string added;
    ASSERT_TRUE(set.AddNewFile(set.GetNewLogFileIndex(set.fileVec), &added));
    EXPECT_EQ(static_cast<int>((row.newest + 1) % 1000), Indices(set, {added})[0]);

    std::vector<std::string> expected(written.end() - static_cast<long>(row.kept - 1),
                                      written.end());
    expected.push_back(added);
    EXPECT_EQ(expected, set.fileVec);
    std::vector<std::string> onDisk = SetFilesIn(this->dir_, "applog");
    std::sort(onDisk.begin(), onDisk.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, onDisk);
  }
}

// A set at the cap with its one free index: adding a file (a rotation
// killed before it pruned, or a setup, which does not prune) never fills
// the last index, so the next restart still finds the newest.
TYPED_TEST(FileSetTest, AddingAtTheCapKeepsAnIndexFreeForTheNextRestart) {
  struct Row {
    uint64_t limit;
    int newest;  // the free index is the one after it
  };
  for (const Row& row : {Row{0, 998}, Row{999, 999}, Row{999, 400}}) {
    SCOPED_TRACE(testing::Message() << "limit " << row.limit << " newest " << row.newest);
    for (const std::string& name : SetFilesIn(this->dir_, "applog")) unlink(name.c_str());
    std::vector<std::string> written = FullSetInWritingOrder(this->base_, row.newest, 1);
    written.erase(written.begin());  // the free index
    for (const std::string& name : written) morvotest::WriteFile(name, "data\n");

    TypeParam killed(this->base_, row.limit);
    killed.FormFileVectors();
    std::string added;
    ASSERT_TRUE(killed.AddNewFile(killed.GetNewLogFileIndex(killed.fileVec), &added));
    EXPECT_EQ(999u, SetFilesIn(this->dir_, "applog").size());

    TypeParam restarted(this->base_, row.limit);
    restarted.FormFileVectors();
    ASSERT_EQ(999u, restarted.fileVec.size());
    EXPECT_EQ(added, restarted.fileVec.back());
    EXPECT_EQ(written.back(), restarted.fileVec[997]);
    EXPECT_TRUE(morvotest::Exists(written.back()));
  }
}

// A new set file is a whole gzip stream from the moment it exists, so a
// kill before the first flush leaves nothing zcat rejects.
TYPED_TEST(FileSetTest, NewSetFilesAreWholeGzipStreamsBeforeAnyWrite) {
  TypeParam set(this->base_, 10);
  std::string first;
  std::string second;
  ASSERT_TRUE(set.AddNewFile(0, &first));
  ASSERT_TRUE(set.AddNewFile(1, &second));
  for (const std::string& name : {first, second}) {
    std::string text = "unread";
    EXPECT_TRUE(WholeGzip(name, &text)) << name;
    EXPECT_EQ("", text);
    EXPECT_EQ(20u, morvotest::ReadFile(name).size());
  }
  EXPECT_EQ((std::vector<std::string>{first, second}), set.fileVec);
}

// Zero-byte set files left by a kill before the first flush (by a run that
// made them empty) are given an empty member when the set is formed again;
// their names stay in the set.
TYPED_TEST(FileSetTest, FormingGivesZeroByteSetFilesAnEmptyMember) {
  const std::string& b = this->base_;
  std::vector<std::string> files = {MakeSetFile(b, 0), SetName(b, 1, "20240105-081502"),
                                    MakeSetFile(b, 2), SetName(b, 3, "20240105-081502")};
  morvotest::WriteFile(files[1], "");
  morvotest::WriteFile(files[3], "");
  TypeParam set(b, 10);
  set.FormFileVectors();
  EXPECT_EQ(files, set.fileVec);
  for (size_t i : {size_t{1}, size_t{3}}) {
    std::string text = "unread";
    EXPECT_TRUE(WholeGzip(files[i], &text)) << files[i];
    EXPECT_EQ("", text);
  }
  EXPECT_EQ("data\n", morvotest::ReadFile(files[2]));
}

// The purge and the collection read a directory entry's own name: the base
// name found in the folder's path, or at the start of another group's name,
// never makes a file part of the set.
TYPED_TEST(FileSetTest, ScanMatchesTheSetsOwnNamesNotTheFolder) {
  struct Row {
    const char* folder;
    const char* base;
    std::vector<std::string> stay;
    std::vector<std::string> gone;
    std::string collected;
  };
  const std::vector<Row> rows = {
      {"/data/log",
       "log",
       {"applog.I001.20240105-081502.gz", "applog-3.tar.gz", "kmsg.gz",
        "abc.I001.20240105-081502.gz", "logcat.I001.20240105-081502.gz",
        "log-kernel.I001.20240105-081502.gz", "log-kernel-0.tar.gz", "log.gz"},
       {"log.I01.20240105-081502.gz", "log-12.tar.gz"},
       "log.I001.20240105-081502.gz"},
      {"/data/log/charge-log",
       "charge-log",
       {"kernel.I001.20240105-081502.gz", "bugreport.tar.gz", "charge-log_old.gz",
        "charge-log-x.tar.gz", "xxxxxxxxxx.I001.20240105-081502.gz"},
       {"charge-log.I1.20240105-081502.gz", "charge-log-5.tar.gz"},
       "charge-log.I001.20240105-081502.gz"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.folder);
    const std::string folder = this->root_.Under(row.folder);
    this->root_.MakeDirs(row.folder);
    for (const auto* names : {&row.stay, &row.gone}) {
      for (const std::string& name : *names) morvotest::WriteFile(folder + "/" + name, "x");
    }
    const std::string collected = folder + "/" + row.collected;
    morvotest::WriteFile(collected, "x");

    TypeParam set(folder + "/" + row.base, 10);
    set.ProcessMmapFileVec(0);
    EXPECT_EQ(std::vector<std::string>{collected}, set.fileVec);
    set.ProcessMmapFileVec(1);
    for (const std::string& name : row.stay) {
      EXPECT_TRUE(morvotest::Exists(folder + "/" + name)) << name;
    }
    for (const std::string& name : row.gone) {
      EXPECT_FALSE(morvotest::Exists(folder + "/" + name)) << name;
    }
    EXPECT_TRUE(morvotest::Exists(collected));
  }
}

}  // namespace
