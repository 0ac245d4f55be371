#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "collector/charger_event.h"
#include "collector/data_src_reader.h"
#include "collector/group_support.h"
#include "collector/tavocat.h"
#include "platform/properties.h"
#include "platform/root_path.h"
#include "support/file_tree.h"
#include "support/temp_root.h"

namespace {

using morvotest::ReadFile;
using morvotest::WriteFile;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
namespace tc = TavoCommon;

class SourceSink : public DataSrcReader {
 public:
  explicit SourceSink(const TavoCommon::TavocatGroupT* group)
      : DataSrcReader(group, TavoCommon::FACTORY_WRITE) {
    SetupOutput();
  }
  using Tavobase::failureCount;

 protected:
  void openLogFilePost() override {}
};

const char kStamp[] = "\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d ";

class DataSources : public ::testing::Test {
 protected:
  DataSources() : record(root.Under("/data/log/src/src-log"), TavoCommon::POLL_NODE) {
    for (const char* dir : {"/sys/node", "/sys/n", "/bin", "/proc", "/system/bin", "/data/log/g"}) {
      root.MakeDirs(dir);
    }
  }
  SourceSink& Sink() {
    if (sink == nullptr) sink.reset(new SourceSink(&record.group));
    return *sink;
  }
  std::string Node(const std::string& name, const std::string& text) {
    WriteFile(root.Under("/sys/node/" + name), text);
    return "/sys/node/" + name;
  }
  std::string Written() { return ReadFile(record.path); }
  std::string Output() { return ReadFile(root.Under(outputPath)); }
  const std::string outputPath = "/data/log/g/out";
  std::string Kmsg() const { return root.Under("/proc/kmsg"); }
  void Append(const std::string& text) const { grouptest::Append(Kmsg(), text); }
  bool Arrived(const std::string& line) {
    return grouptest::WaitFor([&] { return Written().find(line) != std::string::npos; });
  }
  grouptest::GroupThread* Run(const char* path) {
    return new grouptest::GroupThread([this, path] { Sink().NodeCatStream(path); });
  }
  std::vector<std::string> Lines() {
    std::vector<std::string> lines;
    std::regex stamp(std::string("^") + kStamp);
    for (const std::string& line : morvotest::Lines(Written())) {
      EXPECT_TRUE(std::regex_search(line, stamp)) << line.substr(0, 40);
      lines.push_back(line.size() > 19 ? line.substr(19) : "");
    }
    return lines;
  }
  void Dumpsys(const std::string& body, const std::string& dir = "/system/bin") {
    std::string script = root.Under(dir + "/dumpsys");
    WriteFile(script, "#!/bin/sh\n" + body + "\n");
    chmod(script.c_str(), 0755);
  }
  morvotest::TempRoot root;
  grouptest::GroupRecord record;
  std::unique_ptr<SourceSink> sink;
};

// One line end taken off, padded to the width; missing or empty reads "Read Fail".
TEST_F(DataSources, NodesAreWrittenToTheirWidth) {
  const std::string longest(8190, 'a');
  // name null: no node; text "-": none there; "Time" is opened relative.
  // clang-format off
  const struct { const char* name; std::string text; size_t width; bool ends; int result;
                 std::string written; } kCases[] = {
      {"a", "42\n", 6, false, 0, "42    "},
      {"b", "\n", 0, false, 0, "\n"},
      {"c", "abcde", 3, false, 0, "abcde"},
      {"d", "x\r\n", 0, true, 0, "x\r"},
      {"long", longest + "\nbb\n", 0, true, 0, longest + "bb"},
      {"missing", "-", 0, true, 1, ""},
      {"missing", "-", 11, true, 0, "Read Fail  "},
      {nullptr, "-", 11, true, 1, ""},
      {"empty", "", 10, true, 0, "Read Fail "},
      {"Time", "Stamp\n", 0, true, 0, "Stamp"},
  };
  // clang-format on
  char saved[4096];
  ASSERT_NE(nullptr, getcwd(saved, sizeof(saved)));
  ASSERT_EQ(0, chdir(root.Under("/sys/node").c_str()));
  std::string expected;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name != nullptr ? c.name : "null");
    std::string path = c.name == nullptr ? "" : "/sys/node/" + std::string(c.name);
    if (c.text != "-") Node(c.name, c.text);
    if (std::string(c.name != nullptr ? c.name : "") == "Time") path = "Time";
    EXPECT_EQ(c.result,
              Sink().NodeCatOnce(c.name == nullptr ? nullptr : path.c_str(), c.width, c.ends));
    EXPECT_EQ(expected += c.written, Written());
  }
  ASSERT_EQ(0, chdir(saved));
}

