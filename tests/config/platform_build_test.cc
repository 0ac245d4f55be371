// The platform match, the build and mode probes, and the write-mode rule on
// each kind of build.

#include <gtest/gtest.h>
#include <libxml/tree.h>

#include <string>

#include "config/config_test_support.h"
#include "config/platform_check.h"

namespace {

using namespace configtest;
using TavoConfig::GetPlatformInfo;
using TavoConfig::IsRightPlatform;

class PlatformTest : public ConfigTest {
 protected:
  // A tavocat element with the platform attribute, or without one for null.
  bool Accepts(const char* platforms) {
    xmlNode* element = xmlNewNode(nullptr, BAD_CAST "tavocat");
    if (platforms != nullptr) xmlNewProp(element, BAD_CAST "platform", BAD_CAST platforms);
    bool accepted = IsRightPlatform(element);
    xmlFreeNode(element);
    return accepted;
  }
};

TEST_F(PlatformTest, HardwareNameGivesThePlatformFirstTestWins) {
  struct Case {
    const char* hardware;
    const char* platform;
  } cases[] = {{"qcom", "Qcom"}, {"qcom-mt6789", "Qcom"}, {"zuma-qcom", "Zeru"}, {"mt6789", "Mtk"},
               {"zeus", "Zeru"}, {"kirin", ""},           {"QCOM", ""},          {"z", ""},
               {"", ""}};
  EXPECT_EQ("", GetPlatformInfo());
  for (const Case& c : cases) {
    SetProp("ro.hardware", c.hardware);
    EXPECT_EQ(c.platform, GetPlatformInfo()) << "ro.hardware=" << c.hardware;
  }
}

TEST_F(PlatformTest, UnknownPlatformAcceptsAnyPlatformAttributeButNeverNone) {
  EXPECT_TRUE(Accepts("Qcom"));
  EXPECT_TRUE(Accepts(""));
  EXPECT_FALSE(Accepts(nullptr));
  EXPECT_FALSE(IsRightPlatform(nullptr));
}

TEST_F(PlatformTest, KnownPlatformMustOccurCaseSensitively) {
  SetProp("ro.hardware", "qcom");
  EXPECT_TRUE(Accepts("Qcom"));
  EXPECT_TRUE(Accepts("Qcom,Mtk,Zeru"));
  EXPECT_TRUE(Accepts("MtkQcom"));
  EXPECT_FALSE(Accepts("qcom"));
  EXPECT_FALSE(Accepts(""));
  EXPECT_FALSE(Accepts(nullptr));
  SetProp("ro.hardware", "mt6789");
  EXPECT_FALSE(Accepts("Qcom"));
  EXPECT_TRUE(Accepts("Qcom,Mtk,Zeru"));
}

TEST_F(PlatformTest, FileKeepsTheEntryOfThisPlatform) {
  std::string xml =
      "<config>"
      "<tavocat name=\"kmsglogcat\"><maxCompressdFiles value=\"1\"/>" +
      KmsgGroup() +
      "</tavocat>"
      "<tavocat name=\"kmsglogcat\" platform=\"Mtk\"><maxCompressdFiles value=\"2\"/>" +
      KmsgGroup() +
      "</tavocat>"
      "<tavocat name=\"kmsglogcat\" platform=\"Zeru,Qcom\"><maxCompressdFiles value=\"3\"/>" +
      KmsgGroup() + "</tavocat></config>";
  struct Case {
    const char* hardware;
    size_t entry;
  } cases[] = {{"", 2}, {"mt6789", 2}, {"qcom", 3}, {"zuma", 3}};
  for (const Case& c : cases) {
    TavoConfig::FreeConfigFile(&info_);
    SetProp("ro.hardware", c.hardware);
    ASSERT_EQ(0, ParseXml(xml)) << c.hardware;
    EXPECT_EQ(c.entry, info_.maxCompressdFiles) << c.hardware;
  }
  SetProp("ro.hardware", "kirin");
  TavoConfig::FreeConfigFile(&info_);
  EXPECT_EQ(0, ParseXml(xml)) << "an unknown platform takes the first entry with the attribute";
  EXPECT_EQ(2u, info_.maxCompressdFiles);
}

TEST_F(PlatformTest, EntryWithoutPlatformOrOfAnotherPlatformFails) {
  EXPECT_EQ(1, ParseXml(Instance(KmsgGroup(), "name=\"kmsglogcat\"")));
  EXPECT_EQ("", err_) << "nothing is dumped when no entry is chosen";
  SetProp("ro.hardware", "mt6789");
  EXPECT_EQ(1, ParseXml(Instance(KmsgGroup(), "name=\"kmsglogcat\" platform=\"Qcom\"")));
  EXPECT_EQ(nullptr, info_.name);
}

TEST_F(PlatformTest, InstanceNameMustMatchWhole) {
  std::string xml = Instance(KmsgGroup());
  EXPECT_EQ(1, ParseXml(xml, "kmsg"));
  EXPECT_EQ(1, ParseXml(xml, "kmsglogcat2"));
  EXPECT_EQ(1, ParseXml(xml, "Kmsglogcat"));
  EXPECT_EQ(1, ParseXml(xml, ""));
  EXPECT_EQ(0, ParseXml(xml, "kmsglogcat"));
}

class BuildProbeTest : public ConfigTest {};

TEST_F(BuildProbeTest, FactoryBuildNeedsTheExactValue) {
  EXPECT_FALSE(TavoConfig::IsFactoryVer());
  SetProp("ro.runmode", "factory1");
  EXPECT_FALSE(TavoConfig::IsFactoryVer());
  SetProp("ro.runmode", "Factory");
  EXPECT_FALSE(TavoConfig::IsFactoryVer());
  SetProp("ro.runmode", "factory");
  EXPECT_TRUE(TavoConfig::IsFactoryVer());
}

TEST_F(BuildProbeTest, ChipsetVendorBuildIsEngWithoutPlatformVersion) {
  EXPECT_FALSE(TavoConfig::IsChipsetVendorVer());
  SetProp("ro.build.type", "user");
  EXPECT_FALSE(TavoConfig::IsChipsetVendorVer());
  SetProp("ro.build.type", "eng");
  EXPECT_TRUE(TavoConfig::IsChipsetVendorVer());
  SetProp("ro.build.version.ovra", "12.0");
  EXPECT_FALSE(TavoConfig::IsChipsetVendorVer());
  SetProp("ro.build.version.ovra", "");
  SetProp("ro.build.type", "engx");
  EXPECT_FALSE(TavoConfig::IsChipsetVendorVer());
}

TEST_F(BuildProbeTest, RecoveryModeNeedsTheRunningService) {
  EXPECT_FALSE(TavoConfig::IsRecoveryMode());
  SetProp("init.svc.recovery", "stopped");
  EXPECT_FALSE(TavoConfig::IsRecoveryMode());
  SetProp("init.svc.recovery", "running ");
  EXPECT_FALSE(TavoConfig::IsRecoveryMode());
  SetProp("init.svc.recovery", "running");
  EXPECT_TRUE(TavoConfig::IsRecoveryMode());
}

class WriteModeTest : public ConfigTest {
 protected:
  // The write mode that a file with these elements gives.
  TypeWrite ModeOf(const std::string& elements) {
    TavoConfig::FreeConfigFile(&info_);
    EXPECT_EQ(0, ParseXml(Instance(elements + KmsgGroup()))) << err_;
    return info_.writeMode;
  }
};

TEST_F(WriteModeTest, OrdinaryBuildTakesMmapOnlyWhenAskedExactly) {
  SetProp("ro.build.type", "user");
  EXPECT_EQ(MMAP_WRITE, ModeOf(""));
  EXPECT_EQ(MMAP_WRITE, ModeOf("<writeMode value=\"mmap\"/>"));
  EXPECT_EQ(FACTORY_WRITE, ModeOf("<writeMode value=\"factory\"/>"));
  EXPECT_EQ(FACTORY_WRITE, ModeOf("<writeMode value=\"MMAP\"/>"));
  EXPECT_EQ(FACTORY_WRITE, ModeOf("<writeMode value=\"mmap \"/>"));
  EXPECT_EQ(FACTORY_WRITE, ModeOf("<writeMode/>"));
  EXPECT_EQ(MMAP_WRITE, ModeOf("<writeMode value=\"factory\"/><writeMode value=\"mmap\"/>"));
  EXPECT_EQ(FACTORY_WRITE, ModeOf("<writeMode value=\"mmap\"/><writeMode value=\"x\"/>"));
}

TEST_F(WriteModeTest, EngBuildWithPlatformVersionIsOrdinary) {
  SetProp("ro.build.type", "eng");
  SetProp("ro.build.version.ovra", "12.0");
  EXPECT_EQ(MMAP_WRITE, ModeOf("<writeMode value=\"mmap\"/>"));
}

TEST_F(WriteModeTest, FactoryBuildForcesFactoryWhereverWriteModeIsGiven) {
  SetProp("ro.runmode", "factory");
  SetProp("ro.build.type", "user");
  EXPECT_EQ(FACTORY_WRITE, ModeOf("<writeMode value=\"mmap\"/>"));
  EXPECT_EQ(MMAP_WRITE, ModeOf("")) << "no writeMode element keeps the zero-filled mode";
}

TEST_F(WriteModeTest, ChipsetVendorBuildForcesFactoryWhereverWriteModeIsGiven) {
  SetProp("ro.build.type", "eng");
  EXPECT_EQ(FACTORY_WRITE, ModeOf("<writeMode value=\"mmap\"/>"));
  EXPECT_EQ(MMAP_WRITE, ModeOf(""));
}

}  // namespace
