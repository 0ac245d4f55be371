#ifndef MORVOCAT_TESTS_COLLECTOR_SINK_SUPPORT_H_
#define MORVOCAT_TESTS_COLLECTOR_SINK_SUPPORT_H_

// A group sink with its fields opened up, and ways to read back what it wrote.

#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "collector/group_support.h"
#include "collector/monitor_dir.h"
#include "collector/tavobase.h"
#include "config/tavo_common.h"
#include "support/file_tree.h"
#include "support/gzip_text.h"
#include "support/planted.h"

namespace sinktest {

using GroupConfig = grouptest::GroupRecord;

class TestSink : public Tavobase {
 public:
  TestSink(const GroupConfig& config, TavoCommon::TypeWrite mode) : Tavobase(&config.group, mode) {}
  explicit TestSink(TavoCommon::TypeWrite mode) : Tavobase(nullptr, mode) {}
  using FileSet::fileVec;
  using FileSet::maxFiles;
  using Tavobase::curFileSize;
  using Tavobase::dirMonitor;
  using Tavobase::kRetryMillis;
  using Tavobase::logFd;
  using Tavobase::logFilePath;
  using Tavobase::prevLinkPath;
  using Tavobase::recordEnded;
  using Tavobase::rotateSizeKbytes;
  using Tavobase::tavoWriter;
  // Written at the top of every new file in two writes, as a title row is.
  std::string title;
  int opens = 0;
  // Without the monitor, what was written waits in the cache for the sink.
  void StopMonitor() {
    delete dirMonitor;
    dirMonitor = nullptr;
  }
  // Set: the sink's clocks stand where the test puts them.
  bool stillClocks = false;
  timeval wall{};
  int64_t millis = 0;

 protected:
  void openLogFilePost() override {
    ++opens;
    if (title.empty()) return;
    size_t half = title.size() / 2;
    LogcatWrite(title.data(), half, false);
    LogcatWrite(title.data() + half, title.size() - half, true);
  }
  void WallClock(timeval* now) const override {
    if (!stillClocks) return Tavobase::WallClock(now);
    *now = wall;
  }
  int64_t MonotonicMillis() const override {
    return stillClocks ? millis : Tavobase::MonotonicMillis();
  }
};

class OwnSink : private GroupConfig, public TestSink {
 public:
  OwnSink(const std::string& path, size_t kbytes, size_t maxFiles, TavoCommon::TypeWrite mode)
      : GroupConfig(path, kbytes, maxFiles), TestSink(*this, mode) {}
};

inline std::string LinkTarget(const std::string& path) {
  char target[4096];
  ssize_t n = readlink(path.c_str(), target, sizeof(target));
  return n < 0 ? std::string() : std::string(target, static_cast<size_t>(n));
}

inline bool IsLink(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

// The group's folder exists; a fake "chown" first on PATH must never run.
class SinkTest : public morvotest::LogFolderTest {
 protected:
  SinkTest() : LogFolderTest("/data/log/group") {}
  void TearDown() override { EXPECT_FALSE(chown_.Ran()) << "a chown found through PATH ran"; }
  morvotest::FakeChownOnPath chown_{root_.path()};
};

}  // namespace sinktest

#endif  // MORVOCAT_TESTS_COLLECTOR_SINK_SUPPORT_H_
