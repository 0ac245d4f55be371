// The sources a group copies: nodes read whole, alternative nodes, streams
// split into stamped lines, and dumpsys output run without a shell.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "collector/data_src_reader.h"
#include "collector/group_support.h"
#include "platform/properties.h"
#include "support/file_tree.h"
#include "support/temp_root.h"

namespace {

using grouptest::StderrCapture;
using morvotest::ReadFile;
using morvotest::WriteFile;

// A factory-mode sink: what the sources write is read back as it is.
class SourceSink : public DataSrcReader {
 public:
  explicit SourceSink(const TavoCommon::TavocatGroupT* group)
      : DataSrcReader(group, TavoCommon::FACTORY_WRITE) {
    SetupOutput();
  }
  using Tavobase::failureCount;
  using Tavobase::failureRetry;

 protected:
  void openLogFilePost() override {}
};

const char kStamp[] = "\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d ";

class DataSources : public ::testing::Test {
 protected:
  DataSources() : record(root.Under("/data/log/src/src-log"), TavoCommon::POLL_NODE) {
    for (const char* dir : {"/sys/node", "/bin", "/proc", "/system/bin"}) root.MakeDirs(dir);
  }
  // The sink is made after the test has set the retry limit.
  SourceSink& Sink() {
    if (sink == nullptr) sink.reset(new SourceSink(&record.group));
    return *sink;
  }
  std::string Node(const std::string& name, const std::string& text) {
    WriteFile(root.Under("/sys/node/" + name), text);
    return "/sys/node/" + name;
  }
  std::string Written() { return ReadFile(record.path); }
  std::string Kmsg() const { return root.Under("/proc/kmsg"); }
  void Append(const std::string& text) const {
    FILE* kmsg = fopen(Kmsg().c_str(), "a");
    fwrite(text.data(), 1, text.size(), kmsg);
    fclose(kmsg);
  }
  bool Arrived(const std::string& line) {
    return grouptest::WaitFor([&] { return Written().find(line) != std::string::npos; });
  }
  // A stream read on a thread the collector's teardown way stops.
  grouptest::GroupThread* Run(const char* path) {
    return new grouptest::GroupThread([this, path] { Sink().NodeCatStream(path); });
  }
  // The written lines without their stamps; every line must have one.
  std::vector<std::string> Lines() {
    std::vector<std::string> lines;
    std::regex stamp(std::string("^") + kStamp);
    for (const std::string& line : morvotest::Lines(Written())) {
      EXPECT_TRUE(std::regex_search(line, stamp)) << line.substr(0, 40);
      lines.push_back(line.size() > kStampLength ? line.substr(kStampLength) : "");
    }
    return lines;
  }
  static constexpr size_t kStampLength = 19;
  void Dumpsys(const std::string& body, const std::string& dir = "/system/bin") {
    std::string script = root.Under(dir + "/dumpsys");
    WriteFile(script, "#!/bin/sh\n" + body + "\n");
    chmod(script.c_str(), 0755);
  }

