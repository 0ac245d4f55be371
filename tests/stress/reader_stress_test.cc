// The reader's output files under load: more than a thousand rotations with
// the index wrapping, and runs killed at random points.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "platform/logger.h"
#include "reader/run_capture.h"
#include "support/gzip_text.h"
#include "support/log_set.h"
#include "support/temp_root.h"

namespace {

using morvotest::RunCommand;
using morvotest::Sequence;
using morvotest::SetFiles;
using morvotest::WritingOrder;

void WriteSequence(long from, long to) {
  for (long i = from; i < to; ++i) {
    ASSERT_GT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "s", ("seq " + std::to_string(i)).c_str()), 0);
  }
}

class ReaderStressTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.MakeDirs("/data/log");
    ASSERT_EQ(0, RunCommand({"-b", "morvo_main", "-G", "16384k"}).status);
  }
  std::string Dir() const { return root_.Under("/data/log"); }
  morvotest::TempRoot root_;
};

// 1300 rotations: the set wraps past 999 and keeps its newest 999 files,
// which hold the tail of the sequence, every record once and in order.
TEST_F(ReaderStressTest, RotationsPastTheIndexWrapKeepAContiguousTail) {
  constexpr long kRecords = 1300 * 16;
  WriteSequence(0, kRecords);
  std::string base = Dir() + "/w";
  morvotest::RunResult r = RunCommand({"-d", "-b", "morvo_main", "-f", base, "-r", "1"});
  ASSERT_EQ(0, r.status) << r.err;
  std::vector<std::string> files = WritingOrder(SetFiles(Dir(), "w"), base.size());
  ASSERT_EQ(999u, files.size());
  std::string all;
  for (const std::string& f : files) all += morvotest::Zcat(f);
  std::vector<long> numbers = Sequence(all);
  ASSERT_FALSE(numbers.empty());
  EXPECT_EQ(kRecords - 1, numbers.back());
  for (size_t i = 1; i < numbers.size(); ++i) {
    ASSERT_EQ(numbers[i - 1] + 1, numbers[i]) << "after record " << numbers[i - 1];
  }
}

// A continuous run is killed at random points; whatever it had accepted
// reaches the set once the next run starts, and nothing twice.
TEST_F(ReaderStressTest, RunsKilledAtRandomPointsLoseNothingTheyHadAccepted) {
  const char* bin = getenv("MORVO_BIN_DIR");
  ASSERT_NE(nullptr, bin);
  std::string morvocat = std::string(bin) + "/morvocat";
  std::string base = Dir() + "/k";
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
    WriteSequence(round * kPerRound, (round + 1) * kPerRound);
    // Give the run time to take every record, then kill it somewhere.
    usleep(400 * 1000 + random() % (200 * 1000));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    // The next run must not read the same records again.
    ASSERT_EQ(0, RunCommand({"-c", "-b", "morvo_main"}).status);
  }
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "s", "last");
  ASSERT_EQ(0, RunCommand({"-d", "-b", "morvo_main", "-f", base}).status);
  std::string all;
  for (const std::string& f : SetFiles(Dir(), "k")) all += morvotest::Zcat(f);
  std::vector<long> numbers = Sequence(all);
  std::vector<long> sorted = numbers;
  std::sort(sorted.begin(), sorted.end());
  ASSERT_EQ(static_cast<size_t>(kRounds * kPerRound), sorted.size());
  for (long i = 0; i < kRounds * kPerRound; ++i) ASSERT_EQ(i, sorted[i]);
}

}  // namespace
