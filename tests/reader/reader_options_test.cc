// The reader's command line as a host sees it, output checked against a plain reading.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/log_format.h"
#include "platform/logger.h"
#include "support/file_tree.h"
#include "support/reader_run.h"
#include "support/temp_root.h"
#include "tests/platform/log_store_support.h"

namespace {

using morvotest::Lines;
using morvotest::RunCommand;
using morvotest::RunResult;
using morvotest::Words;

// Threadtime lines from the priority letter on: the time, pid and tid vary.
std::string Plain(const std::string& out) {
  std::string plain;
  for (const std::string& line : Lines(out)) {
    bool stamped = line.size() > 31 && line[2] == '-' && line[5] == ' ' && line[14] == '.';
    plain += (stamped ? line.substr(31) : line) + "\n";
  }
  return plain;
}

const std::string kMain = "--------- beginning of morvo_main\n";
const std::string kDebug = "D keep    : debug kept\n";
const std::string kInfo = "I drop    : info dropped\n";
const std::string kError = "E drop    : error of drop\n";
const std::string kAll = kDebug + kInfo + kError;
const std::string kShort = "Unrecognized Option S\n";

// "@" in an argument is the temporary root; "ANDROID_LOG_TAGS=..." goes into the environment.
struct Case {
  std::vector<std::string> args;
  int status;
  std::string out, err;  // out after Plain()
};

const Case kCases[] = {
    {{"-t", "12x"}, 1, "", "Invalid parameter \"12x\" to -t\n"},
    {{"--buffer-size=3q"}, 1, "", "ERROR: -G <num><multiplier>\n"},
    {{"-b", "morvo_main,nosuch"}, 1, "", "unknown buffer nosuch\n"},
    {{"-b", "main"}, 1, "", "unknown buffer main\n"},
    {{"--nosuch"}, 1, "", "Unrecognized Option --nosuch\n"},
    {{"--rotate-count", "two"}, 1, "", "Invalid parameter \"two\" to -n\n"},
    {{"-z", "x1"}, 1, "", "Invalid parameter to -z\n"},
    {{"--wrap=0"}, 1, "", "wrap 0 out of range\n"},
    {{"-r", "100"}, 1, "", "-r requires -f as well\n"},
    {{"-v"}, 1, "", "Unrecognized Option v\n"},
    {{"-v", "brief"}, 1, "", "Unrecognized Option v\n"},
    {{"-S"}, 1, "", kShort},
    {{"--statistics"}, 1, "", kShort},
    {{"-e", "x"}, 1, "", "Unrecognized Option e\n"},
    {{"-T", "5"}, 1, "", "Unrecognized Option T\n"},
    {{"-t"}, 1, "", "Unrecognized Option t\n"},
    {{"-d", "tag:Q"}, 1, "", "Invalid filter expression 'tag:Q'\n"},
    {{"-d", "ANDROID_LOG_TAGS=bad:Q"}, 1, "", "Invalid filter expression in ANDROID_LOG_TAGS\n"},
    {{"-d"}, 0, kMain + kAll, ""},
    {{"-d", "-x", ""}, 0, kMain + kAll, ""},
    {{"-d", "-b", "morvo_main morvo_radio"}, 0, kMain + kAll, ""},
    {{"-d", "--pid", "0x10"}, 0, "", ""},
    {{"-d", "-s", "-b", "morvo_main"}, 0, "", ""},
    {{"--tavo", "1", "-x", "kmsglogcat", "-d"}, 0, "", ""},
    {{"-d", "-b", "morvo_main", "-s", "keep:D", "drop:E"}, 0, kDebug + kError, ""},
    {{"-d", "-b", "morvo_main", "ANDROID_LOG_TAGS=*:e"}, 0, kError, ""},
    {{"-d", "-b", "morvo_main", "*:V", "ANDROID_LOG_TAGS=bad:Q"}, 0, kAll, ""},
    {{"-t", "1", "-b", "morvo_main"}, 0, kError, ""},
    {{"-d", "-b", "morvo_main", "2>&1"}, 0, kAll, ""},
    {{"-S", "2>&1"}, 1, kShort, ""},
    {{"-S", "2>/dev/null"}, 1, "", ""},
    {{"-S", "2>/tmp/somewhere"}, 1, "", kShort},
    {{"-d", "-b", "morvo_main", ">@/out.txt"}, 0, "", ""},
};

void Check(const Case& c, const std::string& root) {
  std::vector<std::string> args, env;
  std::string shown;
  for (std::string a : c.args) {
    shown += a + " ";
    if (a.find('@') != std::string::npos) a.replace(a.find('@'), 1, root);
    (a.rfind("ANDROID_LOG_TAGS=", 0) == 0 ? env : args).push_back(a);
  }
  SCOPED_TRACE(shown);
  RunResult r = RunCommand(args, env);
  EXPECT_EQ(c.status, r.status);
  EXPECT_EQ(c.status, r.destroyStatus);
  EXPECT_EQ(c.out, Plain(r.out));
  EXPECT_EQ(c.err, r.err);
}

TEST(ReaderOptionsTest, EachCommandLineEndsWithItsStatusAndItsOutput) {
  morvotest::TempRoot root;
  qd_log_write(LOG_ID_MAIN, QD_LOG_DEBUG, "keep", "debug kept");
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "drop", "info dropped");
  qd_log_write(LOG_ID_MAIN, QD_LOG_ERROR, "drop", "error of drop");
  for (const Case& c : kCases) Check(c, root.path());
  const std::string r = root.path();
  // clang-format off
  for (std::string v : {"0", "10M", "-5"}) Check({{"-G", v}, 1, "", "ERROR: -G <num><multiplier>\n"}, r);
  for (std::string v : {"0", "1k", "-1"}) Check({{"-r", v, "-f", "@/x"}, 1, "", "Invalid parameter \"" + v + "\" to -r\n"}, r);
  for (std::string v : {"0", "-1"}) Check({{"-n", v}, 1, "", "Invalid parameter \"" + v + "\" to -n\n"}, r);
  for (std::string v : {"0", "12abc"}) Check({{"--pid", v}, 1, "", "pid " + v + " out of range\n"}, r);
  for (std::string v : {"4", "-1"}) Check({{"--tavo", v}, 1, "", "tavo " + v + " out of range\n"}, r);
  for (const char* v : {"--debug", "--print", "--id 7", "--tavo 0", "--tavo 3", "-z 3abc"}) Check({Words(std::string("-d ") + v), 0, kMain + kAll, ""}, r);
  // clang-format on
  EXPECT_EQ(kAll, Plain(morvotest::ReadFile(root.path() + "/out.txt")));
}