TEST_F(DataSources, AnEmptyNodeIsRetriedUntilTheCounterReachesTheLimit) {
  record.group.failureRetry = 3;
  std::string empty = Node("empty", "");
  EXPECT_EQ(1, Sink().NodeCatOnce(empty.c_str(), 10, true));
  EXPECT_EQ(0u, Sink().failureCount);
  EXPECT_EQ("", Written());
  Sink().failureCount = 2;
  EXPECT_EQ(1, Sink().NodeCatOnce(empty.c_str(), 10, true));
  EXPECT_EQ(0u, Sink().failureCount);
  Sink().failureCount = 1;
  EXPECT_EQ(0, Sink().NodeCatOnce(Node("full", "7").c_str(), 0, true));
  EXPECT_EQ(1u, Sink().failureCount);
  EXPECT_EQ("7", Written());
}

TEST_F(DataSources, AlternativeNodesTakeTheFirstThatOpens) {
  char missing[] = "/sys/node/none";
  std::string present = Node("second", "55\n");
  TavoCommon::TavocatStrListT second{&present[0], nullptr};
  TavoCommon::TavocatStrListT first{missing, &second};
  EXPECT_EQ(0, Sink().NodeCatAlterOnce(&first, 4, false));
  TavoCommon::TavocatStrListT only{missing, nullptr};
  EXPECT_EQ(0, Sink().NodeCatAlterOnce(&only, 10, false));
  std::string empty = Node("empty", "");
  TavoCommon::TavocatStrListT blank{&empty[0], nullptr};
  EXPECT_EQ(0, Sink().NodeCatAlterOnce(&blank, 3, true));
  EXPECT_EQ(1, Sink().NodeCatAlterOnce(nullptr, 3, true));
  EXPECT_EQ("55  Read Fail    ", Written());
}

TEST_F(DataSources, StreamTextIsSplitIntoStampedLinesAcrossReads) {
  char buf[DataSrcReader::kReadBufSize] = "a\n\nb";
  int carry = -1;
  EXPECT_EQ(0, Sink().ParseEachLine(buf, buf, &carry));
  EXPECT_EQ(1, carry);
  EXPECT_STREQ("b", buf);
  strcpy(buf + carry, "c\n");
  EXPECT_EQ(0, Sink().ParseEachLine(buf, buf, &carry));
  EXPECT_EQ(0, carry);
  std::regex lines(std::string("^") + kStamp + "a\n" + kStamp + "bc\n$");
  EXPECT_TRUE(std::regex_match(Written(), lines)) << Written();
  CaptureStderr();
  EXPECT_EQ(1, Sink().NodeCatStream(nullptr));
  char stopped[PROPERTY_VALUE_MAX];
  property_get("ctl.stop", stopped, "");
  EXPECT_STREQ("", stopped);
  EXPECT_EQ(1, Sink().ParseEachLine(nullptr, buf, &carry));
  EXPECT_EQ("start or buf is null ptr\n", GetCapturedStderr());
}

