// The reader's command line as a host sees it: every rejected option ends
// the run with its message and status 1; buffer operations act on the store.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "platform/logger.h"
#include "reader/run_capture.h"
#include "support/temp_root.h"

namespace {

using morvotest::RunCommand;
using morvotest::RunResult;

struct Rejection {
  std::vector<std::string> args;
  std::string message;
};

class ReaderOptionsTest : public ::testing::Test {
 protected:
  morvotest::TempRoot root_;
};

TEST_F(ReaderOptionsTest, EveryRejectedOptionEndsTheRunWithItsMessage) {
  const Rejection kCases[] = {
      {{"-t", "12x"}, "Invalid parameter \"12x\" to -t\n"},
      {{"-G", "0"}, "ERROR: -G <num><multiplier>\n"},
      {{"-G", "10M"}, "ERROR: -G <num><multiplier>\n"},
      {{"-G", "-5"}, "ERROR: -G <num><multiplier>\n"},
      {{"--buffer-size=3q"}, "ERROR: -G <num><multiplier>\n"},
      {{"-b", "morvo_main,nosuch"}, "unknown buffer nosuch\n"},
      {{"-b", "main"}, "unknown buffer main\n"},
      {{"-r", "0", "-f", "/tmp/x"}, "Invalid parameter \"0\" to -r\n"},
      {{"-r", "1k", "-f", "/tmp/x"}, "Invalid parameter \"1k\" to -r\n"},
      {{"-n", "0"}, "Invalid parameter \"0\" to -n\n"},
      {{"-n", "-1"}, "Invalid parameter \"-1\" to -n\n"},
      {{"-r", "-1", "-f", "/tmp/x"}, "Invalid parameter \"-1\" to -r\n"},
      {{"--nosuch"}, "Unrecognized Option --nosuch\n"},
      {{"--rotate-count", "two"}, "Invalid parameter \"two\" to -n\n"},
      {{"-z", "x1"}, "Invalid parameter to -z\n"},
      {{"--pid", "0"}, "pid 0 out of range\n"},
      {{"--pid", "12abc"}, "pid 12abc out of range\n"},
      {{"--wrap=0"}, "wrap 0 out of range\n"},
      {{"--tavo", "4"}, "tavo 4 out of range\n"},
      {{"--tavo", "-1"}, "tavo -1 out of range\n"},
      {{"-r", "100"}, "-r requires -f as well\n"},
      {{"-v"}, "Unrecognized Option v\n"},
      {{"-v", "brief"}, "Unrecognized Option v\n"},
      {{"-S"}, "Unrecognized Option S\n"},
      {{"--statistics"}, "Unrecognized Option S\n"},
      {{"-e", "x"}, "Unrecognized Option e\n"},
      {{"-T", "5"}, "Unrecognized Option T\n"},
      {{"-t"}, "Unrecognized Option t\n"},
      {{"-d", "tag:Q"}, "Invalid filter expression 'tag:Q'\n"},
  };
  for (const Rejection& c : kCases) {
    RunResult r = RunCommand(c.args);
    std::string shown;
    for (const std::string& a : c.args) shown += a + " ";
    EXPECT_EQ(1, r.status) << shown;
    EXPECT_EQ(1, r.destroyStatus) << shown;
    EXPECT_EQ(c.message, r.err) << shown;
    EXPECT_EQ("", r.out) << shown;
  }
}

TEST_F(ReaderOptionsTest, AcceptedOptionsWithoutEffectLeaveACleanRunOnAnEmptyStore) {
  // The store is empty: a dump prints nothing either.
  const std::vector<std::vector<std::string>> kCases = {
      {"-d"},
      {"-d", "--debug"},
      {"-d", "--print"},
      {"-d", "--id", "7"},
      {"-d", "--tavo", "0"},
      {"-d", "--tavo", "3"},
      {"-d", "-z", "3abc"},
      {"-d", "-x", ""},
      {"-d", "--pid", "0x10"},
      {"-d", "-b", "morvo_main morvo_radio"},
      {"-d", "-s"},
  };
  for (const auto& args : kCases) {
    RunResult r = RunCommand(args);
    EXPECT_EQ(0, r.status) << args.back();
    EXPECT_EQ("", r.err) << args.back();
    EXPECT_EQ("", r.out) << args.back();
  }
}

TEST_F(ReaderOptionsTest, WrapWithAnotherTimeWarnsAndStillReads) {
  ASSERT_EQ(0, RunCommand({"-b", "morvo_radio", "-G", "8k"}).status);
  std::string text(200, 'w');
  for (int i = 0; i < 100; ++i) qd_log_write(LOG_ID_RADIO, QD_LOG_INFO, "wrap", text.c_str());
  RunResult r = RunCommand({"-b", "morvo_radio", "--wrap=3600"});
  EXPECT_EQ(0, r.status);
  EXPECT_EQ("WARNING: wrap 7200 seconds, ignoring 3600\n", r.err);
  EXPECT_NE(std::string::npos, r.out.find("I wrap    : www"));
}

TEST_F(ReaderOptionsTest, RefusedCollectorEndsTheRunBeforeReading) {
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "never printed");
  RunResult r = RunCommand({"--tavo", "1", "-x", "kmsglogcat", "-d"});
  EXPECT_EQ(0, r.status);
  EXPECT_EQ("", r.out);
  EXPECT_NE(std::string::npos, RunCommand({"-d"}).out.find("never printed"));
}

