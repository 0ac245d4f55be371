// The built-in instances: used only when the file is absent, never in
// recovery, and never half-made.

#include "config/builtin_config.h"

#include <gtest/gtest.h>

#include <string>

#include "config/alloc_failure.h"
#include "config/config_parser.h"
#include "config/config_test_support.h"
#include "config/parse_apart.h"

namespace configtest {
namespace {

using TavoConfig::FreeInputNodeList;
using TavoConfig::ParseChargelogcatNodeSet;
using TavoConfig::ParseDefault;
using TavoConfig::ParseKmsgcatNodeSet;

const char kKmsg[] =
    "kmsglogcat rotate=4096 files=25 | monitor_node out=/data/log/android_logs/kmsgcat-log "
    "node{data=/proc/kmsg}";
const char kKmsgFactory[] =
    "kmsglogcat rotate=4096 files=25 factory | monitor_node "
    "out=/data/log/android_logs/kmsgcat-log node{data=/proc/kmsg}";
const char kRecovery[] = "init.svc.recovery=running";

// The built-in tree is not dumped.
const ParseCase kBuiltin[] = {
    {"KmsglogcatWithoutTheFile", kNoFile, 0, kKmsg, ""},
    {"ChargelogcatWithoutTheFileListsTimeGaugeCharge", kNoFile, 0,
     "chargelogcat rotate=4096 files=20 factory | poll_node every=5 "
     "out=/data/log/charge-log/charge-log node{data=DateTime titlePath=Time width=23} "
     "node{data=/sys/class/qd_power/coul/coul_data/gaugelog "
     "titlePath=/sys/class/qd_power/coul/coul_data/gaugelog_head} "
     "node{data=/sys/class/qd_power/charger/charge_data/chargelog "
     "titlePath=/sys/class/qd_power/charger/charge_data/chargelog_head}",
     "", "chargelogcat"},
    {"KmsglogcatWritesFactoryFilesOnFactoryBuilds", kNoFile, 0, kKmsgFactory, "", "kmsglogcat",
     "ro.runmode=factory"},
    {"KmsglogcatWritesFactoryFilesOnChipsetBuilds", kNoFile, 0, kKmsgFactory, "", "kmsglogcat",
     "ro.runmode=normal;ro.build.type=eng"},
    {"ShorterNameHasNoBuiltinInstance", kNoFile, 1, "", "", "kmsg"},
    {"NameWithASpaceHasNoBuiltinInstance", kNoFile, 1, "", "", "kmsglogcat "},
    {"OtherNameHasNoBuiltinInstance", kNoFile, 1, "", "", "inputlogcat"},
    {"EmptyNameHasNoBuiltinInstance", kNoFile, 1, "", "", ""},
    {"RecoveryModeHasNoKmsglogcat", kNoFile, 1, "", "", "kmsglogcat", kRecovery},
    {"RecoveryModeHasNoChargelogcat", kNoFile, 1, "", "", "chargelogcat", kRecovery},
    {"StoppedRecoveryIsNoRecovery", kNoFile, 0, kKmsg, "", "kmsglogcat",
     "init.svc.recovery=stopped"},
    {"RecoveryNeedsTheExactValue", kNoFile, 0, kKmsg, "", "kmsglogcat",
     "init.svc.recovery=running "},
    {"ExistingFileWithoutKmsglogcatDoesNotFallBack",
     Instance(KmsgGroup(), "name=\"otherlogcat\" platform=\"Qcom\""), 1, "", ""},
    {"ExistingFileWithoutChargelogcatDoesNotFallBack",
     Instance(KmsgGroup(), "name=\"otherlogcat\" platform=\"Qcom\""), 1, "", "", "chargelogcat"},
    {"FileInRecoveryModeIsStillRead", Instance(KmsgGroup()), 0,
     std::string("kmsglogcat") + kKmsgTree, "$DUMP", "kmsglogcat", kRecovery},
};

INSTANTIATE_TEST_SUITE_P(Builtin, ParseTest, testing::ValuesIn(kBuiltin), RowName);

class BuiltinTest : public ConfigTest {};

TEST_F(BuiltinTest, OtherNamesAndNullArgumentsHaveNoInstance) {
  EXPECT_EQ(nullptr, TavoConfig::GenerateTavocatGroup("kmsg"));
  EXPECT_EQ(nullptr, TavoConfig::GenerateTavocatInputNodeSet("kmsg"));
  EXPECT_EQ(1, TavoConfig::ParseTavocatInfo(info_, "kmsg"));
  EXPECT_EQ(1, ParseDefault(nullptr, info_));
  EXPECT_EQ(1, TavoConfig::ParseConfigFile(nullptr, &info_));
  EXPECT_EQ(1, TavoConfig::ParseConfigFile("kmsglogcat", nullptr));
  EXPECT_EQ(1, TavoConfig::ParseConfigFileApart(nullptr, &info_));
}

TEST_F(BuiltinTest, NodeSetBuildersPushAtTheFrontOfTheList) {
  TavocatInputNodeSetT* head = nullptr;
  ASSERT_EQ(0, ParseKmsgcatNodeSet(head));
  ASSERT_EQ(0, ParseChargelogcatNodeSet(head));
  std::string order;
  for (TavocatInputNodeSetT* node = head; node != nullptr; node = node->next) {
    order += std::string(node->dataPath) + " ";
  }
  EXPECT_EQ(
      "DateTime /sys/class/qd_power/coul/coul_data/gaugelog "
      "/sys/class/qd_power/charger/charge_data/chargelog /proc/kmsg ",
      order);
  FreeInputNodeList(head);
}

// Every allocation of a built-in tree is needed: failing any one of them
// fails the whole parse and leaves nothing behind.
TEST_F(BuiltinTest, EachFailedAllocationFailsCleanly) {
  for (const char* name : {"kmsglogcat", "chargelogcat"}) {
    FailNothrowAllocation(-1);
    ASSERT_EQ(0, ParseDefault(name, info_));
    long allocations = NothrowAllocations();
    FreeConfigFile(&info_);
    ASSERT_GT(allocations, 3);
    for (long n = 0; n < allocations; ++n) {
      FailNothrowAllocation(n);
      EXPECT_EQ(1, ParseDefault(name, info_)) << name << " allocation " << n;
      FailNothrowAllocation(-1);
      EXPECT_EQ(nullptr, info_.groups);
      FreeConfigFile(&info_);
      FreeConfigFile(&info_);
      EXPECT_EQ(nullptr, info_.name);
    }
  }
}

TEST_F(BuiltinTest, FailedNodeBuildFreesTheWholeList) {
  TavocatInputNodeSetT* head = nullptr;
  ASSERT_EQ(0, ParseKmsgcatNodeSet(head));
  // The third allocation is the gauge node, after the charge node was pushed.
  FailNothrowAllocation(3);
  EXPECT_EQ(1, ParseChargelogcatNodeSet(head));
  FailNothrowAllocation(-1);
  EXPECT_EQ(nullptr, head);
}

}  // namespace
}  // namespace configtest
