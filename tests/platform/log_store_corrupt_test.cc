// A damaged log store gives clear errors, never a crash or a hang; writers
// start a damaged buffer afresh.

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/log_ring.h"
#include "platform/logger.h"
#include "support/random_bytes.h"
#include "support/temp_root.h"
#include "tests/platform/log_store_support.h"

namespace {

using morvotest::OpenList;
using morvotest::RandomBytes;
using morvotest::ReadAll;
using morvotest::Record;
using morvotest::RingPath;

constexpr int kDrain = QD_LOGGER_MODE_NONBLOCK;

// Replaces the bytes at offset of the file at path.
void Patch(const std::string& path, size_t offset, const void* bytes, size_t size) {
  std::string text = morvotest::ReadFile(path);
  ASSERT_LE(offset + size, text.size());
  memcpy(&text[offset], bytes, size);
  morvotest::WriteFile(path, text);
}

// Offset in the ring file of the header of the record whose tag is tag.
size_t RecordOffset(const std::string& path, const std::string& tag) {
  std::string text = morvotest::ReadFile(path);
  // The priority byte sits between the header and the tag.
  size_t found = text.find(tag + std::string(1, '\0'));
  return found == std::string::npos ? 0 : found - 1 - sizeof(qd_logger_entry);
}

bool OpensAsReader(log_id_t id) { return OpenList(kDrain, 0, 0, {id}) != nullptr; }

// Writes from a child process, so that this process keeps no mapping of a
// file that the test then cuts short under it.
bool WriteInChild(log_id_t id, const char* message) {
  pid_t child = morvotest::RunChild([id, message] {
    return qd_log_write(id, QD_LOG_INFO, "t", message) > 0 ? 0 : 1;
  });
  return morvotest::WaitChild(child) == 0;
}

TEST(LogStoreCorruptTest, ARingOverwrittenInPlaceIsRefusedByReadersAndRenewedByWriters) {
  morvotest::TempRoot root;
  ASSERT_GT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "m"), 0);
  std::string path = RingPath(root, "morvo_main");
  size_t size = morvotest::ReadFile(path).size();
  morvotest::WriteFile(path, RandomBytes(size, 1));
  EXPECT_FALSE(OpensAsReader(LOG_ID_MAIN));
  // This process still has the file mapped: its writer notices the header
  // is no longer a ring's and starts the buffer afresh.
  ASSERT_GT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "renewed"), 0);
  morvotest::ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
  ASSERT_TRUE(list);
  std::vector<Record> records = ReadAll(list.get());
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ("renewed", records[0].message);
  // A reader holding the ring when it is overwritten gets an error.
  morvotest::WriteFile(path, RandomBytes(size, 2));
  qd_log_msg msg;
  EXPECT_EQ(-EIO, qd_logger_list_read(list.get(), &msg));
  EXPECT_EQ(-EIO, qd_logger_get_log_size(qd_logger_open(list.get(), LOG_ID_MAIN)));
}

TEST(LogStoreCorruptTest, ShortLongOrMisplacedRingFilesAreRefused) {
  morvotest::TempRoot root;
  ASSERT_TRUE(WriteInChild(LOG_ID_MAIN, "m"));
  std::string path = RingPath(root, "morvo_main");
  std::string whole = morvotest::ReadFile(path);
  ASSERT_EQ(0, truncate(path.c_str(), static_cast<off_t>(whole.size() / 2)));
  EXPECT_FALSE(OpensAsReader(LOG_ID_MAIN));
  ASSERT_EQ(0, truncate(path.c_str(), 100));
  EXPECT_FALSE(OpensAsReader(LOG_ID_MAIN));
  ASSERT_EQ(0, truncate(path.c_str(), 0));
  EXPECT_FALSE(OpensAsReader(LOG_ID_MAIN));
  ASSERT_EQ(0, truncate(path.c_str(), static_cast<off_t>(whole.size() + 4096)));
  EXPECT_FALSE(OpensAsReader(LOG_ID_MAIN));
  // A sound file under another buffer's name belongs to that buffer.
  morvotest::WriteFile(RingPath(root, "morvo_radio"), whole);
  EXPECT_FALSE(OpensAsReader(LOG_ID_RADIO));
  // A writer that finds the file cut short makes it anew.
  ASSERT_TRUE(WriteInChild(LOG_ID_MAIN, "anew"));
  morvotest::ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
  ASSERT_TRUE(list);
  std::vector<Record> records = ReadAll(list.get());
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ("anew", records[0].message);
}

