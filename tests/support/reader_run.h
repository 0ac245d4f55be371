#ifndef MORVOCAT_TESTS_SUPPORT_READER_RUN_H_
#define MORVOCAT_TESTS_SUPPORT_READER_RUN_H_

// One command line run through the embedding interface as a host runs it.

#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "morvocat/morvocat.h"

namespace morvotest {

struct RunResult {
  int status = 0;         // what AndroidLogcatRunCommand returned
  int destroyStatus = 0;  // what AndroidLogcatDestroy returned
  std::string out;
  std::string err;
};

class Argv {
 public:
  explicit Argv(std::vector<std::string> args) : args_(std::move(args)) {
    args_.insert(args_.begin(), "morvocat");
    for (std::string& a : args_) ptrs_.push_back(&a[0]);
    ptrs_.push_back(nullptr);
  }
  int argc() const { return static_cast<int>(args_.size()); }
  char** argv() { return ptrs_.data(); }

 private:
  std::vector<std::string> args_;
  std::vector<char*> ptrs_;
};

inline int RunOn(android_logcat_context ctx, int out, int err, std::vector<std::string> args) {
  Argv a(std::move(args));
  return AndroidLogcatRunCommand(ctx, out, err, a.argc(), a.argv(), nullptr);
}

inline int StartThread(android_logcat_context ctx, std::vector<std::string> args) {
  Argv a(std::move(args));
  return AndroidLogcatRunCommandThread(ctx, a.argc(), a.argv(), nullptr);
}

inline std::string ReadAll(int fd) {
  std::string text;
  lseek(fd, 0, SEEK_SET);
  char buf[4096];
  ssize_t n;
  while ((n = read(fd, buf, sizeof(buf))) > 0) text.append(buf, n);
  return text;
}

// argv[0] is added; env entries are "NAME=value".
inline RunResult RunCommand(std::vector<std::string> args, std::vector<std::string> env = {}) {
  Argv argv(std::move(args));
  std::vector<char*> envp;
  for (std::string& e : env) envp.push_back(&e[0]);
  envp.push_back(nullptr);
  int outFd = memfd_create("out", 0);
  int errFd = memfd_create("err", 0);
  android_logcat_context ctx = CreateAndroidLogcat();
  RunResult result;
  result.status = AndroidLogcatRunCommand(ctx, outFd, errFd, argv.argc(), argv.argv(), envp.data());
  result.destroyStatus = AndroidLogcatDestroy(&ctx);
  result.out = ReadAll(outFd);
  result.err = ReadAll(errFd);
  close(outFd);
  close(errFd);
  return result;
}

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_READER_RUN_H_
