#include <dirent.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "platform/log_format.h"
#include "platform/logger.h"
#include "support/temp_root.h"
#include "tests/platform/log_store_support.h"

namespace {

using morvotest::kNobody;
using morvotest::OpenList;
using morvotest::ReadAll;
using morvotest::Record;
using morvotest::RunChild;
using morvotest::WaitChild;

constexpr int kDrain = QD_LOGGER_MODE_NONBLOCK;

long SizeOf(log_id_t id, long (*query)(qd_logger*)) {
  morvotest::ListPtr list = OpenList(kDrain, 0, 0, {id});
  return list ? query(qd_logger_open(list.get(), id)) : -1;
}

TEST(LogIdsTest, NamesAndIdsRoundTripAndUnknownsAreRefused) {
  const char* names[] = {"morvo_main",  "morvo_radio", "morvo_events",   "morvo_system",
                         "morvo_crash", "morvo_stats", "morvo_security", "morvo_kernel"};
  for (int id = 0; id < LOG_ID_MAX; ++id) {
    EXPECT_STREQ(names[id], qdlogging_log_id_to_name(static_cast<log_id_t>(id)));
    EXPECT_EQ(id, qdlogging_name_to_log_id(names[id]));
  }
  EXPECT_EQ(LOG_ID_MAX, qdlogging_name_to_log_id("main"));
  EXPECT_EQ(LOG_ID_MAX, qdlogging_name_to_log_id("morvo_main "));
  EXPECT_EQ(LOG_ID_MAX, qdlogging_name_to_log_id(nullptr));
  EXPECT_STREQ("", qdlogging_log_id_to_name(LOG_ID_MAX));
  EXPECT_STREQ("", qdlogging_log_id_to_name(static_cast<log_id_t>(-1)));
}

TEST(LogStoreTest, RecordsComeBackWholeWithTheWritersIds) {
  morvotest::TempRoot root;
  ASSERT_EQ(13, qd_log_write(LOG_ID_MAIN, QD_LOG_WARN, "tag", "message"));
  ASSERT_EQ(3, qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, nullptr, nullptr));
  morvotest::ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
  ASSERT_TRUE(list);
  qd_log_msg msg;
  ASSERT_EQ(28 + 13, qd_logger_list_read(list.get(), &msg));
  EXPECT_EQ(28, msg.entry.hdr_size);
  EXPECT_EQ(13, msg.entry.len);
  EXPECT_EQ(getpid(), msg.entry.pid);
  EXPECT_EQ(static_cast<uint32_t>(syscall(SYS_gettid)), msg.entry.tid);
  EXPECT_EQ(getuid(), msg.entry.uid);
  EXPECT_EQ(0u, msg.entry.lid);
  EXPECT_NEAR(time(nullptr), msg.entry.sec, 5);
  EXPECT_EQ(0, memcmp(msg.buf + 28, "\x05tag\0message\0", 13));
  ASSERT_EQ(28 + 3, qd_logger_list_read(list.get(), &msg));
  Record empty = morvotest::Parse(msg);
  EXPECT_EQ("", empty.tag);
  EXPECT_EQ("", empty.message);
  EXPECT_EQ(-EAGAIN, qd_logger_list_read(list.get(), &msg));
  EXPECT_TRUE(morvotest::Exists(root.Under(MORVO_LOG_STORE_DIR "/morvo_main")));
}

TEST(LogStoreTest, WritesAreCheckedAndOverlongTextIsCutToThePayload) {
  morvotest::TempRoot root;
  EXPECT_EQ(-EINVAL, qd_log_write(LOG_ID_MAX, QD_LOG_INFO, "t", "m"));
  EXPECT_EQ(-EINVAL, qd_log_write(-1, QD_LOG_INFO, "t", "m"));
  EXPECT_EQ(-EINVAL, qd_log_write(LOG_ID_MAIN, 9, "t", "m"));
  std::string longText(6000, 'x');
  EXPECT_EQ(QD_LOGGER_ENTRY_MAX_PAYLOAD,
            qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "tag", longText.c_str()));
  EXPECT_EQ(QD_LOGGER_ENTRY_MAX_PAYLOAD,
            qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, longText.c_str(), "m"));
  morvotest::ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
  ASSERT_TRUE(list);
  std::vector<Record> records = ReadAll(list.get());
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ(std::string(QD_LOGGER_ENTRY_MAX_PAYLOAD - 6, 'x'), records[0].message);
  EXPECT_EQ(std::string(QD_LOGGER_ENTRY_MAX_PAYLOAD - 3, 'x'), records[1].tag);
  EXPECT_EQ("", records[1].message);
}