TEST_F(ReaderOptionsTest, SizeReportShowsEachBufferOnce) {
  ASSERT_GT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "hello"), 0);
  RunResult r = RunCommand({"-g", "-b", "morvo_main", "-b", "morvo_main,morvo_main"});
  EXPECT_EQ(0, r.status);
  qd_logger_list* list = qd_logger_list_alloc(QD_LOGGER_MODE_NONBLOCK, 0, 0);
  qd_logger* main = qd_logger_open(list, LOG_ID_MAIN);
  long used = qd_logger_get_log_readable_size(main);
  qd_logger_list_free(list);
  EXPECT_EQ("morvo_main: ring buffer is 256Kb (" + std::to_string(used) +
                "b consumed), max entry is 5120b, max payload is 4068b\n",
            r.out);
}

TEST_F(ReaderOptionsTest, DefaultBuffersOfAnOperationAreTheFiveKnownOnes) {
  RunResult r = RunCommand({"-g"});
  EXPECT_EQ(0, r.status);
  std::vector<std::string> names;
  for (size_t pos = 0; pos < r.out.size();) {
    size_t colon = r.out.find(':', pos);
    names.push_back(r.out.substr(pos, colon - pos));
    pos = r.out.find('\n', pos) + 1;
  }
  EXPECT_EQ((std::vector<std::string>{"morvo_main", "morvo_system", "morvo_events", "morvo_radio",
                                      "morvo_crash"}),
            names);
}

TEST_F(ReaderOptionsTest, SetSizeAcceptsMultipliersAndBases) {
  EXPECT_EQ(0, RunCommand({"-b", "morvo_radio", "-G", "64k"}).status);
  EXPECT_EQ(
      "morvo_radio: ring buffer is 64Kb (0b consumed), max entry is 5120b, "
      "max payload is 4068b\n",
      RunCommand({"-b", "morvo_radio", "-g"}).out);
  EXPECT_EQ(0, RunCommand({"-b", "morvo_radio", "--buffer-size=0x2000"}).status);
  EXPECT_EQ(
      "morvo_radio: ring buffer is 8Kb (0b consumed), max entry is 5120b, "
      "max payload is 4068b\n",
      RunCommand({"-b", "morvo_radio", "-g"}).out);
}

TEST_F(ReaderOptionsTest, ClearEmptiesTheSelectedBuffersOnly) {
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "main record");
  qd_log_write(LOG_ID_SYSTEM, QD_LOG_INFO, "t", "system record");
  EXPECT_EQ(0, RunCommand({"-c", "-b", "morvo_main"}).status);
  RunResult r = RunCommand({"-d"});
  EXPECT_EQ(std::string::npos, r.out.find("main record"));
  EXPECT_NE(std::string::npos, r.out.find("system record"));
}

TEST_F(ReaderOptionsTest, ClearWithAnOutputFileDeletesTheSetAndKeepsTheBuffers) {
  root_.MakeDirs("/data/log");
  std::string base = root_.Under("/data/log/x");
  std::vector<std::string> files = {base, base + ".01", base + ".05", base + ".10"};
  for (const std::string& f : files) morvotest::WriteFile(f, "old");
  morvotest::WriteFile(base + ".11", "beyond the count");
  qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "kept record");
  RunResult r = RunCommand({"-c", "-f", base, "-n", "10"});
  EXPECT_EQ(0, r.status);
  for (const std::string& f : files) EXPECT_FALSE(morvotest::Exists(f)) << f;
  EXPECT_TRUE(morvotest::Exists(base + ".11"));
  EXPECT_NE(std::string::npos, RunCommand({"-d"}).out.find("kept record"));
  // A name that cannot be deleted fails the clear once, not once per buffer.
  mkdir(base.c_str(), 0775);
  testing::internal::CaptureStderr();
  r = RunCommand({"-c", "-f", base});
  std::string told = testing::internal::GetCapturedStderr();
  EXPECT_EQ(1, r.status);
  size_t first = told.find("while clearing log files");
  ASSERT_NE(std::string::npos, first) << told;
  EXPECT_EQ(std::string::npos, told.find("while clearing log files", first + 1)) << told;
}

TEST_F(ReaderOptionsTest, OperationsOnAnUnusableStoreReportTheFirstBuffer) {
  setenv("MORVOCAT_LOG_STORE", "/proc/no/such/store", 1);
  RunResult r = RunCommand({"-g", "-b", "morvo_system,morvo_main"});
  unsetenv("MORVOCAT_LOG_STORE");
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("Unable to open log device 'morvo_main'\n", r.err);
}

}  // namespace
