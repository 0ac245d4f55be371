// -f through the rotating writer: indexed .gz files, rotation, recovery, and refused paths.

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "morvocat/morvocat.h"
#include "platform/logger.h"
#include "support/file_tree.h"
#include "support/log_set.h"
#include "support/reader_run.h"
#include "support/small_fs.h"
#include "support/temp_root.h"

namespace {

using morvotest::Counting;
using morvotest::NodeAt;
using morvotest::RunCommand;
using morvotest::RunResult;
using morvotest::Sequence;
using morvotest::SetFiles;
using morvotest::SetText;

void WriteSeq(long from, long to) {
  for (long i = from; i < to; ++i) {
    qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "seq", ("seq " + std::to_string(i)).c_str());
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
  WriteSeq(0, kRecords);
  RunResult r = RunCommand({"-d", "-b", "morvo_main", "-f", Dir() + "/x", "-r", "16"});
  ASSERT_EQ(0, r.status) << r.err;
  std::vector<std::string> files = SetFiles(Dir(), "x");
  EXPECT_GT(files.size(), 300u);
  for (const std::string& f : files) {
    EXPECT_EQ(Dir().size() + 2 + 24, f.size()) << f;
    EXPECT_NE(morvotest::kBadGzip, morvotest::Zcat(f)) << f;
  }
  EXPECT_TRUE(Counting(0, kRecords) == Sequence(SetText(Dir(), "x")));
  EXPECT_FALSE(morvotest::Exists(Dir() + "/x"));
}

TEST_F(OutputFileTest, DividersAndLinesGoToTheFilesNotTheOutput) {
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "f", "seq 0");
  qd_log_write(LOG_ID_SYSTEM, QD_LOG_INFO, "f", "seq 1");
  RunResult r = RunCommand({"-d", "-f", Dir() + "/y"});
  EXPECT_EQ(0, r.status);
  EXPECT_EQ("", r.out);
  ASSERT_EQ(1u, SetFiles(Dir(), "y").size());
  std::string text = SetText(Dir(), "y");
  EXPECT_EQ(0u, text.find("--------- beginning of morvo_main\n"));
  EXPECT_NE(std::string::npos, text.find("--------- beginning of morvo_system\n"));
  EXPECT_TRUE(Counting(0, 2) == Sequence(text));
}

TEST_F(OutputFileTest, RestartRemovesPlainFilesAndContinuesTheSet) {
  std::string base = Dir() + "/z";
  const char* const kOld[] = {"", ".1", ".4", "-0.tar.gz", "-9.tar.gz"};
  for (const char* old : kOld) morvotest::WriteFile(base + old, "old");
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "f", "seq 0");
  ASSERT_EQ(0, RunCommand({"-d", "-b", "morvo_main", "-f", base}).status);
  ASSERT_EQ(0, RunCommand({"-d", "-b", "morvo_main", "-f", base}).status);
  for (const char* old : kOld) EXPECT_FALSE(morvotest::Exists(base + old)) << old;
  std::vector<std::string> files = SetFiles(Dir(), "z");
  ASSERT_EQ(2u, files.size());
  EXPECT_NE(std::string::npos, files[0].find(".I000."));
  EXPECT_NE(std::string::npos, files[1].find(".I001."));
}

// A read-only file system over dir holding an empty folder "out", in the caller's mount namespace.
bool ReadOnlyFolder(const std::string& dir) {
  mkdir(dir.c_str(), 0775);
  return morvotest::EnterPrivateMounts() &&
         mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=256k") == 0 &&
         mkdir((dir + "/out").c_str(), 0775) == 0 &&
         mount(nullptr, dir.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0;
}

// Reading on without an output would lose every line: the run ends with status 1 instead.
TEST_F(OutputFileTest, AnOutputThatCannotBeSetUpEndsTheRun) {
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "f", "nowhere to go");
  struct Case {
    std::string path;
    std::string message;
  } const kCases[] = {
      {Dir() + "/ro/out/app", ""},
      {"bare", "logFile path [bare] is invalid.\n"},
      {Dir() + "/missing/folder/f", "mkdir [" + Dir() + "/missing/folder] failed"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.path);
    auto run = [&] {
      RunResult r = RunCommand({"-d", "-b", "morvo_main", "-f", c.path});
      bool told = r.err.find("no output file can be written\n") != std::string::npos;
      return r.status != 1 ? 1 : !r.out.empty() ? 2 : told ? 0 : 3;
    };
    testing::internal::CaptureStderr();
    int status = c.message.empty() ? 0 : run() << 8;
    if (c.message.empty()) {  // the mount goes with the child's namespace
      pid_t child = fork();
      if (child == 0) _exit(ReadOnlyFolder(Dir() + "/ro") ? run() : 77);
      waitpid(child, &status, 0);
    }
    std::string told = testing::internal::GetCapturedStderr();
    if (WEXITSTATUS(status) == 77) {
      printf("cannot mount a read-only tmpfs here: row skipped\n");
      continue;
    }
    EXPECT_EQ(0, WEXITSTATUS(status)) << told;
    EXPECT_NE(std::string::npos, told.find(c.message)) << told;
    EXPECT_FALSE(morvotest::Exists("bare"));
  }
}

