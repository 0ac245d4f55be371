// The group runner in each style: polled rows under their title row, the
// trigger's index check, polled FIFOs that never block, dumpsys passes, the
// kmsg-like stream and its partial last line, the input monitor writing
// through the sink, and the charger presence sequence.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
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
#include "support/temp_root.h"

namespace {

using grouptest::GroupRecord;
using grouptest::StderrCapture;
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
  // Stops a group whose thread runs for ever, as the collector's teardown does.
  static void Stop(Tavocat& group) {
    group.Cancel();
    group.Wait();
    EXPECT_TRUE(group.RunEnded());
  }
  morvotest::TempRoot root;
  std::string outputPath = "/data/log/g/out";
};

TEST_F(GroupRunner, APollWithoutIntervalWritesTheTitleRowAndOneRow) {
  WriteFile(root.Under("/sys/n/one"), "1");
  WriteFile(root.Under("/sys/n/one_head"), "One\n");
  WriteFile(root.Under("/sys/n/two"), "2\n");
  std::string time = "DateTime", timeTitle = "Time", one = "/sys/n/one",
              oneHead = "/sys/n/one_head", two = "/sys/n/two", twoTitle = "Two";
  TavocatInputNodeSetT empty{};
  TavocatInputNodeSetT second{0, Text(two), nullptr, Text(twoTitle), nullptr, &empty};
  TavocatInputNodeSetT first{4, Text(one), Text(oneHead), nullptr, nullptr, &second};
  TavocatInputNodeSetT stamp{23, Text(time), nullptr, Text(timeTitle), nullptr, &first};
  GroupRecord record(outputPath, POLL_NODE);
  record.group.inputSet = &stamp;
  Tavocat group(&record.group, FACTORY_WRITE);
  ASSERT_TRUE(group.Start());
  group.Wait();
  std::regex rows("^\nTime {19}One Two\n\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d >  1   2\n$");
  EXPECT_TRUE(std::regex_match(Output(), rows)) << Output();
}

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

TEST_F(GroupRunner, AStreamGroupStampsEachLineUntilStoppedThenHandsOverItsPartialLine) {
  root.MakeDirs("/proc");
  WriteFile(root.Under("/proc/kmsg"), "<6>boot\n<4>warn\n<3>no end");
  std::string kmsg = "/proc/kmsg";
  TavocatInputNodeSetT node{0, Text(kmsg), nullptr, nullptr, nullptr, nullptr};
  GroupRecord record(outputPath, MONITOR_NODE);
  record.group.inputSet = &node;
  Tavocat group(&record.group, FACTORY_WRITE);
  ASSERT_TRUE(group.Start());
  ASSERT_TRUE(grouptest::WaitFor([&] { return Output().find("<4>warn\n") != std::string::npos; }));
  Stop(group);
  group.FlushAll();
  std::regex lines("^[-0-9 :.]{19}<6>boot\n[-0-9 :.]{19}<4>warn\n[-0-9 :.]{19}<3>no end\n$");
  EXPECT_TRUE(std::regex_match(Output(), lines)) << Output();
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

TEST_F(GroupRunner, ACommandGroupRunsEachCommandEveryPass) {
  root.MakeDirs("/system/bin");
  std::string script = root.Under("/system/bin/dumpsys");
  WriteFile(script, "#!/bin/sh\necho \"state of $1\"\n");
  chmod(script.c_str(), 0755);
  std::string battery = "battery", power = "power";
  TavocatInputCmdSetT second{Text(power), nullptr};
  TavocatInputCmdSetT first{Text(battery), &second};
  GroupRecord record(outputPath, POLL_CMD);
  record.group.inputSet = &first;
  record.group.pollingInterval = 1;
  Tavocat group(&record.group, FACTORY_WRITE);
  ASSERT_TRUE(group.Start());
  ASSERT_TRUE(
      grouptest::WaitFor([&] { return grouptest::Count(Output(), "state of power") == 2; }));
  Stop(group);
  std::regex passes(
      "^(current time: <battery>[-0-9: ]+\r\nstate of battery\n"
      "current time: <power>[-0-9: ]+\r\nstate of power\n){2,3}$");
  EXPECT_TRUE(std::regex_match(Output(), passes)) << Output();
}

TEST_F(GroupRunner, AnInputGroupWritesEventsThroughItsSink) {
  signal(SIGPIPE, SIG_IGN);
  root.MakeDirs("/dev/input");
  std::string fifo = root.Under("/dev/input/event0");
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  std::string dir = "/dev/input", any;
  any.push_back('\0');
  TavocatStrListT pick{Text(any), nullptr};
  TavocatInputDirSetT dirSet{Text(dir), &pick};
  GroupRecord record(outputPath, MONITOR_DIR);
  record.group.inputSet = &dirSet;
  Tavocat group(&record.group, FACTORY_WRITE);
  ASSERT_TRUE(group.Start());
  int fd = -1;
  ASSERT_TRUE(grouptest::WaitFor([&] {
    fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
    return fd >= 0;
  }));
  ASSERT_TRUE(grouptest::Send(fd, {5, 6, 1, 114, 0}));
  ASSERT_TRUE(grouptest::Send(fd, {5, 7, 1, 116, 1}));
  ASSERT_TRUE(grouptest::WaitFor([&] { return Output().find("KEY_POWER") != std::string::npos; }));
  Stop(group);
  close(fd);
  std::regex text("^add device 1: " + fifo +
                  "\n  name:     \"\"\n"
                  "[-0-9 :]{15}\\[5\\.000006\\]  KEY_VOLUMEDOWN UP      \n "
                  "[-0-9 :]{15}\\[5\\.000007\\]  KEY_POWER DOWN    $");
  EXPECT_TRUE(std::regex_match(Output(), text)) << Output();
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

}  // namespace
