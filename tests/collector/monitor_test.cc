// The thread base and the directory monitor: flushes on directory opens,
// one per directory record, and a monitor that ends with its group.

#include <dirent.h>
#include <string.h>
#include <sys/inotify.h>
#include <time.h>

#include <atomic>
#include <string>

#include <gtest/gtest.h>

#include "collector/monitor_dir.h"
#include "collector/thread_base.h"
#include "sink_support.h"

namespace {

using sinktest::GroupConfig;
using sinktest::TestSink;
using TavoCommon::MMAP_WRITE;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

class CountingThread : public ThreadBase {
 public:
  ~CountingThread() override { Wait(); }
  void Run() override { ++runs; }
  std::atomic<int> runs{0};
};

TEST(ThreadBaseTest, StartsOneThreadAndWaitForgetsIt) {
  CountingThread thread;
  thread.Wait();  // idle: returns at once
  ASSERT_TRUE(thread.Start());
  EXPECT_TRUE(thread.Start());  // already recorded, even once it has ended
  thread.Wait();
  EXPECT_EQ(thread.runs.load(), 1);
  ASSERT_TRUE(thread.Start());
  thread.Wait();
  EXPECT_EQ(thread.runs.load(), 2);
  EXPECT_EQ(ThreadBase::ProxyFunction(nullptr), nullptr);
}

void Pause(long millis) {
  struct timespec pause = {0, millis * 1000000L};
  nanosleep(&pause, nullptr);
}

void OpenDir(const std::string& dir) {
  DIR* d = opendir(dir.c_str());
  if (d != nullptr) closedir(d);
}

// Opens dir until file holds text once unzipped; false when it never does
// within a generous bound.
bool OpensFlush(const std::string& dir, const std::string& file, const std::string& text) {
  for (int tries = 0; tries < 200; ++tries) {
    OpenDir(dir);
    Pause(50);
    if (sinktest::Unzipped(file) == text) return true;
  }
  return false;
}

class MonitorTest : public sinktest::SinkTest {};

TEST_F(MonitorTest, OpeningEitherLogFolderFlushesTheWriter) {
  GroupConfig config(base_, 4096, 10);
  TestSink sink(config, MMAP_WRITE);
  ASSERT_EQ(sink.SetupOutput(), 0);
  ASSERT_EQ(sink.LogcatWrite("first\n", 6, true), 0);
  EXPECT_TRUE(OpensFlush(dir_, sink.logFilePath, "first\n"));
  ASSERT_EQ(sink.LogcatWrite("second\n", 7, true), 0);
  EXPECT_TRUE(OpensFlush(root_.Under("/data/log/ksv_log"), sink.logFilePath, "first\nsecond\n"));
}

// On a fresh device the group's folder is made by the sink's set-up; the
// monitor must still watch it.
TEST_F(MonitorTest, AGroupFolderMadeAtSetUpIsWatched) {
  std::string fresh = dir_ + "/fresh";
  GroupConfig config(fresh + "/applog", 4096, 10);
  TestSink sink(config, MMAP_WRITE);
  ASSERT_EQ(sink.SetupOutput(), 0);
  ASSERT_EQ(sink.LogcatWrite("first\n", 6, true), 0);
  EXPECT_TRUE(OpensFlush(fresh, sink.logFilePath, "first\n"));
}

// n inotify records: the masks, each followed by a name of name bytes.
std::string Events(std::initializer_list<uint32_t> masks, uint32_t name) {
  std::string buffer;
  for (uint32_t mask : masks) {
    struct inotify_event event;
    memset(&event, 0, sizeof(event));
    event.wd = 1;
    event.mask = mask;
    event.len = name;
    buffer.append(reinterpret_cast<const char*>(&event), sizeof(event));
    buffer.append(name, '\0');
  }
  return buffer;
}

TEST_F(MonitorTest, EachDirectoryRecordOfOneReadFlushesOnce) {
  GroupConfig config(base_, 4096, 10);
  TestSink sink(config, MMAP_WRITE);
  ASSERT_EQ(sink.SetupOutput(), 0);
  ASSERT_EQ(sink.LogcatWrite("cached\n", 7, true), 0);
  MonitorDir monitor(base_.c_str());
  monitor.SetupLogBase(&sink);
  std::string events = Events({IN_OPEN, IN_OPEN | IN_ISDIR, IN_OPEN, IN_OPEN | IN_ISDIR}, 16);
  EXPECT_EQ(monitor.HandleEvents(events.data(), static_cast<ssize_t>(events.size())), 2);
  EXPECT_EQ(sinktest::Unzipped(sink.logFilePath), "cached\n");
  std::string bare = Events({IN_OPEN | IN_ISDIR, IN_OPEN | IN_ISDIR, IN_OPEN | IN_ISDIR}, 0);
  EXPECT_EQ(monitor.HandleEvents(bare.data(), static_cast<ssize_t>(bare.size())), 3);
  std::string files = Events({IN_OPEN, IN_OPEN}, 32);
  EXPECT_EQ(monitor.HandleEvents(files.data(), static_cast<ssize_t>(files.size())), 0);
  // A record whose name would run past the bytes read is not taken.
  std::string cut = Events({IN_OPEN | IN_ISDIR, IN_OPEN | IN_ISDIR}, 16);
  cut.resize(cut.size() - 1);
  EXPECT_EQ(monitor.HandleEvents(cut.data(), static_cast<ssize_t>(cut.size())), 1);
}

TEST_F(MonitorTest, DestroyingTheGroupStopsItsMonitor) {
  GroupConfig config(base_, 4096, 10);
  auto* sink = new TestSink(config, MMAP_WRITE);
  ASSERT_EQ(sink->SetupOutput(), 0);
  ASSERT_EQ(sink->LogcatWrite("kept\n", 5, true), 0);
  std::string file = sink->logFilePath;
  ASSERT_TRUE(OpensFlush(dir_, file, "kept\n"));  // the monitor is watching
  delete sink;  // returns only once the monitor has been joined
  // A monitor still running would now flush a freed group.
  for (int i = 0; i < 20; ++i) OpenDir(dir_);
  Pause(100);
  EXPECT_EQ(sinktest::Unzipped(file), "kept\n");
}

TEST_F(MonitorTest, AStoppedMonitorFlushesNoMore) {
  GroupConfig config(base_, 4096, 10);
  TestSink sink(config, MMAP_WRITE);
  ASSERT_EQ(sink.SetupOutput(), 0);
  MonitorDir monitor(base_.c_str());
  monitor.SetupLogBase(&sink);
  ASSERT_TRUE(monitor.Start());
  monitor.Stop();
  monitor.Stop();
  sink.dirMonitor->Stop();
  ASSERT_EQ(sink.LogcatWrite("later\n", 6, true), 0);
  for (int i = 0; i < 20; ++i) OpenDir(dir_);
  Pause(100);
  EXPECT_EQ(sinktest::Unzipped(sink.logFilePath), "");
}

TEST_F(MonitorTest, MonitorsWithoutAWatchEndByThemselves) {
  GroupConfig config(base_, 4096, 10);
  TestSink sink(config, TavoCommon::FACTORY_WRITE);  // no monitor of its own
  MonitorDir noFolder("applog");  // no '/': no folder to watch
  noFolder.SetupLogBase(&sink);
  ASSERT_TRUE(noFolder.Start());
  noFolder.Wait();

  MonitorDir atRoot("/applog");
  atRoot.SetupLogBase(&sink);
  CaptureStderr();
  ASSERT_TRUE(atRoot.Start());
  atRoot.Wait();
  EXPECT_EQ(GetCapturedStderr(), "could not add watch for \n");

  rmdir(root_.Under("/data/log/ksv_log").c_str());
  MonitorDir noKsv(base_.c_str());
  noKsv.SetupLogBase(&sink);
  CaptureStderr();
  ASSERT_TRUE(noKsv.Start());
  noKsv.Wait();
  EXPECT_EQ(GetCapturedStderr(),
            "could not add watch for " + root_.Under("/data/log/ksv_log") + "\n");
}

}  // namespace
