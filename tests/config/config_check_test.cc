// Validation: every kind of incomplete tree fails, and the dump comes first.

#include <gtest/gtest.h>

#include <string>

#include "config/config_check.h"
#include "config/config_tree.h"

namespace {

using namespace TavoCommon;
using namespace TavoConfig;

const char kBegin[] =
    "------------- printTavocatInfo begin -------------\n"
    "name              : kmsglogcat\n"
    "rotateSizeKbytes  : 4096\n"
    "maxCompressdFiles : 25\n"
    "writeMode         : 1\n";
const char kGroupBegin[] = "~~~~~~ TavocatGroup begin ~~~~~~\n";
const char kGroupEnd[] = "~~~~~~ TavocatGroup end ~~~~~~~~\n";
const char kEnd[] = "------------- printTavocatInfo end ---------------\n";

std::string GroupHead(size_t style, const char* path) {
  return std::string(kGroupBegin) +
         "pollingInterval   : 5\n"
         "failureRetry      : 2\n"
         "condition index   : 1\n"
         "style             : " + std::to_string(style) + "\n"
         "outputFilePath    : " + path + "\n";
}

class ValidateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CopyString("kmsglogcat", &info_.name);
    info_.rotateSizeKbytes = 4096;
    info_.maxCompressdFiles = 25;
    info_.writeMode = FACTORY_WRITE;
  }
  void TearDown() override { FreeConfigFile(&info_); }

  TavocatGroupT* AddGroup(LogStyle style, const char* path = "/data/log/x") {
    auto* group = new TavocatGroupT();
    group->info = &info_;
    group->style = style;
    group->pollingInterval = 5;
    group->failureRetry = 2;
    group->condIndex = 1;
    CopyString(path, &group->outputFilePath);
    AppendToList(info_.groups, group);
    return group;
  }
  TavocatInputNodeSetT* AddNode(TavocatGroupT* group, const char* dataPath) {
    auto* node = new TavocatInputNodeSetT();
    CopyString(dataPath, &node->dataPath);
    auto* head = static_cast<TavocatInputNodeSetT*>(group->inputSet);
    AppendToList(head, node);
    group->inputSet = head;
    return node;
  }
  TavocatInputCmdSetT* AddCmd(TavocatGroupT* group, const char* command) {
    auto* cmd = new TavocatInputCmdSetT();
    CopyString(command, &cmd->command);
    auto* head = static_cast<TavocatInputCmdSetT*>(group->inputSet);
    AppendToList(head, cmd);
    group->inputSet = head;
    return cmd;
  }
  void AddStr(TavocatStrListT** head, const char* str) {
    auto* entry = new TavocatStrListT();
    CopyString(str, &entry->str);
    AppendToList(*head, entry);
  }

  // Validates with standard error kept in dump_.
  int Validate() {
    testing::internal::CaptureStderr();
    int result = ValidateTavocatInfo(info_);
    dump_ = testing::internal::GetCapturedStderr();
    return result;
  }

  TavocatInfoT info_ = {};
  std::string dump_;
};

TEST_F(ValidateTest, ZeroRootFailsAfterDumpingPlaceholders) {
  FreeConfigFile(&info_);
  EXPECT_EQ(1, Validate());
  EXPECT_EQ(
      "------------- printTavocatInfo begin -------------\n"
      "name              : nullptr\n"
      "rotateSizeKbytes  : 0\n"
      "maxCompressdFiles : 0\n"
      "writeMode         : 0\n" +
          std::string(kEnd),
      dump_);
}

TEST_F(ValidateTest, NoGroupsFails) {
  EXPECT_EQ(1, Validate());
  EXPECT_EQ(std::string(kBegin) + kEnd, dump_);
}

TEST_F(ValidateTest, GroupWithoutOutputPathFails) {
  AddNode(AddGroup(MONITOR_NODE, nullptr), "/proc/kmsg");
  EXPECT_EQ(1, Validate());
  EXPECT_EQ(std::string(kBegin) + GroupHead(1, "nullptr") +
                "dataPath         : /proc/kmsg\n"
                "titlePath        : nullptr\n"
                "title             : nullptr\n"
                "width             : 0\n" +
                kGroupEnd + kEnd,
            dump_);
}

TEST_F(ValidateTest, StyleOutsideOneToFiveFailsAndShowsNoSources) {
  for (uint32_t style : {0u, 6u}) {
    FreeConfigFile(&info_);
    SetUp();
    AddGroup(static_cast<LogStyle>(style));
    EXPECT_EQ(1, Validate()) << style;
    EXPECT_EQ(std::string(kBegin) + GroupHead(style, "/data/log/x") + kGroupEnd + kEnd, dump_);
  }
}

