// The tree's building blocks: string copies and the release of records.

#include "config/config_tree.h"

#include <gtest/gtest.h>

#include "config/alloc_failure.h"
#include "config/config_test_support.h"

namespace configtest {
namespace {

using TavoConfig::AppendToList;
using TavoConfig::FreeInputNodeList;
using TavoConfig::FreeInputNodeSet;

TEST(CopyStringTest, CopiesReplacesCutsAndKeepsEmptyDistinctFromMissing) {
  char* field = nullptr;
  ASSERT_EQ(0, CopyString("abc", &field));
  EXPECT_STREQ("abc", field);
  ASSERT_EQ(0, CopyString("", &field));
  ASSERT_NE(nullptr, field);
  EXPECT_EQ('\0', field[0]);
  ASSERT_EQ(0, CopyString("abcdef", &field, 4));
  EXPECT_STREQ("abcd", field);
  ASSERT_EQ(0, CopyString("ab", &field, 4));
  EXPECT_STREQ("ab", field);
  // A null source fails and leaves the field null; the old copy is freed.
  EXPECT_EQ(1, CopyString(nullptr, &field));
  EXPECT_EQ(nullptr, field);
  EXPECT_EQ(1, CopyString("x", nullptr));
}

TEST(CopyStringTest, FailedAllocationLeavesTheFieldNull) {
  char* field = nullptr;
  ASSERT_EQ(0, CopyString("old", &field));
  FailNothrowAllocation(0);
  EXPECT_EQ(1, CopyString("new", &field));
  FailNothrowAllocation(-1);
  EXPECT_EQ(nullptr, field);
}

// Trees of every style are freed after each parse case; leaks show up under
// the leak checker.
TEST(FreeConfigFileTest, ZeroRootAndNullArgumentsAreHarmless) {
  TavocatInfoT info = {};
  FreeConfigFile(&info);
  FreeConfigFile(&info);
  EXPECT_EQ("", Describe(info));
  FreeConfigFile(nullptr);
  TavoConfig::FreeLogcatGroup(nullptr);
  FreeInputNodeSet(nullptr);
  TavoConfig::FreeInputDirSet(nullptr);
  TavoConfig::FreeInputCmdSet(nullptr);
  TavoConfig::FreeStrList(nullptr);
  TavocatInputNodeSetT* empty = nullptr;
  FreeInputNodeList(empty);
}

TEST(FreeListTest, SingleRecordFreesDoNotFollowNext) {
  auto* first = new TavocatInputNodeSetT();
  auto* second = new TavocatInputNodeSetT();
  CopyString("/a", &first->dataPath);
  CopyString("/b", &second->dataPath);
  first->next = second;
  FreeInputNodeSet(first);
  // second is still ours: reading it must be fine under the address checker.
  EXPECT_STREQ("/b", second->dataPath);
  FreeInputNodeList(second);
  EXPECT_EQ(nullptr, second);
}

TEST(AppendToListTest, AppendsAtTheTailInOrder) {
  TavocatStrListT* head = nullptr;
  TavocatStrListT entries[3] = {};
  for (auto& entry : entries) AppendToList(head, &entry);
  EXPECT_EQ(&entries[0], head);
  EXPECT_EQ(&entries[1], entries[0].next);
  EXPECT_EQ(&entries[2], entries[1].next);
  EXPECT_EQ(nullptr, entries[2].next);
}

}  // namespace
}  // namespace configtest
