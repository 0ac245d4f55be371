#ifndef MORVOCAT_TESTS_STRESS_COLLECTOR_STRESS_H_
#define MORVOCAT_TESTS_STRESS_COLLECTOR_STRESS_H_

// A collector process with one kmsg stream group written by the test's own
// configuration, numbered lines fed to its kmsg stand-in, and what its file
// set holds afterwards, oldest line first, in either write mode.

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "collector/collector_process.h"
#include "support/command_output.h"
#include "support/gzip_text.h"
#include "support/log_set.h"
#include "support/temp_root.h"

namespace stresstest {

constexpr char kName[] = "stress";
constexpr char kDir[] = "/data/log/stress";
constexpr char kBase[] = "kmsg-log";
// A factory set keeps at most 1000 / 5 archives.
constexpr int kMostArchives = 200;

using e2etest::EndedBySigusr;
using e2etest::kMarker;
using e2etest::Lines;

struct Settings {
  bool factory;
  size_t rotateKbytes;
  size_t maxCompressd;
};

// The one group of the default configuration: a stream over the kmsg
// stand-in, written to Output().
inline std::string KmsgGroup();

// The root of one collector: its configuration, kmsg stand-in and folders.
class CollectorRoot {
 public:
  // groups: the tavocatGroup elements of the configuration.
  explicit CollectorRoot(const Settings& settings, const std::string& groups = KmsgGroup()) {
    root_.MakeDirs("/proc");
    root_.MakeDirs("/data/log/ksv_log");
    // Made here so a test can mount over it or plant links in it.
    root_.MakeDirs(kDir);
    root_.MakeDirs("/system/etc");
    morvotest::WriteFile(root_.Under("/system/etc/tavocat_config.xml"),
                         "<config><tavocat name=\"" + std::string(kName) +
                             "\" platform=\"Qcom\">"
                             "<logRotateSizeKBytes value=\"" +
                             std::to_string(settings.rotateKbytes) +
                             "\"/>"
                             "<maxCompressdFiles value=\"" +
                             std::to_string(settings.maxCompressd) +
                             "\"/>"
                             "<writeMode value=\"" +
                             (settings.factory ? "factory" : "mmap") + "\"/>" + groups +
                             "</tavocat></config>");
    morvotest::WriteFile(Kmsg(), "");
    // Every new file runs chown; the stock one looks up the group "system"
    // each time, which would make a thousand rotations crawl.
    root_.MakeDirs("/bin");
    symlink("/bin/true", root_.Under("/bin/chown").c_str());
  }

  const morvotest::TempRoot& root() const { return root_; }
  std::string Kmsg() const { return root_.Under("/proc/kmsg"); }
  static std::string Output() { return std::string(kDir) + "/" + kBase; }
  std::string Dir() const { return root_.Under(kDir); }

  void Append(const std::string& text) const {
    FILE* kmsg = fopen(Kmsg().c_str(), "a");
    fwrite(text.data(), 1, text.size(), kmsg);
    fclose(kmsg);
  }
  // A new stand-in holding text, as the kernel's stream holds only what
  // nobody has read yet.
  void Replace(const std::string& text) const {
    std::string next = Kmsg() + ".new";
    morvotest::WriteFile(next, text);
    rename(next.c_str(), Kmsg().c_str());
  }
  // The collector has read all the stand-in holds.
  bool Consumed(const e2etest::CollectorProcess& collector) const {
    return collector.HasRead(Kmsg());
  }

  // What the mmap set holds, oldest file first.
  std::string MmapText() const {
    std::string text;
    std::string base = Dir() + "/" + kBase;
    for (const std::string& f :
         morvotest::WritingOrder(morvotest::SetFiles(Dir(), kBase), base.size())) {
      text += morvotest::Zcat(f);
    }
    return text;
  }
  // The factory archives that exist, oldest first (the highest number).
  std::vector<std::string> Archives() const {
    std::vector<std::string> archives;
    std::string base = Dir() + "/" + kBase;
    // An archive step that failed after shifting leaves "-0" free.
    for (int k = 0; k < kMostArchives; ++k) {
      std::string archive = base + "-" + std::to_string(k) + ".tar.gz";
      if (morvotest::Exists(archive)) archives.insert(archives.begin(), archive);
    }
    return archives;
  }
  // What the factory archives, work folder and files hold, oldest first.
  std::string FactoryText() const {
    std::string text;
    std::string base = Dir() + "/" + kBase;
    for (const std::string& archive : Archives()) {
      for (int n = 5; n >= 1; --n) {
        text += morvotest::CommandOutput("tar -xzOf '" + archive + "' --wildcards '*" + kBase +
                                         "." + std::to_string(n) + "' 2>/dev/null");
      }
    }
    // Members an archive could not take wait in the work folder.
    for (int n = 5; n >= 1; --n) {
      text += morvotest::ReadFile(base + "_tmp/" + kBase + "." + std::to_string(n));
    }
    for (int n = 5; n >= 1; --n) text += morvotest::ReadFile(base + "." + std::to_string(n));
    return text + morvotest::ReadFile(base);
  }
  std::string Text(bool factory) const { return factory ? FactoryText() : MmapText(); }

 private:
  morvotest::TempRoot root_;
};

// A folder put first on the search path until Restore.
class SearchPathFirst {
 public:
  explicit SearchPathFirst(const std::string& dir) {
    saved_ = getenv("PATH") != nullptr ? getenv("PATH") : "/usr/bin:/bin";
    setenv("PATH", (dir + ":" + saved_).c_str(), 1);
  }
  void Restore() const { setenv("PATH", saved_.c_str(), 1); }

 private:
  std::string saved_;
};

// The collector the configuration names, started with the root's chown
// first on its search path.
class Collector : private SearchPathFirst, public e2etest::CollectorProcess {
 public:
  explicit Collector(const CollectorRoot& root)
      : SearchPathFirst(root.root().Under("/bin")),
        e2etest::CollectorProcess(root.root(), {"--tavo", "2", "-x", kName}) {
    Restore();
  }
};

inline std::string KmsgGroup() {
  return "<tavocatGroup><logStyle value=\"monitor_node\"/>"
         "<outputFilePath value=\"" +
         CollectorRoot::Output() +
         "\"/>"
         "<inputNodeSet><dataPath value=\"/proc/kmsg\"/></inputNodeSet></tavocatGroup>";
}

inline std::vector<long> Numbers(const std::string& text) {
  return morvotest::Sequence(text, kMarker);
}

}  // namespace stresstest

#endif  // MORVOCAT_TESTS_STRESS_COLLECTOR_STRESS_H_