std::string Report(const char* buffer, const char* size, long used) {
  return std::string(buffer) + ": ring buffer is " + size + " (" + std::to_string(used) +
         "b consumed), max entry is 5120b, max payload is 4068b\n";
}

// Rows run in order on one store.
TEST(ReaderOptionsTest, BufferOperationsActOnTheStore) {
  morvotest::TempRoot root;
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "main record");
  qd_log_write(LOG_ID_SYSTEM, QD_LOG_INFO, "t", "system record");
  qd_logger_list* list = qd_logger_list_alloc(QD_LOGGER_MODE_NONBLOCK, 0, 0);
  long used = qd_logger_get_log_readable_size(qd_logger_open(list, LOG_ID_MAIN));
  qd_logger_list_free(list);
  // clang-format off
  const Case kSteps[] = {
      {{"-g", "-b", "morvo_main", "-b", "morvo_main,morvo_main"}, 0, Report("morvo_main", "256Kb", used), ""},
      {{"-b", "morvo_radio", "-G", "64k"}, 0, "", ""},
      {{"-b", "morvo_radio", "-g"}, 0, Report("morvo_radio", "64Kb", 0), ""},
      {{"-b", "morvo_radio", "--buffer-size=0x2000"}, 0, "", ""},
      {{"-b", "morvo_radio", "-g"}, 0, Report("morvo_radio", "8Kb", 0), ""},
      {{"-c", "-b", "morvo_main"}, 0, "", ""},
      {{"-d"}, 0, "--------- beginning of morvo_system\nI t       : system record\n", ""},
  };
  // clang-format on
  for (const Case& c : kSteps) Check(c, root.path());
  std::string names;
  for (const std::string& line : Lines(RunCommand({"-g"}).out))
    names += line.substr(0, line.find(':')) + " ";
  EXPECT_EQ("morvo_main morvo_system morvo_events morvo_radio morvo_crash ", names);
}

