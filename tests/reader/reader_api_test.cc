// The embedding interface from a host's side: thread runs and their pipe,
// destroy results, and the redirections written as arguments.

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "morvocat/morvocat.h"
#include "platform/logger.h"
#include "reader/dynamic_symbols.h"
#include "reader/run_capture.h"
#include "support/command_output.h"
#include "support/temp_root.h"
#include "support/under_qemu.h"

namespace {

using morvotest::ReadAll;
using morvotest::RunCommand;
using morvotest::RunOn;
using morvotest::StartThread;

class ReaderApiTest : public ::testing::Test {
 protected:
  morvotest::TempRoot root_;
};

TEST_F(ReaderApiTest, ThreadRunDeliversItsOutputThroughThePipeUntilEndOfFile) {
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "api", "through the pipe");
  android_logcat_context ctx = CreateAndroidLogcat();
  ASSERT_NE(nullptr, ctx);
  // The run works on its own copies: the host's array is gone once it starts.
  int fd = StartThread(ctx, {"-d", "-b", "morvo_main"});
  ASSERT_GE(fd, 0);
  std::string text = ReadAll(fd);
  EXPECT_NE(std::string::npos, text.find("I api     : through the pipe\n")) << text;
  while (AndroidLogcatRunCommandThreadRunning(ctx)) sched_yield();
  // The first pipe is still open: a second thread run is refused.
  errno = 0;
  EXPECT_EQ(-1, StartThread(ctx, {"-d"}));
  EXPECT_EQ(EBUSY, errno);
  EXPECT_EQ(0, AndroidLogcatRunCommandThreadRunning(ctx));
  EXPECT_EQ(1, AndroidLogcatDestroy(&ctx));
  EXPECT_EQ(nullptr, ctx);
}

TEST_F(ReaderApiTest, ThreadRunThatFailsStillEndsThePipe) {
  android_logcat_context ctx = CreateAndroidLogcat();
  int fd = StartThread(ctx, {"-b", "nosuch"});
  ASSERT_GE(fd, 0);
  EXPECT_EQ("", ReadAll(fd));
  EXPECT_EQ(1, AndroidLogcatDestroy(&ctx));
}

TEST_F(ReaderApiTest, DestroyReportsTheLastRunOrRefusesNull) {
  android_logcat_context none = nullptr;
  EXPECT_EQ(-9, AndroidLogcatDestroy(&none));
  android_logcat_context neverRun = CreateAndroidLogcat();
  EXPECT_EQ(0, AndroidLogcatRunCommandThreadRunning(neverRun));
  EXPECT_EQ(0, AndroidLogcatDestroy(&neverRun));

  EXPECT_EQ(0, RunCommand({"-d"}).destroyStatus);
  EXPECT_EQ(1, RunCommand({"-S"}).destroyStatus);

  android_logcat_context ctx = CreateAndroidLogcat();
  int closedFd = memfd_create("gone", 0);
  close(closedFd);
  EXPECT_EQ(-EBADF, RunOn(ctx, closedFd, -1, {"-d"}));
  EXPECT_EQ(-EBADF, AndroidLogcatDestroy(&ctx));
}

TEST_F(ReaderApiTest, SameDescriptorForOutputAndErrorCarriesBoth) {
  int fd = memfd_create("both", 0);
  android_logcat_context ctx = CreateAndroidLogcat();
  int shared = dup(fd);
  EXPECT_EQ(1, RunOn(ctx, shared, shared, {"-d", "-b", "nosuch"}));
  EXPECT_EQ(1, AndroidLogcatDestroy(&ctx));
  EXPECT_EQ("unknown buffer nosuch\n", ReadAll(fd));
  close(fd);
}

