#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "morvocat/morvocat.h"
#include "platform/logger.h"
#include "platform/tavo.h"
#include "platform/tavo_flusher.h"
#include "support/log_set.h"
#include "support/temp_root.h"

namespace morvotest {
namespace {

struct ScopedBound {
  explicit ScopedBound(const char* value) {
    if (value != nullptr) setenv(platform::kFlushBoundEnv, value, 1);
  }
  ~ScopedBound() { unsetenv(platform::kFlushBoundEnv); }
};

struct Decoded {
  bool whole = true;       // every member complete and well formed
  bool truncated = false;  // the last member stops short (not counted in text)
  std::string text;
};

// Member by member, as gzip -t checks them; a member that stops short is reported.
Decoded DecodeMembers(const std::string& bytes) {
  Decoded d;
  size_t pos = 0;
  while (pos < bytes.size() && d.whole) {
    z_stream z{};
    if (inflateInit2(&z, 16 + MAX_WBITS) != Z_OK) return Decoded{false, false, ""};
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data() + pos));
    z.avail_in = static_cast<uInt>(bytes.size() - pos);
    std::string member;
    int rc = Z_OK;
    while (rc == Z_OK) {
      char out[16384];
      z.next_out = reinterpret_cast<Bytef*>(out);
      z.avail_out = sizeof(out);
      rc = inflate(&z, Z_NO_FLUSH);
      member.append(out, sizeof(out) - z.avail_out);
      if (rc == Z_BUF_ERROR && z.avail_in == 0) rc = Z_NEED_DICT;  // input ran out
    }
    pos = bytes.size() - z.avail_in;
    inflateEnd(&z);
    if (rc == Z_STREAM_END) {
      d.text += member;
    } else if (rc == Z_NEED_DICT && pos == bytes.size()) {
      d.truncated = true;
    } else {
      d.whole = false;
    }
  }
  return d;
}

std::vector<Decoded> CopyOf(const std::string& dir, const std::string& base) {
  std::vector<Decoded> copy;
  for (const std::string& f : SetFiles(dir, base)) copy.push_back(DecodeMembers(ReadFile(f)));
  return copy;
}

std::string TextOf(const std::vector<Decoded>& copy) {
  std::string text;
  for (const Decoded& d : copy) text += d.text;
  return text;
}

std::string Record(long i) {
  return "11-23 09:00:00.000  100  101 I flush: seq " + std::to_string(i) + "\n";
}

std::vector<std::string> FlusherTasks() {
  std::vector<std::string> tids;
  DIR* d = opendir("/proc/self/task");
  if (d == nullptr) return tids;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    std::string comm = ReadFile(std::string("/proc/self/task/") + e->d_name + "/comm");
    if (comm == "tavo-flush\n") tids.push_back(e->d_name);
  }
  closedir(d);
  return tids;
}

unsigned long long BlockedSignals(const std::string& tid) {
  std::string status = ReadFile("/proc/self/task/" + tid + "/status");
  size_t pos = status.find("SigBlk:\t");
  return pos == std::string::npos ? 0 : strtoull(status.c_str() + pos + 8, nullptr, 16);
}

bool Put(Tavo* t, const std::string& text) { return t->Write(text.data(), text.size()); }

class TavoFlushTest : public ::testing::Test {
 protected:
  std::string File(const std::string& base, int index) const {
    char name[64];
    snprintf(name, sizeof(name), ".I%03d.20261123-0900%02d.gz", index, index % 60);
    return dir_ + "/" + base + name;
  }
  static std::unique_ptr<Tavo> NewTavo(const std::string& path = "") {
    std::unique_ptr<Tavo> t(new (std::nothrow) Tavo());
    t->InitTavo();
    EXPECT_TRUE(path.empty() || t->SetOutputPath(path.c_str())) << path;
    return t;
  }
  void SetUp() override {
    unsetenv(platform::kFlushBoundEnv);
    root_.MakeDirs("/data/log");
    dir_ = root_.Under("/data/log");
  }
  TempRoot root_;
  std::string dir_;
};

enum class Writer { kDirect, kReader };