  morvotest::TempRoot root;
  grouptest::GroupRecord record;
  std::unique_ptr<SourceSink> sink;
};

// One line end is taken off and the text padded to its width; a long node is
// written in pieces; a missing or empty node reads "Read Fail" with a width.
TEST_F(DataSources, NodesAreWrittenToTheirWidth) {
  const std::string longest(8190, 'a');
  // name null: no node; text "-": none there; "Time" is opened relative.
  // clang-format off
  const struct { const char* name; std::string text; size_t width; bool ends; int result;
                 std::string written; } kCases[] = {
      {"a", "42\n", 6, false, 0, "42    "},
      {"b", "\n", 0, false, 0, "\n"},
      {"c", "abcde", 3, false, 0, "abcde"},
      {"d", "x\r\n", 0, true, 0, "x\r"},
      {"long", longest + "\nbb\n", 0, true, 0, longest + "bb"},
      {"missing", "-", 0, true, 1, ""},
      {"missing", "-", 11, true, 0, "Read Fail  "},
      {nullptr, "-", 11, true, 1, ""},
      {"empty", "", 10, true, 0, "Read Fail "},
      {"Time", "Stamp\n", 0, true, 0, "Stamp"},
  };
  // clang-format on
  char saved[4096];
  ASSERT_NE(nullptr, getcwd(saved, sizeof(saved)));
  ASSERT_EQ(0, chdir(root.Under("/sys/node").c_str()));
  std::string expected;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name != nullptr ? c.name : "null");
    std::string path = c.name == nullptr ? "" : "/sys/node/" + std::string(c.name);
    if (c.text != "-") Node(c.name, c.text);
    if (std::string(c.name != nullptr ? c.name : "") == "Time") path = "Time";
    EXPECT_EQ(c.result,
              Sink().NodeCatOnce(c.name == nullptr ? nullptr : path.c_str(), c.width, c.ends));
    EXPECT_EQ(expected += c.written, Written());
  }
  ASSERT_EQ(0, chdir(saved));
}

TEST_F(DataSources, AnEmptyNodeIsRetriedUntilTheCounterReachesTheLimit) {
  record.group.failureRetry = 3;
  std::string empty = Node("empty", "");
  EXPECT_EQ(1, Sink().NodeCatOnce(empty.c_str(), 10, true));
  EXPECT_EQ(0u, Sink().failureCount);
  EXPECT_EQ("", Written());
  // The counter is shared by the group's nodes and kept across calls.
  Sink().failureCount = 2;
  EXPECT_EQ(1, Sink().NodeCatOnce(empty.c_str(), 10, true));
  EXPECT_EQ(0u, Sink().failureCount);
  Sink().failureCount = 1;
  EXPECT_EQ(0, Sink().NodeCatOnce(Node("full", "7").c_str(), 0, true));
  EXPECT_EQ(1u, Sink().failureCount);
  EXPECT_EQ("7", Written());
}

TEST_F(DataSources, AlternativeNodesTakeTheFirstThatOpens) {
  char missing[] = "/sys/node/none";
  std::string present = Node("second", "55\n");
  TavoCommon::TavocatStrListT second{&present[0], nullptr};
  TavoCommon::TavocatStrListT first{missing, &second};
  EXPECT_EQ(0, Sink().NodeCatAlterOnce(&first, 4, false));
  TavoCommon::TavocatStrListT only{missing, nullptr};
  EXPECT_EQ(0, Sink().NodeCatAlterOnce(&only, 10, false));
  std::string empty = Node("empty", "");
  TavoCommon::TavocatStrListT blank{&empty[0], nullptr};
  EXPECT_EQ(0, Sink().NodeCatAlterOnce(&blank, 3, true));
  EXPECT_EQ(1, Sink().NodeCatAlterOnce(nullptr, 3, true));
  EXPECT_EQ("55  Read Fail    ", Written());
}

TEST_F(DataSources, StreamTextIsSplitIntoStampedLinesAcrossReads) {
  char buf[DataSrcReader::kReadBufSize] = "a\n\nb";
  int carry = -1;
  EXPECT_EQ(0, Sink().ParseEachLine(buf, buf, &carry));
  EXPECT_EQ(1, carry);
  EXPECT_STREQ("b", buf);
  strcpy(buf + carry, "c\n");
  EXPECT_EQ(0, Sink().ParseEachLine(buf, buf, &carry));
  EXPECT_EQ(0, carry);
  std::regex lines(std::string("^") + kStamp + "a\n" + kStamp + "bc\n$");
  EXPECT_TRUE(std::regex_match(Written(), lines)) << Written();
  StderrCapture err;
  EXPECT_EQ(1, Sink().ParseEachLine(nullptr, buf, &carry));
  EXPECT_EQ("start or buf is null ptr\n", err.Text());
}

