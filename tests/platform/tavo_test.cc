#include "platform/tavo.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <string>

#include "platform/tavo_cache.h"
#include "platform/tavo_hook.h"
#include "support/file_tree.h"
#include "support/gzip_text.h"
#include "support/small_fs.h"
#include "support/temp_root.h"
#include "tests/platform/log_store_support.h"

namespace morvotest {
namespace {

std::string ReadBack(const std::string& path) {
  std::string viaZlib = Gunzip(path);
  EXPECT_EQ(viaZlib, Zcat(path)) << path;
  return viaZlib;
}

std::string Record(int i) {
  char buf[64];
  snprintf(buf, sizeof(buf), "11-23 09:00:00.000  100  101 I rec: %08d\n", i);
  return buf;
}

std::string Records(int from, int to) {
  std::string all;
  for (int i = from; i < to; i++) all += Record(i);
  return all;
}

std::set<std::string> CacheFiles(const std::string& dir) {
  std::set<std::string> found;
  for (const std::string& name : Entries(dir)) {
    if (name.find(".tavocache") != std::string::npos) found.insert(name);
  }
  return found;
}

using Path = const std::string&;

constexpr char kSecret[] = "root's own\n";

// Root's own, so that a writer cannot tell it from a file it may write.
std::string MakeVictim(const std::string& path) {
  EXPECT_FALSE(Exists(path));
  WriteFile(path, kSecret);
  EXPECT_EQ(0, chmod(path.c_str(), 0600));
  return path;
}

void ExpectIntact(const std::string& victim) {
  EXPECT_EQ(0600u, NodeAt(victim).mode & 07777);
  EXPECT_EQ(0u, NodeAt(victim).uid);
  EXPECT_EQ(kSecret, ReadFile(victim));
}

bool Put(Tavo* t, const std::string& text) { return t->Write(text.data(), text.size()); }

class TavoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = root_.path() + "/log";
    mkdir(dir_.c_str(), 0775);
  }
  void NewFolder() {
    dir_ = root_.path() + "/log" + std::to_string(++folders_);
    mkdir(dir_.c_str(), 0775);
  }
  std::string File(int index) {
    char name[64];
    snprintf(name, sizeof(name), "/x.I%03d.20261123-0900%02d.gz", index, index % 60);
    return dir_ + name;
  }
  static std::unique_ptr<Tavo> NewTavo(const std::string& path = "") {
    std::unique_ptr<Tavo> t(new (std::nothrow) Tavo());
    t->InitTavo();
    EXPECT_TRUE(path.empty() || t->SetOutputPath(path.c_str())) << path;
    return t;
  }
  TempRoot root_;
  std::string dir_;
  int folders_ = 0;
};

TEST_F(TavoTest, SetOutputPathFlushesIntoTheOldFileAndCreatesTheNewOne) {
  auto t = NewTavo(File(0));
  ASSERT_TRUE(Put(t.get(), Records(0, 50)));
  ASSERT_TRUE(t->SetOutputPath(File(1).c_str()));
  EXPECT_EQ(Records(0, 50), ReadBack(File(0)));
  struct stat st;
  ASSERT_EQ(0, stat(File(1).c_str(), &st));
  EXPECT_EQ(0, st.st_size);  // an unwritten file stays empty for its owner
  EXPECT_EQ(0664u, st.st_mode & 07777);
  ASSERT_TRUE(Put(t.get(), Records(50, 60)));
  t.reset();  // destruction flushes
  EXPECT_EQ(Records(50, 60), ReadBack(File(1)));
  EXPECT_TRUE(CacheFiles(dir_).empty()) << "a clean end leaves no cache behind";
}

// The records written after the plant must go to the next file instead.
// clang-format off
struct OutputPlant { const char* what; void (*plant)(Path out, Path victim); bool beforePath; };
const OutputPlant kOutputPlants[] = {
    {"a link, before the path", [](Path out, Path v) { symlink(v.c_str(), out.c_str()); }, true},
    {"a link, between flushes", [](Path out, Path v) { symlink(v.c_str(), out.c_str()); }, false},
    {"a hard link, between flushes", [](Path out, Path v) { link(v.c_str(), out.c_str()); }, false},
    {"a FIFO, between flushes", [](Path out, Path) { mkfifo(out.c_str(), 0666); }, false},
};
// clang-format on

