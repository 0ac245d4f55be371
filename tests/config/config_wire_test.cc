// The tree's trip through bytes, refused encodings, and the parse child's bounds, end and delivery.

#include "config/config_wire.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "config/config_test_support.h"
#include "config/parse_apart.h"
#include "support/alloc_failure.h"
#include "support/temp_root.h"

namespace configtest {
namespace {

using morvotest::EachAllocationFailing;

using TavoConfig::BuildTreeApart;
using TavoConfig::DecodeTavocatInfo;
using TavoConfig::kParseLimits;

// Every style, multi-entry lists, an empty string beside missing ones, a line break and a tab.
const std::string kEveryStyle = Instance(
    Values("logRotateSizeKBytes=77 maxCompressdFiles=9 writeMode=mmap") +
    Group("<logStyle value=\"monitor_node\" failureRetry=\"3\"/>" +
          Values("outputFilePath=/data/log/k&#10;x") +
          Set("inputNodeSet", "dataPath=/proc/kmsg title= width=12")) +
    Group("<logStyle value=\"poll_node\" interval=\"7\"/>" + Values("outputFilePath=/p") +
          Set("inputNodeSet", "dataPath=DateTime title=Time&#9;now") +
          Set("inputNodeSet", "alterdataPath=/a1 alterdataPath=/a2 titlePath=/t")) +
    Group(Values("logStyle=monitor_dir outputFilePath=/d") +
          Set("inputDirSet", "inputDirPath=/dev/input pickNode=gpio-keys pickNode=touch")) +
    Group("<logStyle value=\"poll_cmd\" interval=\"60\"/>" + Values("outputFilePath=/c") +
          Set("inputCmdSet", "command=battery") + Set("inputCmdSet", "command=power")) +
    Group("<logStyle value=\"cond_trigger\" cond_index=\"2\"/>" + Values("outputFilePath=/t") +
          Set("inputNodeSet", "dataPath=/sys/x")));
const char kEveryStyleTree[] =
    "kmsglogcat rotate=77 files=9 | monitor_node retry=3 out=/data/log/k\nx "
    "node{data=/proc/kmsg title=\"\" width=12} | poll_node every=7 out=/p "
    "node{data=DateTime title=Time\tnow} node{titlePath=/t alt=/a1,/a2} | monitor_dir out=/d "
    "dir{path=/dev/input pick=gpio-keys,touch} | poll_cmd every=60 out=/c cmd{battery} "
    "cmd{power} | cond_trigger cond=2 out=/t node{data=/sys/x}";

INSTANTIATE_TEST_SUITE_P(Wire, ParseTest,
                         testing::Values(ParseCase{"EveryStyle", kEveryStyle, 0, kEveryStyleTree}),
                         RowName);

class WireTest : public ConfigTest {
 protected:
  void SetUp() override {
    WriteConfig(kEveryStyle);
    ASSERT_EQ(0, Parse()) << err_;
    TavoConfig::WireBuffer wire;
    ASSERT_TRUE(TavoConfig::EncodeTavocatInfo(info_, &wire));
    bytes_.assign(wire.data, wire.data + wire.size);
  }
  // The tree bytes decode to, described, or "refused" (and left empty).
  static std::string Decoded(const std::vector<unsigned char>& bytes) {
    TavocatInfoT info = {};
    int result = DecodeTavocatInfo(bytes.data(), bytes.size(), &info);
    std::string tree = Describe(info);
    FreeConfigFile(&info);
    EXPECT_EQ(std::string::npos, tree.find("info?"));
    if (result == 0) return tree;
    EXPECT_EQ("", tree);
    return "refused";
  }
  std::vector<unsigned char> bytes_;
};

TEST_F(WireTest, CutOrPaddedEncodingsAreRefused) {
  for (size_t size = 0; size < bytes_.size(); ++size) {
    std::vector<unsigned char> cut(bytes_.begin(), bytes_.begin() + size);
    ASSERT_EQ("refused", Decoded(cut)) << "cut at " << size;
  }
  std::vector<unsigned char> padded = bytes_;
  padded.push_back(0);
  EXPECT_EQ("refused", Decoded(padded));
  EXPECT_EQ(1, DecodeTavocatInfo(nullptr, 0, &info_));
}

TEST_F(WireTest, DamagedWordsNeverReadPastTheBytes) {
  // Each word made huge, all ones (the null mark) and one past the bytes: refused trees are empty.
  for (size_t at = 0; at + sizeof(uint64_t) <= bytes_.size(); at += sizeof(uint64_t)) {
    for (uint64_t value : {uint64_t{1} << 40, UINT64_MAX, uint64_t{bytes_.size()}}) {
      std::vector<unsigned char> damaged = bytes_;
      memcpy(damaged.data() + at, &value, sizeof(value));
      Decoded(damaged);
    }
  }
  std::vector<unsigned char> badStyle = bytes_;
  // The first group's style word: mark, three numbers, the name, a count, interval, failureRetry.
  size_t at = 4 * 8 + 8 + strlen("kmsglogcat") + 8 + 2 * 8;
  uint64_t style = uint64_t{1} << 32;
  memcpy(badStyle.data() + at, &style, sizeof(style));
  EXPECT_EQ("refused", Decoded(badStyle)) << "a style past 32 bits";
}

TEST_F(WireTest, EachFailedAllocationIsRefusedWholeAndLeaksNothing) {
  long count = EachAllocationFailing(
      [this](long n) { EXPECT_EQ(n < 0 ? kEveryStyleTree : "refused", Decoded(bytes_)) << n; });
  EXPECT_GT(count, 20);
}

unsigned long long AddressSpace() {
  return strtoull(morvotest::ReadFile("/proc/self/statm").c_str(), nullptr, 10) *
         static_cast<unsigned long long>(sysconf(_SC_PAGESIZE));
}

// Whether the child is memory-bounded, dies with its parent and survives a closed pipe.
int ReportBounds(const void*, TavocatInfoT* info) {
  struct rlimit as = {};
  int deathSignal = 0;
  struct sigaction pipeAction = {};
  getrlimit(RLIMIT_AS, &as);
  prctl(PR_GET_PDEATHSIG, &deathSignal);
  sigaction(SIGPIPE, nullptr, &pipeAction);
  bool bounded = as.rlim_cur >= kParseLimits.memoryGrowth &&
                 as.rlim_cur <= AddressSpace() + 2 * kParseLimits.memoryGrowth &&
                 deathSignal == SIGKILL && pipeAction.sa_handler == SIG_IGN;
  std::string text = "limit " + std::to_string(as.rlim_cur) + " death signal " +
                     std::to_string(deathSignal) + " pipe " +
                     std::to_string(pipeAction.sa_handler == SIG_IGN);
  return CopyString(bounded ? "bounded" : text.c_str(), &info->name);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
int AllocateAGibibyte(const void*, TavocatInfoT* info) {
  void* block = malloc(size_t{1} << 30);
  free(block);
  return block != nullptr ? CopyString("allocated", &info->name) : 1;
}
#endif

int Hang(const void*, TavocatInfoT*) {
  for (;;) pause();
}

constexpr size_t kHugeName = size_t{20} << 20;
constexpr size_t kHugeCommands = 100000;

// A tree whose encoding is over 20 MiB: a long name and many commands.
int BuildHugeTree(const void*, TavocatInfoT* info) {
  std::string name(kHugeName, 'n');
  auto* group = new (std::nothrow) TavocatGroupT();
  if (CopyString(name.c_str(), &info->name) != 0 || group == nullptr) return 1;
  group->info = info;
  group->style = POLL_CMD;
  CopyString("/c", &group->outputFilePath);
  info->groups = group;
  TavocatInputCmdSetT* head = nullptr;
  for (size_t i = 0; i < kHugeCommands; ++i) {
    auto* cmd = new (std::nothrow) TavocatInputCmdSetT();
    if (cmd == nullptr) return 1;
    cmd->next = head;
    head = cmd;
    group->inputSet = head;
    CopyString(std::to_string(i).c_str(), &cmd->command);
  }
  return 0;
}

// A child gives its tree, however large; past its memory or time bound the parse fails.
TEST_F(ConfigTest, ChildIsBoundedAndGivesItsTree) {
  // name: the tree's, or null for the tree the builder gives here.
  // clang-format off
  const struct { TavoConfig::TreeBuilder build; int deadlineMs, result; const char *err, *name; } cases[] = {
    {ReportBounds, kParseLimits.deadlineMs, 0, "", "bounded"},
    {BuildHugeTree, kParseLimits.deadlineMs, 0, "", nullptr},
  // The sanitizers reserve more address space than the bound.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    {AllocateAGibibyte, kParseLimits.deadlineMs, 1, "", ""},
#endif
    {Hang, 300, 1, "Config parser process ran past its 300 ms deadline and was killed!\n", ""},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.err);
    FreeConfigFile(&info_);
    TavocatInfoT here = {};
    testing::internal::CaptureStderr();
    EXPECT_EQ(c.result,
              BuildTreeApart(c.build, nullptr, {c.deadlineMs, kParseLimits.memoryGrowth}, &info_));
    EXPECT_EQ(c.err, testing::internal::GetCapturedStderr());
    EXPECT_EQ(0, c.name != nullptr ? 0 : c.build(nullptr, &here));
    EXPECT_TRUE((c.name != nullptr ? c.name : Describe(here)) == Describe(info_))
        << Describe(info_).substr(0, 200);
    FreeConfigFile(&here);
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
    EXPECT_EQ(ECHILD, errno);
  }
}

// Writes the child's pid to the file named by arg, then hangs.
int TellPidAndHang(const void* arg, TavocatInfoT*) {
  std::string path = static_cast<const char*>(arg);
  morvotest::WriteFile(path + ".tmp", std::to_string(getpid()));
  rename((path + ".tmp").c_str(), path.c_str());
  for (;;) pause();
}

TEST_F(ConfigTest, ChildEndsWhenTheProcessThatStartedItDies) {
  // Orphans come to us, so the child can be watched after its parent died.
  ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1));
  std::string pidFile = root_.Under("/child.pid");
  pid_t starter = fork();
  ASSERT_GE(starter, 0);
  if (starter == 0) {
    TavocatInfoT info = {};
    BuildTreeApart(TellPidAndHang, pidFile.c_str(), kParseLimits, &info);
    _exit(0);
  }
  pid_t child = 0;
  morvotest::Within(10, [&] { return (child = atoi(morvotest::ReadFile(pidFile).c_str())) > 0; });
  kill(starter, SIGKILL);
  waitpid(starter, nullptr, 0);
  ASSERT_GT(child, 0);
  int status = 0;
  bool ended = morvotest::Within(5, [&] { return waitpid(child, &status, WNOHANG) == child; });
  if (!ended) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
  prctl(PR_SET_CHILD_SUBREAPER, 0);
  ASSERT_TRUE(ended) << "the parse child outlived its parent";
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

}  // namespace
}  // namespace configtest
