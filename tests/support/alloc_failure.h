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

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_ALLOC_FAILURE_H_