TEST(ReaderOptionsTest, ClearWithAnOutputFileDeletesTheSetAndKeepsTheBuffers) {
  morvotest::TempRoot root;
  root.MakeDirs("/data/log");
  std::string base = root.Under("/data/log/x");
  std::vector<std::string> files = {base, base + ".01", base + ".05", base + ".10"};
  for (const std::string& f : files) morvotest::WriteFile(f, "old");
  morvotest::WriteFile(base + ".11", "beyond the count");
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "kept record");
  RunResult r = RunCommand({"-c", "-f", base, "-n", "10"});
  EXPECT_EQ(0, r.status);
  for (const std::string& f : files) EXPECT_FALSE(morvotest::Exists(f)) << f;
  EXPECT_TRUE(morvotest::Exists(base + ".11"));
  EXPECT_NE(std::string::npos, RunCommand({"-d"}).out.find("kept record"));
  // A name that cannot be deleted fails the clear once, not once per buffer.
  mkdir(base.c_str(), 0775);
  testing::internal::CaptureStderr();
  r = RunCommand({"-c", "-f", base});
  std::string told = testing::internal::GetCapturedStderr();
  EXPECT_EQ(1, r.status);
  size_t first = told.find("while clearing log files");
  ASSERT_NE(std::string::npos, first) << told;
  EXPECT_EQ(std::string::npos, told.find("while clearing log files", first + 1)) << told;
}

TEST(ReaderOptionsTest, OperationsOnAnUnusableStoreReportTheFirstBuffer) {
  morvotest::TempRoot root;
  setenv("MORVOCAT_LOG_STORE", "/proc/no/such/store", 1);
  RunResult r = RunCommand({"-g", "-b", "morvo_system,morvo_main"});
  unsetenv("MORVOCAT_LOG_STORE");
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("Unable to open log device 'morvo_main'\n", r.err);
}

// --wrap waits for the buffer to fill, then reads it all; another time is warned about.
TEST(ReaderOptionsTest, WrapWaitsForTheBufferToFillThenReadsItAll) {
  morvotest::TempRoot root;
  ASSERT_EQ(0, RunCommand({"-b", "morvo_radio", "-G", "8k"}).status);
  for (std::string wrap : {"--wrap", "--wrap=3600"}) {
    SCOPED_TRACE(wrap);
    pid_t child = fork();
    if (child == 0) {
      usleep(100 * 1000);
      std::string text(200, 'w');
      for (int i = 0; i < 100; ++i) qd_log_write(LOG_ID_RADIO, QD_LOG_INFO, "wrap", text.c_str());
      _exit(0);
    }
    RunResult r = RunCommand({"-b", "morvo_radio", wrap});
    waitpid(child, nullptr, 0);
    EXPECT_EQ(0, r.status);
    EXPECT_EQ(wrap.size() > 6 ? "WARNING: wrap 7200 seconds, ignoring 3600\n" : "", r.err);
    EXPECT_GT(Lines(r.out).size(), 10u);
    EXPECT_EQ(0u, Plain(r.out).find("I wrap    : www"));
  }
}

