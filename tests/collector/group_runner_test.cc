// The group runner's rows and ends that the collector's own runs do not
// reach, and a group under a temporary root that never reaches the device's.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <regex>
#include <string>
#include <thread>

#include "collector/charger_event.h"
#include "collector/group_support.h"
#include "collector/tavocat.h"
#include "platform/root_path.h"
#include "support/temp_root.h"

namespace {

using grouptest::GroupRecord;
using grouptest::StderrCapture;
using morvotest::Exists;
using morvotest::ReadFile;
using morvotest::WriteFile;
using namespace TavoCommon;

char* Text(std::string& s) { return &s[0]; }

class GroupRunner : public ::testing::Test {
 protected:
  GroupRunner() {
    root.MakeDirs("/sys/n");
    root.MakeDirs("/data/log/g");
  }
  std::string Output() { return ReadFile(root.Under("/data/log/g/out")); }
  morvotest::TempRoot root;
  std::string outputPath = "/data/log/g/out";
};

TEST_F(GroupRunner, NodesWithoutTitlesOrSourcesStillEndTheRow) {
  WriteFile(root.Under("/sys/n/alt"), "9\n");
  std::string current = "CurrentTime", missing = "/sys/n/none", alt = "/sys/n/alt";
  TavocatStrListT alternative{Text(alt), nullptr};
  TavocatStrListT alternatives{Text(missing), &alternative};
  TavocatInputNodeSetT last{3, nullptr, nullptr, nullptr, &alternatives, nullptr};
  TavocatInputNodeSetT nothing{5, nullptr, nullptr, nullptr, nullptr, &last};
  TavocatInputNodeSetT now{0, Text(current), nullptr, nullptr, nullptr, &nothing};
  GroupRecord record(outputPath, POLL_NODE);
  record.group.inputSet = &now;
  Tavocat group(&record.group, FACTORY_WRITE);
  EXPECT_EQ("", Output());
  EXPECT_EQ(0, group.PollNode());
  std::regex row("^\ncurrent time: \\d{4}-\\d{1,2}-\\d{1,2} \\d{1,2}:\\d{1,2}:\\d{1,2}\r\n9  \n$");
  EXPECT_TRUE(std::regex_match(Output(), row)) << Output();
}

TEST_F(GroupRunner, ATriggerWithAnUnknownIndexEndsAfterItsTitleRow) {
  std::string title = "Type";
  TavocatInputNodeSetT node{6, nullptr, nullptr, Text(title), nullptr, nullptr};
  GroupRecord record(outputPath, COND_TRIGGER);
  record.group.inputSet = &node;
  record.group.condIndex = 1;
  Tavocat group(&record.group, FACTORY_WRITE);
  StderrCapture err;
  ASSERT_TRUE(group.Start());
  group.Wait();
  EXPECT_EQ("invalid index!!\n", err.Text());
  EXPECT_EQ("\nType  \n", Output());
}

TEST_F(GroupRunner, OtherStylesAndMissingSourcesEndAtOnce) {
  GroupRecord none(outputPath, LOG_STYLE_NONE);
  Tavocat idle(&none.group, FACTORY_WRITE);
  ASSERT_TRUE(idle.Start());
  idle.Wait();
  GroupRecord stream(outputPath, MONITOR_NODE);
  Tavocat noStream(&stream.group, FACTORY_WRITE);
  EXPECT_EQ(1, noStream.MonitorNode());
  GroupRecord input(outputPath, MONITOR_DIR);
  Tavocat noDir(&input.group, FACTORY_WRITE);
  noDir.MonitorDir();
  EXPECT_EQ("", Output());
}

// Nodes read at each poll are opened without waiting: a FIFO with no writer
// (as data or as title) reads as empty instead of holding the group.
TEST_F(GroupRunner, APolledFifoWithoutAWriterReadsAsEmpty) {
  std::string fifo = root.Under("/sys/n/fifo");
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  std::string path = "/sys/n/fifo";
  TavocatInputNodeSetT node{10, Text(path), Text(path), nullptr, nullptr, nullptr};
  std::atomic<bool> done{false};
  std::thread poller([&] {
    GroupRecord record(outputPath, POLL_NODE);
    record.group.inputSet = &node;
    Tavocat group(&record.group, FACTORY_WRITE);
    group.PollNode();
    done = true;
  });
  bool finished = grouptest::WaitFor([&] { return done.load(); });
  // Hang guard: a blocked open is let go by a writer that comes and goes.
  while (!done) {
    int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
    if (fd >= 0) close(fd);
    usleep(20000);
  }
  poller.join();
  EXPECT_TRUE(finished);
  EXPECT_EQ("\nRead Fail \nRead Fail \n", Output());
}

TEST(PollingDateTime, FormatsTheLocalTimeOrNothing) {
  char out[64];
  Tavocat::PollingDateTime("%.4d-%.2d-%.2d %.2d:%.2d:%.2d > ", out, sizeof(out));
  EXPECT_TRUE(std::regex_match(out, std::regex("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d > ")))
      << out;
  char small[8];
  Tavocat::PollingDateTime("%.4d-%.2d-%.2d %.2d:%.2d:%.2d > ", small, sizeof(small));
  EXPECT_STREQ("", small);
}

TEST(ChargerEvent, PresenceChangesAreReportedOncePerChange) {
  morvotest::TempRoot root;
  root.MakeDirs("/sys/class/qd_power/charger/charge_data");
  std::string node = root.Under("/sys/class/qd_power/charger/charge_data/chargerType");
  EXPECT_FALSE(ChargerTypeChanged());
  const struct {
    const char* type;
    bool changed;
  } kSequence[] = {{"5", false}, {"5\n", false}, {"1", true},   {"1", false},
                   {"5", true},  {"-1", false},  {"abc", true}, {"4", false}};
  for (const auto& step : kSequence) {
    WriteFile(node, step.type);
    EXPECT_EQ(step.changed, ChargerTypeChanged()) << step.type;
  }
  WriteFile(node, "5");
  EXPECT_TRUE(ChargerTypeChanged());
}

TEST(ChargerEvent, AMissingEventNodeReportsNoChange) {
  morvotest::TempRoot root;
  root.MakeDirs("/sys/class/qd_power/charger/charge_data");
  WriteFile(root.Under("/sys/class/qd_power/charger/charge_data/chargerType"), "1");
  EXPECT_FALSE(ChargerEventChanged());
}

// Neither the output nor the nodes of a group under a temporary root are
// taken as written, even when the root leaves no room for them.
TEST(DevicePathTest, AGroupUnderATemporaryRootNeverTouchesTheDevicePath) {
  // The device's own tree: the group's configured paths name it.
  morvotest::TempRoot device;
  device.MakeDirs("/sys");
  WriteFile(device.Under("/sys/n"), "device\n");
  const std::string output = device.Under("/out/log");
  const std::string node = device.Under("/sys/n");
  const std::string tooLong = "/tmp/" + std::string(PATH_MAX - 5 - output.size() / 2, 'r');
  for (int row = 0; row < 4; ++row) {
    const bool fits = row < 2;
    const TypeWrite mode = row % 2 == 0 ? FACTORY_WRITE : MMAP_WRITE;
    SCOPED_TRACE(std::string(fits ? "root" : "too long a root") + " mode " + std::to_string(mode));
    morvotest::TempRoot root;
    if (fits) {
      root.MakeDirs(device.Under("/sys"));
      WriteFile(root.Under(node), "rooted\n");
    } else {
      setenv(platform::kRootEnv, tooLong.c_str(), 1);
    }
    std::string nodePath = node;
    TavocatInputNodeSetT polled{0, &nodePath[0], nullptr, nullptr, nullptr, nullptr};
    GroupRecord record(output, POLL_NODE);
    record.group.inputSet = &polled;
    // A group without a usable output path writes to standard output.
    testing::internal::CaptureStdout();
    {
      Tavocat group(&record.group, mode);
      EXPECT_TRUE(group.Start());
      group.Wait();
      group.FlushAll();
    }
    const std::string shown = testing::internal::GetCapturedStdout();
    EXPECT_FALSE(Exists(device.Under("/out"))) << "the group wrote into the device's folder";
    EXPECT_EQ("device\n", ReadFile(node));
    EXPECT_EQ(std::string::npos, shown.find("device")) << "the device's node was read";
    if (fits) {
      EXPECT_TRUE(Exists(root.Under(device.Under("/out")))) << root.Under(output);
    }
  }
}

}  // namespace