TEST_F(DataSources, LinesTooLongForOneStampedLineAreSplitAndTheNextLinesFollow) {
  // clang-format off
  const struct { size_t length; std::vector<size_t> pieces; } kCases[] = {
      {8171, {8171}}, {8172, {8171, 1}}, {8191, {8171, 20}}, {8192, {8171, 21}},
      {16342, {8171, 8171}}, {30000, {8171, 8171, 8171, 5487}},
  };
  // clang-format on
  WriteFile(Kmsg(), "");
  std::unique_ptr<grouptest::GroupThread> run(Run("/proc/kmsg"));
  std::vector<std::string> expected;
  for (const auto& c : kCases) {
    std::string line;
    for (size_t i = 0; i < c.length; ++i) line.push_back(static_cast<char>('a' + i % 26));
    Append(line + "\nafter " + std::to_string(c.length) + "\n");
    for (size_t at = 0, k = 0; k < c.pieces.size(); at += c.pieces[k++]) {
      expected.push_back(line.substr(at, c.pieces[k]));
    }
    expected.push_back("after " + std::to_string(c.length));
    ASSERT_TRUE(Arrived("after " + std::to_string(c.length) + "\n")) << c.length;
  }
  EXPECT_EQ(expected, Lines());
}

TEST_F(DataSources, NulAndBinaryBytesStayInTheirLines) {
  std::mt19937 random(7);
  std::string text;
  std::vector<std::string> expected;
  for (int n = 0; n < 200; ++n) {
    std::string line = "line " + std::to_string(n) + " ";
    for (int i = random() % 40; i >= 0; --i) {
      char byte = static_cast<char>(random() % 256);
      line.push_back(byte == '\n' ? '\0' : byte);
    }
    line += std::string(1, '\0') + "tail";
    expected.push_back(line);
    text += line + "\n";
  }
  WriteFile(Kmsg(), text);
  std::unique_ptr<grouptest::GroupThread> run(Run("/proc/kmsg"));
  ASSERT_TRUE(Arrived(expected.back() + "\n"));
  EXPECT_EQ(expected, Lines());
}

// Faults that pass: the stream comes back by itself once the cause is gone.
TEST_F(DataSources, AStreamResumesAfterAFaultThatPasses) {
  // first: the stream holds a line before the fault.
  using Step = void (*)(const std::string& kmsg);
  const Step none = [](const std::string&) {};
  const Step one = [](const std::string& kmsg) { WriteFile(kmsg, "one\n"); };
  // clang-format off
  const struct { const char* name; bool first; Step before; Step fault; } kCases[] = {
      {"missing at start", false, none, none},
      {"removed and recreated", true, one, [](const std::string& kmsg) { unlink(kmsg.c_str()); }},
      {"replaced by rename", true, one, [](const std::string& kmsg) {
         WriteFile(kmsg + ".new", "");
         rename((kmsg + ".new").c_str(), kmsg.c_str()); }},
      {"read error on a folder", false, [](const std::string& kmsg) { mkdir(kmsg.c_str(), 0755); },
       [](const std::string& kmsg) { rmdir(kmsg.c_str()); }},
  };
  // clang-format on
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    c.before(Kmsg());
    CaptureStderr();
    {
      std::unique_ptr<grouptest::GroupThread> run(Run("/proc/kmsg"));
      ASSERT_TRUE(!c.first || Arrived("one\n"));
      if (!c.first) usleep(300 * 1000);  // the stream has met the fault
      c.fault(Kmsg());
      Append("two\n");
      ASSERT_TRUE(Arrived("two\n"));
    }
    unlink(Kmsg().c_str());
    EXPECT_LE(grouptest::Count(GetCapturedStderr(), "failed to translate path"), 1u);
    sink.reset();
    unlink(record.path.c_str());
  }
}

TEST_F(DataSources, TheModemLogDeviceIsRetriedThenItsServiceStopped) {
  record.group.failureRetry = 2;
  root.MakeDirs("/dev/cshell_log");
  Sink();
  CaptureStderr();
  char value[PROPERTY_VALUE_MAX] = "";
  {
    std::unique_ptr<grouptest::GroupThread> run(Run("/dev/cshell_log"));
    ASSERT_TRUE(grouptest::WaitFor([&] {
      property_get("ctl.stop", value, "");
      return strcmp(value, "kmsgcat_cp") == 0;
    }));
  }
  std::string text = GetCapturedStderr();
  std::string message = "read failure!reserved_buf_size = 8191\n";
  EXPECT_LE(1u, grouptest::Count(text, message));
  EXPECT_EQ(text.size(), grouptest::Count(text, message) * message.size()) << text;
  EXPECT_EQ(0u, Sink().failureCount);
}

