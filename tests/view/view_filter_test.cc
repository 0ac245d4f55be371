// morvo-view's filters, output forms and command line over a small tree; lnav formats via lnav.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "filesets/morvocat_utils.h"
#include "support/gzip_text.h"
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
    system(("touch -d '2024-03-01 10:00:05' " + root_.Under("/data/log/reader/capture") + " " +
            root_.Under("/data/log/kernel/kmsg"))
               .c_str());
  }

  morvotest::TempRoot root_;
  std::string tree_;
};

TEST_F(ViewFilterTest, FiltersAsTheReader) {
  struct Case {
    std::vector<std::string> args, words;  // the messages' last words, in the order printed
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
    std::vector<std::string> args = c.args, words;
    args.push_back(tree_);
    viewtest::ViewRun run = RunView(root_.path(), args);
    EXPECT_EQ(0, run.status) << run.err;
    for (const std::string& line : Lines(run.out))
      words.push_back(line.substr(line.rfind(' ') + 1));
    EXPECT_EQ(c.words, words);
  }
}

// JSON escapes and completes each line; threadtime keeps each line's own text.
TEST_F(ViewFilterTest, OutputForms) {
  viewtest::ViewRun run = RunView(root_.path(), {"-o", "json", tree_});
  viewtest::ViewRun plain = RunView(root_.path(), {tree_});
  ASSERT_EQ(0, run.status | plain.status) << run.err << plain.err;
  std::vector<std::string> lines = Lines(run.out), text = Lines(plain.out);
  ASSERT_EQ(6u, lines.size());
  ASSERT_EQ(6u, text.size());
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
  EXPECT_EQ(0u, lines[0].find("{\"time\":\"2024-03-01T10:00:00.000\""));
  EXPECT_EQ("03-01 10:00:00.000 --------- beginning of morvo_main", text[0]);
  EXPECT_EQ("03-01 10:00:00.000   100   101 I ActivityManager: start \"x\"", text[1]);
  EXPECT_EQ("03-01 10:00:01.000 <6> kernel one", text[2]);
}

TEST_F(ViewFilterTest, CommandLine) {
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string out, err;
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

using morvotest::Quoted;

const char kCapture[] =
    "01-05 08:15:02.042  1234  1240 I ActivityManager: Start proc 4321\n"
    "01-05 08:15:03.500    -1     7 W t       : a: b\n"
    "01-05 08:15:04.000  1234  1241 E tag two : failed\n";

const char kStream[] =
    "11-16 15:52:03.042 <6>[ 1.5] kernel message\n"
    "11-16 15:52:04.100 second line\n"
    "11-16 15:52:05 [1706704496.123456] KEY_POWER DOWN    \n"
    " 11-16 15:52:06 [1706704496.140122] S 00000000\trate 60\n";

// lnav finds each line's time, level, pid, tid and tag.
const char kThreadTimeRows[] =
    "row\n01-05 08:15:02.042|info|1234|1240|ActivityManager\n01-05 08:15:03.500|warning|-1|7|t\n"
    "01-05 08:15:04.000|error|1234|1241|tag two\n";

const char kStreamRows[] =
    "row\n11-16 15:52:03.042|<6>[ 1.5] kernel message\n11-16 15:52:04.100|second line\n"
    "11-16 15:52:05.000|KEY_POWER DOWN\n11-16 15:52:06.000|S 00000000\xe2\x87\xa5rate 60\n";

TEST(LnavFormatTest, EachFileKindGivesItsFields) {
  if (system("command -v lnav >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "lnav is not installed (scripts/install-deps installs it)";
  }
  morvotest::TempRoot root;
  const char* source = getenv("MORVO_SOURCE_DIR");
  std::string formats = std::string(source != nullptr ? source : ".") + "/etc/lnav/";
  std::string home = "HOME=" + Quoted(root.path()) + " lnav ";
  ASSERT_EQ(0, system((home + "-i " + Quoted(formats + "morvocat_threadtime.json") + " " +
                       Quoted(formats + "morvocat_stream.json") + " >/dev/null 2>&1")
                          .c_str()));
  morvotest::WriteFile(root.path() + "/capture.txt", kCapture);
  morvotest::WriteFile(root.path() + "/kmsg", kStream);
  root.MakeDirs("/data/log");
  std::string base = root.Under("/data/log/out");
  {
    MorvocatUtils writer(base, MorvocatUtils::kMMapWriteMode, 0);
    writer.InitLogFiles();
    writer.Write(kCapture, sizeof(kCapture));
    writer.InitLogFiles();
    writer.GetNewLog();
    writer.Flush();
  }
  const std::string kTime = "SELECT strftime('%m-%d %H:%M:%f', log_time) || '|' || ";
  const std::string kFields =
      kTime + "log_level || '|' || pid || '|' || tid || '|' || tag AS row FROM morvocat_threadtime";
  struct Case {
    std::string file, query, rows;
  } const kCases[] = {
      {"/capture.txt", kFields, kThreadTimeRows},
      {"/data/log/out.I000.*.gz", kFields, kThreadTimeRows},
      {"/kmsg", kTime + "log_body AS row FROM morvocat_stream", kStreamRows},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.file);
    std::string rows;
    std::string out = morvotest::CommandOutput(home + "-n -c " + Quoted(";" + c.query) + " " +
                                               Quoted(root.path()) + c.file + " 2>&1");
    for (std::string line : morvotest::Lines(out)) {
      line.erase(0, line.find_first_not_of(' '));
      rows += line.erase(line.find_last_not_of(' ') + 1) + "\n";
    }
    EXPECT_EQ(c.rows, rows);
  }
}

}  // namespace
