#include "config/config_test_support.h"

#include <stdlib.h>
#include <sys/wait.h>

#include "config/config_parser.h"

namespace configtest {

int ConfigTest::Parse(const char* name) {
  testing::internal::CaptureStderr();
  int result = TavoConfig::ParseConfigFile(name, &info_);
  err_ = testing::internal::GetCapturedStderr();
  return result;
}

TavocatGroupT* ConfigTest::GroupAt(size_t index) const {
  TavocatGroupT* group = info_.groups;
  for (size_t i = 0; i < index && group != nullptr; ++i) group = group->next;
  EXPECT_NE(nullptr, group) << "no group " << index;
  return group;
}

size_t ConfigTest::GroupCount() const {
  size_t count = 0;
  for (TavocatGroupT* group = info_.groups; group != nullptr; group = group->next) ++count;
  return count;
}

int ConfigTest::RunTool(const std::string& args, std::string* out, std::string* err) {
  std::string tool = EnvOr("MORVO_BIN_DIR", "tools") + "/tavocat-config";
  std::string outPath = root_.Under("/tool.out"), errPath = root_.Under("/tool.err");
  int status = system((tool + " " + args + " >" + outPath + " 2>" + errPath).c_str());
  *out = morvotest::ReadFile(outPath);
  *err = morvotest::ReadFile(errPath);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string EnvOr(const char* name, const char* fallback) {
  const char* value = getenv(name);
  return value != nullptr ? value : fallback;
}

std::string BillionLaughs() {
  std::string doctype = "<!DOCTYPE config [<!ENTITY l0 \"lol\">";
  for (int level = 1; level <= 10; ++level) {
    doctype += "<!ENTITY l" + std::to_string(level) + " \"";
    for (int i = 0; i < 10; ++i) doctype += "&l" + std::to_string(level - 1) + ";";
    doctype += "\">";
  }
  return doctype + "<!ENTITY e \"&l10;\">]>\n";
}

std::string QuadraticBlowup() {
  std::string refs;
  for (int i = 0; i < 2000; ++i) refs += "&b;";
  return "<!DOCTYPE config [<!ENTITY b \"" + std::string(100000, 'b') + "\"><!ENTITY e \"" + refs +
         "\">]>\n";
}

std::string Utf16(const std::string& text) {
  std::string out = "\xff\xfe";
  for (char c : text) {
    out += c;
    out += '\0';
  }
  return out;
}

std::string Join(const TavocatStrListT* list) {
  std::string out;
  for (; list != nullptr; list = list->next) {
    if (!out.empty()) out += ",";
    out += list->str != nullptr ? list->str : "(null)";
  }
  return out;
}

}  // namespace configtest