TEST_F(TavoFlushTest, AQuietWritersRecordsReachItsFileWithinTheBound) {
  struct Case {
    const char* name;
    const char* bound;  // null: the default, 2 s
    Writer writer;
    bool flushed;
  } const kCases[] = {
      {"direct03", "0.3", Writer::kDirect, true}, {"directDefault", nullptr, Writer::kDirect, true},
      {"directOff", "0", Writer::kDirect, false}, {"reader03", "0.3", Writer::kReader, true},
      {"readerOff", "0", Writer::kReader, false},
  };
  constexpr long kRecords = 3;
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    ScopedBound bound(c.bound);
    std::unique_ptr<Tavo> tavo;
    android_logcat_context ctx = nullptr;
    if (c.writer == Writer::kDirect) {
      tavo = NewTavo(File(c.name, 0));
      for (long i = 0; i < kRecords; i++) ASSERT_TRUE(Put(tavo.get(), Record(i)));
    } else {
      ctx = CreateAndroidLogcat();
      std::string path = dir_ + "/" + c.name;
      char arg0[] = "morvocat", arg1[] = "-b", arg2[] = "morvo_main", arg3[] = "-f";
      char* argv[] = {arg0, arg1, arg2, arg3, &path[0], nullptr};
      ASSERT_GE(AndroidLogcatRunCommandThread(ctx, 5, argv, nullptr), 0);
      for (long i = 0; i < kRecords; i++) {
        qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "quiet", ("seq " + std::to_string(i)).c_str());
      }
    }
    auto holdsAll = [&] { return Holds(Sequence(TextOf(CopyOf(dir_, c.name))), 0, kRecords); };
    if (c.flushed) {
      EXPECT_TRUE(Within(15, holdsAll));
    } else {
      sleep(3);
      EXPECT_EQ("", TextOf(CopyOf(dir_, c.name)));
    }
    tavo.reset();
    EXPECT_TRUE(ctx == nullptr || AndroidLogcatDestroy(&ctx) == 0);
    EXPECT_TRUE(holdsAll()) << "the end flushes in any case";
  }
}

// Each copy decodes whole but for a cut last member, and holds what is older than the bound.
TEST_F(TavoFlushTest, ACopyTakenAtAnyInstantIsWholeAndHoldsWhatIsOlderThanTheBound) {
  constexpr int64_t kBoundNs = 200 * 1000000LL;
  constexpr int64_t kSlackNs = 1000 * 1000000LL;
  constexpr int64_t kStreamNs = 3000 * 1000000LL;
  constexpr long kPerFile = 3000;
  ScopedBound bound("0.2");
  std::unique_ptr<Tavo> tavo = NewTavo(File("s", 0));
  std::atomic<long> written{0};
  std::atomic<bool> done{false};
  std::thread writer([&] {
    int64_t end = platform::MonotonicNs() + kStreamNs;
    for (long i = 0; platform::MonotonicNs() < end; i++) {
      if (i > 0 && i % kPerFile == 0)
        tavo->SetOutputPath(File("s", static_cast<int>(i / kPerFile)).c_str());
      if (!Put(tavo.get(), Record(i))) break;
      written.store(i + 1);
      if (i % 2 == 1) usleep(1000);
    }
    done.store(true);
  });
  std::vector<std::pair<int64_t, long>> history;  // (when, records written by then)
  int copies = 0, checked = 0;
  while (!done.load()) {
    int64_t now = platform::MonotonicNs();
    history.emplace_back(now, written.load());
    long due = 0;
    for (const auto& h : history) {
      if (h.first <= now - kBoundNs - kSlackNs) due = h.second;
    }
    std::vector<Decoded> copy = CopyOf(dir_, "s");
    copies++;
    std::vector<long> numbers;
    for (const Decoded& d : copy) {
      ASSERT_TRUE(d.whole) << "copy " << copies;
      std::vector<long> part = Sequence(d.text);
      for (size_t i = 1; i < part.size(); i++) ASSERT_EQ(part[i - 1] + 1, part[i]);
      numbers.insert(numbers.end(), part.begin(), part.end());
    }
    ASSERT_EQ(std::string::npos, TextOf(copy).find("\n\n"));
    if (due > 0) checked++;
    ASSERT_TRUE(Holds(numbers, 0, due)) << "copy " << copies << " lacks some of " << due;
    usleep(5 * 1000);
  }
  writer.join();
  tavo.reset();
  EXPECT_GT(checked, 10) << "too few copies late enough to check the bound";
  std::vector<Decoded> last = CopyOf(dir_, "s");
  for (const Decoded& d : last) EXPECT_FALSE(d.truncated);
  EXPECT_TRUE(Holds(Sequence(TextOf(last)), 0, written.load()));
}

