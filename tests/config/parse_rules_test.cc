// How the parser reads values: the number rule, which of repeated elements
// wins, the order rule of logStyle, and elements it does not know.

#include <gtest/gtest.h>

#include <string>

#include "config/config_test_support.h"

namespace configtest {
namespace {

std::string Rotate(const std::string& value) {
  return "<logRotateSizeKBytes value=\"" + value + "\"/>";
}

// A first element sets 7, so an ignored value shows as 7.
ParseCase Number(const char* label, const char* value, const char* shown) {
  return {label, Instance(Rotate("7") + Rotate(value) + KmsgGroup()), 0,
          std::string("kmsglogcat") + shown + kKmsgTree};
}

const ParseCase kRules[] = {
    Number("Decimal", "4096", " rotate=4096"),
    Number("DigitsThenLetters", "12abc", " rotate=12"),
    Number("Letters", "abc", ""),
    Number("SpacesAndPlus", "  +8", " rotate=8"),
    Number("Empty", "", ""),
    Number("NegativeIsIgnored", "-5", " rotate=7"),
    Number("MinusZero", "-0", ""),
    Number("HexIsNotRead", "0x10", ""),
    {"ElementWithoutValueLeavesTheField",
     Instance("<maxCompressdFiles value=\"9\"/><maxCompressdFiles/>" + KmsgGroup()), 0,
     std::string("kmsglogcat files=9") + kKmsgTree},
    {"LogStyleAttributesFollowTheRuleAndAreReadOnlyWhenPresent",
     Instance(Group("<logStyle value=\"poll_cmd\" interval=\"30\" cond_index=\"2\" "
                    "failureRetry=\"4x\"/><logStyle value=\"poll_cmd\" interval=\"-1\" "
                    "failureRetry=\"-3\"/><outputFilePath value=\"/o\"/>"
                    "<inputCmdSet><command value=\"battery\"/></inputCmdSet>")),
     0, "kmsglogcat | poll_cmd every=30 retry=4 cond=2 out=/o cmd{battery}"},
    GroupRow("FirstNonZeroWidthWins", "poll_node",
             "<inputNodeSet><dataPath value=\"/a\"/><width value=\"0\"/><width value=\"-3\"/>"
             "<width value=\"7\"/><width value=\"9\"/></inputNodeSet>",
             0, " node{data=/a width=7}"),
    {"RootSettingsAndOutputPathLastOneWins",
     Instance(Rotate("1") + Rotate("2") + "<maxCompressdFiles value=\"3\"/>" +
              "<maxCompressdFiles value=\"4\"/>" +
              Group("<logStyle value=\"monitor_node\"/><outputFilePath value=\"/first\"/>" +
                    DataNode("/proc/kmsg") +
                    "<outputFilePath value=\"/second\"/><outputFilePath/>")),
     0, "kmsglogcat rotate=2 files=4 | monitor_node out=/second node{data=/proc/kmsg}"},
    GroupRow("NodeStringsFirstOneWinsAndListsKeepDocumentOrder", "poll_node",
             "<inputNodeSet><dataPath/><dataPath value=\"/d1\"/><dataPath value=\"/d2\"/>"
             "<titlePath value=\"/t1\"/><titlePath value=\"/t2\"/><title value=\"T1\"/>"
             "<title value=\"T2\"/><alterdataPath value=\"/a1\"/><alterdataPath/>"
             "<alterdataPath value=\"/a2\"/></inputNodeSet>"
             "<inputNodeSet><alterdataPath value=\"/b\"/></inputNodeSet>",
             0, " node{data=/d1 titlePath=/t1 title=T1 alt=/a1,/a2} node{alt=/b}"),
    GroupRow("DirSetFirstPathWinsAndPickNodesAppend", "monitor_dir",
             "<inputDirSet><pickNode value=\"a\"/><inputDirPath value=\"/dev/input\"/>"
             "<inputDirPath value=\"/other\"/><pickNode value=\"b\"/></inputDirSet>",
             0, " dir{path=/dev/input pick=a,b}"),
    GroupRow("EachCmdSetKeepsItsFirstCommandInDocumentOrder", "poll_cmd",
             "<inputCmdSet><command value=\"battery\"/><command value=\"power\"/></inputCmdSet>"
             "<inputCmdSet><!-- c --><command value=\"wifi\"/></inputCmdSet>",
             0, " cmd{battery} cmd{wifi}"),
    GroupRow("CmdSetWhoseFirstCommandHasNoValueFailsValidation", "poll_cmd",
             "<inputCmdSet><command value=\"battery\"/></inputCmdSet>"
             "<inputCmdSet><command/><command value=\"power\"/></inputCmdSet>",
             1, " cmd{battery} cmd{}"),
    {"FirstMatchingTavocatEntryIsUsed",
     "<config><tavocat name=\"kmsglogcat\" platform=\"Qcom\">" + KmsgGroup() + Rotate("1") +
         "</tavocat><tavocat name=\"kmsglogcat\" platform=\"Qcom\">" + KmsgGroup() + Rotate("2") +
         "</tavocat></config>",
     0, std::string("kmsglogcat rotate=1") + kKmsgTree},
    {"GroupsKeepDocumentOrder",
     Instance(KmsgGroup() + Group("<logStyle value=\"poll_cmd\"/><outputFilePath value=\"/two\"/>"
                                  "<inputCmdSet><command value=\"battery\"/></inputCmdSet>")),
     0, std::string("kmsglogcat") + kKmsgTree + " | poll_cmd out=/two cmd{battery}"},
    // The order rule: sources count only after a logStyle of their kind.
    {"SourcesBeforeLogStyleAreDroppedSilently",
     Instance(Group(DataNode("/proc/kmsg") + "<logStyle value=\"monitor_node\"/>") +
              Group("<inputDirSet><inputDirPath value=\"/dev/input\"/></inputDirSet>"
                    "<logStyle value=\"monitor_dir\"/>") +
              Group("<inputCmdSet><command value=\"battery\"/></inputCmdSet>"
                    "<logStyle value=\"poll_cmd\"/>")),
     1, "kmsglogcat | monitor_node | monitor_dir | poll_cmd"},
    GroupRow("SourcesOfAnotherStyleAreIgnored", "monitor_node",
             "<inputCmdSet><command value=\"battery\"/></inputCmdSet>"
             "<inputDirSet><inputDirPath value=\"/dev/input\"/></inputDirSet>",
             1, ""),
    // The rest of the element is still read.
    {"StyleDoesNotChangeOnceSourcesAreHeld",
     Instance(Group("<logStyle value=\"monitor_node\"/><outputFilePath value=\"/o\"/>" +
                    DataNode("/proc/kmsg") + "<logStyle value=\"poll_cmd\" interval=\"9\"/>" +
                    "<inputCmdSet><command value=\"battery\"/></inputCmdSet>")),
     0, "kmsglogcat | monitor_node every=9 out=/o node{data=/proc/kmsg}"},
    {"StyleMayChangeBeforeAnySource",
     Instance(Group("<logStyle value=\"poll_cmd\"/><logStyle value=\"cond_trigger\"/>"
                    "<outputFilePath value=\"/o\"/>" +
                    DataNode("/a"))),
     0, "kmsglogcat | cond_trigger out=/o node{data=/a}"},
    GroupRow("SecondDirSetIsReportedAndSkipped", "monitor_dir",
             "<inputDirSet><inputDirPath value=\"/dev/input\"/></inputDirSet>"
             "<inputDirSet><inputDirPath value=\"/other\"/></inputDirSet>",
             0, " dir{path=/dev/input}", "Only support one inputDirSet!\n$DUMP"),
    {"UnknownGroupChildrenAreReportedOthersIgnoredSilently",
     Instance("<extra value=\"1\"/>text<!-- note -->" +
              Group("<LogStyle value=\"poll_cmd\"/><logStyle value=\"monitor_node\"/>"
                    "<outputFilePath value=\"/o\"/><inputNodeSet><dataPath value=\"/a\"/>"
                    "<bogus/></inputNodeSet><colour value=\"red\"/>")),
     0, "kmsglogcat | monitor_node out=/o node{data=/a}",
     "Unsupport tavocatGroup para [LogStyle]!\nUnsupport tavocatGroup para [colour]!\n$DUMP"},
    {"UnknownStyleNameLeavesNoStyleAndFails",
     Instance(Group("<logStyle value=\"Monitor_node\"/><outputFilePath value=\"/o\"/>" +
                    DataNode("/a"))),
     1, "kmsglogcat | none out=/o"},
};

INSTANTIATE_TEST_SUITE_P(Rules, ParseTest, testing::ValuesIn(kRules), RowName);

}  // namespace
}  // namespace configtest
