// The library from a host's side; hosts whose descriptors matter run in a child.

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "morvocat/morvocat.h"
#include "platform/logger.h"
#include "support/build_paths.h"
#include "support/file_tree.h"
#include "support/gzip_text.h"
#include "support/reader_run.h"
#include "support/temp_root.h"

namespace {

using morvotest::ReadAll;
using morvotest::RunCommand;
using morvotest::RunOn;
using morvotest::StartThread;

// Runs host in a child: exit code = number of the first failed check (0: all held), 128+signal.
int InHost(const std::function<int()>& host) {
  pid_t child = fork();
  if (child == 0) _exit(host());
  int status = 0;
  waitpid(child, &status, 0);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) >= 0; }

class EmbeddingTest : public ::testing::Test {
 protected:
  void SetUp() override { qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "host", "a record"); }
  morvotest::TempRoot root_;
};

TEST_F(EmbeddingTest, TheHostKeepsEveryDescriptorItHandsIn) {
  const std::string fifo = root_.path() + "/fifo";  // nobody reads it: a shell's open would wait
  mkfifo(fifo.c_str(), 0600);
  // clang-format off
  const std::vector<std::string> kCases[] = {
      {"-d"}, {"-d", "2>&1"}, {"-d", "2>/dev/null"}, {"-d", ">/dev/null"}, {"-d", ">" + fifo},
      {"-d", "-f", root_.path() + "/out/applog"}, {"-r", "0"},  // a usage error
  };
  // clang-format on
  for (const std::vector<std::string>& args : kCases) {
    SCOPED_TRACE(args.back());
    int code = InHost([&] {
      int devnull = open("/dev/null", O_WRONLY);
      dup2(devnull, STDOUT_FILENO);
      dup2(devnull, STDERR_FILENO);
      close(devnull);
      android_logcat_context ctx = CreateAndroidLogcat();
      RunOn(ctx, STDOUT_FILENO, STDERR_FILENO, args);
      if (!IsOpen(STDOUT_FILENO) || !IsOpen(STDERR_FILENO)) return 1;
      RunOn(ctx, STDOUT_FILENO, STDERR_FILENO, args);
      AndroidLogcatDestroy(&ctx);
      if (!IsOpen(STDOUT_FILENO) || !IsOpen(STDERR_FILENO)) return 2;
      int next = open("/dev/null", O_RDONLY);
      return next > STDERR_FILENO ? 0 : 3;
    });
    EXPECT_EQ(0, code);
  }
}

TEST_F(EmbeddingTest, ARefusedStartLeavesTheRunningRunAlone) {
  android_logcat_context ctx = CreateAndroidLogcat();
  ASSERT_GE(StartThread(ctx, {"-b", "morvo_main"}), 0);
  errno = 0;
  EXPECT_EQ(-1, StartThread(ctx, {"-b", "morvo_main"}));
  EXPECT_EQ(EBUSY, errno);
  EXPECT_EQ(-EBUSY, RunOn(ctx, -1, -1, {"-d"}));
  EXPECT_EQ(1, AndroidLogcatRunCommandThreadRunning(ctx));
  // Destroy stops the run that is still going and frees nothing under it.
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "host", "wake");
  EXPECT_EQ(0, AndroidLogcatDestroy(&ctx));
}

TEST_F(EmbeddingTest, AnOutputNobodyReadsEndsTheRunInsteadOfTheHost) {
  for (bool thread : {true, false}) {
    SCOPED_TRACE(thread ? "thread run" : "run on the host's thread");
    int code = InHost([&] {
      android_logcat_context ctx = CreateAndroidLogcat();
      int status;
      if (thread) {
        int fd = StartThread(ctx, {"-b", "morvo_main"});
        close(fd);
        // The number comes back for the host's next pipe: destroy leaves it open.
        int mine[2];
        if (pipe(mine) != 0 || mine[0] != fd) return 7;
        while (AndroidLogcatRunCommandThreadRunning(ctx)) {
          qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "host", "nobody reads this");
          usleep(1000);
        }
        status = AndroidLogcatDestroy(&ctx);
        if (fcntl(mine[0], F_GETFD) < 0) return 8;
      } else {
        int ends[2];
        if (pipe(ends) != 0) return 4;
        close(ends[0]);
        RunOn(ctx, ends[1], -1, {"-d"});
        status = AndroidLogcatDestroy(&ctx);
        sigset_t pending;
        sigpending(&pending);
        if (sigismember(&pending, SIGPIPE)) return 5;
      }
      return status == 1 ? 0 : 6;
    });
    EXPECT_EQ(0, code);
  }
}

