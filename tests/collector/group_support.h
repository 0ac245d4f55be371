#ifndef MORVOCAT_TESTS_COLLECTOR_GROUP_SUPPORT_H_
#define MORVOCAT_TESTS_COLLECTOR_GROUP_SUPPORT_H_

// Group records, a bounded wait, the processes left running, input_event records.

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "collector/wait_point.h"
#include "config/tavo_common.h"
#include "support/temp_root.h"

namespace grouptest {

struct GroupRecord {
  explicit GroupRecord(const std::string& output, size_t rotateKbytes = 4096, size_t maxFiles = 10)
      : path(output) {
    info.rotateSizeKbytes = rotateKbytes;
    info.maxCompressdFiles = maxFiles;
    group.info = &info;
    group.outputFilePath = &path[0];
  }
  GroupRecord(const std::string& output, TavoCommon::LogStyle style, void* inputSet = nullptr)
      : GroupRecord(output) {
    group.style = style;
    group.inputSet = inputSet;
  }
  GroupRecord(const GroupRecord&) = delete;
  GroupRecord& operator=(const GroupRecord&) = delete;
  std::string path;
  TavoCommon::TavocatInfoT info{};
  TavoCommon::TavocatGroupT group{};
};

// body run as a group's thread, stopped only where it waits, as the teardown does.
class GroupThread {
 public:
  explicit GroupThread(std::function<void()> body) : body_(std::move(body)) {
    started_ = pthread_create(&thread_, nullptr, Run, this) == 0;
  }
  ~GroupThread() { Stop(); }
  GroupThread(const GroupThread&) = delete;
  GroupThread& operator=(const GroupThread&) = delete;
  bool started() const { return started_; }
  void Stop() {
    if (!started_) return;
    pthread_cancel(thread_);
    pthread_join(thread_, nullptr);
    started_ = false;
  }

 private:
  static void* Run(void* self) {
    WaitPoint::CloseOutsideWaits();
    static_cast<GroupThread*>(self)->body_();
    return nullptr;
  }
  std::function<void()> body_;
  pthread_t thread_;
  bool started_ = false;
};

inline bool WaitFor(const std::function<bool()>& done) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// Living processes whose command line holds marker (zombies have none).
inline int ProcessesWith(const std::string& marker) {
  int count = 0;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return -1;
  while (struct dirent* entry = readdir(proc)) {
    std::string cmdline = morvotest::ReadFile(std::string("/proc/") + entry->d_name + "/cmdline");
    if (cmdline.find(marker) != std::string::npos) ++count;
  }
  closedir(proc);
  return count;
}

inline void Append(const std::string& path, const std::string& text) {
  FILE* file = fopen(path.c_str(), "a");
  fwrite(text.data(), 1, text.size(), file);
  fclose(file);
}

struct Event {
  int64_t sec, usec;
  uint16_t type, code;
  int32_t value;
};
static_assert(sizeof(Event) == 24, "the kernel's record on a 64-bit system");

inline bool Send(int fd, const Event& event) {
  return write(fd, &event, sizeof(event)) == static_cast<ssize_t>(sizeof(event));
}

inline size_t Count(const std::string& text, const std::string& piece) {
  size_t count = 0;
  for (size_t pos = text.find(piece); pos != std::string::npos; pos = text.find(piece, pos + 1)) {
    ++count;
  }
  return count;
}

}  // namespace grouptest

#endif  // MORVOCAT_TESTS_COLLECTOR_GROUP_SUPPORT_H_
