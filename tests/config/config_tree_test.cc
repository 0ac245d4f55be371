// The tree's building blocks: string copies and the release of records.

#include "config/config_tree.h"

#include <gtest/gtest.h>
#include <string.h>

#include "config/alloc_failure.h"

namespace {

using namespace TavoCommon;
using namespace TavoConfig;

TEST(CopyStringTest, CopiesReplacesAndKeepsEmptyDistinctFromMissing) {
  char* field = nullptr;
  ASSERT_EQ(0, CopyString("abc", &field));
  EXPECT_STREQ("abc", field);
  ASSERT_EQ(0, CopyString("", &field));
  ASSERT_NE(nullptr, field);
  EXPECT_EQ('\0', field[0]);
  // A null source fails and leaves the field null; the old copy is freed.
  EXPECT_EQ(1, CopyString(nullptr, &field));
  EXPECT_EQ(nullptr, field);
  EXPECT_EQ(1, CopyString("x", nullptr));
}

TEST(CopyStringTest, CutsAtTheGivenLength) {
  char* field = nullptr;
  ASSERT_EQ(0, CopyString("abcdef", &field, 4));
  EXPECT_STREQ("abcd", field);
  ASSERT_EQ(0, CopyString("ab", &field, 4));
  EXPECT_STREQ("ab", field);
  delete[] field;
}

TEST(CopyStringTest, FailedAllocationLeavesTheFieldNull) {
  char* field = nullptr;
  ASSERT_EQ(0, CopyString("old", &field));
  configtest::FailNothrowAllocation(0);
  EXPECT_EQ(1, CopyString("new", &field));
  configtest::FailNothrowAllocation(-1);
  EXPECT_EQ(nullptr, field);
}

TavocatInputNodeSetT* NewNode(const char* dataPath, const char* alter) {
  auto* node = new TavocatInputNodeSetT();
  CopyString(dataPath, &node->dataPath);
  CopyString("t", &node->title);
  if (alter != nullptr) {
    node->alterDataPath = new TavocatStrListT();
    CopyString(alter, &node->alterDataPath->str);
  }
  return node;
}

TavocatGroupT* NewGroup(TavocatInfoT* info, LogStyle style) {
  auto* group = new TavocatGroupT();
  group->info = info;
  group->style = style;
  CopyString("/data/log/x", &group->outputFilePath);
  if (IsNodeStyle(style)) {
    auto* first = NewNode("/a", "/b");
    first->next = NewNode(nullptr, "/c");
    group->inputSet = first;
  } else if (style == MONITOR_DIR) {
    auto* dir = new TavocatInputDirSetT();
    CopyString("/dev/input", &dir->inputDirPath);
    dir->pickNode = new TavocatStrListT();
    dir->pickNode->next = new TavocatStrListT();
    CopyString("keys", &dir->pickNode->next->str);
    group->inputSet = dir;
  } else if (style == POLL_CMD) {
    auto* cmd = new TavocatInputCmdSetT();
    CopyString("battery", &cmd->command);
    cmd->next = new TavocatInputCmdSetT();
    group->inputSet = cmd;
  }
  return group;
}

// Leaks of any record or string show up under the leak checker.
TEST(FreeConfigFileTest, FreesEveryStyleOfGroupAndZeroFillsTheRoot) {
  TavocatInfoT info = {};
  CopyString("kmsglogcat", &info.name);
  info.rotateSizeKbytes = 7;
  info.maxCompressdFiles = 3;
  info.writeMode = FACTORY_WRITE;
  TavocatGroupT** tail = &info.groups;
  for (LogStyle style :
       {MONITOR_NODE, MONITOR_DIR, POLL_NODE, POLL_CMD, COND_TRIGGER, LOG_STYLE_NONE}) {
    *tail = NewGroup(&info, style);
    tail = &(*tail)->next;
  }
  FreeConfigFile(&info);
  EXPECT_EQ(nullptr, info.name);
  EXPECT_EQ(nullptr, info.groups);
  EXPECT_EQ(0u, info.rotateSizeKbytes);
  EXPECT_EQ(0u, info.maxCompressdFiles);
  EXPECT_EQ(MMAP_WRITE, info.writeMode);
  FreeConfigFile(&info);
  EXPECT_EQ(nullptr, info.groups);
}

TEST(FreeConfigFileTest, ZeroRootAndNullArgumentsAreHarmless) {
  TavocatInfoT info = {};
  FreeConfigFile(&info);
  FreeConfigFile(&info);
  EXPECT_EQ(nullptr, info.name);
  EXPECT_EQ(nullptr, info.groups);
  FreeConfigFile(nullptr);
  FreeLogcatGroup(nullptr);
  FreeInputNodeSet(nullptr);
  FreeInputDirSet(nullptr);
  FreeInputCmdSet(nullptr);
  FreeStrList(nullptr);
  TavocatInputNodeSetT* empty = nullptr;
  FreeInputNodeList(empty);
}

TEST(FreeListTest, SingleRecordFreesDoNotFollowNext) {
  TavocatInputNodeSetT* first = NewNode("/a", nullptr);
  TavocatInputNodeSetT* second = NewNode("/b", nullptr);
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
