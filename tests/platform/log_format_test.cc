#include "platform/log_format.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace {

// A record as the store hands it out; the bytes past the payload are
// garbage so that a parser reading too far shows up.
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
  // priority is the raw byte, which may be no known priority.
  Record(int priority, const std::string& tag, const std::string& message)
      : Record(std::string(1, static_cast<char>(priority)) + tag + '\0' + message + '\0') {}

  int Parse(QdLogEntry* entry) { return qdlogging_log_processLogBuffer(&msg.entry, entry); }
};

class FilterTest : public ::testing::Test {
 protected:
  void SetUp() override { format_ = qdlogging_log_format_new(); }
  void TearDown() override { qdlogging_log_format_free(format_); }
  bool Prints(const char* tag, qd_LogPriority priority) {
    return qdlogging_log_shouldPrintLine(format_, tag, priority) != 0;
  }
  QdLogFormat* format_ = nullptr;
};

TEST_F(FilterTest, WithoutRulesEverythingPrints) {
  ASSERT_NE(nullptr, format_);
  EXPECT_TRUE(Prints("Any", QD_LOG_UNKNOWN));
  EXPECT_TRUE(Prints("Any", QD_LOG_VERBOSE));
  EXPECT_TRUE(Prints("", QD_LOG_FATAL));
}

TEST_F(FilterTest, TagRulesOverrideTheDefault) {
  ASSERT_EQ(0, qdlogging_log_addFilterString(format_, "*:W  Foo:D\tBar:s\n"));
  EXPECT_TRUE(Prints("Foo", QD_LOG_DEBUG));
  EXPECT_FALSE(Prints("Foo", QD_LOG_VERBOSE));
  EXPECT_FALSE(Prints("Bar", QD_LOG_FATAL));
  EXPECT_FALSE(Prints("Other", QD_LOG_INFO));
  EXPECT_TRUE(Prints("Other", QD_LOG_WARN));
  // Tags match exactly, case included.
  EXPECT_FALSE(Prints("foo", QD_LOG_DEBUG));
  EXPECT_FALSE(Prints("Fo", QD_LOG_DEBUG));
}

TEST_F(FilterTest, LettersInEitherCaseAndBareTagsMeanVerbose) {
  ASSERT_EQ(0, qdlogging_log_addFilterRule(format_, "*:s"));
  EXPECT_FALSE(Prints("Any", QD_LOG_FATAL));
  const char* letters = "vdiwefVDIWEF";
  for (int i = 0; letters[i] != '\0'; ++i) {
    std::string rule = std::string("T:") + letters[i];
    ASSERT_EQ(0, qdlogging_log_addFilterString(format_, rule.c_str())) << rule;
    qd_LogPriority level = static_cast<qd_LogPriority>(QD_LOG_VERBOSE + i % 6);
    EXPECT_TRUE(Prints("T", level)) << rule;
    EXPECT_FALSE(Prints("T", static_cast<qd_LogPriority>(level - 1))) << rule;
  }
  ASSERT_EQ(0, qdlogging_log_addFilterString(format_, "Bare"));
  EXPECT_TRUE(Prints("Bare", QD_LOG_VERBOSE));
  ASSERT_EQ(0, qdlogging_log_addFilterString(format_, "*"));
  EXPECT_TRUE(Prints("Any", QD_LOG_VERBOSE));
  EXPECT_FALSE(Prints("Any", QD_LOG_DEFAULT));
}

TEST_F(FilterTest, LastRuleForATagWins) {
  ASSERT_EQ(0, qdlogging_log_addFilterString(format_, "Foo:E *:E Foo:V *:I"));
  EXPECT_TRUE(Prints("Foo", QD_LOG_VERBOSE));
  EXPECT_TRUE(Prints("Any", QD_LOG_INFO));
  ASSERT_EQ(0, qdlogging_log_addFilterString(format_, "Foo:F"));
  EXPECT_FALSE(Prints("Foo", QD_LOG_ERROR));
  EXPECT_TRUE(Prints("Foo", QD_LOG_FATAL));
}

TEST_F(FilterTest, MalformedExpressionsChangeNothing) {
  ASSERT_EQ(0, qdlogging_log_addFilterString(format_, "*:E Foo:W"));
  const char* bad[] = {":V",    "Foo:", "Foo:X", "Foo:VV", "Foo:V:", "Foo::V",
                       "a:b:c", ":",    "*:",    "*:Q",    "Bar:1",  "ok:V Foo:V *:V bad:"};
  for (const char* text : bad) {
    EXPECT_LT(qdlogging_log_addFilterString(format_, text), 0) << text;
    EXPECT_LT(qdlogging_log_addFilterRule(format_, text), 0) << text;
  }
  EXPECT_FALSE(Prints("Any", QD_LOG_WARN));
  EXPECT_FALSE(Prints("Foo", QD_LOG_INFO));
  EXPECT_FALSE(Prints("ok", QD_LOG_VERBOSE));
  // One rule per call, and no rule at all is no rule.
  EXPECT_LT(qdlogging_log_addFilterRule(format_, "Foo:V Bar:V"), 0);
  EXPECT_LT(qdlogging_log_addFilterRule(format_, ""), 0);
  EXPECT_FALSE(Prints("Foo", QD_LOG_VERBOSE));
  EXPECT_EQ(0, qdlogging_log_addFilterString(format_, " \t"));
  EXPECT_LT(qdlogging_log_addFilterString(format_, nullptr), 0);
  EXPECT_TRUE(Prints("Foo", QD_LOG_WARN));
}

