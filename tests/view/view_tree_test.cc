// morvo-view over trees the project's own writers made: the reader's -f
// set through the wrap from 999 to 000 and into a new year, a collector
// group in each write mode with its links and archives, a last member cut
// short, and files that cannot be read.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
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

// "MM-DD HH:MM:SS.000" and "YYYY-MM-DDTHH:MM:SS.000" of a UTC clock
// standing in for the local one, and the set file stamp.
std::string Format(time_t t, const char* format) {
  struct tm tm;
  gmtime_r(&t, &tm);
  char text[64];
  strftime(text, sizeof(text), format, &tm);
  return text;
}

// "YYYY-MM-DD HH:MM:SS" of that UTC clock.
time_t Utc(const char* text) {
  struct tm tm {};
  strptime(text, "%Y-%m-%d %H:%M:%S", &tm);
  return timegm(&tm);
}

std::string ThreadTimeLine(time_t t, long seq) {
  return Format(t, "%m-%d %H:%M:%S") + ".000  100  101 I seq     : seq " + std::to_string(seq) +
         "\n";
}

// The "time" field of each JSON line.
std::vector<std::string> JsonTimes(const std::string& out) {
  std::vector<std::string> times;
  for (const std::string& line : Lines(out)) {
    size_t at = line.find("\"time\":\"");
    times.push_back(at == std::string::npos ? "" : line.substr(at + 8, 23));
  }
  return times;
}

using morvotest::Counting;

// A group of the collector written through one sink: count records
// "<prefix> seq N", with the title at the top of each file if one is given.
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

// The reader's set: records from to end (not included), the one of seq
// stamped start + seq, a flush after every perFlush records, each followed
// by flushed() and, with newFiles, a new file.
void WriteReaderSet(
    const std::string& base, long from, long end, time_t start, long perFlush, bool newFiles,
    const std::function<void()>& flushed = [] {}) {
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
      flushed();
      if (newFiles && seq + 1 < end) writer.GetNewLog();
    }
  }
  writer.Flush();
}

class ViewTreeTest : public sinktest::SinkTest {
 protected:
  std::string Scratch() const { return root_.path(); }

  // A set file's name says when it was opened: give the files of base the
  // stamps of their first records, as if they had been written then.
  void Restamp(const std::string& base, const std::vector<time_t>& opened) {
    std::vector<std::string> files =
        morvotest::WritingOrder(morvotest::SetFiles(Dir(base), Leaf(base)), base.size());
    ASSERT_EQ(opened.size(), files.size());
    for (size_t i = 0; i < files.size(); ++i) {
      std::string renamed =
          files[i].substr(0, base.size() + 6) + Format(opened[i], "%Y%m%d-%H%M%S") + ".gz";
      ASSERT_EQ(0, rename(files[i].c_str(), renamed.c_str()));
    }
  }
  static std::string Dir(const std::string& path) { return path.substr(0, path.rfind('/')); }
  static std::string Leaf(const std::string& path) { return path.substr(path.rfind('/') + 1); }
};

// The reader's writer goes on after a file of index 996 left by an earlier
// run, rotating every ten records: 997, 998, 999, 000, 001, across
// midnight of a new year.
TEST_F(ViewTreeTest, ReaderSetThroughTheWrapIntoANewYear) {
  root_.MakeDirs("/data/log/reader");
  std::string base = root_.Under("/data/log/reader/out");
  time_t earlier = Utc("2023-12-31 23:50:00");
  time_t start = Utc("2023-12-31 23:59:30");
  {
    std::string old = base + ".I996." + Format(earlier, "%Y%m%d-%H%M%S") + ".gz";
    int fd = open(old.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0664);
    std::string line = ThreadTimeLine(earlier, 0);
    ASSERT_EQ(0, platform::AppendGzipMember(fd, reinterpret_cast<const unsigned char*>(line.data()),
                                            line.size()));
    close(fd);
  }
  const long kRecords = 50;
  WriteReaderSet(base, 1, kRecords + 1, start, 10, true);
  std::vector<std::string> files = morvotest::SetFiles(Dir(base), Leaf(base));
  ASSERT_EQ(6u, files.size());
  EXPECT_EQ(0, morvotest::IndexOf(files.front(), base.size()));  // wrapped past 999
  Restamp(base, {earlier, start + 1, start + 11, start + 21, start + 31, start + 41});

  for (const std::string& path : {base, Dir(base), root_.Under("/data/log")}) {
    SCOPED_TRACE(path);
    viewtest::ViewRun run = RunView(Scratch(), {"-o", "json", path});
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ("", run.err);
    EXPECT_EQ(Counting(0, kRecords + 1), morvotest::Sequence(run.out, "seq "));
    std::vector<std::string> times = JsonTimes(run.out);
    ASSERT_EQ(static_cast<size_t>(kRecords + 1), times.size());
    EXPECT_EQ(Format(earlier, "%Y-%m-%dT%H:%M:%S.000"), times[0]);
    for (long seq = 1; seq <= kRecords; ++seq) {
      EXPECT_EQ(Format(start + seq, "%Y-%m-%dT%H:%M:%S.000"), times[seq]) << seq;
    }
  }
  // Threadtime lines come out as they were written.
  viewtest::ViewRun run = RunView(Scratch(), {base});
  EXPECT_EQ(ThreadTimeLine(earlier, 0), Lines(run.out).front() + "\n");
  EXPECT_EQ(ThreadTimeLine(start + kRecords, kRecords), Lines(run.out).back() + "\n");
}

