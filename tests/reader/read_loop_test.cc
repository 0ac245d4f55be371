// What a reading run prints: threadtime lines, dividers, tails, pid and tag
// filters, and the environment's filter.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "platform/log_format.h"
#include "platform/logger.h"
#include "reader/run_capture.h"
#include "support/temp_root.h"
#include "tests/platform/log_store_support.h"

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
  if (child == 0)
    _exit(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "pid", "from the child") > 0 ? 0 : 1);
  int status = 0;
  waitpid(child, &status, 0);
  std::string out = RunCommand({"-d", "-b", "morvo_main", "--pid", std::to_string(child)}).out;
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

// A record as a straightforward reader sees it: read from its buffer alone,
// with its buffer's id and its time as stored.
struct Stored {
  log_id_t id;
  qd_log_msg msg;
};

std::vector<Stored> ReadBuffer(log_id_t id) {
  std::vector<Stored> records;
  morvotest::ListPtr list = morvotest::OpenList(QD_LOGGER_MODE_NONBLOCK, 0, 0, {id});
  if (!list) return records;
  Stored r{id, {}};
  while (qd_logger_list_read(list.get(), &r.msg) > 0) records.push_back(r);
  return records;
}

uint64_t StampOf(const Stored& r) {
  return static_cast<uint64_t>(r.msg.entry.sec) * 1000000000ULL + r.msg.entry.nsec;
}

// What a run over ids prints, worked out the plain way: every buffer read
// alone, merged by time (the lower id first on equal times), the last tail
// records kept (all for 0), each formatted with snprintf.
std::string Reference(const std::vector<log_id_t>& ids, size_t tail) {
  std::vector<std::vector<Stored>> buffers;
  for (log_id_t id : ids) buffers.push_back(ReadBuffer(id));
  std::vector<Stored> merged;
  std::vector<size_t> next(buffers.size(), 0);
  for (;;) {
    int pick = -1;
    for (size_t b = 0; b < buffers.size(); ++b) {
      if (next[b] == buffers[b].size()) continue;
      if (pick < 0 || StampOf(buffers[b][next[b]]) < StampOf(buffers[pick][next[pick]]) ||
          (StampOf(buffers[b][next[b]]) == StampOf(buffers[pick][next[pick]]) &&
           buffers[b][next[b]].id < buffers[pick][next[pick]].id)) {
        pick = static_cast<int>(b);
      }
    }
    if (pick < 0) break;
    merged.push_back(buffers[pick][next[pick]++]);
  }
  if (tail != 0 && merged.size() > tail) merged.erase(merged.begin(), merged.end() - tail);
  std::string text;
  std::vector<log_id_t> introduced;
  for (const Stored& r : merged) {
    if (ids.size() > 1 &&
        std::find(introduced.begin(), introduced.end(), r.id) == introduced.end()) {
      text += std::string("--------- beginning of ") + qdlogging_log_id_to_name(r.id) + "\n";
      introduced.push_back(r.id);
    }
    morvotest::Record f = morvotest::Parse(r.msg);
    time_t sec = r.msg.entry.sec;
    struct tm tm;
    localtime_r(&sec, &tm);
    char prefix[128];
    snprintf(prefix, sizeof(prefix),
             "%02d-%02d %02d:%02d:%02d.%03u %5d %5u %c %-8s: ", tm.tm_mon + 1, tm.tm_mday,
             tm.tm_hour, tm.tm_min, tm.tm_sec, r.msg.entry.nsec / 1000000, f.pid, f.tid,
             "??VDIWEFS"[f.priority], f.tag.c_str());
    std::string message = f.message;
    if (!message.empty() && message.back() == '\n') message.pop_back();
    for (size_t at = 0;;) {
      size_t end = message.find('\n', at);
      text += prefix + message.substr(at, end - at) + "\n";
      if (end == std::string::npos) break;
      at = end + 1;
    }
  }
  return text;
}

// Makes the record whose message is text unterminated, in the ring file of
// name: a damaged record that readers skip.
bool Unterminate(const morvotest::TempRoot& root, const char* name, const std::string& text) {
  std::string path = morvotest::RingPath(root, name);
  std::string ring = morvotest::ReadFile(path);
  size_t at = ring.find(text + std::string(1, '\0'));
  if (at == std::string::npos) return false;
  int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  bool done = fd >= 0 && pwrite(fd, "z", 1, static_cast<off_t>(at + text.size())) == 1;
  if (fd >= 0) close(fd);
  return done;
}

