#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <limits>
#include <string>
#include <thread>

#include "collector/charger_event.h"
#include "collector/monitor_dir.h"
#include "collector/thread_base.h"
#include "group_support.h"
#include "sink_support.h"

namespace {

using sinktest::GroupConfig;
using sinktest::TestSink;
using TavoCommon::FACTORY_WRITE;
using TavoCommon::MMAP_WRITE;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

class SinkWriteTest : public sinktest::SinkTest {
 protected:
  void SetUp() override { ASSERT_EQ(sink_.SetupOutput(), 0); }
  std::string Written() const { return morvotest::ReadFile(base_); }
  const std::string mbase_ = base_ + "m";  // the directory monitor's tests
  GroupConfig config_{base_};
  TestSink sink_{config_, FACTORY_WRITE};
};

// Fixed widths pad short texts, keep long ones whole, never pass 8191 characters.
TEST_F(SinkWriteTest, FixedWidthWritesAndTheirLimits) {
  const std::string longest(8191, 'a'), tooLong(8192, 'b');
  // str: LogcatWriteStr, else LogcatWriteFixLenBuffer.
  // clang-format off
  const struct { bool str; const char* text; size_t width; bool ends; int result;
                 std::string added; } kCases[] = {
      {false, "ab", 6, false, 0, "ab    "},
      {false, "abcde", 2, false, 0, "abcde"},
      {false, "xyz", 0, true, 0, "xyz"},
      {true, "cd", 4, true, 0, "cd  "},
      {true, "Read Fail", 0, false, 1, ""},
      {false, nullptr, 4, true, 1, ""},
      {true, nullptr, 4, true, 1, ""},
      {false, longest.c_str(), 8192, true, 1, ""},
      {true, longest.c_str(), 8192, true, 1, ""},
      {false, tooLong.c_str(), 0, true, 1, ""},
      {true, tooLong.c_str(), 10, true, 1, ""},
      {false, longest.c_str(), 0, false, 0, longest},
      {true, "c", 8191, true, 0, "c" + std::string(8190, ' ')},
  };
  // clang-format on
  std::string expected;
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.text != nullptr ? c.text : "null").substr(0, 12) + " " +
                 std::to_string(c.width));
    bool ended = sink_.recordEnded;
    EXPECT_EQ(c.str ? sink_.LogcatWriteStr(c.text, c.width, c.ends)
                    : sink_.LogcatWriteFixLenBuffer(c.text, c.width, c.ends),
              c.result);
    EXPECT_EQ(sink_.recordEnded, c.result == 0 ? c.ends : ended);
    expected += c.added;
    EXPECT_EQ(Written(), expected);
  }
}

std::string StampOf(time_t second) {
  struct tm local;
  localtime_r(&second, &local);
  char text[32];
  strftime(text, sizeof(text), "%m-%d %H:%M:%S", &local);
  return text;
}

