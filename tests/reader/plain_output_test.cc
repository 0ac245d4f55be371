// The plain output file, used only when the rotating writer's allocation fails (made to here).

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
#include "support/file_tree.h"
#include "support/gzip_text.h"
#include "support/reader_run.h"
#include "support/temp_root.h"

namespace {

MorvocatUtils* NoWriter(const char*, uint32_t, uint64_t) { return nullptr; }

using morvotest::Exists;
using morvotest::ReadFile;
using morvotest::RunCommand;
using morvotest::TarListing;
using morvotest::Words;

class PlainOutputTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.MakeDirs("/data/log");
    base_ = root_.Under("/data/log/p");
    qdlogging::SetWriterFactory(NoWriter);
  }
  void TearDown() override { qdlogging::SetWriterFactory(nullptr); }

  static void WriteKilobyteRecords(int count) {
    std::string text(1000, 'k');
    for (int i = 0; i < count; ++i) {
      qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "plain", (std::to_string(i) + text).c_str());
    }
  }

  morvotest::TempRoot root_;
  std::string base_;
};

TEST_F(PlainOutputTest, RotationNamesCountsAndArchives) {
  // Names are space-separated; records of about 1 KiB; bytes already in P.
  struct Case {
    int records, existing;
    const char *args, *present, *absent, *archived;  // what P-0.tar.gz holds
  } const kRotations[] = {
      {40, 0, "-r 2 -n 10", "p p.01 p.10", "p.1 p.11", ""},  // padded to the count's digits
      {20, 0, "-r 2", "p.1 p.4", "p.5", ""},                 // four by default
      {120, 0, "-r 2 -n 4 -z 3", "p-0.tar.gz p-2.tar.gz", "p-3.tar.gz p_tmp", "p.1 p.2 p.3 p.4"},
      {90, 0, "-r 2 -n 40 -z 1", "", "p.40", "p.33 p.40"},  // over 32 files: archived whole
      {1, 1500, "-r 2", "p.1", "", ""},  // appending goes on counting P's 1.5 KiB
  };
  for (const Case& c : kRotations) {
    SCOPED_TRACE(c.args);
    morvotest::TempRoot root;  // each row on a store of its own
    root.MakeDirs("/data/log");
    std::string folder = root.Under("/data/log");
    std::string existing(c.existing, 'e');
    if (c.existing != 0) morvotest::WriteFile(folder + "/p", existing + "\n");
    WriteKilobyteRecords(c.records);
    std::vector<std::string> args = {"-d", "-b", "morvo_main", "-f", folder + "/p"};
    for (const std::string& a : Words(c.args)) args.push_back(a);
    morvotest::RunResult r = RunCommand(args);
    EXPECT_EQ(0, r.status) << r.err;
    for (const std::string& name : Words(c.present)) {
      EXPECT_TRUE(Exists(folder + "/" + name)) << name;
      // Plain text, not the writer's compressed files.
      if (name.find(".tar") == std::string::npos && name != "p") {
        EXPECT_NE(std::string::npos, ReadFile(folder + "/" + name).find("I plain   : ")) << name;
      }
    }
    for (const std::string& name : Words(c.absent))
      EXPECT_FALSE(Exists(folder + "/" + name)) << name;
    std::string listing = *c.archived != '\0' ? TarListing(folder + "/p-0.tar.gz") : "";
    for (const std::string& name : Words(c.archived)) {
      EXPECT_NE(std::string::npos, listing.find(name + "\n")) << listing;
    }
    EXPECT_TRUE(c.existing == 0 || ReadFile(folder + "/p.1").find(existing) == 0);
  }
}

TEST_F(PlainOutputTest, DeletedFileShiftsTheCopiesAndIsOpenedAgain) {
  morvotest::WriteFile(base_ + ".1", "older copy\n");
  android_logcat_context ctx = CreateAndroidLogcat();
  ASSERT_GE(morvotest::StartThread(ctx, {"-b", "morvo_main", "-f", base_}), 0);
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "del", "first");
  morvotest::Within(5, [&] { return !ReadFile(base_).empty(); });
  ASSERT_EQ(0, unlink(base_.c_str()));
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "del", "second");
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "del", "third");
  morvotest::Within(5, [&] { return ReadFile(base_).find("third") != std::string::npos; });
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "del", "wake up");
  EXPECT_EQ(0, AndroidLogcatDestroy(&ctx));
  // P was gone, so no new P.1: the old copy moved up to P.2.
  EXPECT_EQ("older copy\n", morvotest::ReadFile(base_ + ".2"));
  EXPECT_FALSE(Exists(base_ + ".1"));
  // The record that revealed the deletion went to the deleted file.
  std::string text = morvotest::ReadFile(base_);
  EXPECT_EQ(std::string::npos, text.find("first"));
  EXPECT_NE(std::string::npos, text.find("third"));
}

// Links planted at a rotation's names, pointing outside: nothing outside changes, no temp left.
TEST_F(PlainOutputTest, LinksAtTheNamesARotationWritesAreNeverFollowed) {
  // p: hard link (append writes the victim); p_tmp: folder link (P.1 would replace victim's p.1).
  WriteKilobyteRecords(20);
  for (std::string name : {"p", "p-0.tar.gz", "p_tmp"}) {
    SCOPED_TRACE(name);
    bool hard = name == "p", folderLink = name == "p_tmp";
    std::string folder = root_.Under("/data/log/") + name + " row";
    std::string victim = root_.Under("/victim ") + name;
    ASSERT_EQ(0, mkdir(folder.c_str(), 0755));
    std::string file = victim;
    if (folderLink) {
      ASSERT_EQ(0, mkdir(victim.c_str(), 0755));
      file = victim + "/p.1";
    }
    morvotest::WriteFile(file, "precious\n");
    std::string at = folder + "/" + name;
    ASSERT_EQ(0, hard ? link(victim.c_str(), at.c_str()) : symlink(victim.c_str(), at.c_str()));
    std::string base = folder + "/p";
    morvotest::RunResult r =
        RunCommand({"-d", "-b", "morvo_main", "-f", base, "-r", "2", "-n", "4", "-z", "1"});
    EXPECT_EQ(hard ? 1 : 0, r.status) << r.err;
    EXPECT_EQ("precious\n", morvotest::ReadFile(file));
    if (folderLink) {
      EXPECT_EQ(std::vector<std::string>{"p.1"}, morvotest::Entries(victim));
    }
    for (const std::string& name : morvotest::Entries(folder)) {
      EXPECT_TRUE(name == "p" || name == "p_tmp" || name == "p-0.tar.gz" ||
                  (name.size() == 3 && name.compare(0, 2, "p.") == 0))
          << "left behind: " << name;
    }
    if (name == "p-0.tar.gz") {
      EXPECT_EQ("p.1\np.2\np.3\np.4\n", TarListing(base + "-0.tar.gz"));
    }
  }
}

}  // namespace
