// The built-in instances: used only when the file is absent, never in
// recovery, and never half-made.

#include "config/builtin_config.h"

#include <gtest/gtest.h>

#include <string>

#include "config/alloc_failure.h"
#include "config/config_parser.h"
#include "config/config_test_support.h"

namespace {

using namespace configtest;

class BuiltinTest : public ConfigTest {};

TEST_F(BuiltinTest, KmsglogcatWithoutTheFile) {
  ASSERT_EQ(0, Parse("kmsglogcat"));
  EXPECT_EQ("", err_) << "the built-in tree is not dumped";
  EXPECT_STREQ("kmsglogcat", info_.name);
  EXPECT_EQ(4096u, info_.rotateSizeKbytes);
  EXPECT_EQ(25u, info_.maxCompressdFiles);
  EXPECT_EQ(MMAP_WRITE, info_.writeMode);
  ASSERT_EQ(1u, GroupCount());
  TavocatGroupT* group = GroupAt(0);
  EXPECT_EQ(&info_, group->info);
  EXPECT_EQ(MONITOR_NODE, group->style);
  EXPECT_EQ(0u, group->pollingInterval);
  EXPECT_STREQ("/data/log/android_logs/kmsgcat-log", group->outputFilePath);
  TavocatInputNodeSetT* node = NodesOf(0);
  EXPECT_STREQ("/proc/kmsg", node->dataPath);
  EXPECT_EQ(nullptr, node->titlePath);
  EXPECT_EQ(nullptr, node->next);
}

TEST_F(BuiltinTest, ChargelogcatWithoutTheFileListsTimeGaugeCharge) {
  ASSERT_EQ(0, Parse("chargelogcat"));
  EXPECT_STREQ("chargelogcat", info_.name);
  EXPECT_EQ(4096u, info_.rotateSizeKbytes);
  EXPECT_EQ(20u, info_.maxCompressdFiles);
  EXPECT_EQ(FACTORY_WRITE, info_.writeMode);
  ASSERT_EQ(1u, GroupCount());
  EXPECT_EQ(POLL_NODE, GroupAt(0)->style);
  EXPECT_EQ(5u, GroupAt(0)->pollingInterval);
  EXPECT_STREQ("/data/log/charge-log/charge-log", GroupAt(0)->outputFilePath);
  TavocatInputNodeSetT* time = NodesOf(0);
  EXPECT_STREQ("DateTime", time->dataPath);
  EXPECT_STREQ("Time", time->titlePath);
  EXPECT_EQ(23u, time->width);
  TavocatInputNodeSetT* gauge = time->next;
  ASSERT_NE(nullptr, gauge);
  EXPECT_STREQ("/sys/class/qd_power/coul/coul_data/gaugelog", gauge->dataPath);
  EXPECT_STREQ("/sys/class/qd_power/coul/coul_data/gaugelog_head", gauge->titlePath);
  EXPECT_EQ(0u, gauge->width);
  TavocatInputNodeSetT* charge = gauge->next;
  ASSERT_NE(nullptr, charge);
  EXPECT_STREQ("/sys/class/qd_power/charger/charge_data/chargelog", charge->dataPath);
  EXPECT_STREQ("/sys/class/qd_power/charger/charge_data/chargelog_head", charge->titlePath);
  EXPECT_EQ(nullptr, charge->next);
}

TEST_F(BuiltinTest, KmsglogcatWritesFactoryFilesOnFactoryAndChipsetBuilds) {
  SetProp("ro.runmode", "factory");
  ASSERT_EQ(0, Parse("kmsglogcat"));
  EXPECT_EQ(FACTORY_WRITE, info_.writeMode);
  TavoConfig::FreeConfigFile(&info_);
  SetProp("ro.runmode", "normal");
  SetProp("ro.build.type", "eng");
  ASSERT_EQ(0, Parse("kmsglogcat"));
  EXPECT_EQ(FACTORY_WRITE, info_.writeMode);
}

TEST_F(BuiltinTest, OtherNamesHaveNoBuiltinInstance) {
  for (const char* name : {"kmsg", "kmsglogcat ", "inputlogcat", ""}) {
    EXPECT_EQ(1, Parse(name)) << name;
    EXPECT_EQ(nullptr, info_.name);
    EXPECT_EQ(nullptr, info_.groups);
  }
  EXPECT_EQ(nullptr, TavoConfig::GenerateTavocatGroup("kmsg"));
  EXPECT_EQ(nullptr, TavoConfig::GenerateTavocatInputNodeSet("kmsg"));
  EXPECT_EQ(1, TavoConfig::ParseTavocatInfo(info_, "kmsg"));
  EXPECT_EQ(1, TavoConfig::ParseDefault(nullptr, info_));
  EXPECT_EQ(1, TavoConfig::ParseConfigFile(nullptr, &info_));
  EXPECT_EQ(1, TavoConfig::ParseConfigFile("kmsglogcat", nullptr));
}

TEST_F(BuiltinTest, RecoveryModeHasNoBuiltinInstance) {
  SetProp("init.svc.recovery", "running");
  EXPECT_EQ(1, Parse("kmsglogcat"));
  EXPECT_EQ(1, Parse("chargelogcat"));
  EXPECT_EQ(nullptr, info_.groups);
  EXPECT_EQ(nullptr, info_.name);
}

TEST_F(BuiltinTest, ExistingFileWithoutTheNameDoesNotFallBack) {
  WriteConfig(Instance(KmsgGroup(), "name=\"otherlogcat\" platform=\"Qcom\""));
  EXPECT_EQ(1, Parse("kmsglogcat"));
  EXPECT_EQ(1, Parse("chargelogcat"));
  EXPECT_EQ(nullptr, info_.groups);
}

TEST_F(BuiltinTest, FileInRecoveryModeIsStillRead) {
  SetProp("init.svc.recovery", "running");
  ASSERT_EQ(0, ParseXml(Instance(KmsgGroup())));
  EXPECT_STREQ("/data/log/k", GroupAt(0)->outputFilePath);
}

TEST_F(BuiltinTest, NodeSetBuildersPushAtTheFrontOfTheList) {
  TavocatInputNodeSetT* head = nullptr;
  ASSERT_EQ(0, TavoConfig::ParseKmsgcatNodeSet(head));
  ASSERT_EQ(0, TavoConfig::ParseChargelogcatNodeSet(head));
  std::string order;
  for (TavocatInputNodeSetT* node = head; node != nullptr; node = node->next) {
    order += std::string(node->dataPath) + " ";
  }
  EXPECT_EQ(
      "DateTime /sys/class/qd_power/coul/coul_data/gaugelog "
      "/sys/class/qd_power/charger/charge_data/chargelog /proc/kmsg ",
      order);
  TavoConfig::FreeInputNodeList(head);
}

// Every allocation of a built-in tree is needed: failing any one of them
// fails the whole parse and leaves nothing behind.
TEST_F(BuiltinTest, EachFailedAllocationFailsCleanly) {
  for (const char* name : {"kmsglogcat", "chargelogcat"}) {
    FailNothrowAllocation(-1);
    ASSERT_EQ(0, TavoConfig::ParseDefault(name, info_));
    long allocations = NothrowAllocations();
    TavoConfig::FreeConfigFile(&info_);
    ASSERT_GT(allocations, 3);
    for (long n = 0; n < allocations; ++n) {
      FailNothrowAllocation(n);
      EXPECT_EQ(1, TavoConfig::ParseDefault(name, info_)) << name << " allocation " << n;
      FailNothrowAllocation(-1);
      EXPECT_EQ(nullptr, info_.groups);
      TavoConfig::FreeConfigFile(&info_);
      TavoConfig::FreeConfigFile(&info_);
      EXPECT_EQ(nullptr, info_.name);
    }
  }
}

TEST_F(BuiltinTest, FailedNodeBuildFreesTheWholeList) {
  TavocatInputNodeSetT* head = nullptr;
  ASSERT_EQ(0, TavoConfig::ParseKmsgcatNodeSet(head));
  // The third allocation is the gauge node, after the charge node was pushed.
  FailNothrowAllocation(3);
  EXPECT_EQ(1, TavoConfig::ParseChargelogcatNodeSet(head));
  FailNothrowAllocation(-1);
  EXPECT_EQ(nullptr, head);
}

}  // namespace