// Destroy ends a run waiting for records or for room in a pipe nobody reads.
TEST_F(EmbeddingTest, DestroyEndsARunThatWaits) {
  struct Case {
    const char* what;
    bool thread;
    int records;  // more than a pipe holds: the run waits for room
  } const kCases[] = {
      {"thread run", true, 0}, {"run on another host thread", false, 0}, {"full pipe", true, 2000}};
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.what);
    std::string text(200, 'x');
    for (int i = 0; i < c.records; ++i) qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "h", text.c_str());
    int code = InHost([&] {
      alarm(10);  // a destroy that hangs fails the case instead of the suite
      android_logcat_context ctx = CreateAndroidLogcat();
      std::thread host;
      int fd = -1;
      if (c.thread) {
        fd = StartThread(ctx, {"-b", "morvo_main"});
      } else {
        int devnull = open("/dev/null", O_WRONLY);
        host = std::thread([ctx, devnull] { RunOn(ctx, devnull, -1, {"-b", "morvo_main"}); });
      }
      usleep(100 * 1000);  // the run has read what there is and waits
      int status = AndroidLogcatDestroy(&ctx);
      if (host.joinable()) host.join();
      if (c.thread && IsOpen(fd)) return 2;
      return status == 0 || c.records != 0 ? 0 : 1;
    });
    EXPECT_EQ(0, code);
  }
}

TEST_F(EmbeddingTest, AWarningReachesTheHostBeforeTheHostDies) {
  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  InHost([&] {
    dup2(ends[1], STDOUT_FILENO);
    // The wrap run waits for its buffer; the host ends meanwhile without flushing, as on a signal.
    std::thread([] {
      android_logcat_context ctx = CreateAndroidLogcat();
      RunOn(ctx, -1, -1, {"--wrap=5", "-b", "morvo_main", "2>&1"});
    }).detach();
    usleep(200 * 1000);
    _exit(0);
    return 0;
  });
  close(ends[1]);
  EXPECT_NE(std::string::npos, ReadAll(ends[0]).find("WARNING: wrap 7200 seconds, ignoring 5"));
  close(ends[0]);
}

// The output comes through the pipe until end of file, also when the run fails.
TEST_F(EmbeddingTest, AThreadRunsPipeEndsWithTheRun) {
  for (std::string buffer : {"morvo_main", "nosuch"}) {
    SCOPED_TRACE(buffer);
    android_logcat_context ctx = CreateAndroidLogcat();
    ASSERT_NE(nullptr, ctx);
    int fd = StartThread(ctx, {"-d", "-b", buffer});
    ASSERT_GE(fd, 0);
    std::string text = ReadAll(fd);
    EXPECT_EQ(buffer == "nosuch" ? "" : "I host    : a record\n",
              text.substr(text.empty() ? 0 : 31));
    while (AndroidLogcatRunCommandThreadRunning(ctx)) sched_yield();
    // The first pipe is still open: a second thread run is refused.
    errno = 0;
    EXPECT_EQ(-1, StartThread(ctx, {"-d"}));
    EXPECT_EQ(EBUSY, errno);
    EXPECT_EQ(1, AndroidLogcatDestroy(&ctx));
    EXPECT_EQ(nullptr, ctx);
  }
}

TEST_F(EmbeddingTest, DestroyReportsTheLastRunOrRefusesNullAndLookupsHoldNoState) {
  android_logcat_context none = nullptr;
  EXPECT_EQ(-9, AndroidLogcatDestroy(&none));
  android_logcat_context neverRun = CreateAndroidLogcat();
  EXPECT_EQ(0, AndroidLogcatRunCommandThreadRunning(neverRun));
  EXPECT_EQ(nullptr, qdlogging::GetEnv(neverRun, "A"));  // a context without environment
  EXPECT_EQ(0, AndroidLogcatDestroy(&neverRun));
  android_logcat_context ctx = CreateAndroidLogcat();
  int closedFd = memfd_create("gone", 0);
  close(closedFd);
  EXPECT_EQ(-EBADF, RunOn(ctx, closedFd, -1, {"-d"}));
  EXPECT_EQ(-EBADF, AndroidLogcatDestroy(&ctx));
  const char* slot = nullptr;
  ReportErrorName(&slot, "first");
  ReportErrorName(&slot, "second");
  EXPECT_STREQ("first", slot);
}

