// The state lives in plain statics that need no destructor: a process may
// exit while writers are still registered, and nothing must then tear down
// a lock or a list under the running thread. Clients are linked through
// their own fields, so registering allocates nothing and cannot fail.
//
// Locks: lifeMu orders starts and joins of the thread (a Register right
// after the last Unregister waits for the old thread to be joined); mu
// guards the list and the flags. The thread drops mu while it flushes, and
// the client being flushed is marked busy so Unregister waits for it.

#include "platform/tavo_flusher.h"

#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <time.h>

namespace platform {

struct FlusherState {
  pthread_mutex_t lifeMu = PTHREAD_MUTEX_INITIALIZER;
  pthread_mutex_t mu = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t wake{};  // the thread sleeps on it; monotonic clock
  pthread_cond_t idle{};  // signalled when busy is cleared
  pthread_t thread{};
  bool running = false;
  bool stop = false;
  bool noThreads = false;  // a child forked while the thread ran
  TavoFlushClient* head = nullptr;
  TavoFlushClient* busy = nullptr;

  static void Link(TavoFlushClient* c);
  static void Unlink(TavoFlushClient* c);
  static int64_t TickNs();
  static void FlushDue();
  static void* Run(void*);
  static void Start();
};

namespace {

FlusherState gState;
pthread_once_t gOnce = PTHREAD_ONCE_INIT;

constexpr int64_t kMinTickNs = 1000000;
constexpr int64_t kMaxBoundMs = 86400 * 1000;

void Prepare() {
  pthread_mutex_lock(&gState.lifeMu);
  pthread_mutex_lock(&gState.mu);
}

void Parent() {
  pthread_mutex_unlock(&gState.mu);
  pthread_mutex_unlock(&gState.lifeMu);
}

// The thread is not copied into the child: nobody flushes there in the
// background, and a child of a threaded process must not start threads.
void Child() {
  if (gState.running) gState.noThreads = true;
  gState.running = false;
  gState.stop = false;
  gState.busy = nullptr;
  Parent();
}

void InitOnce() {
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&gState.wake, &attr);
  pthread_condattr_destroy(&attr);
  pthread_cond_init(&gState.idle, nullptr);
  pthread_atfork(Prepare, Parent, Child);
}

// Registering waits on locks only briefly, but a cancelled thread must
// never unwind out of a wait holding the flusher's lock.
class NoCancel {
 public:
  NoCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous_); }
  ~NoCancel() { pthread_setcancelstate(previous_, nullptr); }
  NoCancel(const NoCancel&) = delete;
  NoCancel& operator=(const NoCancel&) = delete;

 private:
  int previous_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace

int64_t FlushBoundFromText(const char* text) {
  if (text == nullptr || *text < '0' || *text > '9') return kDefaultFlushBoundMs;
  int64_t ms = 0;
  for (; *text >= '0' && *text <= '9'; text++) {
    ms = ms * 10 + (*text - '0') * 1000;
    if (ms > kMaxBoundMs) return kDefaultFlushBoundMs;
  }
  if (*text == '.') {
    text++;
    for (int scale = 100; *text >= '0' && *text <= '9'; text++, scale /= 10) {
      ms += (*text - '0') * scale;
    }
  }
  return *text == '\0' && ms <= kMaxBoundMs ? ms : kDefaultFlushBoundMs;
}

int64_t FlushBoundFromEnv() { return FlushBoundFromText(getenv(kFlushBoundEnv)); }

int64_t MonotonicNs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void FlusherState::Link(TavoFlushClient* c) {
  c->prev_ = nullptr;
  c->next_ = gState.head;
  if (gState.head != nullptr) gState.head->prev_ = c;
  gState.head = c;
  c->listed_ = true;
}

void FlusherState::Unlink(TavoFlushClient* c) {
  if (c->prev_ != nullptr)
    c->prev_->next_ = c->next_;
  else
    gState.head = c->next_;
  if (c->next_ != nullptr) c->next_->prev_ = c->prev_;
  c->prev_ = c->next_ = nullptr;
  c->listed_ = false;
}

// A quarter of the shortest bound among the clients.
int64_t FlusherState::TickNs() {
  int64_t tick = INT64_MAX;
  for (TavoFlushClient* c = gState.head; c != nullptr; c = c->next_) {
    if (c->boundNs / 4 < tick) tick = c->boundNs / 4;
  }
  return tick < kMinTickNs ? kMinTickNs : tick;
}

// Called and returns with mu held; drops it around each flush. The busy
// client stays listed, so its successor is read safely after the flush.
void FlusherState::FlushDue() {
  TavoFlushClient* c = gState.head;
  while (c != nullptr && !gState.stop) {
    int64_t now = MonotonicNs();
    if (!c->Due(now)) {
      c = c->next_;
      continue;
    }
    gState.busy = c;
    pthread_mutex_unlock(&gState.mu);
    c->FlushIfDue(now);
    pthread_mutex_lock(&gState.mu);
    gState.busy = nullptr;
    pthread_cond_broadcast(&gState.idle);
    c = c->next_;
  }
}

void* FlusherState::Run(void*) {
  pthread_mutex_lock(&gState.mu);
  while (!gState.stop) {
    FlushDue();
    if (gState.stop) break;
    int64_t until = MonotonicNs() + TickNs();
    struct timespec ts = {static_cast<time_t>(until / 1000000000), until % 1000000000};
    pthread_cond_timedwait(&gState.wake, &gState.mu, &ts);
  }
  pthread_mutex_unlock(&gState.mu);
  return nullptr;
}

// With mu held. Without a thread (none could be made) writers are flushed
// by their owners only, as before; the next Register tries again.
void FlusherState::Start() {
  if (gState.running || gState.noThreads) return;
  sigset_t all, old;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &old);
  gState.stop = false;
  gState.running = pthread_create(&gState.thread, nullptr, Run, nullptr) == 0;
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  if (gState.running) pthread_setname_np(gState.thread, "tavo-flush");
}

void RegisterFlushClient(TavoFlushClient* client) {
  if (client == nullptr || client->boundNs <= 0) return;
  pthread_once(&gOnce, InitOnce);
  NoCancel noCancel;
  pthread_mutex_lock(&gState.lifeMu);
  pthread_mutex_lock(&gState.mu);
  if (!client->listed_) FlusherState::Link(client);
  FlusherState::Start();
  // A shorter bound than the others shortens the current sleep.
  pthread_cond_signal(&gState.wake);
  pthread_mutex_unlock(&gState.mu);
  pthread_mutex_unlock(&gState.lifeMu);
}

void UnregisterFlushClient(TavoFlushClient* client) {
  if (client == nullptr) return;
  pthread_once(&gOnce, InitOnce);
  NoCancel noCancel;
  pthread_mutex_lock(&gState.lifeMu);
  pthread_mutex_lock(&gState.mu);
  while (gState.busy == client) pthread_cond_wait(&gState.idle, &gState.mu);
  if (client->listed_) FlusherState::Unlink(client);
  bool join = gState.head == nullptr && gState.running;
  if (join) {
    gState.stop = true;
    pthread_cond_signal(&gState.wake);
  }
  pthread_mutex_unlock(&gState.mu);
  if (join) {
    pthread_join(gState.thread, nullptr);
    pthread_mutex_lock(&gState.mu);
    gState.running = false;
    gState.stop = false;
    pthread_mutex_unlock(&gState.mu);
  }
  pthread_mutex_unlock(&gState.lifeMu);
}

}  // namespace platform