TEST(LogStoreTest, OpenRefusesBadIdsAndReadNeedsAnOpenBuffer) {
  morvotest::TempRoot root;
  morvotest::ListPtr list(qd_logger_list_alloc(kDrain, 0, 0));
  ASSERT_TRUE(list);
  qd_log_msg msg;
  EXPECT_EQ(-EINVAL, qd_logger_list_read(list.get(), &msg));
  EXPECT_EQ(nullptr, qd_logger_open(list.get(), LOG_ID_MAX));
  EXPECT_EQ(nullptr, qd_logger_open(nullptr, LOG_ID_MAIN));
  qd_logger* main = qd_logger_open(list.get(), LOG_ID_MAIN);
  ASSERT_NE(nullptr, main);
  EXPECT_EQ(main, qd_logger_open(list.get(), LOG_ID_MAIN));
  EXPECT_EQ(-EINVAL, qd_logger_list_read(list.get(), nullptr));
  EXPECT_EQ(-EAGAIN, qd_logger_list_read(list.get(), &msg));
  EXPECT_EQ(-EINVAL, qd_logger_clear(nullptr));
  EXPECT_EQ(-EINVAL, qd_logger_get_log_size(nullptr));
}

TEST(LogStoreTest, BuffersMergeInTimeOrderAndOnlyOpenedOnesAreRead) {
  morvotest::TempRoot root;
  const log_id_t order[] = {LOG_ID_SYSTEM, LOG_ID_MAIN,   LOG_ID_CRASH, LOG_ID_MAIN,
                            LOG_ID_RADIO,  LOG_ID_SYSTEM, LOG_ID_CRASH};
  for (size_t i = 0; i < sizeof(order) / sizeof(order[0]); ++i) {
    ASSERT_GT(qd_log_write(order[i], QD_LOG_INFO, "t", std::to_string(i).c_str()), 0);
  }
  morvotest::ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_MAIN, LOG_ID_SYSTEM, LOG_ID_CRASH});
  ASSERT_TRUE(list);
  int end = 0;
  std::vector<Record> records = ReadAll(list.get(), &end);
  EXPECT_EQ(-EAGAIN, end);
  std::vector<std::string> seen;
  for (const Record& r : records) {
    seen.push_back(r.message);
    EXPECT_EQ(order[std::stoi(r.message)], static_cast<log_id_t>(r.lid));
  }
  // The radio record (4) is not read: its buffer is not open.
  EXPECT_EQ((std::vector<std::string>{"0", "1", "2", "3", "5", "6"}), seen);
}

// Something that happens to a quiet buffer while a read of three is under
// way, after the reader found it had nothing.
struct MidRead {
  const char* what;
  void (*happen)();
};

void ResizeSystem() {
  morvotest::ListPtr other = OpenList(kDrain, 0, 0, {LOG_ID_SYSTEM});
  ASSERT_TRUE(other);
  ASSERT_EQ(0, qd_logger_set_log_size(qd_logger_open(other.get(), LOG_ID_SYSTEM), 65536));
}

const MidRead kMidReads[] = {
    {"a record", [] {}},
    {"a resize by another list, then a record", ResizeSystem},
    {"a resize in another process, then a record",
     [] {
       ASSERT_EQ(0, morvotest::WaitChild(morvotest::RunChild([] {
                   ResizeSystem();
                   return 0;
                 })));
     }},
};

TEST(LogStoreTest, AQuietBufferThatGetsARecordMidReadIsMergedInTimeOrder) {
  for (const MidRead& c : kMidReads) {
    morvotest::TempRoot root;
    for (int i = 0; i < 4; ++i)
      ASSERT_GT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", std::to_string(i).c_str()), 0);
    ASSERT_GT(qd_log_write(LOG_ID_CRASH, QD_LOG_INFO, "t", "crash"), 0);
    morvotest::ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_MAIN, LOG_ID_SYSTEM, LOG_ID_CRASH});
    ASSERT_TRUE(list);
    qd_log_msg msg;
    ASSERT_GT(qd_logger_list_read(list.get(), &msg), 0);
    EXPECT_EQ("0", morvotest::Parse(msg).message) << c.what;
    c.happen();
    ASSERT_FALSE(HasFatalFailure()) << c.what;
    ASSERT_GT(qd_log_write(LOG_ID_SYSTEM, QD_LOG_INFO, "t", "system"), 0);
    ASSERT_GT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "4"), 0);
    std::vector<std::string> seen;
    for (const Record& r : ReadAll(list.get())) seen.push_back(r.message);
    EXPECT_EQ((std::vector<std::string>{"1", "2", "3", "crash", "system", "4"}), seen) << c.what;
    // Once drained, a quiet buffer that gets a record is read again.
    ASSERT_GT(qd_log_write(LOG_ID_CRASH, QD_LOG_INFO, "t", "crash again"), 0);
    std::vector<Record> again = ReadAll(list.get());
    ASSERT_EQ(1u, again.size()) << c.what;
    EXPECT_EQ("crash again", again[0].message) << c.what;
  }
}

