// A group built under a temporary root never reaches the device's own paths:
// neither its output nor its nodes are taken as written, even when the root
// leaves no room for them.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "collector/group_support.h"
#include "collector/tavocat.h"
#include "platform/root_path.h"
#include "support/temp_root.h"

namespace {

using grouptest::GroupRecord;
using morvotest::Exists;
using morvotest::ReadFile;
using morvotest::WriteFile;

// Standard output of a group without a usable output path, kept off the
// test's own.
class StdoutToFile {
 public:
  explicit StdoutToFile(const std::string& path) {
    fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(fd, STDOUT_FILENO);
    close(fd);
  }
  ~StdoutToFile() {
    fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
  }

 private:
  int saved_;
};

TEST(DevicePathTest, AGroupUnderATemporaryRootNeverTouchesTheDevicePath) {
  // "device" stands for the device's own tree: the group's configured paths
  // name it, and it must stay as it is.
  morvotest::TempRoot device;
  device.MakeDirs("/sys");
  WriteFile(device.Under("/sys/n"), "device\n");
  const std::string output = device.Under("/out/log");
  const std::string node = device.Under("/sys/n");
  const std::string tooLong = "/tmp/" + std::string(PATH_MAX - 5 - output.size() / 2, 'r');
  const struct {
    bool fits;
    TavoCommon::TypeWrite mode;
  } kCases[] = {
      {true, TavoCommon::FACTORY_WRITE},
      {true, TavoCommon::MMAP_WRITE},
      {false, TavoCommon::FACTORY_WRITE},
      {false, TavoCommon::MMAP_WRITE},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.fits ? "root" : "too long a root") + " mode " +
                 std::to_string(c.mode));
    morvotest::TempRoot root;
    if (c.fits) {
      root.MakeDirs(device.Under("/sys"));
      WriteFile(root.Under(node), "rooted\n");
    } else {
      setenv(platform::kRootEnv, tooLong.c_str(), 1);
    }
    std::string nodePath = node;
    TavoCommon::TavocatInputNodeSetT polled{0, &nodePath[0], nullptr, nullptr, nullptr, nullptr};
    GroupRecord record(output, TavoCommon::POLL_NODE);
    record.group.inputSet = &polled;
    std::string shown = root.path() + "/stdout";
    {
      StdoutToFile quiet(shown);
      Tavocat group(&record.group, c.mode);
      ASSERT_TRUE(group.Start());
      group.Wait();
      group.FlushAll();
    }
    EXPECT_FALSE(Exists(device.Under("/out"))) << "the group wrote into the device's folder";
    EXPECT_EQ("device\n", ReadFile(node));
    EXPECT_EQ(std::string::npos, ReadFile(shown).find("device")) << "the device's node was read";
    if (c.fits) {
      EXPECT_TRUE(Exists(root.Under(device.Under("/out")))) << root.Under(output);
    }
  }
}

}  // namespace
