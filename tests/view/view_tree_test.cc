// morvo-view over trees the project's own writers made.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "collector/sink_support.h"
#include "filesets/morvocat_utils.h"
#include "platform/gzip_member.h"
#include "support/log_set.h"
#include "view/view_run.h"

namespace {

using viewtest::Lines;
using viewtest::RunView;

// A UTC clock stands in for the local one.
std::string Format(time_t t, const char* format) { return morvotest::TimeText(t, format, true); }

time_t Utc(const char* text) {
  struct tm tm {};
  strptime(text, "%Y-%m-%d %H:%M:%S", &tm);
  return timegm(&tm);
}

std::string ThreadTimeLine(time_t t, long seq) {
  return Format(t, "%m-%d %H:%M:%S") + ".000  100  101 I seq     : seq " + std::to_string(seq) +
         "\n";
}

std::vector<std::string> JsonTimes(const std::string& out) {
  std::vector<std::string> times;
  for (const std::string& line : Lines(out)) {
    size_t at = line.find("\"time\":\"");
    times.push_back(at == std::string::npos ? "" : line.substr(at + 8, 23));
  }
  return times;
}

using morvotest::Counting;

// A collector group: count records "<prefix> seq N", title atop each file.
void WriteGroup(const std::string& base, TavoCommon::TypeWrite mode, const std::string& prefix,
                long count, const char* title = nullptr) {
  sinktest::GroupConfig config(base, 1, 1000);
  sinktest::TestSink sink(config, mode);
  if (title != nullptr) sink.title = title;
  ASSERT_EQ(0, sink.SetupOutput());
  for (long seq = 0; seq < count; ++seq) {
    ASSERT_EQ(0, sink.LogcatWriteWithTimestamp((prefix + " seq " + std::to_string(seq)).c_str()));
  }
  sink.LogcatClose();
}

// The reader's set: seq from..end stamped start + seq, flushed every perFlush, then a new file.
void WriteReaderSet(const std::string& base, long from, long end, time_t start, long perFlush,
                    bool newFiles) {
  MorvocatUtils writer(base, MorvocatUtils::kMMapWriteMode, 0);
  writer.InitLogFiles();
  for (long seq = from; seq < end; ++seq) {
    std::string line = ThreadTimeLine(start + seq, seq);
    writer.Write(line.c_str(), line.size());
    if (!writer.IsLogFileAccess()) {
      writer.InitLogFiles();
      writer.GetNewLog();
    }
    if ((seq - from + 1) % perFlush == 0) {
      writer.Flush();
      if (newFiles && seq + 1 < end) writer.GetNewLog();
    }
  }
  writer.Flush();
}

using ViewTreeTest = sinktest::SinkTest;

// After a file 996 of an earlier run, 997..999, 000, 001 across a new year.
TEST_F(ViewTreeTest, ReaderSetThroughTheWrapIntoANewYear) {
  root_.MakeDirs("/data/log/reader");
  std::string dir = root_.Under("/data/log/reader"), base = dir + "/out";
  time_t earlier = Utc("2023-12-31 23:50:00");
  time_t start = Utc("2023-12-31 23:59:30");
  int fd = open((base + ".I996." + Format(earlier, "%Y%m%d-%H%M%S") + ".gz").c_str(),
                O_WRONLY | O_CREAT | O_TRUNC, 0664);
  std::string line = ThreadTimeLine(earlier, 0);
  ASSERT_EQ(0, platform::AppendGzipMember(fd, reinterpret_cast<const unsigned char*>(line.data()),
                                          line.size()));
  close(fd);
  const long kRecords = 50;
  WriteReaderSet(base, 1, kRecords + 1, start, 10, true);
  std::vector<std::string> files =
      morvotest::WritingOrder(morvotest::SetFiles(dir, "out"), base.size());
  ASSERT_EQ(6u, files.size());
  EXPECT_EQ(1, morvotest::IndexOf(files.back(), base.size()));  // wrapped past 999
  std::vector<std::string> times = {Format(earlier, "%Y-%m-%dT%H:%M:%S.000")};
  for (size_t i = 0; i < files.size(); ++i) {
    time_t opened = i == 0 ? earlier : start + 1 + 10 * (i - 1);
    std::string renamed =
        files[i].substr(0, base.size() + 6) + Format(opened, "%Y%m%d-%H%M%S") + ".gz";
    ASSERT_EQ(0, rename(files[i].c_str(), renamed.c_str()));
  }
  for (long seq = 1; seq <= kRecords; ++seq) {
    times.push_back(Format(start + seq, "%Y-%m-%dT%H:%M:%S.000"));
  }
  for (const std::string& path : {base, dir, root_.Under("/data/log")}) {
    SCOPED_TRACE(path);
    viewtest::ViewRun run = RunView(root_.path(), {"-o", "json", path});
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ("", run.err);
    EXPECT_EQ(Counting(0, kRecords + 1), morvotest::Sequence(run.out, "seq "));
    EXPECT_EQ(times, JsonTimes(run.out));
  }
}

// Indexed files, links P, P.1, archives, titles; links, a pulled copy and hidden files add nothing.
TEST_F(ViewTreeTest, CollectorGroupsInBothModesEachRecordOnce) {
  const long kRecords = 600;
  std::string mmapBase = dir_ + "/mmaplog";
  std::string factoryBase = dir_ + "/factlog";
  WriteGroup(mmapBase, TavoCommon::MMAP_WRITE, "mmap", kRecords);
  WriteGroup(factoryBase, TavoCommon::FACTORY_WRITE, "fact", kRecords, "TITLE column1 column2\n");
  ASSERT_TRUE(sinktest::IsLink(mmapBase + ".1"));
  ASSERT_TRUE(morvotest::Exists(factoryBase + "-1.tar.gz"));
  ASSERT_TRUE(morvotest::Exists(factoryBase + ".1"));
  viewtest::ViewRun list = RunView(root_.path(), {"--list", dir_});
  EXPECT_EQ(0, list.status) << list.err;
  std::vector<std::string> rows = Lines(list.out);
  ASSERT_EQ(3u, rows.size()) << list.out;
  EXPECT_EQ(0u, rows[1].find(factoryBase + "\tnumbered\t"));
  EXPECT_EQ(0u, rows[2].find(mmapBase + "\tindexed\t"));

  root_.MakeDirs("/data/log/elsewhere");
  std::string elsewhere = root_.Under("/data/log/elsewhere");
  std::string first = morvotest::SetFiles(dir_, "mmaplog").front();
  ASSERT_EQ(0, link(first.c_str(), (elsewhere + "/second-name.gz").c_str()));
  ASSERT_EQ(0, symlink(dir_.c_str(), (elsewhere + "/group-link").c_str()));
  std::string target = sinktest::LinkTarget(mmapBase);
  ASSERT_EQ(0, unlink(mmapBase.c_str()));
  morvotest::WriteFile(mmapBase, morvotest::ReadFile(target));
  morvotest::WriteFile(dir_ + "/.mmaplog.tavocache", "01-01 00:00:00.000 mmap seq 999\n");
  viewtest::ViewRun run = RunView(root_.path(), {"-o", "json", root_.Under("/data/log")});
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("", run.err);
  EXPECT_EQ(Counting(0, kRecords), morvotest::Sequence(run.out, "mmap seq "));
  EXPECT_EQ(Counting(0, kRecords), morvotest::Sequence(run.out, "fact seq "));
  std::vector<std::string> times = JsonTimes(run.out);
  EXPECT_TRUE(std::is_sorted(times.begin(), times.end()));
  EXPECT_NE(std::string::npos, run.out.find("\"message\":\"TITLE column1 column2\""));
}

// A copy taken mid-member: read as far as it decodes, one warning, other sets still out.
TEST_F(ViewTreeTest, LastMemberCutShort) {
  root_.MakeDirs("/data/log/reader");
  std::string dir = root_.Under("/data/log/reader"), base = dir + "/out";
  const long kPerFlush = 200;
  WriteReaderSet(base, 0, 3 * kPerFlush, Utc("2024-03-01 10:00:00"), kPerFlush, false);
  std::string file = morvotest::SetFiles(dir, "out").back();
  std::string data = morvotest::ReadFile(file);
  size_t last = data.rfind("\x1f\x8b\x08");  // the last member's header
  ASSERT_NE(std::string::npos, last);
  ASSERT_EQ(0, truncate(file.c_str(), last + (data.size() - last) / 2));
  root_.MakeDirs("/data/log/other");
  morvotest::WriteFile(root_.Under("/data/log/other/kmsg"), "03-01 09:00:00.000 other set\n");

  viewtest::ViewRun run = RunView(root_.path(), {root_.Under("/data/log")});
  EXPECT_EQ(0, run.status);
  EXPECT_EQ(1u, Lines(run.err).size()) << run.err;
  EXPECT_NE(std::string::npos, run.err.find(file + ": last gzip member cut short")) << run.err;
  std::vector<long> seqs = morvotest::Sequence(run.out);
  ASSERT_GE(seqs.size(), static_cast<size_t>(2 * kPerFlush));
  seqs.pop_back();  // may be cut short itself
  EXPECT_EQ(Counting(0, static_cast<long>(seqs.size())), seqs);
  EXPECT_NE(std::string::npos, run.out.find("other set"));
}

// Each unreadable file (missing, FIFO, corrupt, foreign-owned): one line, status 1, rest printed.
TEST_F(ViewTreeTest, UnreadableFilesAreReportedAndTheRestGoesOn) {
  root_.MakeDirs("/data/log/a");
  std::string good = root_.Under("/data/log/a/kmsg");
  morvotest::WriteFile(good, "03-01 09:00:00.000 readable line\n");
  std::string corrupt = root_.Under("/data/log/a/out.I000.20240301-090000.gz");
  morvotest::WriteFile(corrupt, std::string("\x1f\x8b\x08\x00garbage that does not inflate", 34));
  std::string missing = root_.Under("/data/log/none/such");
  std::string fifo = root_.Under("/data/log/a/stuck.1");  // reported, not waited on
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0644));
  std::string secret = root_.Under("/data/log/a/secret");
  morvotest::WriteFile(secret, "03-01 09:00:01.000 root only\n");
  chmod(secret.c_str(), 0600);
  chmod(root_.path().c_str(), 0755);
  std::string scratch = root_.Under("/scratch");
  mkdir(scratch.c_str(), 0777);
  chmod(scratch.c_str(), 0777);
  // GCOV_PREFIX: where the unprivileged run may write a coverage build's counters.
  std::string nobody =
      "setpriv --reuid=65534 --regid=65534 --clear-groups env GCOV_PREFIX=" + scratch + "/gcov ";
  struct Case {
    std::vector<std::string> args;
    std::string named, prefix;
  } const kCases[] = {
      {{missing, good}, missing, ""},
      {{good, fifo}, fifo, ""},
      {{root_.Under("/data/log/a")}, corrupt, ""},
      {{good, secret}, secret, nobody},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.named);
    if (!c.prefix.empty() && (getuid() != 0 || system("command -v setpriv >/dev/null") != 0)) {
      printf("not root or no setpriv: the permission row is skipped\n");
      continue;
    }
    viewtest::ViewRun run = RunView(scratch, c.args, "timeout 20 " + c.prefix);
    EXPECT_EQ(1, run.status);
    ASSERT_EQ(1u, Lines(run.err).size()) << run.err;
    EXPECT_EQ(0u, run.err.find("morvo-view: " + c.named + ": ")) << run.err;
    EXPECT_NE(std::string::npos, run.out.find("readable line")) << run.out;
  }
}

}  // namespace
