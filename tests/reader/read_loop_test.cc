// What a reading run prints: threadtime lines, the pid filter, and every
// line, divider and tail as a plain reading of the same records gives them.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "platform/log_format.h"
#include "platform/logger.h"
#include "support/reader_run.h"
#include "support/shell_file.h"
#include "support/temp_root.h"
#include "support/words.h"
#include "tests/platform/log_store_support.h"

namespace {

using morvotest::RunCommand;
using morvotest::RunResult;

using morvotest::Lines;

// The writer's pid and tid on each line of a message (the reference
// reading below takes them from the records); --pid keeps one process's.
TEST(ReadLoopTest, LinesCarryTheWritersPidAndTid) {
  morvotest::TempRoot root;
  qd_log_write(LOG_ID_MAIN, QD_LOG_DEBUG, "shape", "first\nsecond");
  pid_t child = fork();
  if (child == 0)
    _exit(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "pid", "from the child") > 0 ? 0 : 1);
  waitpid(child, nullptr, 0);
  std::string out = RunCommand({"-d", "-b", "morvo_main", "--pid", std::to_string(child)}).out;
  ASSERT_EQ(1u, Lines(out).size()) << out;
  EXPECT_NE(std::string::npos, out.find("from the child"));
  out = RunCommand({"-d", "-b", "morvo_main", "--pid", std::to_string(getpid())}).out;
  char prefix[32];
  snprintf(prefix, sizeof(prefix), " %5d %5d D shape   : ", getpid(), gettid());
  for (const char* text : {"first\n", "second\n"}) {
    EXPECT_NE(std::string::npos, out.find(prefix + std::string(text))) << out;
  }
  EXPECT_EQ(2u, Lines(out).size());
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

void WriteMain(int from, int to) {
  for (int i = from; i < to; ++i) {
    std::string msg = "record " + std::to_string(i) + (i % 7 == 0 ? "\nsecond line" : "");
    qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "busy", msg.c_str());
  }
}

using Root = morvotest::TempRoot;

void Interleaved(const Root&) {
  for (int i = 0; i < 900; ++i) {
    log_id_t id = i % 5 == 0 ? LOG_ID_SYSTEM : i % 11 == 0 ? LOG_ID_CRASH : LOG_ID_MAIN;
    qd_log_write(id, i % 3 == 0 ? QD_LOG_WARN : QD_LOG_DEBUG, "mix", std::to_string(i).c_str());
  }
  qd_log_write(LOG_ID_RADIO, QD_LOG_INFO, "mix", "not selected by default");
}

// Many blocks' worth of lines, long lines and dividers between them.
void LargeDump(const Root&) {
  RunCommand({"-b", "morvo_main,morvo_system", "-G", "8192k"});
  for (int i = 0; i < 20000; ++i) {
    std::string msg = std::to_string(i) + (i % 97 == 0 ? std::string(3000, 'L') : "");
    qd_log_write(i % 1000 == 999 ? LOG_ID_SYSTEM : LOG_ID_MAIN, QD_LOG_INFO, "bulk", msg.c_str());
  }
}

void QuietWakeLate(const Root&) {
  qd_log_write(LOG_ID_CRASH, QD_LOG_ERROR, "late", "crash after a thousand");
  WriteMain(1000, 1500);
  qd_log_write(LOG_ID_SYSTEM, QD_LOG_INFO, "late", "system at the end");
}

void DamagedAmong(const Root& root) {
  qd_log_write(LOG_ID_SYSTEM, QD_LOG_INFO, "s", "damaged-me");
  qd_log_write(LOG_ID_SYSTEM, QD_LOG_INFO, "s", "sound after it");
  WriteMain(200, 400);
  Unterminate(root, "morvo_system", "damaged-me");
}

void Wrapped(const Root&) {
  RunCommand({"-b", "morvo_main", "-G", "64k"});
  WriteMain(0, 5000);
  qd_log_write(LOG_ID_SYSTEM, QD_LOG_INFO, "s", "one in system");
  WriteMain(5000, 5100);
}

// A wrapped main ring with a damaged record 50 records before its head.
void WrappedWithDamage(const Root& root) {
  RunCommand({"-b", "morvo_main", "-G", "64k"});
  WriteMain(0, 5000);
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "busy", "damaged-me");
  WriteMain(5000, 5050);
  Unterminate(root, "morvo_main", "damaged-me");
}

// The buffers a run reads (-b) and its tail (-t) come from its arguments.
struct ReferenceCase {
  const char* args;  // space-separated
  int busy;          // records written to main first
  void (*more)(const Root&);
};

const ReferenceCase kReferenceCases[] = {
    {"-d", 3000, nullptr},  // one busy buffer beside two quiet ones
    {"-d", 0, Interleaved},
    {"-d -b morvo_main,morvo_system", 0, LargeDump},
    {"-d", 1000, QuietWakeLate},
    {"-d", 200, DamagedAmong},
    {"-t 250 -b morvo_main", 3000, nullptr},  // across stretches
    {"-t 1", 50, nullptr},
    {"-t 80", 50, nullptr},  // more than there are
    {"-t 400", 0, Wrapped},
    {"-t 30 -b morvo_main", 0, WrappedWithDamage},  // the damage is before the tail
    {"-t 300 -b morvo_main", 0, WrappedWithDamage},
};

// The runs print what the plain reading of the same records gives, byte
// for byte.
TEST(ReadLoopReferenceTest, RunsPrintWhatAStraightforwardReadGives) {
  for (const ReferenceCase& c : kReferenceCases) {
    SCOPED_TRACE(c.args);
    Root root;
    WriteMain(0, c.busy);
    if (c.more != nullptr) c.more(root);
    std::vector<std::string> args = morvotest::Words(c.args);
    std::vector<log_id_t> ids = {LOG_ID_MAIN, LOG_ID_SYSTEM, LOG_ID_CRASH};
    size_t tail = args[0] == "-t" ? std::stoul(args[1]) : 0;
    if (args.size() > 2 && args[args.size() - 2] == "-b") {
      ids.clear();
      std::istringstream names(args.back());
      for (std::string n; std::getline(names, n, ',');) {
        ids.push_back(qdlogging_name_to_log_id(n.c_str()));
      }
    }
    testing::internal::CaptureStderr();
    std::string expected = Reference(ids, tail);
    RunResult r = RunCommand(args);
    testing::internal::GetCapturedStderr();
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(0, r.status);
    EXPECT_TRUE(expected == r.out)
        << Lines(expected).size() << " lines expected, " << Lines(r.out).size() << " printed";
  }
}

}  // namespace