TEST_F(DataSources, LinesTooLongForOneStampedLineAreSplitAndTheNextLinesFollow) {
  // clang-format off
  const struct { size_t length; std::vector<size_t> pieces; } kCases[] = {
      {8171, {8171}}, {8172, {8171, 1}}, {8191, {8171, 20}}, {8192, {8171, 21}},
      {16342, {8171, 8171}}, {30000, {8171, 8171, 8171, 5487}},
  };
  // clang-format on
  WriteFile(Kmsg(), "");
  std::unique_ptr<grouptest::GroupThread> run(Run("/proc/kmsg"));
  std::vector<std::string> expected;
  for (const auto& c : kCases) {
    std::string line;
    for (size_t i = 0; i < c.length; ++i) line.push_back(static_cast<char>('a' + i % 26));
    Append(line + "\nafter " + std::to_string(c.length) + "\n");
    for (size_t at = 0, k = 0; k < c.pieces.size(); at += c.pieces[k++]) {
      expected.push_back(line.substr(at, c.pieces[k]));
    }
    expected.push_back("after " + std::to_string(c.length));
    ASSERT_TRUE(Arrived("after " + std::to_string(c.length) + "\n")) << c.length;
  }
  EXPECT_EQ(expected, Lines());
}

TEST_F(DataSources, NulAndBinaryBytesStayInTheirLines) {
  std::mt19937 random(7);
  std::string text;
  std::vector<std::string> expected;
  for (int n = 0; n < 200; ++n) {
    std::string line = "line " + std::to_string(n) + " ";
    for (int i = random() % 40; i >= 0; --i) {
      char byte = static_cast<char>(random() % 256);
      line.push_back(byte == '\n' ? '\0' : byte);
    }
    line += std::string(1, '\0') + "tail";
    expected.push_back(line);
    text += line + "\n";
  }
  WriteFile(Kmsg(), text);
  std::unique_ptr<grouptest::GroupThread> run(Run("/proc/kmsg"));
  ASSERT_TRUE(Arrived(expected.back() + "\n"));
  EXPECT_EQ(expected, Lines());
}

// Faults that pass: the stream comes back by itself once the cause is gone.
TEST_F(DataSources, AStreamResumesAfterAFaultThatPasses) {
  // first: the stream holds a line before the fault.
  using Step = void (*)(const std::string& kmsg);
  const Step none = [](const std::string&) {};
  const Step one = [](const std::string& kmsg) { WriteFile(kmsg, "one\n"); };
  // clang-format off
  const struct { const char* name; bool first; Step before; Step fault; } kCases[] = {
      {"missing at start", false, none, none},
      {"removed and recreated", true, one, [](const std::string& kmsg) { unlink(kmsg.c_str()); }},
      {"replaced by rename", true, one, [](const std::string& kmsg) {
         WriteFile(kmsg + ".new", "");
         rename((kmsg + ".new").c_str(), kmsg.c_str()); }},
      {"read error on a folder", false, [](const std::string& kmsg) { mkdir(kmsg.c_str(), 0755); },
       [](const std::string& kmsg) { rmdir(kmsg.c_str()); }},
  };
  // clang-format on
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    c.before(Kmsg());
    StderrCapture err;
    {
      std::unique_ptr<grouptest::GroupThread> run(Run("/proc/kmsg"));
      if (c.first) {
        ASSERT_TRUE(Arrived("one\n"));
      }
      c.fault(Kmsg());
      Append("two\n");
      ASSERT_TRUE(Arrived("two\n"));
    }
    unlink(Kmsg().c_str());
    // Said once while the stream is away, however often it is retried.
    EXPECT_LE(grouptest::Count(err.Text(), "failed to translate path"), 1u);
    sink.reset();
    unlink(record.path.c_str());
  }
}

TEST_F(DataSources, OnlyANullStreamPathEndsTheStream) {
  StderrCapture err;
  EXPECT_EQ(1, Sink().NodeCatStream(nullptr));
  EXPECT_EQ("", err.Text());
  char value[PROPERTY_VALUE_MAX];
  property_get("ctl.stop", value, "");
  EXPECT_STREQ("", value);
}

