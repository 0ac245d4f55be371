// What a reading run prints: threadtime lines, dividers, tails, pid and tag
// filters, and the environment's filter.

#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/logger.h"
#include "reader/run_capture.h"
#include "support/temp_root.h"

namespace {

using morvotest::RunCommand;
using morvotest::RunResult;

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    lines.push_back(text.substr(pos, end - pos));
    pos = end + 1;
  }
  return lines;
}

// The part of a threadtime line after the priority letter.
std::string Body(const std::string& line) { return line.size() > 33 ? line.substr(33) : line; }

class ReadLoopTest : public ::testing::Test {
 protected:
  morvotest::TempRoot root_;
};

TEST_F(ReadLoopTest, EmptyBuffersEndAtOnceWithNothing) {
  RunResult r = RunCommand({"-d"});
  EXPECT_EQ(0, r.status);
  EXPECT_EQ("", r.out);
  EXPECT_EQ("", r.err);
}

TEST_F(ReadLoopTest, ThreadtimeLinesCarryPidTidPriorityAndTag) {
  qd_log_write(LOG_ID_MAIN, QD_LOG_DEBUG, "shape", "first\nsecond");
  RunResult r = RunCommand({"-d", "-b", "morvo_main"});
  std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(2u, lines.size()) << r.out;
  char prefix[32];
  snprintf(prefix, sizeof(prefix), " %5d %5d D shape   : ", getpid(), gettid());
  for (const std::string& line : lines) {
    // MM-DD HH:MM:SS.mmm
    ASSERT_GE(line.size(), 18u);
    EXPECT_EQ('-', line[2]);
    EXPECT_EQ(':', line[8]);
    EXPECT_EQ('.', line[14]);
    EXPECT_EQ(prefix, line.substr(18, strlen(prefix)));
  }
  EXPECT_EQ("first", lines[0].substr(18 + strlen(prefix)));
  EXPECT_EQ("second", lines[1].substr(18 + strlen(prefix)));
}

TEST_F(ReadLoopTest, DefaultBuffersGetOneDividerEachOnlyWhenSeveralAreSelected) {
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "a", "m1");
  qd_log_write(LOG_ID_SYSTEM, QD_LOG_INFO, "a", "s1");
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "a", "m2");
  qd_log_write(LOG_ID_CRASH, QD_LOG_INFO, "a", "c1");
  qd_log_write(LOG_ID_RADIO, QD_LOG_INFO, "a", "not selected by default");
  std::vector<std::string> lines = Lines(RunCommand({"-d"}).out);
  ASSERT_EQ(7u, lines.size());
  EXPECT_EQ("--------- beginning of morvo_main", lines[0]);
  EXPECT_EQ("a       : m1", Body(lines[1]));
  EXPECT_EQ("--------- beginning of morvo_system", lines[2]);
  EXPECT_EQ("a       : s1", Body(lines[3]));
  EXPECT_EQ("a       : m2", Body(lines[4]));
  EXPECT_EQ("--------- beginning of morvo_crash", lines[5]);
  EXPECT_EQ("a       : c1", Body(lines[6]));

  std::vector<std::string> single = Lines(RunCommand({"-d", "-b", "morvo_main"}).out);
  ASSERT_EQ(2u, single.size());
  EXPECT_EQ("a       : m2", Body(single[1]));
}

// A dump is written in blocks: many blocks' worth of lines, long lines and
// dividers between them must come out whole and in order.
TEST_F(ReadLoopTest, LargeDumpComesOutWholeAndInOrder) {
  ASSERT_EQ(0, RunCommand({"-b", "morvo_main,morvo_system", "-G", "8192k"}).status);
  constexpr int kRecords = 20000;
  std::string longText(3000, 'L');
  for (int i = 0; i < kRecords; ++i) {
    log_id_t id = i % 1000 == 999 ? LOG_ID_SYSTEM : LOG_ID_MAIN;
    std::string msg = std::to_string(i) + (i % 97 == 0 ? longText : "");
    ASSERT_GT(qd_log_write(id, QD_LOG_INFO, "bulk", msg.c_str()), 0);
  }
  RunResult r = RunCommand({"-d", "-b", "morvo_main,morvo_system"});
  EXPECT_EQ(0, r.status);
  std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(static_cast<size_t>(kRecords + 2), lines.size());
  EXPECT_EQ("--------- beginning of morvo_main", lines[0]);
  EXPECT_EQ("--------- beginning of morvo_system", lines[1000]);
  int expected = 0;
  for (const std::string& line : lines) {
    if (line.rfind("---------", 0) == 0) continue;
    std::string msg = std::to_string(expected) + (expected % 97 == 0 ? longText : "");
    ASSERT_EQ("bulk    : " + msg, Body(line)) << "record " << expected;
    expected++;
  }
}

