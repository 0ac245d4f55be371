#ifndef MORVOCAT_TESTS_SUPPORT_PLANTED_H_
#define MORVOCAT_TESTS_SUPPORT_PLANTED_H_

// What a local user can plant to make a root writer act outside the log folder, and victims.

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/file_tree.h"
#include "support/temp_root.h"

namespace morvotest {

constexpr uid_t kNobody = 65534;

// Owned by nobody, mode 0600 (0700 for a folder), a file holding "secret".
inline void MakeVictim(const std::string& path) {
  WriteFile(path, "secret");
  chmod(path.c_str(), 0600);
  if (chown(path.c_str(), kNobody, kNobody) != 0) perror("chown victim");
}

inline void MakeVictimFolder(const std::string& path) {
  mkdir(path.c_str(), 0700);
  chmod(path.c_str(), 0700);
  if (chown(path.c_str(), kNobody, kNobody) != 0) perror("chown victim folder");
}

// As made; a folder holds only the names in kept.
inline void ExpectUntouched(const std::string& path, const std::vector<std::string>& kept = {}) {
  struct stat st;
  ASSERT_EQ(lstat(path.c_str(), &st), 0) << path;
  EXPECT_EQ(st.st_uid, kNobody) << path;
  EXPECT_EQ(st.st_gid, kNobody) << path;
  if (S_ISDIR(st.st_mode)) {
    EXPECT_EQ(st.st_mode & 07777, 0700u) << path;
    std::vector<std::string> names = Entries(path);
    std::vector<std::string> expected = kept;
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(names, expected) << path << ": something was made in it";
  } else {
    EXPECT_EQ(st.st_mode & 07777, 0600u) << path;
    EXPECT_EQ(ReadFile(path), "secret") << path;
  }
}

enum class Plant { SYMLINK, HARD_LINK, FIFO, DANGLING_LINK };

inline const char* NameOf(Plant plant) {
  static const char* const kNames[] = {"link to a file outside", "hard link to a file outside",
                                       "FIFO", "link to a missing file outside"};
  return kNames[static_cast<int>(plant)];
}

// A dangling link points at victim + ".new".
inline void PlantAt(const std::string& path, Plant plant, const std::string& victim) {
  int rc = plant == Plant::SYMLINK         ? symlink(victim.c_str(), path.c_str())
           : plant == Plant::HARD_LINK     ? link(victim.c_str(), path.c_str())
           : plant == Plant::DANGLING_LINK ? symlink((victim + ".new").c_str(), path.c_str())
                                           : mkfifo(path.c_str(), 0666);
  ASSERT_EQ(rc, 0) << path;
}

// The names base.Innn.stamp.gz that index gets when opened within a few seconds.
inline std::vector<std::string> ComingSetNames(const std::string& base, int index) {
  std::vector<std::string> names;
  time_t now = time(nullptr);
  for (time_t at = now; at < now + 3; ++at) {
    char tag[16];
    snprintf(tag, sizeof(tag), ".I%03d.", index);
    names.push_back(base + tag + TimeText(at) + ".gz");
  }
  return names;
}

inline void ExpectOwnFile(const std::string& path, mode_t mode) {
  struct stat st;
  ASSERT_EQ(lstat(path.c_str(), &st), 0) << path;
  EXPECT_TRUE(S_ISREG(st.st_mode)) << path;
  EXPECT_EQ(st.st_nlink, 1u) << path;
  EXPECT_EQ(st.st_mode & 07777, mode) << path;
  EXPECT_EQ(st.st_uid, 0u) << path;
}

// A "chown" first on PATH that leaves a marker: root never runs a program found so.
class FakeChownOnPath {
 public:
  explicit FakeChownOnPath(const std::string& dir)
      : bin_(dir + "/fakebin"), marker_(dir + "/chown_ran") {
    mkdir(bin_.c_str(), 0755);
    WriteFile(bin_ + "/chown", "#!/bin/sh\ntouch '" + marker_ + "'\n");
    chmod((bin_ + "/chown").c_str(), 0755);
    const char* path = getenv("PATH");
    oldPath_ = path != nullptr ? path : "/usr/bin:/bin";
    setenv("PATH", (bin_ + ":" + oldPath_).c_str(), 1);
  }
  ~FakeChownOnPath() { setenv("PATH", oldPath_.c_str(), 1); }
  FakeChownOnPath(const FakeChownOnPath&) = delete;
  FakeChownOnPath& operator=(const FakeChownOnPath&) = delete;

  bool Ran() const { return Exists(marker_); }

 private:
  std::string bin_;
  std::string marker_;
  std::string oldPath_;
};

// A log folder under a fresh root with a base path; ksv_log too, or a monitor writes to stderr.
class LogFolderTest : public ::testing::Test {
 protected:
  // folder is a device path; the base path is folder/name.
  explicit LogFolderTest(const std::string& folder = "/data/log",
                         const std::string& name = "applog") {
    root_.MakeDirs("/data/log/ksv_log");
    root_.MakeDirs(folder);
    dir_ = root_.Under(folder);
    base_ = dir_ + "/" + name;
  }

  void Clear() const {
    for (const std::string& name : Entries(dir_)) unlink((dir_ + "/" + name).c_str());
  }

  TempRoot root_;
  std::string dir_;
  std::string base_;
};

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_PLANTED_H_
