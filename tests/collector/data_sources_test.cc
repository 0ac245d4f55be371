// The sources a group copies: nodes read whole (widths, the line-end rule,
// pieces of long nodes, "Read Fail", retries), alternative nodes, streams
// split into time-stamped lines, and dumpsys output with its header.

#include <pthread.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "collector/data_src_reader.h"
#include "collector/group_support.h"
#include "collector/wait_point.h"
#include "platform/properties.h"
#include "support/temp_root.h"

namespace {

using grouptest::StderrCapture;
using morvotest::ReadFile;
using morvotest::WriteFile;

// A factory-mode sink over a plain file, so what the sources write is read
// back as it is.
class SourceSink : public DataSrcReader {
 public:
  explicit SourceSink(const TavoCommon::TavocatGroupT* group)
      : DataSrcReader(group, TavoCommon::FACTORY_WRITE) {
    SetupOutput();
  }
  using Tavobase::failureCount;
  using Tavobase::failureRetry;

 protected:
  void openLogFilePost() override {}
};

const char kStamp[] = "\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d ";

class DataSources : public ::testing::Test {
 protected:
  DataSources() : record(root.Under("/data/log/src/src-log"), TavoCommon::POLL_NODE) {
    root.MakeDirs("/sys/node");
    root.MakeDirs("/bin");
  }
  // The sink is made after the test has set the retry limit.
  SourceSink& Sink() {
    if (sink == nullptr) sink.reset(new SourceSink(&record.group));
    return *sink;
  }
  std::string Node(const std::string& name, const std::string& text) {
    WriteFile(root.Under("/sys/node/" + name), text);
    return "/sys/node/" + name;
  }
  std::string Written() { return ReadFile(record.path); }

