#include <errno.h>
#include <stdint.h>

#include <algorithm>
#include <functional>
#include <random>

#include "platform/log_ring.h"
#include "support/file_tree.h"
#include "tests/platform/log_store_support.h"

namespace morvotest {
namespace {

using LogStoreCorruptTest = StoreTest;

bool OpensAsReader(log_id_t id) { return OpenList(kDrain, 0, 0, {id}) != nullptr; }

TEST_F(LogStoreCorruptTest, ARingOverwrittenInPlaceIsRefusedByReadersAndRenewedByWriters) {
  ASSERT_GT(Log(LOG_ID_MAIN, "m"), 0);
  std::string path = RingPath(root, "morvo_main");
  size_t size = ReadFile(path).size();
  WriteFile(path, RandomBytes(size, 1));
  EXPECT_FALSE(OpensAsReader(LOG_ID_MAIN));
  // This process's writer, which has it mapped, starts the buffer afresh.
  ASSERT_GT(Log(LOG_ID_MAIN, "renewed"), 0);
  ASSERT_TRUE(OpenMain());
  EXPECT_EQ(Strings{"renewed"}, Messages(ReadAll(list.get())));
  WriteFile(path, RandomBytes(size, 2));
  qd_log_msg msg;
  EXPECT_EQ(-EIO, qd_logger_list_read(list.get(), &msg));
  EXPECT_EQ(-EIO, qd_logger_get_log_size(qd_logger_open(list.get(), LOG_ID_MAIN)));
}

TEST_F(LogStoreCorruptTest, ShortLongOrMisplacedRingFilesAreRefused) {
  ASSERT_TRUE(WriteInChild(LOG_ID_MAIN, "m"));
  std::string path = RingPath(root, "morvo_main");
  std::string whole = ReadFile(path);
  for (size_t size : {whole.size() / 2, size_t{100}, size_t{0}, whole.size() + 4096}) {
    ASSERT_EQ(0, truncate(path.c_str(), static_cast<off_t>(size)));
    EXPECT_FALSE(OpensAsReader(LOG_ID_MAIN)) << size;
  }
  WriteFile(RingPath(root, "morvo_radio"), whole);
  EXPECT_FALSE(OpensAsReader(LOG_ID_RADIO));
  ASSERT_TRUE(WriteInChild(LOG_ID_MAIN, "anew"));
  EXPECT_EQ(Strings{"anew"}, MessagesOf({LOG_ID_MAIN}));
}

bool PatchPosition(const std::string& path, uint64_t from, uint64_t to) {
  std::string header = ReadFile(path).substr(0, 256);
  size_t at = header.find(BytesOf(from));
  if (at != std::string::npos) Patch(path, at, BytesOf(to));
  return at != std::string::npos;
}

// Records from..to-1 of size bytes to main after a resize to capacity (0: none); n at n * size.
void WriteSized(long capacity, int size, int from, int to) {
  ASSERT_TRUE(capacity == 0 || SetRingSize(LOG_ID_MAIN, capacity));
  for (int n = from; n < to; ++n) {
    std::string message = std::to_string(n + 1000).substr(1);
    message.resize(static_cast<size_t>(size) - 32, 'x');
    ASSERT_GT(Log(LOG_ID_MAIN, message, "n"), 0);
  }
}

void PatchRecord(const std::string& path, uint64_t capacity, uint64_t pos,
                 const std::string& bytes) {
  for (size_t k = 0; k < bytes.size(); ++k) {
    Patch(path, platform::kRingDataOffset + (pos + k) % capacity, bytes.substr(k, 1));
  }
}

struct RecordDamage {
  const char* what;
  size_t offset;  // within the record; its size when past the end
  std::string bytes;
};

const RecordDamage kRecordDamages[] = {
    {"length beyond the payload limit", 0, "\x88\x13"},
    {"length beyond the head", 0, std::string("\xa0\x0f")},
    {"length too short", 0, std::string("\x01\0", 2)},
    {"length one short", 0, std::string("\x47\0", 2)},
    {"header size", 2, std::string("\x14\0", 2)},
    {"log id", 20, BytesOf<uint32_t>(LOG_ID_CRASH)},
    {"unterminated message", 99, "z"},
};
const RecordDamage& kLengthBeyondLimit = kRecordDamages[0];

std::vector<int> ReadNumbers(int* reports, int* end) {
  ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
  EXPECT_TRUE(list);
  if (!list) return {};
  testing::internal::CaptureStderr();
  std::vector<Record> records = ReadAll(list.get(), end);
  std::string said = testing::internal::GetCapturedStderr();
  const std::string line = "log store: skipped a damaged record in morvo_main\n";
  *reports = 0;
  for (size_t at = said.find(line); at != std::string::npos; at = said.find(line, at + 1)) {
    ++*reports;
  }
  std::vector<int> numbers;
  for (const Record& r : records) numbers.push_back(atoi(r.message.substr(0, 3).c_str()));
  return numbers;
}

std::vector<int> Numbers(int from, int to, std::vector<int> without = {}) {
  std::vector<int> numbers;
  for (int n = from; n < to; ++n) {
    if (std::find(without.begin(), without.end(), n) == without.end()) numbers.push_back(n);
  }
  return numbers;
}

// clang-format off
struct DamageCase { std::string what; std::function<void(const std::string& path)> deal; std::vector<int> read; int reports; };
// clang-format on

DamageCase Damaged(const char* what, long capacity, int size, int count, int first,
                   std::vector<int> damaged, const RecordDamage& damage, int reports) {
  auto deal = [=](const std::string& path) {
    WriteSized(capacity, size, 0, count);
    for (int n : damaged) {
      PatchRecord(path, capacity != 0 ? capacity : QD_LOGGER_DEFAULT_RING_SIZE,
                  static_cast<uint64_t>(n) * size + damage.offset, damage.bytes);
    }
  };
  return {std::string(what) + ", " + damage.what, deal, Numbers(first, count, damaged), reports};
}

std::vector<DamageCase> DamageCases() {
  std::vector<DamageCase> cases;
  for (const RecordDamage& damage : kRecordDamages) {
    cases.push_back(Damaged("one in the middle", 0, 100, 10, 0, {4}, damage, 1));
  }
  cases.push_back(
      Damaged("two side by side and one more", 0, 100, 12, 0, {2, 3, 8}, kLengthBeyondLimit, 2));
  cases.push_back(Damaged("the first", 0, 100, 5, 0, {0}, kLengthBeyondLimit, 1));
  cases.push_back(Damaged("the last", 0, 100, 5, 0, {4}, kLengthBeyondLimit, 1));
  cases.push_back(
      Damaged("header across the ring's end", 4096, 102, 50, 10, {40}, kLengthBeyondLimit, 1));
  cases.push_back(
      Damaged("terminator across the ring's end", 4096, 100, 50, 10, {40}, kRecordDamages[6], 1));
  cases.push_back({"writers drop a damaged record alone when they need its room",
                   [](const std::string& path) {
                     WriteSized(4096, 100, 0, 30);
                     PatchRecord(path, 4096, 500, kLengthBeyondLimit.bytes);
                     WriteSized(0, 100, 30, 46);
                   },
                   Numbers(6, 46), 0});
  cases.push_back({"a tail scribbled into a record costs that record alone",
                   [](const std::string& path) {
                     WriteSized(0, 100, 0, 3);
                     ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
                     ASSERT_TRUE(list);
                     ASSERT_EQ(0, qd_logger_clear(qd_logger_open(list.get(), LOG_ID_MAIN)));
                     // Records 3 to 7 follow the clear: the tail is 300, the head 800.
                     WriteSized(0, 100, 3, 8);
                     ASSERT_TRUE(PatchPosition(path, 300, 307));
                   },
                   Numbers(4, 8), 1});
  return cases;
}

TEST_F(LogStoreCorruptTest, AReaderSkipsDamagedRecordsSayingSoOncePerStretch) {
  for (const DamageCase& c : DamageCases()) {
    SCOPED_TRACE(c.what);
    TempRoot root;
    c.deal(RingPath(root, "morvo_main"));
    ASSERT_FALSE(HasFatalFailure());
    int reports = 0, end = 0;
    EXPECT_EQ(c.read, ReadNumbers(&reports, &end));
    EXPECT_EQ(-EAGAIN, end);
    EXPECT_EQ(c.reports, reports);
  }
}

TEST_F(LogStoreCorruptTest, ScribbledPositionsGiveErrorsNotGarbage) {
  // Three records of 28 + 100 bytes: the head is at 384.
  std::string text(100 - 5, 'p');
  for (int i = 0; i < 3; ++i) ASSERT_GT(Log(LOG_ID_CRASH, text, "pp"), 0);
  ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_CRASH});
  ASSERT_TRUE(list);
  qd_logger* crash = qd_logger_open(list.get(), LOG_ID_CRASH);
  ASSERT_EQ(384, qd_logger_get_log_readable_size(crash));
  ASSERT_TRUE(PatchPosition(RingPath(root, "morvo_crash"), 384, 1ULL << 40));
  EXPECT_EQ(-EIO, qd_logger_get_log_readable_size(crash));
  qd_log_msg msg;
  EXPECT_EQ(-EIO, qd_logger_list_read(list.get(), &msg));
  // A writer starts the buffer over from the wild head rather than fail.
  ASSERT_GT(Log(LOG_ID_CRASH, "again", "pp"), 0);
  EXPECT_EQ(Strings{"again"}, MessagesOf({LOG_ID_CRASH}));
}

