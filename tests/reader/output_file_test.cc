// -f through the rotating writer: indexed .gz files that hold every record
// once, rotation by size, recovery of what a killed run had accepted, and
// the paths and folders a run as root must refuse rather than damage.

#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "morvocat/morvocat.h"
#include "platform/logger.h"
#include "reader/run_capture.h"
#include "support/file_tree.h"
#include "support/gzip_text.h"
#include "support/log_set.h"
#include "support/small_fs.h"
#include "support/temp_root.h"
#include "support/within.h"

namespace {

using morvotest::NodeAt;
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

TEST_F(OutputFileTest, FileDeletedWhileWrittenIsRecreatedAndLosesNothing) {
  std::string base = Dir() + "/gone";
  android_logcat_context ctx = CreateAndroidLogcat();
  char arg0[] = "morvocat", arg1[] = "-b", arg2[] = "morvo_main", arg3[] = "-f";
  std::string path = base;
  char* argv[] = {arg0, arg1, arg2, arg3, &path[0], nullptr};
  int fd = AndroidLogcatRunCommandThread(ctx, 5, argv, nullptr);
  ASSERT_GE(fd, 0);
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "g", "before the deletion");
  ASSERT_TRUE(morvotest::Within(5, [&] { return SetFiles(Dir(), "gone").size() == 1; }));
  unlink(SetFiles(Dir(), "gone")[0].c_str());
  // Records keep coming until the run has noticed and made a new file.
  long written = 0;
  for (; written < 5000 && SetFiles(Dir(), "gone").empty(); ++written) {
    qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "g", ("seq " + std::to_string(written)).c_str());
    usleep(1000);
  }
  ASSERT_TRUE(morvotest::Within(5, [&] { return SetFiles(Dir(), "gone").size() == 1; }));
  // Destroy stops the run at once: it must have read the records first.
  usleep(100 * 1000);
  EXPECT_EQ(0, AndroidLogcatDestroy(&ctx));
  std::vector<std::string> files = SetFiles(Dir(), "gone");
  ASSERT_EQ(1u, files.size());
  std::string text = morvotest::Zcat(files[0]);
  // What was cached when the file went is written into its successor.
  EXPECT_NE(std::string::npos, text.find("before the deletion"));
  ExpectWholeSequence(Sequence(text), written);
}

// Reading on without an output would lose every line behind a clean
// status: the run ends with status 1 instead.
TEST_F(OutputFileTest, AnOutputThatCannotBeSetUpEndsTheRun) {
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "f", "nowhere to go");
  struct Case {
    std::string path;
    std::string message;
  } const kCases[] = {
      {"bare", "logFile path [bare] is invalid.\n"},
      {Dir() + "/missing/folder/f", "mkdir [" + Dir() + "/missing/folder] failed"},
  };
  for (const Case& c : kCases) {
    testing::internal::CaptureStderr();
    morvotest::RunResult r = RunCommand({"-d", "-b", "morvo_main", "-f", c.path});
    std::string told = testing::internal::GetCapturedStderr();
    EXPECT_EQ(1, r.status) << c.path;
    EXPECT_EQ("", r.out);
    EXPECT_NE(std::string::npos, told.find(c.message)) << told;
    EXPECT_NE(std::string::npos, r.err.find("no output file can be written\n")) << r.err;
    EXPECT_FALSE(morvotest::Exists("bare"));
  }
}

// A folder that is there but takes no file (a read-only file system here)
// ends the run too, instead of reading every record into nowhere.
TEST_F(OutputFileTest, AFolderThatTakesNoFileEndsTheRun) {
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "f", "nowhere to go");
  std::string dir = Dir() + "/ro";
  mkdir(dir.c_str(), 0775);
  pid_t child = fork();
  if (child == 0) {
    if (!morvotest::EnterPrivateMounts()) _exit(77);
    morvotest::SmallFs fs(dir, 256);
    if (!fs.mounted()) _exit(77);
    mkdir((dir + "/out").c_str(), 0775);
    if (mount(nullptr, dir.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0) _exit(77);
    morvotest::RunResult r = RunCommand({"-d", "-b", "morvo_main", "-f", dir + "/out/app"});
    _exit(r.status == 1 ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "cannot mount a read-only tmpfs here";
  EXPECT_EQ(0, WEXITSTATUS(status));
}

// The writer slot is the process's: a second file-writing run is refused
// and a run beside it without -f neither writes into its files nor frees
// its writer when it ends.
TEST_F(OutputFileTest, OneFileWritingRunPerProcess) {
  android_logcat_context first = CreateAndroidLogcat();
  std::string base = Dir() + "/one";
  std::vector<std::string> args = {"morvocat", "-b", "morvo_main", "-f", base};
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  int fd =
      AndroidLogcatRunCommandThread(first, static_cast<int>(args.size()), argv.data(), nullptr);
  ASSERT_GE(fd, 0);
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "f", "seq 0");
  usleep(100 * 1000);
  morvotest::RunResult second = RunCommand({"-d", "-b", "morvo_main", "-f", Dir() + "/two"});
  EXPECT_EQ(1, second.status);
  EXPECT_NE(std::string::npos,
            second.err.find("another run of this process is writing output files\n"));
  EXPECT_FALSE(morvotest::Exists(Dir() + "/two"));
  morvotest::RunResult beside = RunCommand({"-d", "-b", "morvo_main"});
  EXPECT_NE(std::string::npos, beside.out.find("seq 0")) << beside.out;
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "f", "seq 1");
  usleep(100 * 1000);
  EXPECT_EQ(0, AndroidLogcatDestroy(&first));
  std::string all;
  for (const std::string& f : SetFiles(Dir(), "one")) all += morvotest::Zcat(f);
  EXPECT_TRUE(morvotest::Holds(Sequence(all), 0, 2)) << all;
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

// Things that are no regular file, planted at the output path; false when
// this machine does not let them be made.
struct Plant {
  const char* what;
  bool (*make)(const std::string& path, const std::string& victim);
};

const Plant kPlants[] = {
    {"fifo", [](const std::string& p, const std::string&) { return mkfifo(p.c_str(), 0666) == 0; }},
    // The null device's numbers: what "-f /dev/null" would meet.
    {"device",
     [](const std::string& p, const std::string&) {
       return mknod(p.c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0;
     }},
    {"link",
     [](const std::string& p, const std::string& v) { return symlink(v.c_str(), p.c_str()) == 0; }},
    {"folder",
     [](const std::string& p, const std::string&) { return mkdir(p.c_str(), 0755) == 0; }},
};

TEST_F(OutputFileTest, AnOutputPathThatIsNoRegularFileIsRefusedAndLeftAlone) {
  std::string victim = root_.Under("/victim");
  morvotest::WriteFile(victim, "precious\n");
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "f", "seq 0");
  for (const Plant& plant : kPlants) {
    SCOPED_TRACE(plant.what);
    std::string folder = Dir() + "/" + plant.what;
    ASSERT_EQ(0, mkdir(folder.c_str(), 0750));
    std::string path = folder + "/p";
    if (!plant.make(path, victim)) {
      printf("no %s here (%s): row skipped\n", plant.what, strerror(errno));
      continue;
    }
    morvotest::Node before = NodeAt(path), folderBefore = NodeAt(folder);
    morvotest::RunResult r = RunCommand({"-d", "-b", "morvo_main", "-f", path});
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.err.find("logFile [" + path + "] is not a regular file.\n"))
        << r.err;
    EXPECT_EQ(1, RunCommand({"-c", "-b", "morvo_main", "-f", path}).status);
    EXPECT_TRUE(before == NodeAt(path));
    EXPECT_TRUE(folderBefore == NodeAt(folder));
    EXPECT_EQ(std::vector<std::string>{"p"}, morvotest::Entries(folder));
    EXPECT_EQ("precious\n", morvotest::ReadFile(victim));
  }
}