// The writer slot is the process's: a second -f run is refused, a run without -f leaves it alone.
TEST_F(OutputFileTest, OneFileWritingRunPerProcess) {
  android_logcat_context first = CreateAndroidLogcat();
  ASSERT_GE(morvotest::StartThread(first, {"-b", "morvo_main", "-f", Dir() + "/one"}), 0);
  WriteSeq(0, 1);
  usleep(100 * 1000);
  RunResult second = RunCommand({"-d", "-b", "morvo_main", "-f", Dir() + "/two"});
  EXPECT_EQ(1, second.status);
  EXPECT_NE(std::string::npos,
            second.err.find("another run of this process is writing output files\n"));
  EXPECT_FALSE(morvotest::Exists(Dir() + "/two"));
  RunResult beside = RunCommand({"-d", "-b", "morvo_main"});
  EXPECT_NE(std::string::npos, beside.out.find("seq 0")) << beside.out;
  WriteSeq(1, 2);
  usleep(100 * 1000);
  EXPECT_EQ(0, AndroidLogcatDestroy(&first));
  EXPECT_TRUE(Counting(0, 2) == Sequence(SetText(Dir(), "one")));
}

// Ctrl-C/SIGTERM: the set holds every record; a killed run's records are recovered by the next run.
TEST_F(OutputFileTest, AStoppedOrKilledFrontEndLosesNothingItHadTaken) {
  constexpr long kRecords = 5000;
  for (int sig : {SIGINT, SIGTERM, SIGKILL}) {
    SCOPED_TRACE(strsignal(sig));
    std::string dir = Dir() + "/" + std::to_string(sig);
    pid_t child = morvotest::StartFrontEnd({"-b", "morvo_main", "-f", dir + "/k"});
    ASSERT_GT(child, 0);
    WriteSeq(0, kRecords);
    usleep(500 * 1000);  // the run has handed the whole ring to its writer
    kill(child, sig);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == sig) << status;
    EXPECT_TRUE(sig == SIGKILL || Counting(0, kRecords) == Sequence(SetText(dir, "k")));
    ASSERT_EQ(0, RunCommand({"-c", "-b", "morvo_main"}).status);
    qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "k", "after the restart");
    ASSERT_EQ(0, RunCommand({"-d", "-b", "morvo_main", "-f", dir + "/k"}).status);
    std::string all = SetText(dir, "k");
    EXPECT_TRUE(Counting(0, kRecords) == Sequence(all));
    EXPECT_NE(std::string::npos, all.find("after the restart"));
  }
}

// Things that are no regular file, planted at the output path; false where they cannot be made.
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
    {"socket", [](const std::string& p,
                  const std::string&) { return mknod(p.c_str(), S_IFSOCK | 0666, 0) == 0; }},
    // A second name of the victim: the run may take the name away, never write through it.
    {"hard link",
     [](const std::string& p, const std::string& v) { return link(v.c_str(), p.c_str()) == 0; }},
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
    RunResult r = RunCommand({"-d", "-b", "morvo_main", "-f", path});
    EXPECT_EQ("precious\n", morvotest::ReadFile(victim));
    if (S_ISREG(before.mode)) continue;
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
    // Made by the run, or the system user's with its mode repaired.
    {"missing", 0, 0, 0, 0, 0775, kSystem, nullptr},
    {"system's", S_IFDIR, 0700, kSystem, 0, 0775, kSystem, nullptr},
    // Not the reader's to take over ("-f /dev/x", "-f /etc/x"): written as it is.
    {"root's", S_IFDIR, 0755, 0, 0, 0755, 0, nullptr},
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
    ASSERT_TRUE((c.type != S_IFDIR && c.type != S_IFLNK) || mkdir(real.c_str(), 0700) == 0);
    ASSERT_TRUE(c.type != S_IFLNK || symlink(real.c_str(), folder.c_str()) == 0);
    if (c.type != 0) {
      ASSERT_EQ(0, chmod(real.c_str(), c.mode));
      ASSERT_EQ(0, chown(real.c_str(), c.owner, c.owner));
    }
    RunResult r = RunCommand({"-d", "-b", "morvo_main", "-f", folder + "/p"});
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

// Holds every open of the folder dir until it is answered, or -1 where the machine has no watch.
int WatchFolderOpens(const std::string& dir) {
  int watch = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
  if (watch >= 0 &&
      fanotify_mark(watch, FAN_MARK_ADD, FAN_OPEN_PERM | FAN_ONDIR, AT_FDCWD, dir.c_str()) != 0) {
    close(watch);
    return -1;
  }
  return watch;
}