TEST_F(DataSources, TheOutputFollowsAHeader) {
  const char* const kDate = "\\d{4}-\\d{1,2}-\\d{1,2} \\d{1,2}:\\d{1,2}:\\d{1,2}\r\n";
  // clang-format off
  const struct { const char* script; const char* command; std::string text; } kCases[] = {
      {"printf 'level: %s\\n\\nend' \"$1\"", "battery", "level: battery\n\nend"}, {"exit 3", "power", ""}};
  // clang-format on
  std::string expected;
  for (const auto& c : kCases) {
    Dumpsys(c.script);
    EXPECT_EQ(0, Sink().SystemCmdCat(c.command));
    expected += std::string("current time: <") + c.command + ">" + kDate + c.text;
    EXPECT_TRUE(std::regex_match(Written(), std::regex("^" + expected + "$"))) << Written();
  }
}

TEST_F(DataSources, ACommandTooLongForTheHeaderIsNotRun) {
  Dumpsys("touch " + root.Under("/ran"));
  Sink();
  CaptureStderr();
  EXPECT_EQ(1, Sink().SystemCmdCat(std::string(240, 'c').c_str()));
  EXPECT_EQ(1, Sink().SystemCmdCat(nullptr));
  EXPECT_EQ("format current time failed\n", GetCapturedStderr());
  EXPECT_EQ("", Written());
  EXPECT_FALSE(morvotest::Exists(root.Under("/ran")));
}

// Root: dumpsys only from fixed system folders, its words as arguments, no shell.
TEST_F(DataSources, DumpsysIsTakenFromSystemFoldersAndRunWithoutAShell) {
  root.MakeDirs("/path");
  const char* path = getenv("PATH");
  std::string savedPath = path != nullptr ? path : "";
  setenv("PATH", (root.Under("/path") + ":" + savedPath).c_str(), 1);
  Dumpsys("touch " + root.Under("/from-path"), "/path");
  Sink();
  CaptureStderr();
  EXPECT_EQ(1, Sink().SystemCmdCat("battery"));
  EXPECT_EQ("dumpsys not found in /system/bin:/system/xbin:/vendor/bin:/usr/bin:/bin\n",
            GetCapturedStderr());
  Dumpsys("for a; do printf '[%s]' \"$a\"; done", "/bin");
  std::string attack = "battery;touch " + root.Under("/injected") + " $(id)";
  EXPECT_EQ(0, Sink().SystemCmdCat(attack.c_str()));
  setenv("PATH", savedPath.c_str(), 1);
  EXPECT_FALSE(morvotest::Exists(root.Under("/from-path")));
  EXPECT_FALSE(morvotest::Exists(root.Under("/injected")));
  EXPECT_NE(std::string::npos,
            Written().find("\r\n[battery;touch][" + root.Under("/injected") + "][$(id)]"))
      << Written();
}

char* Text(std::string& s) { return &s[0]; }

TEST_F(DataSources, NodesWithoutTitlesOrSourcesStillEndTheRow) {
  WriteFile(root.Under("/sys/n/alt"), "9\n");
  std::string current = "CurrentTime", missing = "/sys/n/none", alt = "/sys/n/alt";
  tc::TavocatStrListT alternative{Text(alt), nullptr};
  tc::TavocatStrListT alternatives{Text(missing), &alternative};
  tc::TavocatInputNodeSetT last{3, nullptr, nullptr, nullptr, &alternatives, nullptr};
  tc::TavocatInputNodeSetT nothing{5, nullptr, nullptr, nullptr, nullptr, &last};
  tc::TavocatInputNodeSetT now{0, Text(current), nullptr, nullptr, nullptr, &nothing};
  grouptest::GroupRecord record(outputPath, tc::POLL_NODE, &now);
  Tavocat group(&record.group, tc::FACTORY_WRITE);
  EXPECT_EQ("", Output());
  EXPECT_EQ(0, group.PollNode());
  char small[8];
  Tavocat::PollingDateTime("%.4d-%.2d-%.2d %.2d:%.2d:%.2d > ", small, sizeof(small));
  EXPECT_STREQ("", small);
  std::regex row("^\ncurrent time: \\d{4}-\\d{1,2}-\\d{1,2} \\d{1,2}:\\d{1,2}:\\d{1,2}\r\n9  \n$");
  EXPECT_TRUE(std::regex_match(Output(), row)) << Output();
}

