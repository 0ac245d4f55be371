// The shipped sample gives the tree it describes; tavocat-config gives the collector's verdict.

#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <string>

#include "config/config_check.h"
#include "config/config_test_support.h"
#include "config/parse_apart.h"
#include "support/build_paths.h"

namespace configtest {
namespace {

const std::string kSample = morvotest::SourcePath("etc/tavocat_config.xml");

const ParseCase kSampleRows[] = {
    {"SampleGivesItsThreeGroups", morvotest::ReadFile(kSample), 0,
     "kmsglogcat rotate=4096 files=25 | monitor_node retry=3 "
     "out=/data/log/android_logs/kmsgcat-log node{data=/proc/kmsg} | monitor_dir "
     "out=/data/log/android_logs/input-log dir{path=/dev/input pick=gpio-keys} | poll_cmd "
     "every=60 out=/data/log/android_logs/battery-log cmd{battery}",
     "$DUMP", "kmsglogcat", "ro.hardware=mt6789"},
};

INSTANTIATE_TEST_SUITE_P(Sample, ParseTest, testing::ValuesIn(kSampleRows), RowName);

class SampleConfigTest : public ConfigTest {
 protected:
  int RunTool(const std::string& args, std::string* out, std::string* err) {
    return morvotest::RunCaught(morvotest::ToolPath("tavocat-config") + " " + args, root_.path(),
                                out, err);
  }
  int CollectorVerdict(const std::string& path, const char* name, std::string* err) {
    TavocatInfoT info = {};
    testing::internal::CaptureStderr();
    bool runs = TavoConfig::ParseConfigFileApartAt(path.c_str(), name, &info) == 0 &&
                TavoConfig::IsRunnableConfig(info);
    *err = testing::internal::GetCapturedStderr();
    FreeConfigFile(&info);
    return runs ? 0 : 1;
  }
};

// The tool says what the collector would do, with the same messages.
TEST_F(SampleConfigTest, CheckerAndCollectorAgreeOnEveryFile) {
  SetProp("ro.hardware", "qcom");
  std::string corpus = morvotest::SourcePath("fuzz/corpus/config_fuzzer/");
  std::string doctype = root_.Under("/doctype.xml");
  morvotest::WriteFile(doctype, "<!DOCTYPE config>\n" + Instance(KmsgGroup()));
  // clang-format off
  const struct { std::string path; const char* name; int verdict; const char* errEnd; } cases[] = {
      {kSample, "kmsglogcat", 0, "------------- printTavocatInfo end ---------------\n"},
      {kSample, "chargelogcat", 1, ""},
      {corpus + "sample.xml", "kmsglogcat", 0, ""},
      {corpus + "two_triggers.xml", "chargelogcat", 1, "------------- printTavocatInfo end ---------------\nMain:tavocat [chargelogcat] has more than one cond_trigger group, refused!\n"},
      {corpus + "broken.xml", "kmsglogcat", 1, ""},
      {corpus + "entities.xml", "kmsglogcat", 1, ""},
      {corpus + "charge.xml", "chargelogcat", 0, ""},
      {corpus + "charge.xml", "kmsglogcat", 1, ""},
      {doctype, "kmsglogcat", 1, ""},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path + " " + c.name);
    std::string out, err, collectorErr;
    int collector = CollectorVerdict(c.path, c.name, &collectorErr);
    EXPECT_EQ(collector, RunTool(std::string(c.name) + " " + c.path, &out, &err));
    EXPECT_EQ(collectorErr, err);
    EXPECT_EQ(c.verdict, collector);
    EXPECT_EQ(c.errEnd, err.substr(err.size() - std::min(err.size(), strlen(c.errEnd))));
    EXPECT_EQ(std::string(c.name) + (collector == 0 ? ": valid" : ": no valid") +
                  " configuration in " + c.path + "\n",
              out);
  }
}

// Without a file the tool dumps the built-in instance, if there is one.
TEST_F(SampleConfigTest, ToolRefusesBadArgumentsAndFallsBackAsTheCollectorDoes) {
  std::string out, err;
  EXPECT_EQ(2, RunTool("", &out, &err));
  EXPECT_EQ(0u, err.find("usage: tavocat-config NAME [FILE]\n"));
  EXPECT_EQ(2, RunTool("kmsglogcat " + root_.Under("/missing.xml"), &out, &err));
  EXPECT_EQ("tavocat-config: " + root_.Under("/missing.xml") + ": no such file\n", err);
  EXPECT_EQ(2, RunTool(std::string(256, 'n'), &out, &err));
  EXPECT_EQ(0, RunTool("--help", &out, &err));
  EXPECT_EQ(0u, out.find("usage: "));
  ASSERT_EQ(0, RunTool("chargelogcat", &out, &err));
  ASSERT_EQ(0, Parse("chargelogcat"));
  EXPECT_EQ(ExpectedDump(info_), err);
  EXPECT_EQ("chargelogcat: built-in configuration (" + ConfigPath() + " is absent)\n", out);
  SetProp("init.svc.recovery", "running");
  EXPECT_EQ(1, RunTool("chargelogcat", &out, &err));
  EXPECT_EQ("", err);
}

}  // namespace
}  // namespace configtest
