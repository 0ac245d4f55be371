#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <string>

#include "collector/collector_process.h"
#include "collector/group_support.h"
#include "support/build_paths.h"
#include "support/file_tree.h"
#include "support/gzip_text.h"
#include "support/temp_root.h"

namespace {

using e2etest::CollectorProcess;
using e2etest::EndedBySigusr;
using morvotest::ReadFile;
using morvotest::WriteFile;

class Collector : public ::testing::Test {
 protected:
  Collector() {
    for (const char* dir : {"/proc", "/data/log/ksv_log", "/system/etc"}) root.MakeDirs(dir);
    WriteFile(root.Under("/proc/reboot_watchdog"), "");
  }
  void AppendKmsg(int first, int last) {
    grouptest::Append(root.Under("/proc/kmsg"), e2etest::Lines(first, last + 1));
  }
  bool Announced(const CollectorProcess& collector) {
    return grouptest::WaitFor([&] {
      return ReadFile(root.Under("/proc/reboot_watchdog")) == std::to_string(collector.pid());
    });
  }
  std::string Unzipped(const std::string& base) const {  // every file of the set, a glob
    return morvotest::CommandOutput("zcat " + logs + "/" + base + ".I*.gz 2>/dev/null");
  }
  morvotest::TempRoot root;
  const std::string logs = root.Under("/data/log/android_logs");
};

// Every line taken is written whole, in order, once; a prefix when stopped mid-read.
TEST_F(Collector, TheKmsgInstanceCopiesEveryLineAndEndsWithStatus12) {
  AppendKmsg(1, 2000);
  CollectorProcess collector(root, {"--tavo", "2", "-x", "kmsglogcat"});
  ASSERT_TRUE(Announced(collector)) << collector.Err();
  EXPECT_EQ("kmsglogcat", collector.Comm());
  if (!morvotest::QemuHides("/proc/PID/cmdline is qemu's")) {
    EXPECT_EQ(0u, collector.Cmdline().find(std::string("kmsglogcat\0", 11)));
  }
  AppendKmsg(2001, 5000);
  ASSERT_TRUE(collector.HasRead(root.Under("/proc/kmsg")));
  char target[4096] = {0};
  ASSERT_GT(readlink((logs + "/kmsgcat-log").c_str(), target, sizeof(target) - 1), 0);
  EXPECT_TRUE(std::regex_match(target, std::regex(".*/kmsgcat-log\\.I000\\.\\d{8}-\\d{6}\\.gz")))
      << target;
  long long read = collector.ReadOffset(root.Under("/proc/kmsg"));
  AppendKmsg(5001, 105000);
  ASSERT_TRUE(
      grouptest::WaitFor([&] { return collector.ReadOffset(root.Under("/proc/kmsg")) > read; }));
  EXPECT_TRUE(EndedBySigusr(collector.SendAndWait(SIGUSR2))) << collector.Err();
  std::vector<std::string> lines = morvotest::Lines(Unzipped("kmsgcat-log"));
  ASSERT_GE(lines.size(), 5000u);
  std::regex stamped("^[-0-9 :.]{19}<6>kernel line (\\d+)$");
  for (size_t i = 0; i < lines.size(); ++i) {
    std::smatch match;
    ASSERT_TRUE(std::regex_match(lines[i], match, stamped)) << lines[i];
    ASSERT_EQ(std::to_string(i + 1), match[1].str()) << collector.Err();
  }
}

// Lines held while a file-size limit refused every flush go out at the stop.
TEST_F(Collector, TheLinesHeldThroughAWriteFaultGoOutAtTheStop) {
  AppendKmsg(1, 2000);
  CollectorProcess collector(root, {"--tavo", "2", "-x", "kmsglogcat"});
  ASSERT_TRUE(Announced(collector)) << collector.Err();
  ASSERT_TRUE(collector.HasRead(root.Under("/proc/kmsg")));
  struct stat st;
  ASSERT_TRUE(grouptest::WaitFor(
      [&] { return stat((logs + "/kmsgcat-log").c_str(), &st) == 0 && st.st_size > 0; }));
  off_t below = std::max<off_t>(st.st_size, ReadFile(root.Under("/collector.err")).size());
  struct rlimit limit = {static_cast<rlim_t>(below + 4096), RLIM_INFINITY};
  ASSERT_EQ(0, prlimit(collector.pid(), RLIMIT_FSIZE, &limit, nullptr));
  AppendKmsg(2001, 18000);
  ASSERT_TRUE(grouptest::WaitFor([&] {
    return collector.Err().find("cannot write") != std::string::npos;
  })) << collector.Err();
  ASSERT_TRUE(collector.HasRead(root.Under("/proc/kmsg")));
  limit.rlim_cur = RLIM_INFINITY;
  ASSERT_EQ(0, prlimit(collector.pid(), RLIMIT_FSIZE, &limit, nullptr));
  EXPECT_TRUE(EndedBySigusr(collector.SendAndWait(SIGUSR2))) << collector.Err();
  std::vector<std::string> lines = morvotest::Lines(Unzipped("kmsgcat-log"));
  ASSERT_EQ(18000u, lines.size()) << collector.Err();
  for (size_t i = 0; i < lines.size(); ++i) {
    ASSERT_EQ(e2etest::Line(static_cast<long>(i) + 1), lines[i].substr(19) + "\n");
  }
  EXPECT_EQ(std::string::npos, collector.Err().find("stopped,")) << collector.Err();
}

TEST_F(Collector, TheChargeInstancePollsItsNodesIntoRowsUnderATitle) {
  std::string coul = "/sys/class/qd_power/coul/coul_data/",
              charge = "/sys/class/qd_power/charger/charge_data/";
  for (const std::string& dir : {coul, charge}) root.MakeDirs(dir);
  WriteFile(root.Under(coul + "gaugelog_head"), "GaugeHead \n");
  WriteFile(root.Under(coul + "gaugelog"), "3900mV    \n");
  WriteFile(root.Under(charge + "chargelog_head"), "ChargeHead\n");
  WriteFile(root.Under(charge + "chargelog"), "500mA\n");
  CollectorProcess collector(root, {"--tavo", "2", "-x", "chargelogcat"});
  ASSERT_TRUE(Announced(collector)) << collector.Err();
  EXPECT_EQ("chargelogcat", collector.Comm());
  std::string log = root.Under("/data/log/charge-log/charge-log");
  ASSERT_TRUE(grouptest::WaitFor([&] { return grouptest::Count(ReadFile(log), "\n") >= 3; }));
  EXPECT_TRUE(EndedBySigusr(collector.SendAndWait(SIGUSR2))) << collector.Err();
  std::regex rows(
      "^\nRead Fail {14}GaugeHead ChargeHead\n"
      "(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d >  3900mV    500mA\n)+$");
  EXPECT_TRUE(std::regex_match(ReadFile(log), rows)) << ReadFile(log);
}

TEST_F(Collector, TheSampleFileRunsItsThreeGroups) {
  const char* source = getenv("MORVO_SOURCE_DIR");
  ASSERT_NE(nullptr, source);
  WriteFile(root.Under("/system/etc/tavocat_config.xml"),
            ReadFile(std::string(source) + "/etc/tavocat_config.xml"));
  root.MakeDirs("/dev/input");
  std::string fifo = root.Under("/dev/input/event0");
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  root.MakeDirs("/bin");
  std::string dumpsys = root.Under("/bin/dumpsys");
  WriteFile(dumpsys, "#!/bin/sh\necho \"level: 87 ($1)\"\ntouch " + root.Under("/ran") + "\n");
  chmod(dumpsys.c_str(), 0755);
  std::string savedPath = getenv("PATH");
  setenv("PATH", (root.Under("/bin") + ":" + savedPath).c_str(), 1);
  AppendKmsg(1, 300);
  CollectorProcess collector(root, {"--tavo", "2", "-x", "kmsglogcat"});
  setenv("PATH", savedPath.c_str(), 1);
  ASSERT_TRUE(Announced(collector)) << collector.Err();
  // The file was parsed in a child: no XML parser in the resident process.
  std::string maps = collector.Maps();
  EXPECT_EQ(std::string::npos, maps.find("libxml2")) << maps;
  EXPECT_EQ(std::string::npos, maps.find("libicu")) << maps;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && \
    !defined(MORVO_COVERAGE_BUILD)
  EXPECT_EQ(std::string::npos, maps.find("libstdc++")) << maps;
#endif
  ASSERT_TRUE(collector.HasRead(root.Under("/proc/kmsg")));
  EXPECT_EQ(std::string::npos, collector.Maps().find("libnss_")) << collector.Maps();
  ASSERT_TRUE(grouptest::WaitFor([&] {
    return morvotest::Exists(root.Under("/ran")) && grouptest::ProcessesWith(root.path()) == 0;
  }));
  EXPECT_TRUE(EndedBySigusr(collector.SendAndWait(SIGUSR2))) << collector.Err();
  const std::string kmsg = Unzipped("kmsgcat-log");
  for (int i = 1; i <= 300; ++i) EXPECT_EQ(1u, grouptest::Count(kmsg, " " + e2etest::Line(i))) << i;
  std::regex battery("^current time: <battery>[-0-9: ]+\r\nlevel: 87 \\(battery\\)\n$");
  std::string batteryLog = Unzipped("battery-log");
  EXPECT_TRUE(std::regex_match(batteryLog, battery)) << batteryLog;
  EXPECT_EQ("add device 1: " + fifo + "\n  name:     \"\"\n", Unzipped("input-log"));
}

TEST_F(Collector, AGroupsEndDoesNotEndTheCollector) {
  WriteFile(root.Under("/system/etc/tavocat_config.xml"),
            "<config><tavocat name=\"once\" platform=\"Qcom\">"
            "<writeMode value=\"factory\"/><tavocatGroup>"
            "<logStyle value=\"poll_node\"/><outputFilePath value=\"/data/log/once/once-log\"/>"
            "<inputNodeSet><dataPath value=\"/proc/uptime_x\"/><width value=\"4\"/></inputNodeSet>"
            "</tavocatGroup></tavocat></config>");
  WriteFile(root.Under("/proc/uptime_x"), "12\n");
  rmdir(root.Under("/data/log/ksv_log").c_str());
  unlink(root.Under("/proc/reboot_watchdog").c_str());
  CollectorProcess collector(root, {"--tavo", "2", "-x", "once"});
  std::string log = root.Under("/data/log/once/once-log");
  ASSERT_TRUE(grouptest::WaitFor([&] { return ReadFile(log) == "12  \n"; })) << collector.Err();
  ASSERT_TRUE(grouptest::WaitFor([&] { return collector.Comm() == "once"; }));
  const std::string said =
      "Main:tavocat [once] group /data/log/once/once-log ended: its polling is done\n";
  ASSERT_TRUE(grouptest::WaitFor([&] { return collector.Err().find(said) != std::string::npos; }))
      << collector.Err();
  EXPECT_TRUE(EndedBySigusr(collector.SendAndWait(SIGUSR2))) << collector.Err();
  EXPECT_EQ(1u, grouptest::Count(collector.Err(), said)) << collector.Err();
  EXPECT_FALSE(morvotest::Exists(root.Under("/proc/reboot_watchdog")));
}

// A configuration that does not load leaves a paused process SIGUSR2 ends.
TEST_F(Collector, RefusedStarts) {
  const std::string trigger =
      "<tavocatGroup><logStyle value=\"cond_trigger\"/><outputFilePath "
      "value=\"/data/log/c/c-log\"/>"
      "<inputNodeSet><dataPath value=\"DateTime\"/></inputNodeSet></tavocatGroup>";
  // config: the file's text (empty: none). A name of 255 characters is looked up.
  // clang-format off
  const struct { std::string config; const char* kind; std::string name; const char* said;
                 bool paused; } kCases[] = {
      {"<config><tavocat", "2", "kmsglogcat", "Main:parse_config_file failed, exit!!\n", true},
      {"", "2", std::string(255, 'n'), "Main:parse_config_file failed, exit!!\n", true},
      {"", "1", "kmsglogcat", "Main:Unrecognized Option\n", false},
      {"", "2", std::string(256, 'n'), "Main:tavocatName strncpy_sp error!", false},
      {"<config><tavocat name=\"twice\" platform=\"Qcom\">" + trigger + trigger + "</tavocat></config>",
       "2", "twice", "Main:tavocat [twice] has more than one cond_trigger group, refused!\n", false},
  };
  // clang-format on
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.said);
    WriteFile(root.Under("/system/etc/tavocat_config.xml"), c.config);
    if (c.config.empty()) unlink(root.Under("/system/etc/tavocat_config.xml").c_str());
    unlink(root.Under("/collector.err").c_str());  // the last row's
    CollectorProcess collector(root, {"--tavo", c.kind, "-x", c.name});
    if (c.paused) {
      ASSERT_TRUE(grouptest::WaitFor([&] {
        return collector.Err().find(c.said) != std::string::npos;
      })) << collector.Err();
      if (!morvotest::QemuHides("/proc/PID/comm is qemu's until the program names itself")) {
        EXPECT_EQ("morvocat", collector.Comm());
      }
      int status = collector.SendAndWait(SIGUSR2);
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGUSR2) << status;
    } else {
      EXPECT_TRUE(WIFEXITED(collector.WaitEnd()));
      EXPECT_NE(std::string::npos, collector.Err().find(c.said)) << collector.Err();
    }
    EXPECT_TRUE(c.name.size() != 255 || collector.Err().find("strncpy_sp") == std::string::npos);
    EXPECT_EQ("", ReadFile(root.Under("/proc/reboot_watchdog")));
    EXPECT_FALSE(morvotest::Exists(root.Under("/data/log/c")));
  }
}

}  // namespace
