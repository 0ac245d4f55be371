// The plain output file, which a run uses only when its rotating writer
// cannot be allocated. This program makes exactly that allocation fail.

#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>
#include <string>
#include <vector>

#include "filesets/morvocat_utils.h"
#include "platform/logger.h"
#include "reader/output_file.h"
#include "reader/run_capture.h"
#include "support/file_tree.h"
#include "support/tar_listing.h"
#include "support/temp_root.h"
#include "support/within.h"

namespace {

MorvocatUtils* NoWriter(const char*, uint32_t, uint64_t) { return nullptr; }

using morvotest::Exists;
using morvotest::ReadFile;
using morvotest::RunCommand;

using morvotest::TarListing;

class PlainOutputTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.MakeDirs("/data/log");
    base_ = root_.Under("/data/log/p");
    qdlogging::SetWriterFactory(NoWriter);
  }
  void TearDown() override { qdlogging::SetWriterFactory(nullptr); }

  // Writes count records of about 1 KiB each to morvo_main.
  static void WriteKilobyteRecords(int count) {
    std::string text(1000, 'k');
    for (int i = 0; i < count; ++i) {
      qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "plain", (std::to_string(i) + text).c_str());
    }
  }

  morvotest::TempRoot root_;
  std::string base_;
};

TEST_F(PlainOutputTest, RotatedNamesArePaddedToTheDigitsOfTheCount) {
  WriteKilobyteRecords(40);
  morvotest::RunResult r =
      RunCommand({"-d", "-b", "morvo_main", "-f", base_, "-r", "2", "-n", "10"});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_TRUE(Exists(base_));
  EXPECT_TRUE(Exists(base_ + ".01"));
  EXPECT_TRUE(Exists(base_ + ".10"));
  EXPECT_FALSE(Exists(base_ + ".1"));
  EXPECT_FALSE(Exists(base_ + ".11"));
  // Plain text, not the writer's compressed files.
  EXPECT_NE(std::string::npos, morvotest::ReadFile(base_ + ".10").find("I plain   : "));
}

TEST_F(PlainOutputTest, DefaultCountKeepsFourUnpaddedCopies) {
  WriteKilobyteRecords(20);
  ASSERT_EQ(0, RunCommand({"-d", "-b", "morvo_main", "-f", base_, "-r", "2"}).status);
  EXPECT_TRUE(Exists(base_ + ".1"));
  EXPECT_TRUE(Exists(base_ + ".4"));
  EXPECT_FALSE(Exists(base_ + ".5"));
}

TEST_F(PlainOutputTest, FullSetsArePackedIntoAtMostTheGivenArchives) {
  WriteKilobyteRecords(120);
  morvotest::RunResult r =
      RunCommand({"-d", "-b", "morvo_main", "-f", base_, "-r", "2", "-n", "4", "-z", "3"});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_TRUE(Exists(base_ + "-0.tar.gz"));
  EXPECT_TRUE(Exists(base_ + "-2.tar.gz"));
  EXPECT_FALSE(Exists(base_ + "-3.tar.gz"));
  EXPECT_FALSE(Exists(base_ + "_tmp"));
  std::string listing = TarListing(base_ + "-0.tar.gz");
  for (int k = 1; k <= 4; ++k) {
    EXPECT_NE(std::string::npos, listing.find("p." + std::to_string(k))) << listing;
  }
}

TEST_F(PlainOutputTest, MoreThan32RotatedFilesAreArchivedWhole) {
  WriteKilobyteRecords(90);
  morvotest::RunResult r =
      RunCommand({"-d", "-b", "morvo_main", "-f", base_, "-r", "2", "-n", "40", "-z", "1"});
  EXPECT_EQ(0, r.status) << r.err;
  std::string listing = TarListing(base_ + "-0.tar.gz");
  EXPECT_NE(std::string::npos, listing.find("p.40\n")) << listing;
  EXPECT_NE(std::string::npos, listing.find("p.33\n")) << listing;
  EXPECT_FALSE(Exists(base_ + ".40"));
}

