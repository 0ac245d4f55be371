// Log file names: what each parser takes or refuses, accepted names made again byte for byte.

#include <gtest/gtest.h>
#include <limits.h>

#include <iterator>
#include <string>
#include <vector>

#include "platform/log_file_names.h"
#include "set_owners.h"

namespace {

using platform::ArchiveName;
using platform::NumberedName;
using platform::SetFileName;

enum Kind { kSet, kNumbered, kArchive, kNone };

// number: the index, n or j.
// clang-format off
struct NameRow { std::string name; Kind kind; size_t baseLength = 0; uint64_t number = 0; const char* stamp = nullptr; };
// clang-format on

const std::string kLongBase(300, 'b');

// Names no parser takes, "|"-separated, the last one empty: bad digits, dates, separators,
// suffixes.
const char kRefused[] =
    "x.Ix07.20240105-081502.gz|x.I07.20240105-081502.gz|x.I0007.20240105-081502.gz|"
    "x.I1000.20240105-081502.gz|x.I-12.20240105-081502.gz|x.I007.20241305-081502.gz|"
    "x.I007.20240100-081502.gz|x.I007.20240132-081502.gz|x.I007.20240105-241502.gz|"
    "x.I007.20240105-086002.gz|x.I007.20240105-081561.gz|x.I007.2024010X-08150Y.gz|"
    "x.I007.20240105_081502.gz|x.I007-20240105-081502.gz|x.I007.20240105-081502.gzx|"
    "x.I007.20240105-081502.xz|.I007.20240105-081502.gz|kmsg.1234567890|kmsg.|.5|kmsg.+5|"
    "kmsg.-1|kmsg. 5|-0.tar.gz|kmsg-.tar.gz|kmsg-x.tar.gz|kmsg-1.tar.gzx|"
    "kmsg-1234567890.tar.gz|kmsg|.|..|";

const NameRow kNames[] = {
    {"applog.I007.20240105-081502.gz", kSet, 6, 7, "20240105-081502"},
    {"a.b.I999.20231231-235959.gz", kSet, 3, 999, "20231231-235959"},
    {"/d/x.I000.20241231-235960.gz", kSet, 4, 0, "20241231-235960"},  // leap second
    {"x.I001.19000100-000000.gz", kSet, 1, 1, platform::kUnknownStamp},
    {kLongBase + ".I042.20240105-081502.gz", kSet, 300, 42, "20240105-081502"},
    {"x.I007.20240105-081502.gz.1", kNumbered, 25, 1, nullptr},
    {"kmsg.5", kNumbered, 4, 5, nullptr},
    {"out.07", kNumbered, 3, 7, nullptr},
    {"kmsg.123456789", kNumbered, 4, 123456789, nullptr},
    {"kmsg-0.tar.gz", kArchive, 4, 0, nullptr},
    {"my-log-12.tar.gz", kArchive, 6, 12, nullptr},
    {"kmsg-1.tar.gz.3", kNumbered, 13, 3, nullptr},
};

TEST(LogFileNames, EachNameParsesAsOneKindAndIsMadeAgainByteForByte) {
  std::vector<NameRow> rows(std::begin(kNames), std::end(kNames));
  std::string refused = kRefused;
  for (size_t at = 0, bar = 0; bar != std::string::npos; at = bar + 1) {
    bar = refused.find('|', at);
    rows.push_back({refused.substr(at, bar == std::string::npos ? bar : bar - at), kNone});
  }
  for (const NameRow& row : rows) {
    SCOPED_TRACE(row.name.substr(0, 60));
    size_t length[3] = {99, 99, 99};
    uint32_t index = 99;
    uint64_t n[2] = {99, 99};
    std::string stamp = "untouched";
    bool parsed[3] = {platform::ParseSetFileName(row.name, &length[kSet], &index, &stamp),
                      platform::ParseNumberedName(row.name, &length[kNumbered], &n[0]),
                      platform::ParseArchiveName(row.name, &length[kArchive], &n[1])};
    for (int kind : {kSet, kNumbered, kArchive}) {
      EXPECT_EQ(kind == row.kind, parsed[kind]) << kind;
      if (kind != row.kind) {
        EXPECT_EQ(99u, length[kind]) << kind;
      }
    }
    if (row.kind == kNone) continue;
    const std::string base = row.name.substr(0, row.baseLength);
    EXPECT_EQ(row.baseLength, length[row.kind]);
    if (row.kind == kSet) {
      EXPECT_EQ(row.number, index);
      EXPECT_EQ(row.stamp, stamp);
      EXPECT_EQ(row.name, SetFileName(base, index, stamp));
    } else if (row.kind == kNumbered) {
      EXPECT_EQ(row.number, n[0]);
      int width = static_cast<int>(row.name.size() - row.baseLength - 1);
      EXPECT_EQ(row.name, NumberedName(base, n[0], width));
    } else {
      EXPECT_EQ(row.number, n[1]);
      EXPECT_EQ(row.name, ArchiveName(base, n[1]));
    }
  }
  EXPECT_TRUE(platform::ParseSetFileName("x.I007.20240105-081502.gz", nullptr, nullptr, nullptr));
}

TEST(LogFileNames, EncodersMakeTheWritersNamesAndNothingTooLongForAPath) {
  const std::string tooLong(PATH_MAX, 'p');
  // clang-format off
  const struct { std::string got, want; } rows[] = {
      {SetFileName("B", 7, "20240105-081502"), "B.I007.20240105-081502.gz"},
      {SetFileName("B", 1000, "s"), "B.I1000.s.gz"},
      {SetFileName("B", 0, ""), "B.I000..gz"},
      {NumberedName("P", 0), "P"},
      {NumberedName("P", 0, 2), "P"},
      {NumberedName("P", 3), "P.3"},
      {NumberedName("P", 3, 2), "P.03"},
      {NumberedName("P", 10, 2), "P.10"},
      {platform::OldStyleNumberedName("P", 0), "P.0"},
      {ArchiveName("P", 0), "P-0.tar.gz"},
      {ArchiveName("P", 12), "P-12.tar.gz"},
      {platform::WorkFolderName("/d/P"), "/d/P_tmp"},
      {SetFileName(tooLong, 1, "20240105-081502"), ""},
      {NumberedName(tooLong, 1), ""},
      {ArchiveName(tooLong, 1), ""},
      {SetFileName(tooLong.substr(0, PATH_MAX - 25), 1, "20240105-081502").substr(PATH_MAX - 25),
       ".I001.20240105-081502.gz"},
  };
  // clang-format on
  for (const auto& row : rows) EXPECT_EQ(row.want, row.got);
  std::string now = platform::LocalStamp();
  platform::StampFields fields;
  EXPECT_TRUE(platform::ParseStamp(now.c_str(), now.size(), &fields)) << now;
}

// oldStyle: against the base "applog", five old numbers.
// clang-format off
struct EntryRow { const char* name; bool setEntry, archiveEntry, oldStyle; };
const EntryRow kEntries[] = {
    {"applog.I007.20240105-081502.gz", true, false, false},
    {"applog.I01.20240105-081502.gz", true, false, false},  // any length
    {"applog.Iabc.gz", true, false, false},
    {"applog.I007.20240105-081502.xz", false, false, false},
    {"applogx.I007.20240105-081502.gz", false, false, false},
    {"applog-12.tar.gz", false, true, false},
    {"applog-x.tar.gz", false, false, false},
    {"applog-kernel-0.tar.gz", false, false, false},
    {"applog-0.tar.gz", false, true, true},
    {"applog-4.tar.gz", false, true, true},
    {"applog-5.tar.gz", false, true, false},
    {"applog-0.tar.gzx", false, false, false},
    {"applog-0.tar.g", false, false, false},
    {"applog.0", false, false, true},
    {"applog.4", false, false, true},
    {"applog.5", false, false, false},
    {"applog.01", false, false, false},
    {"applogx.1", false, false, false},
    {"applo.1", false, false, false},
    {"applog", false, false, false},
};
// clang-format on

TEST(LogFileNames, EntriesAndOldNamesAreReadAgainstTheBaseName) {
  for (const EntryRow& row : kEntries) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.setEntry, platform::IsSetEntryName(row.name, "applog"));
    EXPECT_EQ(row.archiveEntry, platform::IsArchiveEntryName(row.name, "applog"));
    EXPECT_EQ(row.oldStyle, platform::IsOldStyleName(row.name, "applog", 5));
  }
}

