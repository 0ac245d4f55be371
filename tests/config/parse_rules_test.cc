// How the parser reads values, repeated and unknown elements, the logStyle order rule, validation.

#include <gtest/gtest.h>

#include <string>

#include "config/config_test_support.h"

namespace configtest {
namespace {

// A first element sets 7, so an ignored value shows as 7.
ParseCase Number(const char* label, const char* value, const char* shown) {
  return {label,
          Instance("<logRotateSizeKBytes value=\"7\"/><logRotateSizeKBytes value=\"" +
                   std::string(value) + "\"/>" + KmsgGroup()),
          0, std::string("kmsglogcat") + shown + kKmsgTree};
}

// clang-format off
const ParseCase kRules[] = {
    Number("Decimal", "4096", " rotate=4096"),
    Number("DigitsThenLetters", "12abc", " rotate=12"),
    Number("Letters", "abc", ""),
    Number("SpacesAndPlus", "  +8", " rotate=8"),
    Number("Empty", "", ""),
    Number("NegativeIsIgnored", "-5", " rotate=7"),
    Number("MinusZero", "-0", ""),
    Number("HexIsNotRead", "0x10", ""),
    {"LogStyleAttributesFollowTheRuleAndAreReadOnlyWhenPresent", Instance(Group("<logStyle value=\"poll_cmd\" interval=\"30\" cond_index=\"2\" failureRetry=\"4x\"/>" "<logStyle value=\"poll_cmd\" interval=\"-1\" failureRetry=\"-3\"/>" + Values("outputFilePath=/o") + Set("inputCmdSet", "command=battery"))), 0, "kmsglogcat | poll_cmd every=30 retry=4 cond=2 out=/o cmd{battery}"},
    GroupRow("FirstNonZeroWidthWins", "poll_node", Set("inputNodeSet", "dataPath=/a width=0 width=-3 width=7 width=9"), 0, " node{data=/a width=7}"),
    {"RootSettingsAndOutputPathLastOneWins", Instance(Values("logRotateSizeKBytes=1 logRotateSizeKBytes=2 maxCompressdFiles=3 maxCompressdFiles=4 maxCompressdFiles") + Group(Values("logStyle=monitor_node outputFilePath=/first") + Set("inputNodeSet", "dataPath=/proc/kmsg") + Values("outputFilePath=/second outputFilePath"))), 0, "kmsglogcat rotate=2 files=4 | monitor_node out=/second node{data=/proc/kmsg}"},
    GroupRow("NodeStringsFirstOneWinsAndListsKeepDocumentOrder", "poll_node", Set("inputNodeSet", "dataPath dataPath=/d1 dataPath=/d2 titlePath=/t1 titlePath=/t2 title=T1 title=T2 " "alterdataPath=/a1 alterdataPath alterdataPath=/a2") + Set("inputNodeSet", "alterdataPath=/b"), 0, " node{data=/d1 titlePath=/t1 title=T1 alt=/a1,/a2} node{alt=/b}"),
    GroupRow("DirSetFirstPathWinsAndPickNodesAppend", "monitor_dir", Set("inputDirSet", "pickNode=a inputDirPath=/dev/input inputDirPath=/other pickNode=b"), 0, " dir{path=/dev/input pick=a,b}"),
    GroupRow("EachCmdSetKeepsItsFirstCommandInDocumentOrder", "poll_cmd", Set("inputCmdSet", "command=battery command=power") + "<inputCmdSet><!-- c --><command value=\"wifi\"/></inputCmdSet>", 0, " cmd{battery} cmd{wifi}"),
    GroupRow("CmdSetWhoseFirstCommandHasNoValueFailsValidation", "poll_cmd", Set("inputCmdSet", "command=battery") + Set("inputCmdSet", "command command=power"), 1, " cmd{battery} cmd{}"),
    {"FirstMatchingTavocatEntryIsUsed", "<config><tavocat name=\"kmsglogcat\" platform=\"Qcom\">" + KmsgGroup() + Values("logRotateSizeKBytes=1") + "</tavocat><tavocat name=\"kmsglogcat\" " + "platform=\"Qcom\">" + KmsgGroup() + Values("logRotateSizeKBytes=2") + "</tavocat></config>", 0, std::string("kmsglogcat rotate=1") + kKmsgTree},
    // The order rule: sources count only after a logStyle of their kind.
    {"SourcesBeforeLogStyleAreDroppedSilently", Instance(Group(Set("inputNodeSet", "dataPath=/proc/kmsg") + Values("logStyle=monitor_node")) + Group(Set("inputDirSet", "inputDirPath=/dev/input") + Values("logStyle=monitor_dir")) + Group(Set("inputCmdSet", "command=battery") + Values("logStyle=poll_cmd"))), 1, "kmsglogcat | monitor_node | monitor_dir | poll_cmd"},
    GroupRow("SourcesOfAnotherStyleAreIgnored", "monitor_node", Set("inputCmdSet", "command=battery") + Set("inputDirSet", "inputDirPath=/dev/input"), 1, ""),
    {"StyleDoesNotChangeOnceSourcesAreHeld", Instance(Group(Values("logStyle=monitor_node outputFilePath=/o") + Set("inputNodeSet", "dataPath=/proc/kmsg") + "<logStyle value=\"poll_cmd\" interval=\"9\"/>" + Set("inputCmdSet", "command=battery"))), 0, "kmsglogcat | monitor_node every=9 out=/o node{data=/proc/kmsg}"},
    {"StyleMayChangeBeforeAnySource", Instance(Group(Values("logStyle=poll_cmd logStyle=cond_trigger outputFilePath=/o") + Set("inputNodeSet", "dataPath=/a"))), 0, "kmsglogcat | cond_trigger out=/o node{data=/a}"},
    GroupRow("SecondDirSetIsReportedAndSkipped", "monitor_dir", Set("inputDirSet", "inputDirPath=/dev/input") + Set("inputDirSet", "inputDirPath=/other"), 0, " dir{path=/dev/input}", "Only support one inputDirSet!\n$DUMP"),
    {"UnknownGroupChildrenAreReportedOthersIgnoredSilently", Instance("<extra value=\"1\"/>text<!-- note -->" + Group(Values("LogStyle=poll_cmd logStyle=monitor_node outputFilePath=/o") + Set("inputNodeSet", "dataPath=/a bogus") + Values("colour=red"))), 0, "kmsglogcat | monitor_node out=/o node{data=/a}", "Unsupport tavocatGroup para [LogStyle]!\nUnsupport tavocatGroup para [colour]!\n$DUMP"},
    {"UnknownStyleNameLeavesNoStyleAndFails", Instance(Group(Values("logStyle=Monitor_node outputFilePath=/o") + Set("inputNodeSet", "dataPath=/a"))), 1, "kmsglogcat | none out=/o"},
    {"NoGroupsFails", Instance(""), 1, "kmsglogcat"},
    {"GroupWithoutOutputPathFails", Instance(Group(Values("logStyle=monitor_node") + Set("inputNodeSet", "dataPath=/a"))), 1, "kmsglogcat | monitor_node node{data=/a}"},
    GroupRow("NodeWithoutAnyDataPathFails", "cond_trigger", Set("inputNodeSet", "dataPath=/a") + Set("inputNodeSet", "title=Title width=8"), 1, " node{data=/a} node{title=Title width=8}"),
    GroupRow("DirSetWithoutPathFails", "monitor_dir", Set("inputDirSet", "pickNode=gpio-keys"), 1, " dir{pick=gpio-keys}"),
    {"LaterInvalidGroupFailsTheTreeAndEveryGroupIsDumped", Instance(KmsgGroup() + Group(Values("logStyle=poll_cmd outputFilePath=/b") + Set("inputCmdSet", "command=battery")) + Group(Values("logStyle=poll_cmd outputFilePath=/c"))), 1, std::string("kmsglogcat") + kKmsgTree + " | poll_cmd out=/b cmd{battery} | poll_cmd out=/c"},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Rules, ParseTest, testing::ValuesIn(kRules), RowName);

}  // namespace
}  // namespace configtest