// The stamp reused within a second follows the clock, also when set back.
TEST_F(SinkWriteTest, StampsFollowTheClockAcrossSeconds) {
  const time_t lastOfMinute = time(nullptr) / 60 * 60 + 59;
  const time_t noLocalTime = std::numeric_limits<time_t>::max();
  // clang-format off
  struct Case { time_t second; suseconds_t micros; std::string line; int result;
                std::string written; };
  const std::string longest(8191 - 20, 'x');
  const Case cases[] = {
      {lastOfMinute, 999999, "a", 0, StampOf(lastOfMinute) + ".999 a\n"},
      {lastOfMinute + 1, 0, "b", 0, StampOf(lastOfMinute + 1) + ".000 b\n"},
      {lastOfMinute + 1, 1999, "c", 0, StampOf(lastOfMinute + 1) + ".001 c\n"},
      {lastOfMinute, 42000, "set back", 0, StampOf(lastOfMinute) + ".042 set back\n"},
      {lastOfMinute + 3600, 500000, longest, 0, StampOf(lastOfMinute + 3600) + ".500 " + longest + "\n"},
      {lastOfMinute, 0, longest + "y", 1, ""},
      {noLocalTime, 0, "no local time", 0, "no local time\n"},
      {noLocalTime, 0, std::string(8190, 'z'), 0, std::string(8190, 'z') + "\n"},
      {noLocalTime, 0, std::string(8191, 'z'), 1, ""},
  };
  // clang-format on
  sink_.stillClocks = true;
  std::string expected;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line.substr(0, 16));
    sink_.wall.tv_sec = c.second;
    sink_.wall.tv_usec = c.micros;
    CaptureStderr();
    EXPECT_EQ(sink_.LogcatWriteWithTimestamp(c.line.c_str()), c.result);
    std::string err = GetCapturedStderr();
    if (c.result != 0) {
      EXPECT_EQ(err, c.second == noLocalTime ? "format timestamp without logcaltime failed\n"
                                             : "format timestamp failed\n");
    }
    expected += c.written;
    EXPECT_EQ(Written(), expected);
  }
  sink_.wall = {lastOfMinute, 7000};
  const std::string withNul("a\0b", 3);
  EXPECT_EQ(sink_.LogcatWriteStamped(withNul.data(), withNul.size()), 0);
  EXPECT_EQ(Written(), expected + StampOf(lastOfMinute) + ".007 " + withNul + "\n");
}

TEST_F(SinkWriteTest, EmptyAndClosedOutputs) {
  EXPECT_EQ(sink_.FactoryWrite("x", 0, false), 0);
  EXPECT_FALSE(sink_.recordEnded);
  EXPECT_EQ(Written(), "");
  EXPECT_EQ(sink_.LogcatWrite(nullptr, 3, true), 1);
  sink_.FactoryClose();
  EXPECT_EQ(sink_.LogcatWrite("y\n", 2, true), 0);
  EXPECT_EQ(Written(), "y\n");
}

TEST_F(SinkWriteTest, SettingsComeFromTheGroupAndItsInstance) {
  EXPECT_EQ(sink_.rotateSizeKbytes, 4096u);
  EXPECT_EQ(sink_.prevLinkPath, base_ + ".1");
  EXPECT_EQ(sink_.tavoWriter, nullptr);
  EXPECT_EQ(sink_.dirMonitor, nullptr);
  EXPECT_TRUE(sink_.IsFactoryWrite());
  // clang-format off
  struct Case { size_t configured; TavoCommon::TypeWrite mode; size_t kept; };
  for (const Case& c : {Case{5000, MMAP_WRITE, 1000}, Case{5000, FACTORY_WRITE, 200},
                        Case{25, FACTORY_WRITE, 5}, Case{1, FACTORY_WRITE, 1},
                        Case{0, FACTORY_WRITE, 0}, Case{7, MMAP_WRITE, 7}}) {
    // clang-format on
    sinktest::OwnSink sink(base_, 64, c.configured, c.mode);
    EXPECT_EQ(sink.maxFiles, c.kept) << c.configured;
    EXPECT_EQ(sink.IsMMapWrite(), c.mode == MMAP_WRITE);
  }
  GroupConfig noInstance(base_, 64, 64);
  noInstance.group.info = nullptr;
  TestSink defaults(noInstance, MMAP_WRITE);
  EXPECT_EQ(defaults.maxFiles, 10u);
  EXPECT_EQ(defaults.rotateSizeKbytes, 4096u);
  EXPECT_NE(defaults.tavoWriter, nullptr);
  EXPECT_NE(defaults.dirMonitor, nullptr);
  TestSink bare(MMAP_WRITE);
  EXPECT_EQ(bare.maxFiles, 10u);
  EXPECT_EQ(bare.rotateSizeKbytes, 4096u);
  EXPECT_EQ(bare.dirMonitor, nullptr);
  EXPECT_EQ(bare.SetupOutput(), 0);
  EXPECT_EQ(bare.logFd, 1);
  EXPECT_EQ(bare.LogcatWrite("x", 1, true), 1);
}

