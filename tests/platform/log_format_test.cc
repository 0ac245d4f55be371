#include "platform/log_format.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <thread>

namespace {

// As the store hands it out; garbage past the payload shows a parser reading too far.
struct Record {
  qd_log_msg msg;

  explicit Record(const std::string& payload) {
    memset(msg.buf, 'x', sizeof(msg.buf));
    memset(&msg.entry, 0, sizeof(msg.entry));
    memcpy(msg.buf + sizeof(qd_logger_entry), payload.data(), payload.size());
    msg.entry.len = static_cast<uint16_t>(payload.size());
    msg.entry.hdr_size = sizeof(qd_logger_entry);
    msg.entry.pid = 1234;
    msg.entry.tid = 5678;
    msg.entry.sec = 1700000000;  // 2023-11-14 22:13:20 UTC
    msg.entry.nsec = 123456789;
    msg.entry.lid = LOG_ID_MAIN;
    msg.entry.uid = 1000;
  }
  Record(int priority, const std::string& tag, const std::string& message)
      : Record(std::string(1, static_cast<char>(priority)) + tag + '\0' + message + '\0') {}

  int Parse(QdLogEntry* entry) { return qdlogging_log_processLogBuffer(&msg.entry, entry); }
};

// Rules ('|' between calls, '=' addFilterRule, '!' must fail, "~" null), then "Tag:L+/-" checks.
// clang-format off
const struct {
  const char* rules;
  const char* checks;
} kFilterCases[] = {
    {"", "Any:?+ Any:V+ :F+"},
    {"*:W  Foo:D\tBar:s\n", "Foo:D+ Foo:V- Bar:F- Other:I- Other:W+ foo:D- Fo:D-"},
    {"=*:s|Bare|*", "Bare:V+ Any:V+ Any:*-"},
    {"Foo:E *:E Foo:V *:I", "Foo:V+ Any:I+"},
    {"Foo:E *:E Foo:V *:I|Foo:F", "Foo:E- Foo:F+ Any:I+"},
    {"*:E Foo:W|!=Foo:V Bar:V|!=| \t|!~", "Foo:V- Foo:W+ Any:W-"},
    {"*:s v:v d:d i:i w:w e:e f:f", "v:V+ v:*- d:D+ d:V- i:I+ i:D- w:W+ w:I- e:E+ e:W- f:F+ f:E- Any:F-"},
    {"*:s V:V D:D I:I W:W E:E F:F", "V:V+ V:*- D:D+ D:V- I:I+ I:D- W:W+ W:I- E:E+ E:W- F:F+ F:E-"},
};
// clang-format on

class FilterTest : public ::testing::Test {
 protected:
  void SetUp() override { format_ = qdlogging_log_format_new(); }
  void TearDown() override { qdlogging_log_format_free(format_); }
  bool Prints(const std::string& tag, qd_LogPriority priority) {
    return qdlogging_log_shouldPrintLine(format_, tag.c_str(), priority) != 0;
  }
  int Add(const std::string& rule) {
    if (rule == "~") return qdlogging_log_addFilterString(format_, nullptr);
    return rule[0] == '=' ? qdlogging_log_addFilterRule(format_, rule.c_str() + 1)
                          : qdlogging_log_addFilterString(format_, rule.c_str());
  }
  QdLogFormat* format_ = nullptr;
};

TEST_F(FilterTest, RulesDecideWhatPrints) {
  const std::string kLevels = "?*VDIWEF";  // from QD_LOG_UNKNOWN up
  for (const auto& c : kFilterCases) {
    SCOPED_TRACE(c.rules);
    TearDown();
    SetUp();
    std::istringstream rules(c.rules), checks(c.checks);
    for (std::string rule; std::getline(rules, rule, '|');) {
      bool fails = rule[0] == '!';
      EXPECT_TRUE(rule.empty() || fails == (Add(rule.substr(fails)) < 0)) << rule;
    }
    for (std::string check; checks >> check;) {
      size_t colon = check.rfind(':');
      auto level = static_cast<qd_LogPriority>(QD_LOG_UNKNOWN + kLevels.find(check[colon + 1]));
      EXPECT_EQ(check.back() == '+', Prints(check.substr(0, colon), level)) << check;
    }
  }
}

TEST_F(FilterTest, MalformedExpressionsChangeNothing) {
  ASSERT_EQ(0, Add("*:E Foo:W"));
  for (const char* text : {":V", "Foo:", "Foo:X", "Foo:VV", "Foo:V:", "Foo::V", "a:b:c", ":",
                           "*:", "*:Q", "Bar:1", "ok:V Foo:V *:V bad:"}) {
    EXPECT_LT(qdlogging_log_addFilterString(format_, text), 0) << text;
    EXPECT_LT(qdlogging_log_addFilterRule(format_, text), 0) << text;
  }
  EXPECT_FALSE(Prints("Any", QD_LOG_WARN));
  EXPECT_FALSE(Prints("Foo", QD_LOG_INFO));
  EXPECT_FALSE(Prints("ok", QD_LOG_VERBOSE));
}

TEST(PrintFormatTest, OnlyThreadtimeIsKnown) {
  EXPECT_EQ(FORMAT_THREADTIME, qdlogging_log_formatFromString("threadtime"));
  for (const char* other : {"brief", "Threadtime", ""}) {
    EXPECT_EQ(0, qdlogging_log_formatFromString(other)) << other;
  }
  QdLogFormat* format = qdlogging_log_format_new();
  EXPECT_EQ(0, qdlogging_log_setPrintFormat(format, FORMAT_THREADTIME));
  EXPECT_LT(qdlogging_log_setPrintFormat(format, FORMAT_OFF), 0);
  qdlogging_log_format_free(format);
}

TEST(ProcessLogBufferTest, ParsesHeaderTagAndMessage) {
  const struct {
    std::string payload, tag, message;
  } kCases[] = {
      // clang-format off
      {std::string("\x05MyTag\0hello\0", 13), "MyTag", "hello"},
      {std::string("\x05tag\0hello", 10), "tag", "hello"},
      {std::string("\x05tag\0hi\0rest\0", 13), "tag", "hi"},
      {std::string("\x05\0", 2), "", ""},
      {std::string("\x05t\0", 3) + std::string(QD_LOGGER_ENTRY_MAX_PAYLOAD - 3, 'm'), "t", std::string(QD_LOGGER_ENTRY_MAX_PAYLOAD - 3, 'm')},
      // clang-format on
  };
  for (const auto& c : kCases) {
    Record record(c.payload);
    QdLogEntry entry;
    ASSERT_EQ(0, record.Parse(&entry)) << c.message.substr(0, 9);
    EXPECT_EQ(QD_LOG_WARN, entry.priority);
    EXPECT_EQ(1234, entry.pid);
    EXPECT_EQ(5678, entry.tid);
    EXPECT_EQ(1000, entry.uid);
    EXPECT_EQ(1700000000, entry.tv_sec);
    EXPECT_EQ(123456789, entry.tv_nsec);
    EXPECT_EQ(c.tag, std::string(entry.tag, entry.tagLen));
    EXPECT_EQ(c.message, std::string(entry.message, entry.messageLen));
  }
}

TEST(ProcessLogBufferTest, RejectsMalformedRecords) {
  QdLogEntry entry;
  for (uint16_t hdr : {0, 20, 27, 29, 5000}) {
    Record record(QD_LOG_INFO, "tag", "msg");
    record.msg.entry.hdr_size = hdr;
    EXPECT_LT(record.Parse(&entry), 0) << hdr;
  }
  for (uint16_t len : {0, 1, QD_LOGGER_ENTRY_MAX_PAYLOAD + 1, 5100}) {
    Record record(QD_LOG_INFO, "tag", "msg");
    record.msg.entry.len = len;
    EXPECT_LT(record.Parse(&entry), 0) << len;
  }
  // The tag's NUL lies just past the payload: still unterminated.
  Record noTagEnd(std::string("\x04tagonly", 8));
  noTagEnd.msg.buf[sizeof(qd_logger_entry) + 8] = '\0';
  EXPECT_LT(noTagEnd.Parse(&entry), 0);
  Record badNanos(QD_LOG_INFO, "tag", "msg");
  badNanos.msg.entry.nsec = 1000000000;
  EXPECT_LT(badNanos.Parse(&entry), 0);
}

class ThreadTimeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    format_ = qdlogging_log_format_new();
  }
  void TearDown() override { qdlogging_log_format_free(format_); }

  std::string Line(Record& record) {
    QdLogEntry entry;
    if (record.Parse(&entry) < 0) return "unparsed";
    return Format(entry);
  }
  std::string Format(const QdLogEntry& entry) {
    char buffer[512];
    size_t length = 0;
    char* text = qdlogging_log_formatLogLine(format_, buffer, sizeof(buffer), &entry, &length);
    if (text == nullptr) return "failed";
    std::string line(text, length);
    EXPECT_EQ(length, strlen(text));
    if (text != buffer) free(text);
    return line;
  }
  QdLogFormat* format_ = nullptr;
};