TEST_F(PlainOutputTest, DeletedFileShiftsTheCopiesAndIsOpenedAgain) {
  morvotest::WriteFile(base_ + ".1", "older copy\n");
  android_logcat_context ctx = CreateAndroidLogcat();
  char arg0[] = "morvocat", arg1[] = "-b", arg2[] = "morvo_main", arg3[] = "-f";
  char* argv[] = {arg0, arg1, arg2, arg3, &base_[0], nullptr};
  ASSERT_GE(AndroidLogcatRunCommandThread(ctx, 5, argv, nullptr), 0);
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "del", "first");
  morvotest::Within(5, [&] { return !ReadFile(base_).empty(); });
  ASSERT_EQ(0, unlink(base_.c_str()));
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "del", "second");
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "del", "third");
  morvotest::Within(5, [&] { return ReadFile(base_).find("third") != std::string::npos; });
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "del", "wake up");
  EXPECT_EQ(0, AndroidLogcatDestroy(&ctx));
  // P was gone, so no new P.1 was made: the old copy moved up to P.2.
  EXPECT_EQ("older copy\n", morvotest::ReadFile(base_ + ".2"));
  EXPECT_FALSE(Exists(base_ + ".1"));
  // The record that revealed the deletion went to the deleted file; the
  // fresh P takes the records after it.
  std::string text = morvotest::ReadFile(base_);
  EXPECT_EQ(std::string::npos, text.find("first"));
  EXPECT_NE(std::string::npos, text.find("third"));
}

TEST_F(PlainOutputTest, AppendingContinuesTheCountOfAnExistingFile) {
  morvotest::WriteFile(base_, std::string(1500, 'e') + "\n");
  WriteKilobyteRecords(1);
  ASSERT_EQ(0, RunCommand({"-d", "-b", "morvo_main", "-f", base_, "-r", "2"}).status);
  // 1.5 KiB already there plus one record reach 2 KiB: the file rotated.
  EXPECT_TRUE(Exists(base_ + ".1"));
  EXPECT_EQ(0u, morvotest::ReadFile(base_ + ".1").find(std::string(1500, 'e')));
}

// Links planted at the names a rotation writes, pointing outside the log
// folder: nothing outside changes, and no temporary name is left behind.
struct PlantedName {
  const char* name;
  enum Kind { kHardLink, kFileLink, kFolderLink } kind;
  int status;
  bool archived;
};

const PlantedName kPlantedNames[] = {
    // A second name of the victim: appending to P would write into it.
    {"p", PlantedName::kHardLink, 1, false},
    {"p-0.tar.gz", PlantedName::kFileLink, 0, true},
    // The work folder: moving P.1 into it would replace the victim's p.1.
    {"p_tmp", PlantedName::kFolderLink, 0, false},
};

TEST_F(PlainOutputTest, LinksAtTheNamesARotationWritesAreNeverFollowed) {
  WriteKilobyteRecords(20);
  for (const PlantedName& c : kPlantedNames) {
    SCOPED_TRACE(c.name);
    std::string folder = root_.Under("/data/log/") + c.name + " row";
    std::string victim = root_.Under("/victim ") + c.name;
    ASSERT_EQ(0, mkdir(folder.c_str(), 0755));
    std::string file = victim;
    if (c.kind == PlantedName::kFolderLink) {
      ASSERT_EQ(0, mkdir(victim.c_str(), 0755));
      file = victim + "/p.1";
    }
    morvotest::WriteFile(file, "precious\n");
    std::string at = folder + "/" + c.name;
    ASSERT_EQ(0, c.kind == PlantedName::kHardLink ? link(victim.c_str(), at.c_str())
                                                  : symlink(victim.c_str(), at.c_str()));
    std::string base = folder + "/p";
    morvotest::RunResult r =
        RunCommand({"-d", "-b", "morvo_main", "-f", base, "-r", "2", "-n", "4", "-z", "1"});
    EXPECT_EQ(c.status, r.status) << r.err;
    EXPECT_EQ("precious\n", morvotest::ReadFile(file));
    if (c.kind == PlantedName::kFolderLink) {
      EXPECT_EQ(std::vector<std::string>{"p.1"}, morvotest::Entries(victim));
    }
    for (const std::string& name : morvotest::Entries(folder)) {
      EXPECT_TRUE(name == "p" || name == "p_tmp" || name == "p-0.tar.gz" ||
                  (name.size() == 3 && name.compare(0, 2, "p.") == 0))
          << "left behind: " << name;
    }
    if (c.archived) {
      EXPECT_EQ("p.1\np.2\np.3\np.4\n", TarListing(base + "-0.tar.gz"));
    }
  }
}

}  // namespace
