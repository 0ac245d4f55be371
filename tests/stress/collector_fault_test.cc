// A collector process under faults in both write modes: its log folder runs
// out of space and gets it back, and links planted at its output paths
// point outside the log tree.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "stress/collector_stress.h"
#include "support/small_fs.h"

namespace {

using morvotest::Holds;
using stresstest::CollectorRoot;
using stresstest::Lines;
using stresstest::EndedBySigusr;
using stresstest::Numbers;

class CollectorFault : public ::testing::TestWithParam<bool> {
 protected:
  bool Factory() const { return GetParam(); }
  std::string Current(const CollectorRoot& root) const {
    return root.Dir() + "/" + stresstest::kBase;
  }
  void Feed(const CollectorRoot& root, const stresstest::Collector& collector, long first,
            long end) {
    root.Append(Lines(first, end));
    ASSERT_TRUE(root.Consumed(collector)) << collector.Err();
  }
};

// Lines that come while the folder is full may be lost, but the collector
// lives on, leaves no torn file and doubles nothing. In mmap mode the writer
// keeps what it could not flush and writing recovers once space returns. In
// factory mode a failed write is reported and ends the stream group, as a
// failed write ends any stream; the process still ends cleanly.
TEST_P(CollectorFault, AFullFolderIsSurvivedAndMmapWritingRecoversWhenSpaceReturns) {
  CollectorRoot root({Factory(), 4, 1000});
  morvotest::SmallFs fs(root.Dir(), 3072);
  if (!fs.mounted()) GTEST_SKIP() << "cannot mount a tmpfs here";
  stresstest::Collector collector(root);
  Feed(root, collector, 0, 1000);
  if (Factory()) {
    // Read is not yet written: the stream may still be busy with the batch.
    ASSERT_TRUE(grouptest::WaitFor([&] {
      std::vector<long> written = Numbers(root.FactoryText());
      return !written.empty() && written.back() == 999;
    }));
  }
  fs.Fill();
  if (Factory()) {
    root.Append(Lines(1000, 3000));
    ASSERT_TRUE(grouptest::WaitFor([&] {
      return collector.Err().find(Current(root) + ": write fail\n") != std::string::npos &&
             collector.ReadOffset(root.Kmsg()) == -1;
    })) << collector.Err();
    fs.Free();
  } else {
    Feed(root, collector, 1000, 3000);
    fs.Free();
    Feed(root, collector, 3000, 4000);
  }
  ASSERT_TRUE(EndedBySigusr(collector.SendAndWait(SIGUSR2))) << collector.Err();

  if (!Factory()) {
    for (const std::string& f : morvotest::SetFiles(root.Dir(), stresstest::kBase)) {
      EXPECT_NE(morvotest::kBadGzip, morvotest::Gunzip(f)) << f;
    }
  }
  std::vector<long> numbers = Numbers(root.Text(Factory()));
  for (size_t i = 1; i < numbers.size(); ++i) ASSERT_LT(numbers[i - 1], numbers[i]);
  EXPECT_TRUE(Holds(numbers, 0, 1000));
  if (!Factory()) {
    EXPECT_TRUE(Holds(numbers, 3000, 4000));
  }
}

// The links P and P.1, a set file's name (mmap) and a numbered copy
// (factory) point at files outside the log tree: the group writes its own
// files and the files outside stay as they were.
TEST_P(CollectorFault, LinksPlantedAtTheOutputAreNeverWrittenThrough) {
  CollectorRoot root({Factory(), 1, 5});
  std::string base = Current(root);
  std::vector<std::string> planted = {base, base + ".1",
                                      Factory() ? base + ".3" : base + ".I000.20260101-000000.gz"};
  std::vector<std::string> outside;
  for (size_t i = 0; i < planted.size(); ++i) {
    outside.push_back(root.root().Under("/outside" + std::to_string(i)));
    morvotest::WriteFile(outside.back(), "precious " + std::to_string(i) + "\n");
    ASSERT_EQ(0, symlink(outside.back().c_str(), planted[i].c_str()));
  }
  stresstest::Collector collector(root);
  Feed(root, collector, 0, 2000);
  ASSERT_TRUE(EndedBySigusr(collector.SendAndWait(SIGUSR2))) << collector.Err();

  for (size_t i = 0; i < outside.size(); ++i) {
    EXPECT_EQ("precious " + std::to_string(i) + "\n", morvotest::ReadFile(outside[i]));
  }
  std::vector<long> numbers = Numbers(root.Text(Factory()));
  ASSERT_FALSE(numbers.empty());
  EXPECT_EQ(1999, numbers.back());
  for (size_t i = 1; i < numbers.size(); ++i) ASSERT_EQ(numbers[i - 1] + 1, numbers[i]);
}

INSTANTIATE_TEST_SUITE_P(WriteModes, CollectorFault, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "Factory" : "Mmap";
                         });

}  // namespace
