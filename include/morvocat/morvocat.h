#ifndef MORVOCAT_MORVOCAT_H_
#define MORVOCAT_MORVOCAT_H_

// The embedding interface of libmorvocat.so: a host creates a context, runs
// one logcat-style command line on it (on its own thread, or on a new thread
// whose output comes back through a pipe) and destroys it.
//
// Threads: a context is used by one host thread at a time; its run may be
// on another thread. Contexts are independent, with one exception: only one
// run in a process may write output files (-f); a second one is refused
// with "another run of this process is writing output files" and status 1.
// A file-writing run has a background thread, which blocks every signal and
// flushes records cached longer than MORVOCAT_FLUSH_SECONDS (2 s by default,
// 0: never) into the files; it ends with the run.

#define MORVOCAT_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

typedef struct android_logcat_context_internal* android_logcat_context;

// A new context, or null when memory is short.
MORVOCAT_API android_logcat_context CreateAndroidLogcat(void);

// Runs argv on the caller's thread, printing to output and reporting to
// error (a negative descriptor: none given). argv and envp must outlive the
// call; argv is reordered. Returns the run's exit status, or -EBUSY without
// running when a run on ctx is still going.
//
// Descriptors: the host keeps what it hands in. The run writes through its
// own copies and closes only those, so output and error stay open (standard
// output and standard error included) and can be handed to the next run.
// SIGPIPE is blocked on the calling thread for the run and one it raised is
// taken before the host's mask is restored: an output nobody reads gives
// "output error" and ends the run with status 1. Messages reach the error
// channel at once, never left in a stream buffer.
MORVOCAT_API int AndroidLogcatRunCommand(android_logcat_context ctx, int output, int error,
                                         int argc, char** argv, char** envp);

// Runs a copy of argv on a new thread; returns the read end of a pipe that
// carries the output lines (end of file when the run ends), or -1 with errno
// set: EBUSY while a run on ctx is still going (that run is left as it is)
// or while the pipe of an earlier thread run is open. The read end belongs
// to the context and is closed by AndroidLogcatDestroy (unless the host has
// closed it already); a host may stop reading or close it at any time: the
// run then ends. The run's thread blocks SIGPIPE.
MORVOCAT_API int AndroidLogcatRunCommandThread(android_logcat_context ctx, int argc, char** argv,
                                               char** envp);

// 1 while the last run has not finished, else 0.
MORVOCAT_API int AndroidLogcatRunCommandThreadRunning(android_logcat_context ctx);

// Stops the run, waits for it, frees the context and nulls *ctx. Returns the
// last run's exit status, or -9 when *ctx is null. A run waiting for records
// or for room in a pipe nobody reads is woken; the wait sleeps rather than
// spins and ends within some tens of milliseconds. A collector hand-over
// (--tavo) never returns and so is never waited for to the end: destroy is
// not for such a context.
MORVOCAT_API int AndroidLogcatDestroy(android_logcat_context* ctx);

// Stores name in *slot only while *slot is null: keeps the first failure.
MORVOCAT_API void ReportErrorName(const char** slot, const char* name);

#ifdef __cplusplus
}  // extern "C"

namespace qdlogging {

// The value of the first "name=" entry of the context's environment, or null.
MORVOCAT_API const char* GetEnv(android_logcat_context ctx, const char* name);

}  // namespace qdlogging
#endif

#endif  // MORVOCAT_MORVOCAT_H_
