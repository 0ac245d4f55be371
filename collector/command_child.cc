#include "collector/command_child.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "collector/wait_point.h"
#include "platform/root_path.h"
#include "platform/safe_string.h"

namespace {

constexpr size_t kPathSize = 4096;

// In the child of a threaded process: async-signal-safe calls only.
[[noreturn]] void RunChild(const char* program, char* const argv[], int out, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // The collector may have ended before the request above took hold.
  if (getppid() != parent) _exit(127);
  setpgid(0, 0);
  if (out == STDOUT_FILENO) {
    fcntl(out, F_SETFD, 0);
  } else {
    dup2(out, STDOUT_FILENO);
  }
  // Neither the collector's files nor its blocked or ignored signals are
  // the program's.
  close_range(3, ~0U, 0);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  struct sigaction deflt;
  memset(&deflt, 0, sizeof(deflt));
  deflt.sa_handler = SIG_DFL;
  sigaction(SIGPIPE, &deflt, nullptr);
  execv(program, argv);
  _exit(127);
}

}  // namespace

bool CommandChild::Find(const char* name, char* out, size_t size) {
  const char* dir = kSearchDirs;
  while (*dir != '\0') {
    size_t length = strcspn(dir, ":");
    char devicePath[kPathSize];
    if (snprintf_s(devicePath, sizeof(devicePath), sizeof(devicePath) - 1, "%.*s/%s",
                   static_cast<int>(length), dir, name) >= 0) {
      platform::DevicePath program = platform::ResolvePath(devicePath);
      struct stat st;
      if (stat(program.c_str(), &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & 0111) != 0 &&
          strcpy_s(out, size, program.c_str()) == 0) {
        return true;
      }
    }
    dir += length;
    if (*dir == ':') ++dir;
  }
  return false;
}

bool CommandChild::Start(const char* program, char* const argv[]) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid == 0) RunChild(program, argv, fds[1], parent);
  close(fds[1]);
  if (pid < 0) {
    close(fds[0]);
    return false;
  }
  // Also done here, so the group exists whichever side runs first.
  setpgid(pid, pid);
  pid_ = pid;
  output_ = fds[0];
  return true;
}

void CommandChild::Finish() {
  if (pid_ < 0) return;
  siginfo_t info;
  {
    WaitPoint wait;
    // Not reaped yet: the group's id stays reserved for the kill below.
    while (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT) != 0 &&
           errno == EINTR) {
    }
  }
  KillAndReap();
}

void CommandChild::KillAndReap() {
  if (output_ >= 0) close(output_);
  output_ = -1;
  if (pid_ < 0) return;
  // What the program left running in its group goes with it.
  kill(-pid_, SIGKILL);
  kill(pid_, SIGKILL);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
}

CommandChild::~CommandChild() { KillAndReap(); }