TEST_F(ValidateTest, MissingSourcesFailForEveryStyle) {
  for (LogStyle style : {MONITOR_NODE, MONITOR_DIR, POLL_NODE, POLL_CMD, COND_TRIGGER}) {
    FreeConfigFile(&info_);
    SetUp();
    AddGroup(style);
    EXPECT_EQ(1, Validate()) << style;
    EXPECT_EQ(std::string(kBegin) + GroupHead(style, "/data/log/x") + kGroupEnd + kEnd, dump_);
  }
}

TEST_F(ValidateTest, NodeWithoutAnyDataPathFails) {
  TavocatGroupT* group = AddGroup(COND_TRIGGER);
  AddNode(group, "/a");
  TavocatInputNodeSetT* bare = AddNode(group, nullptr);
  CopyString("Title", &bare->title);
  bare->width = 8;
  EXPECT_EQ(1, Validate());
  EXPECT_EQ(std::string(kBegin) + GroupHead(5, "/data/log/x") +
                "dataPath         : /a\n"
                "titlePath        : nullptr\n"
                "title             : nullptr\n"
                "width             : 0\n"
                "dataPath         : nullptr\n"
                "titlePath        : nullptr\n"
                "title             : Title\n"
                "width             : 8\n" +
                kGroupEnd + kEnd,
            dump_);
  EXPECT_FALSE(IsValidNodeSet(static_cast<TavocatInputNodeSetT*>(group->inputSet)));
}

TEST_F(ValidateTest, AlternativePathAloneIsEnough) {
  TavocatGroupT* group = AddGroup(POLL_NODE);
  TavocatInputNodeSetT* node = AddNode(group, nullptr);
  AddStr(&node->alterDataPath, "/alt1");
  AddStr(&node->alterDataPath, "/alt2");
  EXPECT_EQ(0, Validate());
  EXPECT_NE(std::string::npos, dump_.find("width             : 0\n"
                                          "alterDataPath   : /alt1\n"
                                          "alterDataPath   : /alt2\n" +
                                          std::string(kGroupEnd)))
      << dump_;
  EXPECT_TRUE(IsValidNodeSet(node));
}

TEST_F(ValidateTest, DirSetWithoutPathFails) {
  TavocatGroupT* group = AddGroup(MONITOR_DIR);
  auto* dir = new TavocatInputDirSetT();
  group->inputSet = dir;
  AddStr(&dir->pickNode, "gpio-keys");
  EXPECT_EQ(1, Validate());
  EXPECT_EQ(std::string(kBegin) + GroupHead(2, "/data/log/x") +
                "inputDirPath      : nullptr\n"
                "pickNode          : gpio-keys\n" +
                kGroupEnd + kEnd,
            dump_);
  EXPECT_FALSE(IsValidDirSet(dir));
  CopyString("/dev/input", &dir->inputDirPath);
  EXPECT_TRUE(IsValidDirSet(dir));
  EXPECT_EQ(0, Validate());
}

TEST_F(ValidateTest, CommandNodeWithoutCommandFails) {
  TavocatGroupT* group = AddGroup(POLL_CMD);
  AddCmd(group, "battery");
  AddCmd(group, nullptr);
  EXPECT_EQ(1, Validate());
  EXPECT_EQ(std::string(kBegin) + GroupHead(4, "/data/log/x") +
                "command           : battery\n"
                "command           : nullptr\n" +
                kGroupEnd + kEnd,
            dump_);
  EXPECT_FALSE(IsValidCmdSet(static_cast<TavocatInputCmdSetT*>(group->inputSet)));
}

TEST_F(ValidateTest, LaterInvalidGroupFailsTheTreeAndEveryGroupIsDumped) {
  AddNode(AddGroup(MONITOR_NODE), "/proc/kmsg");
  AddCmd(AddGroup(POLL_CMD, "/data/log/b"), "battery");
  EXPECT_EQ(0, Validate());
  AddGroup(POLL_CMD, "/data/log/c");
  EXPECT_EQ(1, Validate());
  EXPECT_NE(std::string::npos, dump_.find(GroupHead(4, "/data/log/c") + kGroupEnd + kEnd));
  EXPECT_EQ(0u, dump_.find(kBegin));
}

TEST(ValidSetTest, NullSetsAreNotValid) {
  EXPECT_FALSE(IsValidNodeSet(nullptr));
  EXPECT_FALSE(IsValidDirSet(nullptr));
  EXPECT_FALSE(IsValidCmdSet(nullptr));
}

TEST(PrintSourcesTest, NullSetsPrintNothing) {
  testing::internal::CaptureStderr();
  PrintTavocatInfoNodeAndTrigger(nullptr);
  PrintTavocatInfoDir(nullptr);
  PrintTavocatInfoCmd(nullptr);
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

}  // namespace
