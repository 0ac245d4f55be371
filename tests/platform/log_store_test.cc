#include <errno.h>
#include <sys/syscall.h>

#include <iostream>

#include "platform/log_format.h"
#include "tests/platform/log_store_support.h"

namespace morvotest {
namespace {

using LogStoreTest = StoreTest;
using LogStoreTrustTest = StoreTest;

TEST(LogIdsTest, NamesAndIdsRoundTripAndUnknownsAreRefused) {
  const char* names[] = {"morvo_main",  "morvo_radio", "morvo_events",   "morvo_system",
                         "morvo_crash", "morvo_stats", "morvo_security", "morvo_kernel"};
  for (int id = 0; id < LOG_ID_MAX; ++id) {
    EXPECT_STREQ(names[id], qdlogging_log_id_to_name(static_cast<log_id_t>(id)));
    EXPECT_EQ(id, qdlogging_name_to_log_id(names[id]));
  }
  for (const char* name : {"main", "morvo_main ", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(LOG_ID_MAX, qdlogging_name_to_log_id(name));
  }
  EXPECT_STREQ("", qdlogging_log_id_to_name(LOG_ID_MAX));
  EXPECT_STREQ("", qdlogging_log_id_to_name(static_cast<log_id_t>(-1)));
}

TEST_F(LogStoreTest, RecordsComeBackWholeWithTheWritersIds) {
  ASSERT_EQ(13, qd_log_write(LOG_ID_MAIN, QD_LOG_WARN, "tag", "message"));
  ASSERT_EQ(3, qd_log_write(LOG_ID_MAIN, QD_LOG_INFO, nullptr, nullptr));
  ASSERT_TRUE(OpenMain());
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
  Record empty = Parse(msg);
  EXPECT_EQ("", empty.tag + empty.message);
  EXPECT_EQ(-EAGAIN, qd_logger_list_read(list.get(), &msg));
  EXPECT_TRUE(Exists(root.Under(MORVO_LOG_STORE_DIR "/morvo_main")));
}

TEST_F(LogStoreTest, WritesAreCheckedAndOverlongTextIsCutToThePayload) {
  EXPECT_EQ(-EINVAL, qd_log_write(LOG_ID_MAX, QD_LOG_INFO, "t", "m"));
  EXPECT_EQ(-EINVAL, qd_log_write(-1, QD_LOG_INFO, "t", "m"));
  EXPECT_EQ(-EINVAL, qd_log_write(LOG_ID_MAIN, 9, "t", "m"));
  std::string longText(6000, 'x');
  EXPECT_EQ(QD_LOGGER_ENTRY_MAX_PAYLOAD, Log(LOG_ID_MAIN, longText, "tag"));
  EXPECT_EQ(QD_LOGGER_ENTRY_MAX_PAYLOAD, Log(LOG_ID_MAIN, "m", longText.c_str()));
  ASSERT_TRUE(OpenMain());
  std::vector<Record> records = ReadAll(list.get());
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ(std::string(QD_LOGGER_ENTRY_MAX_PAYLOAD - 6, 'x'), records[0].message);
  EXPECT_EQ(std::string(QD_LOGGER_ENTRY_MAX_PAYLOAD - 3, 'x'), records[1].tag);
  EXPECT_EQ("", records[1].message);
}

TEST_F(LogStoreTest, OpenRefusesBadIdsAndReadNeedsAnOpenBuffer) {
  ListPtr list(qd_logger_list_alloc(kDrain, 0, 0));
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

// What happens to a quiet buffer mid-read, after the reader found it had nothing.
struct MidRead {
  const char* what;
  bool (*happen)();
};

bool ResizeSystem() { return SetRingSize(LOG_ID_SYSTEM, 65536); }

const MidRead kMidReads[] = {
    {"a record", [] { return true; }},
    {"a resize by another list, then a record", ResizeSystem},
    {"a resize in another process, then a record",
     [] { return WaitChild(RunChild([] { return ResizeSystem() ? 0 : 1; })) == 0; }},
};

TEST_F(LogStoreTest, AQuietBufferThatGetsARecordMidReadIsMergedInTimeOrder) {
  for (const MidRead& c : kMidReads) {
    SCOPED_TRACE(c.what);
    TempRoot root;
    for (int i = 0; i < 4; ++i) ASSERT_GT(Log(LOG_ID_MAIN, std::to_string(i)), 0);
    ASSERT_GT(Log(LOG_ID_CRASH, "crash"), 0);
    ASSERT_GT(Log(LOG_ID_RADIO, "radio is not open"), 0);
    ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_MAIN, LOG_ID_SYSTEM, LOG_ID_CRASH});
    ASSERT_TRUE(list);
    qd_log_msg msg;
    ASSERT_GT(qd_logger_list_read(list.get(), &msg), 0);
    EXPECT_EQ("0", Parse(msg).message);
    ASSERT_TRUE(c.happen());
    ASSERT_GT(Log(LOG_ID_SYSTEM, "system"), 0);
    ASSERT_GT(Log(LOG_ID_MAIN, "4"), 0);
    int end = 0;
    std::vector<Record> records = ReadAll(list.get(), &end);
    EXPECT_EQ(-EAGAIN, end);
    ASSERT_EQ((Strings{"1", "2", "3", "crash", "system", "4"}), Messages(records));
    EXPECT_EQ(LOG_ID_SYSTEM, log_id_t(records[4].lid));
    ASSERT_GT(Log(LOG_ID_CRASH, "crash again"), 0);
    EXPECT_EQ(Strings{"crash again"}, Messages(ReadAll(list.get())));
  }
}

TEST_F(LogStoreTest, TailTakesTheLastRecordsAcrossBuffersThenFollows) {
  for (int i = 0; i < 10; ++i) {
    ASSERT_GT(Log(i % 3 == 0 ? LOG_ID_SYSTEM : LOG_ID_MAIN, std::to_string(i)), 0);
  }
  ListPtr list = OpenList(kDrain, 4, 0, {LOG_ID_MAIN, LOG_ID_SYSTEM});
  ASSERT_TRUE(list);
  EXPECT_EQ((Strings{"6", "7", "8", "9"}), Messages(ReadAll(list.get())));
  EXPECT_EQ(10u, MessagesOf({LOG_ID_MAIN, LOG_ID_SYSTEM}, 100).size());
  ASSERT_GT(Log(LOG_ID_MAIN, "later"), 0);
  EXPECT_EQ(Strings{"later"}, Messages(ReadAll(list.get())));
}

TEST_F(LogStoreTest, PidFilterKeepsOnlyThatProcessesRecordsAlsoInTheTail) {
  ASSERT_GT(Log(LOG_ID_MAIN, "parent before"), 0);
  pid_t child = RunChild([] {
    for (int i = 0; i < 3; ++i) {
      if (Log(LOG_ID_MAIN, "child " + std::to_string(i)) < 0) return 1;
    }
    return 0;
  });
  ASSERT_EQ(0, WaitChild(child));
  ASSERT_GT(Log(LOG_ID_MAIN, "parent after"), 0);
  for (unsigned tail : {0u, 2u}) {
    ListPtr list = OpenList(kDrain, tail, child, {LOG_ID_MAIN});
    ASSERT_TRUE(list);
    std::vector<Record> records = ReadAll(list.get());
    for (const Record& r : records) EXPECT_EQ(child, r.pid);
    Strings expected = {"child 0", "child 1", "child 2"};
    if (tail != 0) expected.erase(expected.begin());
    EXPECT_EQ(expected, Messages(records)) << tail;
  }
}

TEST_F(LogStoreTest, SetSizeIsCheckedAndKeepsTheNewestRecordsThatFit) {
  ASSERT_TRUE(OpenMain());
  qd_logger* main = qd_logger_open(list.get(), LOG_ID_MAIN);
  EXPECT_EQ(-EINVAL, qd_logger_set_log_size(main, 4095));
  EXPECT_EQ(-EINVAL, qd_logger_set_log_size(main, 512UL * 1024 * 1024));
  std::string text(100, 'm');
  for (int i = 0; i < 200; ++i) ASSERT_GT(Log(LOG_ID_MAIN, text, std::to_string(i).c_str()), 0);
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

TEST_F(LogStoreTest, RingDropsTheOldestRecordsWholeAndSlowReadersSkipForward) {
  ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_RADIO});
  ASSERT_TRUE(list);
  ASSERT_EQ(0, qd_logger_set_log_size(qd_logger_open(list.get(), LOG_ID_RADIO), 4096));
  ASSERT_GT(Log(LOG_ID_RADIO, "0"), 0);
  qd_log_msg msg;
  ASSERT_GT(qd_logger_list_read(list.get(), &msg), 0);
  // Records of varied length so that some straddle the end of the ring.
  for (int i = 1; i < 2000; ++i) {
    ASSERT_GT(Log(LOG_ID_RADIO, std::to_string(i) + std::string(i % 97, '.')), 0);
  }
  std::vector<Record> records = ReadAll(list.get());
  ASSERT_GT(records.size(), 10u);
  int first = std::stoi(records.front().message);
  EXPECT_GT(first, 1);
  for (size_t i = 0; i < records.size(); ++i) {
    int n = first + static_cast<int>(i);
    EXPECT_EQ(std::to_string(n) + std::string(n % 97, '.'), records[i].message);
  }
  EXPECT_EQ("1999", records.back().message.substr(0, 4));
}

// Made by root with mode, or by prepare, false when the machine cannot run the case.
// clang-format off
struct StoreCase { const char* what; bool accepted; mode_t mode; bool (*prepare)(const std::string& store, const std::string& elsewhere); };
const StoreCase kStoreCases[] = {
    {"made by root 0755", true, 0755, nullptr},
    {"setgid for its group of readers", true, 02750, nullptr},
    {"world-writable", false, 01777, nullptr},
    {"group-writable", false, 0770, nullptr},
    {"made first by uid 65534", false, 0, [](const std::string& store, const std::string&) {
       return system(("setpriv --reuid=65534 --regid=65534 --clear-groups mkdir -m 0755 " + store).c_str()) == 0; }},
    {"a link to a sound folder", false, 0, [](const std::string& store, const std::string& other) {
       return mkdir(other.c_str(), 0750) == 0 && symlink(other.c_str(), store.c_str()) == 0; }},
};
// clang-format on

bool FolderHasRings(const std::string& folder) {
  return Exists(folder + "/morvo_main") || Exists(folder + "/morvo_signal");
}

TEST_F(LogStoreTrustTest, AStoreFolderOfAnotherUserWritableByOthersOrALinkIsRefused) {
  for (const StoreCase& c : kStoreCases) {
    SCOPED_TRACE(c.what);
    TempRoot root;
    OpenTheWayToStore(root);
    std::string store = StorePath(root), elsewhere = root.Under("/elsewhere");
    if (c.prepare != nullptr ? !c.prepare(store, elsewhere)
                             : mkdir(store.c_str(), 0700) != 0 || chmod(store.c_str(), c.mode)) {
      std::cout << "skipped: " << c.what << " (cannot run as uid 65534 here)\n";
      continue;
    }
    EXPECT_EQ(c.accepted, Log(LOG_ID_MAIN, "m") > 0);
    EXPECT_EQ(c.accepted, OpenList(kDrain, 0, 0, {LOG_ID_MAIN}) != nullptr);
    EXPECT_FALSE(!c.accepted && (FolderHasRings(store) || FolderHasRings(elsewhere)));
  }
}

TEST_F(LogStoreTrustTest, TheStoreFolderAndItsFilesAreClosedToOtherUsers) {
  mode_t old = umask(0);
  ASSERT_GT(Log(LOG_ID_MAIN, "m"), 0);
  ASSERT_TRUE(OpenList(kDrain, 0, 0, {LOG_ID_MAIN, LOG_ID_CRASH}));
  umask(old);
  std::string store = StorePath(root);
  struct stat st;
  ASSERT_EQ(0, stat(store.c_str(), &st));
  EXPECT_EQ(0750u, st.st_mode & 07777);
  // Readers of the group may ask for wake-ups in the signal page, which holds no record.
  Strings names = Entries(store);
  EXPECT_EQ((Strings{"morvo_crash", "morvo_main", "morvo_signal"}), names);
  for (const std::string& name : names) {
    ASSERT_EQ(0, stat((store + "/" + name).c_str(), &st));
    EXPECT_EQ(name == "morvo_signal" ? 0660u : 0640u, st.st_mode & 07777) << name;
  }
}

TEST_F(LogStoreTrustTest, AReaderNeedsOnlyReadPermission) {
  OpenTheWayToStore(root);
  // From a child: the reader below must not inherit a writable mapping.
  pid_t writer = RunChild([] {
    for (int i = 0; i < 3; ++i) {
      if (Log(LOG_ID_MAIN, std::to_string(i)) <= 0) return 1;
    }
    return 0;
  });
  ASSERT_EQ(0, WaitChild(writer));
  // The store's group may read, and not write even the signal page.
  std::string store = StorePath(root);
  const gid_t group = kNobody;
  for (const char* name : {"", "/morvo_main", "/morvo_signal"}) {
    ASSERT_EQ(0, chown((store + name).c_str(), 0, group)) << name;
  }
  ASSERT_EQ(0, chmod((store + "/morvo_signal").c_str(), 0640));
  pid_t reader = RunChild([group] {
    if (setgroups(0, nullptr) != 0 || setgid(group) != 0 || setuid(kNobody) != 0) return 10;
    ListPtr list = OpenList(kDrain, 0, 0, {LOG_ID_MAIN});
    if (!list) return 2;
    int end = 0;
    if (ReadAll(list.get(), &end).size() != 3 || end != -EAGAIN) return 3;
    // Clearing is writing: refused, and the records stay.
    if (qd_logger_clear(qd_logger_open(list.get(), LOG_ID_MAIN)) != -EACCES) return 4;
    if (Log(LOG_ID_MAIN, "w") >= 0) return 5;
    // A blocked read still sees a later record.
    ListPtr blocking = OpenList(0, 1, 0, {LOG_ID_MAIN});
    qd_log_msg msg;
    if (!blocking || qd_logger_list_read(blocking.get(), &msg) <= 0) return 6;
    return qd_logger_list_read(blocking.get(), &msg) > 0 && Parse(msg).message == "late" ? 0 : 7;
  });
  usleep(300 * 1000);
  EXPECT_TRUE(WriteInChild(LOG_ID_MAIN, "late"));
  int status = WaitChild(reader);
  if (status == 10) GTEST_SKIP() << "cannot become uid 65534 here";
  EXPECT_EQ(0, status);
  EXPECT_EQ(4u, MessagesOf({LOG_ID_MAIN}).size());
}

}  // namespace
}  // namespace morvotest
