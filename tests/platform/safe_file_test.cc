#include "platform/safe_file.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/temp_root.h"

namespace {

std::string ReadAll(const std::string& path) {
  std::string text;
  int fd = open(path.c_str(), O_RDONLY);
  char buf[256];
  ssize_t n;
  while (fd >= 0 && (n = read(fd, buf, sizeof(buf))) > 0) text.append(buf, static_cast<size_t>(n));
  if (fd >= 0) close(fd);
  return text;
}

// What sits at the output name before the open, and what the open answers.
struct PlantCase {
  const char* what;
  void (*plant)(const std::string& dir);
  int result;  // 0: a descriptor
};

const PlantCase kPlants[] = {
    {"nothing", [](const std::string&) {}, 0},
    {"a regular file", [](const std::string& d) { close(creat((d + "/out").c_str(), 0664)); }, 0},
    {"a link to a victim",
     [](const std::string& d) { symlink((d + "/victim").c_str(), (d + "/out").c_str()); }, -ELOOP},
    {"a dangling link",
     [](const std::string& d) { symlink((d + "/none").c_str(), (d + "/out").c_str()); }, -ELOOP},
    {"a hard link to a victim",
     [](const std::string& d) { link((d + "/victim").c_str(), (d + "/out").c_str()); }, -EMLINK},
    {"a FIFO", [](const std::string& d) { mkfifo((d + "/out").c_str(), 0666); }, -ENXIO},
    {"a folder", [](const std::string& d) { mkdir((d + "/out").c_str(), 0775); }, -EISDIR},
};

TEST(SafeFileTest, OpensOnlyARegularFileOfItsOwnName) {
  for (const PlantCase& c : kPlants) {
    SCOPED_TRACE(c.what);
    morvotest::TempRoot root;
    std::string dir = root.path();
    int victim = open((dir + "/victim").c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_EQ(6, write(victim, "intact", 6));
    close(victim);
    c.plant(dir);
    int fd = platform::OpenFile((dir + "/out").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0664);
    if (c.result == 0) {
      ASSERT_GE(fd, 0);
      EXPECT_EQ(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
      EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD) & FD_CLOEXEC);
      close(fd);
    } else {
      EXPECT_EQ(c.result, fd);
    }
    EXPECT_EQ("intact", ReadAll(dir + "/victim"));
  }
}

// Truncation comes after the checks: a second name planted at the output
// must not be emptied by the open that refuses it.
TEST(SafeFileTest, TruncationNeverReachesAFileUnderASecondName) {
  morvotest::TempRoot root;
  std::string dir = root.path();
  int victim = open((dir + "/victim").c_str(), O_WRONLY | O_CREAT, 0600);
  ASSERT_EQ(6, write(victim, "intact", 6));
  close(victim);
  ASSERT_EQ(0, link((dir + "/victim").c_str(), (dir + "/out").c_str()));
  EXPECT_EQ(-EMLINK,
            platform::OpenFile((dir + "/out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0664));
  EXPECT_EQ("intact", ReadAll(dir + "/victim"));
  unlink((dir + "/out").c_str());
  close(creat((dir + "/out").c_str(), 0664));
  int fd = platform::OpenFile((dir + "/out").c_str(), O_WRONLY | O_TRUNC, 0664);
  ASSERT_GE(fd, 0);
  close(fd);
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
  EXPECT_LT(platform::MakeFolder((dir + "/link").c_str(), 0750, &created), 0);
  EXPECT_LT(platform::OpenFile((dir + "/link/out").c_str(), O_WRONLY | O_CREAT, 0664), 0);
  EXPECT_NE(0, access((dir + "/logs/out").c_str(), F_OK));
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
    EXPECT_EQ(c.ok, platform::SplitPath(c.path, &folder, &name)) << (c.path ? c.path : "null");
    if (c.ok) {
      EXPECT_EQ(c.folder, folder);
      EXPECT_EQ(c.name, name);
    }
  }
}

}  // namespace
