// A collector process under faults in both write modes: its log folder runs
// out of space and gets it back, and links planted at its output paths
// point outside the log tree.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "stress/collector_stress.h"
#include "support/small_fs.h"

namespace {

using morvotest::Holds;
using stresstest::CollectorRoot;
using stresstest::EndedBySigusr;
using stresstest::Lines;
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

// The folder is full for five seconds while lines keep coming, more than
// the writer's cache and the group's hold take. The group lives on in both
// modes, says so once when the fault starts and once when it ends (with the
// lines it had to drop), loses none of the lines that came after the space
// returned, and tears or doubles nothing.
TEST_P(CollectorFault, AFullFolderIsWaitedOutAndNoLineAfterItIsLost) {
  if (!morvotest::EnterPrivateMounts()) GTEST_SKIP() << "no mount namespace of our own here";
  CollectorRoot root({Factory(), 64, 1000});
  morvotest::SmallFs fs(root.Dir(), 3072);
  if (!fs.mounted()) GTEST_SKIP() << "cannot mount a tmpfs here";
  stresstest::Collector collector(root);
  Feed(root, collector, 0, 1000);
  // Read is not yet written: the stream may still be busy with the batch.
  if (Factory()) {
    ASSERT_TRUE(grouptest::WaitFor([&] { return Numbers(root.FactoryText()).size() == 1000; }));
  }
  fs.Fill();
  long next = 1000;
  for (int i = 0; i < 25; ++i, next += 1000) {
    root.Append(Lines(next, next + 1000));
    usleep(200 * 1000);
  }
  ASSERT_TRUE(root.Consumed(collector)) << collector.Err();
  fs.Free();
  const long resumed = next;
  ASSERT_TRUE(grouptest::WaitFor([&] {
    root.Append(Lines(next, next + 100));
    next += 100;
    return collector.Err().find(": writing again to ") != std::string::npos;
  })) << collector.Err();
  Feed(root, collector, next, next + 1000);
  next += 1000;
  ASSERT_TRUE(EndedBySigusr(collector.SendAndWait(SIGUSR2))) << collector.Err();

  const std::string err = collector.Err();
  const std::string group = "group " + Current(root);
  EXPECT_EQ(grouptest::Count(err, group + ": cannot write "), 1u) << err;
  EXPECT_EQ(grouptest::Count(err, group + ": writing again to "), 1u) << err;
  EXPECT_EQ(grouptest::Count(err, " lines lost\n"), 1u) << err;
  if (!Factory()) {
    for (const std::string& f : morvotest::SetFiles(root.Dir(), stresstest::kBase)) {
      EXPECT_NE(morvotest::kBadGzip, morvotest::Gunzip(f)) << f;
    }
  }
  std::vector<long> numbers = Numbers(root.Text(Factory()));
  for (size_t i = 1; i < numbers.size(); ++i) ASSERT_LT(numbers[i - 1], numbers[i]);
  EXPECT_TRUE(Holds(numbers, 0, 1000));
  EXPECT_TRUE(Holds(numbers, resumed, next));
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
