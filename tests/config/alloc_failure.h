#ifndef MORVOCAT_TESTS_CONFIG_ALLOC_FAILURE_H_
#define MORVOCAT_TESTS_CONFIG_ALLOC_FAILURE_H_

// Makes one chosen non-throwing allocation fail, to drive the code's
// allocation-failure paths. Only new (std::nothrow) is affected; libxml2 and
// the test framework allocate otherwise.

namespace configtest {

// From now on, the nth non-throwing allocation (0 is the next) returns null;
// a negative n fails none. Resets the count.
void FailNothrowAllocation(long n);
// Non-throwing allocations since the last FailNothrowAllocation.
long NothrowAllocations();

}  // namespace configtest

#endif  // MORVOCAT_TESTS_CONFIG_ALLOC_FAILURE_H_