// The name of a file of set "gone" in dirFd, or "" (opening the folder again would wait).
std::string SetFileIn(int dirFd) {
  DIR* d = fdopendir(dup(dirFd));
  if (d != nullptr) rewinddir(d);  // the offset is shared with dirFd
  std::string name;
  for (dirent* e; d != nullptr && name.empty() && (e = readdir(d)) != nullptr;) {
    if (strncmp(e->d_name, "gone.I", 6) == 0) name = e->d_name;
  }
  if (d != nullptr) closedir(d);
  return name;
}

// Answers the watch until the first file is deleted, then closes it.
bool DeleteFirstFileBeforeItIsLookedFor(int watch, int dirFd) {
  bool deleted = false;
  pollfd p = {watch, POLLIN, 0};
  while (!deleted && poll(&p, 1, 5000) == 1) {
    alignas(fanotify_event_metadata) char buf[4096];
    ssize_t n = read(watch, buf, sizeof(buf));
    auto* e = reinterpret_cast<fanotify_event_metadata*>(buf);
    for (; FAN_EVENT_OK(e, n); e = FAN_EVENT_NEXT(e, n)) {
      std::string name = deleted ? "" : SetFileIn(dirFd);
      if (!name.empty() && faccessat(dirFd, ".gone.tavocache", F_OK, AT_SYMLINK_NOFOLLOW) == 0) {
        deleted = unlinkat(dirFd, name.c_str(), 0) == 0;
      }
      fanotify_response answer = {e->fd, FAN_ALLOW};
      if (write(watch, &answer, sizeof(answer)) != sizeof(answer)) perror("fanotify answer");
      close(e->fd);
    }
  }
  close(watch);  // lets every later open through
  close(dirFd);
  return deleted;
}

// What the run writes into goes while records come: the run makes it again, or uses root's.
TEST_F(OutputFileTest, WhatIsDeletedWhileWrittenIsRecreatedAndNothingIsLost) {
  struct Case {
    const char* what;
    bool folder;     // the folder goes too
    bool rootsBack;  // root makes it again at once, mode 0755
    mode_t modeAfter;
    uid_t ownerAfter;
  } const kCases[] = {
      {"first file", false, false, 0775, kSystem},
      {"folder", true, false, 0775, kSystem},
      {"folder made again by root", true, true, 0755, 0},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(0, RunCommand({"-c", "-b", "morvo_main"}).status);
    std::string dir = Dir() + "/" + c.what;
    int watch = -1;
    int dirFd = -1;
    if (!c.folder) {
      ASSERT_EQ(0, mkdir(dir.c_str(), 0775));
      ASSERT_EQ(0, chown(dir.c_str(), kSystem, kSystem));
      dirFd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      watch = WatchFolderOpens(dir);
      if (watch < 0) {
        printf("no fanotify permission events here (%s): row skipped\n", strerror(errno));
        close(dirFd);
        continue;
      }
    }
    android_logcat_context ctx = CreateAndroidLogcat();
    ASSERT_GE(morvotest::StartThread(ctx, {"-b", "morvo_main", "-f", dir + "/gone"}), 0);
    qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "g", "before the deletion");
    std::atomic<bool> deleted{false};
    std::thread deleter;
    if (c.folder) {
      ASSERT_TRUE(morvotest::Within(5, [&] { return SetFiles(dir, "gone").size() == 1; }));
      usleep(100 * 1000);  // the run is done making it and waits for records
      ASSERT_TRUE(morvotest::Within(5, [&] {
        for (const std::string& name : morvotest::Entries(dir)) unlink((dir + "/" + name).c_str());
        return rmdir(dir.c_str()) == 0;
      }));
      ASSERT_TRUE(!c.rootsBack || (mkdir(dir.c_str(), 0755) == 0 && chmod(dir.c_str(), 0755) == 0));
      deleted = true;
    } else {
      deleter = std::thread([&] { deleted = DeleteFirstFileBeforeItIsLookedFor(watch, dirFd); });
    }
    // Records keep coming until the run has noticed and made a new file.
    long written = 0;
    for (; written < 5000 && (!deleted || SetFiles(dir, "gone").empty()); ++written) {
      WriteSeq(written, written + 1);
      usleep(1000);
    }
    if (deleter.joinable()) deleter.join();
    ASSERT_TRUE(deleted);
    ASSERT_TRUE(morvotest::Within(5, [&] { return SetFiles(dir, "gone").size() == 1; }));
    // Destroy stops the run at once: it must have read the records first.
    usleep(100 * 1000);
    EXPECT_EQ(0, AndroidLogcatDestroy(&ctx));
    ASSERT_EQ(1u, SetFiles(dir, "gone").size());
    std::string text = SetText(dir, "gone");
    // What was cached when the file went is written into its successor.
    EXPECT_NE(std::string::npos, text.find("before the deletion")) << text;
    EXPECT_TRUE(Counting(0, written) == Sequence(text));
    struct stat st;
    ASSERT_EQ(0, stat(dir.c_str(), &st));
    EXPECT_EQ(c.modeAfter, st.st_mode & 07777);
    EXPECT_EQ(c.ownerAfter, st.st_uid);
  }
}

}  // namespace
