#ifndef MORVOCAT_COLLECTOR_WAIT_POINT_H_
#define MORVOCAT_COLLECTOR_WAIT_POINT_H_

// A group thread runs with cancellation disabled and opens it only while it
// waits (a blocking read, poll or sleep). The collector's teardown cancels
// and joins the group threads, so a thread is never stopped inside a write
// and no thread touches a group after it is destroyed.

#include <pthread.h>
#include <unistd.h>

class WaitPoint {
 public:
  WaitPoint() { pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &previous); }
  ~WaitPoint() { pthread_setcancelstate(previous, nullptr); }
  WaitPoint(const WaitPoint&) = delete;
  WaitPoint& operator=(const WaitPoint&) = delete;

  // Called first by every group thread.
  static void CloseOutsideWaits() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); }
  // A pause before trying again, where the teardown may stop the thread.
  static void Sleep(unsigned seconds) {
    WaitPoint wait;
    sleep(seconds);
  }

 private:
  int previous = PTHREAD_CANCEL_DISABLE;
};

#endif  // MORVOCAT_COLLECTOR_WAIT_POINT_H_
