#include <errno.h>
#include <stdio.h>

#include <fstream>
#include <map>
#include <thread>
#include <utility>

#include "platform/log_ring.h"
#include "tests/platform/log_store_support.h"

namespace morvotest {
namespace {

using LogStoreProcessTest = StoreTest;

// The losers of the race to make the store take the winner's ring rather than replace it.
TEST_F(LogStoreProcessTest, ProcessesMakingTheStoreAtOnceShareOneRing) {
  constexpr int kWriters = 6;
  for (int round = 0; round < 10; ++round) {
    TempRoot root;
    int start[2];
    ASSERT_EQ(0, pipe(start));
    std::vector<pid_t> writers;
    for (int w = 0; w < kWriters; ++w) {
      writers.push_back(RunChild([&start, w] {
        close(start[1]);
        char c;
        if (read(start[0], &c, 1) != 0) return 2;
        return Log(LOG_ID_MAIN, std::to_string(w)) > 0 ? 0 : 1;
      }));
    }
    close(start[0]);
    close(start[1]);  // every writer starts now, this process too
    EXPECT_GT(Log(LOG_ID_MAIN, "parent"), 0) << round;
    for (pid_t pid : writers) EXPECT_EQ(0, WaitChild(pid)) << round;
    EXPECT_EQ(static_cast<size_t>(kWriters + 1), MessagesOf({LOG_ID_MAIN}).size()) << round;
  }
}

// The length and letter depend on n, so a record pieced together from two is caught.
std::string RaceText(int n) { return std::to_string(n) + ":" + std::string(n % 300, 'a' + n % 26); }

TEST_F(LogStoreProcessTest, AReaderRacingTheRingNeverSeesATornRecord) {
  constexpr int kRecords = 60000;
  ListPtr list = OpenList(0, 0, 0, {LOG_ID_RADIO});
  ASSERT_TRUE(list);
  ASSERT_EQ(0, qd_logger_set_log_size(qd_logger_open(list.get(), LOG_ID_RADIO), 8192));
  pid_t writer = RunChild([] {
    for (int n = 0; n < kRecords; ++n) {
      if (Log(LOG_ID_RADIO, RaceText(n), "race") <= 0) return 1;
    }
    return 0;
  });
  int last = -1;
  qd_log_msg msg;
  while (last < kRecords - 1 && qd_logger_list_read(list.get(), &msg) > 0) {
    Record r = Parse(msg);
    int n = atoi(r.message.c_str());
    ASSERT_EQ(RaceText(n), r.message);
    ASSERT_EQ("race", r.tag);
    ASSERT_GT(n, last);
    last = n;
  }
  EXPECT_EQ(kRecords - 1, last);
  EXPECT_EQ(0, WaitChild(writer));
}

TEST_F(LogStoreProcessTest, WrapModeWaitsUntilTheRingIsAboutToWrapThenDrains) {
  constexpr long kRing = 16384;
  ASSERT_TRUE(SetRingSize(LOG_ID_KERNEL, kRing));
  Gate gate;
  const std::string text(95, 'k');  // 128 bytes a record with its tag and header
  pid_t reader = RunChild([&gate] {
    ListPtr list = OpenList(QD_LOGGER_MODE_WRAP | QD_LOGGER_MODE_NONBLOCK, 0, 0, {LOG_ID_KERNEL});
    if (!list) return 2;
    gate.Open();
    int end = 0;
    size_t count = ReadAll(list.get(), &end).size();
    return end == -EAGAIN && count >= (kRing - QD_LOGGER_ENTRY_MAX_LEN) / 128 ? 0 : 3;
  });
  ASSERT_TRUE(gate.AwaitOpen());
  for (int i = 0; i < 40; ++i) ASSERT_GT(Log(LOG_ID_KERNEL, text, "kk"), 0);
  usleep(100 * 1000);
  // A third full: the reader still waits.
  int status = 0;
  EXPECT_EQ(0, waitpid(reader, &status, WNOHANG));
  // Past where a largest record would not fit, not so far that anything is dropped.
  for (int i = 0; i < 50; ++i) ASSERT_GT(Log(LOG_ID_KERNEL, text, "kk"), 0);
  EXPECT_EQ(0, WaitChild(reader));
}

TEST_F(LogStoreProcessTest, SetSizeAndClearInOneProcessAreSeenByTheOthers) {
  ASSERT_TRUE(OpenMain());
  qd_logger* main = qd_logger_open(list.get(), LOG_ID_MAIN);
  for (int i = 0; i < 5; ++i) ASSERT_EQ(5, Log(LOG_ID_MAIN, std::to_string(i)));
  Gate gate;
  pid_t blocked = RunChild([&gate] {
    ListPtr mine = OpenList(0, 0, 0, {LOG_ID_MAIN});
    if (!mine) return 2;
    std::vector<std::string> seen;
    gate.Open();
    qd_log_msg msg;
    while (seen.size() < 6 && qd_logger_list_read(mine.get(), &msg) > 0) {
      seen.push_back(Parse(msg).message);
    }
    return seen.size() == 6 && seen.back() == "after resize" ? 0 : 3;
  });
  ASSERT_TRUE(gate.AwaitOpen());
  ASSERT_EQ(0, WaitChild(RunChild([] { return SetRingSize(LOG_ID_MAIN, 65536) ? 0 : 1; })));
  EXPECT_EQ(65536, qd_logger_get_log_size(main));
  EXPECT_EQ(5 * (28 + 5), qd_logger_get_log_readable_size(main));
  ASSERT_GT(Log(LOG_ID_MAIN, "after resize"), 0);
  EXPECT_EQ(6u, ReadAll(list.get()).size());
  EXPECT_EQ(0, WaitChild(blocked));
  ASSERT_EQ(0, WaitChild(RunChild([] {
              ListPtr other = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
              return other && qd_logger_clear(qd_logger_open(other.get(), LOG_ID_MAIN)) == 0 ? 0
                                                                                             : 1;
            })));
  EXPECT_EQ(0, qd_logger_get_log_readable_size(main));
  EXPECT_TRUE(MessagesOf({LOG_ID_MAIN}).empty());
}

TEST_F(LogStoreProcessTest, AWriterKilledWhileWritingLeavesNoLockAndNoTornRecord) {
  for (int round = 0; round < 10; ++round) {
    pid_t writer = fork();
    if (writer == 0) {
      for (int n = 0;; ++n) Log(LOG_ID_MAIN, std::to_string(n), "kill");
    }
    usleep(2000 + round * 700);
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
    std::string alive = "alive " + std::to_string(round);
    ASSERT_GT(Log(LOG_ID_MAIN, alive), 0) << round;
    EXPECT_EQ(Strings{alive}, MessagesOf({LOG_ID_MAIN}, 1));
  }
  ASSERT_TRUE(OpenMain());
  int end = 0;
  std::vector<Record> records = ReadAll(list.get(), &end);
  EXPECT_EQ(-EAGAIN, end);
  ASSERT_FALSE(records.empty());
  for (const Record& r : records) {
    if (r.tag == "t") continue;
    EXPECT_EQ("kill", r.tag);
    EXPECT_EQ(std::to_string(std::stoi(r.message)), r.message);
  }
}

// An address of readable memory of this process (and its forked children) at any 8-byte step.
bool HoldsAnAddress(const std::string& bytes) {
  std::vector<std::pair<uint64_t, uint64_t>> ranges;
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    unsigned long long from = 0, to = 0;
    char readable = '-';
    if (sscanf(line.c_str(), "%llx-%llx %c", &from, &to, &readable) == 3 && readable == 'r') {
      ranges.emplace_back(from, to);
    }
  }
  for (size_t at = 0; at + 8 <= bytes.size(); at += 8) {
    uint64_t word;
    memcpy(&word, bytes.data() + at, sizeof(word));
    for (const auto& range : ranges) {
      if (word >= range.first && word < range.second) return true;
    }
  }
  return false;
}

TEST_F(LogStoreProcessTest, AWriterStoppedHoldingTheLockCostsOthersOneWaitAndNoRecord) {
  ASSERT_GT(Log(LOG_ID_MAIN, "first"), 0);
  pid_t stopped = RunChild([] {
    platform::SetLockHeldHook([] {
      platform::SetLockHeldHook(nullptr);
      raise(SIGSTOP);
    });
    return Log(LOG_ID_MAIN, "stopped") > 0 ? 0 : 1;
  });
  int status = 0;
  ASSERT_EQ(stopped, waitpid(stopped, &status, WUNTRACED));
  ASSERT_TRUE(WIFSTOPPED(status));
  std::string header = ReadFile(RingPath(root, "morvo_main")).substr(0, 4096);
  EXPECT_FALSE(HoldsAnAddress(header)) << "the ring header leaks an address of its writer";
  uint64_t waits = platform::LockWaits();
  for (int i = 0; i < 5; ++i) EXPECT_GT(Log(LOG_ID_MAIN, std::to_string(i)), 0) << i;
  EXPECT_EQ(1u, platform::LockWaits() - waits);
  ASSERT_TRUE(OpenMain());
  EXPECT_EQ(Strings{"first"}, Messages(ReadAll(list.get())));
  kill(stopped, SIGCONT);
  EXPECT_EQ(0, WaitChild(stopped));
  EXPECT_EQ((Strings{"stopped", "0", "1", "2", "3", "4"}), Messages(ReadAll(list.get())));
}

platform::ResizeStep gKillAt = platform::kResizeMarked;

void KillAtStep(platform::ResizeStep step) {
  if (step == gKillAt) raise(SIGKILL);
}

TEST_F(LogStoreProcessTest, AResizeKilledMidwayIsUndoneOrCompletedAndLosesNoRecord) {
  struct {
    platform::ResizeStep step;
    long size;  // of the buffer afterwards
  } cases[] = {{platform::kResizeMarked, QD_LOGGER_DEFAULT_RING_SIZE},
               {platform::kResizePublished, 65536}};
  for (const auto& c : cases) {
    TempRoot root;
    for (int i = 0; i < 3; ++i) ASSERT_GT(Log(LOG_ID_MAIN, "before"), 0);
    ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
    ASSERT_TRUE(list);
    ASSERT_EQ(3u, ReadAll(list.get()).size());
    gKillAt = c.step;
    pid_t resizer = RunChild([] {
      platform::SetResizeHook(KillAtStep);
      return SetRingSize(LOG_ID_MAIN, 65536) ? 0 : 1;
    });
    ASSERT_EQ(-1, WaitChild(resizer)) << c.step;
    ASSERT_TRUE(WriteInChild(LOG_ID_MAIN, "new writer")) << c.step;
    ASSERT_GT(Log(LOG_ID_MAIN, "old writer"), 0) << c.step;
    EXPECT_EQ((Strings{"new writer", "old writer"}), Messages(ReadAll(list.get()))) << c.step;
    EXPECT_EQ(c.size, qd_logger_get_log_size(qd_logger_open(list.get(), LOG_ID_MAIN))) << c.step;
    EXPECT_EQ((Strings{"before", "before", "before", "new writer", "old writer"}),
              MessagesOf({LOG_ID_MAIN}))
        << c.step;
    EXPECT_TRUE(SetRingSize(LOG_ID_MAIN, 32768)) << c.step;
  }
}

// A file planted in the store folder under a temporary name.
// "%d", when there, takes the pid; named after a live process rather than a dead one
// clang-format off
struct Leftover { const char* what; const char* name; bool live; bool (*make)(const std::string& path, const std::string& victim); bool swept; };
// clang-format on

bool PlainFile(const std::string& path, const std::string&) {
  WriteFile(path, std::string(8192, 't'));
  return chmod(path.c_str(), 0640) == 0;
}

using Str = const std::string&;

// clang-format off
const Leftover kLeftovers[] = {
    {"a ring's, of a dead resizer", "morvo_main.tmp.%d.0", false, PlainFile, true},
    {"the signal page's, of a dead writer", "morvo_signal.tmp.%d.3", false, PlainFile, true},
    {"of a live process", "morvo_main.tmp.%d.1", true, PlainFile, false},
    {"owned by another user", "morvo_radio.tmp.%d.2", false,
     [](Str p, Str v) { return PlainFile(p, v) && chown(p.c_str(), kNobody, 0) == 0; }, false},
    {"a symbolic link", "morvo_system.tmp.%d.4", false,
     [](Str p, Str v) { return symlink(v.c_str(), p.c_str()) == 0; }, false},
    {"a hard link", "morvo_crash.tmp.%d.5", false,
     [](Str p, Str v) { return link(v.c_str(), p.c_str()) == 0; }, false},
    {"a FIFO", "morvo_stats.tmp.%d.9", false, [](Str p, Str) { return mkfifo(p.c_str(), 0640) == 0; }, false},
    {"of a pid beyond any process", "morvo_kernel.tmp.4294967296.10", false, PlainFile, true},
    {"a folder", "morvo_events.tmp.%d.6", false, [](Str p, Str) { return mkdir(p.c_str(), 0750) == 0; }, false},
    {"not a store file's", "notes.tmp.%d.7", false, PlainFile, false},
    {"not a temporary name", "morvo_main.tmp.%dx.8", false, PlainFile, false},
};
// clang-format on

TEST_F(LogStoreProcessTest, OpeningTheStoreSweepsTheTemporariesOfDeadProcessesOnly) {
  ASSERT_TRUE(WriteInChild(LOG_ID_MAIN, "m"));
  pid_t dead = RunChild([] { return 0; });
  ASSERT_EQ(0, WaitChild(dead));
  std::string victim = root.Under("/victim");
  WriteFile(victim, "victim");
  std::vector<std::string> paths;
  for (const Leftover& leftover : kLeftovers) {
    char name[64];
    snprintf(name, sizeof(name), leftover.name, leftover.live ? getpid() : dead);
    paths.push_back(RingPath(root, name));
    ASSERT_TRUE(leftover.make(paths.back(), victim)) << leftover.what;
  }
  ASSERT_TRUE(OpenList(kDrain, 0, 0, {LOG_ID_MAIN}));
  for (size_t i = 0; i < paths.size(); ++i) {
    struct stat st;
    EXPECT_EQ(!kLeftovers[i].swept, lstat(paths[i].c_str(), &st) == 0) << kLeftovers[i].what;
  }
  EXPECT_EQ("victim", ReadFile(victim));
}

TEST_F(LogStoreProcessTest, ThreadsWriteTogetherAndForkingWhileTheyWriteIsSafe) {
  constexpr int kThreads = 3, kPerThread = 4000;
  ASSERT_TRUE(SetRingSize(LOG_ID_EVENTS, 4 << 20));
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int n = 0; n < kPerThread; ++n) {
        ASSERT_GT(Log(LOG_ID_EVENTS, std::to_string(t) + " " + std::to_string(n), "th"), 0);
      }
    });
  }
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(0, WaitChild(RunChild([] { return Log(LOG_ID_EVENTS, "x", "fk") > 0 ? 0 : 1; })));
  }
  for (std::thread& thread : threads) thread.join();
  ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_EVENTS});
  ASSERT_TRUE(list);
  std::map<int, int> next;
  std::map<int, uint32_t> tids;
  int forked = 0;
  for (const Record& r : ReadAll(list.get())) {
    if (r.tag == "fk") {
      forked++;
      continue;
    }
    int t = -1, n = -1;
    ASSERT_EQ(2, sscanf(r.message.c_str(), "%d %d", &t, &n));
    EXPECT_EQ(next[t]++, n);
    tids.emplace(t, r.tid);
    EXPECT_EQ(tids[t], r.tid);
    EXPECT_EQ(getpid(), r.pid);
  }
  EXPECT_EQ(20, forked);
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(kPerThread, next[t]);
  EXPECT_EQ(static_cast<size_t>(kThreads), tids.size());
}

