#include "platform/safe_file.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "platform/gzip_member.h"
#include "platform/thread_cancel.h"
#include "platform/write_fully.h"
#include "support/temp_root.h"

namespace {

struct PlantCase {
  const char* what;
  void (*plant)(const std::string& dir);
  int result;  // 0: a descriptor
};

using Dir = const std::string&;

// clang-format off
const PlantCase kPlants[] = {
    {"nothing", [](Dir) {}, 0},
    {"a regular file", [](Dir d) { close(creat((d + "/out").c_str(), 0664)); }, 0},
    {"a link to a victim", [](Dir d) { symlink((d + "/victim").c_str(), (d + "/out").c_str()); }, -ELOOP},
    {"a dangling link", [](Dir d) { symlink((d + "/none").c_str(), (d + "/out").c_str()); }, -ELOOP},
    // The open that refuses a second name must not have truncated it first.
    {"a hard link to a victim", [](Dir d) { link((d + "/victim").c_str(), (d + "/out").c_str()); }, -EMLINK},
    {"a FIFO", [](Dir d) { mkfifo((d + "/out").c_str(), 0666); }, -ENXIO},
    {"a folder", [](Dir d) { mkdir((d + "/out").c_str(), 0775); }, -EISDIR},
    // Opens without blocking, but is not a regular file: refused after the open.
    {"a device", [](Dir d) { mknod((d + "/out").c_str(), S_IFCHR | 0666, makedev(1, 3)); }, -EINVAL},
};
// clang-format on

TEST(SafeFileTest, OpensOnlyARegularFileOfItsOwnName) {
  for (const PlantCase& c : kPlants) {
    SCOPED_TRACE(c.what);
    morvotest::TempRoot root;
    std::string dir = root.path();
    morvotest::WriteFile(dir + "/victim", "intact");
    c.plant(dir);
    struct stat planted;
    if (c.result == -EINVAL && lstat((dir + "/out").c_str(), &planted) != 0) {
      GTEST_SKIP() << "this machine cannot make a device node";
    }
    int fd = platform::OpenFile((dir + "/out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0664);
    if (c.result == 0) {
      ASSERT_GE(fd, 0);
      EXPECT_EQ(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
      EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD) & FD_CLOEXEC);
      close(fd);
    } else {
      EXPECT_EQ(c.result, fd);
    }
    EXPECT_EQ("intact", morvotest::ReadFile(dir + "/victim"));
  }
}

TEST(SafeFileTest, FolderLinksAreRefusedAndMadeFoldersReported) {
  morvotest::TempRoot root;
  std::string dir = root.path();
  bool created = false;
  int fd = platform::MakeFolder((dir + "/logs").c_str(), 0750, &created);
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(created);
  close(fd);
  fd = platform::MakeFolder((dir + "/logs").c_str(), 0750, &created);
  ASSERT_GE(fd, 0);
  EXPECT_FALSE(created);
  close(fd);
  ASSERT_EQ(0, symlink((dir + "/logs").c_str(), (dir + "/link").c_str()));
  // Linux answers a link opened as a folder without following with ENOTDIR.
  EXPECT_EQ(-ENOTDIR, platform::MakeFolder((dir + "/link").c_str(), 0750, &created));
  EXPECT_EQ(-ENOTDIR, platform::OpenFolder((dir + "/link").c_str()));
  EXPECT_EQ(-ENOTDIR, platform::OpenFile((dir + "/link/out").c_str(), O_WRONLY | O_CREAT, 0664));
  EXPECT_NE(0, access((dir + "/logs/out").c_str(), F_OK));
}

TEST(SafeFileTest, RefusalsSayWhy) {
  morvotest::TempRoot root;
  const std::string dir = root.path();
  const std::string longName(NAME_MAX + 1, 'n');
  const std::string deepPath = dir + std::string(PATH_MAX, '/') + "out";
  const struct {
    std::string path;
    int flags;
    int result;
  } kCases[] = {
      {dir + "/" + longName, O_WRONLY | O_CREAT, -ENAMETOOLONG},
      {deepPath, O_WRONLY | O_CREAT, -ENAMETOOLONG},
      {"out", O_WRONLY | O_CREAT, -EINVAL},
      {dir + "/", O_WRONLY | O_CREAT, -EINVAL},
      {dir + "/out", O_RDONLY, -EINVAL},
      {dir + "/out", O_WRONLY | O_CREAT | O_DIRECTORY, -EINVAL},
      {dir + "/none/out", O_WRONLY | O_CREAT, -ENOENT},
      {dir + "/out", O_WRONLY, -ENOENT},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.result, platform::OpenFile(c.path.c_str(), c.flags, 0664)) << c.path.substr(0, 80);
  }
  EXPECT_FALSE(morvotest::Exists(dir + "/out"));
}

TEST(SafeFileTest, WriteFullyGivesTheCauseAndThePartWritten) {
  morvotest::TempRoot root;
  int readOnly = open((root.path() + "/r").c_str(), O_RDONLY | O_CREAT, 0600);
  ASSERT_GE(readOnly, 0);
  size_t written = 1;
  EXPECT_EQ(-EBADF, platform::WriteFully(readOnly, "abc", 3, &written));
  EXPECT_EQ(0u, written);
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(-EBADF,
            platform::AppendGzipMember(readOnly, reinterpret_cast<const unsigned char*>("a"), 1));
  close(readOnly);
  int file = open((root.path() + "/w").c_str(), O_WRONLY | O_CREAT, 0600);
  EXPECT_EQ(3, platform::WriteFully(file, "abc", 3, &written));
  EXPECT_EQ(3u, written);
  close(file);
  // A full non-blocking pipe is waited on only until the thread is stopped.
  int fds[2];
  ASSERT_EQ(0, pipe2(fds, O_NONBLOCK));
  std::atomic<bool> stop{true};
  platform::WatchCancelFlag(&stop);
  std::string big(fcntl(fds[1], F_GETPIPE_SZ) + 100, 'x');
  EXPECT_EQ(-ECANCELED, platform::WriteFully(fds[1], big.data(), big.size(), &written));
  platform::WatchCancelFlag(nullptr);
  EXPECT_EQ(static_cast<size_t>(fcntl(fds[1], F_GETPIPE_SZ)), written);
  close(fds[0]);
  close(fds[1]);
}

TEST(SafeFileTest, SplitsPathsAtTheLastSlash) {
  struct {
    const char* path;
    bool ok;
    const char* folder;
    const char* name;
  } const kCases[] = {
      {"/data/log/x", true, "/data/log", "x"}, {"/x", true, "/", "x"},   {"x", false, "", ""},
      {"/data/log/", false, "", ""},           {nullptr, false, "", ""},
  };
  for (const auto& c : kCases) {
    std::string folder;
    std::string name;
    EXPECT_EQ(c.ok ? 0 : -EINVAL, platform::SplitPath(c.path, &folder, &name))
        << (c.path ? c.path : "null");
    if (c.ok) {
      EXPECT_EQ(c.folder, folder);
      EXPECT_EQ(c.name, name);
    }
  }
}

}  // namespace