TEST_F(LogStoreCorruptTest, AnUnusableStoreFolderFailsOpenAndWrite) {
  std::string file = root.Under("/plain-file");
  WriteFile(file, "x");
  for (const std::string& store : {file + "/store", file}) {
    setenv(MORVO_LOG_STORE_ENV, store.c_str(), 1);
    EXPECT_FALSE(OpensAsReader(LOG_ID_MAIN)) << store;
    EXPECT_LT(Log(LOG_ID_MAIN, "m"), 0) << store;
  }
  // The variable names the folder as it is, without the root prefix.
  std::string store = root.Under("/elsewhere/store");
  setenv(MORVO_LOG_STORE_ENV, store.c_str(), 1);
  EXPECT_GT(Log(LOG_ID_MAIN, "m"), 0);
  EXPECT_EQ(0750u, ModeOf(store) & 0777);
  EXPECT_EQ(0640u, ModeOf(store + "/morvo_main") & 0777);
  unsetenv(MORVO_LOG_STORE_ENV);
}

TEST_F(LogStoreCorruptTest, ADamagedSignalPageIsRenewed) {
  ASSERT_GT(Log(LOG_ID_MAIN, "m"), 0);
  WriteFile(RingPath(root, "morvo_signal"), RandomBytes(4096, 3));
  EXPECT_EQ(Strings{"m"}, MessagesOf({LOG_ID_MAIN}));
}

