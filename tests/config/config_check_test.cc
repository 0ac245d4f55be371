// Validation: every kind of incomplete tree fails, and the dump comes first;
// tavocat-config gives the collector's verdict on any file.

#include "config/config_check.h"

#include <gtest/gtest.h>

#include <string>

#include "config/config_test_support.h"
#include "config/config_tree.h"
#include "config/parse_apart.h"

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
         "style             : " +
         std::to_string(style) +
         "\n"
         "outputFilePath    : " +
         path + "\n";
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

// A style outside one to five fails and shows no sources; so does every
// style without its sources.
TEST_F(ValidateTest, GroupsWithoutUsableSourcesFail) {
  for (uint32_t style : {0u, 6u, 1u, 2u, 3u, 4u, 5u}) {
    FreeConfigFile(&info_);
    SetUp();
    AddGroup(static_cast<LogStyle>(style));
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

class VerdictTest : public configtest::ConfigTest {
 protected:
  // What the collector does with the file at path: 0 when it would start
  // its groups, 1 when it refuses the configuration.
  int CollectorVerdict(const std::string& path, const char* name) {
    TavocatInfoT info = {};
    testing::internal::CaptureStderr();
    int result =
        ParseConfigFileApartAt(path.c_str(), name, &info) == 0 && IsRunnableConfig(info) ? 0 : 1;
    testing::internal::GetCapturedStderr();
    FreeConfigFile(&info);
    return result;
  }
};

TEST_F(VerdictTest, CheckerAndCollectorAgreeOnEveryFile) {
  SetProp("ro.hardware", "qcom");
  std::string source = configtest::EnvOr("MORVO_SOURCE_DIR", ".");
  std::string corpus = source + "/fuzz/corpus/config_fuzzer/";
  std::string doctype = root_.Under("/doctype.xml");
  morvotest::WriteFile(doctype,
                       "<!DOCTYPE config>\n" + configtest::Instance(configtest::KmsgGroup()));
  const int kAny = -1;
  const struct {
    std::string path;
    const char* name;
    int verdict;
  } cases[] = {
      {source + "/etc/tavocat_config.xml", "kmsglogcat", 0},
      {source + "/etc/tavocat_config.xml", "chargelogcat", 1},
      {corpus + "sample.xml", "kmsglogcat", 0},
      {corpus + "two_triggers.xml", "chargelogcat", 1},
      {corpus + "broken.xml", "kmsglogcat", 1},
      {corpus + "entities.xml", "kmsglogcat", 1},
      {corpus + "charge.xml", "chargelogcat", kAny},
      {corpus + "charge.xml", "kmsglogcat", kAny},
      {doctype, "kmsglogcat", 1},
  };
  for (const auto& c : cases) {
    std::string out, err;
    int collector = CollectorVerdict(c.path, c.name);
    EXPECT_EQ(collector, RunTool(std::string(c.name) + " " + c.path, &out, &err))
        << c.path << " " << c.name << "\n"
        << err;
    if (c.verdict != kAny) {
      EXPECT_EQ(c.verdict, collector) << c.path << " " << c.name;
    }
    EXPECT_EQ(std::string(c.name) + (collector == 0 ? ": valid" : ": no valid") +
                  " configuration in " + c.path + "\n",
              out);
  }
}

TEST_F(VerdictTest, CheckerSaysWhyTheCollectorRefusesTwoTriggerGroups) {
  std::string path =
      configtest::EnvOr("MORVO_SOURCE_DIR", ".") + "/fuzz/corpus/config_fuzzer/two_triggers.xml";
  std::string out, err;
  EXPECT_EQ(1, RunTool("chargelogcat " + path, &out, &err));
  EXPECT_NE(std::string::npos,
            err.find("------------- printTavocatInfo end ---------------\n"
                     "Main:tavocat [chargelogcat] has more than one cond_trigger group, "
                     "refused!\n"))
      << err;
}

TEST(NullSetsTest, AreNotValidAndPrintNothing) {
  EXPECT_FALSE(IsValidNodeSet(nullptr));
  EXPECT_FALSE(IsValidDirSet(nullptr));
  EXPECT_FALSE(IsValidCmdSet(nullptr));
  testing::internal::CaptureStderr();
  PrintTavocatInfoNodeAndTrigger(nullptr);
  PrintTavocatInfoDir(nullptr);
  PrintTavocatInfoCmd(nullptr);
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

}  // namespace
