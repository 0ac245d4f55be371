// The shipped sample configuration gives the tree it describes, and
// tavocat-config prints that tree.

#include <gtest/gtest.h>

#include <string>

#include "config/config_parser.h"
#include "config/config_test_support.h"

namespace {

using namespace configtest;

const char kSampleDump[] =
    "------------- printTavocatInfo begin -------------\n"
    "name              : kmsglogcat\n"
    "rotateSizeKbytes  : 4096\n"
    "maxCompressdFiles : 25\n"
    "writeMode         : 0\n"
    "~~~~~~ TavocatGroup begin ~~~~~~\n"
    "pollingInterval   : 0\n"
    "failureRetry      : 3\n"
    "condition index   : 0\n"
    "style             : 1\n"
    "outputFilePath    : /data/log/android_logs/kmsgcat-log\n"
    "dataPath         : /proc/kmsg\n"
    "titlePath        : nullptr\n"
    "title             : nullptr\n"
    "width             : 0\n"
    "~~~~~~ TavocatGroup end ~~~~~~~~\n"
    "~~~~~~ TavocatGroup begin ~~~~~~\n"
    "pollingInterval   : 0\n"
    "failureRetry      : 0\n"
    "condition index   : 0\n"
    "style             : 2\n"
    "outputFilePath    : /data/log/android_logs/input-log\n"
    "inputDirPath      : /dev/input\n"
    "pickNode          : gpio-keys\n"
    "~~~~~~ TavocatGroup end ~~~~~~~~\n"
    "~~~~~~ TavocatGroup begin ~~~~~~\n"
    "pollingInterval   : 60\n"
    "failureRetry      : 0\n"
    "condition index   : 0\n"
    "style             : 4\n"
    "outputFilePath    : /data/log/android_logs/battery-log\n"
    "command           : battery\n"
    "~~~~~~ TavocatGroup end ~~~~~~~~\n"
    "------------- printTavocatInfo end ---------------\n";

class SampleConfigTest : public ConfigTest {
 protected:
  std::string SamplePath() const {
    return EnvOr("MORVO_SOURCE_DIR", ".") + "/etc/tavocat_config.xml";
  }
};

TEST_F(SampleConfigTest, SampleParsesIntoItsThreeGroups) {
  SetProp("ro.hardware", "mt6789");
  testing::internal::CaptureStderr();
  ASSERT_EQ(0, TavoConfig::ParseConfigFileAt(SamplePath().c_str(), "kmsglogcat", &info_));
  EXPECT_EQ(kSampleDump, testing::internal::GetCapturedStderr());
  ASSERT_EQ(3u, GroupCount());
  EXPECT_EQ(MONITOR_NODE, GroupAt(0)->style);
  EXPECT_EQ(MONITOR_DIR, GroupAt(1)->style);
  EXPECT_EQ(POLL_CMD, GroupAt(2)->style);
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(&info_, GroupAt(i)->info);
}

TEST_F(SampleConfigTest, InstalledSampleIsFoundUnderTheRoot) {
  WriteConfig(morvotest::ReadFile(SamplePath()));
  ASSERT_EQ(0, Parse("kmsglogcat"));
  EXPECT_EQ(kSampleDump, err_);
  TavoConfig::FreeConfigFile(&info_);
  EXPECT_EQ(1, Parse("chargelogcat")) << "the file exists, so there is no built-in fallback";
}

TEST_F(SampleConfigTest, ToolDumpsAFileAndGivesAVerdict) {
  std::string out, err;
  ASSERT_EQ(0, RunTool("kmsglogcat " + SamplePath(), &out, &err));
  EXPECT_EQ(kSampleDump, err);
  EXPECT_EQ("kmsglogcat: valid configuration in " + SamplePath() + "\n", out);
  EXPECT_EQ(1, RunTool("chargelogcat " + SamplePath(), &out, &err));
  EXPECT_EQ("", err);
  EXPECT_EQ("chargelogcat: no valid configuration in " + SamplePath() + "\n", out);
}

TEST_F(SampleConfigTest, ToolDumpsTheBuiltinInstanceWhenNoFileIsInstalled) {
  std::string out, err;
  ASSERT_EQ(0, RunTool("chargelogcat", &out, &err));
  EXPECT_EQ(0u, err.find("------------- printTavocatInfo begin -------------\n"
                         "name              : chargelogcat\n"));
  EXPECT_NE(std::string::npos, err.find("dataPath         : DateTime\n"
                                        "titlePath        : Time\n"));
  EXPECT_EQ("chargelogcat: built-in configuration (" + ConfigPath() + " is absent)\n", out);
  SetProp("init.svc.recovery", "running");
  EXPECT_EQ(1, RunTool("chargelogcat", &out, &err));
  EXPECT_EQ("", err);
}

TEST_F(SampleConfigTest, ToolRefusesBadArguments) {
  std::string out, err;
  EXPECT_EQ(2, RunTool("", &out, &err));
  EXPECT_EQ(0u, err.find("usage: tavocat-config NAME [FILE]\n"));
  EXPECT_EQ(2, RunTool("kmsglogcat " + root_.Under("/missing.xml"), &out, &err));
  EXPECT_EQ("tavocat-config: " + root_.Under("/missing.xml") + ": no such file\n", err);
  EXPECT_EQ(2, RunTool(std::string(256, 'n'), &out, &err));
  EXPECT_EQ(0, RunTool("--help", &out, &err));
  EXPECT_EQ(0u, out.find("usage: "));
}

}  // namespace
