// The thread base, the directory monitor's flushes and its end with its
// group, and the charger event wait, which must never spin.

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "collector/charger_event.h"
#include "collector/group_support.h"
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

void OpenDir(const std::string& dir) {
  DIR* d = opendir(dir.c_str());
  if (d != nullptr) closedir(d);
}

// Opens dir until file holds text once unzipped, within a generous bound.
bool OpensFlush(const std::string& dir, const std::string& file, const std::string& text) {
  for (int tries = 0; tries < 200; ++tries) {
    OpenDir(dir);
    usleep(50 * 1000);
    if (sinktest::Unzipped(file) == text) return true;
  }
  return false;
}

class MonitorTest : public sinktest::SinkTest {};

// On a fresh device the sink's set-up makes the group's folder, then watches it.
TEST_F(MonitorTest, AFolderTheSinkMadeIsWatched) {
  sinktest::OwnSink sink(dir_ + "/fresh/applog", 4096, 10, MMAP_WRITE);
  ASSERT_EQ(sink.SetupOutput(), 0);
  ASSERT_EQ(sink.LogcatWrite("first\n", 6, true), 0);
  EXPECT_TRUE(OpensFlush(dir_ + "/fresh", sink.logFilePath, "first\n"));
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
  sinktest::OwnSink sink(base_, 4096, 10, MMAP_WRITE);
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
  auto* sink = new sinktest::OwnSink(base_, 4096, 10, MMAP_WRITE);
  ASSERT_EQ(sink->SetupOutput(), 0);
  ASSERT_EQ(sink->LogcatWrite("kept\n", 5, true), 0);
  std::string file = sink->logFilePath;
  ASSERT_TRUE(OpensFlush(dir_, file, "kept\n"));  // the monitor is watching
  delete sink;                                    // returns only once the monitor has been joined
  // A monitor still running would now flush a freed group.
  for (int i = 0; i < 20; ++i) OpenDir(dir_);
  usleep(100 * 1000);
  EXPECT_EQ(sinktest::Unzipped(file), "kept\n");
}

TEST_F(MonitorTest, AStoppedMonitorFlushesNoMore) {
  sinktest::OwnSink sink(base_, 4096, 10, MMAP_WRITE);
  ASSERT_EQ(sink.SetupOutput(), 0);
  MonitorDir monitor(base_.c_str());
  monitor.SetupLogBase(&sink);
  ASSERT_TRUE(monitor.Start());
  monitor.Stop();
  monitor.Stop();
  sink.dirMonitor->Stop();
  ASSERT_EQ(sink.LogcatWrite("later\n", 6, true), 0);
  for (int i = 0; i < 20; ++i) OpenDir(dir_);
  usleep(100 * 1000);
  EXPECT_EQ(sinktest::Unzipped(sink.logFilePath), "");
}

TEST_F(MonitorTest, MonitorsWithoutAWatchEndByThemselves) {
  GroupConfig config(base_, 4096, 10);
  TestSink sink(config, TavoCommon::FACTORY_WRITE);  // no monitor of its own
  MonitorDir noFolder("applog");                     // no '/': no folder to watch
  noFolder.SetupLogBase(&sink);
  ASSERT_TRUE(noFolder.Start());
  noFolder.Wait();

  MonitorDir atRoot("/applog");
  atRoot.SetupLogBase(&sink);
  CaptureStderr();
  ASSERT_TRUE(atRoot.Start());
  atRoot.Wait();
  EXPECT_EQ(GetCapturedStderr(), "could not add watch for \n");
}

// A folder missing when the monitor starts (made later at boot) or removed
// and remade by a tool is watched once it is there.
TEST_F(MonitorTest, ALateOrRemadeFolderIsWatchedOnceItIsThere) {
  for (const char* path : {"/data/log/ksv_log", "/data/log/late"}) {
    for (bool watchedFirst : {false, true}) {
      SCOPED_TRACE(std::string(path) + (watchedFirst ? " remade" : " missing"));
      std::string folder = root_.Under(path);
      sinktest::OwnSink sink(base_, 4096, 10, MMAP_WRITE);
      ASSERT_EQ(sink.SetupOutput(), 0);
      sink.dirMonitor->Stop();  // only the monitor under test flushes
      ASSERT_EQ(sink.LogcatWrite("first\n", 6, true), 0);
      root_.MakeDirs("/data/log/late");
      if (!watchedFirst) {
        ASSERT_EQ(0, rmdir(folder.c_str()));
      }
      MonitorDir monitor((root_.Under("/data/log/late") + "/applog").c_str());
      monitor.SetupLogBase(&sink);
      CaptureStderr();
      ASSERT_TRUE(monitor.Start());
      if (watchedFirst) {
        ASSERT_TRUE(OpensFlush(folder, sink.logFilePath, "first\n"));
        ASSERT_EQ(0, rmdir(folder.c_str()));
        ASSERT_EQ(sink.LogcatWrite("second\n", 7, true), 0);
      }
      usleep(300 * 1000);
      mkdir(folder.c_str(), 0775);
      EXPECT_TRUE(
          OpensFlush(folder, sink.logFilePath, watchedFirst ? "first\nsecond\n" : "first\n"));
      monitor.Stop();
      size_t said =
          grouptest::Count(GetCapturedStderr(), "could not add watch for " + folder + "\n");
      EXPECT_GE(1u, said);
      if (!watchedFirst) {
        EXPECT_EQ(1u, said);
      }
    }
  }
}

// A charge-event node that cannot be seeked (a FIFO planted there, opened
// without a writer) is neither blocked on nor spun on: the wait tries again
// after a pause, so over a second and a half it returns a few times, not
// thousands.
TEST(ChargerEvent, AnUnseekableNodeIsWaitedOnNotSpunOn) {
  morvotest::TempRoot root;
  root.MakeDirs("/sys/class/qd_power/bq_bci");
  std::string node = root.Under("/sys/class/qd_power/bq_bci/poll_charge_start_event");
  ASSERT_EQ(0, mkfifo(node.c_str(), 0600));
  std::atomic<bool> stop{false};
  std::atomic<int> calls{0};
  std::thread waiter([&] {
    while (!stop) {
      EXPECT_FALSE(ChargerEventChanged());
      ++calls;
    }
  });
  usleep(1500 * 1000);
  int returned = calls;
  // An open held on the FIFO is let go by a writer, so the thread can end.
  stop = true;
  int writer = open(node.c_str(), O_WRONLY | O_NONBLOCK);
  waiter.join();
  if (writer >= 0) close(writer);
  EXPECT_GE(returned, 1);
  EXPECT_LE(returned, 5);
}

}  // namespace