TEST_F(DataSources, TheModemLogDeviceIsRetriedThenItsServiceStopped) {
  record.group.failureRetry = 2;
  root.MakeDirs("/dev/cshell_log");
  Sink();
  StderrCapture err;
  char value[PROPERTY_VALUE_MAX] = "";
  {
    std::unique_ptr<grouptest::GroupThread> run(Run("/dev/cshell_log"));
    ASSERT_TRUE(grouptest::WaitFor([&] {
      property_get("ctl.stop", value, "");
      return strcmp(value, "kmsgcat_cp") == 0;
    }));
  }
  std::string text = err.Text();
  std::string message = "read failure!reserved_buf_size = 8191\n";
  EXPECT_LE(1u, grouptest::Count(text, message));
  EXPECT_EQ(text.size(), grouptest::Count(text, message) * message.size()) << text;
  EXPECT_EQ(0u, Sink().failureCount);
}

// The output follows a header unchanged; a command that fails silently
// leaves its header.
TEST_F(DataSources, TheOutputFollowsAHeader) {
  const char* const kDate = "\\d{4}-\\d{1,2}-\\d{1,2} \\d{1,2}:\\d{1,2}:\\d{1,2}\r\n";
  const struct {
    const char* script;
    const char* command;
    std::string text;
  } kCases[] = {
      {"printf 'level: %s\\n\\nend' \"$1\"", "battery", "level: battery\n\nend"},
      {"exit 3", "power", ""},
  };
  std::string expected;
  for (const auto& c : kCases) {
    Dumpsys(c.script);
    EXPECT_EQ(0, Sink().SystemCmdCat(c.command));
    expected += std::string("current time: <") + c.command + ">" + kDate + c.text;
    EXPECT_TRUE(std::regex_match(Written(), std::regex("^" + expected + "$"))) << Written();
  }
}

TEST_F(DataSources, ACommandTooLongForTheHeaderIsNotRun) {
  Dumpsys("touch " + root.Under("/ran"));
  Sink();
  StderrCapture err;
  EXPECT_EQ(1, Sink().SystemCmdCat(std::string(240, 'c').c_str()));
  EXPECT_EQ(1, Sink().SystemCmdCat(nullptr));
  EXPECT_EQ("format current time failed\n", err.Text());
  EXPECT_EQ("", Written());
  EXPECT_FALSE(morvotest::Exists(root.Under("/ran")));
}

// The collector is root: dumpsys comes from fixed system folders only, and
// the command's words reach it as arguments, never through a shell.
TEST_F(DataSources, DumpsysIsTakenFromSystemFoldersAndRunWithoutAShell) {
  root.MakeDirs("/bin");
  root.MakeDirs("/path");
  const char* path = getenv("PATH");
  std::string savedPath = path != nullptr ? path : "";
  setenv("PATH", (root.Under("/path") + ":" + savedPath).c_str(), 1);
  Dumpsys("touch " + root.Under("/from-path"), "/path");
  Sink();
  {
    StderrCapture err;
    EXPECT_EQ(1, Sink().SystemCmdCat("battery"));
    EXPECT_EQ("dumpsys not found in /system/bin:/system/xbin:/vendor/bin:/usr/bin:/bin\n",
              err.Text());
  }
  Dumpsys("for a; do printf '[%s]' \"$a\"; done", "/bin");
  std::string attack = "battery;touch " + root.Under("/injected") + " $(id)";
  EXPECT_EQ(0, Sink().SystemCmdCat(attack.c_str()));
  setenv("PATH", savedPath.c_str(), 1);
  EXPECT_FALSE(morvotest::Exists(root.Under("/from-path")));
  EXPECT_FALSE(morvotest::Exists(root.Under("/injected")));
  EXPECT_NE(std::string::npos,
            Written().find("\r\n[battery;touch][" + root.Under("/injected") + "][$(id)]"))
      << Written();
}

}  // namespace