TEST(LogStoreTest, TailTakesTheLastRecordsAcrossBuffersThenFollows) {
  morvotest::TempRoot root;
  for (int i = 0; i < 10; ++i) {
    log_id_t id = i % 3 == 0 ? LOG_ID_SYSTEM : LOG_ID_MAIN;
    ASSERT_GT(qd_log_write(id, QD_LOG_INFO, "t", std::to_string(i).c_str()), 0);
  }
  morvotest::ListPtr list = OpenList(kDrain, 4, 0, {LOG_ID_MAIN, LOG_ID_SYSTEM});
  ASSERT_TRUE(list);
  std::vector<Record> records = ReadAll(list.get());
  ASSERT_EQ(4u, records.size());
  for (int i = 0; i < 4; ++i) EXPECT_EQ(std::to_string(6 + i), records[i].message);
  // A tail larger than the buffers holds gives all of them.
  morvotest::ListPtr all = OpenList(kDrain, 100, 0, {LOG_ID_MAIN, LOG_ID_SYSTEM});
  ASSERT_TRUE(all);
  EXPECT_EQ(10u, ReadAll(all.get()).size());
  // Records written after the tail was taken follow it.
  ASSERT_GT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "later"), 0);
  records = ReadAll(list.get());
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ("later", records[0].message);
}

TEST(LogStoreTest, PidFilterKeepsOnlyThatProcessesRecordsAlsoInTheTail) {
  morvotest::TempRoot root;
  ASSERT_GT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "parent before"), 0);
  pid_t child = RunChild([] {
    for (int i = 0; i < 3; ++i) {
      if (qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", ("child " + std::to_string(i)).c_str()) < 0) {
        return 1;
      }
    }
    return 0;
  });
  ASSERT_EQ(0, WaitChild(child));
  ASSERT_GT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "parent after"), 0);
  morvotest::ListPtr list = OpenList(kDrain, 0, child, {LOG_ID_MAIN});
  ASSERT_TRUE(list);
  std::vector<Record> records = ReadAll(list.get());
  ASSERT_EQ(3u, records.size());
  for (const Record& r : records) EXPECT_EQ(child, r.pid);
  morvotest::ListPtr tail = OpenList(kDrain, 2, child, {LOG_ID_MAIN});
  ASSERT_TRUE(tail);
  records = ReadAll(tail.get());
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ("child 1", records[0].message);
  EXPECT_EQ("child 2", records[1].message);
}

TEST(LogStoreTest, ReadableSizeCountsHeadersAndPayloadsAndClearEmpties) {
  morvotest::TempRoot root;
  EXPECT_EQ(QD_LOGGER_DEFAULT_RING_SIZE, SizeOf(LOG_ID_EVENTS, qd_logger_get_log_size));
  EXPECT_EQ(0, SizeOf(LOG_ID_EVENTS, qd_logger_get_log_readable_size));
  ASSERT_EQ(5, qd_log_write(LOG_ID_EVENTS, QD_LOG_INFO, "a", "b"));
  ASSERT_EQ(10, qd_log_write(LOG_ID_EVENTS, QD_LOG_INFO, "abc", "defg"));
  EXPECT_EQ(28 + 5 + 28 + 10, SizeOf(LOG_ID_EVENTS, qd_logger_get_log_readable_size));
  morvotest::ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_EVENTS});
  ASSERT_TRUE(list);
  ASSERT_EQ(0, qd_logger_clear(qd_logger_open(list.get(), LOG_ID_EVENTS)));
  EXPECT_EQ(0, SizeOf(LOG_ID_EVENTS, qd_logger_get_log_readable_size));
  EXPECT_TRUE(ReadAll(list.get()).empty());
}