// Two groups written side by side: one through the memory-mapped writer
// (indexed files and the links P and P.1 to the newest two), one in the
// factory mode (P, P.1 to P.5, tar.gz archives of five files), each file
// of which starts with a title row.
TEST_F(ViewTreeTest, CollectorGroupsInBothModesWithArchives) {
  const long kRecords = 600;
  std::string mmapBase = dir_ + "/mmaplog";
  std::string factoryBase = dir_ + "/factlog";
  WriteGroup(mmapBase, TavoCommon::MMAP_WRITE, "mmap", kRecords);
  WriteGroup(factoryBase, TavoCommon::FACTORY_WRITE, "fact", kRecords, "TITLE column1 column2\n");
  ASSERT_TRUE(sinktest::IsLink(mmapBase));
  ASSERT_TRUE(sinktest::IsLink(mmapBase + ".1"));
  ASSERT_TRUE(morvotest::Exists(factoryBase + "-1.tar.gz"));
  ASSERT_TRUE(morvotest::Exists(factoryBase + ".1"));

  viewtest::ViewRun run = RunView(Scratch(), {"-o", "json", root_.Under("/data/log")});
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("", run.err);
  EXPECT_EQ(Counting(0, kRecords), morvotest::Sequence(run.out, "mmap seq "));
  EXPECT_EQ(Counting(0, kRecords), morvotest::Sequence(run.out, "fact seq "));
  std::vector<std::string> times = JsonTimes(run.out);
  EXPECT_TRUE(std::is_sorted(times.begin(), times.end()));
  EXPECT_NE(std::string::npos, run.out.find("\"message\":\"TITLE column1 column2\""));

  viewtest::ViewRun list = RunView(Scratch(), {"--list", dir_});
  EXPECT_EQ(0, list.status) << list.err;
  std::vector<std::string> rows = Lines(list.out);
  ASSERT_EQ(3u, rows.size()) << list.out;
  EXPECT_EQ(0u, rows[1].find(factoryBase + "\tnumbered\t"));
  EXPECT_EQ(0u, rows[2].find(mmapBase + "\tindexed\t"));
}

// A copy taken while a writer was in the middle of a member: the last
// member is cut short. The file is read as far as it decodes, with one
// warning, and the other sets still come out.
TEST_F(ViewTreeTest, LastMemberCutShort) {
  root_.MakeDirs("/data/log/reader");
  std::string base = root_.Under("/data/log/reader/out");
  const long kPerFlush = 200;
  off_t whole = 0, last = 0;
  WriteReaderSet(base, 0, 3 * kPerFlush, Utc("2024-03-01 10:00:00"), kPerFlush, false, [&] {
    whole = last;
    struct stat st;
    ASSERT_EQ(0, stat(morvotest::SetFiles(Dir(base), Leaf(base)).back().c_str(), &st));
    last = st.st_size;
  });
  std::string file = morvotest::SetFiles(Dir(base), Leaf(base)).back();
  ASSERT_EQ(0, truncate(file.c_str(), whole + (last - whole) / 2));
  root_.MakeDirs("/data/log/other");
  morvotest::WriteFile(root_.Under("/data/log/other/kmsg"), "03-01 09:00:00.000 other set\n");

  viewtest::ViewRun run = RunView(Scratch(), {root_.Under("/data/log")});
  EXPECT_EQ(0, run.status);
  EXPECT_EQ(1u, Lines(run.err).size()) << run.err;
  EXPECT_NE(std::string::npos, run.err.find(file + ": last gzip member cut short")) << run.err;
  std::vector<long> seqs = morvotest::Sequence(run.out);
  ASSERT_GE(seqs.size(), static_cast<size_t>(2 * kPerFlush));
  // The last line may be cut short itself.
  seqs.pop_back();
  EXPECT_EQ(Counting(0, static_cast<long>(seqs.size())), seqs);
  EXPECT_NE(std::string::npos, run.out.find("other set"));
}

