#include "collector/input_monitor.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <regex>
#include <string>

#include "collector/event_labels.h"
#include "collector/group_support.h"
#include "support/temp_root.h"

namespace {

using morvotest::WriteFile;
using TavoCommon::TavocatStrListT;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

struct Collected {
  std::mutex mu;
  std::string text;
  int writes = 0;
  static int Write(void* self, const char* text, size_t length, bool endsRecord) {
    auto* c = static_cast<Collected*>(self);
    std::lock_guard<std::mutex> lock(c->mu);
    c->text.append(text, length);
    ++c->writes;
    return endsRecord ? 0 : 1;
  }
  std::string Text() {
    std::lock_guard<std::mutex> lock(mu);
    return text;
  }
};

int OpenWhenHeld(const std::string& path) {
  int fd = -1;
  grouptest::WaitFor([&] {
    fd = open(path.c_str(), O_WRONLY | O_NONBLOCK);
    return fd >= 0;
  });
  return fd;
}

TEST(InputMonitorPick, NamesMatchOverElevenCharactersIgnoringCase) {
  char upper[] = "GPIO-KEYS";
  char shorter[] = "gpio-key";
  char longer[] = "Touchscreen-panel-9";
  TavocatStrListT third{longer, nullptr};
  TavocatStrListT second{shorter, &third};
  TavocatStrListT nullEntry{nullptr, &second};
  EXPECT_FALSE(InputMonitor::IsPicked("gpio-keys", &second));
  TavocatStrListT first{upper, &nullEntry};
  EXPECT_TRUE(InputMonitor::IsPicked("gpio-keys", &first));
  EXPECT_TRUE(InputMonitor::IsPicked("touchscreen-other", &first));
  EXPECT_FALSE(InputMonitor::IsPicked("touchscree", &first));
  EXPECT_FALSE(InputMonitor::IsPicked("gpio-keys", nullptr));
}

class InputMonitorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    root.MakeDirs("/dev/input");
  }
  void Start() {
    thread.reset(new grouptest::GroupThread([this] { monitor.Run(dir.c_str(), &pick); }));
    ASSERT_TRUE(thread->started());
  }
  void Stop() { thread.reset(); }
  std::string Flushed() {
    monitor.MonitorFlush();
    return collected.Text();
  }
  bool NewDeviceIsRecorded(const std::string& name) {
    std::string path = dir + "/" + name;
    if (mkfifo(path.c_str(), 0600) != 0) return false;
    int fd = OpenWhenHeld(path);
    if (fd < 0) return false;
    EXPECT_TRUE(grouptest::Send(fd, {7, 0, 1, 116, 1}));
    close(fd);
    return grouptest::WaitFor(
        [&] { return collected.Text().find("[7.000000]  KEY_POWER DOWN") != std::string::npos; });
  }
  morvotest::TempRoot root;
  const std::string dir = root.Under("/dev/input");
  char any[1] = {'\0'};
  TavocatStrListT pick{any, nullptr};
  Collected collected;
  InputMonitor monitor{&Collected::Write, &collected};
  std::unique_ptr<grouptest::GroupThread> thread;
};

TEST_F(InputMonitorTest, CodesAndValuesUseShortNamesLabelsOrHex) {
  ASSERT_TRUE(monitor.AllocateBuffers());
  monitor.MonitorPrintEvent(3, 53, 0x10);
  monitor.MonitorPrintEvent(3, 55, 1);
  monitor.MonitorPrintEvent(9, 5, -1);
  monitor.MonitorPrintEvent(0, 0, 0);
  monitor.MonitorPrintEvent(3, 0x3a, 7);
  EXPECT_EQ(0, collected.writes);
  EXPECT_EQ(" X 00000010 ABS_MT_TOOL_TYPE MT_TOOL_ 0005 ffffffff S 00000000 P 00000007", Flushed());
}

TEST_F(InputMonitorTest, OnlyThePowerKeyIsHandedOverAtOnce) {
  ASSERT_TRUE(monitor.AllocateBuffers());
  monitor.MonitorPrintEvent(1, 115, 1);
  EXPECT_EQ(0, collected.writes);
  monitor.MonitorPrintEvent(1, 116, 0);
  EXPECT_EQ(1, collected.writes);
  EXPECT_EQ(" KEY_VOLUMEUP DOWN     KEY_POWER UP      ", collected.Text());
  EXPECT_EQ(0, monitor.GatheredLength());
}

TEST_F(InputMonitorTest, APieceThatWouldFillTheBufferFlushesFirst) {
  ASSERT_TRUE(monitor.AllocateBuffers());
  std::string piece(400, 'a');
  for (int i = 0; i < 40; ++i) monitor.MonitorWriteToBuf("%s", piece.c_str());
  monitor.MonitorWriteToBuf("%s", std::string(383, 'b').c_str());
  EXPECT_EQ(0, collected.writes);
  EXPECT_EQ(16383, monitor.GatheredLength());
  monitor.MonitorWriteToBuf("c");
  ASSERT_EQ(1, collected.writes);
  EXPECT_EQ(16383u, collected.Text().size());
  EXPECT_EQ('b', collected.Text().back());
  EXPECT_EQ(1, monitor.GatheredLength());
  std::string all = Flushed();
  EXPECT_EQ(16384u, all.size());
  EXPECT_EQ('c', all.back());
}

