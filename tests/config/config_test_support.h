#ifndef MORVOCAT_TESTS_CONFIG_CONFIG_TEST_SUPPORT_H_
#define MORVOCAT_TESTS_CONFIG_CONFIG_TEST_SUPPORT_H_

// A temporary device root with a configuration file and system properties,
// a root record that is freed after each test, and the parser's standard
// error captured.

#include <gtest/gtest.h>

#include <string>

#include "config/config_tree.h"
#include "config/tavo_common.h"
#include "platform/properties.h"
#include "support/temp_root.h"

namespace configtest {

using namespace TavoCommon;

// <config><tavocat ATTRS>BODY</tavocat></config>
inline std::string Instance(const std::string& body,
                            const std::string& attrs = "name=\"kmsglogcat\" platform=\"Qcom\"") {
  return "<config>\n<tavocat " + attrs + ">\n" + body + "</tavocat>\n</config>\n";
}

inline std::string Group(const std::string& body) {
  return "<tavocatGroup>" + body + "</tavocatGroup>\n";
}

// A group that passes validation, for tests about the root's settings.
inline std::string KmsgGroup() {
  return Group(
      "<logStyle value=\"monitor_node\"/><outputFilePath value=\"/data/log/k\"/>"
      "<inputNodeSet><dataPath value=\"/proc/kmsg\"/></inputNodeSet>");
}

// The refusal of a file at path that declares a DOCTYPE.
inline std::string DoctypeRefused(const std::string& path) {
  return "Config file [" + path + "]: DOCTYPE is not allowed!\n";
}

// Internal subsets declaring entity e: ten levels of ten references each
// (10^10 copies), and one 100 KB text referenced in attribute values.
std::string BillionLaughs();
std::string QuadraticBlowup();
// text (ASCII) as UTF-16 with a byte-order mark.
std::string Utf16(const std::string& text);

class ConfigTest : public ::testing::Test {
 protected:
  void TearDown() override { TavoConfig::FreeConfigFile(&info_); }

  std::string ConfigPath() const { return root_.Under(kConfigFilePath); }
  void WriteConfig(const std::string& xml) {
    root_.MakeDirs("/system/etc");
    morvotest::WriteFile(ConfigPath(), xml);
  }
  void SetProp(const char* key, const char* value) { ASSERT_EQ(0, property_set(key, value)); }

  // ParseConfigFile on info_, with standard error kept in err_.
  int Parse(const char* name = "kmsglogcat");
  // Writes the file, then parses it.
  int ParseXml(const std::string& xml, const char* name = "kmsglogcat") {
    WriteConfig(xml);
    return Parse(name);
  }

  TavocatGroupT* GroupAt(size_t index) const;
  TavocatInputNodeSetT* NodesOf(size_t group) const {
    return static_cast<TavocatInputNodeSetT*>(GroupAt(group)->inputSet);
  }
  size_t GroupCount() const;

  // Runs tavocat-config with args; its exit status, output and errors.
  int RunTool(const std::string& args, std::string* out, std::string* err);

  morvotest::TempRoot root_;
  TavocatInfoT info_ = {};
  std::string err_;
};

// The environment variable name, or fallback when it is unset.
std::string EnvOr(const char* name, const char* fallback);

// The strings of a list, in order.
std::string Join(const TavocatStrListT* list);

}  // namespace configtest

#endif  // MORVOCAT_TESTS_CONFIG_CONFIG_TEST_SUPPORT_H_
