// Validation: every kind of incomplete tree fails, and the dump of the whole
// tree comes first.

#include "config/config_check.h"

#include <gtest/gtest.h>

#include <string>

#include "config/config_test_support.h"

namespace configtest {
namespace {

using TavoConfig::IsValidCmdSet;
using TavoConfig::IsValidDirSet;
using TavoConfig::IsValidNodeSet;
using TavoConfig::ValidateTavocatInfo;

const ParseCase kValidation[] = {
    {"NoGroupsFails", Instance(""), 1, "kmsglogcat"},
    {"GroupWithoutOutputPathFails",
     Instance(Group(Values("logStyle=monitor_node") + Set("inputNodeSet", "dataPath=/a"))), 1,
     "kmsglogcat | monitor_node node{data=/a}"},
    {"GroupWithoutStyleFails", Instance(Group(Values("outputFilePath=/o"))), 1,
     "kmsglogcat | none out=/o"},
    GroupRow("MonitorNodeWithoutSourcesFails", "monitor_node", "", 1, ""),
    GroupRow("MonitorDirWithoutSourcesFails", "monitor_dir", "", 1, ""),
    GroupRow("PollNodeWithoutSourcesFails", "poll_node", "", 1, ""),
    GroupRow("PollCmdWithoutSourcesFails", "poll_cmd", "", 1, ""),
    GroupRow("CondTriggerWithoutSourcesFails", "cond_trigger", "", 1, ""),
    GroupRow("NodeWithoutAnyDataPathFails", "cond_trigger",
             Set("inputNodeSet", "dataPath=/a") + Set("inputNodeSet", "title=Title width=8"), 1,
             " node{data=/a} node{title=Title width=8}"),
    GroupRow("AlternativePathAloneIsEnough", "poll_node",
             Set("inputNodeSet", "alterdataPath=/alt1 alterdataPath=/alt2"), 0,
             " node{alt=/alt1,/alt2}"),
    GroupRow("DirSetWithoutPathFails", "monitor_dir", Set("inputDirSet", "pickNode=gpio-keys"), 1,
             " dir{pick=gpio-keys}"),
    {"LaterInvalidGroupFailsTheTreeAndEveryGroupIsDumped",
     Instance(KmsgGroup() +
              Group(Values("logStyle=poll_cmd outputFilePath=/b") +
                    Set("inputCmdSet", "command=battery")) +
              Group(Values("logStyle=poll_cmd outputFilePath=/c"))),
     1,
     std::string("kmsglogcat") + kKmsgTree + " | poll_cmd out=/b cmd{battery} | poll_cmd out=/c"},
    // Every line of the dump, with "nullptr" for each missing string.
    {"DumpShowsEveryFieldAndMissingStrings",
     Instance(Values("logRotateSizeKBytes=4096 maxCompressdFiles=25 writeMode=factory") +
              Group("<logStyle value=\"cond_trigger\" interval=\"5\" failureRetry=\"2\" "
                    "cond_index=\"1\"/>" +
                    Set("inputNodeSet", "dataPath=/a") +
                    Set("inputNodeSet",
                        "title=Title width=8 alterdataPath=/alt1 "
                        "alterdataPath=/alt2")) +
              Group(Values("logStyle=monitor_dir outputFilePath=/d") +
                    Set("inputDirSet", "pickNode=gpio-keys")) +
              Group(Values("logStyle=poll_cmd outputFilePath=/c") +
                    Set("inputCmdSet", "command=battery") + "<inputCmdSet/>")),
     1,
     "kmsglogcat rotate=4096 files=25 factory | cond_trigger every=5 retry=2 cond=1 "
     "node{data=/a} node{title=Title width=8 alt=/alt1,/alt2} | monitor_dir out=/d "
     "dir{pick=gpio-keys} | poll_cmd out=/c cmd{battery} cmd{}",
     "------------- printTavocatInfo begin -------------\n"
     "name              : kmsglogcat\n"
     "rotateSizeKbytes  : 4096\n"
     "maxCompressdFiles : 25\n"
     "writeMode         : 1\n"
     "~~~~~~ TavocatGroup begin ~~~~~~\n"
     "pollingInterval   : 5\n"
     "failureRetry      : 2\n"
     "condition index   : 1\n"
     "style             : 5\n"
     "outputFilePath    : nullptr\n"
     "dataPath         : /a\n"
     "titlePath        : nullptr\n"
     "title             : nullptr\n"
     "width             : 0\n"
     "dataPath         : nullptr\n"
     "titlePath        : nullptr\n"
     "title             : Title\n"
     "width             : 8\n"
     "alterDataPath   : /alt1\n"
     "alterDataPath   : /alt2\n"
     "~~~~~~ TavocatGroup end ~~~~~~~~\n"
     "~~~~~~ TavocatGroup begin ~~~~~~\n"
     "pollingInterval   : 0\n"
     "failureRetry      : 0\n"
     "condition index   : 0\n"
     "style             : 2\n"
     "outputFilePath    : /d\n"
     "inputDirPath      : nullptr\n"
     "pickNode          : gpio-keys\n"
     "~~~~~~ TavocatGroup end ~~~~~~~~\n"
     "~~~~~~ TavocatGroup begin ~~~~~~\n"
     "pollingInterval   : 0\n"
     "failureRetry      : 0\n"
     "condition index   : 0\n"
     "style             : 4\n"
     "outputFilePath    : /c\n"
     "command           : battery\n"
     "command           : nullptr\n"
     "~~~~~~ TavocatGroup end ~~~~~~~~\n"
     "------------- printTavocatInfo end ---------------\n"},
};

INSTANTIATE_TEST_SUITE_P(Validation, ParseTest, testing::ValuesIn(kValidation), RowName);

class ValidateTest : public ConfigTest {};

// Validates with standard error kept in dump.
int Validate(const TavocatInfoT& info, std::string* dump) {
  testing::internal::CaptureStderr();
  int result = ValidateTavocatInfo(info);
  *dump = testing::internal::GetCapturedStderr();
  return result;
}

TEST_F(ValidateTest, ZeroRootFailsAfterDumpingPlaceholders) {
  TavocatInfoT info = {};
  std::string dump;
  EXPECT_EQ(1, Validate(info, &dump));
  EXPECT_EQ(
      "------------- printTavocatInfo begin -------------\n"
      "name              : nullptr\n"
      "rotateSizeKbytes  : 0\n"
      "maxCompressdFiles : 0\n"
      "writeMode         : 0\n"
      "------------- printTavocatInfo end ---------------\n",
      dump);
}

// A style past the known ones fails even with sources, which are not shown.
TEST_F(ValidateTest, UnknownStyleWithSourcesFails) {
  WriteConfig(Instance(KmsgGroup()));
  ASSERT_EQ(0, Parse());
  info_.groups->style = static_cast<LogStyle>(6);
  std::string dump;
  EXPECT_EQ(1, Validate(info_, &dump));
  info_.groups->style = TavoCommon::MONITOR_NODE;
  EXPECT_NE(std::string::npos, dump.find("style             : 6\n"
                                         "outputFilePath    : /data/log/k\n"
                                         "~~~~~~ TavocatGroup end ~~~~~~~~\n"))
      << dump;
}

TEST_F(ValidateTest, NullSetsAreNotValidAndPrintNothing) {
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