TEST_F(InputMonitorTest, APieceLongerThanTheEventBufferOrAnUnknownDeviceIsReported) {
  ASSERT_TRUE(monitor.AllocateBuffers());
  CaptureStderr();
  monitor.MonitorWriteToBuf("%s", std::string(600, 'x').c_str());
  EXPECT_EQ(0, monitor.GatheredLength());
  EXPECT_EQ(1, monitor.MonitorCloseDevice("/nowhere/event9"));
  EXPECT_EQ("couldn't write to event buf\nremote device: /nowhere/event9 not found",
            GetCapturedStderr());
}

TEST_F(InputMonitorTest, EventsBecomeLinesAndDevicesComeAndGo) {
  std::string first = dir + "/event0";
  std::string second = dir + "/event1";
  ASSERT_EQ(0, mkfifo(first.c_str(), 0600));
  CaptureStderr();
  Start();
  int fd0 = OpenWhenHeld(first);
  ASSERT_GE(fd0, 0);
  ASSERT_TRUE(grouptest::Send(fd0, {100, 1, 1, 115, 1}));
  ASSERT_TRUE(grouptest::Send(fd0, {100, 10, 0, 0, 0}));
  ASSERT_TRUE(grouptest::Send(fd0, {100, 16676, 0, 0, 0}));
  ASSERT_TRUE(grouptest::Send(fd0, {100, 16676, 0, 0, 0}));
  ASSERT_TRUE(grouptest::Send(fd0, {100, 20000, 1, 116, 1}));
  ASSERT_TRUE(
      grouptest::WaitFor([&] { return collected.Text().find("KEY_POWER") != std::string::npos; }));
  std::string text = collected.Text();
  EXPECT_EQ(0u, text.find("add device 1: " + first + "\n  name:     \"\"\n")) << text;
  const std::string stamp = "\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d ";
  std::regex lines(stamp + "\\[100\\.000001\\]  KEY_VOLUMEUP DOWN    \n " + stamp +
                   "\\[100\\.000010\\]  S 00000000\n " + stamp +
                   "\\[100\\.016676\\]  S 00000000\trate 60\n\n " + stamp +
                   "\\[100\\.016676\\]  S 00000000\trate 0\n\n " + stamp +
                   "\\[100\\.020000\\]  KEY_POWER DOWN    $");
  EXPECT_TRUE(std::regex_search(text, lines)) << text;
  ASSERT_EQ(0, mkfifo(second.c_str(), 0600));
  int fd1 = OpenWhenHeld(second);
  ASSERT_GE(fd1, 0);
  unlink(first.c_str());
  ASSERT_TRUE(grouptest::WaitFor([&] { return write(fd0, "x", 1) < 0 && errno == EPIPE; }));
  Stop();
  EXPECT_EQ("", GetCapturedStderr());
  EXPECT_EQ(2, monitor.DeviceCount());
  EXPECT_STREQ(second.c_str(), monitor.DeviceName(1));
  monitor.MonitorFlush();
  text = collected.Text();
  EXPECT_NE(std::string::npos, text.find("add device 2: " + second + "\n")) << text;
  EXPECT_NE(std::string::npos, text.find("remove device 1: " + first + "\n")) << text;
  close(fd0);
  close(fd1);
}

class InputMonitorEither : public InputMonitorTest, public ::testing::WithParamInterface<bool> {};