TEST_F(ReaderApiTest, AContextRunsAgainAfterAFailedRunAndOnTheSameDescriptors) {
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "again", "later runs see this");
  android_logcat_context ctx = CreateAndroidLogcat();
  int out = memfd_create("out", 0);
  int err = memfd_create("err", 0);
  EXPECT_EQ(1, RunOn(ctx, -1, err, {"-S"}));
  EXPECT_EQ(0, RunOn(ctx, out, err, {"-d", "-b", "morvo_main"}));
  EXPECT_EQ(0, RunOn(ctx, out, err, {"-d", "-b", "morvo_main"}));
  EXPECT_EQ(0, AndroidLogcatDestroy(&ctx));
  std::string text = ReadAll(out);
  size_t line = text.find('\n') + 1;
  EXPECT_EQ(2 * line, text.size()) << text;
  EXPECT_NE(std::string::npos, text.find("I again   : later runs see this\n")) << text;
  EXPECT_EQ("Unrecognized Option S\n", ReadAll(err));
  close(out);
  close(err);
}

// The embedding interface and nothing else: the platform layer, the C++
// runtime and every subsystem stay inside, where a host cannot displace them.
TEST_F(ReaderApiTest, LibraryExportsExactlyTheEmbeddingInterface) {
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
  EXPECT_EQ(interface, morvotest::ExportedSymbols(info.dli_fname));
  void* library = dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(nullptr, library);
  for (const std::string& name : interface)
    EXPECT_NE(nullptr, dlsym(library, name.c_str())) << name;
  dlclose(library);
}

// Hosts carrying functions under the names the library uses inside; each
// ends with status 3 as soon as the library calls one of them.
TEST_F(ReaderApiTest, HostsWithFunctionsOfTheSameNamesRunTheLibraryNormally) {
  if (morvotest::UnderQemu()) GTEST_SKIP() << "qemu-user: a test cannot exec the AArch64 hosts";
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "host", "seen by the host");
  struct Case {
    const char* host;
    const char* args;
    const char* line;  // a line the run prints
  };
  const Case cases[] = {
      {MORVO_SAFE_STRING_HOST, "-d -b morvo_main", "I host    : seen by the host\n"},
      {MORVO_SAFE_STRING_HOST, "-g -b morvo_main", "morvo_main: ring buffer is 256Kb"},
      {MORVO_SAME_NAMES_HOST, "-d -b morvo_main", "I host    : seen by the host\n"},
      {MORVO_SAME_NAMES_HOST, "-g -b morvo_main", "morvo_main: ring buffer is 256Kb"},
  };
  for (const Case& c : cases) {
    std::string out =
        morvotest::CommandOutput(std::string(c.host) + " " + c.args + " 2>&1; echo status $?");
    EXPECT_NE(std::string::npos, out.find(c.line)) << c.host << " " << c.args << ":\n" << out;
    EXPECT_NE(std::string::npos, out.find("\nstatus 0\n")) << c.host << " " << c.args << ":\n"
                                                           << out;
  }
}

TEST_F(ReaderApiTest, EnvironmentLookupTakesTheFirstExactName) {
  android_logcat_context ctx = CreateAndroidLogcat();
  EXPECT_EQ(nullptr, qdlogging::GetEnv(ctx, "A"));
  EXPECT_EQ(0, AndroidLogcatDestroy(&ctx));
  const char* slot = nullptr;
  ReportErrorName(&slot, "first");
  ReportErrorName(&slot, "second");
  EXPECT_STREQ("first", slot);
}

TEST_F(ReaderApiTest, BlockingReaderIsWokenByAWriterInAnotherProcess) {
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
  while (text.find('\n') == std::string::npos) {
    pollfd p = {fd, POLLIN, 0};
    ASSERT_EQ(1, poll(&p, 1, 10000)) << "no line arrived";
    ssize_t n = read(fd, buf, sizeof(buf));
    ASSERT_GT(n, 0);
    text.append(buf, n);
  }
  EXPECT_NE(std::string::npos, text.find("I other   : from another process")) << text;
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(0, WEXITSTATUS(status));
  EXPECT_EQ(1, AndroidLogcatRunCommandThreadRunning(ctx));
  // The blocked run ends at the next record after the stop request.
  std::atomic<int> destroyed{-100};
  std::thread destroyer([&] { destroyed = AndroidLogcatDestroy(&ctx); });
  while (destroyed == -100) {
    qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "other", "wake up");
    usleep(10 * 1000);
  }
  destroyer.join();
  EXPECT_EQ(0, destroyed);
}

}  // namespace
