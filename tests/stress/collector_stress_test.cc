#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "collector/collector_process.h"
#include "collector/data_src_reader.h"
#include "support/gzip_text.h"
#include "support/log_set.h"
#include "support/small_fs.h"
#include "support/temp_root.h"

namespace {

constexpr char kName[] = "stress";
constexpr char kDir[] = "/data/log/stress";
constexpr char kBase[] = "kmsg-log";
constexpr int kMostArchives = 200;  // a factory set keeps at most 1000 / 5
constexpr size_t kReadSize = DataSrcReader::kReadBufSize;
const std::string kOutput = std::string(kDir) + "/" + kBase;

using e2etest::Lines;
using morvotest::Holds;

std::string Element(const std::string& name, const std::string& value) {
  return "<" + name + " value=\"" + value + "\"/>";
}

std::string Group(const std::string& style, const std::string& sets) {
  return "<tavocatGroup>" + style + Element("outputFilePath", kOutput) + sets + "</tavocatGroup>";
}

std::string Node(const char* path) {
  return "<inputNodeSet>" + Element("dataPath", path) + "</inputNodeSet>";
}

const std::string kKmsgGroup = Group(Element("logStyle", "monitor_node"), Node("/proc/kmsg"));

std::vector<long> Numbers(const std::string& text) {
  return morvotest::Sequence(text, e2etest::kMarker);
}

class CollectorRoot {
 public:
  CollectorRoot(bool factory, size_t rotateKbytes, size_t maxCompressd,
                const std::string& groups = kKmsgGroup) {
    for (const char* dir : {"/proc", "/data/log/ksv_log", kDir, "/system/etc", "/bin"})
      root_.MakeDirs(dir);
    morvotest::WriteFile(root_.Under("/system/etc/tavocat_config.xml"),
                         "<config><tavocat name=\"" + std::string(kName) + "\" platform=\"Qcom\">" +
                             Element("logRotateSizeKBytes", std::to_string(rotateKbytes)) +
                             Element("maxCompressdFiles", std::to_string(maxCompressd)) +
                             Element("writeMode", factory ? "factory" : "mmap") + groups +
                             "</tavocat></config>");
    morvotest::WriteFile(Kmsg(), "");
  }
  const morvotest::TempRoot& root() const { return root_; }
  std::string Kmsg() const { return root_.Under("/proc/kmsg"); }
  std::string Dir() const { return root_.Under(kDir); }
  std::string Base() const { return root_.Under(kOutput); }
  void Append(const std::string& text) const { grouptest::Append(Kmsg(), text); }
  bool Consumed(const e2etest::CollectorProcess& collector) const {
    return collector.HasRead(Kmsg());
  }
  // Oldest first; an archive step that failed after shifting leaves "-0" free.
  std::vector<std::string> Archives() const {
    std::vector<std::string> archives;
    for (int k = 0; k < kMostArchives; ++k) {
      std::string archive = Base() + "-" + std::to_string(k) + ".tar.gz";
      if (morvotest::Exists(archive)) archives.insert(archives.begin(), archive);
    }
    return archives;
  }
  // Archives, work folder (members an archive could not take) and files, oldest first.
  std::string FactoryText() const {
    std::string text, tmp, numbered;
    for (const std::string& archive : Archives()) {
      for (int n = 5; n >= 1; --n) {
        text += morvotest::CommandOutput("tar -xzOf '" + archive + "' --wildcards '*" + kBase +
                                         "." + std::to_string(n) + "' 2>/dev/null");
      }
    }
    for (int n = 5; n >= 1; --n) {
      tmp += morvotest::ReadFile(Base() + "_tmp/" + kBase + "." + std::to_string(n));
      numbered += morvotest::ReadFile(Base() + "." + std::to_string(n));
    }
    return text + tmp + numbered + morvotest::ReadFile(Base());
  }
  std::string Text(bool factory) const {
    if (factory) return FactoryText();
    std::string text;
    for (const std::string& f :
         morvotest::WritingOrder(morvotest::SetFiles(Dir(), kBase), Base().size())) {
      text += morvotest::Zcat(f);
    }
    return text;
  }

