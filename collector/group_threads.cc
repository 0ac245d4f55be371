#include "collector/group_threads.h"

#include <errno.h>
#include <pthread.h>

namespace {

pthread_mutex_t groupLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t groupEnded = PTHREAD_COND_INITIALIZER;

}  // namespace

namespace GroupThreads {

void Lock() { pthread_mutex_lock(&groupLock); }

void Unlock() { pthread_mutex_unlock(&groupLock); }

void WaitForEnd() { pthread_cond_wait(&groupEnded, &groupLock); }

bool WaitForEndUntil(const struct timespec& deadline) {
  return pthread_cond_clockwait(&groupEnded, &groupLock, CLOCK_MONOTONIC, &deadline) != ETIMEDOUT;
}

void MarkEnded(std::atomic<bool>* ended) {
  pthread_mutex_lock(&groupLock);
  *ended = true;
  pthread_cond_broadcast(&groupEnded);
  pthread_mutex_unlock(&groupLock);
}

}  // namespace GroupThreads
