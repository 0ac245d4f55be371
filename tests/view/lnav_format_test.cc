// The lnav formats shipped in etc/lnav, read by the real lnav: for a
// reader capture, a .gz set file and a collector stream, lnav finds each
// line's time, level, pid, tid and tag.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "filesets/morvocat_utils.h"
#include "support/gzip_text.h"
#include "support/temp_root.h"
#include "view/view_run.h"

namespace {

using morvotest::Quoted;
using viewtest::Lines;

class LnavFormatTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (system("command -v lnav >/dev/null 2>&1") != 0) {
      GTEST_SKIP() << "lnav is not installed (scripts/install-deps installs it)";
    }
    const char* source = getenv("MORVO_SOURCE_DIR");
    std::string formats = std::string(source != nullptr ? source : ".") + "/etc/lnav/";
    home_ = root_.path() + "/home";
    root_.MakeDirs("/home");
    // Installed into a home of its own, as a user installs them.
    std::string install = "HOME=" + Quoted(home_) + " lnav -i " +
                          Quoted(formats + "morvocat_threadtime.json") + " " +
                          Quoted(formats + "morvocat_stream.json") + " >/dev/null 2>&1";
    ASSERT_EQ(0, system(install.c_str()));
  }

  // The rows of a query that selects one column named row, each trimmed.
  std::vector<std::string> Query(const std::string& sql, const std::string& file) {
    std::string command =
        "HOME=" + Quoted(home_) + " lnav -n -c " + Quoted(";" + sql) + " " + Quoted(file) + " 2>&1";
    std::vector<std::string> rows;
    for (std::string line : Lines(morvotest::CommandOutput(command))) {
      line.erase(0, line.find_first_not_of(' '));
      line.erase(line.find_last_not_of(' ') + 1);
      rows.push_back(line);
    }
    return rows;
  }

  morvotest::TempRoot root_;
  std::string home_;
};

const char kCapture[] =
    "01-05 08:15:02.042  1234  1240 I ActivityManager: Start proc 4321\n"
    "01-05 08:15:03.500    -1     7 W t       : a: b\n"
    "01-05 08:15:04.000  1234  1241 E tag two : failed\n";

const char kThreadTimeQuery[] =
    "SELECT strftime('%m-%d %H:%M:%f', log_time) || '|' || log_level || '|' || pid || '|' || tid "
    "|| '|' || tag AS row FROM morvocat_threadtime";

TEST_F(LnavFormatTest, ThreadTimeCaptureAndGzipSetFile) {
  std::string capture = root_.path() + "/capture.txt";
  morvotest::WriteFile(capture, kCapture);
  root_.MakeDirs("/data/log");
  std::string base = root_.Under("/data/log/out");
  {
    MorvocatUtils writer(base, MorvocatUtils::kMMapWriteMode, 0);
    writer.InitLogFiles();
    writer.Write(kCapture, sizeof(kCapture));
    writer.InitLogFiles();
    writer.GetNewLog();
    writer.Flush();
  }
  std::string setFile = morvotest::CommandOutput("ls " + Quoted(base) + ".I000.*.gz | tr -d '\\n'");
  const std::vector<std::string> expected = {
      "row",
      "01-05 08:15:02.042|info|1234|1240|ActivityManager",
      "01-05 08:15:03.500|warning|-1|7|t",
      "01-05 08:15:04.000|error|1234|1241|tag two",
  };
  for (const std::string& file : {capture, setFile}) {
    SCOPED_TRACE(file);
    EXPECT_EQ(expected, Query(kThreadTimeQuery, file));
  }
}

TEST_F(LnavFormatTest, CollectorStreamAndInputEvents) {
  std::string stream = root_.path() + "/kmsg";
  morvotest::WriteFile(stream,
                       "11-16 15:52:03.042 <6>[ 1.5] kernel message\n"
                       "11-16 15:52:04.100 second line\n"
                       "11-16 15:52:05 [1706704496.123456] KEY_POWER DOWN    \n"
                       " 11-16 15:52:06 [1706704496.140122] S 00000000\trate 60\n");
  const std::vector<std::string> expected = {
      "row",
      "11-16 15:52:03.042|<6>[ 1.5] kernel message",
      "11-16 15:52:04.100|second line",
      "11-16 15:52:05.000|KEY_POWER DOWN",
      "11-16 15:52:06.000|S 00000000\xe2\x87\xa5rate 60",
  };
  EXPECT_EQ(expected, Query("SELECT strftime('%m-%d %H:%M:%f', log_time) || '|' || log_body AS row "
                            "FROM morvocat_stream",
                            stream));
}

}  // namespace
