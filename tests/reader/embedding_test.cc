// The library from a host's side when the host does what hosts do: reuses a
// context and its descriptors, hands in its standard descriptors, stops
// reading, starts a second run too early, or dies right after a message.
// Each host runs in a child process so that its descriptors are its own.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "morvocat/morvocat.h"
#include "platform/logger.h"
#include "reader/run_capture.h"
#include "support/gzip_text.h"
#include "support/log_set.h"
#include "support/temp_root.h"

namespace {

using morvotest::RunOn;
using morvotest::StartThread;

// The host's checks run in a child: its exit code is the number of the
// first check that failed (0: all held); a signal shows as 128 + signal.
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
  struct Case {
    const char* what;
    std::vector<std::string> args;
  } const kCases[] = {
      {"plain dump", {"-d"}},
      {"errors to the output", {"-d", "2>&1"}},
      {"errors to /dev/null", {"-d", "2>/dev/null"}},
      {"output redirected", {"-d", ">/dev/null"}},
      {"output file", {"-d", "-f", root_.path() + "/out/applog"}},
      {"usage error", {"-r", "0"}},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.what);
    int code = InHost([&] {
      int devnull = open("/dev/null", O_WRONLY);
      dup2(devnull, STDOUT_FILENO);
      dup2(devnull, STDERR_FILENO);
      close(devnull);
      android_logcat_context ctx = CreateAndroidLogcat();
      RunOn(ctx, STDOUT_FILENO, STDERR_FILENO, c.args);
      if (!IsOpen(STDOUT_FILENO) || !IsOpen(STDERR_FILENO)) return 1;
      // A second run on the same context with the same descriptors works.
      RunOn(ctx, STDOUT_FILENO, STDERR_FILENO, c.args);
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
  struct Case {
    const char* what;
    bool thread;
  } const kCases[] = {{"thread run", true}, {"run on the host's thread", false}};
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.what);
    int code = InHost([&] {
      android_logcat_context ctx = CreateAndroidLogcat();
      int status;
      if (c.thread) {
        int fd = StartThread(ctx, {"-b", "morvo_main"});
        close(fd);
        // The number comes back for the host's next pipe, which destroy
        // must leave open.
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

TEST_F(EmbeddingTest, DestroyEndsARunWhoseHostStoppedReading) {
  // More than a pipe holds, so the run is left waiting for room.
  std::string text(200, 'x');
  for (int i = 0; i < 2000; ++i) qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "host", text.c_str());
  int code = InHost([] {
    alarm(10);  // a destroy that hangs fails the case instead of the suite
    android_logcat_context ctx = CreateAndroidLogcat();
    int fd = StartThread(ctx, {"-d", "-b", "morvo_main"});
    usleep(50 * 1000);
    AndroidLogcatDestroy(&ctx);
    return fcntl(fd, F_GETFD) < 0 ? 0 : 1;  // destroy closed the read end
  });
  EXPECT_EQ(0, code);
}

TEST_F(EmbeddingTest, DestroyWakesARunWaitingForRecords) {
  struct Case {
    const char* what;
    bool thread;
  } const kCases[] = {{"thread run", true}, {"run on another host thread", false}};
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.what);
    int code = InHost([&] {
      alarm(10);
      android_logcat_context ctx = CreateAndroidLogcat();
      std::thread host;
      if (c.thread) {
        StartThread(ctx, {"-b", "morvo_main"});
      } else {
        int devnull = open("/dev/null", O_WRONLY);
        host = std::thread([ctx, devnull] { RunOn(ctx, devnull, -1, {"-b", "morvo_main"}); });
      }
      usleep(100 * 1000);  // the run has read the one record and waits
      int status = AndroidLogcatDestroy(&ctx);
      if (host.joinable()) host.join();
      return status == 0 ? 0 : 1;
    });
    EXPECT_EQ(0, code);
  }
}

TEST_F(EmbeddingTest, AWarningReachesTheHostBeforeTheHostDies) {
  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  InHost([&] {
    dup2(ends[1], STDOUT_FILENO);
    // The wrap run warns, then waits for its buffer to fill; the host ends
    // meanwhile without flushing its streams, as a signal would end it.
    std::thread([] {
      android_logcat_context ctx = CreateAndroidLogcat();
      RunOn(ctx, -1, -1, {"--wrap=5", "-b", "morvo_main", "2>&1"});
    }).detach();
    usleep(200 * 1000);
    _exit(0);
    return 0;
  });
  close(ends[1]);
  char buf[256] = {};
  ssize_t n = read(ends[0], buf, sizeof(buf) - 1);
  close(ends[0]);
  EXPECT_NE(nullptr, strstr(buf, "WARNING: wrap 7200 seconds, ignoring 5")) << n;
}

}  // namespace