// Started with the first writer that has a file, joined when the last goes.
TEST_F(TavoFlushTest, OneSignalBlindThreadLivesExactlyAsLongAsAWriter) {
  ScopedBound bound("1");
  ASSERT_TRUE(FlusherTasks().empty());
  std::unique_ptr<Tavo> first = NewTavo();
  EXPECT_TRUE(FlusherTasks().empty()) << "no file yet, nothing to flush";
  ASSERT_TRUE(first->SetOutputPath(File("a", 0).c_str()));
  std::unique_ptr<Tavo> second = NewTavo(File("b", 0));
  std::vector<std::string> tasks = FlusherTasks();
  ASSERT_EQ(1u, tasks.size());
  unsigned long long blocked = BlockedSignals(tasks[0]);
  for (int sig : {SIGUSR1, SIGUSR2, SIGTERM, SIGINT, SIGHUP, SIGPIPE, SIGCHLD, SIGALRM}) {
    EXPECT_TRUE(blocked & (1ULL << (sig - 1))) << strsignal(sig);
  }
  first.reset();
  EXPECT_EQ(1u, FlusherTasks().size());
  second.reset();
  EXPECT_TRUE(FlusherTasks().empty());
  setenv(platform::kFlushBoundEnv, "0", 1);
  std::unique_ptr<Tavo> unbound = NewTavo(File("c", 0));
  EXPECT_TRUE(FlusherTasks().empty()) << "the bound is off";
}

TEST_F(TavoFlushTest, WritersComeAndGoOnSeveralThreadsWhileFlushesAreInFlight) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 25;
  ScopedBound bound("0.004");
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < kRounds; round++) {
        std::string path = File("t" + std::to_string(t), round);
        std::string expected;
        {
          std::unique_ptr<Tavo> tavo = NewTavo(path);
          for (int burst = 0; burst < 3; burst++) {
            for (int i = 0; i < 20; i++) {
              std::string r = Record(round * 100 + burst * 20 + i);
              failures += Put(tavo.get(), r) ? 0 : 1;
              expected += r;
            }
            usleep(static_cast<useconds_t>((t * 7 + round * 3 + burst) % 5) * 1000);
          }
          if (round % 3 == 0 && !tavo->Flush()) failures++;
        }
        Decoded d = DecodeMembers(ReadFile(path));
        if (!d.whole || d.truncated || d.text != expected) failures++;
      }
    });
  }
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(0, failures.load());
  EXPECT_TRUE(FlusherTasks().empty());
}

// A threaded parent's child may not start a thread: its writer works without one.
TEST_F(TavoFlushTest, AChildForkedWhileTheFlusherRunsWritesWithoutIt) {
  ScopedBound bound("0.001");
  std::unique_ptr<Tavo> parent = NewTavo(File("parent", 0));
  std::string path = File("child", 0);
  for (int round = 0; round < 20; round++) {
    // Keep the parent's writer due so forks land during its flushes.
    ASSERT_TRUE(Put(parent.get(), Record(round)));
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      Tavo* t = new (std::nothrow) Tavo();
      t->InitTavo();
      bool ok = t->SetOutputPath(path.c_str()) && Put(t, Record(round)) && FlusherTasks().empty();
      delete t;
      _exit(ok ? 0 : 1);
    }
    int status = -1;
    bool ended = Within(10, [&] { return waitpid(pid, &status, WNOHANG) == pid; });
    if (!ended) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
    }
    ASSERT_TRUE(ended) << "the child hung in round " << round;
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }
  std::vector<long> numbers = Sequence(DecodeMembers(ReadFile(path)).text);
  EXPECT_EQ(20u, numbers.size());
}

TEST(FlushBoundTest, TextGivesMillisecondsAndAnythingOddTheDefault) {
  const char* texts[] = {"2", "0", "0.5", "1.25", "10", "0.001", "3.", "86400"};
  const int64_t ms[] = {2000, 0, 500, 1250, 10000, 1, 3000, 86400000};
  for (size_t i = 0; i < 8; i++)
    EXPECT_EQ(ms[i], platform::FlushBoundFromText(texts[i])) << texts[i];
  for (const char* odd :
       {"", "-1", "abc", "1e3", " 1", "1s", "86401", "99999999999999999999", ".5"}) {
    EXPECT_EQ(2000, platform::FlushBoundFromText(odd)) << odd;
  }
  EXPECT_EQ(2000, platform::FlushBoundFromText(nullptr));
}

}  // namespace
}  // namespace morvotest