TEST_F(TavoTest, WhatIsPutAtTheOutputsNameIsNeverWritten) {
  for (const OutputPlant& c : kOutputPlants) {
    SCOPED_TRACE(c.what);
    NewFolder();
    std::string victim = MakeVictim(dir_ + "-victim");
    auto t = NewTavo();
    if (c.beforePath) {
      c.plant(File(0), victim);
      EXPECT_FALSE(t->SetOutputPath(File(0).c_str()));
    } else {
      ASSERT_TRUE(t->SetOutputPath(File(0).c_str()));
      ASSERT_TRUE(Put(t.get(), Records(0, 10)) && t->Flush());
      ASSERT_EQ(0, unlink(File(0).c_str()));
      c.plant(File(0), victim);
    }
    ASSERT_TRUE(Put(t.get(), Records(10, 20)));
    EXPECT_FALSE(t->Flush());
    ASSERT_TRUE(t->SetOutputPath(File(1).c_str()));
    t.reset();
    ExpectIntact(victim);
    EXPECT_EQ(Records(10, 20), ReadBack(File(1)));
  }
}

TEST_F(TavoTest, AFolderSwappedForALinkKeepsTheWriterInItsOwnFolder) {
  std::string elsewhere = root_.path() + "/elsewhere";
  ASSERT_EQ(0, mkdir(elsewhere.c_str(), 0775));
  std::string name = File(0).substr(dir_.size());
  std::string victim = MakeVictim(elsewhere + name);
  auto t = NewTavo(File(0));
  ASSERT_TRUE(Put(t.get(), Records(0, 10)) && t->Flush());
  ASSERT_EQ(0, rename(dir_.c_str(), (dir_ + ".moved").c_str()));
  ASSERT_EQ(0, symlink(elsewhere.c_str(), dir_.c_str()));
  ASSERT_TRUE(Put(t.get(), Records(10, 20)));
  EXPECT_TRUE(t->Flush()) << "the writer holds its folder, not its name";
  t.reset();
  ExpectIntact(victim);
  EXPECT_EQ(Records(0, 20), ReadBack(dir_ + ".moved" + name));
}

// Paths that cannot be created are refused on the way, and lose nothing.
TEST_F(TavoTest, WritesBeforeAPathAndLargerThanTheCacheArriveWholeAndInOrder) {
  auto t = NewTavo();
  const std::string big = RandomBytes(5 << 20, 1) + Records(0, 100000);
  ASSERT_TRUE(t->Write(big.data(), 3 << 20));
  EXPECT_FALSE(t->Flush()) << "nowhere to put it yet";
  for (const std::string& bad : {dir_ + "/missing/x.gz", dir_, std::string()}) {
    EXPECT_FALSE(t->SetOutputPath(bad.c_str())) << bad;
  }
  EXPECT_FALSE(t->SetOutputPath(nullptr));
  ASSERT_TRUE(t->SetOutputPath(File(0).c_str()));
  ASSERT_TRUE(t->Write(big.data() + (3 << 20), big.size() - (3 << 20)));
  ASSERT_TRUE(t->Flush());
  EXPECT_TRUE(ReadBack(File(0)) == big);
}

TEST_F(TavoTest, CachesAreNamedAfterTheSetOnePerLiveWriterAndNeverLikeASetFile) {
  auto a = NewTavo(File(0)), b = NewTavo(File(1));
  ASSERT_TRUE(Put(a.get(), Records(0, 10)) && Put(b.get(), Records(10, 20)));
  EXPECT_EQ((std::set<std::string>{".x.tavocache", ".x-1.tavocache"}), CacheFiles(dir_));
  a.reset();
  b.reset();
  EXPECT_EQ(Records(0, 10), ReadBack(File(0)));
  EXPECT_EQ(Records(10, 20), ReadBack(File(1)));
  a = NewTavo(dir_ + "/k.gz.log.I007.20261123-090000.gz");
  EXPECT_EQ(std::set<std::string>{".k_gz.log.tavocache"}, CacheFiles(dir_));
  ASSERT_TRUE(a->SetOutputPath((dir_ + "/plain.gz").c_str()));
  EXPECT_EQ(std::set<std::string>{".plain.tavocache"}, CacheFiles(dir_));
}

TEST_F(TavoTest, AVanishedOutputFailsTheFlushAndTheDataGoesToTheNextFile) {
  auto t = NewTavo(File(0));
  ASSERT_TRUE(Put(t.get(), Records(0, 20)));
  ASSERT_EQ(0, unlink(File(0).c_str()));
  EXPECT_FALSE(t->Flush());
  EXPECT_FALSE(Exists(File(0))) << "a flush must not bring back a removed file";
  // The first record that no longer fits the cache is refused whole, not split.
  int accepted = 20;
  while (accepted < 200000 && Put(t.get(), Record(accepted))) accepted++;
  EXPECT_LT(accepted, 200000);
  ASSERT_TRUE(t->SetOutputPath(File(1).c_str()));
  ASSERT_TRUE(t->Flush());
  EXPECT_TRUE(Records(0, accepted) == ReadBack(File(1)));
}