TEST(LogStoreCorruptTest, MalformedRecordsEndTheReadWithAnErrorUntilWritersPassThem) {
  morvotest::TempRoot root;
  ASSERT_GT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "first", "a"), 0);
  ASSERT_GT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "bad-one", "b"), 0);
  std::string path = RingPath(root, "morvo_main");
  size_t offset = RecordOffset(path, "bad-one");
  ASSERT_NE(0u, offset);
  qd_logger_entry good;
  memcpy(&good, morvotest::ReadFile(path).data() + offset, sizeof(good));
  ASSERT_EQ(28, good.hdr_size);
  struct Damage {
    const char* what;
    void (*apply)(qd_logger_entry*);
  } damages[] = {
      {"length beyond the payload limit", [](qd_logger_entry* e) { e->len = 5000; }},
      {"length beyond the head", [](qd_logger_entry* e) { e->len = 900; }},
      {"length too short", [](qd_logger_entry* e) { e->len = 1; }},
      {"header size", [](qd_logger_entry* e) { e->hdr_size = 20; }},
      {"log id", [](qd_logger_entry* e) { e->lid = LOG_ID_CRASH; }},
      {"unterminated message", [](qd_logger_entry* e) { e->len -= 1; }},
  };
  for (const Damage& damage : damages) {
    qd_logger_entry bad = good;
    damage.apply(&bad);
    Patch(path, offset, &bad, sizeof(bad));
    morvotest::ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
    ASSERT_TRUE(list) << damage.what;
    int end = 0;
    std::vector<Record> records = ReadAll(list.get(), &end);
    EXPECT_EQ(-EINVAL, end) << damage.what;
    ASSERT_EQ(1u, records.size()) << damage.what;
    EXPECT_EQ("first", records[0].tag);
  }
  // Writers drop the damaged record, and all before it, once the ring
  // needs its room; the buffer then reads cleanly again.
  morvotest::ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
  ASSERT_TRUE(list);
  std::string text(200, 'w');
  for (int i = 0; i < 2000; ++i) {
    ASSERT_GT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "later", text.c_str()), 0);
  }
  int end = 0;
  std::vector<Record> records = ReadAll(list.get(), &end);
  EXPECT_EQ(-EAGAIN, end);
  ASSERT_FALSE(records.empty());
  for (const Record& r : records) EXPECT_EQ("later", r.tag);
}

TEST(LogStoreCorruptTest, ScribbledPositionsGiveErrorsNotGarbage) {
  morvotest::TempRoot root;
  // Three records of 28 + 100 bytes: the head is at 384.
  std::string text(100 - 5, 'p');
  for (int i = 0; i < 3; ++i) ASSERT_GT(qd_log_write(LOG_ID_CRASH, QD_LOG_INFO, "pp", text.c_str()), 0);
  morvotest::ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_CRASH});
  ASSERT_TRUE(list);
  qd_logger* crash = qd_logger_open(list.get(), LOG_ID_CRASH);
  ASSERT_EQ(384, qd_logger_get_log_readable_size(crash));
  std::string path = RingPath(root, "morvo_crash");
  std::string page = morvotest::ReadFile(path).substr(0, 4096);
  uint64_t head = 384;
  size_t at = page.find(std::string(reinterpret_cast<const char*>(&head), sizeof(head)));
  ASSERT_NE(std::string::npos, at);
  uint64_t wild = 1ULL << 40;
  Patch(path, at, &wild, sizeof(wild));
  EXPECT_EQ(-EIO, qd_logger_get_log_readable_size(crash));
  qd_log_msg msg;
  EXPECT_EQ(-EIO, qd_logger_list_read(list.get(), &msg));
  // A writer starts the buffer over from the wild head rather than fail.
  ASSERT_GT(qd_log_write(LOG_ID_CRASH, QD_LOG_INFO, "pp", "again"), 0);
  morvotest::ListPtr fresh = OpenList(kDrain, 0, 0, {LOG_ID_CRASH});
  ASSERT_TRUE(fresh);
  std::vector<Record> records = ReadAll(fresh.get());
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ("again", records[0].message);
}

