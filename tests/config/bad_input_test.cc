// Files the parser must survive: malformed or rootless XML, over-long names,
// DOCTYPEs (entity bombs, entities and DTDs that point outside the file),
// deep nesting, huge files, things that are not files, and allocation
// failures at every step.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <sstream>
#include <string>

#include "config/alloc_failure.h"
#include "config/config_check.h"
#include "config/config_test_support.h"

namespace {

using namespace configtest;

class BadInputTest : public ConfigTest {
 protected:
  // Every line of err_ is one diagnostic about the configuration file.
  void ExpectOneLineDiagnostics() {
    ASSERT_FALSE(err_.empty());
    EXPECT_EQ('\n', err_.back());
    std::istringstream lines(err_);
    std::string line;
    while (std::getline(lines, line)) {
      EXPECT_EQ(0u, line.find(ConfigPath() + ":")) << line;
    }
  }
};

TEST_F(BadInputTest, MalformedXmlFailsWithOneLinePerDiagnostic) {
  const char* files[] = {
      "<config><tavocat name=\"kmsglogcat\" platform=\"Qcom\"></config>",
      "<config><tavocat name=\"kmsglogcat platform=\"Qcom\"/></config>",
      "<config>\n<tavocat name=\"kmsglogcat\" platform=\"Qcom\">\n&undefined;\n</tavocat>",
      "<config/><second/>",
  };
  for (const char* xml : files) {
    EXPECT_EQ(1, ParseXml(xml)) << xml;
    ExpectOneLineDiagnostics();
    EXPECT_EQ(std::string::npos, err_.find("printTavocatInfo")) << err_;
    EXPECT_EQ(nullptr, info_.groups);
  }
}

TEST_F(BadInputTest, FileWithoutRootOrEntriesFails) {
  const char* files[] = {"", "<?xml version=\"1.0\"?>\n", "<!-- only a comment -->", "<config/>",
                         "<config>text only</config>"};
  for (const char* xml : files) {
    EXPECT_EQ(1, ParseXml(xml)) << xml;
    EXPECT_EQ(nullptr, info_.name) << xml;
  }
}

TEST_F(BadInputTest, EmptyOrMissingAttributesFailValidation) {
  EXPECT_EQ(1, ParseXml(Instance(Group("<logStyle/><outputFilePath value=\"\"/>"
                                       "<inputNodeSet><dataPath value=\"\"/></inputNodeSet>"))));
  EXPECT_EQ(LOG_STYLE_NONE, GroupAt(0)->style);
  ASSERT_NE(nullptr, GroupAt(0)->outputFilePath);
  EXPECT_STREQ("", GroupAt(0)->outputFilePath) << "an empty value is kept as an empty string";
  TavoConfig::FreeConfigFile(&info_);
  EXPECT_EQ(1, ParseXml(Instance(Group("<logStyle value=\"monitor_node\"/><outputFilePath/>"
                                       "<inputNodeSet/>"))));
  EXPECT_EQ(nullptr, GroupAt(0)->outputFilePath);
  EXPECT_NE(nullptr, GroupAt(0)->inputSet) << "an empty node is still linked";
  EXPECT_NE(std::string::npos, err_.find("dataPath         : nullptr\n")) << err_;
}

TEST_F(BadInputTest, InstanceNameIsCutAt256Characters) {
  std::string name(300, 'n');
  ASSERT_EQ(
      0, ParseXml(Instance(KmsgGroup(), "name=\"" + name + "\" platform=\"Qcom\""), name.c_str()));
  EXPECT_EQ(name.substr(0, 256), info_.name);
  EXPECT_NE(std::string::npos, err_.find("name              : " + name.substr(0, 256) + "\n"));
  TavoConfig::FreeConfigFile(&info_);
  EXPECT_EQ(1, ParseXml(Instance(KmsgGroup(), "name=\"" + name + "\" platform=\"Qcom\""),
                        name.substr(0, 256).c_str()))
      << "a cut name is a prefix, and prefixes do not match";
}

// The format needs no DOCTYPE, and every harm an XML file can do through one
// (entities that grow without bound, files or hosts it names, defaults a DTD
// adds) is refused at the declaration, before any of it is read.
TEST_F(BadInputTest, DoctypeIsRefusedBeforeAnythingInIt) {
  morvotest::WriteFile(root_.Under("/secret"), "SECRET-TEXT");
  morvotest::WriteFile(root_.Under("/defaults.dtd"),
                       "<!ATTLIST outputFilePath value CDATA \"/from-dtd\">\n");
  const std::string kUseEntity =
      Instance(Group("<logStyle value=\"monitor_node\"/><outputFilePath value=\"&e;\"/>"
                     "<inputNodeSet><dataPath value=\"/a\"/></inputNodeSet>"));
  const std::string cases[] = {
      "<!DOCTYPE config [<!ENTITY e SYSTEM \"file://" + root_.Under("/secret") + "\">]>\n" +
          kUseEntity,
      "<!DOCTYPE config [<!ENTITY e SYSTEM \"file://" + root_.Under("/secret") + "\">]>\n" +
          Instance("&e;" + KmsgGroup()),
      "<!DOCTYPE config SYSTEM \"" + root_.Under("/defaults.dtd") + "\">\n" + kUseEntity,
      "<!DOCTYPE config SYSTEM \"http://127.0.0.1:9/config.dtd\">\n" + Instance(KmsgGroup()),
      BillionLaughs() + kUseEntity,
      QuadraticBlowup() + kUseEntity,
      "<?xml version=\"1.0\"?>\n<!-- a comment first -->\n<!DOCTYPE config>\n" +
          Instance(KmsgGroup()),
      // A text search for the declaration would miss it in another encoding.
      Utf16("<?xml version=\"1.0\" encoding=\"UTF-16\"?>\n" + BillionLaughs() + kUseEntity),
  };
  for (const std::string& xml : cases) {
    EXPECT_EQ(1, ParseXml(xml)) << xml.substr(0, 80);
    EXPECT_EQ(DoctypeRefused(ConfigPath()), err_) << xml.substr(0, 80);
    EXPECT_EQ(nullptr, info_.name);
  }
  EXPECT_EQ(0, ParseXml("<!-- <!DOCTYPE config> -->\n" + Instance(KmsgGroup()))) << err_;
}

TEST_F(BadInputTest, DeepNestingFailsCleanly) {
  std::string deep;
  for (int i = 0; i < 5000; ++i) deep += "<a>";
  for (int i = 0; i < 5000; ++i) deep += "</a>";
  EXPECT_EQ(1, ParseXml("<config>" + deep + "</config>"));
  ExpectOneLineDiagnostics();
}

TEST_F(BadInputTest, HugeFileIsRefusedUnread) {
  std::string xml = Instance(KmsgGroup());
  xml += "<!--" + std::string(2 * 1024 * 1024, 'x') + "-->\n";
  EXPECT_EQ(1, ParseXml(xml));
  EXPECT_EQ("Config file [" + ConfigPath() + "] is larger than 1048576 bytes!\n", err_);
}

TEST_F(BadInputTest, SomethingOtherThanAFileIsRefused) {
  root_.MakeDirs("/system/etc");
  ASSERT_EQ(0, mkfifo(ConfigPath().c_str(), 0600));
  EXPECT_EQ(1, Parse());
  EXPECT_EQ("Config file [" + ConfigPath() + "] is not a regular file!\n", err_);
  remove(ConfigPath().c_str());
  root_.MakeDirs(kConfigFilePath);
  EXPECT_EQ(1, Parse());
  EXPECT_EQ("Config file [" + ConfigPath() + "] is not a regular file!\n", err_);
}

// Whatever allocation fails, the parse ends with a result and a partial tree
// is freeable twice. A failed source or group is skipped, so a success may
// hold less, but never a tree that fails validation.
TEST_F(BadInputTest, EveryFailedAllocationLeavesAFreeableTree) {
  std::string source = getenv("MORVO_SOURCE_DIR") != nullptr ? getenv("MORVO_SOURCE_DIR") : ".";
  std::string sample = morvotest::ReadFile(source + "/etc/tavocat_config.xml");
  ASSERT_FALSE(sample.empty());
  WriteConfig(sample);
  FailNothrowAllocation(-1);
  ASSERT_EQ(0, Parse());
  long allocations = NothrowAllocations();
  ASSERT_GT(allocations, 10);
  for (long n = 0; n <= allocations; ++n) {
    TavoConfig::FreeConfigFile(&info_);
    FailNothrowAllocation(n);
    int result = Parse();
    FailNothrowAllocation(-1);
    if (n < 2) {
      EXPECT_EQ(1, result) << "the file text and the instance name are needed";
    } else if (result == 0) {
      testing::internal::CaptureStderr();
      EXPECT_EQ(0, TavoConfig::ValidateTavocatInfo(info_)) << "allocation " << n;
      testing::internal::GetCapturedStderr();
    } else {
      EXPECT_EQ(1, result);
    }
    TavoConfig::FreeConfigFile(&info_);
    TavoConfig::FreeConfigFile(&info_);
    EXPECT_EQ(nullptr, info_.groups);
    EXPECT_EQ(nullptr, info_.name);
  }
}

}  // namespace
