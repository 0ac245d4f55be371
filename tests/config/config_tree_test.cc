// The tree's building blocks, and validation and dump of trees no file gives.

#include "config/config_tree.h"

#include <gtest/gtest.h>

#include "config/config_check.h"
#include "config/config_test_support.h"
#include "support/alloc_failure.h"

namespace configtest {
namespace {

using morvotest::FailNothrowAllocation;
using TavoConfig::FreeInputNodeList;
using TavoConfig::FreeInputNodeSet;
using TavoConfig::IsValidCmdSet;
using TavoConfig::IsValidDirSet;
using TavoConfig::IsValidNodeSet;

// A null argument or a failed allocation leaves the field null.
TEST(CopyStringTest, FailureLeavesTheFieldNull) {
  char* field = nullptr;
  ASSERT_EQ(0, CopyString("old", &field));
  EXPECT_EQ(1, CopyString(nullptr, &field));
  EXPECT_EQ(nullptr, field);
  EXPECT_EQ(1, CopyString("x", nullptr));
  ASSERT_EQ(0, CopyString("old", &field));
  FailNothrowAllocation(0);
  EXPECT_EQ(1, CopyString("new", &field));
  FailNothrowAllocation(-1);
  EXPECT_EQ(nullptr, field);
}

// A single record's free does not follow next (leaks show under the leak checker).
TEST(FreeTest, NullArgumentsAreHarmlessAndSingleRecordFreesDoNotFollowNext) {
  FreeConfigFile(nullptr);
  TavoConfig::FreeLogcatGroup(nullptr);
  FreeInputNodeSet(nullptr);
  TavoConfig::FreeInputDirSet(nullptr);
  TavoConfig::FreeInputCmdSet(nullptr);
  TavoConfig::FreeStrList(nullptr);
  TavocatInputNodeSetT* empty = nullptr;
  FreeInputNodeList(empty);
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

// A zero-filled root fails after the dump; so does a style past the known ones.
TEST_F(ConfigTest, ZeroRootAndUnknownStyleFailAfterTheDump) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(1, TavoConfig::ValidateTavocatInfo(info_));
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(ExpectedDump(info_), err);
  WriteConfig(Instance(KmsgGroup()));
  ASSERT_EQ(0, Parse());
  info_.groups->style = static_cast<TavoCommon::LogStyle>(6);
  testing::internal::CaptureStderr();
  EXPECT_EQ(1, TavoConfig::ValidateTavocatInfo(info_));
  err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(ExpectedDump(info_), err);
  info_.groups->style = TavoCommon::MONITOR_NODE;
}

// The dump's exact layout: every kind of line, a null string as "nullptr".
TEST_F(ConfigTest, DumpWritesEveryFieldInItsLayout) {
  WriteConfig(Instance(
      Group(Values("logStyle=poll_node outputFilePath=/n") +
            Set("inputNodeSet", "dataPath=/d titlePath=/t title=T width=5 alterdataPath=/a") +
            Set("inputNodeSet", "dataPath=/e")) +
      Group(Values("logStyle=monitor_dir outputFilePath=/m") +
            Set("inputDirSet", "inputDirPath=/i pickNode=p")) +
      Group(Values("logStyle=poll_cmd outputFilePath=/c") + Set("inputCmdSet", "command=c"))));
  ASSERT_EQ(0, Parse());
  auto group = [](const char* style, const char* out) {
    return std::string("~~~~~~ TavocatGroup begin ~~~~~~\npollingInterval   : 0\n") +
           "failureRetry      : 0\ncondition index   : 0\nstyle             : " + style +
           "\noutputFilePath    : " + out + "\n";
  };
  const std::string end = "~~~~~~ TavocatGroup end ~~~~~~~~\n";
  EXPECT_EQ(
      "------------- printTavocatInfo begin -------------\nname              : kmsglogcat\n"
      "rotateSizeKbytes  : 0\nmaxCompressdFiles : 0\nwriteMode         : 0\n" +
          group("3", "/n") + "dataPath         : /d\ntitlePath        : /t\n" +
          "title             : T\nwidth             : 5\nalterDataPath   : /a\n" +
          "dataPath         : /e\ntitlePath        : nullptr\ntitle             : nullptr\n" +
          "width             : 0\n" + end + group("2", "/m") + "inputDirPath      : /i\n" +
          "pickNode          : p\n" + end + group("4", "/c") + "command           : c\n" + end +
          "------------- printTavocatInfo end ---------------\n",
      err_);
}

TEST_F(ConfigTest, NullSetsAreNotValidAndPrintNothing) {
  EXPECT_FALSE(IsValidNodeSet(nullptr));
  EXPECT_FALSE(IsValidDirSet(nullptr));
  EXPECT_FALSE(IsValidCmdSet(nullptr));
  testing::internal::CaptureStderr();
  TavoConfig::PrintTavocatInfoNodeAndTrigger(nullptr);
  TavoConfig::PrintTavocatInfoDir(nullptr);
  TavoConfig::PrintTavocatInfoCmd(nullptr);
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

}  // namespace
}  // namespace configtest
