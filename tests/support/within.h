#ifndef MORVOCAT_TESTS_SUPPORT_WITHIN_H_
#define MORVOCAT_TESTS_SUPPORT_WITHIN_H_

// Waiting for what another thread or process does; never a measure of speed.

#include <unistd.h>

namespace morvotest {

// Polls until done() or the deadline; what done() says last.
template <class Done>
bool Within(int seconds, Done done) {
  for (int i = 0; i < seconds * 100; i++) {
    if (done()) return true;
    usleep(10 * 1000);
  }
  return done();
}

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_WITHIN_H_