// Links are not followed, a second name of a file is read once, a pulled
// copy of a group's link (a plain file holding what a set file holds) is
// not read again, and hidden files are left alone.
TEST_F(ViewTreeTest, EachRecordOnceWhateverNamesPointAtIt) {
  std::string base = dir_ + "/applog";
  WriteGroup(base, TavoCommon::MMAP_WRITE, "app", 100);
  std::vector<std::string> files = morvotest::SetFiles(dir_, "applog");
  ASSERT_GE(files.size(), 2u);
  root_.MakeDirs("/data/log/elsewhere");
  std::string elsewhere = root_.Under("/data/log/elsewhere");
  ASSERT_EQ(0, link(files.front().c_str(), (elsewhere + "/second-name.gz").c_str()));
  ASSERT_EQ(0, symlink(dir_.c_str(), (elsewhere + "/group-link").c_str()));
  // What a pull that follows links makes of P.
  std::string target = sinktest::LinkTarget(base);
  ASSERT_EQ(0, unlink(base.c_str()));
  morvotest::WriteFile(base, morvotest::ReadFile(target));
  morvotest::WriteFile(dir_ + "/.applog.tavocache", "01-01 00:00:00.000 app seq 999\n");

  viewtest::ViewRun run = RunView(Scratch(), {root_.Under("/data/log")});
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ(Counting(0, 100), morvotest::Sequence(run.out, "app seq "));
}

// Each file that cannot be read: one line naming it, status 1, and
// everything else is printed.
TEST_F(ViewTreeTest, UnreadableFilesAreReportedAndTheRestGoesOn) {
  root_.MakeDirs("/data/log/a");
  std::string good = root_.Under("/data/log/a/kmsg");
  morvotest::WriteFile(good, "03-01 09:00:00.000 readable line\n");
  std::string corrupt = root_.Under("/data/log/a/out.I000.20240301-090000.gz");
  morvotest::WriteFile(corrupt, std::string("\x1f\x8b\x08\x00garbage that does not inflate", 34));
  std::string missing = root_.Under("/data/log/none/such");
  struct Case {
    std::vector<std::string> args;
    std::string named;
    std::string prefix;
  };
  // A FIFO in the tree is no log file; named on the command line it is
  // reported rather than waited on.
  std::string fifo = root_.Under("/data/log/a/stuck.1");
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0644));
  std::vector<Case> cases = {
      {{missing, root_.Under("/data/log/a/kmsg")}, missing, ""},
      {{root_.Under("/data/log/a/kmsg"), fifo}, fifo, ""},
      {{root_.Under("/data/log/a")}, corrupt, ""},
  };
  bool asNobody = getuid() == 0 && system("command -v setpriv >/dev/null 2>&1") == 0;
  std::string secret = root_.Under("/data/log/a/secret");
  if (asNobody) {
    morvotest::WriteFile(secret, "03-01 09:00:01.000 root only\n");
    chmod(secret.c_str(), 0600);
    chmod(root_.path().c_str(), 0755);
    // Where the unprivileged run may write a coverage build's counters.
    cases.push_back({{root_.Under("/data/log/a/kmsg"), secret},
                     secret,
                     "setpriv --reuid=65534 --regid=65534 --clear-groups env GCOV_PREFIX=" +
                         root_.Under("/scratch/gcov ")});
  } else {
    printf("not root or no setpriv: the permission row is skipped\n");
  }
  std::string scratch = root_.Under("/scratch");
  mkdir(scratch.c_str(), 0777);
  chmod(scratch.c_str(), 0777);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.named);
    viewtest::ViewRun run = RunView(scratch, c.args, "timeout 20 " + c.prefix);
    EXPECT_EQ(1, run.status);
    ASSERT_EQ(1u, Lines(run.err).size()) << run.err;
    EXPECT_EQ(0u, run.err.find("morvo-view: " + c.named + ": ")) << run.err;
    EXPECT_NE(std::string::npos, run.out.find("readable line")) << run.out;
  }
}

}  // namespace
