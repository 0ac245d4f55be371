// The tree survives the trip through bytes field for field; cut, damaged or
// padded encodings and failed allocations are refused with nothing left
// behind; the parse in a child gives the tree, result and messages of a
// parse in this process.

#include <stdint.h>
#include <string.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config/alloc_failure.h"
#include "config/config_check.h"
#include "config/config_test_support.h"
#include "config/config_wire.h"
#include "config/parse_apart.h"

namespace {

using namespace configtest;
using TavoConfig::DecodeTavocatInfo;
using TavoConfig::WireBuffer;

// Every style, lists of several entries, an empty string beside missing
// ones, and values holding a line break and a tab.
const std::string kEveryStyle = Instance(
    "<logRotateSizeKBytes value=\"77\"/><maxCompressdFiles value=\"9\"/>"
    "<writeMode value=\"mmap\"/>" +
    Group("<logStyle value=\"monitor_node\" failureRetry=\"3\"/>"
          "<outputFilePath value=\"/data/log/k&#10;x\"/>"
          "<inputNodeSet><dataPath value=\"/proc/kmsg\"/><title value=\"\"/>"
          "<width value=\"12\"/></inputNodeSet>") +
    Group("<logStyle value=\"poll_node\" interval=\"7\"/><outputFilePath value=\"/p\"/>"
          "<inputNodeSet><dataPath value=\"DateTime\"/><title value=\"Time&#9;now\"/>"
          "</inputNodeSet><inputNodeSet><alterdataPath value=\"/a1\"/>"
          "<alterdataPath value=\"/a2\"/><titlePath value=\"/t\"/></inputNodeSet>") +
    Group("<logStyle value=\"monitor_dir\"/><outputFilePath value=\"/d\"/>"
          "<inputDirSet><inputDirPath value=\"/dev/input\"/><pickNode value=\"gpio-keys\"/>"
          "<pickNode value=\"touch\"/></inputDirSet>") +
    Group("<logStyle value=\"poll_cmd\" interval=\"60\"/><outputFilePath value=\"/c\"/>"
          "<inputCmdSet><command value=\"battery\"/></inputCmdSet>"
          "<inputCmdSet><command value=\"power\"/></inputCmdSet>") +
    Group("<logStyle value=\"cond_trigger\" cond_index=\"2\"/><outputFilePath value=\"/t\"/>"
          "<inputNodeSet><dataPath value=\"/sys/x\"/></inputNodeSet>"));

std::string Dump(const TavocatInfoT& info) {
  testing::internal::CaptureStderr();
  TavoConfig::PrintTavocatInfo(info);
  return testing::internal::GetCapturedStderr();
}

class WireTest : public ConfigTest {
 protected:
  void SetUp() override {
    SetProp("ro.hardware", "qcom");
    ASSERT_EQ(0, ParseXml(kEveryStyle)) << err_;
    WireBuffer wire;
    ASSERT_TRUE(TavoConfig::EncodeTavocatInfo(info_, &wire));
    bytes_.assign(wire.data, wire.data + wire.size);
  }
  // Decodes bytes into a fresh root; the result, the root freed after.
  static int Decode(const std::vector<unsigned char>& bytes, std::string* dump = nullptr) {
    TavocatInfoT info = {};
    int result = DecodeTavocatInfo(bytes.data(), bytes.size(), &info);
    if (result != 0) {
      EXPECT_TRUE(info.name == nullptr && info.groups == nullptr);
    }
    for (TavocatGroupT* group = info.groups; group != nullptr; group = group->next) {
      EXPECT_EQ(&info, group->info);
    }
    if (dump != nullptr) *dump = Dump(info);
    TavoConfig::FreeConfigFile(&info);
    return result;
  }
  std::vector<unsigned char> bytes_;
};

TEST_F(WireTest, EveryFieldOfEveryStyleComesBack) {
  std::string dump;
  ASSERT_EQ(0, Decode(bytes_, &dump));
  EXPECT_EQ(Dump(info_), dump);
  EXPECT_NE(std::string::npos, dump.find("title             : \n")) << "empty stays empty";
  EXPECT_NE(std::string::npos, dump.find("titlePath        : nullptr\n"));
  EXPECT_NE(std::string::npos, dump.find("/data/log/k\nx\n"));
}

TEST_F(WireTest, CutOrPaddedEncodingsAreRefused) {
  for (size_t size = 0; size < bytes_.size(); ++size) {
    std::vector<unsigned char> cut(bytes_.begin(), bytes_.begin() + size);
    ASSERT_EQ(1, Decode(cut)) << "cut at " << size;
  }
  std::vector<unsigned char> padded = bytes_;
  padded.push_back(0);
  EXPECT_EQ(1, Decode(padded));
  EXPECT_EQ(1, DecodeTavocatInfo(nullptr, 0, &info_));
}

TEST_F(WireTest, DamagedWordsNeverReadPastTheBytes) {
  // Each word in turn made huge, all ones (the null mark) and one past
  // the bytes: every count, length and mark meets a value it must refuse
  // or take without reading outside the buffer.
  for (size_t at = 0; at + sizeof(uint64_t) <= bytes_.size(); at += sizeof(uint64_t)) {
    for (uint64_t value : {uint64_t{1} << 40, UINT64_MAX, uint64_t{bytes_.size()}}) {
      std::vector<unsigned char> damaged = bytes_;
      memcpy(damaged.data() + at, &value, sizeof(value));
      // Decode checks that a refused tree is left empty; the sanitizer
      // builds check every read stays inside the bytes.
      Decode(damaged);
    }
  }
  std::vector<unsigned char> badStyle = bytes_;
  // The first group's style word: mark, three numbers, the name, a count,
  // then interval and failureRetry.
  size_t at = 4 * 8 + 8 + strlen("kmsglogcat") + 8 + 2 * 8;
  uint64_t style = uint64_t{1} << 32;
  memcpy(badStyle.data() + at, &style, sizeof(style));
  EXPECT_EQ(1, Decode(badStyle)) << "a style past 32 bits";
}

TEST_F(WireTest, EachFailedAllocationIsRefusedWholeAndLeaksNothing) {
  FailNothrowAllocation(-1);
  ASSERT_EQ(0, Decode(bytes_));
  long allocations = NothrowAllocations();
  ASSERT_GT(allocations, 20);
  for (long n = 0; n < allocations; ++n) {
    FailNothrowAllocation(n);
    EXPECT_EQ(1, Decode(bytes_)) << n;
  }
  FailNothrowAllocation(-1);
}

class ApartTest : public ConfigTest {
 protected:
  int ParseApart(const char* name) {
    testing::internal::CaptureStderr();
    int result = TavoConfig::ParseConfigFileApart(name, &apart_);
    apartErr_ = testing::internal::GetCapturedStderr();
    return result;
  }
  void TearDown() override {
    TavoConfig::FreeConfigFile(&apart_);
    ConfigTest::TearDown();
  }
  TavocatInfoT apart_ = {};
  std::string apartErr_;
};

TEST_F(ApartTest, GivesTheTreeResultAndMessagesOfAParseHere) {
  SetProp("ro.hardware", "qcom");
  WriteConfig(kEveryStyle);
  ASSERT_EQ(0, Parse("kmsglogcat"));
  ASSERT_EQ(0, ParseApart("kmsglogcat"));
  EXPECT_EQ(err_, apartErr_);
  EXPECT_EQ(Dump(info_), Dump(apart_));

  EXPECT_EQ(1, ParseApart("nosuch"));
  EXPECT_EQ(nullptr, apart_.groups);
  WriteConfig("<config><tavocat");
  EXPECT_EQ(1, ParseApart("kmsglogcat"));
  EXPECT_NE(std::string::npos, apartErr_.find("fatal error")) << apartErr_;
}

TEST_F(ApartTest, AnAbsentFileGivesTheBuiltInInstance) {
  ASSERT_EQ(0, Parse("chargelogcat"));
  ASSERT_EQ(0, ParseApart("chargelogcat"));
  EXPECT_EQ(Dump(info_), Dump(apart_));
  EXPECT_EQ(1, TavoConfig::ParseConfigFileApart(nullptr, &apart_));
}

}  // namespace