const std::string kAt = "11-14 22:13:20.123  1234  5678 ";

// All through one format, so no field carries over; 0 keeps the record's own field.
// clang-format off
const struct {
  int priority;
  const char* tag;
  const char* message;
  int32_t pid;
  uint32_t tid, sec, nsec;
  std::string lines;
} kLineCases[] = {
    {QD_LOG_INFO, "MyTag", "hello world", 0, 0, 0, 0, kAt + "I MyTag   : hello world\n"},
    {QD_LOG_INFO, "T", "m", 0, 0, 0, 7999999, "11-14 22:13:20.007  1234  5678 I T       : m\n"},
    {QD_LOG_INFO, "T", "m", 0, 0, 1709251199, 1, "02-29 23:59:59.000  1234  5678 I T       : m\n"},
    {QD_LOG_INFO, "T", "m", 0, 0, 1700003600, 0, "11-14 23:13:20.123  1234  5678 I T       : m\n"},
    {QD_LOG_DEBUG, "EightChr", "m", 1, 1234567, 0, 0, "11-14 22:13:20.123     1 1234567 D EightChr: m\n"},
    {QD_LOG_ERROR, "ActivityManager", "m", -1, 1u << 31, 0, 0, "11-14 22:13:20.123    -1 -2147483648 E ActivityManager: m\n"},
    {QD_LOG_FATAL, "", "m", 0, 0, 0, 0, kAt + "F         : m\n"},
    {QD_LOG_WARN, "T", "a\nbb\n", 0, 0, 0, 0, kAt + "W T       : a\n" + kAt + "W T       : bb\n"},
    {QD_LOG_WARN, "T", "a\n\nb", 0, 0, 0, 0, kAt + "W T       : a\n" + kAt + "W T       : \n" + kAt + "W T       : b\n"},
    {QD_LOG_WARN, "T", "", 0, 0, 0, 0, kAt + "W T       : \n"},
    {0, "T", "m", 0, 0, 0, 0, kAt + "? T       : m\n"},
    {QD_LOG_VERBOSE, "T", "m", 0, 0, 0, 0, kAt + "V T       : m\n"},
    {8, "T", "m", 0, 0, 0, 0, kAt + "S T       : m\n"},
    {0xC8, "T", "m", 0, 0, 0, 0, kAt + "? T       : m\n"},
};
// clang-format on