  morvotest::TempRoot root;
  grouptest::GroupRecord record;
  std::unique_ptr<SourceSink> sink;
};

TEST_F(DataSources, NodesArePaddedToTheirWidthAfterOneLineEndIsTaken) {
  EXPECT_EQ(0, Sink().NodeCatOnce(Node("a", "42\n").c_str(), 6, false));
  EXPECT_EQ(0, Sink().NodeCatOnce(Node("b", "\n").c_str(), 0, false));
  EXPECT_EQ(0, Sink().NodeCatOnce(Node("c", "abcde").c_str(), 3, false));
  EXPECT_EQ(0, Sink().NodeCatOnce(Node("d", "x\r\n").c_str(), 0, true));
  EXPECT_EQ("42    \nabcdex\r", Written());
}

TEST_F(DataSources, ALongNodeIsWrittenAsPiecesEachStrippedByItself) {
  std::string text = std::string(8190, 'a') + "\n" + "bb\n";
  EXPECT_EQ(0, Sink().NodeCatOnce(Node("long", text).c_str(), 0, true));
  EXPECT_EQ(std::string(8190, 'a') + "bb", Written());
}

TEST_F(DataSources, AnUnreadableNodeWritesReadFailOnlyWithAWidth) {
  EXPECT_EQ(1, Sink().NodeCatOnce("/sys/node/missing", 0, true));
  EXPECT_EQ("", Written());
  EXPECT_EQ(0, Sink().NodeCatOnce("/sys/node/missing", 11, true));
  EXPECT_EQ("Read Fail  ", Written());
  EXPECT_EQ(1, Sink().NodeCatOnce(nullptr, 11, true));
}

TEST_F(DataSources, ARelativeNodeIsOpenedFromTheWorkingDirectory) {
  char saved[4096];
  ASSERT_NE(nullptr, getcwd(saved, sizeof(saved)));
  ASSERT_EQ(0, chdir(root.Under("/sys/node").c_str()));
  Node("Time", "Stamp\n");
  int result = Sink().NodeCatOnce("Time", 0, true);
  ASSERT_EQ(0, chdir(saved));
  EXPECT_EQ(0, result);
  EXPECT_EQ("Stamp", Written());
}

TEST_F(DataSources, AnEmptyNodeWithoutRetriesReadsFailAtOnce) {
  EXPECT_EQ(0, Sink().NodeCatOnce(Node("empty", "").c_str(), 10, true));
  EXPECT_EQ("Read Fail ", Written());
}

TEST_F(DataSources, AnEmptyNodeIsRetriedUntilTheCounterReachesTheLimit) {
  record.group.failureRetry = 3;
  std::string empty = Node("empty", "");
  EXPECT_EQ(1, Sink().NodeCatOnce(empty.c_str(), 10, true));
  EXPECT_EQ(0u, Sink().failureCount);
  EXPECT_EQ("", Written());
  // The counter is shared by the group's nodes and kept across calls.
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
  StderrCapture err;
  EXPECT_EQ(1, Sink().ParseEachLine(nullptr, buf, &carry));
  EXPECT_EQ("start or buf is null ptr\n", err.Text());
}

TEST_F(DataSources, AFullBufferWithoutALineEndIsHandedOverAsOneLine) {
  char buf[DataSrcReader::kReadBufSize];
  std::string line(8000, 'x');
  strcpy(buf, (line + "\nyy").c_str());
  int carry = 0;
  EXPECT_EQ(0, Sink().ParseEachLine(buf, buf, &carry));
  EXPECT_EQ(2, carry);
  EXPECT_NE(std::string::npos, Written().find(" " + line + "\n"));
  // 8191 characters leave no room for the time stamp: the sink refuses it.
  memset(buf, 'z', 8191);
  buf[8191] = '\0';
  StderrCapture err;
  EXPECT_EQ(1, Sink().ParseEachLine(buf, buf, &carry));
  EXPECT_EQ(0, carry);
  EXPECT_EQ("format timestamp failed\n", err.Text());
}

void* StreamThread(void* sink) {
  WaitPoint::CloseOutsideWaits();
  static_cast<SourceSink*>(sink)->NodeCatStream("/proc/kmsg");
  return nullptr;
}

TEST_F(DataSources, AStreamAtEndOfFileGoesOnWithWhatIsAppended) {
  root.MakeDirs("/proc");
  WriteFile(root.Under("/proc/kmsg"), "first\npart");
  pthread_t thread;
  ASSERT_EQ(0, pthread_create(&thread, nullptr, StreamThread, &Sink()));
  ASSERT_TRUE(grouptest::WaitFor([&] { return Written().find("first\n") != std::string::npos; }));
  FILE* kmsg = fopen(root.Under("/proc/kmsg").c_str(), "a");
  fputs("ial\n\nlast\n", kmsg);
  fclose(kmsg);
  ASSERT_TRUE(grouptest::WaitFor([&] { return Written().find("last\n") != std::string::npos; }));
  pthread_cancel(thread);
  pthread_join(thread, nullptr);
  std::regex lines(std::string("^") + kStamp + "first\n" + kStamp + "partial\n" + kStamp +
                   "last\n$");
  EXPECT_TRUE(std::regex_match(Written(), lines)) << Written();
}

TEST_F(DataSources, StreamsThatCannotBeOpenedOrReadEnd) {
  Sink();
  StderrCapture err;
  EXPECT_EQ(1, Sink().NodeCatStream("/proc/none"));
  EXPECT_EQ(1, Sink().NodeCatStream(nullptr));
  root.MakeDirs("/proc/dir");
  EXPECT_EQ(1, Sink().NodeCatStream("/proc/dir"));
  EXPECT_EQ("failed to translate path[/proc/none] to absolute path\n", err.Text());
  char value[PROPERTY_VALUE_MAX];
  property_get("ctl.stop", value, "");
  EXPECT_STREQ("", value);
}

TEST_F(DataSources, TheModemLogDeviceIsRetriedThenItsServiceStopped) {
  record.group.failureRetry = 2;
  root.MakeDirs("/dev/cshell_log");
  Sink();
  StderrCapture err;
  EXPECT_EQ(1, Sink().NodeCatStream("/dev/cshell_log"));
  EXPECT_EQ("read failure!reserved_buf_size = 8191\n", err.Text());
  EXPECT_EQ(0u, Sink().failureCount);
  char value[PROPERTY_VALUE_MAX];
  property_get("ctl.stop", value, "");
  EXPECT_STREQ("kmsgcat_cp", value);
}

class DumpsysSource : public DataSources {
 protected:
  void SetUp() override {
    const char* path = getenv("PATH");
    savedPath = path != nullptr ? path : "";
    setenv("PATH", (root.Under("/bin") + ":" + savedPath).c_str(), 1);
  }
  void TearDown() override { setenv("PATH", savedPath.c_str(), 1); }
  void Dumpsys(const std::string& body) {
    std::string script = root.Under("/bin/dumpsys");
    WriteFile(script, "#!/bin/sh\n" + body + "\n");
    chmod(script.c_str(), 0755);
  }
  std::string savedPath;
};

TEST_F(DumpsysSource, TheOutputFollowsAHeaderUnchanged) {
  Dumpsys("printf 'level: %s\\n\\nend' \"$1\"");
  EXPECT_EQ(0, Sink().SystemCmdCat("battery"));
  std::regex text("^current time: <battery>\\d{4}-\\d{1,2}-\\d{1,2} \\d{1,2}:\\d{1,2}:\\d{1,2}\r\n"
                  "level: battery\n\nend$");
  EXPECT_TRUE(std::regex_match(Written(), text)) << Written();
}

TEST_F(DumpsysSource, ACommandThatFailsSilentlyLeavesItsHeader) {
  Dumpsys("exit 3");
  EXPECT_EQ(0, Sink().SystemCmdCat("power"));
  EXPECT_TRUE(std::regex_match(Written(), std::regex("^current time: <power>[-0-9: ]+\r\n$")));
}

TEST_F(DumpsysSource, ACommandTooLongForTheHeaderIsNotRun) {
  Dumpsys("touch " + root.Under("/ran"));
  Sink();
  StderrCapture err;
  EXPECT_EQ(1, Sink().SystemCmdCat(std::string(240, 'c').c_str()));
  EXPECT_EQ(1, Sink().SystemCmdCat(nullptr));
  EXPECT_EQ("format current time failed\n", err.Text());
  EXPECT_EQ("", Written());
  EXPECT_FALSE(morvotest::Exists(root.Under("/ran")));
}

}  // namespace