TEST(PrintFormatTest, OnlyThreadtimeIsKnown) {
  EXPECT_EQ(FORMAT_THREADTIME, qdlogging_log_formatFromString("threadtime"));
  EXPECT_EQ(0, qdlogging_log_formatFromString("brief"));
  EXPECT_EQ(0, qdlogging_log_formatFromString("Threadtime"));
  EXPECT_EQ(0, qdlogging_log_formatFromString(""));
  QdLogFormat* format = qdlogging_log_format_new();
  EXPECT_EQ(0, qdlogging_log_setPrintFormat(format, FORMAT_THREADTIME));
  EXPECT_LT(qdlogging_log_setPrintFormat(format, FORMAT_OFF), 0);
  qdlogging_log_format_free(format);
}

TEST(ProcessLogBufferTest, ParsesHeaderTagAndMessage) {
  Record record(QD_LOG_WARN, "MyTag", "hello");
  QdLogEntry entry;
  ASSERT_EQ(0, record.Parse(&entry));
  EXPECT_EQ(QD_LOG_WARN, entry.priority);
  EXPECT_EQ(1234, entry.pid);
  EXPECT_EQ(5678, entry.tid);
  EXPECT_EQ(1000, entry.uid);
  EXPECT_EQ(1700000000, entry.tv_sec);
  EXPECT_EQ(123456789, entry.tv_nsec);
  EXPECT_EQ("MyTag", std::string(entry.tag, entry.tagLen));
  EXPECT_EQ("hello", std::string(entry.message, entry.messageLen));
}

