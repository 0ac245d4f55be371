#ifndef MORVOCAT_TESTS_SUPPORT_PLANTED_H_
#define MORVOCAT_TESTS_SUPPORT_PLANTED_H_

// What a local user can put in a log folder to make a root writer act
// outside it: links, FIFOs and a "chown" early on PATH, and the files and
// folders outside the tree that must stay as they were.

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

// A file or folder outside the tree: owned by nobody, mode 0600 (0700 for a
// folder), holding "secret".
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

// Mode and owner as made, and for a file its text; a folder holds only
// the names in kept.
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

// What is put where the writer's next file will be.
enum class Plant { SYMLINK, HARD_LINK, FIFO, DANGLING_LINK };

inline const char* NameOf(Plant plant) {
  static const char* const kNames[] = {"link to a file outside", "hard link to a file outside",
                                       "FIFO", "link to a missing file outside"};
  return kNames[static_cast<int>(plant)];
}

// victim is an existing file outside the tree; a dangling link points at
// victim + ".new".
inline void PlantAt(const std::string& path, Plant plant, const std::string& victim) {
  int rc = plant == Plant::SYMLINK         ? symlink(victim.c_str(), path.c_str())
           : plant == Plant::HARD_LINK     ? link(victim.c_str(), path.c_str())
           : plant == Plant::DANGLING_LINK ? symlink((victim + ".new").c_str(), path.c_str())
                                           : mkfifo(path.c_str(), 0666);
  ASSERT_EQ(rc, 0) << path;
}

// The set names base.Innn.stamp.gz that index gets when opened within the
// next few seconds.
inline std::vector<std::string> ComingSetNames(const std::string& base, int index) {
  std::vector<std::string> names;
  time_t now = time(nullptr);
  for (time_t at = now; at < now + 3; ++at) {
    struct tm local;
    char stamp[32];
    localtime_r(&at, &local);
    strftime(stamp, sizeof(stamp), "%Y%m%d-%H%M%S", &local);
    char tag[16];
    snprintf(tag, sizeof(tag), ".I%03d.", index);
    names.push_back(base + tag + stamp + ".gz");
  }
  return names;
}

// A regular file of one name, as the writer makes its own.
inline void ExpectOwnFile(const std::string& path, mode_t mode) {
  struct stat st;
  ASSERT_EQ(lstat(path.c_str(), &st), 0) << path;
  EXPECT_TRUE(S_ISREG(st.st_mode)) << path;
  EXPECT_EQ(st.st_nlink, 1u) << path;
  EXPECT_EQ(st.st_mode & 07777, mode) << path;
  EXPECT_EQ(st.st_uid, 0u) << path;
}

// A "chown" first on PATH that leaves a marker when it runs: a root
// process must never run a program found through PATH.
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

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_PLANTED_H_