// A short read (FIFO) is skipped; a device at its end (file) is let go; it goes on.
TEST_P(InputMonitorEither, ADeviceFaultDoesNotEndTheMonitor) {
  const bool isFifo = GetParam(), letGo = !isFifo;
  std::string path = dir + "/event0";
  if (isFifo) {
    ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
  } else {
    WriteFile(path, "short read");
  }
  CaptureStderr();
  Start();
  if (isFifo) {
    int fd = OpenWhenHeld(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(10, write(fd, "short read", 10));
    ASSERT_TRUE(grouptest::WaitFor([&] {
      int unread = -1;
      return ioctl(fd, FIONREAD, &unread) == 0 && unread == 0;
    }));
    close(fd);
  }
  EXPECT_TRUE(NewDeviceIsRecorded("event1"));
  Stop();
  const std::string said = GetCapturedStderr();
  EXPECT_EQ(0u, said.find("could not get event,poll result:")) << said;
  EXPECT_EQ(letGo ? 2 : 3, monitor.DeviceCount());
  monitor.MonitorFlush();
  EXPECT_EQ(letGo, collected.Text().find("remove device 1: " + path + "\n") != std::string::npos)
      << collected.Text();
}

TEST_F(InputMonitorTest, DevicesNotPickedAreListedButNotHeld) {
  std::string path = dir + "/event3";
  ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
  char other[] = "gpio-keys";
  pick.str = other;
  ASSERT_EQ(0, monitor.AllocateBuffers() ? 0 : 1);
  EXPECT_EQ(0, monitor.MonitorScanDir(dir.c_str(), &pick));
  EXPECT_EQ(0, monitor.DeviceCount());
  monitor.MonitorFlush();
  EXPECT_EQ("add device 0: " + path + "\n  name:     \"\"\n", collected.Text());
  EXPECT_EQ(1, monitor.MonitorScanDir((dir + "/missing").c_str(), &pick));
}

// A device folder made after the start, or removed and remade, is watched.
TEST_P(InputMonitorEither, ALateFolderIsWatchedOnceItIsThere) {
  bool watchedFirst = GetParam();
  ASSERT_TRUE(watchedFirst || rmdir(dir.c_str()) == 0);
  CaptureStderr();
  Start();
  if (watchedFirst) {
    ASSERT_TRUE(NewDeviceIsRecorded("event0"));
    ASSERT_EQ(0, unlink((dir + "/event0").c_str()));
    ASSERT_EQ(0, rmdir(dir.c_str()));
  }
  struct timespec pause = {0, 300 * 1000000L};
  nanosleep(&pause, nullptr);
  root.MakeDirs("/dev/input");
  EXPECT_TRUE(NewDeviceIsRecorded("event1"));
  Stop();
  size_t said = grouptest::Count(GetCapturedStderr(), "could not add watch for " + dir + "\n");
  EXPECT_GE(1u, said);
  EXPECT_TRUE(watchedFirst || said == 1u) << said;
}

// true: a FIFO with a short read / a folder removed after the start.
INSTANTIATE_TEST_SUITE_P(Faults, InputMonitorEither, ::testing::Bool());

size_t Entries(const label* table) {
  size_t n = 0;
  while (table[n].name != nullptr) ++n;
  return n;
}

TEST(InputLabels, EveryTableHasItsEntryCountAndAscendingValues) {
  // clang-format off
  const struct { int type; size_t entries; } kTables[] = {
      {0, 4}, {1, 497}, {2, 10}, {3, 39}, {4, 5}, {5, 14}, {17, 11}, {18, 3}, {20, 2}, {21, 16},
      {23, 3}};
  // clang-format on
  for (const auto& t : kTables) {
    const label* table = GetCodeLabel(t.type);
    ASSERT_NE(nullptr, table) << "type " << t.type;
    EXPECT_EQ(t.entries, Entries(table)) << "type " << t.type;
    for (size_t i = 1; i < Entries(table); ++i) {
      EXPECT_LE(table[i - 1].value, table[i].value) << table[i].name;
    }
  }
  EXPECT_EQ(3u, Entries(GetValueLabel(1, 30)));
  EXPECT_EQ(3u, Entries(GetValueLabel(3, 55)));
  for (int type : {-1, 6, 16, 19, 22, 24, 31}) EXPECT_EQ(nullptr, GetCodeLabel(type)) << type;
  EXPECT_EQ(nullptr, GetValueLabel(3, 53));
  EXPECT_EQ(nullptr, GetValueLabel(2, 55));
}

// Double names are both listed and the first wins.
TEST(InputLabels, LookupsFindTheNamesTheMonitorPrints) {
  // clang-format off
  const struct { const char* first; const char* second; int type; int value; } kPairs[] = {
      {"KEY_HANGEUL", "KEY_HANGUEL", 1, 122}, {"KEY_COFFEE", "KEY_SCREENLOCK", 1, 152},
      {"BTN_JOYSTICK", "BTN_TRIGGER", 1, 288}, {"SW_RFKILL_ALL", "SW_RADIO", 5, 3}};
  // clang-format on
  for (const auto& pair : kPairs) {
    const label* table = GetCodeLabel(pair.type);
    EXPECT_STREQ(pair.first, MonitorGetLabel(table, pair.value));
    int seen = 0;
    for (const label* entry = table; entry->name != nullptr; ++entry) {
      if (strcmp(entry->name, pair.second) == 0 && entry->value == pair.value) ++seen;
    }
    EXPECT_EQ(1, seen) << pair.second;
  }
  EXPECT_STREQ("KEY_POWER", MonitorGetLabel(GetCodeLabel(1), 116));
  EXPECT_STREQ("BTN_TRIGGER_HAPPY40", MonitorGetLabel(GetCodeLabel(1), 743));
  EXPECT_STREQ("ABS_MT_DISTANCE", MonitorGetLabel(GetCodeLabel(3), 59));
  EXPECT_STREQ("FF_STATUS_PLAYING", MonitorGetLabel(GetCodeLabel(23), 1));
  EXPECT_STREQ("DOWN", MonitorGetLabel(GetValueLabel(1, 116), 1));
  EXPECT_STREQ("MT_TOOL_MAX", MonitorGetLabel(GetValueLabel(3, 55), 15));
  EXPECT_EQ(nullptr, MonitorGetLabel(GetCodeLabel(1), 744));
  EXPECT_EQ(nullptr, MonitorGetLabel(GetValueLabel(1, 30), 3));
  EXPECT_EQ(nullptr, MonitorGetLabel(nullptr, 0));
}

}  // namespace
