#ifndef MORVOCAT_COLLECTOR_THREAD_BASE_H_
#define MORVOCAT_COLLECTOR_THREAD_BASE_H_

// An object that owns at most one thread and runs its own Run on it. The
// destructor neither joins nor detaches: the owner calls Wait when it must.

#include <pthread.h>

class ThreadBase {
 public:
  ThreadBase() = default;
  virtual ~ThreadBase();
  ThreadBase(const ThreadBase&) = delete;
  ThreadBase& operator=(const ThreadBase&) = delete;

  // Starts the thread unless one is recorded; true when one is recorded
  // afterwards (a thread that ended by itself still counts).
  bool Start();
  static void* ProxyFunction(void* object);
  // Joins the recorded thread, if any, and forgets it.
  void Wait();
  // Whether a thread is recorded (started and not yet joined).
  bool HasThread() const { return threadId != 0; }
  virtual void Run() = 0;

 protected:
  pthread_t threadId = 0;
};

#endif  // MORVOCAT_COLLECTOR_THREAD_BASE_H_
