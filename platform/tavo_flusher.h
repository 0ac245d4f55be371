#ifndef MORVOCAT_PLATFORM_TAVO_FLUSHER_H_
#define MORVOCAT_PLATFORM_TAVO_FLUSHER_H_

// The process's one background flusher: writers that cache what they are
// given register here, and a thread flushes each one whose oldest cached
// byte nears its bound, so a copy of the log folder taken at any instant
// holds every record older than the bound, also from a stream gone quiet.
//
// Threads: the flusher thread exists only while a writer is registered; it
// starts with the first and is joined when the last one goes. It blocks
// every signal, so a host's signals (the collector's sigwait) never reach
// it, and it is called "tavo-flush". A child forked while it runs starts no
// thread of its own: its writers are flushed only by their owners.

#include <stdint.h>

#include <atomic>

namespace platform {

// Seconds, with up to three decimals; 0 turns the bound off.
constexpr char kFlushBoundEnv[] = "MORVOCAT_FLUSH_SECONDS";
constexpr int64_t kDefaultFlushBoundMs = 2000;

// The bound in milliseconds that text ("2", "0.5", "0") asks for; null,
// malformed or above a day gives the default.
int64_t FlushBoundFromText(const char* text);
// The bound the process environment asks for now.
int64_t FlushBoundFromEnv();
int64_t MonotonicNs();

class TavoFlushClient {
 public:
  // Flushes what is held when Due(nowNs) still holds under the writer's
  // own lock; runs on the flusher thread, never after Unregister returned.
  virtual void FlushIfDue(int64_t nowNs) = 0;

  // Held bytes are flushed once the oldest is three quarters of the bound
  // old: the flusher looks at least every quarter bound, so none waits
  // longer than the bound.
  bool Due(int64_t nowNs) const {
    int64_t since = heldSinceNs.load(std::memory_order_relaxed);
    return since != 0 && nowNs - since >= boundNs - boundNs / 4;
  }
  // When the first byte after the last flush came in; 0 while none is held.
  std::atomic<int64_t> heldSinceNs{0};
  int64_t boundNs = 0;  // set before registering

 protected:
  ~TavoFlushClient() = default;

 private:
  friend struct FlusherState;
  friend void RegisterFlushClient(TavoFlushClient* client);
  friend void UnregisterFlushClient(TavoFlushClient* client);
  TavoFlushClient* prev_ = nullptr;
  TavoFlushClient* next_ = nullptr;
  bool listed_ = false;
};

// Adds client, a no-op when it is listed already or its bound is 0.
void RegisterFlushClient(TavoFlushClient* client);
// Removes client, waiting for a flush of it in progress on the flusher
// thread; the thread is joined when client was the last one. A no-op for a
// client not listed. Not to be called with the client's own lock held.
void UnregisterFlushClient(TavoFlushClient* client);

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_TAVO_FLUSHER_H_
