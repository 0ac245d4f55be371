#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "platform/logger.h"
#include "support/gzip_text.h"
#include "support/log_set.h"
#include "support/reader_run.h"
#include "support/small_fs.h"
#include "support/temp_root.h"

namespace {

using morvotest::Holds;
using morvotest::RunCommand;

class ReaderStress : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.MakeDirs("/data/log/out");
    ASSERT_EQ(0, RunCommand({"-b", "morvo_main", "-G", "16384k"}).status);
  }
  std::string Dir() const { return root_.Under("/data/log/out"); }
  std::string Base(const char* name = "w") const { return Dir() + "/" + name; }

  static void Write(long first, long end) {
    for (long i = first; i < end; ++i) {
      ASSERT_GT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "s", ("seq " + std::to_string(i)).c_str()),
                0);
    }
  }
  void DumpSequence(long first, long end, const char* rotate = "4") {
    Write(first, end);
    morvotest::RunResult r = RunCommand({"-d", "-b", "morvo_main", "-f", Base(), "-r", rotate});
    ASSERT_EQ(0, r.status) << r.err;
    ASSERT_EQ(0, RunCommand({"-c", "-b", "morvo_main"}).status);
  }
  std::vector<long> SetSequence(const char* name = "w", bool writingOrder = false) {
    std::vector<std::string> files = morvotest::SetFiles(Dir(), name);
    if (writingOrder) files = morvotest::WritingOrder(files, Base(name).size());
    std::string all;
    for (const std::string& f : files) {
      std::string text = morvotest::Zcat(f);
      EXPECT_NE(morvotest::kBadGzip, text) << f;
      all += text;
    }
    return morvotest::Sequence(all);
  }
  morvotest::TempRoot root_;
};

void ExpectContiguous(const std::vector<long>& numbers, long last) {
  ASSERT_FALSE(numbers.empty());
  EXPECT_EQ(last, numbers.back());
  for (size_t i = 1; i < numbers.size(); ++i) {
    ASSERT_EQ(numbers[i - 1] + 1, numbers[i]) << "after record " << numbers[i - 1];
  }
}

TEST_F(ReaderStress, RotationsPastTheIndexWrapKeepAContiguousTail) {
  constexpr long kRecords = 1300 * 16;
  DumpSequence(0, kRecords, "1");
  EXPECT_EQ(999u, morvotest::SetFiles(Dir(), "w").size());
  ExpectContiguous(SetSequence("w", true), kRecords - 1);
}

TEST_F(ReaderStress, RunsKilledAtRandomPointsLoseNothingTheyHadAccepted) {
  const char* bin = getenv("MORVO_BIN_DIR");
  ASSERT_NE(nullptr, bin);
  std::string morvocat = std::string(bin) + "/morvocat", base = Base("k");
  std::mt19937 random(20261123);
  constexpr int kRounds = 5;
  constexpr long kPerRound = 4000;
  for (int round = 0; round < kRounds; ++round) {
    pid_t child = fork();
    if (child == 0) {
      execl(morvocat.c_str(), "morvocat", "-b", "morvo_main", "-f", base.c_str(), "-r", "8",
            nullptr);
      _exit(127);
    }
    Write(round * kPerRound, (round + 1) * kPerRound);
    usleep(400 * 1000 + random() % (200 * 1000));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    ASSERT_EQ(0, RunCommand({"-c", "-b", "morvo_main"}).status);
  }
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "s", "last");
  ASSERT_EQ(0, RunCommand({"-d", "-b", "morvo_main", "-f", base}).status);
  std::vector<long> numbers = SetSequence("k");
  std::sort(numbers.begin(), numbers.end());
  ExpectContiguous(numbers, kRounds * kPerRound - 1);
  EXPECT_EQ(0, numbers.front());
}

// What is dumped while full may be lost; no torn file, and all that comes after.
TEST_F(ReaderStress, AFullFileSystemIsSurvivedAndWritingRecovers) {
  morvotest::SmallFs fs(Dir(), 3072);
  if (!fs.mounted()) GTEST_SKIP() << "cannot mount a tmpfs here";
  ASSERT_EQ(0, chmod(Dir().c_str(), 0755));
  DumpSequence(0, 2000);
  fs.Fill();
  DumpSequence(2000, 8000);
  fs.Free();
  DumpSequence(8000, 10000);
  std::vector<long> numbers = SetSequence();
  for (size_t i = 1; i < numbers.size(); ++i) ASSERT_LT(numbers[i - 1], numbers[i]);
  EXPECT_TRUE(Holds(numbers, 0, 2000));
  EXPECT_TRUE(Holds(numbers, 8000, 10000));
}

}  // namespace
