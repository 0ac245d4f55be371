// How the parser reads values: the number rule, which of repeated elements
// wins, the order rule of logStyle, and elements it does not know.

#include <gtest/gtest.h>

#include <string>

#include "config/config_test_support.h"

namespace {

using namespace configtest;

std::string Rotate(const std::string& value) {
  return "<logRotateSizeKBytes value=\"" + value + "\"/>";
}

class NumberRuleTest : public ConfigTest {};

TEST_F(NumberRuleTest, ReadsLikeAtoiAndIgnoresNegatives) {
  struct Case {
    const char* value;
    size_t expected;
  } cases[] = {{"4096", 4096}, {"12abc", 12}, {"abc", 0}, {"  +8", 8},
               {"", 0},        {"-5", 7},     {"-0", 0},  {"0x10", 0}};
  for (const Case& c : cases) {
    TavoConfig::FreeConfigFile(&info_);
    // A first element sets 7, so an ignored value shows as 7.
    ASSERT_EQ(0, ParseXml(Instance(Rotate("7") + Rotate(c.value) + KmsgGroup()))) << err_;
    EXPECT_EQ(c.expected, info_.rotateSizeKbytes) << "value \"" << c.value << "\"";
  }
}

TEST_F(NumberRuleTest, ElementWithoutValueLeavesTheField) {
  ASSERT_EQ(
      0, ParseXml(Instance("<maxCompressdFiles value=\"9\"/><maxCompressdFiles/>" + KmsgGroup())));
  EXPECT_EQ(9u, info_.maxCompressdFiles);
}

TEST_F(NumberRuleTest, LogStyleAttributesFollowTheRuleAndAreReadOnlyWhenPresent) {
  ASSERT_EQ(
      0,
      ParseXml(Instance(Group("<logStyle value=\"poll_cmd\" interval=\"30\" cond_index=\"2\" "
                              "failureRetry=\"4x\"/>"
                              "<logStyle value=\"poll_cmd\" interval=\"-1\" failureRetry=\"-3\"/>"
                              "<outputFilePath value=\"/o\"/>"
                              "<inputCmdSet><command value=\"battery\"/></inputCmdSet>"))))
      << err_;
  TavocatGroupT* group = GroupAt(0);
  EXPECT_EQ(30u, group->pollingInterval);
  EXPECT_EQ(2u, group->condIndex);
  EXPECT_EQ(4u, group->failureRetry);
}

TEST_F(NumberRuleTest, FirstNonZeroWidthWins) {
  ASSERT_EQ(0,
            ParseXml(Instance(Group("<logStyle value=\"poll_node\"/><outputFilePath value=\"/o\"/>"
                                    "<inputNodeSet><dataPath value=\"/a\"/><width value=\"0\"/>"
                                    "<width value=\"-3\"/><width value=\"7\"/><width value=\"9\"/>"
                                    "</inputNodeSet>"))));
  EXPECT_EQ(7u, NodesOf(0)->width);
}

class WinsTest : public ConfigTest {};

TEST_F(WinsTest, RootSettingsAndOutputPathLastOneWins) {
  ASSERT_EQ(
      0,
      ParseXml(Instance(Rotate("1") + Rotate("2") + "<maxCompressdFiles value=\"3\"/>" +
                        "<maxCompressdFiles value=\"4\"/>" +
                        Group("<logStyle value=\"monitor_node\"/><outputFilePath value=\"/first\"/>"
                              "<inputNodeSet><dataPath value=\"/proc/kmsg\"/></inputNodeSet>"
                              "<outputFilePath value=\"/second\"/><outputFilePath/>"))))
      << err_;
  EXPECT_EQ(2u, info_.rotateSizeKbytes);
  EXPECT_EQ(4u, info_.maxCompressdFiles);
  EXPECT_STREQ("/second", GroupAt(0)->outputFilePath);
}

TEST_F(WinsTest, NodeStringsFirstOneWinsAndListsKeepDocumentOrder) {
  ASSERT_EQ(0, ParseXml(Instance(Group(
                   "<logStyle value=\"poll_node\"/><outputFilePath value=\"/o\"/>"
                   "<inputNodeSet><dataPath/><dataPath value=\"/d1\"/><dataPath value=\"/d2\"/>"
                   "<titlePath value=\"/t1\"/><titlePath value=\"/t2\"/>"
                   "<title value=\"T1\"/><title value=\"T2\"/>"
                   "<alterdataPath value=\"/a1\"/><alterdataPath/>"
                   "<alterdataPath value=\"/a2\"/></inputNodeSet>"
                   "<inputNodeSet><alterdataPath value=\"/b\"/></inputNodeSet>"))))
      << err_;
  TavocatInputNodeSetT* node = NodesOf(0);
  EXPECT_STREQ("/d1", node->dataPath);
  EXPECT_STREQ("/t1", node->titlePath);
  EXPECT_STREQ("T1", node->title);
  EXPECT_EQ("/a1,/a2", Join(node->alterDataPath));
  ASSERT_NE(nullptr, node->next);
  EXPECT_EQ(nullptr, node->next->dataPath);
  EXPECT_EQ("/b", Join(node->next->alterDataPath));
  EXPECT_EQ(nullptr, node->next->next);
}

TEST_F(WinsTest, DirSetFirstPathWinsAndPickNodesAppend) {
  ASSERT_EQ(0, ParseXml(Instance(Group(
                   "<logStyle value=\"monitor_dir\"/><outputFilePath value=\"/o\"/>"
                   "<inputDirSet><pickNode value=\"a\"/><inputDirPath value=\"/dev/input\"/>"
                   "<inputDirPath value=\"/other\"/><pickNode value=\"b\"/></inputDirSet>"))));
  auto* dir = static_cast<TavocatInputDirSetT*>(GroupAt(0)->inputSet);
  EXPECT_STREQ("/dev/input", dir->inputDirPath);
  EXPECT_EQ("a,b", Join(dir->pickNode));
}

TEST_F(WinsTest, EachCmdSetKeepsItsFirstCommandInDocumentOrder) {
  ASSERT_EQ(
      0,
      ParseXml(Instance(Group("<logStyle value=\"poll_cmd\"/><outputFilePath value=\"/o\"/>"
                              "<inputCmdSet><command value=\"battery\"/><command value=\"power\"/>"
                              "</inputCmdSet><inputCmdSet><!-- c --><command value=\"wifi\"/>"
                              "</inputCmdSet>"))));
  auto* cmd = static_cast<TavocatInputCmdSetT*>(GroupAt(0)->inputSet);
  EXPECT_STREQ("battery", cmd->command);
  ASSERT_NE(nullptr, cmd->next);
  EXPECT_STREQ("wifi", cmd->next->command);
  EXPECT_EQ(nullptr, cmd->next->next);
}

TEST_F(WinsTest, CmdSetWhoseFirstCommandHasNoValueFailsValidation) {
  EXPECT_EQ(
      1,
      ParseXml(Instance(Group("<logStyle value=\"poll_cmd\"/><outputFilePath value=\"/o\"/>"
                              "<inputCmdSet><command/><command value=\"power\"/></inputCmdSet>"))));
  EXPECT_NE(std::string::npos, err_.find("command           : nullptr\n"));
}

TEST_F(WinsTest, FirstMatchingTavocatEntryIsUsed) {
  std::string entry = "<tavocat name=\"kmsglogcat\" platform=\"Qcom\">" + KmsgGroup();
  ASSERT_EQ(0, ParseXml("<config>" + entry + Rotate("1") + "</tavocat>" + entry + Rotate("2") +
                        "</tavocat></config>"));
  EXPECT_EQ(1u, info_.rotateSizeKbytes);
  EXPECT_EQ(1u, GroupCount());
}

TEST_F(WinsTest, GroupsKeepDocumentOrder) {
  ASSERT_EQ(0,
            ParseXml(Instance(KmsgGroup() +
                              Group("<logStyle value=\"poll_cmd\"/><outputFilePath value=\"/two\"/>"
                                    "<inputCmdSet><command value=\"battery\"/></inputCmdSet>"))));
  ASSERT_EQ(2u, GroupCount());
  EXPECT_EQ(MONITOR_NODE, GroupAt(0)->style);
  EXPECT_EQ(POLL_CMD, GroupAt(1)->style);
  EXPECT_EQ(&info_, GroupAt(1)->info);
}

class OrderRuleTest : public ConfigTest {};

TEST_F(OrderRuleTest, SourcesBeforeLogStyleAreDroppedSilently) {
  const char* sources[] = {
      "<inputNodeSet><dataPath value=\"/proc/kmsg\"/></inputNodeSet>"
      "<logStyle value=\"monitor_node\"/>",
      "<inputDirSet><inputDirPath value=\"/dev/input\"/></inputDirSet>"
      "<logStyle value=\"monitor_dir\"/>",
      "<inputCmdSet><command value=\"battery\"/></inputCmdSet><logStyle value=\"poll_cmd\"/>",
  };
  for (const char* body : sources) {
    TavoConfig::FreeConfigFile(&info_);
    EXPECT_EQ(1, ParseXml(Instance(Group(std::string(body) + "<outputFilePath value=\"/o\"/>"))))
        << body;
    EXPECT_EQ(nullptr, GroupAt(0)->inputSet) << body;
    EXPECT_EQ(std::string::npos, err_.find("Unsupport")) << err_;
    EXPECT_EQ(std::string::npos, err_.find("Only support")) << err_;
  }
}

TEST_F(OrderRuleTest, SourcesOfAnotherStyleAreIgnored) {
  EXPECT_EQ(
      1,
      ParseXml(Instance(Group("<logStyle value=\"monitor_node\"/><outputFilePath value=\"/o\"/>"
                              "<inputCmdSet><command value=\"battery\"/></inputCmdSet>"
                              "<inputDirSet><inputDirPath value=\"/dev/input\"/></inputDirSet>"))));
  EXPECT_EQ(nullptr, GroupAt(0)->inputSet);
}

TEST_F(OrderRuleTest, StyleDoesNotChangeOnceSourcesAreHeld) {
  ASSERT_EQ(
      0, ParseXml(Instance(Group("<logStyle value=\"monitor_node\"/><outputFilePath value=\"/o\"/>"
                                 "<inputNodeSet><dataPath value=\"/proc/kmsg\"/></inputNodeSet>"
                                 "<logStyle value=\"poll_cmd\" interval=\"9\"/>"
                                 "<inputCmdSet><command value=\"battery\"/></inputCmdSet>"))))
      << err_;
  TavocatGroupT* group = GroupAt(0);
  EXPECT_EQ(MONITOR_NODE, group->style);
  EXPECT_STREQ("/proc/kmsg", NodesOf(0)->dataPath);
  EXPECT_EQ(nullptr, NodesOf(0)->next);
  // The rest of the element is still read.
  EXPECT_EQ(9u, group->pollingInterval);
}

TEST_F(OrderRuleTest, StyleMayChangeBeforeAnySource) {
  ASSERT_EQ(
      0, ParseXml(Instance(Group("<logStyle value=\"poll_cmd\"/><logStyle value=\"cond_trigger\"/>"
                                 "<outputFilePath value=\"/o\"/>"
                                 "<inputNodeSet><dataPath value=\"/a\"/></inputNodeSet>"))));
  EXPECT_EQ(COND_TRIGGER, GroupAt(0)->style);
}

TEST_F(OrderRuleTest, SecondDirSetIsReportedAndSkipped) {
  ASSERT_EQ(
      0, ParseXml(Instance(Group("<logStyle value=\"monitor_dir\"/><outputFilePath value=\"/o\"/>"
                                 "<inputDirSet><inputDirPath value=\"/dev/input\"/></inputDirSet>"
                                 "<inputDirSet><inputDirPath value=\"/other\"/></inputDirSet>"))));
  EXPECT_STREQ("/dev/input", static_cast<TavocatInputDirSetT*>(GroupAt(0)->inputSet)->inputDirPath);
  EXPECT_EQ(0u, err_.find("Only support one inputDirSet!\n")) << err_;
}

class UnknownElementTest : public ConfigTest {};

TEST_F(UnknownElementTest, GroupChildrenAreReportedOthersIgnoredSilently) {
  ASSERT_EQ(
      0,
      ParseXml(Instance("<extra value=\"1\"/>text<!-- note -->" +
                        Group("<LogStyle value=\"poll_cmd\"/><logStyle value=\"monitor_node\"/>"
                              "<outputFilePath value=\"/o\"/><inputNodeSet><dataPath value=\"/a\"/>"
                              "<bogus/></inputNodeSet><colour value=\"red\"/>"))))
      << err_;
  EXPECT_EQ(0u, err_.find("Unsupport tavocatGroup para [LogStyle]!\n"
                          "Unsupport tavocatGroup para [colour]!\n"
                          "------------- printTavocatInfo begin"))
      << err_;
  EXPECT_EQ(MONITOR_NODE, GroupAt(0)->style);
}

TEST_F(UnknownElementTest, UnknownStyleNameLeavesNoStyleAndFails) {
  EXPECT_EQ(
      1, ParseXml(Instance(Group("<logStyle value=\"Monitor_node\"/><outputFilePath value=\"/o\"/>"
                                 "<inputNodeSet><dataPath value=\"/a\"/></inputNodeSet>"))));
  EXPECT_EQ(LOG_STYLE_NONE, GroupAt(0)->style);
  EXPECT_EQ(nullptr, GroupAt(0)->inputSet);
  EXPECT_NE(std::string::npos, err_.find("style             : 0\n"));
}

}  // namespace
