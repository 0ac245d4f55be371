// Files the parser must survive: bad XML, long names, DOCTYPEs, size, non-files, failed
// allocations.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "config/config_check.h"
#include "config/config_test_support.h"
#include "support/alloc_failure.h"
#include "support/build_paths.h"

namespace configtest {
namespace {

using morvotest::EachAllocationFailing;

const std::string kLongName(300, 'n');
// Uses entity e where a harmful value would land in the tree.
const std::string kUseEntity = Instance(
    Group(Values("logStyle=monitor_node outputFilePath=&e;") + Set("inputNodeSet", "dataPath=/a")));
const char kRefused[] = "Config file [$PATH]: DOCTYPE is not allowed!\n";

std::string DeepNesting() {
  std::string deep;
  for (int i = 0; i < 5000; ++i) deep += "<a>";
  for (int i = 0; i < 5000; ++i) deep += "</a>";
  return "<config>" + deep + "</config>";
}

// clang-format off
const ParseCase kBadInput[] = {
    {"UnclosedEntry", "<config><tavocat name=\"kmsglogcat\" platform=\"Qcom\"></config>", 1, "", kXmlErrors},
    {"UndefinedEntity", "<config>\n<tavocat name=\"kmsglogcat\" platform=\"Qcom\">\n&undefined;\n</tavocat>", 1, "", kXmlErrors},
    {"DeepNestingFailsCleanly", DeepNesting(), 1, "", kXmlErrors},
    {"EmptyFile", "", 1, "", kXmlErrors},
    {"RootWithoutEntries", "<config/>", 1, "", ""},
    {"EmptyAttributesFailValidation", Instance(Group(Values("logStyle outputFilePath=") + Set("inputNodeSet", "dataPath="))), 1, "kmsglogcat | none out=\"\""},
    {"MissingAttributesFailValidation", Instance(Group(Values("logStyle=monitor_node outputFilePath inputNodeSet"))), 1, "kmsglogcat | monitor_node node{}"},
    {"InstanceNameIsCutAt256Characters", Instance(KmsgGroup(), "name=\"" + kLongName + "\" platform=\"Qcom\""), 0, kLongName.substr(0, 256) + kKmsgTree, "$DUMP", kLongName},
    {"CutNameIsAPrefixAndPrefixesDoNotMatch", Instance(KmsgGroup(), "name=\"" + kLongName + "\" platform=\"Qcom\""), 1, "", "", kLongName.substr(0, 256)},
    // Any DOCTYPE is refused at once (entity growth, named files or hosts, DTD defaults).
    {"ExternalEntityInAValue", "<!DOCTYPE config [<!ENTITY e SYSTEM \"file://$ROOT/secret\">]>\n" + kUseEntity, 1, "", kRefused},
    {"ExternalEntityInText", "<!DOCTYPE config [<!ENTITY e SYSTEM \"file://$ROOT/secret\">]>\n" + Instance("&e;" + KmsgGroup()), 1, "", kRefused},
    {"ExternalDtdWithDefaults", "<!DOCTYPE config SYSTEM \"$ROOT/defaults.dtd\">\n" + kUseEntity, 1, "", kRefused},
    {"DtdOnAHost", "<!DOCTYPE config SYSTEM \"http://127.0.0.1:9/config.dtd\">\n" + Instance(KmsgGroup()), 1, "", kRefused},
    {"BillionLaughs", BillionLaughs() + kUseEntity, 1, "", kRefused},
    {"QuadraticBlowup", QuadraticBlowup() + kUseEntity, 1, "", kRefused},
    {"DoctypeAfterAComment", "<?xml version=\"1.0\"?>\n<!-- a comment first -->\n<!DOCTYPE config>\n" + Instance(KmsgGroup()), 1, "", kRefused},
    {"DoctypeInUtf16", Utf16("<?xml version=\"1.0\" encoding=\"UTF-16\"?>\n" + BillionLaughs() + kUseEntity), 1, "", kRefused},
    {"DoctypeInACommentIsNoDoctype", "<!-- <!DOCTYPE config> -->\n" + Instance(KmsgGroup()), 0, std::string("kmsglogcat") + kKmsgTree},
    {"HugeFileIsRefusedUnread", Instance(KmsgGroup()) + "<!--" + std::string(2 * 1024 * 1024, 'x') + "-->\n", 1, "", "Config file [$PATH] is larger than 1048576 bytes!\n"},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(BadInput, ParseTest, testing::ValuesIn(kBadInput), RowName);

TEST_F(ConfigTest, SomethingOtherThanAFileIsRefused) {
  root_.MakeDirs("/system/etc");
  ASSERT_EQ(0, mkfifo(ConfigPath().c_str(), 0600));
  EXPECT_EQ(1, Parse());
  EXPECT_EQ("Config file [" + ConfigPath() + "] is not a regular file!\n", err_);
  remove(ConfigPath().c_str());
  root_.MakeDirs(kConfigFilePath);
  EXPECT_EQ(1, Parse());
  EXPECT_EQ("Config file [" + ConfigPath() + "] is not a regular file!\n", err_);
}

// Whatever allocation fails, a partial tree frees twice; a success may hold less but validates.
TEST_F(ConfigTest, EveryFailedAllocationLeavesAFreeableTree) {
  WriteConfig(morvotest::ReadFile(morvotest::SourcePath("etc/tavocat_config.xml")));
  long count = EachAllocationFailing([this](long n) {
    FreeConfigFile(&info_);
    int result = Parse();
    EXPECT_TRUE(n >= 0 || result == 0) << "with every allocation the sample is valid";
    if (n == 0 || n == 1) {
      EXPECT_EQ(1, result) << "the file text and the instance name are needed";
    } else if (result == 0) {
      testing::internal::CaptureStderr();
      EXPECT_EQ(0, TavoConfig::ValidateTavocatInfo(info_)) << "allocation " << n;
      testing::internal::GetCapturedStderr();
    } else {
      EXPECT_EQ(1, result);
    }
    FreeConfigFile(&info_);
    FreeConfigFile(&info_);
    EXPECT_EQ("", Describe(info_));
  });
  EXPECT_GT(count, 10);
}

}  // namespace
}  // namespace configtest
