#ifndef MORVOCAT_TESTS_PLATFORM_LOG_STORE_SUPPORT_H_
#define MORVOCAT_TESTS_PLATFORM_LOG_STORE_SUPPORT_H_

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/logger.h"
#include "support/planted.h"
#include "support/temp_root.h"

namespace morvotest {

constexpr int kDrain = QD_LOGGER_MODE_NONBLOCK;

struct Record {
  uint32_t lid = 0;
  int32_t pid = 0;
  uint32_t tid = 0;
  uint64_t stamp = 0;
  int priority = 0;
  std::string tag;
  std::string message;
};

inline Record Parse(const qd_log_msg& msg) {
  Record r;
  r.lid = msg.entry.lid;
  r.pid = msg.entry.pid;
  r.tid = msg.entry.tid;
  r.stamp = static_cast<uint64_t>(msg.entry.sec) * 1000000000ULL + msg.entry.nsec;
  const char* payload = reinterpret_cast<const char*>(msg.buf) + msg.entry.hdr_size;
  r.priority = static_cast<unsigned char>(payload[0]);
  r.tag = payload + 1;
  r.message = payload + 2 + r.tag.size();
  return r;
}

struct ListDeleter {
  void operator()(qd_logger_list* list) const { qd_logger_list_free(list); }
};
using ListPtr = std::unique_ptr<qd_logger_list, ListDeleter>;
using Strings = std::vector<std::string>;

inline ListPtr OpenList(int mode, unsigned int tail, pid_t pid, std::vector<log_id_t> ids) {
  ListPtr list(qd_logger_list_alloc(mode, tail, pid));
  if (!list) return nullptr;
  for (log_id_t id : ids) {
    if (qd_logger_open(list.get(), id) == nullptr) return nullptr;
  }
  return list;
}

inline std::vector<Record> ReadAll(qd_logger_list* list, int* end = nullptr) {
  std::vector<Record> records;
  qd_log_msg msg;
  int rc;
  while ((rc = qd_logger_list_read(list, &msg)) > 0) records.push_back(Parse(msg));
  if (end != nullptr) *end = rc;
  return records;
}

inline std::vector<std::string> Messages(const std::vector<Record>& records) {
  std::vector<std::string> messages;
  for (const Record& r : records) messages.push_back(r.message);
  return messages;
}

inline std::vector<std::string> MessagesOf(std::vector<log_id_t> ids, unsigned tail = 0) {
  ListPtr list = OpenList(kDrain, tail, 0, ids);
  if (!list) return {"(does not open)"};
  return Messages(ReadAll(list.get()));
}

inline void Patch(const std::string& path, size_t offset, const std::string& bytes) {
  int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
            pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset)));
  close(fd);
}

template <class T>
inline std::string BytesOf(T value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}

inline int Log(log_id_t id, const std::string& message, const char* tag = "t") {
  return qd_log_write(id, QD_LOG_INFO, tag, message.c_str());
}

inline bool SetRingSize(log_id_t id, long size) {
  ListPtr list = OpenList(kDrain, 0, 0, {id});
  return list && qd_logger_set_log_size(qd_logger_open(list.get(), id), size) == 0;
}

// A child whose exit status is body's result; its alarm ends a hang.
template <typename Body>
pid_t RunChild(Body body) {
  pid_t pid = fork();
  if (pid == 0) {
    alarm(60);
    _exit(body());
  }
  return pid;
}

inline int WaitChild(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

// So that this process keeps no mapping of the ring written to.
inline bool WriteInChild(log_id_t id, const char* message) {
  return WaitChild(RunChild([id, message] { return Log(id, message) > 0 ? 0 : 1; })) == 0;
}

// Each store test runs under its own root; list is main's, once OpenMain made it.
struct StoreTest : ::testing::Test {
  bool OpenMain() { return (list = OpenList(kDrain, 0, 0, {LOG_ID_MAIN})) != nullptr; }
  TempRoot root;
  ListPtr list;
};

struct Gate {
  int fds[2] = {-1, -1};
  Gate() {
    if (pipe(fds) != 0) fds[0] = fds[1] = -1;
  }
  ~Gate() {
    close(fds[0]);
    close(fds[1]);
  }
  void Open() const {
    if (write(fds[1], "r", 1) != 1) _exit(9);
  }
  bool AwaitOpen() const {
    char c;
    return read(fds[0], &c, 1) == 1;
  }
};

inline std::string StorePath(const TempRoot& root) { return root.Under(MORVO_LOG_STORE_DIR); }
inline std::string RingPath(const TempRoot& root, const char* name) {
  return StorePath(root) + "/" + name;
}

// As on a host where /dev/shm is open to every user (the root is made for root only).
inline void OpenTheWayToStore(const TempRoot& root) {
  root.MakeDirs("/dev/shm");
  chmod(root.path().c_str(), 0755);
  chmod(root.Under("/dev").c_str(), 0755);
  chmod(root.Under("/dev/shm").c_str(), 01777);
}

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_PLATFORM_LOG_STORE_SUPPORT_H_
