#ifndef MORVOCAT_MORVOCAT_H_
#define MORVOCAT_MORVOCAT_H_

// The embedding interface of libmorvocat.so: a host creates a context, runs
// one logcat-style command line on it (on its own thread, or on a new thread
// whose output comes back through a pipe) and destroys it.

#define MORVOCAT_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

typedef struct android_logcat_context_internal* android_logcat_context;

// A new context, or null when memory is short.
MORVOCAT_API android_logcat_context CreateAndroidLogcat(void);

// Runs argv on the caller's thread, printing to output and reporting to
// error (a negative descriptor: none given). argv and envp must outlive the
// call; argv is reordered. Returns the run's exit status.
MORVOCAT_API int AndroidLogcatRunCommand(android_logcat_context ctx, int output, int error,
                                         int argc, char** argv, char** envp);

// Runs a copy of argv on a new thread; returns the read end of a pipe that
// carries the output (end of file when the run ends), or -1 with errno set.
MORVOCAT_API int AndroidLogcatRunCommandThread(android_logcat_context ctx, int argc, char** argv,
                                               char** envp);

// 1 while the last run has not finished, else 0.
MORVOCAT_API int AndroidLogcatRunCommandThreadRunning(android_logcat_context ctx);

// Stops the run, waits for it, frees the context and nulls *ctx. Returns the
// last run's exit status, or -9 when *ctx is null.
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