TEST(ProcessLogBufferTest, MessageEndsAtItsNulOrThePayloadEnd) {
  QdLogEntry entry;
  Record cut(std::string("\x04tag\0hello", 10));
  ASSERT_EQ(0, cut.Parse(&entry));
  EXPECT_EQ("hello", std::string(entry.message, entry.messageLen));
  Record inner(std::string("\x04tag\0hi\0rest\0", 13));
  ASSERT_EQ(0, inner.Parse(&entry));
  EXPECT_EQ("hi", std::string(entry.message, entry.messageLen));
  Record empty(std::string("\x04\0", 2));
  ASSERT_EQ(0, empty.Parse(&entry));
  EXPECT_EQ(0u, entry.tagLen);
  EXPECT_EQ(0u, entry.messageLen);
  Record full(std::string("\x04t\0", 3) + std::string(QD_LOGGER_ENTRY_MAX_PAYLOAD - 3, 'm'));
  ASSERT_EQ(0, full.Parse(&entry));
  EXPECT_EQ(static_cast<size_t>(QD_LOGGER_ENTRY_MAX_PAYLOAD - 3), entry.messageLen);
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

TEST_F(ThreadTimeTest, ExactBytes) {
  Record record(QD_LOG_INFO, "MyTag", "hello world");
  EXPECT_EQ("11-14 22:13:20.123  1234  5678 I MyTag   : hello world\n", Line(record));
  record.msg.entry.nsec = 7999999;
  EXPECT_EQ("11-14 22:13:20.007  1234  5678 I MyTag   : hello world\n", Line(record));
  record.msg.entry.nsec = 0;
  record.msg.entry.sec = 1709251199;  // 2024-02-29 23:59:59
  EXPECT_EQ("02-29 23:59:59.000  1234  5678 I MyTag   : hello world\n", Line(record));
}

TEST_F(ThreadTimeTest, EachRecordGetsItsOwnSecond) {
  Record record(QD_LOG_INFO, "T", "m");
  const uint32_t secs[] = {1700000000, 1700000000, 1700000001, 1700000000, 1700003600};
  const char* stamps[] = {"11-14 22:13:20", "11-14 22:13:20", "11-14 22:13:21", "11-14 22:13:20",
                          "11-14 23:13:20"};
  for (int i = 0; i < 5; ++i) {
    record.msg.entry.sec = secs[i];
    EXPECT_EQ(stamps[i], Line(record).substr(0, 14)) << i;
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

TEST_F(ThreadTimeTest, AlignsIdsAndTags) {
  Record record(QD_LOG_DEBUG, "EightChr", "m");
  record.msg.entry.pid = 1;
  record.msg.entry.tid = 1234567;
  EXPECT_EQ("11-14 22:13:20.123     1 1234567 D EightChr: m\n", Line(record));
  Record longTag(QD_LOG_ERROR, "ActivityManager", "m");
  longTag.msg.entry.pid = -1;
  longTag.msg.entry.tid = static_cast<uint32_t>(INT32_MIN);
  EXPECT_EQ("11-14 22:13:20.123    -1 -2147483648 E ActivityManager: m\n", Line(longTag));
  Record noTag(QD_LOG_FATAL, "", "m");
  EXPECT_EQ("11-14 22:13:20.123  1234  5678 F         : m\n", Line(noTag));
}

TEST_F(ThreadTimeTest, PriorityLetters) {
  const char expected[] = "??VDIWEFS??";
  for (int p = 0; p <= 10; ++p) {
    Record record(p, "T", "m");
    EXPECT_EQ(expected[p], Line(record)[31]) << p;
  }
  Record high(0xC8, "T", "m");
  EXPECT_EQ('?', Line(high)[31]);
  QdLogEntry entry;
  ASSERT_EQ(0, high.Parse(&entry));
  EXPECT_EQ(QD_LOG_UNKNOWN, entry.priority);
}

TEST_F(ThreadTimeTest, OneLinePerMessageLine) {
  const std::string prefix = "11-14 22:13:20.123  1234  5678 W T       : ";
  struct {
    const char* message;
    std::string expected;
  } cases[] = {
      {"a\nbb\n", prefix + "a\n" + prefix + "bb\n"},
      {"a\n\nb", prefix + "a\n" + prefix + "\n" + prefix + "b\n"},
      {"a\n\n", prefix + "a\n" + prefix + "\n"},
      {"\n", prefix + "\n"},
      {"", prefix + "\n"},
  };
  for (const auto& c : cases) {
    Record record(QD_LOG_WARN, "T", c.message);
    EXPECT_EQ(c.expected, Line(record)) << c.message;
  }
}

TEST_F(ThreadTimeTest, LongLinesGoToTheHeap) {
  QdLogEntry entry;
  const std::string prefix = "11-14 22:13:20.123  1234  5678 I T       : ";
  std::string message(100, 'a');
  Record record(QD_LOG_INFO, "T", message);
  ASSERT_EQ(0, record.Parse(&entry));
  const std::string expected = prefix + message + "\n";
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

  std::string lines;
  std::string many;
  for (int i = 0; i < 40; ++i) {
    many += "line " + std::to_string(i) + "\n";
    lines += prefix + "line " + std::to_string(i) + "\n";
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

// Reads everything from fd until the write end closes.
std::string Drain(int fd) {
  std::string all;
  char chunk[4096];
  ssize_t n;
  while ((n = read(fd, chunk, sizeof(chunk))) > 0) all.append(chunk, n);
  return all;
}

void Ignore(int) {}

TEST_F(ThreadTimeTest, PrintWritesTheWholeLine) {
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  Record record(QD_LOG_INFO, "T", "piped");
  QdLogEntry entry;
  ASSERT_EQ(0, record.Parse(&entry));
  const std::string expected = "11-14 22:13:20.123  1234  5678 I T       : piped\n";
  EXPECT_EQ(static_cast<int>(expected.size()), qdlogging_log_printLogLine(format_, fds[1], &entry));
  EXPECT_LT(qdlogging_log_printLogLine(format_, fds[0], &entry), 0);
  close(fds[1]);
  EXPECT_EQ(expected, Drain(fds[0]));
  close(fds[0]);
}

TEST_F(ThreadTimeTest, PrintSurvivesSignalsAndAFullPipe) {
  // Some 4000 short lines: far more than a pipe holds, so the write blocks
  // and signals without SA_RESTART interrupt it or cut it short.
  struct sigaction action = {};
  struct sigaction old = {};
  action.sa_handler = Ignore;
  ASSERT_EQ(0, sigaction(SIGUSR1, &action, &old));
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  Record record(QD_LOG_INFO, "T", std::string(QD_LOGGER_ENTRY_MAX_PAYLOAD - 4, '\n'));
  QdLogEntry entry;
  ASSERT_EQ(0, record.Parse(&entry));
  const std::string expected = Format(entry);
  pthread_t writer = pthread_self();
  std::string received;
  std::thread reader([&] {
    for (int i = 0; i < 5; ++i) {
      usleep(20000);
      pthread_kill(writer, SIGUSR1);
    }
    received = Drain(fds[0]);
  });
  EXPECT_EQ(static_cast<int>(expected.size()), qdlogging_log_printLogLine(format_, fds[1], &entry));
  close(fds[1]);
  reader.join();
  close(fds[0]);
  sigaction(SIGUSR1, &old, nullptr);
  EXPECT_EQ(expected.size(), received.size());
  EXPECT_TRUE(expected == received);
}

}  // namespace
