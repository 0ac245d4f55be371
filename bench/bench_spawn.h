#ifndef MORVOCAT_BENCH_BENCH_SPAWN_H_
#define MORVOCAT_BENCH_BENCH_SPAWN_H_

// Starts a measured command: args[0] (looked up on PATH when it has no
// "/"), standard input from inPath, standard output to outPath.

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace morvobench {

inline pid_t Spawn(const std::vector<std::string>& args, const char* inPath = "/dev/null",
                   const char* outPath = "/dev/null") {
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int in = open(inPath, O_RDONLY);
    int out = open(outPath, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  return pid;
}

}  // namespace morvobench

#endif  // MORVOCAT_BENCH_BENCH_SPAWN_H_
