// The factory logs' archive step where a link was planted at a name it
// writes: the link's target outside the log folder stays as it was.

#include "archive/factory_compress.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/file_tree.h"
#include "support/tar_listing.h"
#include "support/temp_root.h"

namespace {

using morvotest::Entries;
using morvotest::ReadFile;
using morvotest::WriteFile;

class FactoryCompressTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.MakeDirs("/data/log/factory");
    folder_ = root_.Under("/data/log/factory");
    base_ = folder_ + "/kmsg";
    for (int n = 1; n <= archive::kFactoryArchiveMembers; ++n) {
      WriteFile(base_ + "." + std::to_string(n), "rotated " + std::to_string(n) + "\n");
    }
    victim_ = root_.Under("/victim");
    mkdir(victim_.c_str(), 0755);
    WriteFile(victim_ + "/kmsg.1", "precious\n");
  }
  morvotest::TempRoot root_;
  std::string folder_;
  std::string base_;
  std::string victim_;  // a folder outside the log tree
};

TEST_F(FactoryCompressTest, ALinkAtTheWorkFolderStopsTheStepAndLosesNoFile) {
  ASSERT_EQ(0, symlink(victim_.c_str(), (base_ + "_tmp").c_str()));
  archive::CompressLogsFactory(base_, 4);
  EXPECT_EQ(std::vector<std::string>{"kmsg.1"}, Entries(victim_));
  EXPECT_EQ("precious\n", ReadFile(victim_ + "/kmsg.1"));
  // The numbered files wait where they were for a step that can run.
  std::vector<std::string> expected = {"kmsg.1", "kmsg.2", "kmsg.3",
                                       "kmsg.4", "kmsg.5", "kmsg_tmp"};
  EXPECT_EQ(expected, Entries(folder_));
}

TEST_F(FactoryCompressTest, ALinkAtTheArchiveNameIsReplacedNotWrittenThrough) {
  std::string victim = victim_ + "/kmsg.1";
  ASSERT_EQ(0, symlink(victim.c_str(), (base_ + "-0.tar.gz").c_str()));
  archive::CompressLogsFactory(base_, 1);
  EXPECT_EQ("precious\n", ReadFile(victim));
  EXPECT_EQ(std::vector<std::string>{"kmsg-0.tar.gz"}, Entries(folder_));
  EXPECT_EQ("kmsg.1\nkmsg.2\nkmsg.3\nkmsg.4\nkmsg.5\n", morvotest::TarListing(base_ + "-0.tar.gz"));
}

}  // namespace
