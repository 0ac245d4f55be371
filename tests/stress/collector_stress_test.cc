// A collector process under load in both write modes: more than a thousand
// rotations, and kills at random points followed by restarts; and its end
// on SIGUSR2 from every wait a group can be in.

#include "stress/collector_stress.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "collector/data_src_reader.h"

namespace {

using stresstest::CollectorRoot;
using stresstest::Lines;
using stresstest::Numbers;

constexpr size_t kReadSize = DataSrcReader::kReadBufSize;

using stresstest::EndedBySigusr;

class CollectorStress : public ::testing::TestWithParam<bool> {
 protected:
  bool Factory() const { return GetParam(); }
};

// About 25 lines fill a file of 1 KiB, so 30000 lines make about 1200
// rotations: the mmap index wraps, the factory set makes some 240 archives.
TEST_P(CollectorStress, RotationsPastAThousandKeepAContiguousTail) {
  constexpr long kLines = 30000;
  CollectorRoot root({Factory(), 1, 25});
  root.Append(Lines(0, kLines / 2));
  stresstest::Collector collector(root);
  root.Append(Lines(kLines / 2, kLines));
  ASSERT_TRUE(root.Consumed(collector)) << collector.Err();
  ASSERT_TRUE(EndedBySigusr(collector.SendAndWait(SIGUSR2))) << collector.Err();

  if (Factory()) {
    EXPECT_EQ(5u, root.Archives().size());
    EXPECT_FALSE(morvotest::Exists(root.Dir() + "/" + stresstest::kBase + "_tmp"));
  } else {
    EXPECT_EQ(25u, morvotest::SetFiles(root.Dir(), stresstest::kBase).size());
  }
  std::vector<long> numbers = Numbers(root.Text(Factory()));
  ASSERT_FALSE(numbers.empty());
  EXPECT_EQ(kLines - 1, numbers.back());
  // The oldest files were pruned, so the tail starts well after the start.
  EXPECT_GT(numbers.front(), kLines / 2);
  for (size_t i = 1; i < numbers.size(); ++i) {
    ASSERT_EQ(numbers[i - 1] + 1, numbers[i]) << "after line " << numbers[i - 1];
  }
}

// Each round feeds a few batches, each read in full before the next, then
// one more that the kill may cut anywhere. The stream writes what one read
// brought before it reads again, so only the last read's lines may be lost.
// The next run's stand-in holds only the lines not read yet, so nothing may
// appear twice.
TEST_P(CollectorStress, KillsAtRandomPointsLoseNothingReachedAndDoubleNothing) {
  CollectorRoot root({Factory(), 4, 1000});
  std::mt19937 random(Factory() ? 1123 : 2311);
  std::string unread;  // the stand-in's content
  long next = 0;
  std::vector<bool> mayBeLost;
  constexpr int kRounds = 6;
  for (int round = 0; round < kRounds; ++round) {
    stresstest::Collector collector(root);
    for (int batch = 2 + random() % 3; batch > 0; --batch) {
      long count = 200 + random() % 800;
      root.Append(Lines(next, next + count));
      unread += Lines(next, next + count);
      next += count;
      if (batch > 1) {
        ASSERT_TRUE(root.Consumed(collector)) << collector.Err();
      }
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
    // The line the kill may have cut is fed again whole.
    size_t keep = offset == 0 ? 0 : unread.rfind('\n', static_cast<size_t>(offset) - 1) + 1;
    for (long n : Numbers(unread.substr(lastRead, keep - lastRead))) {
      mayBeLost[static_cast<size_t>(n)] = true;
    }
    unread.erase(0, keep);
    kill(collector.pid(), SIGKILL);
    root.Replace(unread);
  }
  {
    stresstest::Collector collector(root);
    root.Append(Lines(next, next + 500));
    next += 500;
    ASSERT_TRUE(root.Consumed(collector)) << collector.Err();
    ASSERT_TRUE(EndedBySigusr(collector.SendAndWait(SIGUSR2))) << collector.Err();
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

// A group writing to the root's output.
std::string Group(const std::string& style, const std::string& sets) {
  return "<tavocatGroup>" + style + "<outputFilePath value=\"" + CollectorRoot::Output() + "\"/>" +
         sets + "</tavocatGroup>";
}

std::string PollGroup(const std::string& style, const std::string& sets) {
  return Group("<logStyle value=\"" + style + "\" interval=\"1\"/>", sets);
}

std::string Log(const CollectorRoot& root) {
  return morvotest::ReadFile(root.Dir() + "/" + stresstest::kBase);
}

// A FIFO with no writer at path under the root.
void PlantFifo(const CollectorRoot& root, const std::string& path) {
  root.root().MakeDirs(path.substr(0, path.rfind('/')));
  unlink(root.root().Under(path).c_str());
  ASSERT_EQ(0, mkfifo(root.root().Under(path).c_str(), 0600));
}

void Nothing(const CollectorRoot&) {}

const std::string kPollStyle = "<logStyle value=\"poll_node\" interval=\"5\"/>";

// SIGUSR2 ends the collector with status 12 whatever its group is waiting
// for, leaves no child of it running and keeps the last partial line; no
// group is said to have ended by itself.
TEST(CollectorStop, SigusrEndsTheCollectorInEveryWait) {
  const struct {
    const char* name;
    bool factory;
    std::string groups;
    void (*plant)(const CollectorRoot&);
    const char* ready;  // in the log once the group waits; null: let it settle
    void (*check)(const CollectorRoot&);
  } kCases[] = {
      // The group's thread is held in a source's open, where it cannot be
      // stopped: the teardown does not wait for it past its bound.
      {"held in a source's open", false,
       Group(kPollStyle, "<inputNodeSet><dataPath value=\"/proc/planted\"/></inputNodeSet>"),
       [](const CollectorRoot& root) { PlantFifo(root, "/proc/planted"); }, nullptr, Nothing},
      {"a charge node that cannot be seeked", true,
       Group("<logStyle value=\"cond_trigger\"/>",
             "<inputNodeSet><dataPath value=\"DateTime\"/></inputNodeSet>"),
       [](const CollectorRoot& root) {
         PlantFifo(root, "/sys/class/qd_power/bq_bci/poll_charge_start_event");
       },
       nullptr, Nothing},
      {"an input folder not yet made", false,
       Group("<logStyle value=\"monitor_dir\"/>",
             "<inputDirSet><inputDirPath value=\"/dev/input\"/>"
             "<pickNode value=\"gpio-keys\"/></inputDirSet>"),
       [](const CollectorRoot& root) { PlantFifo(root, "/dev/planted"); }, nullptr, Nothing},
      {"a watchdog that is a FIFO", true,
       Group(kPollStyle, "<inputNodeSet><dataPath value=\"DateTime\"/></inputNodeSet>"),
       [](const CollectorRoot& root) { PlantFifo(root, "/proc/reboot_watchdog"); }, nullptr,
       Nothing},
      {"a polled FIFO without a writer", true,
       PollGroup("poll_node",
                 "<inputNodeSet><dataPath value=\"/sys/ok\"/></inputNodeSet>"
                 "<inputNodeSet><dataPath value=\"/sys/fifo\"/>"
                 "<width value=\"10\"/></inputNodeSet>"),
       [](const CollectorRoot& root) {
         root.root().MakeDirs("/sys");
         morvotest::WriteFile(root.root().Under("/sys/ok"), "ok");
         mkfifo(root.root().Under("/sys/fifo").c_str(), 0600);
       },
       "ok", [](const CollectorRoot&) {}},
      {"a dumpsys that never ends", true,
       PollGroup("poll_cmd", "<inputCmdSet><command value=\"battery\"/></inputCmdSet>"),
       [](const CollectorRoot& root) {
         std::string marker = root.root().Under("/marker");
         morvotest::WriteFile(marker, "");
         std::string script = root.root().Under("/bin/dumpsys");
         morvotest::WriteFile(script, "#!/bin/sh\necho started\ntail -f " + marker + " &\nwait\n");
         chmod(script.c_str(), 0755);
       },
       "started\n",
       [](const CollectorRoot& root) {
         EXPECT_TRUE(
             grouptest::WaitFor([&] { return grouptest::ProcessesWith(root.root().path()) == 0; }));
       }},
      {"a stream line without its end yet", true, stresstest::KmsgGroup(),
       [](const CollectorRoot& root) { root.Append("whole\nno end yet"); }, "whole\n",
       [](const CollectorRoot& root) {
         EXPECT_NE(std::string::npos, Log(root).find(" no end yet\n")) << Log(root);
       }},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    CollectorRoot root({c.factory, 4096, 10}, c.groups);
    c.plant(root);
    stresstest::Collector collector(root);
    if (c.ready != nullptr) {
      ASSERT_TRUE(grouptest::WaitFor([&] { return Log(root).find(c.ready) != std::string::npos; }))
          << collector.Err();
    } else {
      ASSERT_TRUE(grouptest::WaitFor([&] { return collector.Comm() == stresstest::kName; }))
          << collector.Err();
      // Lets the group reach its wait; the end must come whatever it does.
      usleep(300 * 1000);
    }
    EXPECT_TRUE(EndedBySigusr(collector.SendAndWait(SIGUSR2))) << collector.Err();
    EXPECT_EQ(std::string::npos, collector.Err().find(" ended: ")) << collector.Err();
    c.check(root);
  }
}

INSTANTIATE_TEST_SUITE_P(WriteModes, CollectorStress, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "Factory" : "Mmap";
                         });

}  // namespace
