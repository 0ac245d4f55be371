#include "config/config_test_support.h"

#include <sys/resource.h>

#include <algorithm>
#include <sstream>

#include "config/config_check.h"
#include "config/config_parser.h"
#include "config/parse_apart.h"

namespace configtest {

namespace {

using TavoCommon::TavocatInputDirSetT;

std::string Quoted(const char* value) { return *value != '\0' ? value : "\"\""; }

std::string Field(const char* key, const char* value) {
  return value != nullptr ? std::string(" ") + key + "=" + Quoted(value) : "";
}

std::string Field(const char* key, size_t value) {
  return value != 0 ? std::string(" ") + key + "=" + std::to_string(value) : "";
}

std::string Field(const char* key, const TavocatStrListT* list) {
  std::string out;
  for (; list != nullptr; list = list->next) {
    out += (out.empty() ? "" : ",") + std::string(list->str != nullptr ? list->str : "(null)");
  }
  return !out.empty() ? std::string(" ") + key + "=" + out : "";
}

std::string Record(const char* kind, const std::string& fields) {
  return std::string(" ") + kind + "{" + (fields.empty() ? "" : fields.substr(1)) + "}";
}

std::string Sources(const TavocatGroupT& group) {
  std::string out;
  if (TavoCommon::IsNodeStyle(group.style)) {
    for (auto* node = static_cast<const TavocatInputNodeSetT*>(group.inputSet); node != nullptr;
         node = node->next) {
      out += Record("node", Field("data", node->dataPath) + Field("titlePath", node->titlePath) +
                                Field("title", node->title) + Field("width", node->width) +
                                Field("alt", node->alterDataPath));
    }
  } else if (group.style == TavoCommon::MONITOR_DIR && group.inputSet != nullptr) {
    auto* dir = static_cast<const TavocatInputDirSetT*>(group.inputSet);
    out += Record("dir", Field("path", dir->inputDirPath) + Field("pick", dir->pickNode));
  } else if (group.style == POLL_CMD) {
    for (auto* cmd = static_cast<const TavocatInputCmdSetT*>(group.inputSet); cmd != nullptr;
         cmd = cmd->next) {
      out += Record("cmd", cmd->command != nullptr ? " " + Quoted(cmd->command) : "");
    }
  } else if (group.inputSet != nullptr) {
    out += " sources?";
  }
  return out;
}

const char* const kStyleNames[] = {"none",      "monitor_node", "monitor_dir",
                                   "poll_node", "poll_cmd",     "cond_trigger"};

std::string Replace(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

}  // namespace

std::string Values(const std::string& words) {
  std::istringstream in(words);
  std::string out, word;
  while (in >> word) {
    size_t eq = word.find('=');
    out += "<" + word.substr(0, eq) +
           (eq == std::string::npos ? "" : " value=\"" + word.substr(eq + 1) + "\"") + "/>";
  }
  return out;
}

std::string Describe(const TavocatInfoT& info) {
  std::string out =
      (info.name != nullptr ? " " + Quoted(info.name) : "") +
      Field("rotate", info.rotateSizeKbytes) + Field("files", info.maxCompressdFiles) +
      (info.writeMode == TavoCommon::FACTORY_WRITE ? " factory" : Field("mode", info.writeMode));
  for (const TavocatGroupT* group = info.groups; group != nullptr; group = group->next) {
    out += " |";
    out += group->style <= TavoCommon::COND_TRIGGER ? std::string(" ") + kStyleNames[group->style]
                                                    : Field("style", group->style);
    out += Field("every", group->pollingInterval) + Field("retry", group->failureRetry) +
           Field("cond", group->condIndex) + Field("out", group->outputFilePath) + Sources(*group);
    if (group->info != &info) out += " info?";
  }
  return out.empty() ? out : out.substr(1);
}

std::string ExpectedDump(const TavocatInfoT& info) {
  testing::internal::CaptureStderr();
  TavoConfig::PrintTavocatInfo(info);
  return testing::internal::GetCapturedStderr();
}

int ConfigTest::Parse(const char* name) {
  testing::internal::CaptureStderr();
  int result = TavoConfig::ParseConfigFile(name, &info_);
  err_ = testing::internal::GetCapturedStderr();
  return result;
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
  for (char c : text) out += std::string{c, '\0'};
  return out;
}

ParseCase GroupRow(const char* label, const char* style, const std::string& body, int result,
                   const std::string& tree, const std::string& err) {
  return {label,
          Instance(Group(Values(std::string("logStyle=") + style + " outputFilePath=/o") + body)),
          result, std::string("kmsglogcat | ") + style + " out=/o" + tree, err};
}

std::string RowName(const ::testing::TestParamInfo<ParseCase>& row) { return row.param.label; }

TEST_P(ParseTest, GivesItsTreeResultAndMessagesHereAndInAChild) {
  const ParseCase& c = GetParam();
  for (size_t at = 0, end; at < c.props.size(); at = end + 1) {
    end = std::min(c.props.find(';', at), c.props.size());
    size_t eq = c.props.find('=', at);
    SetProp(c.props.substr(at, eq - at).c_str(), c.props.substr(eq + 1, end - eq - 1).c_str());
  }
  morvotest::WriteFile(root_.Under("/secret"), "SECRET-TEXT");
  morvotest::WriteFile(root_.Under("/defaults.dtd"),
                       "<!ATTLIST outputFilePath value CDATA \"/from-dtd\">\n");
  if (c.xml != kNoFile) WriteConfig(Replace(c.xml, "$ROOT", root_.path()));
  EXPECT_EQ(c.result, Parse(c.name.c_str()));
  std::string tree = Describe(info_);
  EXPECT_EQ(c.tree, tree);
  if (c.err != kXmlErrors) {
    EXPECT_EQ(Replace(Replace(c.err, "$PATH", ConfigPath()), "$DUMP", ExpectedDump(info_)), err_);
  } else {
    ASSERT_FALSE(err_.empty());
    EXPECT_EQ('\n', err_.back());
    for (size_t at = 0; at < err_.size(); at = err_.find('\n', at) + 1) {
      EXPECT_EQ(0u, err_.compare(at, ConfigPath().size() + 1, ConfigPath() + ":")) << err_;
    }
  }
  FreeConfigFile(&info_);
  FreeConfigFile(&info_);
  EXPECT_EQ("", Describe(info_));
  // Same result and messages in the child, a tree only on success; peak checked below the bound.
  const long bound = long{TavoConfig::kParseLimits.memoryGrowth >> 10};
  struct rusage children;
  ASSERT_EQ(0, getrusage(RUSAGE_CHILDREN, &children));
  const bool measurable = children.ru_maxrss < bound;
  testing::internal::CaptureStderr();
  EXPECT_EQ(c.result, TavoConfig::ParseConfigFileApart(c.name.c_str(), &info_));
  EXPECT_EQ(err_, testing::internal::GetCapturedStderr());
  EXPECT_EQ(c.result == 0 ? tree : "", Describe(info_));
  ASSERT_EQ(0, getrusage(RUSAGE_CHILDREN, &children));
  if (measurable) {
    EXPECT_LT(children.ru_maxrss, bound);
  }
}

}  // namespace configtest