TEST_F(DataSources, ATriggerWithAnUnknownIndexEndsAfterItsTitleRow) {
  std::string title = "Type";
  tc::TavocatInputNodeSetT node{6, nullptr, nullptr, Text(title), nullptr, nullptr};
  grouptest::GroupRecord record(outputPath, tc::COND_TRIGGER, &node);
  record.group.condIndex = 1;
  Tavocat group(&record.group, tc::FACTORY_WRITE);
  CaptureStderr();
  ASSERT_TRUE(group.Start());
  group.Wait();
  EXPECT_EQ("invalid index!!\n", GetCapturedStderr());
  EXPECT_EQ("\nType  \n", Output());
}

TEST_F(DataSources, OtherStylesAndMissingSourcesEndAtOnce) {
  grouptest::GroupRecord none(outputPath, tc::LOG_STYLE_NONE);
  Tavocat idle(&none.group, tc::FACTORY_WRITE);
  ASSERT_TRUE(idle.Start());
  idle.Wait();
  grouptest::GroupRecord stream(outputPath, tc::MONITOR_NODE);
  Tavocat noStream(&stream.group, tc::FACTORY_WRITE);
  EXPECT_EQ(1, noStream.MonitorNode());
  grouptest::GroupRecord input(outputPath, tc::MONITOR_DIR);
  Tavocat noDir(&input.group, tc::FACTORY_WRITE);
  noDir.MonitorDir();
  EXPECT_EQ("", Output());
}

// What a style held (a partial line, device text) is handed over at the teardown.
TEST_F(DataSources, EachStyleRunsUntilStoppedAndHandsOverWhatItHeld) {
  WriteFile(Kmsg(), "<6>boot\n<3>no end");
  Dumpsys("echo \"state of $1\"");
  root.MakeDirs("/dev/input");
  const std::string fifo = root.Under("/dev/input/event0");
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  std::string kmsg = "/proc/kmsg", battery = "battery", dir = "/dev/input", any(1, '\0');
  tc::TavocatInputNodeSetT node{0, Text(kmsg), nullptr, nullptr, nullptr, nullptr};
  tc::TavocatInputCmdSetT cmd{Text(battery), nullptr};
  tc::TavocatStrListT pick{Text(any), nullptr};
  tc::TavocatInputDirSetT dirSet{Text(dir), &pick};
  auto wrote = [&](const char* text) {
    return [this, text] { return Output().find(text) != std::string::npos; };
  };
  auto held = [&] {
    int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
    if (fd >= 0) close(fd);
    return fd >= 0;
  };
  const std::string stamp = "[-0-9 :.]{19}",
                    added = "add device 1: " + fifo + "\n  name:     \"\"\n";
  // clang-format off
  const struct { tc::LogStyle style; void* set; std::function<bool()> ready; std::string text; } kCases[] = {
      {tc::MONITOR_NODE, &node, wrote("boot"), stamp + "<6>boot\n" + stamp + "<3>no end\n"},
      {tc::POLL_CMD, &cmd, [this] { return grouptest::Count(Output(), "of battery") >= 2; }, "(current time: <battery>[-0-9: ]+\r\nstate of battery\n)+"},
      {tc::MONITOR_DIR, &dirSet, held, added + "(remove device 1: " + fifo + "\n)?"},
  };
  // clang-format on
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.style);
    unlink(root.Under(outputPath).c_str());
    grouptest::GroupRecord record(outputPath, c.style, c.set);
    record.group.pollingInterval = 1;
    Tavocat group(&record.group, tc::FACTORY_WRITE);
    ASSERT_TRUE(group.Start());
    ASSERT_TRUE(grouptest::WaitFor(c.ready));
    group.Cancel();
    group.Wait();
    EXPECT_TRUE(group.RunEnded());
    group.FlushAll();
    EXPECT_TRUE(std::regex_match(Output(), std::regex("^" + c.text + "$"))) << Output();
  }
}

