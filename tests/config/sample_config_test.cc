// The shipped sample configuration gives the tree it describes, and
// tavocat-config gives the collector's verdict on any file.

#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <string>

#include "config/config_check.h"
#include "config/config_test_support.h"
#include "config/parse_apart.h"

namespace configtest {
namespace {

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

const std::string kSample = SourceFile("etc/tavocat_config.xml");

class SampleConfigTest : public ConfigTest {
 protected:
  // What the collector does with the file at path: 0 when it would start
  // its groups, 1 when it refuses the configuration; its messages in err.
  int CollectorVerdict(const std::string& path, const char* name, std::string* err) {
    TavocatInfoT info = {};
    testing::internal::CaptureStderr();
    int result = TavoConfig::ParseConfigFileApartAt(path.c_str(), name, &info) == 0 &&
                         TavoConfig::IsRunnableConfig(info)
                     ? 0
                     : 1;
    *err = testing::internal::GetCapturedStderr();
    FreeConfigFile(&info);
    return result;
  }
};

TEST_F(SampleConfigTest, InstalledSampleParsesIntoItsThreeGroups) {
  SetProp("ro.hardware", "mt6789");
  WriteConfig(morvotest::ReadFile(kSample));
  ASSERT_EQ(0, Parse("kmsglogcat"));
  EXPECT_EQ(kSampleDump, err_);
  EXPECT_EQ(
      "kmsglogcat rotate=4096 files=25 | monitor_node retry=3 "
      "out=/data/log/android_logs/kmsgcat-log node{data=/proc/kmsg} | monitor_dir "
      "out=/data/log/android_logs/input-log dir{path=/dev/input pick=gpio-keys} | poll_cmd "
      "every=60 out=/data/log/android_logs/battery-log cmd{battery}",
      Describe(info_));
  FreeConfigFile(&info_);
  EXPECT_EQ(1, Parse("chargelogcat")) << "the file exists, so there is no built-in fallback";
}

// The tool says what the collector would do, with the same messages.
TEST_F(SampleConfigTest, CheckerAndCollectorAgreeOnEveryFile) {
  SetProp("ro.hardware", "qcom");
  std::string corpus = SourceFile("fuzz/corpus/config_fuzzer/");
  std::string doctype = root_.Under("/doctype.xml");
  morvotest::WriteFile(doctype, "<!DOCTYPE config>\n" + Instance(KmsgGroup()));
  const int kAny = -1;
  const struct {
    std::string path;
    const char* name;
    int verdict;
    const char* errEnd;  // null: any
  } cases[] = {
      {kSample, "kmsglogcat", 0, kSampleDump},
      {kSample, "chargelogcat", 1, nullptr},
      {corpus + "sample.xml", "kmsglogcat", 0, nullptr},
      {corpus + "two_triggers.xml", "chargelogcat", 1,
       "------------- printTavocatInfo end ---------------\n"
       "Main:tavocat [chargelogcat] has more than one cond_trigger group, refused!\n"},
      {corpus + "broken.xml", "kmsglogcat", 1, nullptr},
      {corpus + "entities.xml", "kmsglogcat", 1, nullptr},
      {corpus + "charge.xml", "chargelogcat", kAny, nullptr},
      {corpus + "charge.xml", "kmsglogcat", kAny, nullptr},
      {doctype, "kmsglogcat", 1, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path + " " + c.name);
    std::string out, err, collectorErr;
    int collector = CollectorVerdict(c.path, c.name, &collectorErr);
    EXPECT_EQ(collector, RunTool(std::string(c.name) + " " + c.path, &out, &err));
    EXPECT_EQ(collectorErr, err);
    if (c.verdict != kAny) {
      EXPECT_EQ(c.verdict, collector);
    }
    if (c.errEnd != nullptr) {
      EXPECT_EQ(c.errEnd, err.substr(err.size() - std::min(err.size(), strlen(c.errEnd))));
    }
    EXPECT_EQ(std::string(c.name) + (collector == 0 ? ": valid" : ": no valid") +
                  " configuration in " + c.path + "\n",
              out);
  }
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
}  // namespace configtest