// The folder of the output path as it is found, and what a run makes of it.
struct FolderCase {
  const char* what;
  mode_t type;  // S_IFDIR, S_IFREG or S_IFLNK (a link to a folder); 0: absent
  mode_t mode;
  uid_t owner;
  int status;
  mode_t modeAfter;
  uid_t ownerAfter;
  const char* refusal;  // on the error stream, after "logFile folder [folder] "
};

constexpr uid_t kSystem = 1000;
constexpr uid_t kNobody = 65534;
constexpr char kShared[] = "is writable by others or shared (sticky bit).\n";

const FolderCase kFolders[] = {
    {"missing", 0, 0, 0, 0, 0775, kSystem, nullptr},
    {"root's", S_IFDIR, 0750, 0, 0, 0775, kSystem, nullptr},
    {"system's", S_IFDIR, 0700, kSystem, 0, 0775, kSystem, nullptr},
    // Not the reader's to take over; it is written as it is.
    {"another user's", S_IFDIR, 0755, kNobody, 0, 0755, kNobody, nullptr},
    // Shared folders such as /tmp: anyone could plant names there.
    {"sticky", S_IFDIR, 01777, 0, 1, 01777, 0, kShared},
    {"world-writable", S_IFDIR, 0777, 0, 1, 0777, 0, kShared},
    {"sticky only", S_IFDIR, 01755, 0, 1, 01755, 0, kShared},
    {"regular file", S_IFREG, 0644, 0, 1, 0644, 0, "is not a folder.\n"},
    {"link", S_IFLNK, 0750, 0, 1, 0750, 0, "is not a folder.\n"},
};

TEST_F(OutputFileTest, TheOutputFolderIsTakenOverOnlyWhenItIsTheReadersToTake) {
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "f", "seq 0");
  for (const FolderCase& c : kFolders) {
    SCOPED_TRACE(c.what);
    std::string folder = Dir() + "/" + c.what;
    // A link's target is what must stay as it was.
    std::string real = c.type == S_IFLNK ? folder + " target" : folder;
    if (c.type == S_IFREG) morvotest::WriteFile(real, "a file\n");
    if (c.type == S_IFDIR || c.type == S_IFLNK) {
      ASSERT_EQ(0, mkdir(real.c_str(), 0700));
    }
    if (c.type == S_IFLNK) {
      ASSERT_EQ(0, symlink(real.c_str(), folder.c_str()));
    }
    if (c.type != 0) {
      ASSERT_EQ(0, chmod(real.c_str(), c.mode));
      ASSERT_EQ(0, chown(real.c_str(), c.owner, c.owner));
    }
    morvotest::RunResult r = RunCommand({"-d", "-b", "morvo_main", "-f", folder + "/p"});
    EXPECT_EQ(c.status, r.status) << r.err;
    struct stat st;
    ASSERT_EQ(0, stat(real.c_str(), &st));
    EXPECT_EQ(c.modeAfter, st.st_mode & 07777);
    EXPECT_EQ(c.ownerAfter, st.st_uid);
    EXPECT_EQ(c.ownerAfter, st.st_gid);
    if (c.refusal != nullptr) {
      EXPECT_NE(std::string::npos, r.err.find("logFile folder [" + folder + "] " + c.refusal))
          << r.err;
      EXPECT_TRUE(c.type == S_IFREG || morvotest::Entries(real).empty());
    } else {
      EXPECT_EQ(1u, SetFiles(folder, "p").size());
    }
  }
}

}  // namespace