 private:
  morvotest::TempRoot root_;
};

class Collector : public e2etest::CollectorProcess {
 public:
  explicit Collector(const CollectorRoot& root)
      : e2etest::CollectorProcess(root.root(), {"--tavo", "2", "-x", kName}) {}
  bool Stop() { return e2etest::EndedBySigusr(SendAndWait(SIGUSR2)); }
};

class CollectorStress : public ::testing::TestWithParam<bool> {
 protected:
  bool Factory() const { return GetParam(); }
  static void Feed(const CollectorRoot& root, const Collector& collector, long first, long end) {
    root.Append(Lines(first, end));
    ASSERT_TRUE(root.Consumed(collector)) << collector.Err();
  }
};

// About 1200 rotations: the mmap index wraps, the factory set makes some 240 archives.
TEST_P(CollectorStress, RotationsPastAThousandKeepAContiguousTail) {
  constexpr long kLines = 30000;
  CollectorRoot root(Factory(), 1, 25);
  root.Append(Lines(0, kLines / 2));
  Collector collector(root);
  Feed(root, collector, kLines / 2, kLines);
  ASSERT_TRUE(collector.Stop()) << collector.Err();
  if (Factory()) {
    EXPECT_EQ(5u, root.Archives().size());
    EXPECT_FALSE(morvotest::Exists(root.Base() + "_tmp"));
  } else {
    EXPECT_EQ(25u, morvotest::SetFiles(root.Dir(), kBase).size());
  }
  std::vector<long> numbers = Numbers(root.Text(Factory()));
  ASSERT_FALSE(numbers.empty());
  EXPECT_EQ(kLines - 1, numbers.back());
  EXPECT_GT(numbers.front(), kLines / 2);
  for (size_t i = 1; i < numbers.size(); ++i) ASSERT_EQ(numbers[i - 1] + 1, numbers[i]);
}

// Only the last read's lines may be lost at a kill; the next run reads only the rest.
TEST_P(CollectorStress, KillsAtRandomPointsLoseNothingReachedAndDoubleNothing) {
  CollectorRoot root(Factory(), 4, 1000);
  std::mt19937 random(Factory() ? 1123 : 2311);
  std::string unread;  // the stand-in's content
  long next = 0;
  std::vector<bool> mayBeLost;
  constexpr int kRounds = 6;
  for (int round = 0; round < kRounds; ++round) {
    Collector collector(root);
    for (int batch = 2 + random() % 3; batch > 0; --batch) {
      long count = 200 + random() % 800;
      root.Append(Lines(next, next + count));
      unread += Lines(next, next + count);
      next += count;
      ASSERT_TRUE(batch == 1 || root.Consumed(collector)) << collector.Err();
    }
    usleep(random() % 40000);
    ASSERT_EQ(0, kill(collector.pid(), SIGSTOP));
    int status;
    ASSERT_EQ(collector.pid(), waitpid(collector.pid(), &status, WUNTRACED));
    long long offset = collector.ReadOffset(root.Kmsg());
    ASSERT_GE(offset, 0);
    mayBeLost.resize(static_cast<size_t>(next), false);
    size_t lastRead = static_cast<size_t>(offset) > kReadSize
                          ? unread.rfind('\n', static_cast<size_t>(offset) - kReadSize - 1) + 1
                          : 0;
    size_t keep = offset == 0 ? 0 : unread.rfind('\n', static_cast<size_t>(offset) - 1) + 1;
    for (long n : Numbers(unread.substr(lastRead, keep - lastRead))) {
      mayBeLost[static_cast<size_t>(n)] = true;
    }
    unread.erase(0, keep);
    kill(collector.pid(), SIGKILL);
    morvotest::WriteFile(root.Kmsg() + ".new", unread);
    rename((root.Kmsg() + ".new").c_str(), root.Kmsg().c_str());
  }
  {
    Collector collector(root);
    root.Append(Lines(next, next + 500));
    next += 500;
    ASSERT_TRUE(root.Consumed(collector)) << collector.Err();
    ASSERT_TRUE(collector.Stop()) << collector.Err();
  }
  mayBeLost.resize(static_cast<size_t>(next), false);
  std::vector<long> numbers = Numbers(root.Text(Factory()));
  for (size_t i = 1; i < numbers.size(); ++i) {
    ASSERT_LT(numbers[i - 1], numbers[i]) << "doubled or out of order at line " << numbers[i];
  }
  size_t at = 0;
  for (long n = 0; n < next; ++n) {
    bool found = at < numbers.size() && numbers[at] == n;
    if (found) ++at;
    ASSERT_TRUE(found || mayBeLost[static_cast<size_t>(n)]) << "line " << n << " lost";
  }
  EXPECT_EQ(numbers.size(), at);
}

// Full longer than the cache holds: said once each way, nothing torn or lost after.
TEST_P(CollectorStress, AFullFolderIsWaitedOutAndNoLineAfterItIsLost) {
  if (!morvotest::EnterPrivateMounts()) GTEST_SKIP() << "no mount namespace of our own here";
  CollectorRoot root(Factory(), 64, 1000);
  morvotest::SmallFs fs(root.Dir(), 3072);
  if (!fs.mounted()) GTEST_SKIP() << "cannot mount a tmpfs here";
  Collector collector(root);
  Feed(root, collector, 0, 1000);
  if (Factory()) {
    ASSERT_TRUE(grouptest::WaitFor([&] { return Numbers(root.FactoryText()).size() == 1000; }));
  }
  fs.Fill();
  long next = 1000;
  for (int i = 0; i < 25; ++i, next += 1000) {
    root.Append(Lines(next, next + 1000));
    usleep(200 * 1000);
  }
  ASSERT_TRUE(root.Consumed(collector)) << collector.Err();
  fs.Free();
  const long resumed = next;
  ASSERT_TRUE(grouptest::WaitFor([&] {
    root.Append(Lines(next, next + 100));
    next += 100;
    return collector.Err().find(": writing again to ") != std::string::npos;
  })) << collector.Err();
  Feed(root, collector, next, next + 1000);
  next += 1000;
  ASSERT_TRUE(collector.Stop()) << collector.Err();
  const std::string err = collector.Err(), group = "group " + root.Base();
  EXPECT_EQ(grouptest::Count(err, group + ": cannot write "), 1u) << err;
  EXPECT_EQ(grouptest::Count(err, group + ": writing again to "), 1u) << err;
  EXPECT_EQ(grouptest::Count(err, " lines lost\n"), 1u) << err;
  // mmap mode's set files are whole gzip streams; factory mode wrote only plain numbered files.
  const std::vector<std::string> sets = morvotest::SetFiles(root.Dir(), kBase);
  EXPECT_EQ(Factory(), sets.empty());
  for (const std::string& f : sets) EXPECT_NE(morvotest::kBadGzip, morvotest::Gunzip(f)) << f;
  std::vector<long> numbers = Numbers(root.Text(Factory()));
  for (size_t i = 1; i < numbers.size(); ++i) ASSERT_LT(numbers[i - 1], numbers[i]);
  EXPECT_TRUE(Holds(numbers, 0, 1000));
  EXPECT_TRUE(Holds(numbers, resumed, next));
}

std::string PollGroup(const std::string& style, const std::string& sets) {
  return Group("<logStyle value=\"" + style + "\" interval=\"1\"/>", sets);
}

std::string Log(const CollectorRoot& root) { return morvotest::ReadFile(root.Base()); }

const std::string kPollStyle = "<logStyle value=\"poll_node\" interval=\"5\"/>";

// Status 12 whatever the group waits for, no child left, the last partial line kept.
TEST(CollectorStop, SigusrEndsTheCollectorInEveryWait) {
  const struct {
    const char* name;
    bool factory;
    std::string groups;
    const char* fifo;  // a FIFO without a writer planted there
    void (*plant)(const CollectorRoot&) = nullptr;
    const char* ready = nullptr;  // in the log once the group waits; null: let it settle
    const char* kept = nullptr;   // in the log after the end
  } kCases[] = {
      // clang-format off
      {"held in a source's open", false, Group(kPollStyle, Node("/proc/planted")), "/proc/planted"},
      {"a charge node that cannot be seeked", true, Group(Element("logStyle", "cond_trigger"), Node("DateTime")),
       "/sys/class/qd_power/bq_bci/poll_charge_start_event"},
      {"an input folder not yet made", false, Group(Element("logStyle", "monitor_dir"), "<inputDirSet>" +
       Element("inputDirPath", "/dev/input") + Element("pickNode", "gpio-keys") + "</inputDirSet>"), "/dev/planted"},
      {"a watchdog that is a FIFO", true, Group(kPollStyle, Node("DateTime")), "/proc/reboot_watchdog"},
      {"a polled FIFO without a writer", true, PollGroup("poll_node", Node("/sys/ok") + "<inputNodeSet>" +
       Element("dataPath", "/sys/fifo") + Element("width", "10") + "</inputNodeSet>"), "/sys/fifo",
       [](const CollectorRoot& r) { morvotest::WriteFile(r.root().Under("/sys/ok"), "ok"); }, "ok"},
      {"a dumpsys that never ends", true,
       PollGroup("poll_cmd", "<inputCmdSet>" + Element("command", "battery") + "</inputCmdSet>"), nullptr,
       [](const CollectorRoot& r) {
         std::string marker = r.root().Under("/marker"), script = r.root().Under("/bin/dumpsys");
         morvotest::WriteFile(marker, "");
         morvotest::WriteFile(script, "#!/bin/sh\necho started\ntail -f " + marker + " &\nwait\n");
         chmod(script.c_str(), 0755); }, "started\n"},
      {"a stream line without its end yet", true, kKmsgGroup, nullptr,
       [](const CollectorRoot& r) { r.Append("whole\nno end yet"); }, "whole\n", " no end yet\n"},
      // clang-format on
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    CollectorRoot root(c.factory, 4096, 10, c.groups);
    if (c.fifo != nullptr) {
      std::string fifo = root.root().Under(c.fifo);
      root.root().MakeDirs(std::string(c.fifo).substr(0, std::string(c.fifo).rfind('/')));
      unlink(fifo.c_str());
      ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    }
    if (c.plant != nullptr) c.plant(root);
    Collector collector(root);
    if (c.ready != nullptr) {
      ASSERT_TRUE(grouptest::WaitFor([&] { return Log(root).find(c.ready) != std::string::npos; }))
          << collector.Err();
    } else {
      ASSERT_TRUE(grouptest::WaitFor([&] { return collector.Comm() == kName; })) << collector.Err();
      usleep(300 * 1000);
    }
    EXPECT_TRUE(collector.Stop()) << collector.Err();
    EXPECT_EQ(std::string::npos, collector.Err().find(" ended: ")) << collector.Err();
    EXPECT_TRUE(
        grouptest::WaitFor([&] { return grouptest::ProcessesWith(root.root().path()) == 0; }));
    EXPECT_TRUE(c.kept == nullptr || Log(root).find(c.kept) != std::string::npos) << Log(root);
  }
}

INSTANTIATE_TEST_SUITE_P(WriteModes, CollectorStress, ::testing::Bool());  // 1: factory

}  // namespace
