#ifndef MORVOCAT_TESTS_SUPPORT_ALLOC_FAILURE_H_
#define MORVOCAT_TESTS_SUPPORT_ALLOC_FAILURE_H_

// Makes one chosen new (std::nothrow) fail; link support/alloc_failure.cc with it.

namespace morvotest {

// The nth non-throwing allocation from now (0 is the next) fails; negative: none.
void FailNothrowAllocation(long n);
// Non-throwing allocations since the last FailNothrowAllocation.
long NothrowAllocations();

// step(-1), then step(n) with the nth of that run's allocations failing for each n; their count.
template <class Step>
long EachAllocationFailing(Step step) {
  FailNothrowAllocation(-1);
  step(-1L);
  long count = NothrowAllocations();
  for (long n = 0; n < count; ++n) {
    FailNothrowAllocation(n);
    step(n);
  }
  FailNothrowAllocation(-1);
  return count;
}

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_ALLOC_FAILURE_H_