TEST_F(LogStoreCorruptTest, AWildWordAnywhereInTheRingHeaderNeverCrashesAReader) {
  // Returning system's record, the reader looks whether a writer is inside empty main.
  ASSERT_GT(Log(LOG_ID_MAIN, "m"), 0);
  ListPtr clearing = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
  ASSERT_TRUE(clearing);
  ASSERT_EQ(0, qd_logger_clear(qd_logger_open(clearing.get(), LOG_ID_MAIN)));
  ASSERT_GT(Log(LOG_ID_SYSTEM, "s"), 0);
  std::string path = RingPath(root, "morvo_main");
  const std::string sound = ReadFile(path);
  // Over the lock's kind, this word once made the C library abort inside a trylock.
  for (size_t offset = 0; offset < 256; offset += 4) {
    Patch(path, offset, BytesOf<uint32_t>(0x8be66d43));
    ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_SYSTEM});
    ASSERT_TRUE(list);
    qd_logger_open(list.get(), LOG_ID_MAIN);
    int end = 0;
    std::vector<Record> records = ReadAll(list.get(), &end);
    EXPECT_TRUE(end == -EAGAIN || end == -EIO || end == -EINVAL) << offset << ": " << end;
    EXPECT_LE(records.size(), 2u) << offset;
    for (const Record& r : records) EXPECT_EQ("t", r.tag) << offset;
    WriteFile(path, sound);
  }
}

// Given the stretch each belongs to (4096 positions each in a 64 KiB ring).
struct WildMarks {
  const char* what;
  uint64_t (*mark)(uint64_t stretch, std::mt19937* random);
};

using Rng = std::mt19937;

// clang-format off
const WildMarks kWildMarks[] = {
    {"random words", [](uint64_t, Rng* r) { return (static_cast<uint64_t>((*r)()) << 32) | (*r)(); }},
    {"inside a record of their stretch", [](uint64_t at, Rng* r) { return at * 4096 + 1 + (*r)() % 50; }},
    {"the stretch's first byte", [](uint64_t at, Rng*) { return at * 4096; }},
    {"zero", [](uint64_t, Rng*) { return uint64_t{0}; }},
};
// clang-format on