// Polled nodes open without waiting: a FIFO with no writer reads as empty.
TEST_F(DataSources, APolledFifoWithoutAWriterReadsAsEmpty) {
  std::string fifo = root.Under("/sys/n/fifo");
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  std::string path = "/sys/n/fifo";
  tc::TavocatInputNodeSetT node{10, Text(path), Text(path), nullptr, nullptr, nullptr};
  std::atomic<bool> done{false};
  std::thread poller([&] {
    grouptest::GroupRecord record(outputPath, tc::POLL_NODE, &node);
    Tavocat group(&record.group, tc::FACTORY_WRITE);
    group.PollNode();
    done = true;
  });
  bool finished = grouptest::WaitFor([&] { return done.load(); });
  while (!done) {
    int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
    if (fd >= 0) close(fd);
    usleep(20000);
  }
  poller.join();
  EXPECT_TRUE(finished);
  EXPECT_EQ("\nRead Fail \nRead Fail \n", Output());
}

TEST(ChargerEvent, PresenceChangesAreReportedOncePerChange) {
  morvotest::TempRoot root;
  root.MakeDirs("/sys/class/qd_power/charger/charge_data");
  std::string node = root.Under("/sys/class/qd_power/charger/charge_data/chargerType");
  EXPECT_FALSE(ChargerTypeChanged());
  // clang-format off
  const struct { const char* type; bool changed; } kSequence[] = {
      {"5", false}, {"5\n", false}, {"1", true}, {"1", false}, {"5", true}, {"-1", false}, {"abc", true}, {"4", false}};
  // clang-format on
  for (const auto& step : kSequence) {
    WriteFile(node, step.type);
    EXPECT_EQ(step.changed, ChargerTypeChanged()) << step.type;
  }
  WriteFile(node, "5");
  EXPECT_TRUE(ChargerTypeChanged());
  EXPECT_FALSE(ChargerEventChanged());
}

// Even a root too long for the paths never lets a group reach the device's paths.
TEST(DevicePathTest, AGroupUnderATemporaryRootNeverTouchesTheDevicePath) {
  morvotest::TempRoot device;
  device.MakeDirs("/sys");
  WriteFile(device.Under("/sys/n"), "device\n");
  const std::string output = device.Under("/out/log");
  const std::string node = device.Under("/sys/n");
  const std::string tooLong = "/tmp/" + std::string(PATH_MAX - 5 - output.size() / 2, 'r');
  for (int row = 0; row < 4; ++row) {
    const bool fits = row < 2;
    const tc::TypeWrite mode = row % 2 == 0 ? tc::FACTORY_WRITE : tc::MMAP_WRITE;
    SCOPED_TRACE(std::string(fits ? "root" : "too long a root") + " mode " + std::to_string(mode));
    morvotest::TempRoot root;
    if (fits) {
      root.MakeDirs(device.Under("/sys"));
      WriteFile(root.Under(node), "rooted\n");
    } else {
      setenv(platform::kRootEnv, tooLong.c_str(), 1);
    }
    std::string nodePath = node;
    tc::TavocatInputNodeSetT polled{0, &nodePath[0], nullptr, nullptr, nullptr, nullptr};
    grouptest::GroupRecord record(output, tc::POLL_NODE, &polled);
    testing::internal::CaptureStdout();
    {
      Tavocat group(&record.group, mode);
      EXPECT_TRUE(group.Start());
      group.Wait();
      group.FlushAll();
    }
    const std::string shown = testing::internal::GetCapturedStdout();
    EXPECT_FALSE(morvotest::Exists(device.Under("/out")))
        << "the group wrote into the device's folder";
    EXPECT_EQ("device\n", ReadFile(node));
    EXPECT_EQ(std::string::npos, shown.find("device")) << "the device's node was read";
    if (fits) {
      EXPECT_TRUE(morvotest::Exists(root.Under(device.Under("/out")))) << root.Under(output);
    }
  }
}

}  // namespace
