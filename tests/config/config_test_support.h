#ifndef MORVOCAT_TESTS_CONFIG_CONFIG_TEST_SUPPORT_H_
#define MORVOCAT_TESTS_CONFIG_CONFIG_TEST_SUPPORT_H_

// A temporary root with a configuration file and properties, and the table of parse cases.

#include <gtest/gtest.h>

#include <string>

#include "config/config_tree.h"
#include "config/tavo_common.h"
#include "platform/properties.h"
#include "support/temp_root.h"

namespace configtest {

using TavoCommon::kConfigFilePath;
using TavoCommon::POLL_CMD;
using TavoCommon::TavocatGroupT;
using TavoCommon::TavocatInfoT;
using TavoCommon::TavocatInputCmdSetT;
using TavoCommon::TavocatInputNodeSetT;
using TavoCommon::TavocatStrListT;
using TavoConfig::CopyString;
using TavoConfig::FreeConfigFile;

// Elements from words: "name=value" is <name value="value"/>, a bare "name" is <name/>.
std::string Values(const std::string& words);
inline std::string Set(const std::string& set, const std::string& words) {
  return "<" + set + ">" + Values(words) + "</" + set + ">";
}
inline std::string Group(const std::string& body) {
  return "<tavocatGroup>" + body + "</tavocatGroup>\n";
}
// <config><tavocat ATTRS>BODY</tavocat></config>
inline std::string Instance(const std::string& body,
                            const std::string& attrs = "name=\"kmsglogcat\" platform=\"Qcom\"") {
  return "<config>\n<tavocat " + attrs + ">\n" + body + "</tavocat>\n</config>\n";
}

// A group that passes validation, and how Describe shows it.
inline std::string KmsgGroup() {
  return Group(Values("logStyle=monitor_node outputFilePath=/data/log/k") +
               Set("inputNodeSet", "dataPath=/proc/kmsg"));
}
constexpr const char kKmsgTree[] = " | monitor_node out=/data/log/k node{data=/proc/kmsg}";

// Internal subsets declaring entity e: 10^10 copies, or a 100 KB text referenced 2000 times.
std::string BillionLaughs();
std::string QuadraticBlowup();
// text (ASCII) as UTF-16 with a byte-order mark.
std::string Utf16(const std::string& text);

// Every field of a tree on one line, without zero numbers and null strings ("" for empty).
std::string Describe(const TavocatInfoT& info);
// The dump of info (its layout is checked once against a fixed text).
std::string ExpectedDump(const TavocatInfoT& info);

class ConfigTest : public ::testing::Test {
 protected:
  void TearDown() override { FreeConfigFile(&info_); }

  std::string ConfigPath() const { return root_.Under(kConfigFilePath); }
  void WriteConfig(const std::string& xml) {
    root_.MakeDirs("/system/etc");
    morvotest::WriteFile(ConfigPath(), xml);
  }
  void SetProp(const char* key, const char* value) { ASSERT_EQ(0, property_set(key, value)); }

  int Parse(const char* name = "kmsglogcat");

  morvotest::TempRoot root_;
  TavocatInfoT info_ = {};
  std::string err_;
};

// Marks a row whose instance has no configuration file.
constexpr const char kNoFile[] = "(no file)";
// Marks a row whose errors are libxml2's: each line names the file.
constexpr const char kXmlErrors[] = "(xml errors)";

// One parse, here and in a child: file (kNoFile: none; "$ROOT": the temporary root), instance,
// properties ("k=v;..."), result, tree, stderr ("$PATH": the file's path, "$DUMP": ExpectedDump).
struct ParseCase {
  const char* label;
  std::string xml;
  int result;
  std::string tree;
  std::string err = "$DUMP";
  std::string name = "kmsglogcat";
  std::string props = "";
};

inline void PrintTo(const ParseCase& row, std::ostream* out) { *out << row.label; }

class ParseTest : public ConfigTest, public ::testing::WithParamInterface<ParseCase> {};

std::string RowName(const ::testing::TestParamInfo<ParseCase>& row);

// A row whose file holds one group of the style with output /o, then body; tree follows "| STYLE
// out=/o".
ParseCase GroupRow(const char* label, const char* style, const std::string& body, int result,
                   const std::string& tree, const std::string& err = "$DUMP");

}  // namespace configtest

#endif  // MORVOCAT_TESTS_CONFIG_CONFIG_TEST_SUPPORT_H_