TEST_F(ThreadTimeTest, ExactBytes) {
  for (const auto& c : kLineCases) {
    Record record(c.priority, c.tag, c.message);
    qd_logger_entry& e = record.msg.entry;
    if (c.pid != 0) e.pid = c.pid;
    if (c.tid != 0) e.tid = c.tid;
    if (c.sec != 0) e.sec = c.sec;
    if (c.nsec != 0) e.nsec = c.nsec;  // 1 ns shows as .000
    EXPECT_EQ(c.lines, Line(record));
  }
}

TEST_F(ThreadTimeTest, UsesLocalTime) {
  setenv("TZ", "EST5", 1);
  tzset();
  QdLogFormat* other = qdlogging_log_format_new();
  std::swap(other, format_);
  Record record(QD_LOG_INFO, "T", "m");
  EXPECT_EQ("11-14 17:13:20.123", Line(record).substr(0, 18));
  std::swap(other, format_);
  qdlogging_log_format_free(other);
}

TEST_F(ThreadTimeTest, LongLinesGoToTheHeap) {
  QdLogEntry entry;
  std::string message(100, 'a');
  Record record(QD_LOG_INFO, "T", message);
  ASSERT_EQ(0, record.Parse(&entry));
  const std::string expected = kAt + "I T       : " + message + "\n";
  // Exactly room for the text and its NUL, then one byte less.
  char buffer[256];
  size_t length = 0;
  char* text = qdlogging_log_formatLogLine(format_, buffer, expected.size() + 1, &entry, &length);
  EXPECT_EQ(buffer, text);
  EXPECT_EQ(expected, std::string(text, length));
  text = qdlogging_log_formatLogLine(format_, buffer, expected.size(), &entry, &length);
  ASSERT_NE(nullptr, text);
  EXPECT_NE(buffer, text);
  EXPECT_EQ(expected, std::string(text, length));
  free(text);
  std::string lines, many;
  for (int i = 0; i < 40; ++i) {
    many += "line " + std::to_string(i) + "\n";
    lines += kAt + "I T       : line " + std::to_string(i) + "\n";
  }
  Record multi(QD_LOG_INFO, "T", many);
  EXPECT_EQ(lines, Line(multi));
}