TEST_F(ReadLoopTest, TailPrintsOnlyTheLastRecords) {
  for (int i = 0; i < 10; ++i) {
    qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "tail", std::to_string(i).c_str());
  }
  std::vector<std::string> lines = Lines(RunCommand({"-t", "3", "-b", "morvo_main"}).out);
  ASSERT_EQ(3u, lines.size());
  EXPECT_EQ("tail    : 7", Body(lines[0]));
  EXPECT_EQ("tail    : 9", Body(lines[2]));
}

TEST_F(ReadLoopTest, PidFilterKeepsOneProcessRecords) {
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "pid", "from the parent");
  pid_t child = fork();
  if (child == 0) _exit(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "pid", "from the child") > 0 ? 0 : 1);
  int status = 0;
  waitpid(child, &status, 0);
  std::string out =
      RunCommand({"-d", "-b", "morvo_main", "--pid", std::to_string(child)}).out;
  EXPECT_EQ(std::string::npos, out.find("from the parent"));
  EXPECT_NE(std::string::npos, out.find("from the child"));
}

TEST_F(ReadLoopTest, FilterArgumentsAndTheEnvironment) {
  qd_log_write(LOG_ID_MAIN, QD_LOG_DEBUG, "keep", "debug kept");
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "drop", "info dropped");
  qd_log_write(LOG_ID_MAIN, QD_LOG_ERROR, "drop", "error of drop");
  std::string filtered = RunCommand({"-d", "-b", "morvo_main", "-s", "keep:D", "drop:E"}).out;
  EXPECT_EQ(2u, Lines(filtered).size()) << filtered;
  EXPECT_EQ(std::string::npos, filtered.find("info dropped"));

  std::string fromEnv = RunCommand({"-d", "-b", "morvo_main"}, {"ANDROID_LOG_TAGS=*:e"}).out;
  ASSERT_EQ(1u, Lines(fromEnv).size()) << fromEnv;
  EXPECT_NE(std::string::npos, fromEnv.find("error of drop"));

  // With a filter argument the environment is not read at all.
  RunResult ignored = RunCommand({"-d", "-b", "morvo_main", "*:V"}, {"ANDROID_LOG_TAGS=bad:Q"});
  EXPECT_EQ(0, ignored.status);
  EXPECT_EQ(3u, Lines(ignored.out).size());

  RunResult bad = RunCommand({"-d"}, {"ANDROID_LOG_TAGS=bad:Q"});
  EXPECT_EQ(1, bad.status);
  EXPECT_EQ("Invalid filter expression in ANDROID_LOG_TAGS\n", bad.err);
}

TEST_F(ReadLoopTest, RedirectionArgumentsAreNotFilters) {
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "r", "visible");
  RunResult r = RunCommand({"-d", "-b", "morvo_main", "2>&1"});
  EXPECT_EQ(0, r.status);
  EXPECT_NE(std::string::npos, r.out.find("visible"));
}

TEST_F(ReadLoopTest, WrapWaitsForTheBufferToFillThenReadsItAll) {
  ASSERT_EQ(0, RunCommand({"-b", "morvo_radio", "-G", "8k"}).status);
  pid_t child = fork();
  if (child == 0) {
    usleep(100 * 1000);
    std::string text(200, 'w');
    for (int i = 0; i < 100; ++i) qd_log_write(LOG_ID_RADIO, QD_LOG_INFO, "wrap", text.c_str());
    _exit(0);
  }
  RunResult r = RunCommand({"-b", "morvo_radio", "--wrap"});
  waitpid(child, nullptr, 0);
  EXPECT_EQ(0, r.status);
  EXPECT_GT(Lines(r.out).size(), 10u);
}

}  // namespace