TEST_F(TavoTest, AFailedWriteOfTheOutputLeavesItValidAndKeepsTheDataForTheNextFlush) {
  auto t = NewTavo(File(0));
  const std::string first = Records(0, 100), noise = RandomBytes(256 << 10, 3);
  ASSERT_TRUE(Put(t.get(), first) && t->Flush());
  struct stat st;
  ASSERT_EQ(0, stat(File(0).c_str(), &st));
  ASSERT_TRUE(Put(t.get(), noise));
  // Files may not grow past a few KiB more: the member is cut short (EFBIG).
  struct rlimit saved;
  ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &saved));
  struct rlimit small = saved;
  small.rlim_cur = static_cast<rlim_t>(st.st_size) + 4096;
  sighandler_t oldHandler = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &small));
  bool flushed = t->Flush();
  setrlimit(RLIMIT_FSIZE, &saved);
  signal(SIGXFSZ, oldHandler);
  EXPECT_FALSE(flushed);
  EXPECT_EQ(first, ReadBack(File(0))) << "the cut member must be taken off again";
  ASSERT_TRUE(t->Flush());
  EXPECT_TRUE(ReadBack(File(0)) == first + noise);
}

TEST_F(TavoTest, AFullDiskFailsTheFlushAndTheDataGoesToTheNextFile) {
  std::string small = root_.path() + "/small";
  ASSERT_EQ(0, mkdir(small.c_str(), 0775));
  SmallFs fs(small, 768);
  if (!fs.mounted()) GTEST_SKIP() << "cannot mount a small file system here";
  std::string out = small + "/x.I000.20261123-090000.gz";
  auto t = NewTavo(out);
  ASSERT_TRUE(Put(t.get(), Records(0, 1000)) && t->Flush());
  // The cache holds its blocks already, so only the output runs out (ENOSPC).
  std::string noise = RandomBytes(400 << 10, 4);
  ASSERT_TRUE(Put(t.get(), noise));
  EXPECT_FALSE(t->Flush());
  EXPECT_EQ(Records(0, 1000), ReadBack(out));
  ASSERT_TRUE(t->SetOutputPath(File(0).c_str()));
  t.reset();
  EXPECT_TRUE(ReadBack(File(0)) == noise);
  EXPECT_EQ(Records(0, 1000), ReadBack(out));
}

platform::TavoFlushStage gKillAt;

void KillAtStage(platform::TavoFlushStage stage) {
  if (stage == gKillAt) raise(SIGKILL);
}

// Runs body in a child, which must die of SIGKILL.
template <class Body>
void RunKilled(Body body) {
  int status = -1;
  pid_t pid = RunChild([&] { return body(), 0; });
  ASSERT_TRUE(waitpid(pid, &status, 0) == pid && WIFSIGNALED(status) &&
              WTERMSIG(status) == SIGKILL);
}

TEST_F(TavoTest, AWriterKilledInsideAFlushIsRecoveredExactlyOnce) {
  for (auto stage : {platform::TavoFlushStage::kAppended, platform::TavoFlushStage::kCommitted}) {
    std::string path = File(static_cast<int>(stage));
    RunKilled([&] {
      Tavo t;
      t.InitTavo();
      t.SetOutputPath(path.c_str());
      Put(&t, Records(0, 100));
      t.Flush();
      gKillAt = stage;
      platform::SetTavoFlushHook(KillAtStage);
      Put(&t, Records(100, 200));
      t.Flush();
    });
    NewTavo(path);
    EXPECT_EQ(Records(0, 200), ReadBack(path)) << "stage " << static_cast<int>(stage);
  }
}

TEST_F(TavoTest, ACacheRemovedUnderALiveWriterIsMadeAgainAtTheNextFile) {
  std::string dir = dir_;
  RunKilled([&] {
    Tavo t;
    t.InitTavo();
    t.SetOutputPath(File(0).c_str());
    Put(&t, Records(0, 10));
    t.Flush();
    for (const auto& name : CacheFiles(dir)) unlink((dir + "/" + name).c_str());
    t.SetOutputPath(File(1).c_str());
    Put(&t, Records(10, 20));
    raise(SIGKILL);
  });
  NewTavo(File(2));
  EXPECT_EQ(Records(0, 10), ReadBack(File(0)));
  EXPECT_EQ(Records(10, 20), ReadBack(File(2)));
}

using Header = platform::TavoCacheHeader;

void Poke(Path file, size_t offset, uint64_t value) { Patch(file, offset, BytesOf(value)); }