TEST(LogStoreCorruptTest, RandomDamageToRecordsNeverCrashesOrHangsAReader) {
  morvotest::TempRoot root;
  for (int i = 0; i < 300; ++i) {
    std::string message = std::to_string(i) + std::string(i % 40, 'r');
    ASSERT_GT(qd_log_write(LOG_ID_SYSTEM, QD_LOG_INFO, "fuzz", message.c_str()), 0);
  }
  std::string path = RingPath(root, "morvo_system");
  const std::string sound = morvotest::ReadFile(path);
  std::mt19937 random(7);
  for (int round = 0; round < 50; ++round) {
    std::string damaged = sound;
    for (int flip = 0; flip < 8; ++flip) {
      damaged[4096 + random() % 16000] = static_cast<char>(random());
    }
    morvotest::WriteFile(path, damaged);
    morvotest::ListPtr list = OpenList(kDrain, round % 3, 0, {LOG_ID_SYSTEM});
    ASSERT_TRUE(list);
    int end = 0;
    std::vector<Record> records = ReadAll(list.get(), &end);
    EXPECT_TRUE(end == -EAGAIN || end == -EINVAL) << end;
    EXPECT_LE(records.size(), 300u);
  }
}

TEST(LogStoreCorruptTest, AnUnusableStoreFolderFailsOpenAndWrite) {
  morvotest::TempRoot root;
  std::string file = root.Under("/plain-file");
  morvotest::WriteFile(file, "x");
  setenv(MORVO_LOG_STORE_ENV, (file + "/store").c_str(), 1);
  EXPECT_FALSE(OpensAsReader(LOG_ID_MAIN));
  EXPECT_LT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "m"), 0);
  setenv(MORVO_LOG_STORE_ENV, file.c_str(), 1);
  EXPECT_FALSE(OpensAsReader(LOG_ID_MAIN));
  EXPECT_LT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "m"), 0);
  // The variable names the folder as it is, without the root prefix.
  std::string store = root.Under("/elsewhere/store");
  setenv(MORVO_LOG_STORE_ENV, store.c_str(), 1);
  EXPECT_GT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "m"), 0);
  EXPECT_TRUE(morvotest::Exists(store + "/morvo_main"));
  struct stat st;
  ASSERT_EQ(0, stat(store.c_str(), &st));
  EXPECT_EQ(0750u, st.st_mode & 0777);
  ASSERT_EQ(0, stat((store + "/morvo_main").c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 0777);
  unsetenv(MORVO_LOG_STORE_ENV);
}

TEST(LogStoreCorruptTest, ADamagedSignalPageIsRenewed) {
  morvotest::TempRoot root;
  ASSERT_GT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "m"), 0);
  morvotest::WriteFile(RingPath(root, "morvo_signal"), RandomBytes(4096, 3));
  morvotest::ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
  ASSERT_TRUE(list);
  EXPECT_EQ(1u, ReadAll(list.get()).size());
}

TEST(LogStoreCorruptTest, AWildWordAnywhereInTheRingHeaderNeverCrashesAReader) {
  morvotest::TempRoot root;
  // An empty main buffer beside a system buffer with one record: returning
  // that record, the reader looks whether a writer is inside main.
  ASSERT_GT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "m"), 0);
  morvotest::ListPtr clearing = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
  ASSERT_TRUE(clearing);
  ASSERT_EQ(0, qd_logger_clear(qd_logger_open(clearing.get(), LOG_ID_MAIN)));
  ASSERT_GT(qd_log_write(LOG_ID_SYSTEM, QD_LOG_INFO, "t", "s"), 0);
  std::string path = RingPath(root, "morvo_main");
  const std::string sound = morvotest::ReadFile(path);
  // Written over the lock's kind, this word once made the C library abort
  // the reader inside a trylock.
  const uint32_t wild = 0x8be66d43;
  for (size_t offset = 0; offset < 256; offset += sizeof(wild)) {
    Patch(path, offset, &wild, sizeof(wild));
    morvotest::ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_SYSTEM});
    ASSERT_TRUE(list);
    qd_logger_open(list.get(), LOG_ID_MAIN);
    int end = 0;
    std::vector<Record> records = ReadAll(list.get(), &end);
    EXPECT_TRUE(end == -EAGAIN || end == -EIO || end == -EINVAL) << offset << ": " << end;
    EXPECT_LE(records.size(), 2u) << offset;
    for (const Record& r : records) EXPECT_EQ("t", r.tag) << offset;
    morvotest::WriteFile(path, sound);
  }
}