TEST_F(EmbeddingTest, AContextRunsAgainAfterAFailedRunAndOnTheSameDescriptors) {
  android_logcat_context ctx = CreateAndroidLogcat();
  int out = memfd_create("out", 0);
  int err = memfd_create("err", 0);
  EXPECT_EQ(1, RunOn(ctx, -1, err, {"-S"}));
  int both = dup(err);  // one descriptor for both channels, handed over
  EXPECT_EQ(1, RunOn(ctx, both, both, {"-d", "-b", "nosuch"}));
  EXPECT_EQ(0, RunOn(ctx, out, err, {"-d", "-b", "morvo_main"}));
  EXPECT_EQ(0, RunOn(ctx, out, err, {"-d", "-b", "morvo_main"}));
  EXPECT_EQ(0, AndroidLogcatDestroy(&ctx));
  std::string text = ReadAll(out);
  EXPECT_EQ(text.substr(0, text.size() / 2), text.substr(text.size() / 2));
  EXPECT_EQ(31u, text.find("I host    : a record\n")) << text;
  EXPECT_EQ("Unrecognized Option S\nunknown buffer nosuch\n", ReadAll(err));
  close(out);
  close(err);
}

// Only the embedding interface is exported: the platform layer and C++ runtime stay inside.
TEST_F(EmbeddingTest, LibraryExportsExactlyTheEmbeddingInterface) {
  const std::set<std::string> interface = {
      "CreateAndroidLogcat",
      "AndroidLogcatRunCommand",
      "AndroidLogcatRunCommandThread",
      "AndroidLogcatRunCommandThreadRunning",
      "AndroidLogcatDestroy",
      "ReportErrorName",
      "_ZN9qdlogging6GetEnvEP31android_logcat_context_internalPKc",
      "_Z13getopt_long_riPKPcPKcPK6optionPiP13GetOptContext",
      "_Z10GetOptLongiPKPcPKcPK6optionPiP13GetOptContext",
  };
  Dl_info info = {};
  ASSERT_NE(0, dladdr(reinterpret_cast<void*>(&CreateAndroidLogcat), &info));
  std::set<std::string> exported;  // version names are absolute ("A") symbols
  std::string nm = "nm -D --defined-only " + morvotest::Quoted(info.dli_fname);
  for (const std::string& line : morvotest::Lines(morvotest::CommandOutput(nm))) {
    std::vector<std::string> w = morvotest::Words(line);
    if (w.size() == 3 && w[1] != "A") exported.insert(w[2]);
  }
  EXPECT_EQ(interface, exported);
  void* library = dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(nullptr, library);
  for (const std::string& name : interface)
    EXPECT_NE(nullptr, dlsym(library, name.c_str())) << name;
  dlclose(library);
}

// Each host ends with status 3 as soon as the library calls one of its functions.
TEST_F(EmbeddingTest, HostsWithFunctionsOfTheSameNamesRunTheLibraryNormally) {
  if (morvotest::UnderQemu()) GTEST_SKIP() << "qemu-user: a test cannot exec the AArch64 hosts";
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "host", "seen by the host");
  for (std::string host : {MORVO_SAFE_STRING_HOST, MORVO_SAME_NAMES_HOST}) {
    for (std::string run : {" -d -b morvo_main\tI host    : seen by the host\n",
                            " -g -b morvo_main\tmorvo_main: ring buffer is 256Kb"}) {
      std::string args = host + run.substr(0, run.find('\t'));
      std::string out = morvotest::CommandOutput(args + " 2>&1; echo status $?");
      EXPECT_NE(std::string::npos, out.find(run.substr(run.find('\t') + 1))) << args << out;
      EXPECT_NE(std::string::npos, out.find("\nstatus 0\n")) << args << ":\n" << out;
    }
  }
}

TEST_F(EmbeddingTest, BlockingReaderIsWokenByAWriterInAnotherProcess) {
  android_logcat_context ctx = CreateAndroidLogcat();
  int fd = StartThread(ctx, {"-b", "morvo_main"});
  ASSERT_GE(fd, 0);
  pid_t child = fork();
  if (child == 0) {
    usleep(50 * 1000);
    _exit(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "other", "from another process") > 0 ? 0 : 1);
  }
  std::string text;
  char buf[512];
  for (pollfd p = {fd, POLLIN, 0};
       text.find("I other   : from another process") == std::string::npos;) {
    ASSERT_EQ(1, poll(&p, 1, 10000)) << "no line arrived";
    ssize_t n = read(fd, buf, sizeof(buf));
    ASSERT_GT(n, 0);
    text.append(buf, n);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(0, WEXITSTATUS(status));
  EXPECT_EQ(1, AndroidLogcatRunCommandThreadRunning(ctx));
  EXPECT_EQ(0, AndroidLogcatDestroy(&ctx));
}

}  // namespace