TEST(LogStoreTest, SetSizeIsCheckedAndKeepsTheNewestRecordsThatFit) {
  morvotest::TempRoot root;
  morvotest::ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
  ASSERT_TRUE(list);
  qd_logger* main = qd_logger_open(list.get(), LOG_ID_MAIN);
  EXPECT_EQ(-EINVAL, qd_logger_set_log_size(main, 4095));
  EXPECT_EQ(-EINVAL, qd_logger_set_log_size(main, 512UL * 1024 * 1024));
  std::string text(100, 'm');
  for (int i = 0; i < 200; ++i) {
    ASSERT_GT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, std::to_string(i).c_str(), text.c_str()), 0);
  }
  ASSERT_EQ(0, qd_logger_set_log_size(main, 8192));
  EXPECT_EQ(8192, qd_logger_get_log_size(main));
  long used = qd_logger_get_log_readable_size(main);
  EXPECT_GT(used, 8192 - 140);
  EXPECT_LE(used, 8192);
  std::vector<Record> records = ReadAll(list.get());
  ASSERT_FALSE(records.empty());
  EXPECT_EQ("199", records.back().tag);
  for (size_t i = 1; i < records.size(); ++i) {
    EXPECT_EQ(std::stoi(records[i - 1].tag) + 1, std::stoi(records[i].tag));
    EXPECT_EQ(text, records[i].message);
  }
}

TEST(LogStoreTest, RingDropsTheOldestRecordsWholeAndSlowReadersSkipForward) {
  morvotest::TempRoot root;
  morvotest::ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_RADIO});
  ASSERT_TRUE(list);
  ASSERT_EQ(0, qd_logger_set_log_size(qd_logger_open(list.get(), LOG_ID_RADIO), 4096));
  ASSERT_GT(qd_log_write(LOG_ID_RADIO, QD_LOG_INFO, "t", "0"), 0);
  qd_log_msg msg;
  ASSERT_GT(qd_logger_list_read(list.get(), &msg), 0);
  // Records of varied length so that some straddle the end of the ring.
  for (int i = 1; i < 2000; ++i) {
    std::string message = std::to_string(i) + std::string(i % 97, '.');
    ASSERT_GT(qd_log_write(LOG_ID_RADIO, QD_LOG_INFO, "t", message.c_str()), 0);
  }
  std::vector<Record> records = ReadAll(list.get());
  ASSERT_GT(records.size(), 10u);
  EXPECT_GT(std::stoi(records.front().message), 1);
  for (size_t i = 0; i < records.size(); ++i) {
    int n = std::stoi(records[i].message);
    EXPECT_EQ(std::to_string(n) + std::string(n % 97, '.'), records[i].message);
    if (i > 0) {
      EXPECT_EQ(std::stoi(records[i - 1].message) + 1, n);
    }
  }
  EXPECT_EQ(1999, std::stoi(records.back().message));
}

// The way a store folder is prepared before the first record: made by
// root with mode, or by prepare, which is false when the machine cannot run
// the case.
struct StoreCase {
  const char* what;
  bool accepted;
  mode_t mode;
  bool (*prepare)(const std::string& store, const std::string& elsewhere);
};

const StoreCase kStoreCases[] = {
    {"made by root 0750", true, 0750, nullptr},
    {"made by root 0755", true, 0755, nullptr},
    {"setgid for its group of readers", true, 02750, nullptr},
    {"world-writable", false, 01777, nullptr},
    {"group-writable", false, 0770, nullptr},
    {"made first by uid 65534", false, 0,
     [](const std::string& store, const std::string&) {
       return morvotest::RunAsNobody("mkdir -m 0755 " + store) == 0;
     }},
    {"a link to a sound folder", false, 0,
     [](const std::string& store, const std::string& elsewhere) {
       return mkdir(elsewhere.c_str(), 0750) == 0 && symlink(elsewhere.c_str(), store.c_str()) == 0;
     }},
};

bool Prepare(const StoreCase& c, const std::string& store, const std::string& elsewhere) {
  if (c.prepare != nullptr) return c.prepare(store, elsewhere);
  return mkdir(store.c_str(), 0700) == 0 && chmod(store.c_str(), c.mode) == 0;
}

bool FolderHasRings(const std::string& folder) {
  return morvotest::Exists(folder + "/morvo_main") || morvotest::Exists(folder + "/morvo_signal");
}

