#ifndef MORVOCAT_TESTS_SUPPORT_ALLOC_FAILURE_H_
#define MORVOCAT_TESTS_SUPPORT_ALLOC_FAILURE_H_

// Makes one chosen non-throwing allocation fail, to drive the code's
// allocation-failure paths. Only new (std::nothrow) is affected; libxml2 and
// the test framework allocate otherwise. A test program that uses this
// links support/alloc_failure.cc, which replaces the non-throwing forms.

namespace morvotest {

// From now on, the nth non-throwing allocation (0 is the next) returns null;
// a negative n fails none. Resets the count.
void FailNothrowAllocation(long n);
// Non-throwing allocations since the last FailNothrowAllocation.
long NothrowAllocations();

// Runs step(-1) with no allocation failing, then step(n) with the nth of
// the allocations that first run made failing, for each n in turn. Returns
// how many there were.
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
