#ifndef MORVOCAT_TESTS_COLLECTOR_COLLECTOR_PROCESS_H_
#define MORVOCAT_TESTS_COLLECTOR_COLLECTOR_PROCESS_H_

// A collector started as "morvocat --tavo 2 -x NAME" under a temporary root.

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "collector/group_support.h"
#include "support/temp_root.h"

namespace e2etest {

constexpr char kMarker[] = "<6>kernel line ";
inline std::string Line(long n) { return kMarker + std::to_string(n) + "\n"; }
inline std::string Lines(long first, long end) {
  std::string text;
  for (long n = first; n < end; ++n) text += Line(n);
  return text;
}

inline bool EndedBySigusr(int status) { return WIFEXITED(status) && WEXITSTATUS(status) == 12; }

class CollectorProcess {
 public:
  CollectorProcess(const morvotest::TempRoot& root, std::vector<std::string> args)
      : errPath_(root.Under("/collector.err")), dir_(root.path()) {
    const char* bin = getenv("MORVO_BIN_DIR");
    std::string program = std::string(bin != nullptr ? bin : ".") + "/morvocat";
    args.insert(args.begin(), program);
    pid_ = fork();
    if (pid_ == 0) {
      int err = open(errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(err, STDERR_FILENO);
      if (chdir(dir_.c_str()) != 0) _exit(126);
      std::vector<char*> argv;
      for (std::string& a : args) argv.push_back(&a[0]);
      argv.push_back(nullptr);
      execv(program.c_str(), argv.data());
      _exit(127);
    }
  }
  ~CollectorProcess() {
    if (pid_ > 0 && !ended_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  CollectorProcess(const CollectorProcess&) = delete;
  CollectorProcess& operator=(const CollectorProcess&) = delete;
  pid_t pid() const { return pid_; }
  std::string Err() const { return morvotest::ReadFile(errPath_); }
  std::string Comm() const {
    const std::string comm = morvotest::ReadFile(Proc("comm"));
    return comm.substr(0, comm.find('\n'));
  }
  std::string Cmdline() const { return morvotest::ReadFile(Proc("cmdline")); }
  std::string Maps() const { return morvotest::ReadFile(Proc("maps")); }
  int WaitEnd() {
    int status = -1;
    grouptest::WaitFor([&] { return waitpid(pid_, &status, WNOHANG) == pid_; });
    ended_ = status != -1;
    return status;
  }
  int SendAndWait(int signo) {
    kill(pid_, signo);
    return WaitEnd();
  }
  long long ReadOffset(const std::string& hostPath) const {
    DIR* dir = opendir(Proc("fd").c_str());
    if (dir == nullptr) return -1;
    long long offset = -1;
    while (struct dirent* entry = readdir(dir)) {
      char target[PATH_MAX] = {0};
      std::string link = Proc("fd/") + entry->d_name;
      if (readlink(link.c_str(), target, sizeof(target) - 1) <= 0 || hostPath != target) continue;
      std::string info = morvotest::ReadFile(Proc("fdinfo/") + entry->d_name);
      offset = atoll(info.c_str() + info.find("pos:") + 4);
    }
    closedir(dir);
    return offset;
  }
  // All of hostPath is read; waits on while it makes progress (slow sanitized builds).
  bool HasRead(const std::string& hostPath) const {
    auto size = [&] {
      struct stat st;
      return stat(hostPath.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
    };
    for (long long seen = -2;;) {
      if (grouptest::WaitFor([&] { return ReadOffset(hostPath) == size(); })) return true;
      long long now = ReadOffset(hostPath);
      if (now == seen) return false;
      seen = now;
    }
  }

 private:
  std::string Proc(const std::string& name) const {
    return "/proc/" + std::to_string(pid_) + "/" + name;
  }
  std::string errPath_;
  std::string dir_;
  pid_t pid_ = -1;
  bool ended_ = false;
};

}  // namespace e2etest

#endif  // MORVOCAT_TESTS_COLLECTOR_COLLECTOR_PROCESS_H_
