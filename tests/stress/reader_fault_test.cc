// The reader's output files under faults: a file system that runs full and
// gets space back, and links planted where the set is written.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/logger.h"
#include "reader/run_capture.h"
#include "support/gzip_text.h"
#include "support/log_set.h"
#include "support/small_fs.h"
#include "support/temp_root.h"

namespace {

using morvotest::Holds;
using morvotest::RunCommand;

class ReaderFault : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.MakeDirs("/data/log/out");
    ASSERT_EQ(0, RunCommand({"-b", "morvo_main", "-G", "16384k"}).status);
  }
  std::string Dir() const { return root_.Under("/data/log/out"); }
  std::string Base() const { return Dir() + "/w"; }

  // Writes seq first..end-1, dumps them into the set and clears the buffer
  // so the next dump starts after them.
  void DumpSequence(long first, long end) {
    for (long i = first; i < end; ++i) {
      ASSERT_GT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "s", ("seq " + std::to_string(i)).c_str()),
                0);
    }
    morvotest::RunResult r = RunCommand({"-d", "-b", "morvo_main", "-f", Base(), "-r", "4"});
    ASSERT_EQ(0, r.status) << r.err;
    ASSERT_EQ(0, RunCommand({"-c", "-b", "morvo_main"}).status);
  }
  // Every set file whole, and the records in them.
  std::vector<long> SetSequence() {
    std::string all;
    for (const std::string& f : morvotest::SetFiles(Dir(), "w")) {
      std::string text = morvotest::Gunzip(f);
      EXPECT_NE(morvotest::kBadGzip, text) << f;
      all += text;
    }
    return morvotest::Sequence(all);
  }
  morvotest::TempRoot root_;
};

// What is dumped while the file system is full may be lost; the run must
// go through, leave no torn file, and what comes after the space returns
// must all be there, once and in order.
TEST_F(ReaderFault, AFullFileSystemIsSurvivedAndWritingRecovers) {
  morvotest::SmallFs fs(Dir(), 3072);
  if (!fs.mounted()) GTEST_SKIP() << "cannot mount a tmpfs here";
  // A fresh tmpfs is shared (1777), which the reader refuses to write.
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

// A link at a set file's name points outside the log tree; the set is
// written, and the file outside stays as it was. (A link at the output path
// itself makes the run refuse to start.)
TEST_F(ReaderFault, LinksPlantedAtTheOutputAreNeverWrittenThrough) {
  std::string outside = root_.Under("/outside");
  morvotest::WriteFile(outside, "precious\n");
  std::string planted = Base() + ".I000.20260101-000000.gz";
  ASSERT_EQ(0, symlink(outside.c_str(), planted.c_str()));
  DumpSequence(0, 3000);
  DumpSequence(3000, 6000);
  EXPECT_EQ("precious\n", morvotest::ReadFile(outside));
  std::string all;
  for (const std::string& f : morvotest::SetFiles(Dir(), "w")) {
    if (f != planted) all += morvotest::Gunzip(f);
  }
  std::vector<long> numbers = morvotest::Sequence(all);
  EXPECT_TRUE(Holds(numbers, 0, 6000));
}

}  // namespace
