// The platform match, the build and mode probes, and the write-mode rule on
// each kind of build.

#include <gtest/gtest.h>
#include <libxml/tree.h>

#include <string>

#include "config/config_test_support.h"
#include "config/platform_check.h"

namespace configtest {
namespace {

using TavoConfig::GetPlatformInfo;
using TavoConfig::IsRightPlatform;

class PlatformTest : public ConfigTest {};

// Known platforms must occur in the attribute, case-sensitively; an unknown
// platform accepts any attribute, but never none.
TEST_F(PlatformTest, HardwareNameGivesThePlatformThatTheAttributeMustName) {
  const struct {
    const char* hardware;
    const char* platform;
    const char* attribute;  // null: none
    bool accepted;
  } cases[] = {
      {"qcom", "Qcom", "Qcom", true},
      {"qcom-mt6789", "Qcom", "Qcom,Mtk,Zeru", true},
      {"qcom", "Qcom", "MtkQcom", true},
      {"qcom", "Qcom", "qcom", false},
      {"qcom", "Qcom", "", false},
      {"qcom", "Qcom", nullptr, false},
      {"mt6789", "Mtk", "Qcom", false},
      {"mt6789", "Mtk", "Qcom,Mtk,Zeru", true},
      {"zuma-qcom", "Zeru", "Qcom", false},
      {"zeus", "Zeru", "Zeru,Qcom", true},
      {"kirin", "", "Qcom", true},
      {"QCOM", "", "", true},
      {"z", "", nullptr, false},
      {"", "", "Mtk", true},
  };
  EXPECT_EQ("", GetPlatformInfo());
  EXPECT_FALSE(IsRightPlatform(nullptr));
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string("ro.hardware=") + c.hardware);
    SetProp("ro.hardware", c.hardware);
    EXPECT_EQ(c.platform, GetPlatformInfo());
    xmlNode* element = xmlNewNode(nullptr, BAD_CAST "tavocat");
    if (c.attribute != nullptr) xmlNewProp(element, BAD_CAST "platform", BAD_CAST c.attribute);
    EXPECT_EQ(c.accepted, IsRightPlatform(element)) << c.attribute;
    xmlFreeNode(element);
  }
}

// The same instance for no platform, Mtk, and Zeru or Qcom.
const std::string kThreeEntries =
    "<config><tavocat name=\"kmsglogcat\"><maxCompressdFiles value=\"1\"/>" + KmsgGroup() +
    "</tavocat><tavocat name=\"kmsglogcat\" platform=\"Mtk\"><maxCompressdFiles value=\"2\"/>" +
    KmsgGroup() +
    "</tavocat><tavocat name=\"kmsglogcat\" platform=\"Zeru,Qcom\">"
    "<maxCompressdFiles value=\"3\"/>" +
    KmsgGroup() + "</tavocat></config>";

ParseCase Entry(const char* label, const char* hardware, const char* files) {
  return {label,
          kThreeEntries,
          0,
          std::string("kmsglogcat files=") + files + kKmsgTree,
          "$DUMP",
          "kmsglogcat",
          std::string("ro.hardware=") + hardware};
}

// The write mode a file with these root elements gives on a build.
ParseCase Mode(const char* label, const char* props, const std::string& elements, bool factory) {
  return {label,   Instance(elements + KmsgGroup()),
          0,       std::string("kmsglogcat") + (factory ? " factory" : "") + kKmsgTree,
          "$DUMP", "kmsglogcat",
          props};
}

const char kUser[] = "ro.build.type=user";
const char kMmap[] = "<writeMode value=\"mmap\"/>";

const ParseCase kPlatformAndBuild[] = {
    Entry("UnsetPlatformTakesTheFirstEntryWithTheAttribute", "", "2"),
    Entry("MtkTakesItsEntry", "mt6789", "2"),
    Entry("QcomTakesItsEntry", "qcom", "3"),
    Entry("ZeruTakesItsEntry", "zuma", "3"),
    Entry("UnknownPlatformTakesTheFirstEntryWithTheAttribute", "kirin", "2"),
    {"EntryWithoutPlatformFailsWithoutDump", Instance(KmsgGroup(), "name=\"kmsglogcat\""), 1, "",
     ""},
    {"EntryOfAnotherPlatformFails", Instance(KmsgGroup()), 1, "", "", "kmsglogcat",
     "ro.hardware=mt6789"},
    {"ShorterNameDoesNotMatch", Instance(KmsgGroup()), 1, "", "", "kmsg"},
    {"LongerNameDoesNotMatch", Instance(KmsgGroup()), 1, "", "", "kmsglogcat2"},
    {"NameMatchesCaseSensitively", Instance(KmsgGroup()), 1, "", "", "Kmsglogcat"},
    {"EmptyNameDoesNotMatch", Instance(KmsgGroup()), 1, "", "", ""},
    // An ordinary build takes mmap only when asked exactly; the last element wins.
    Mode("OrdinaryWithoutWriteMode", kUser, "", false),
    Mode("OrdinaryMmap", kUser, kMmap, false),
    Mode("OrdinaryFactory", kUser, "<writeMode value=\"factory\"/>", true),
    Mode("OrdinaryUpperCaseMmap", kUser, "<writeMode value=\"MMAP\"/>", true),
    Mode("OrdinaryMmapWithASpace", kUser, "<writeMode value=\"mmap \"/>", true),
    Mode("OrdinaryWriteModeWithoutValue", kUser, "<writeMode/>", true),
    Mode("OrdinaryLastMmapWins", kUser, "<writeMode value=\"factory\"/>" + std::string(kMmap),
         false),
    Mode("OrdinaryLastOtherWins", kUser, kMmap + std::string("<writeMode value=\"x\"/>"), true),
    Mode("EngBuildWithPlatformVersionIsOrdinary", "ro.build.type=eng;ro.build.version.ovra=12.0",
         kMmap, false),
    // Factory and chipset vendor builds force factory wherever writeMode is
    // given; no writeMode element keeps the zero-filled mode. Each probe
    // needs its exact value.
    Mode("FactoryBuildForcesFactory", "ro.runmode=factory;ro.build.type=user", kMmap, true),
    Mode("FactoryBuildWithoutWriteMode", "ro.runmode=factory;ro.build.type=user", "", false),
    Mode("ChipsetVendorBuildForcesFactory", "ro.build.type=eng", kMmap, true),
    Mode("ChipsetVendorBuildWithoutWriteMode", "ro.build.type=eng", "", false),
    Mode("RunmodeWithASuffixIsOrdinary", "ro.runmode=factory1", kMmap, false),
    Mode("RunmodeInCapitalsIsOrdinary", "ro.runmode=Factory", kMmap, false),
    Mode("BuildTypeWithASuffixIsOrdinary", "ro.build.type=engx", kMmap, false),
};

INSTANTIATE_TEST_SUITE_P(PlatformAndBuild, ParseTest, testing::ValuesIn(kPlatformAndBuild),
                         RowName);

}  // namespace
}  // namespace configtest