TEST_F(ThreadTimeTest, RefusesEntriesItCannotTrust) {
  Record record(QD_LOG_INFO, "T", "m");
  QdLogEntry entry;
  ASSERT_EQ(0, record.Parse(&entry));
  QdLogEntry bad = entry;
  bad.tv_nsec = 1000000000;
  EXPECT_EQ("failed", Format(bad));
  bad = entry;
  bad.tag = nullptr;
  EXPECT_EQ("failed", Format(bad));
  size_t length = 0;
  EXPECT_EQ(nullptr, qdlogging_log_formatLogLine(format_, nullptr, 0, nullptr, &length));
}

std::string Drain(int fd) {
  std::string all;
  char chunk[4096];
  ssize_t n;
  while ((n = read(fd, chunk, sizeof(chunk))) > 0) all.append(chunk, n);
  return all;
}

void Ignore(int) {}

// 4000 lines fill the pipe: signals without SA_RESTART must not cut the write short.
TEST_F(ThreadTimeTest, PrintWritesTheWholeLineThroughSignalsAndAFullPipe) {
  struct sigaction action = {}, old = {};
  action.sa_handler = Ignore;
  ASSERT_EQ(0, sigaction(SIGUSR1, &action, &old));
  for (const std::string& message :
       {std::string("piped"), std::string(QD_LOGGER_ENTRY_MAX_PAYLOAD - 4, '\n')}) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    Record record(QD_LOG_INFO, "T", message);
    QdLogEntry entry;
    ASSERT_EQ(0, record.Parse(&entry));
    const std::string expected = Format(entry);
    EXPECT_LT(qdlogging_log_printLogLine(format_, fds[0], &entry), 0);
    pthread_t writer = pthread_self();
    std::string received;
    std::thread reader([&] {
      for (int i = 0; i < 5; ++i) {
        usleep(20000);
        pthread_kill(writer, SIGUSR1);
      }
      received = Drain(fds[0]);
    });
    EXPECT_EQ(static_cast<int>(expected.size()),
              qdlogging_log_printLogLine(format_, fds[1], &entry));
    close(fds[1]);
    reader.join();
    close(fds[0]);
    EXPECT_TRUE(expected == received) << received.size();
  }
  sigaction(SIGUSR1, &old, nullptr);
}

}  // namespace
