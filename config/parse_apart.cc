#include "config/parse_apart.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "config/config_parser.h"
#include "config/config_records.h"
#include "config/config_tree.h"
#include "config/config_wire.h"
#include "platform/write_fully.h"

namespace TavoConfig {

namespace {

struct FileArgs {
  const char* path;
  const char* name;
};

int ParseNamed(const void* name, TavocatInfoT* info) {
  return ParseConfigFile(static_cast<const char*>(name), info);
}

int ParseFileAt(const void* arg, TavocatInfoT* info) {
  const auto* args = static_cast<const FileArgs*>(arg);
  return ParseConfigFileAt(args->path, args->name, info);
}

// The address space now, in bytes; 0 when it cannot be read.
size_t AddressSpace() {
  FILE* statm = fopen("/proc/self/statm", "re");
  if (statm == nullptr) return 0;
  unsigned long long pages = 0;
  if (fscanf(statm, "%llu", &pages) != 1) pages = 0;
  fclose(statm);
  return static_cast<size_t>(pages) * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// The child's bounds: it dies with the thread that made it (parent checked
// again, as it may have died before the request), gets EPIPE rather than
// SIGPIPE, and grows by at most limits.memoryGrowth. The base is what the
// child has now: the host's address space is not ours to judge, and a
// sanitizer reserves terabytes at start. Without /proc the base is unknown
// and only the deadline bounds the child.
bool BoundChild(pid_t parent, const ApartLimits& limits) {
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) return false;
  signal(SIGPIPE, SIG_IGN);
  size_t base = AddressSpace();
  if (base == 0) return true;
  struct rlimit bound = {base + limits.memoryGrowth, base + limits.memoryGrowth};
  return setrlimit(RLIMIT_AS, &bound) == 0;
}

[[noreturn]] void RunChild(int fd, pid_t parent, TreeBuilder build, const void* arg,
                           const ApartLimits& limits) {
  if (!BoundChild(parent, limits)) _exit(1);
  TavocatInfoT built{};
  WireBuffer wire;
  bool sent = build(arg, &built) == 0 && EncodeTavocatInfo(built, &wire);
  if (sent && platform::WriteFully(fd, wire.data, wire.size) < 0) {
    fprintf(stderr, "Config parser process cannot send the configuration: %s\n", strerror(errno));
    sent = false;
  }
  FreeConfigFile(&built);
  _exit(sent ? 0 : 1);
}

long long NowMs() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

enum class Received { kWhole, kFailed, kLate };

// Reads fd to its end by the deadline; more than limit bytes fail.
Received ReadToEnd(int fd, long long deadline, size_t limit, WireBuffer* in) {
  unsigned char chunk[64 << 10];
  for (;;) {
    long long left = deadline - NowMs();
    if (left <= 0) return Received::kLate;
    pollfd p = {fd, POLLIN, 0};
    int ready = poll(&p, 1, left > INT_MAX ? INT_MAX : static_cast<int>(left));
    if (ready < 0 && errno != EINTR) return Received::kFailed;
    if (ready <= 0) continue;
    ssize_t n = read(fd, chunk, sizeof(chunk));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return n == 0 && !in->failed ? Received::kWhole : Received::kFailed;
    if (static_cast<size_t>(n) > limit - in->size) return Received::kFailed;
    in->Append(chunk, static_cast<size_t>(n));
  }
}

// Waits for the child. Its end of the pipe closes only as it exits, so
// after the whole tree the wait is short.
void Reap(pid_t pid) {
  int status = 0;
  pid_t done;
  while ((done = waitpid(pid, &status, 0)) < 0 && errno == EINTR) {
  }
  if (done == pid && WIFSIGNALED(status)) {
    fprintf(stderr, "Config parser process ended by signal %d\n", WTERMSIG(status));
  }
}

void KillAndReap(pid_t pid) {
  kill(pid, SIGKILL);
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace

int BuildTreeApart(TreeBuilder build, const void* arg, const ApartLimits& limits,
                   TavocatInfoT* info) {
  if (build == nullptr || info == nullptr) return 1;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return build(arg, info);
  pid_t parent = getpid();
  long long deadline = NowMs() + limits.deadlineMs;
  pid_t pid = fork();
  if (pid < 0) {
    close(fds[0]);
    close(fds[1]);
    return build(arg, info);
  }
  if (pid == 0) {
    close(fds[0]);
    RunChild(fds[1], parent, build, arg, limits);
  }
  close(fds[1]);
  WireBuffer wire;
  Received received = ReadToEnd(fds[0], deadline, limits.memoryGrowth, &wire);
  close(fds[0]);
  if (received == Received::kWhole) {
    Reap(pid);
    return DecodeTavocatInfo(wire.data, wire.size, info);
  }
  KillAndReap(pid);
  if (received == Received::kLate) {
    fprintf(stderr, "Config parser process ran past its %d ms deadline and was killed!\n",
            limits.deadlineMs);
  } else {
    fprintf(stderr, "Config parser process sent no usable configuration!\n");
  }
  return 1;
}

int ParseConfigFileApart(const char* name, TavocatInfoT* info) {
  if (name == nullptr || info == nullptr) return 1;
  return BuildTreeApart(ParseNamed, name, kParseLimits, info);
}

int ParseConfigFileApartAt(const char* path, const char* name, TavocatInfoT* info) {
  if (path == nullptr || name == nullptr || info == nullptr) return 1;
  FileArgs args = {path, name};
  return BuildTreeApart(ParseFileAt, &args, kParseLimits, info);
}

}  // namespace TavoConfig
