// The exported entry points and the run function that ties a run together.

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <new>

#include "collector/tavocat_main.h"
#include "morvocat/morvocat.h"
#include "platform/log_wake.h"
#include "platform/safe_string.h"
#include "platform/sched_policy.h"
#include "platform/thread_cancel.h"
#include "reader/buffer_operations.h"
#include "reader/logcat_channels.h"
#include "reader/logcat_context.h"
#include "reader/logcat_options.h"
#include "reader/output_file.h"
#include "reader/read_loop.h"

namespace qdlogging {
namespace {

// What an earlier run on the same context left behind is released before
// the next run borrows new arguments.
void ResetForRun(android_logcat_context_internal* ctx) {
  FreeDevices(ctx);
  ctx->outputFileName = nullptr;
  ctx->rotateKBytes = 0;
  ctx->rotateCount = 4;
  ctx->compressCount = 0;
  ctx->outByteCount = 0;
  ctx->printCount = 0;
  ctx->stderrToNull = false;
  ctx->stderrToStdout = false;
  qdlogging_log_format_free(ctx->logFormat);
  ctx->logFormat = nullptr;
}

void BackgroundScheduling(android_logcat_context_internal* ctx) {
  if (set_sched_policy(0, SP_BACKGROUND) < 0) {
    PrintError(ctx, "failed to set background scheduling policy\n");
  }
  sched_param param;
  memset_s(&param, sizeof(param), 0, sizeof(param));
  if (sched_setscheduler(0, SCHED_BATCH, &param) < 0) {
    fprintf(stderr, "failed to set to batch scheduler\n");
  }
  if (setpriority(PRIO_PROCESS, 0, 10) < 0) PrintError(ctx, "failed set to priority\n");
}

// Options, collector hand-over, buffers; then output and the read loop.
void RunCommandLine(android_logcat_context_internal* ctx) {
  RunOptions opts;
  if (!ParseOptions(ctx, &opts)) return;
  if (opts.collectorKind == 1 || opts.collectorKind == 2) {
    if (TavocatMain(opts.collectorKind, opts.collectorName, ctx->argCount, ctx->argVector) != 0) {
      return;
    }
  }
  if (!opts.buffersGiven) AddDefaultBuffers(ctx, opts);
  if (!OpenBuffers(ctx, opts)) return;
  if (ctx->outputFileName != nullptr) {
    if ((opts.readMode & QD_LOGGER_MODE_NONBLOCK) == 0) BackgroundScheduling(ctx);
    SetupOutputFile(ctx);
  }
  ReadLoop(ctx, (opts.readMode & QD_LOGGER_MODE_NONBLOCK) != 0);
}

void EndRun(android_logcat_context_internal* ctx) {
  ReleasePipeChannels(ctx);
  if (ctx->outputStream != nullptr) fflush(ctx->outputStream);
  if (ctx->errorStream != nullptr) fflush(ctx->errorStream);
  DestroyWriter(ctx);
}

int Logcat(android_logcat_context_internal* ctx) {
  ResetForRun(ctx);
  platform::WatchCancelFlag(&ctx->stopRequested);
  if (SetupChannels(ctx)) {
    ctx->logFormat = qdlogging_log_format_new();
    if (getuid() == 0) umask(022);
    if (ctx->logFormat == nullptr) {
      LogcatPanic(ctx, HELP_NONE, "out of memory\n");
    } else {
      RunCommandLine(ctx);
    }
  }
  EndRun(ctx);
  platform::WatchCancelFlag(nullptr);
  int status = ctx->exitStatus.load(std::memory_order_acquire);
  ctx->runFinished.store(true, std::memory_order_release);
  return status;
}

// A reader whose pipe or output has no reader any more must see EPIPE, not
// take the host down with SIGPIPE.
void BlockSigpipe(sigset_t* previous) {
  sigset_t pipeOnly;
  sigemptyset(&pipeOnly);
  sigaddset(&pipeOnly, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipeOnly, previous);
}

void* RunThread(void* arg) {
  sigset_t previous;
  BlockSigpipe(&previous);
  Logcat(static_cast<android_logcat_context_internal*>(arg));
  return nullptr;
}

// A run on the host's thread: SIGPIPE is blocked for the run, and one the
// run raised is taken before the host's mask comes back.
int RunOnHostThread(android_logcat_context_internal* ctx) {
  sigset_t previous;
  BlockSigpipe(&previous);
  sigset_t pending;
  bool wasPending = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
  int status = Logcat(ctx);
  if (!wasPending && sigismember(&previous, SIGPIPE) == 0) {
    sigset_t pipeOnly;
    sigemptyset(&pipeOnly);
    sigaddset(&pipeOnly, SIGPIPE);
    const timespec now = {0, 0};
    while (sigtimedwait(&pipeOnly, nullptr, &now) == SIGPIPE) {
    }
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  return status;
}

// The run sees the stop request at its next record, write slice or read
// slice; sleeping between looks leaves the core to it.
void AwaitRunEnd(android_logcat_context_internal* ctx) {
  if (ctx->runFinished.load(std::memory_order_acquire)) return;
  platform::WakeLogReaders();
  const timespec pause = {0, 1000 * 1000};
  while (!ctx->runFinished.load(std::memory_order_acquire)) nanosleep(&pause, nullptr);
}

// The read end is closed only while it is still this context's pipe.
void CloseReadEnd(android_logcat_context_internal* ctx) {
  struct stat st;
  if (ctx->pipeFds[0] >= 0 && fstat(ctx->pipeFds[0], &st) == 0 && S_ISFIFO(st.st_mode) &&
      st.st_ino == ctx->pipeInode) {
    close(ctx->pipeFds[0]);
  }
  ctx->pipeFds[0] = -1;
}

void ClosePipe(android_logcat_context_internal* ctx) {
  for (int& fd : ctx->pipeFds) {
    if (fd >= 0) close(fd);
    fd = -1;
  }
}

void ReleaseCopies(android_logcat_context_internal* ctx) {
  ctx->argCopies.clear();
  ctx->argPointers.clear();
  ctx->envCopies.clear();
  ctx->envPointers.clear();
}

int FailThreadStart(android_logcat_context_internal* ctx, int err) {
  ctx->stopRequested.store(true, std::memory_order_release);
  ctx->runFinished.store(true, std::memory_order_release);
  ctx->exitStatus.store(1, std::memory_order_release);
  errno = err;
  return -1;
}

// Copies of the arguments and environment that the run thread owns.
void CopyCommand(android_logcat_context_internal* ctx, int argc, char** argv, char** envp) {
  ReleaseCopies(ctx);
  for (int i = 0; i < argc; ++i) ctx->argCopies.emplace_back(argv[i] != nullptr ? argv[i] : "");
  for (char** e = envp; e != nullptr && *e != nullptr; ++e) ctx->envCopies.emplace_back(*e);
  for (std::string& s : ctx->argCopies) ctx->argPointers.push_back(&s[0]);
  ctx->argPointers.push_back(nullptr);
  for (std::string& s : ctx->envCopies) ctx->envPointers.push_back(&s[0]);
  ctx->envPointers.push_back(nullptr);
  ctx->argVector = ctx->argPointers.data();
  ctx->envVector = ctx->envPointers.data();
  ctx->argCount = static_cast<int>(ctx->argPointers.size()) - 1;
}

}  // namespace
}  // namespace qdlogging

using qdlogging::CloseError;
using qdlogging::CloseOutput;

extern "C" {

android_logcat_context CreateAndroidLogcat(void) {
  return new (std::nothrow) android_logcat_context_internal;
}

int AndroidLogcatRunCommand(android_logcat_context ctx, int output, int error, int argc,
                            char** argv, char** envp) {
  if (ctx == nullptr) return -EINVAL;
  // A run still going on this context owns its fields.
  if (!ctx->runFinished.load(std::memory_order_acquire)) return -EBUSY;
  CloseOutput(ctx);
  CloseError(ctx);
  ctx->argVector = argv;
  ctx->envVector = envp;
  ctx->output_fd = output;
  ctx->error_fd = error;
  ctx->argCount = argc;
  ctx->stopRequested.store(false, std::memory_order_release);
  ctx->runFinished.store(false, std::memory_order_release);
  return qdlogging::RunOnHostThread(ctx);
}

int AndroidLogcatRunCommandThread(android_logcat_context ctx, int argc, char** argv, char** envp) {
  if (ctx == nullptr) {
    errno = EINVAL;
    return -1;
  }
  // A refused start leaves the flags of a run still going alone: marked
  // finished, that run's context could be destroyed under it.
  if (!ctx->runFinished.load(std::memory_order_acquire)) {
    errno = EBUSY;
    return -1;
  }
  if (ctx->pipeFds[0] != -1 || ctx->pipeFds[1] != -1) return qdlogging::FailThreadStart(ctx, EBUSY);
  if (pipe2(ctx->pipeFds, O_CLOEXEC) != 0) return qdlogging::FailThreadStart(ctx, errno);
  // The run's end does not block: a host that stops reading cannot hold the
  // run (and its destroy) in a write for ever.
  fcntl(ctx->pipeFds[1], F_SETFL, O_NONBLOCK);
  struct stat pipeStat;
  ctx->pipeInode = fstat(ctx->pipeFds[0], &pipeStat) == 0 ? pipeStat.st_ino : 0;
  pthread_attr_t attr;
  int err = pthread_attr_init(&attr);
  if (err != 0) {
    qdlogging::ClosePipe(ctx);
    return qdlogging::FailThreadStart(ctx, err);
  }
  sched_param param;
  memset_s(&param, sizeof(param), 0, sizeof(param));
  pthread_attr_setschedparam(&attr, &param);
  pthread_attr_setschedpolicy(&attr, SCHED_BATCH);
  err = pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  if (err != 0) {
    pthread_attr_destroy(&attr);
    qdlogging::ClosePipe(ctx);
    return qdlogging::FailThreadStart(ctx, err);
  }
  ctx->stopRequested.store(false, std::memory_order_release);
  ctx->runFinished.store(false, std::memory_order_release);
  CloseOutput(ctx);
  ctx->output_fd = ctx->pipeFds[1];
  qdlogging::CopyCommand(ctx, argc, argv, envp);
  ctx->exitStatus.store(0, std::memory_order_release);
  err = pthread_create(&ctx->runThread, &attr, qdlogging::RunThread, ctx);
  pthread_attr_destroy(&attr);
  if (err != 0) {
    qdlogging::ReleaseCopies(ctx);
    qdlogging::ClosePipe(ctx);
    ctx->output_fd = -1;
    return qdlogging::FailThreadStart(ctx, err);
  }
  return ctx->pipeFds[0];
}

int AndroidLogcatRunCommandThreadRunning(android_logcat_context ctx) {
  if (ctx == nullptr) return 0;
  return ctx->runFinished.load(std::memory_order_acquire) ? 0 : 1;
}

int AndroidLogcatDestroy(android_logcat_context* ctxPtr) {
  if (ctxPtr == nullptr || *ctxPtr == nullptr) return -EBADF;
  android_logcat_context ctx = *ctxPtr;
  *ctxPtr = nullptr;
  ctx->stopRequested.store(true, std::memory_order_release);
  qdlogging::AwaitRunEnd(ctx);
  qdlogging::ReleaseCopies(ctx);
  qdlogging::CloseReadEnd(ctx);
  CloseOutput(ctx);
  CloseError(ctx);
  if (ctx->pipeFds[1] >= 0) close(ctx->pipeFds[1]);
  ctx->pipeFds[1] = -1;
  qdlogging::FreeDevices(ctx);
  qdlogging_log_format_free(ctx->logFormat);
  int status = ctx->exitStatus.load(std::memory_order_acquire);
  delete ctx;
  return status;
}

}  // extern "C"
