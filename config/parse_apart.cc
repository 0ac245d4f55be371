#include "config/parse_apart.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include "config/config_parser.h"
#include "config/config_tree.h"
#include "config/config_wire.h"
#include "platform/write_fully.h"

namespace TavoConfig {

using namespace TavoCommon;

namespace {

// Far more than any tree a configuration file of the largest accepted size
// can describe.
constexpr size_t kWireMax = 16 << 20;

[[noreturn]] void RunChild(int fd, const char* name) {
  TavocatInfoT parsed{};
  WireBuffer wire;
  bool sent = ParseConfigFile(name, &parsed) == 0 && EncodeTavocatInfo(parsed, &wire) &&
              platform::WriteFully(fd, wire.data, wire.size) == wire.size;
  FreeConfigFile(&parsed);
  _exit(sent ? 0 : 1);
}

// Reads fd to its end; false on a read error or past kWireMax bytes.
bool ReadToEnd(int fd, WireBuffer* in) {
  unsigned char chunk[16 << 10];
  for (;;) {
    ssize_t n = read(fd, chunk, sizeof(chunk));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return n == 0 && !in->failed;
    if (static_cast<size_t>(n) > kWireMax - in->size) return false;
    in->Append(chunk, static_cast<size_t>(n));
  }
}

void Reap(pid_t pid) {
  int status = 0;
  pid_t done;
  while ((done = waitpid(pid, &status, 0)) < 0 && errno == EINTR) {
  }
  if (done == pid && WIFSIGNALED(status)) {
    fprintf(stderr, "Config parser process ended by signal %d\n", WTERMSIG(status));
  }
}

}  // namespace

int ParseConfigFileApart(const char* name, TavocatInfoT* info) {
  if (name == nullptr || info == nullptr) return 1;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return ParseConfigFile(name, info);
  pid_t pid = fork();
  if (pid < 0) {
    close(fds[0]);
    close(fds[1]);
    return ParseConfigFile(name, info);
  }
  if (pid == 0) {
    close(fds[0]);
    RunChild(fds[1], name);
  }
  close(fds[1]);
  WireBuffer wire;
  bool received = ReadToEnd(fds[0], &wire);
  close(fds[0]);
  Reap(pid);
  return received ? DecodeTavocatInfo(wire.data, wire.size, info) : 1;
}

}  // namespace TavoConfig