TEST_F(SinkWriteTest, FoldersAreMadeWithTheirParents) {
  std::string deep = root_.Under("/data/log/a/b/c");
  EXPECT_EQ(sink_.MkdirP(deep.c_str(), 0775), 0);
  EXPECT_EQ(morvotest::ModeOf(deep), 0775u);
  EXPECT_EQ(sink_.MkdirP((deep + "/").c_str(), 0700), 0);
  EXPECT_EQ(morvotest::ModeOf(deep), 0775u);  // existing folders stay as they are
  EXPECT_EQ(sink_.MkdirP("", 0775), 1);
  EXPECT_EQ(sink_.MkdirP("/", 0775), 0);
  std::string longest = root_.Under("/") + std::string(254 - root_.Under("/").size(), 'x');
  std::string tooLong = longest + "y";
  EXPECT_EQ(sink_.MkdirP(tooLong.c_str(), 0775), 1);
  EXPECT_FALSE(morvotest::Exists(tooLong));
  EXPECT_EQ(sink_.MkdirP(longest.c_str(), 0775), 0);
  sink_.CreateDir(root_.Under("/data/log/made").c_str());
  EXPECT_EQ(morvotest::ModeOf(root_.Under("/data/log/made")), 0775u);
  const std::string outside = root_.Under("/outside");
  const std::string linked = root_.Under("/data/log/linked");
  morvotest::MakeVictimFolder(outside);
  ASSERT_EQ(symlink(outside.c_str(), linked.c_str()), 0);
  CaptureStderr();
  EXPECT_EQ(sink_.MkdirP((linked + "/sub").c_str(), 0775), 1);
  EXPECT_EQ(sink_.MkdirP(linked.c_str(), 0775), 1);
  sink_.CreateDir(linked.c_str());
  sink_.CreateDir((linked + "/sub").c_str());
  std::string err = GetCapturedStderr();
  EXPECT_NE(err.find("MkdirP: mkdir [" + linked + "] err."), std::string::npos) << err;
  EXPECT_NE(err.find("MkdirP dir[" + linked + "] err"), std::string::npos) << err;
  morvotest::ExpectUntouched(outside);
}

// A group folder swapped for a link outside: nothing made there, mode and owner kept.
TEST_F(SinkWriteTest, AGroupFolderReplacedByALinkIsNeverEntered) {
  const std::string outside = root_.Under("/outside");
  const std::string group = root_.Under("/data/log/swapped");
  const std::string record = std::string(699, 'r') + "\n";
  for (TavoCommon::TypeWrite mode : {MMAP_WRITE, FACTORY_WRITE}) {
    SCOPED_TRACE(mode);
    morvotest::MakeVictimFolder(outside);
    sinktest::OwnSink sink(group + "/applog", 1, 10, mode);
    ASSERT_EQ(sink.SetupOutput(), 0);
    ASSERT_EQ(sink.LogcatWrite(record.data(), record.size(), true), 0);
    ASSERT_EQ(system(("rm -rf " + morvotest::Quoted(group)).c_str()), 0);
    ASSERT_EQ(symlink(outside.c_str(), group.c_str()), 0);
    CaptureStderr();
    for (int i = 0; i < 3; ++i) sink.LogcatWrite(record.data(), record.size(), true);
    sink.LogcatClose();
    sink.SetupOutput();
    GetCapturedStderr();
    morvotest::ExpectUntouched(outside);
    ASSERT_EQ(unlink(group.c_str()), 0);
    ASSERT_EQ(rmdir(outside.c_str()), 0);
  }
}

TEST_F(SinkWriteTest, PathsWithoutAFolderAreRefused) {
  CaptureStderr();
  EXPECT_EQ(sink_.CreateBugreportsDir(""), 1);
  EXPECT_EQ(GetCapturedStderr(), "bugreport dir is invalide.\n");
  CaptureStderr();
  EXPECT_EQ(sink_.CreateBugreportsDir("applog"), 1);
  EXPECT_EQ(GetCapturedStderr(), "pend is invalide.\n");
  sinktest::OwnSink sink("applog", 4096, 10, FACTORY_WRITE);
  CaptureStderr();
  EXPECT_EQ(sink.SetupOutput(), 1);
  EXPECT_EQ(GetCapturedStderr(), "pend is invalide.\ncreate bugreports dir error!!\n");
  morvotest::WriteFile(root_.Under("/data/log/file"), "x");
  CaptureStderr();
  EXPECT_EQ(sink_.CreateBugreportsDir(root_.Under("/data/log/file/sub/x").c_str()), 0);
  EXPECT_NE(GetCapturedStderr().find("MkdirP dir["), std::string::npos);
}

