// morvocat: a host of libmorvocat.so that runs its own command line with
// the process's standard output and standard error as the run's channels.
//
// SIGINT and SIGTERM end the run the way a host should: destroy sets the
// run's stop request and waits for it, so an output file set is flushed
// and complete. A run that does not end in time (a collector hand-over
// never does) is ended by the signal's default action after all.

#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "morvocat/morvocat.h"

namespace {

constexpr int kGraceSeconds = 2;

std::atomic<android_logcat_context> gContext{nullptr};
int gSignalPipe[2] = {-1, -1};

void OnStopSignal(int sig) {
  unsigned char byte = static_cast<unsigned char>(sig);
  ssize_t ignored = write(gSignalPipe[1], &byte, 1);
  (void)ignored;
}

void DieOf(int sig) {
  signal(sig, SIG_DFL);
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, sig);
  pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
  raise(sig);
  _exit(128 + sig);
}

// Started from the watcher, so it too takes no signal.
void* GraceTimer(void* arg) {
  sleep(kGraceSeconds);
  DieOf(static_cast<int>(reinterpret_cast<intptr_t>(arg)));
  return nullptr;
}

// Waits for the first stop signal, ends the run and dies of that signal.
void* SignalWatcher(void*) {
  unsigned char sig = 0;
  while (read(gSignalPipe[0], &sig, 1) != 1) {
  }
  pthread_t timer;
  pthread_create(&timer, nullptr, GraceTimer, reinterpret_cast<void*>(static_cast<intptr_t>(sig)));
  android_logcat_context ctx = gContext.exchange(nullptr);
  if (ctx != nullptr) AndroidLogcatDestroy(&ctx);
  DieOf(sig);
  return nullptr;
}

bool WatchStopSignals() {
  if (pipe(gSignalPipe) != 0) return false;
  // The watcher takes no signal itself: those the run waits for with
  // sigwait (the collector's SIGUSR2) must not be delivered to it.
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  pthread_t watcher;
  bool started = pthread_create(&watcher, nullptr, SignalWatcher, nullptr) == 0;
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  if (!started) return false;
  struct sigaction action = {};
  action.sa_handler = OnStopSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  return sigaction(SIGINT, &action, nullptr) == 0 && sigaction(SIGTERM, &action, nullptr) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  android_logcat_context ctx = CreateAndroidLogcat();
  if (ctx == nullptr) {
    fprintf(stderr, "morvocat: out of memory\n");
    return 1;
  }
  gContext.store(ctx);
  if (!WatchStopSignals()) fprintf(stderr, "morvocat: stop signals end the run abruptly\n");
  AndroidLogcatRunCommand(ctx, STDOUT_FILENO, STDERR_FILENO, argc, argv, environ);
  ctx = gContext.exchange(nullptr);
  // Null: a stop signal's watcher is destroying the context and ends us.
  if (ctx == nullptr) pause();
  return AndroidLogcatDestroy(&ctx);
}
