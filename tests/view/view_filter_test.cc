// morvo-view's filters, output forms and command line, over a small tree:
// a reader capture and a collector stream.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/temp_root.h"
#include "view/view_run.h"

namespace {

using viewtest::Lines;
using viewtest::RunView;

class ViewFilterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.MakeDirs("/data/log/reader");
    root_.MakeDirs("/data/log/kernel");
    tree_ = root_.Under("/data/log");
    morvotest::WriteFile(root_.Under("/data/log/reader/capture"),
                         "--------- beginning of morvo_main\n"
                         "03-01 10:00:00.000   100   101 I ActivityManager: start \"x\"\n"
                         "03-01 10:00:02.000   200   201 W wifi    : weak signal\n"
                         "03-01 10:00:04.000   100   102 E ActivityManager: crash \\ now\n");
    morvotest::WriteFile(root_.Under("/data/log/kernel/kmsg"),
                         "03-01 10:00:01.000 <6> kernel one\n"
                         "03-01 10:00:03.000 <3> kernel two\t\x01\xff\n");
    // The files' modification times give their year.
    system(("touch -d '2024-03-01 10:00:05' " + root_.Under("/data/log/reader/capture") + " " +
            root_.Under("/data/log/kernel/kmsg"))
               .c_str());
  }

  // The messages' last words, in the order printed.
  std::vector<std::string> Printed(const std::vector<std::string>& args) {
    std::vector<std::string> full = args;
    full.push_back(tree_);
    viewtest::ViewRun run = RunView(root_.path(), full);
    EXPECT_EQ(0, run.status) << run.err;
    std::vector<std::string> words;
    for (const std::string& line : Lines(run.out))
      words.push_back(line.substr(line.rfind(' ') + 1));
    return words;
  }

  morvotest::TempRoot root_;
  std::string tree_;
};

TEST_F(ViewFilterTest, FiltersAsTheReader) {
  struct Case {
    std::vector<std::string> args;
    std::vector<std::string> words;
  } cases[] = {
      {{}, {"morvo_main", "\"x\"", "one", "signal", "two\t\x01\xff", "now"}},
      {{"-s", "ActivityManager:I"}, {"\"x\"", "now"}},
      {{"ActivityManager:E", "*:S"}, {"now"}},
      {{"*:W"}, {"signal", "now"}},
      {{"-s", "kmsg:I"}, {"one", "two\t\x01\xff"}},
      {{"--pid", "200"}, {"signal"}},
      {{"-e", "kernel|crash"}, {"one", "two\t\x01\xff", "now"}},
      {{"--since", "2024-03-01 10:00:02", "--until", "2024-03-01 10:00:03"},
       {"signal", "two\t\x01\xff"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args.empty() ? "no filter" : c.args.front() + " " + c.args.back());
    EXPECT_EQ(c.words, Printed(c.args));
  }
}

TEST_F(ViewFilterTest, JsonFieldsEscapedAndComplete) {
  viewtest::ViewRun run = RunView(root_.path(), {"-o", "json", tree_});
  ASSERT_EQ(0, run.status) << run.err;
  std::vector<std::string> lines = Lines(run.out);
  ASSERT_EQ(6u, lines.size());
  std::string capture = root_.Under("/data/log/reader/capture");
  std::string kmsg = root_.Under("/data/log/kernel/kmsg");
  EXPECT_EQ("{\"time\":\"2024-03-01T10:00:00.000\",\"set\":\"" + capture + "\",\"file\":\"" +
                capture +
                "\",\"pid\":100,\"tid\":101,\"priority\":\"I\",\"tag\":\"ActivityManager\","
                "\"message\":\"start \\\"x\\\"\"}",
            lines[1]);
  EXPECT_EQ("{\"time\":\"2024-03-01T10:00:03.000\",\"set\":\"" + kmsg + "\",\"file\":\"" + kmsg +
                "\",\"pid\":null,\"tid\":null,\"priority\":null,\"tag\":null,"
                "\"message\":\"<3> kernel two\\u0009\\u0001\\ufffd\"}",
            lines[4]);
  EXPECT_NE(std::string::npos, lines[5].find("\"message\":\"crash \\\\ now\"")) << lines[5];
  // The divider takes the time of the line after it, at the top of its set.
  EXPECT_EQ(0u, lines[0].find("{\"time\":\"2024-03-01T10:00:00.000\""));
}

TEST_F(ViewFilterTest, ThreadTimeKeepsEachLinesOwnText) {
  viewtest::ViewRun run = RunView(root_.path(), {tree_});
  ASSERT_EQ(0, run.status) << run.err;
  std::vector<std::string> lines = Lines(run.out);
  ASSERT_EQ(6u, lines.size());
  EXPECT_EQ("03-01 10:00:00.000 --------- beginning of morvo_main", lines[0]);
  EXPECT_EQ("03-01 10:00:00.000   100   101 I ActivityManager: start \"x\"", lines[1]);
  EXPECT_EQ("03-01 10:00:01.000 <6> kernel one", lines[2]);
}

TEST_F(ViewFilterTest, CommandLine) {
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string out;
    std::string err;
  } cases[] = {
      {{"-h"}, 0, "usage: morvo-view", ""},
      {{"--help"}, 0, "usage: morvo-view", ""},
      {{}, 2, "", "no folder or file to read"},
      {{"--bogus", "x"}, 2, "", "unknown option"},
      {{"-o", "xml", "x"}, 2, "", "unknown output format: xml"},
      {{"--pid", "abc", "x"}, 2, "", "invalid process id: abc"},
      {{"-e", "(", "x"}, 2, "", "invalid regular expression"},
      {{"--since", "2024-03-01 10:00:04.5", "x"}, 2, "", "invalid time"},
      {{"--until", "yesterday", "x"}, 2, "", "invalid time"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args.empty() ? "no arguments" : c.args.front());
    std::vector<std::string> args = c.args;
    if (!args.empty() && args.back() == "x") args.back() = tree_;
    viewtest::ViewRun run = RunView(root_.path(), args);
    EXPECT_EQ(c.status, run.status);
    EXPECT_NE(std::string::npos, run.out.find(c.out)) << run.out;
    EXPECT_NE(std::string::npos, run.err.find(c.err)) << run.err;
  }
}

}  // namespace