// The writer's own pid and tid on each line of a message; --pid keeps one process's.
TEST(ReadLoopTest, LinesCarryTheWritersPidAndTid) {
  morvotest::TempRoot root;
  qd_log_write(LOG_ID_MAIN, QD_LOG_DEBUG, "shape", "first\nsecond");
  pid_t child = fork();
  if (child == 0)
    _exit(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "pid", "from the child") > 0 ? 0 : 1);
  waitpid(child, nullptr, 0);
  std::string out = RunCommand({"-d", "-b", "morvo_main", "--pid", std::to_string(child)}).out;
  EXPECT_EQ("I pid     : from the child\n", Plain(out));
  out = RunCommand({"-d", "-b", "morvo_main", "--pid", std::to_string(getpid())}).out;
  char prefix[32];
  snprintf(prefix, sizeof(prefix), " %5d %5d D shape   : ", getpid(), gettid());
  for (const char* text : {"first\n", "second\n"})
    EXPECT_NE(std::string::npos, out.find(prefix + std::string(text))) << out;
  EXPECT_EQ(2u, Lines(out).size());
}

struct Stored {
  uint64_t stamp;
  log_id_t id;
  qd_log_msg msg;
};

// Each buffer read alone, merged by time (lower id first), last tail kept (0: all), snprintf.
std::string Reference(const std::vector<log_id_t>& ids, size_t tail) {
  std::vector<Stored> merged;
  for (log_id_t id : ids) {
    morvotest::ListPtr list = morvotest::OpenList(QD_LOGGER_MODE_NONBLOCK, 0, 0, {id});
    Stored r{0, id, {}};
    while (list && qd_logger_list_read(list.get(), &r.msg) > 0) {
      r.stamp = static_cast<uint64_t>(r.msg.entry.sec) * 1000000000ULL + r.msg.entry.nsec;
      merged.push_back(r);
    }
  }
  std::stable_sort(merged.begin(), merged.end(), [](const Stored& a, const Stored& b) {
    return a.stamp != b.stamp ? a.stamp < b.stamp : a.id < b.id;
  });
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

// Unterminates the record of text in the ring of name: damage readers skip.
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

// A wrapped main ring with a record in system, or a damaged one in main, 100 before main's head.
template <bool damaged>
void Wrapped(const Root& root) {
  RunCommand({"-b", "morvo_main", "-G", "64k"});
  WriteMain(0, 5000);
  qd_log_write(damaged ? LOG_ID_MAIN : LOG_ID_SYSTEM, QD_LOG_INFO, "s", "damaged-me");
  WriteMain(5000, 5100);
  if (damaged) Unterminate(root, "morvo_main", "damaged-me");
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
    {"-t 80", 50, nullptr},                   // more than there are
    {"-t 400", 0, Wrapped<false>},
    {"-t 30 -b morvo_main", 0, Wrapped<true>},  // the damage is before the tail
    {"-t 300 -b morvo_main", 0, Wrapped<true>},
};

TEST(ReadLoopReferenceTest, RunsPrintWhatAStraightforwardReadGives) {
  for (const ReferenceCase& c : kReferenceCases) {
    SCOPED_TRACE(c.args);
    Root root;
    WriteMain(0, c.busy);
    if (c.more != nullptr) c.more(root);
    std::vector<std::string> args = Words(c.args);
    std::vector<log_id_t> ids = {LOG_ID_MAIN, LOG_ID_SYSTEM, LOG_ID_CRASH};
    size_t tail = args[0] == "-t" ? std::stoul(args[1]) : 0;
    if (args.size() > 2 && args[args.size() - 2] == "-b") {
      ids.clear();
      std::istringstream names(args.back());
      for (std::string n; std::getline(names, n, ',');)
        ids.push_back(qdlogging_name_to_log_id(n.c_str()));
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