std::string Tool() {
  const char* dir = getenv("MORVO_BIN_DIR");
  return dir != nullptr ? std::string(dir) + "/morvo-log" : "";
}

int Shell(const std::string& command) {
  int status = system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(MorvoLogToolTest, WritesArgumentsOrOneRecordPerLineAndRefusesBadOptions) {
  if (Tool().empty()) GTEST_SKIP() << "MORVO_BIN_DIR is not set";
  TempRoot root;
  ASSERT_EQ(0, Shell(Tool() + " -b morvo_system -p E -t mytag a  message 'in words'"));
  ASSERT_EQ(0, Shell("printf 'one\\ntwo\\n\\nlast' | " + Tool() + " -b morvo_system"));
  ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_SYSTEM});
  ASSERT_TRUE(list);
  std::vector<Record> records = ReadAll(list.get());
  ASSERT_EQ(5u, records.size());
  EXPECT_EQ("mytag", records[0].tag);
  EXPECT_EQ(QD_LOG_ERROR, records[0].priority);
  EXPECT_EQ("a message in words", records[0].message);
  const char* lines[] = {"one", "two", "", "last"};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ("morvo-log", records[1 + i].tag);
    EXPECT_EQ(QD_LOG_INFO, records[1 + i].priority);
    EXPECT_EQ(lines[i], records[1 + i].message);
  }
  for (const char* bad : {"-b nosuch x", "-p X x", "-p II x", "-q x", "-t"}) {
    EXPECT_EQ(1, Shell(Tool() + " " + bad + " 2>/dev/null")) << bad;
  }
  EXPECT_EQ(0, Shell(Tool() + " -p V x"));
  std::string usage = root.Under("/usage");
  Shell(Tool() + " -z 2>" + usage);
  EXPECT_NE(std::string::npos, ReadFile(usage).find("usage: morvo-log"));
}

}  // namespace
}  // namespace morvotest
