// The pieces of morvo-view that read one line or one name: formats, years, file names, tar.

#include <gtest/gtest.h>
#include <string.h>

#include <sstream>
#include <string>

#include "tools/view/line_parser.h"
#include "tools/view/set_clock.h"
#include "tools/view/set_finder.h"
#include "tools/view/tar_reader.h"
#include "tools/view/wall_time.h"

namespace {

using view::LineKind;

std::string Long(int64_t ms) {
  char text[24];
  view::FormatLong(ms, text, false);
  return text;
}

// What the parser found: "<kind letter> <fields>|<message>", the message "*" if the whole line.
std::string Parsed(const char* line) {
  view::ParsedLine p;
  view::ParseLine(line, strlen(line), &p);
  char stamp[32], text[256];
  snprintf(stamp, sizeof(stamp), "%02d:%02d:%02d.%03d", p.dayMs / 3600000, p.dayMs / 60000 % 60,
           p.dayMs / 1000 % 60, p.dayMs % 1000);
  if (p.kind == LineKind::kThreadTime) {
    snprintf(text, sizeof(text), "T %02d-%02d %s %d %d %c %.*s", p.month, p.day, stamp, p.pid,
             p.tid, p.priority, static_cast<int>(p.tagLength), p.tag);
  } else if (p.kind == LineKind::kStream || p.kind == LineKind::kEvent) {
    snprintf(text, sizeof(text), "%c %02d-%02d %s", p.kind == LineKind::kStream ? 'S' : 'E',
             p.month, p.day, stamp);
  } else {
    snprintf(text, sizeof(text), "%s",
             p.kind == LineKind::kDated ? ("D " + Long(p.datedMs)).c_str() : "P");
  }
  std::string message(p.message, p.messageLength);
  return std::string(text) + "|" + (message == line ? "*" : message);
}

TEST(LineFormat, EachFormatTheSystemWrites) {
  // clang-format off
  const char* const kCases[][2] = {
      {"01-05 08:15:02.042  1234  1240 I ActivityManager: Start proc", "T 01-05 08:15:02.042 1234 1240 I ActivityManager|Start proc"},
      {"12-31 23:59:59.999    -1     7 W t       : a: b", "T 12-31 23:59:59.999 -1 7 W t|a: b"},
      {"02-29 00:00:00.000 123456 123457 ? a:b tag: x", "T 02-29 00:00:00.000 123456 123457 ? a:b tag|x"},
      {"03-01 10:00:00.000  1  2 E empty   :", "T 03-01 10:00:00.000 1 2 E empty|"},
      {"11-16 15:52:03.042 <6>[ 1.5] kernel", "S 11-16 15:52:03.042|<6>[ 1.5] kernel"},
      {"11-16 15:52:03.042 1 2 X not threadtime", "S 11-16 15:52:03.042|1 2 X not threadtime"},
      {"01-31 12:34:56 [1706704496.123456] KEY_POWER DOWN    ", "E 01-31 12:34:56.000|[1706704496.123456] KEY_POWER DOWN    "},
      {" 01-31 12:34:57 [1706704496.140122] S 00000000\trate 60", "E 01-31 12:34:57.000|[1706704496.140122] S 00000000\trate 60"},
      {"2024-01-05 08:15:02 > 42    7", "D 2024-01-05 08:15:02.000|*"},
      {"current time: <battery>2024-1-5 8:15:2", "D 2024-01-05 08:15:02.000|*"},
      {"current time: <a>b>2023-12-31 23:59:59", "D 2023-12-31 23:59:59.000|*"},
      {"current time: 2024-2-29 0:0:0", "D 2024-02-29 00:00:00.000|*"},
      {"--------- beginning of morvo_main", "P|*"},
      {"13-01 00:00:00.000  1  2 I t: month 13", "P|*"},
      {"12-31 24:00:00.000 hour 24", "P|*"},
      {"current time: <cmd>2024-13-1 0:0:0", "P|*"},
      {"12-31", "P|*"},
  };
  // clang-format on
  for (const auto& c : kCases) EXPECT_EQ(c[1], Parsed(c[0])) << c[0];
}

int64_t At(const char* iso) {
  int64_t ms = 0;
  EXPECT_TRUE(view::ParseIsoStamp(iso, strlen(iso), &ms)) << iso;
  return ms;
}

// New years, Dec 31 records in a Jan 1 file, plain files, dated lines, Feb 29, unordered threads.
TEST(SetClock, YearFromTheFileAndTheLineBefore) {
  // clang-format off
  struct ClockCase { const char* anchor; bool anchorIsStart; const char *lines, *times; } const cases[] = {
      {"2023-12-31 23:59:58", true, "12-31 23:59:59.000 a|01-01 00:00:01.000 b|title row|01-01 00:00:02.000 c", "2023-12-31 23:59:59|2024-01-01 00:00:01|2024-01-01 00:00:01|2024-01-01 00:00:02"},
      {"2024-01-01 00:00:05", true, "12-31 23:59:50.000 old|01-01 00:00:06.000 new", "2023-12-31 23:59:50|2024-01-01 00:00:06"},
      {"2024-01-01 00:10:00", false, "12-30 10:00:00.000 a|12-31 23:00:00.000 b|01-01 00:05:00.000 c", "2023-12-30 10:00:00|2023-12-31 23:00:00|2024-01-01 00:05:00"},
      {"2020-06-01 00:00:00", false, "current time: <x>2024-12-31 23:59:59|01-01 00:00:01.000 a|output", "2024-12-31 23:59:59|2025-01-01 00:00:01|2025-01-01 00:00:01"},
      {"2024-02-28 12:00:00", true, "02-29 01:00:00.000 leap|03-01 01:00:00.000 after", "2024-02-29 01:00:00|2024-03-01 01:00:00"},
      {"2023-12-31 23:59:59", true, "01-01 00:00:00.100 a|12-31 23:59:59.900 b", "2024-01-01 00:00:00|2023-12-31 23:59:59"},
  };
  // clang-format on
  for (const ClockCase& c : cases) {  // lines and their times to the second, joined by "|"
    SCOPED_TRACE(c.lines);
    view::SetClock clock;
    clock.Anchor(At(c.anchor), c.anchorIsStart);
    std::istringstream lines(c.lines);
    std::string times;
    for (std::string line; std::getline(lines, line, '|');) {
      view::ParsedLine p;
      view::ParseLine(line.c_str(), line.size(), &p);
      times += (times.empty() ? "" : "|") + Long(clock.Place(p)).substr(0, 19);
    }
    EXPECT_EQ(c.times, times);
  }
}

TEST(SetNames, KindBaseAndNumber) {
  using view::NameParts;
  // clang-format off
  struct { const char* name; NameParts::Kind kind; const char* base; long number; } cases[] = {
      {"out.I007.20240105-081502.gz", NameParts::kIndexed, "out", 7},
      {"a.b.I999.20231231-235959.gz", NameParts::kIndexed, "a.b", 999},
      {"out.Ix07.20240105-081502.gz", NameParts::kPlain, "out.Ix07.20240105-081502.gz", 0},
      {"out.I007.20241305-081502.gz", NameParts::kPlain, "out.I007.20241305-081502.gz", 0},
      {"kmsg-0.tar.gz", NameParts::kArchive, "kmsg", 0},
      {"my-log-12.tar.gz", NameParts::kArchive, "my-log", 12},
      {"kmsg.5", NameParts::kNumbered, "kmsg", 5},
      {"out.07", NameParts::kNumbered, "out", 7},
      {"kmsg", NameParts::kPlain, "kmsg", 0},
      {"events.log", NameParts::kPlain, "events.log", 0},
      {"-0.tar.gz", NameParts::kPlain, "-0.tar.gz", 0},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    NameParts parts = view::ClassifyName(c.name);
    EXPECT_EQ(c.kind, parts.kind);
    EXPECT_EQ(c.base, parts.base);
    EXPECT_EQ(c.number, parts.number);
  }
}

// A header block as the archive writer makes it (v7, zero mtime) or tar (ustar with a prefix).
void Header(unsigned char block[512], const char* name, const char* size, const char* prefix) {
  memset(block, 0, 512);
  memcpy(block, name, strlen(name));
  memcpy(block + 100, "100666 ", 8);
  memcpy(block + 124, size, strlen(size));
  if (prefix != nullptr) {
    memcpy(block + 257, "ustar", 6);
    memcpy(block + 345, prefix, strlen(prefix));
  }
  unsigned sum = 0;
  for (int i = 0; i < 512; ++i) sum += (i >= 148 && i < 156) ? ' ' : block[i];
  snprintf(reinterpret_cast<char*>(block) + 148, 8, "%o", sum);
}

TEST(TarHeader, FieldsChecksumAndEnd) {
  unsigned char block[512];
  view::TarHeader header;
  bool end = true;
  Header(block, "kmsg.1", "1750", nullptr);
  ASSERT_TRUE(view::ParseTarHeader(block, &header, &end));
  EXPECT_FALSE(end);
  EXPECT_EQ("kmsg.1", header.name);
  EXPECT_EQ(01750u, header.size);
  EXPECT_TRUE(header.regular);

  Header(block, "f", "0", "some/dir");
  ASSERT_TRUE(view::ParseTarHeader(block, &header, &end));
  EXPECT_EQ("some/dir/f", header.name);

  block[0] ^= 1;  // the checksum no longer agrees
  EXPECT_FALSE(view::ParseTarHeader(block, &header, &end));

  memset(block, 0, sizeof(block));
  ASSERT_TRUE(view::ParseTarHeader(block, &header, &end));
  EXPECT_TRUE(end);
}

}  // namespace
