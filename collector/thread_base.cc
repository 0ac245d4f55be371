#include "collector/thread_base.h"

ThreadBase::~ThreadBase() = default;

bool ThreadBase::Start() {
  if (threadId != 0) return true;
  pthread_t id = 0;
  if (pthread_create(&id, nullptr, ProxyFunction, this) != 0) return false;
  threadId = id;
  return threadId != 0;
}

void* ThreadBase::ProxyFunction(void* object) {
  if (object == nullptr) return nullptr;
  static_cast<ThreadBase*>(object)->Run();
  return nullptr;
}

void ThreadBase::Wait() {
  if (threadId == 0) return;
  pthread_join(threadId, nullptr);
  threadId = 0;
}