template <class Owner>
class FileNameTest : public settest::SetDirTest {};
TYPED_TEST_SUITE(FileNameTest, settest::SetOwners);

// The owners' field readers keep their exact, lax behaviour.
TYPED_TEST(FileNameTest, FieldsComeOnlyFromNamesOfTheSetLength) {
  TypeParam set(this->base_, 10);
  // clang-format off
  const struct { uint32_t total, start, count; const char* field; } fields[] = {
      {6, 2, 3, "cde"}, {7, 2, 3, ""}, {6, 5, 3, ""}, {6, 5, 2, "f"}, {6, 6, 1, ""}, {6, 0xFFFFFFFFu, 2, ""}, {6, 0, 0, ""}};
  // clang-format on
  for (const auto& f : fields) {
    EXPECT_EQ(f.field, set.GetInterger("abcdef", f.total, f.start, f.count));
  }

  const std::string& b = this->base_;
  const std::string name = settest::SetName(b, 7, "20240105-081502");
  EXPECT_EQ(b + ".I007.20240105-081502.gz", name);
  // clang-format off
  const struct { std::string name; const char* index; const char* stamp; } names[] = {
      {name, "007", "20240105-081502"}, {name + "x", "", ""}, {name.substr(1), "", ""},
      {b + ".I-12.20240105-081502.gz", "-12", "20240105-081502"},  // not examined
      {b + ".Iabc.2024010X-08150Y.gz", "abc", "2024010X-08150Y"}};
  // clang-format on
  for (const auto& n : names) {
    EXPECT_EQ(n.index, set.GetIndex(n.name)) << n.name;
    EXPECT_EQ(n.stamp, set.GetTimestamp(n.name)) << n.name;
  }
  TypeParam unnamed("", 10);
  EXPECT_EQ("", unnamed.GetIndex(".I007.20240105-081502.gz"));
  EXPECT_EQ("", unnamed.GetTimestamp(".I007.20240105-081502.gz"));

  // clang-format off
  const struct { const char* text; uint32_t next; } next[] = {
      {"000", 1}, {"041", 42}, {"998", 999}, {"999", 0}, {"", 0}, {"99", 0},
      {"1000", 0}, {"-12", 0}, {"a01", 0}, {"01a", 0}, {" 01", 0}, {"+01", 0}};
  // clang-format on
  for (const auto& n : next) EXPECT_EQ(n.next, set.ConvertStringToIndex(n.text)) << n.text;

  for (const EntryRow& row : kEntries) {
    std::string path = this->dir_ + "/" + row.name;
    EXPECT_EQ(row.oldStyle, set.DetectOldStyleFiles(path.c_str())) << row.name;
  }
  EXPECT_FALSE(set.DetectOldStyleFiles(nullptr));
}

}  // namespace