TEST(LogStoreTrustTest, AStoreFolderOfAnotherUserWritableByOthersOrALinkIsRefused) {
  for (const StoreCase& c : kStoreCases) {
    morvotest::TempRoot root;
    morvotest::OpenTheWayToStore(root);
    std::string store = morvotest::StorePath(root);
    std::string elsewhere = root.Under("/elsewhere");
    if (!Prepare(c, store, elsewhere)) {
      std::cout << "skipped: " << c.what << " (cannot run as uid 65534 here)\n";
      continue;
    }
    int written = qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "m");
    bool read = OpenList(kDrain, 0, 0, {LOG_ID_MAIN}) != nullptr;
    EXPECT_EQ(c.accepted, written > 0) << c.what;
    EXPECT_EQ(c.accepted, read) << c.what;
    if (!c.accepted) {
      EXPECT_FALSE(FolderHasRings(store)) << c.what;
      EXPECT_FALSE(FolderHasRings(elsewhere)) << c.what;
    }
  }
}

TEST(LogStoreTrustTest, TheStoreFolderAndItsFilesAreClosedToOtherUsers) {
  morvotest::TempRoot root;
  mode_t old = umask(0);
  ASSERT_GT(qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "m"), 0);
  ASSERT_TRUE(OpenList(kDrain, 0, 0, {LOG_ID_MAIN, LOG_ID_CRASH}));
  umask(old);
  std::string store = morvotest::StorePath(root);
  struct stat st;
  ASSERT_EQ(0, stat(store.c_str(), &st));
  EXPECT_EQ(0750u, st.st_mode & 07777);
  DIR* dir = opendir(store.c_str());
  ASSERT_NE(nullptr, dir);
  int files = 0;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    ASSERT_EQ(0, stat((store + "/" + entry->d_name).c_str(), &st));
    std::string name = entry->d_name;
    EXPECT_EQ(0u, st.st_mode & 07) << name;
    // The signal page holds no record: readers of the group may ask for
    // wake-ups in it.
    EXPECT_EQ(name == "morvo_signal" ? 0660u : 0640u, st.st_mode & 07777) << name;
    files++;
  }
  closedir(dir);
  EXPECT_EQ(3, files) << "two rings and the signal page, no temporary file";
}

TEST(LogStoreTrustTest, AReaderNeedsOnlyReadPermission) {
  morvotest::TempRoot root;
  morvotest::OpenTheWayToStore(root);
  // Written from a child: the reader below must not inherit this
  // process's writable mapping.
  pid_t writer = RunChild([] {
    for (int i = 0; i < 3; ++i) {
      if (qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", std::to_string(i).c_str()) <= 0) return 1;
    }
    return 0;
  });
  ASSERT_EQ(0, WaitChild(writer));
  // The reader is in the store's group, which may read and not write, not
  // even the signal page: it cannot ask to be woken.
  std::string store = morvotest::StorePath(root);
  const gid_t group = kNobody;
  for (const char* name : {"", "/morvo_main", "/morvo_signal"}) {
    ASSERT_EQ(0, chown((store + name).c_str(), 0, group)) << name;
  }
  ASSERT_EQ(0, chmod((store + "/morvo_signal").c_str(), 0640));
  pid_t reader = RunChild([group] {
    if (!morvotest::BecomeNobody(group)) return 10;
    morvotest::ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
    if (!list) return 2;
    int end = 0;
    if (ReadAll(list.get(), &end).size() != 3 || end != -EAGAIN) return 3;
    // Clearing is writing: refused, and the records stay.
    if (qd_logger_clear(qd_logger_open(list.get(), LOG_ID_MAIN)) != -EACCES) return 4;
    if (qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "w") >= 0) return 5;
    // A blocked read still sees a later record.
    morvotest::ListPtr blocking = OpenList(0, 1, 0, {LOG_ID_MAIN});
    qd_log_msg msg;
    if (!blocking || qd_logger_list_read(blocking.get(), &msg) <= 0) return 6;
    return qd_logger_list_read(blocking.get(), &msg) > 0 && morvotest::Parse(msg).message == "late"
               ? 0
               : 7;
  });
  usleep(300 * 1000);
  pid_t late =
      RunChild([] { return qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, "t", "late") > 0 ? 0 : 1; });
  EXPECT_EQ(0, WaitChild(late));
  int status = WaitChild(reader);
  if (status == 10) GTEST_SKIP() << "cannot become uid 65534 here";
  EXPECT_EQ(0, status);
  morvotest::ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
  ASSERT_TRUE(list);
  EXPECT_EQ(4u, ReadAll(list.get()).size());
}

}  // namespace