TEST_F(LogStoreCorruptTest, WildMarksNeverChangeWhatATailReads) {
  for (const WildMarks& c : kWildMarks) {
    SCOPED_TRACE(c.what);
    TempRoot root;
    WriteSized(65536, 60, 0, 900);
    ListPtr all = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
    ASSERT_TRUE(all);
    std::vector<Record> whole = ReadAll(all.get());
    ASSERT_GT(whole.size(), 500u);
    std::string path = RingPath(root, "morvo_main");
    std::mt19937 random(11);
    std::string marks;
    for (uint64_t slot = 0; slot < platform::kRingMarks; ++slot) {
      uint64_t stretch = 900 * 60 / 4096 / platform::kRingMarks * platform::kRingMarks + slot;
      uint64_t mark = c.mark(stretch, &random);
      marks += BytesOf(mark);
    }
    Patch(path, platform::kRingMarksOffset, marks);
    for (unsigned tail : {1u, 70u, 400u, 5000u}) {
      ListPtr list = OpenList(kDrain, tail, 0, {LOG_ID_MAIN});
      ASSERT_TRUE(list);
      std::vector<Record> read = ReadAll(list.get());
      size_t expected = std::min<size_t>(tail, whole.size());
      ASSERT_EQ(expected, read.size()) << "tail " << tail;
      for (size_t i = 0; i < expected; ++i) {
        EXPECT_EQ(whole[whole.size() - expected + i].message, read[i].message) << "tail " << tail;
      }
    }
  }
}

int ScribbleTheLockThenReadAndWrite(const std::string& path, unsigned seed) {
  for (int i = 0; i < 3; ++i) {
    if (Log(LOG_ID_MAIN, "before") <= 0) return 2;
  }
  Patch(path, platform::kRingLockOffset, RandomBytes(platform::kRingLockSize, seed));
  if (testing::Test::HasFailure()) return 3;
  ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
  if (!list || ReadAll(list.get()).size() != 3) return 4;
  if (Log(LOG_ID_MAIN, "after") <= 0) return 5;
  return Messages(ReadAll(list.get())) == Strings{"after"} ? 0 : 6;
}

TEST_F(LogStoreCorruptTest, RandomBytesOverTheLockNeitherCrashNorHangReadersOrWriters) {
  std::string path = RingPath(root, "morvo_main");
  for (unsigned seed = 1; seed <= 16; ++seed) {
    unlink(path.c_str());
    pid_t child = RunChild([&path, seed] {
      alarm(20);
      return ScribbleTheLockThenReadAndWrite(path, seed);
    });
    EXPECT_EQ(0, WaitChild(child)) << "seed " << seed;
  }
}

TEST_F(LogStoreCorruptTest, ARingMarkedRetiredInPlaceIsRenewedWithItsRecords) {
  ASSERT_TRUE(WriteInChild(LOG_ID_MAIN, "kept"));
  std::string path = RingPath(root, "morvo_main");
  Patch(path, platform::kRingRetiredOffset, BytesOf<uint32_t>(1));
  ListPtr before = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
  ASSERT_TRUE(before);
  ASSERT_TRUE(WriteInChild(LOG_ID_MAIN, "after"));
  EXPECT_EQ((Strings{"kept", "after"}), MessagesOf({LOG_ID_MAIN}));
  EXPECT_EQ(2u, ReadAll(before.get()).size());
}

struct RingSwap {
  const char* what;
  bool (*apply)(const std::string& ring, const std::string& victim);
};

using Str = const std::string&;

// clang-format off
const RingSwap kRingSwaps[] = {
    {"a symbolic link", [](Str r, Str v) { return unlink(r.c_str()) == 0 && symlink(v.c_str(), r.c_str()) == 0; }},
    {"a hard link", [](Str r, Str v) { return unlink(r.c_str()) == 0 && link(v.c_str(), r.c_str()) == 0; }},
    {"a FIFO", [](Str r, Str) { return unlink(r.c_str()) == 0 && mkfifo(r.c_str(), 0640) == 0; }},
    {"owned by uid 65534", [](Str r, Str) { return chown(r.c_str(), kNobody, kNobody) == 0; }},
    {"world-writable", [](Str r, Str) { return chmod(r.c_str(), 0646) == 0; }},
};
// clang-format on

TEST_F(LogStoreCorruptTest, ARingThatIsALinkNotAFileOrForeignIsRefusedAndLeftAlone) {
  for (const RingSwap& swap : kRingSwaps) {
    SCOPED_TRACE(swap.what);
    TempRoot root;
    ASSERT_TRUE(WriteInChild(LOG_ID_MAIN, "m"));
    std::string ring = RingPath(root, "morvo_main");
    // A sound ring: only the checks of the name keep writers out of it.
    std::string victim = root.Under("/victim");
    const std::string sound = ReadFile(ring);
    WriteFile(victim, sound);
    ASSERT_EQ(0, chmod(victim.c_str(), 0640));
    ASSERT_TRUE(swap.apply(ring, victim));
    EXPECT_FALSE(WriteInChild(LOG_ID_MAIN, "into the victim"));
    EXPECT_FALSE(OpensAsReader(LOG_ID_MAIN));
    EXPECT_TRUE(ReadFile(victim) == sound);
  }
}

}  // namespace
}  // namespace morvotest