// Writes bytes over the file at offset, in a child process too.
bool Overwrite(const std::string& path, size_t offset, const std::string& bytes) {
  int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  bool done = fd >= 0 && pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset)) ==
                             static_cast<ssize_t>(bytes.size());
  if (fd >= 0) close(fd);
  return done;
}

// Three records, the ring's lock overwritten with random bytes, then a
// reader, a writer and a reader again: the records stay, the new one joins
// them. The exit status tells the first step that failed.
int ScribbleTheLockThenReadAndWrite(const std::string& path, unsigned seed) {
  for (int i = 0; i < 3; ++i) {
    if (qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "before") <= 0) return 2;
  }
  if (!Overwrite(path, platform::kRingLockOffset, RandomBytes(platform::kRingLockSize, seed))) {
    return 3;
  }
  morvotest::ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
  if (!list || ReadAll(list.get()).size() != 3) return 4;
  if (qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "after") <= 0) return 5;
  std::vector<Record> records = ReadAll(list.get());
  return records.size() == 1 && records[0].message == "after" ? 0 : 6;
}

TEST(LogStoreCorruptTest, RandomBytesOverTheLockNeitherCrashNorHangReadersOrWriters) {
  morvotest::TempRoot root;
  std::string path = RingPath(root, "morvo_main");
  for (unsigned seed = 1; seed <= 16; ++seed) {
    unlink(path.c_str());
    pid_t child = morvotest::RunChild([&path, seed] {
      alarm(20);
      return ScribbleTheLockThenReadAndWrite(path, seed);
    });
    EXPECT_EQ(0, morvotest::WaitChild(child)) << "seed " << seed;
  }
}

// A ring name that now leads elsewhere or belongs to someone else.
struct RingSwap {
  const char* what;
  bool (*apply)(const std::string& ring, const std::string& victim);
};

const RingSwap kRingSwaps[] = {
    {"a symbolic link",
     [](const std::string& ring, const std::string& victim) {
       return unlink(ring.c_str()) == 0 && symlink(victim.c_str(), ring.c_str()) == 0;
     }},
    {"a hard link",
     [](const std::string& ring, const std::string& victim) {
       return unlink(ring.c_str()) == 0 && link(victim.c_str(), ring.c_str()) == 0;
     }},
    {"a FIFO",
     [](const std::string& ring, const std::string&) {
       return unlink(ring.c_str()) == 0 && mkfifo(ring.c_str(), 0640) == 0;
     }},
    {"owned by uid 65534",
     [](const std::string& ring, const std::string&) {
       return chown(ring.c_str(), morvotest::kNobody, morvotest::kNobody) == 0;
     }},
    {"world-writable",
     [](const std::string& ring, const std::string&) { return chmod(ring.c_str(), 0646) == 0; }},
};

TEST(LogStoreCorruptTest, ARingThatIsALinkNotAFileOrForeignIsRefusedAndLeftAlone) {
  for (const RingSwap& swap : kRingSwaps) {
    morvotest::TempRoot root;
    ASSERT_TRUE(WriteInChild(LOG_ID_MAIN, "m")) << swap.what;
    std::string ring = RingPath(root, "morvo_main");
    // The victim reads as a sound ring, so only the checks of the name
    // itself keep writers out of it.
    std::string victim = root.Under("/victim");
    const std::string sound = morvotest::ReadFile(ring);
    morvotest::WriteFile(victim, sound);
    ASSERT_EQ(0, chmod(victim.c_str(), 0640));
    ASSERT_TRUE(swap.apply(ring, victim)) << swap.what;
    EXPECT_FALSE(WriteInChild(LOG_ID_MAIN, "into the victim")) << swap.what;
    EXPECT_FALSE(OpensAsReader(LOG_ID_MAIN)) << swap.what;
    EXPECT_TRUE(morvotest::ReadFile(victim) == sound) << swap.what;
  }
}

}  // namespace
