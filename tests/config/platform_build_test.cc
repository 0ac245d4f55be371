// The platform match, the write-mode rule per build, and the built-in instances (file absent only).

#include <gtest/gtest.h>
#include <libxml/tree.h>

#include <string>

#include "config/builtin_config.h"
#include "config/config_parser.h"
#include "config/config_test_support.h"
#include "config/parse_apart.h"
#include "config/platform_check.h"
#include "support/alloc_failure.h"

namespace configtest {
namespace {

using morvotest::EachAllocationFailing;
using morvotest::FailNothrowAllocation;
using TavoConfig::FreeInputNodeList;
using TavoConfig::GetPlatformInfo;
using TavoConfig::IsRightPlatform;
using TavoConfig::ParseChargelogcatNodeSet;
using TavoConfig::ParseDefault;
using TavoConfig::ParseKmsgcatNodeSet;

// Known platforms must occur in the attribute, case-sensitively; an unknown one any present.
TEST_F(ConfigTest, HardwareNameGivesThePlatformThatTheAttributeMustName) {
  // clang-format off
  const struct { const char* hardware, *platform, *attribute; bool accepted; } cases[] = {
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
  // clang-format on
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
    "<config><tavocat name=\"kmsglogcat\">" + Values("maxCompressdFiles=1") + KmsgGroup() +
    "</tavocat><tavocat name=\"kmsglogcat\" platform=\"Mtk\">" + Values("maxCompressdFiles=2") +
    KmsgGroup() + "</tavocat><tavocat name=\"kmsglogcat\" platform=\"Zeru,Qcom\">" +
    Values("maxCompressdFiles=3") + KmsgGroup() + "</tavocat></config>";

ParseCase Entry(const char* label, const char* hardware, const char* files) {
  std::string tree = std::string("kmsglogcat files=") + files + kKmsgTree;
  return {
      label, kThreeEntries, 0, tree, "$DUMP", "kmsglogcat", "ro.hardware=" + std::string(hardware)};
}

// The write mode a file with these root elements gives on a build.
ParseCase Mode(const char* label, const char* props, const std::string& elements, bool factory) {
  std::string tree = std::string("kmsglogcat") + (factory ? " factory" : "") + kKmsgTree;
  return {label, Instance(elements + KmsgGroup()), 0, tree, "$DUMP", "kmsglogcat", props};
}

const char kUser[] = "ro.build.type=user";
const char kRecovery[] = "init.svc.recovery=running";
const std::string kKmsgBuiltin =
    " | monitor_node out=/data/log/android_logs/kmsgcat-log node{data=/proc/kmsg}";
const std::string kKmsg = "kmsglogcat rotate=4096 files=25" + kKmsgBuiltin;
const std::string kKmsgFactory = "kmsglogcat rotate=4096 files=25 factory" + kKmsgBuiltin;
const char kMmap[] = "<writeMode value=\"mmap\"/>";

// clang-format off
const ParseCase kPlatformAndBuild[] = {
    Entry("UnsetPlatformTakesTheFirstEntryWithTheAttribute", "", "2"),
    Entry("QcomTakesItsEntry", "qcom", "3"),
    Entry("UnknownPlatformTakesTheFirstEntryWithTheAttribute", "kirin", "2"),
    {"EntryWithoutPlatformFailsWithoutDump", Instance(KmsgGroup(), "name=\"kmsglogcat\""), 1, "", ""},
    {"EntryOfAnotherPlatformFails", Instance(KmsgGroup()), 1, "", "", "kmsglogcat", "ro.hardware=mt6789"},
    {"ShorterNameDoesNotMatch", Instance(KmsgGroup()), 1, "", "", "kmsg"},
    {"LongerNameDoesNotMatch", Instance(KmsgGroup()), 1, "", "", "kmsglogcat2"},
    {"NameMatchesCaseSensitively", Instance(KmsgGroup()), 1, "", "", "Kmsglogcat"},
    {"EmptyNameDoesNotMatch", Instance(KmsgGroup()), 1, "", "", ""},
    // An ordinary build takes mmap only when asked exactly; the last element wins.
    Mode("OrdinaryMmap", kUser, kMmap, false),
    Mode("OrdinaryFactory", kUser, "<writeMode value=\"factory\"/>", true),
    Mode("OrdinaryUpperCaseMmap", kUser, "<writeMode value=\"MMAP\"/>", true),
    Mode("OrdinaryMmapWithASpace", kUser, "<writeMode value=\"mmap \"/>", true),
    Mode("OrdinaryWriteModeWithoutValue", kUser, "<writeMode/>", true),
    Mode("OrdinaryLastMmapWins", kUser, "<writeMode value=\"factory\"/>" + std::string(kMmap), false),
    Mode("OrdinaryLastOtherWins", kUser, kMmap + std::string("<writeMode value=\"x\"/>"), true),
    Mode("EngBuildWithPlatformVersionIsOrdinary", "ro.build.type=eng;ro.build.version.ovra=12.0", kMmap, false),
    // Factory and chipset vendor builds force factory wherever writeMode is given.
    Mode("FactoryBuildForcesFactory", "ro.runmode=factory;ro.build.type=user", kMmap, true),
    Mode("FactoryBuildWithoutWriteMode", "ro.runmode=factory;ro.build.type=user", "", false),
    Mode("ChipsetVendorBuildForcesFactory", "ro.build.type=eng", kMmap, true),
    Mode("ChipsetVendorBuildWithoutWriteMode", "ro.build.type=eng", "", false),
    Mode("RunmodeWithASuffixIsOrdinary", "ro.runmode=factory1", kMmap, false),
    Mode("RunmodeInCapitalsIsOrdinary", "ro.runmode=Factory", kMmap, false),
    Mode("BuildTypeWithASuffixIsOrdinary", "ro.build.type=engx", kMmap, false),
    {"KmsglogcatWithoutTheFile", kNoFile, 0, kKmsg, ""},
    {"ChargelogcatWithoutTheFileListsTimeGaugeCharge", kNoFile, 0, "chargelogcat rotate=4096 files=20 factory | poll_node every=5 out=/data/log/charge-log/charge-log " "node{data=DateTime titlePath=Time width=23} node{data=/sys/class/qd_power/coul/coul_data/gaugelog " "titlePath=/sys/class/qd_power/coul/coul_data/gaugelog_head} " "node{data=/sys/class/qd_power/charger/charge_data/chargelog " "titlePath=/sys/class/qd_power/charger/charge_data/chargelog_head}", "", "chargelogcat"},
    {"KmsglogcatWritesFactoryFilesOnFactoryBuilds", kNoFile, 0, kKmsgFactory, "", "kmsglogcat", "ro.runmode=factory"},
    {"KmsglogcatWritesFactoryFilesOnChipsetBuilds", kNoFile, 0, kKmsgFactory, "", "kmsglogcat", "ro.runmode=normal;ro.build.type=eng"},
    {"ShorterNameHasNoBuiltinInstance", kNoFile, 1, "", "", "kmsg"},
    {"NameWithASpaceHasNoBuiltinInstance", kNoFile, 1, "", "", "kmsglogcat "},
    {"OtherNameHasNoBuiltinInstance", kNoFile, 1, "", "", "inputlogcat"},
    {"EmptyNameHasNoBuiltinInstance", kNoFile, 1, "", "", ""},
    {"RecoveryModeHasNoKmsglogcat", kNoFile, 1, "", "", "kmsglogcat", kRecovery},
    {"RecoveryModeHasNoChargelogcat", kNoFile, 1, "", "", "chargelogcat", kRecovery},
    {"StoppedRecoveryIsNoRecovery", kNoFile, 0, kKmsg, "", "kmsglogcat", "init.svc.recovery=stopped"},
    {"RecoveryNeedsTheExactValue", kNoFile, 0, kKmsg, "", "kmsglogcat", "init.svc.recovery=running "},
    {"ExistingFileWithoutKmsglogcatDoesNotFallBack", Instance(KmsgGroup(), "name=\"otherlogcat\" platform=\"Qcom\""), 1, "", ""},
    {"ExistingFileWithoutChargelogcatDoesNotFallBack", Instance(KmsgGroup(), "name=\"otherlogcat\" platform=\"Qcom\""), 1, "", "", "chargelogcat"},
    {"FileInRecoveryModeIsStillRead", Instance(KmsgGroup()), 0, std::string("kmsglogcat") + kKmsgTree, "$DUMP", "kmsglogcat", kRecovery},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(PlatformAndBuild, ParseTest, testing::ValuesIn(kPlatformAndBuild),
                         RowName);

TEST_F(ConfigTest, OtherNamesAndNullArgumentsHaveNoInstance) {
  EXPECT_EQ(nullptr, TavoConfig::GenerateTavocatGroup("kmsg"));
  EXPECT_EQ(nullptr, TavoConfig::GenerateTavocatInputNodeSet("kmsg"));
  EXPECT_EQ(1, TavoConfig::ParseTavocatInfo(info_, "kmsg"));
  EXPECT_EQ(1, ParseDefault(nullptr, info_));
  EXPECT_EQ(1, TavoConfig::ParseConfigFile(nullptr, &info_));
  EXPECT_EQ(1, TavoConfig::ParseConfigFile("kmsglogcat", nullptr));
  EXPECT_EQ(1, TavoConfig::ParseConfigFileApart(nullptr, &info_));
}

TEST_F(ConfigTest, NodeSetBuildersPushAtTheFrontAndFreeTheWholeListOnFailure) {
  TavocatInputNodeSetT* head = nullptr;
  ASSERT_EQ(0, ParseKmsgcatNodeSet(head));
  ASSERT_EQ(0, ParseChargelogcatNodeSet(head));
  std::string order;
  for (auto* node = head; node != nullptr; node = node->next)
    order += node->dataPath + std::string(" ");
  EXPECT_EQ(
      "DateTime /sys/class/qd_power/coul/coul_data/gaugelog "
      "/sys/class/qd_power/charger/charge_data/chargelog /proc/kmsg ",
      order);
  FreeInputNodeList(head);
  ASSERT_EQ(0, ParseKmsgcatNodeSet(head));
  // The third allocation is the gauge node, after the charge node was pushed.
  FailNothrowAllocation(3);
  EXPECT_EQ(1, ParseChargelogcatNodeSet(head));
  FailNothrowAllocation(-1);
  EXPECT_EQ(nullptr, head);
}

// Failing any allocation of a built-in tree fails the whole parse and leaves nothing behind.
TEST_F(ConfigTest, BuiltinTreeFailsCleanlyAtEachFailedAllocation) {
  for (const char* name : {"kmsglogcat", "chargelogcat"}) {
    long count = EachAllocationFailing([&](long n) {
      EXPECT_EQ(n < 0 ? 0 : 1, ParseDefault(name, info_)) << name << " allocation " << n;
      EXPECT_TRUE(n < 0 || info_.groups == nullptr) << "a failed build keeps no group";
      FreeConfigFile(&info_);
      FreeConfigFile(&info_);
      EXPECT_EQ("", Describe(info_));
    });
    EXPECT_GT(count, 3);
  }
}

}  // namespace
}  // namespace configtest
