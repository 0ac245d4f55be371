// -f through the rotating writer: indexed .gz files that hold every record
// once, rotation by size, and recovery of what a killed run had accepted.

#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "morvocat/morvocat.h"
#include "platform/logger.h"
#include "reader/run_capture.h"
#include "support/gzip_text.h"
#include "support/log_set.h"
#include "support/temp_root.h"

namespace {

using morvotest::RunCommand;
using morvotest::Sequence;
using morvotest::SetFiles;

void ExpectWholeSequence(const std::vector<long>& numbers, long count) {
  ASSERT_EQ(static_cast<size_t>(count), numbers.size());
  for (long i = 0; i < count; ++i) {
    if (numbers[i] != i) {
      ADD_FAILURE() << "record " << i << " is " << numbers[i];
      return;
    }
  }
}

class OutputFileTest : public ::testing::Test {
 protected:
  void SetUp() override { root_.MakeDirs("/data/log"); }
  std::string Dir() const { return root_.Under("/data/log"); }
  morvotest::TempRoot root_;
};

TEST_F(OutputFileTest, EveryRecordLandsOnceInOrderAcrossHundredsOfRotations) {
  constexpr long kRecords = 200000;
  ASSERT_EQ(0, RunCommand({"-b", "morvo_main", "-G", "32768k"}).status);
  for (long i = 0; i < kRecords; ++i) {
    ASSERT_GT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "seq", ("seq " + std::to_string(i)).c_str()),
              0);
  }
  morvotest::RunResult r = RunCommand({"-d", "-b", "morvo_main", "-f", Dir() + "/x", "-r", "16"});
  ASSERT_EQ(0, r.status) << r.err;
  std::vector<std::string> files = SetFiles(Dir(), "x");
  EXPECT_GT(files.size(), 300u);
  std::string all;
  for (const std::string& f : files) {
    EXPECT_EQ(Dir().size() + 2 + 24, f.size()) << f;
    std::string text = morvotest::Zcat(f);
    EXPECT_NE(morvotest::kBadGzip, text) << f;
    all += text;
  }
  ExpectWholeSequence(Sequence(all), kRecords);
  EXPECT_FALSE(morvotest::Exists(Dir() + "/x"));
}

TEST_F(OutputFileTest, DividersAndLinesGoToTheFilesNotTheOutput) {
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "f", "seq 0");
  qd_log_write(LOG_ID_SYSTEM, QD_LOG_INFO, "f", "seq 1");
  morvotest::RunResult r = RunCommand({"-d", "-f", Dir() + "/y"});
  EXPECT_EQ(0, r.status);
  EXPECT_EQ("", r.out);
  std::vector<std::string> files = SetFiles(Dir(), "y");
  ASSERT_EQ(1u, files.size());
  std::string text = morvotest::Zcat(files[0]);
  EXPECT_EQ(0u, text.find("--------- beginning of morvo_main\n"));
  EXPECT_NE(std::string::npos, text.find("--------- beginning of morvo_system\n"));
  ExpectWholeSequence(Sequence(text), 2);
}

TEST_F(OutputFileTest, RestartRemovesPlainFilesAndContinuesTheSet) {
  std::string base = Dir() + "/z";
  for (const char* old : {"", ".1", ".4", "-0.tar.gz", "-9.tar.gz"}) {
    morvotest::WriteFile(base + old, "old");
  }
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "f", "seq 0");
  ASSERT_EQ(0, RunCommand({"-d", "-b", "morvo_main", "-f", base}).status);
  ASSERT_EQ(0, RunCommand({"-d", "-b", "morvo_main", "-f", base}).status);
  for (const char* old : {"", ".1", ".4", "-0.tar.gz", "-9.tar.gz"}) {
    EXPECT_FALSE(morvotest::Exists(base + old)) << old;
  }
  std::vector<std::string> files = SetFiles(Dir(), "z");
  ASSERT_EQ(2u, files.size());
  EXPECT_NE(std::string::npos, files[0].find(".I000."));
  EXPECT_NE(std::string::npos, files[1].find(".I001."));
}

// Polls for up to five seconds until the set of base has count files.
bool WaitForFiles(const std::string& dir, const std::string& base, size_t count) {
  for (int i = 0; i < 500; ++i) {
    if (SetFiles(dir, base).size() == count) return true;
    usleep(10 * 1000);
  }
  return false;
}

TEST_F(OutputFileTest, FileDeletedWhileWrittenIsRecreatedAndLosesNothing) {
  std::string base = Dir() + "/gone";
  android_logcat_context ctx = CreateAndroidLogcat();
  char arg0[] = "morvocat", arg1[] = "-b", arg2[] = "morvo_main", arg3[] = "-f";
  std::string path = base;
  char* argv[] = {arg0, arg1, arg2, arg3, &path[0], nullptr};
  int fd = AndroidLogcatRunCommandThread(ctx, 5, argv, nullptr);
  ASSERT_GE(fd, 0);
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "g", "before the deletion");
  ASSERT_TRUE(WaitForFiles(Dir(), "gone", 1));
  unlink(SetFiles(Dir(), "gone")[0].c_str());
  // Records keep coming until the run has noticed and made a new file.
  long written = 0;
  for (; written < 5000 && SetFiles(Dir(), "gone").empty(); ++written) {
    qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "g", ("seq " + std::to_string(written)).c_str());
    usleep(1000);
  }
  ASSERT_TRUE(WaitForFiles(Dir(), "gone", 1));
  // A run blocked in its read sees the stop request at the next record.
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "g", "wake up");
  EXPECT_EQ(0, AndroidLogcatDestroy(&ctx));
  std::vector<std::string> files = SetFiles(Dir(), "gone");
  ASSERT_EQ(1u, files.size());
  std::string text = morvotest::Zcat(files[0]);
  // What was cached when the file went is written into its successor.
  EXPECT_NE(std::string::npos, text.find("before the deletion"));
  ExpectWholeSequence(Sequence(text), written);
}

TEST_F(OutputFileTest, BarePathIsRefusedAndTheRunReadsOnWithoutOutput) {
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "f", "nowhere to go");
  morvotest::RunResult r = RunCommand({"-d", "-b", "morvo_main", "-f", "bare"});
  EXPECT_EQ("", r.out);
  EXPECT_FALSE(morvotest::Exists("bare"));
}

// A run that is killed keeps what it had accepted: the next run recovers
// it into the set before writing anything new.
TEST_F(OutputFileTest, KilledRunLosesNothingItHadAccepted) {
  constexpr long kRecords = 5000;
  std::string base = Dir() + "/k";
  const char* bin = getenv("MORVO_BIN_DIR");
  ASSERT_NE(nullptr, bin);
  std::string morvocat = std::string(bin) + "/morvocat";
  pid_t child = fork();
  if (child == 0) {
    execl(morvocat.c_str(), "morvocat", "-b", "morvo_main", "-f", base.c_str(), nullptr);
    _exit(127);
  }
  for (long i = 0; i < kRecords; ++i) {
    qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "k", ("seq " + std::to_string(i)).c_str());
  }
  // Wait until the run has handed the whole ring to its writer.
  usleep(500 * 1000);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  ASSERT_EQ(0, RunCommand({"-c", "-b", "morvo_main"}).status);
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "k", "after the restart");
  ASSERT_EQ(0, RunCommand({"-d", "-b", "morvo_main", "-f", base}).status);
  std::string all;
  for (const std::string& f : SetFiles(Dir(), "k")) all += morvotest::Zcat(f);
  ExpectWholeSequence(Sequence(all), kRecords);
  EXPECT_NE(std::string::npos, all.find("after the restart"));
}

}  // namespace