// A refused title row on reopen must not recurse until the stack runs out.
TEST_F(SinkWriteTest, RefusedWritesWithTitleRowsEndNeitherProcessNorGroup) {
  CaptureStderr();
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    sinktest::OwnSink sink(base_, 4096, 10, FACTORY_WRITE);
    sink.title = "Time    Level\n";
    if (sink.SetupOutput() != 0) _exit(3);
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = {4096, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &limit);
    const std::string record = std::string(99, 'r') + "\n";
    int refused = 0;  // each record is taken, as a polling group goes on
    for (int i = 0; i < 200; ++i) refused += sink.LogcatWrite(record.data(), record.size(), true);
    limit.rlim_cur = RLIM_INFINITY;  // room again, and for a coverage build's counts
    setrlimit(RLIMIT_FSIZE, &limit);
    usleep(static_cast<useconds_t>(TestSink::kRetryMillis + 100) * 1000);
    refused += sink.LogcatWrite(record.data(), record.size(), true);
    exit(refused == 0 ? 0 : 4);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  GetCapturedStderr();
  ASSERT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// A folder that cannot be made is said once; its records are written once it can.
TEST_F(SinkWriteTest, AFolderThatCannotBeMadeIsReportedOnceAndWritingResumes) {
  const std::string blocked = root_.Under("/data/log/blocked");
  for (TavoCommon::TypeWrite mode : {FACTORY_WRITE, MMAP_WRITE}) {
    SCOPED_TRACE(mode);
    morvotest::WriteFile(blocked, "in the way");
    GroupConfig config(blocked + "/applog", 4096, 10);
    TestSink sink(config, mode);
    CaptureStderr();
    sink.SetupOutput();
    std::string expected;
    for (int i = 0; i < 100; ++i) {
      std::string line = "line " + std::to_string(i);
      EXPECT_EQ(sink.LogcatWriteWithTimestamp(line.c_str()), 0);
      expected += line + "\n";
    }
    std::string err = GetCapturedStderr();
    EXPECT_EQ(grouptest::Count(err, "MkdirP dir["), 1u) << err;
    EXPECT_EQ(grouptest::Count(err, "group " + config.path + ": cannot write "), 1u) << err;
    ASSERT_EQ(unlink(blocked.c_str()), 0);
    usleep(static_cast<useconds_t>(TestSink::kRetryMillis + 100) * 1000);
    CaptureStderr();
    EXPECT_EQ(sink.LogcatWriteWithTimestamp("line 100"), 0);
    expected += "line 100\n";
    sink.LogcatClose();
    err = GetCapturedStderr();
    EXPECT_EQ(err, "group " + config.path + ": writing again to " + sink.logFilePath +
                       ", 0 lines lost\n");
    std::string text = mode == FACTORY_WRITE ? morvotest::ReadFile(sink.logFilePath)
                                             : morvotest::Zcat(sink.logFilePath);
    std::string lines;
    for (const std::string& line : morvotest::Lines(text)) lines += line.substr(19) + "\n";
    EXPECT_EQ(lines, expected);
    ASSERT_EQ(system(("rm -rf " + morvotest::Quoted(blocked)).c_str()), 0);
  }
}

TEST(ReleaseFDTest, ClosesAndFreesTheHolder) {
  int* holder = new int(dup(1));
  int fd = *holder;
  Tavobase::ReleaseFD(holder);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  Tavobase::ReleaseFD(nullptr);
  Tavobase::ReleaseFD(new int(-1));
}

class CountingThread : public ThreadBase {
 public:
  ~CountingThread() override { Wait(); }
  void Run() override { ++runs; }
  std::atomic<int> runs{0};
};

TEST(ThreadBaseTest, StartsOneThreadAndWaitForgetsIt) {
  CountingThread thread;
  thread.Wait();  // idle: returns at once
  ASSERT_TRUE(thread.Start());
  EXPECT_TRUE(thread.Start());  // already recorded, even once it has ended
  thread.Wait();
  EXPECT_EQ(thread.runs.load(), 1);
  ASSERT_TRUE(thread.Start());
  thread.Wait();
  EXPECT_EQ(thread.runs.load(), 2);
  EXPECT_EQ(ThreadBase::ProxyFunction(nullptr), nullptr);
}

void OpenDir(const std::string& dir) {
  DIR* d = opendir(dir.c_str());
  if (d != nullptr) closedir(d);
}

bool OpensFlush(const std::string& dir, const std::string& file, const std::string& text) {
  for (int tries = 0; tries < 200; ++tries) {
    OpenDir(dir);
    usleep(50 * 1000);
    if (morvotest::Zcat(file) == text) return true;
  }
  return false;
}

std::string Events(std::initializer_list<uint32_t> masks, uint32_t name) {
  std::string buffer;
  for (uint32_t mask : masks) {
    struct inotify_event event = {};
    event.wd = 1;
    event.mask = mask;
    event.len = name;
    buffer.append(reinterpret_cast<const char*>(&event), sizeof(event));
    buffer.append(name, '\0');
  }
  return buffer;
}

TEST_F(SinkWriteTest, EachDirectoryRecordOfOneReadFlushesOnce) {
  sinktest::OwnSink sink(mbase_, 4096, 10, MMAP_WRITE);
  ASSERT_EQ(sink.SetupOutput(), 0);
  ASSERT_EQ(sink.LogcatWrite("cached\n", 7, true), 0);
  MonitorDir monitor(mbase_.c_str());
  monitor.SetupLogBase(&sink);
  std::string events = Events({IN_OPEN, IN_OPEN | IN_ISDIR, IN_OPEN, IN_OPEN | IN_ISDIR}, 16);
  EXPECT_EQ(monitor.HandleEvents(events.data(), static_cast<ssize_t>(events.size())), 2);
  EXPECT_EQ(morvotest::Zcat(sink.logFilePath), "cached\n");
  std::string bare = Events({IN_OPEN | IN_ISDIR, IN_OPEN | IN_ISDIR, IN_OPEN | IN_ISDIR}, 0);
  EXPECT_EQ(monitor.HandleEvents(bare.data(), static_cast<ssize_t>(bare.size())), 3);
  std::string files = Events({IN_OPEN, IN_OPEN}, 32);
  EXPECT_EQ(monitor.HandleEvents(files.data(), static_cast<ssize_t>(files.size())), 0);
  std::string cut = Events({IN_OPEN | IN_ISDIR, IN_OPEN | IN_ISDIR}, 16);
  cut.resize(cut.size() - 1);
  EXPECT_EQ(monitor.HandleEvents(cut.data(), static_cast<ssize_t>(cut.size())), 1);
}

TEST_F(SinkWriteTest, DestroyingTheGroupStopsItsMonitor) {
  auto* sink = new sinktest::OwnSink(mbase_, 4096, 10, MMAP_WRITE);
  ASSERT_EQ(sink->SetupOutput(), 0);
  ASSERT_EQ(sink->LogcatWrite("kept\n", 5, true), 0);
  std::string file = sink->logFilePath;
  ASSERT_TRUE(OpensFlush(dir_, file, "kept\n"));  // the monitor is watching
  delete sink;                                    // returns only once the monitor has been joined
  for (int i = 0; i < 20; ++i) OpenDir(dir_);
  usleep(100 * 1000);
  EXPECT_EQ(morvotest::Zcat(file), "kept\n");
}

TEST_F(SinkWriteTest, AStoppedMonitorFlushesNoMore) {
  sinktest::OwnSink sink(mbase_, 4096, 10, MMAP_WRITE);
  ASSERT_EQ(sink.SetupOutput(), 0);
  MonitorDir monitor(mbase_.c_str());
  monitor.SetupLogBase(&sink);
  ASSERT_TRUE(monitor.Start());
  monitor.Stop();
  monitor.Stop();
  sink.dirMonitor->Stop();
  ASSERT_EQ(sink.LogcatWrite("later\n", 6, true), 0);
  for (int i = 0; i < 20; ++i) OpenDir(dir_);
  usleep(100 * 1000);
  EXPECT_EQ(morvotest::Zcat(sink.logFilePath), "");
}

TEST_F(SinkWriteTest, MonitorsWithoutAWatchEndByThemselves) {
  sinktest::OwnSink sink(mbase_, 4096, 10, FACTORY_WRITE);  // no monitor of its own
  MonitorDir noFolder("applog");                            // no '/': no folder to watch
  noFolder.SetupLogBase(&sink);
  ASSERT_TRUE(noFolder.Start());
  noFolder.Wait();
  MonitorDir atRoot("/applog");
  atRoot.SetupLogBase(&sink);
  CaptureStderr();
  ASSERT_TRUE(atRoot.Start());
  atRoot.Wait();
  EXPECT_EQ(GetCapturedStderr(), "could not add watch for \n");
}

// A folder made late or removed and remade is watched once it is there.
TEST_F(SinkWriteTest, ALateOrRemadeFolderIsWatchedOnceItIsThere) {
  for (const char* path : {"/data/log/ksv_log", "/data/log/late"}) {
    for (bool watchedFirst : {false, true}) {
      SCOPED_TRACE(std::string(path) + (watchedFirst ? " remade" : " missing"));
      std::string folder = root_.Under(path);
      sinktest::OwnSink sink(mbase_, 4096, 10, MMAP_WRITE);
      ASSERT_EQ(sink.SetupOutput(), 0);
      sink.dirMonitor->Stop();  // only the monitor under test flushes
      ASSERT_EQ(sink.LogcatWrite("first\n", 6, true), 0);
      root_.MakeDirs("/data/log/late");
      ASSERT_TRUE(watchedFirst || rmdir(folder.c_str()) == 0);
      MonitorDir monitor((root_.Under("/data/log/late") + "/applog").c_str());
      monitor.SetupLogBase(&sink);
      CaptureStderr();
      ASSERT_TRUE(monitor.Start());
      if (watchedFirst) {
        ASSERT_TRUE(OpensFlush(folder, sink.logFilePath, "first\n"));
        ASSERT_EQ(0, rmdir(folder.c_str()));
        ASSERT_EQ(sink.LogcatWrite("second\n", 7, true), 0);
      }
      usleep(300 * 1000);
      mkdir(folder.c_str(), 0775);
      EXPECT_TRUE(
          OpensFlush(folder, sink.logFilePath, watchedFirst ? "first\nsecond\n" : "first\n"));
      monitor.Stop();
      size_t said =
          grouptest::Count(GetCapturedStderr(), "could not add watch for " + folder + "\n");
      EXPECT_GE(1u, said);
      EXPECT_TRUE(watchedFirst || said == 1u) << said;
    }
  }
}

// An unseekable charge node (a FIFO) is waited on with a pause, never spun on.
TEST(ChargerEvent, AnUnseekableNodeIsWaitedOnNotSpunOn) {
  morvotest::TempRoot root;
  root.MakeDirs("/sys/class/qd_power/bq_bci");
  std::string node = root.Under("/sys/class/qd_power/bq_bci/poll_charge_start_event");
  ASSERT_EQ(0, mkfifo(node.c_str(), 0600));
  std::atomic<bool> stop{false};
  std::atomic<int> calls{0};
  std::thread waiter([&] {
    while (!stop) {
      EXPECT_FALSE(ChargerEventChanged());
      ++calls;
    }
  });
  usleep(1500 * 1000);
  int returned = calls;
  stop = true;
  int writer = open(node.c_str(), O_WRONLY | O_NONBLOCK);
  waiter.join();
  if (writer >= 0) close(writer);
  EXPECT_GE(returned, 1);
  EXPECT_LE(returned, 5);
}

}  // namespace