// Claims a flush into victim was begun when it was empty: a writer believing it cuts victim.
void AimAt(const std::string& cache, const std::string& victim) {
  struct stat st;
  ASSERT_EQ(0, stat(victim.c_str(), &st));
  Poke(cache, offsetof(Header, flushDev), static_cast<uint64_t>(st.st_dev));
  Poke(cache, offsetof(Header, flushIno), static_cast<uint64_t>(st.st_ino));
  Poke(cache, offsetof(Header, flushBase), uint64_t{0});
  Poke(cache, offsetof(Header, flushEnd), uint64_t{1});
}

// At a restarted writer's cache name, maybe after a writer died holding records 0-29.
// of those records, found at the start of the next file
// clang-format off
struct CachePlant { const char* what; bool deadWriter; void (*plant)(Path cache, Path first, Path victim); int recovered; };
const CachePlant kCachePlants[] = {
    {"a dead writer's cache", true, [](Path, Path, Path) {}, 30},
    {"a dead writer's cache whose file is gone", true, [](Path, Path f, Path) { unlink(f.c_str()); }, 30},
    {"a dead writer's cache aimed at the victim", true, [](Path c, Path, Path v) { AimAt(c, v); }, 30},
    {"that cache given to another user", true,
     [](Path c, Path, Path v) { AimAt(c, v); chown(c.c_str(), 65534, 65534); }, 0},
    {"that cache made writable by all", true,
     [](Path c, Path, Path v) { AimAt(c, v); chmod(c.c_str(), 0666); }, 0},
    {"a header claiming a terabyte", true, [](Path c, Path, Path) {
       Poke(c, offsetof(Header, capacity), uint64_t{1} << 40);
       truncate(c.c_str(), static_cast<off_t>(platform::TavoCache::kHeaderSize + (1ull << 40))); }, 0},
    {"a header with its end past everything", true, [](Path c, Path, Path) {
       Poke(c, offsetof(Header, end), ~uint64_t{0});
       Poke(c, offsetof(Header, flushEnd), ~uint64_t{0} - 1); }, 0},
    {"a link to the victim", false, [](Path c, Path, Path v) { symlink(v.c_str(), c.c_str()); }, 0},
    {"a hard link to the victim", false, [](Path c, Path, Path v) { link(v.c_str(), c.c_str()); }, 0},
    {"a FIFO", false, [](Path c, Path, Path) { mkfifo(c.c_str(), 0666); }, 0},
};
// clang-format on

TEST_F(TavoTest, OnlyTheWritersOwnCacheIsRecoveredAndOnlyIntoItsOwnFile) {
  for (const CachePlant& c : kCachePlants) {
    SCOPED_TRACE(c.what);
    NewFolder();
    std::string cache = dir_ + "/.x.tavocache", victim = MakeVictim(dir_ + "-victim");
    if (c.deadWriter) {
      RunKilled([&] {
        Tavo t;
        t.InitTavo();
        t.SetOutputPath(File(0).c_str());
        Put(&t, Records(0, 30));
        raise(SIGKILL);
      });
    }
    c.plant(cache, File(0), victim);
    auto t = NewTavo(File(1));  // the set's next file
    struct stat st;             // the writer's own cache, whatever was there
    ASSERT_EQ(0, lstat(cache.c_str(), &st));
    EXPECT_TRUE(S_ISREG(st.st_mode) && st.st_uid == geteuid() && st.st_nlink == 1u);
    EXPECT_EQ(0600u, st.st_mode & 07777);
    EXPECT_LE(st.st_size, static_cast<off_t>(platform::TavoCache::kHeaderSize + (1 << 20)));
    ASSERT_TRUE(Put(t.get(), Records(30, 40)) && t->Flush());
    EXPECT_EQ(Records(30 - c.recovered, 40), ReadBack(File(1)));
    t.reset();
    ExpectIntact(victim);
  }
}

TEST_F(TavoTest, AHeaderScribbledWhileTheWriterRunsIsNeverReadBack) {
  std::string cache = dir_ + "/.x.tavocache", victim = MakeVictim(dir_ + "-victim");
  const int kCount = 40000;  // several times the cache
  int status = WaitChild(RunChild([&] {
    Tavo t;
    t.InitTavo();
    if (!t.SetOutputPath(File(0).c_str())) return 2;
    std::string garbage(platform::TavoCache::kHeaderSize, '\xff');
    Patch(cache, 0, garbage);
    AimAt(cache, victim);
    Poke(cache, offsetof(Header, capacity), uint64_t{1} << 40);
    Poke(cache, offsetof(Header, end), uint64_t{0});
    for (int i = 0; i < kCount; i += 100) {
      if (!Put(&t, Records(i, i + 100))) return 3;
    }
    return t.Flush() ? 0 : 4;
  }));
  EXPECT_EQ(0, status);
  ExpectIntact(victim);
  EXPECT_TRUE(Records(0, kCount) == ReadBack(File(0)));
}

}  // namespace
}  // namespace morvotest