void WriteMain(int from, int to, const char* tag = "busy") {
  for (int i = from; i < to; ++i) {
    std::string msg = "record " + std::to_string(i) + (i % 7 == 0 ? "\nsecond line" : "");
    qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, tag, msg.c_str());
  }
}

// A wrapped main ring with a damaged record 50 records before its head.
void WrappedWithDamage(const morvotest::TempRoot& root) {
  RunCommand({"-b", "morvo_main", "-G", "64k"});
  WriteMain(0, 5000);
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "busy", "damaged-me");
  WriteMain(5000, 5050);
  Unterminate(root, "morvo_main", "damaged-me");
}

struct ReferenceCase {
  const char* what;
  std::function<void(const morvotest::TempRoot&)> write;
  std::vector<std::string> args;
  std::vector<log_id_t> ids;
  size_t tail;
};

const std::vector<log_id_t> kDefault = {LOG_ID_MAIN, LOG_ID_SYSTEM, LOG_ID_CRASH};

std::vector<ReferenceCase> ReferenceCases() {
  return {
      {"one busy buffer beside two quiet ones",
       [](const morvotest::TempRoot&) { WriteMain(0, 3000); },
       {"-d"},
       kDefault,
       0},
      {"three buffers interleaved",
       [](const morvotest::TempRoot&) {
         for (int i = 0; i < 900; ++i) {
           log_id_t id = i % 5 == 0 ? LOG_ID_SYSTEM : i % 11 == 0 ? LOG_ID_CRASH : LOG_ID_MAIN;
           qd_log_write(id, i % 3 == 0 ? QD_LOG_WARN : QD_LOG_DEBUG, "mix",
                        std::to_string(i).c_str());
         }
       },
       {"-d"},
       kDefault,
       0},
      {"quiet buffers that wake late",
       [](const morvotest::TempRoot&) {
         WriteMain(0, 1000);
         qd_log_write(LOG_ID_CRASH, QD_LOG_ERROR, "late", "crash after a thousand");
         WriteMain(1000, 1500);
         qd_log_write(LOG_ID_SYSTEM, QD_LOG_INFO, "late", "system at the end");
       },
       {"-d"},
       kDefault,
       0},
      {"a damaged record among them",
       [](const morvotest::TempRoot& root) {
         WriteMain(0, 200);
         qd_log_write(LOG_ID_SYSTEM, QD_LOG_INFO, "s", "damaged-me");
         qd_log_write(LOG_ID_SYSTEM, QD_LOG_INFO, "s", "sound after it");
         WriteMain(200, 400);
         Unterminate(root, "morvo_system", "damaged-me");
       },
       {"-d"},
       kDefault,
       0},
      {"-t across stretches",
       [](const morvotest::TempRoot&) { WriteMain(0, 3000); },
       {"-t", "250", "-b", "morvo_main"},
       {LOG_ID_MAIN},
       250},
      {"-t of one", [](const morvotest::TempRoot&) { WriteMain(0, 50); }, {"-t", "1"}, kDefault, 1},
      {"-t of more than there are",
       [](const morvotest::TempRoot&) { WriteMain(0, 50); },
       {"-t", "80"},
       kDefault,
       80},
      {"-t over a wrapped ring",
       [](const morvotest::TempRoot&) {
         RunCommand({"-b", "morvo_main", "-G", "64k"});
         WriteMain(0, 5000);
         qd_log_write(LOG_ID_SYSTEM, QD_LOG_INFO, "s", "one in system");
         WriteMain(5000, 5100);
       },
       {"-t", "400"},
       kDefault,
       400},
      {"-t over a wrapped ring with a damaged record before the tail",
       WrappedWithDamage,
       {"-t", "30", "-b", "morvo_main"},
       {LOG_ID_MAIN},
       30},
      {"-t reaching over a damaged record",
       WrappedWithDamage,
       {"-t", "300", "-b", "morvo_main"},
       {LOG_ID_MAIN},
       300},
  };
}

// The runs print what the plain reading of the same records gives, byte
// for byte.
TEST(ReadLoopReferenceTest, RunsPrintWhatAStraightforwardReadGives) {
  for (const ReferenceCase& c : ReferenceCases()) {
    morvotest::TempRoot root;
    c.write(root);
    testing::internal::CaptureStderr();
    std::string expected = Reference(c.ids, c.tail);
    RunResult r = RunCommand(c.args);
    testing::internal::GetCapturedStderr();
    ASSERT_FALSE(expected.empty()) << c.what;
    EXPECT_EQ(0, r.status) << c.what;
    EXPECT_TRUE(expected == r.out) << c.what << ": " << Lines(expected).size()
                                   << " lines expected, " << Lines(r.out).size() << " printed";
  }
}

}  // namespace
