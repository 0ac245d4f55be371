#include "support/alloc_failure.h"

#include <new>

namespace morvotest {

namespace {

long failAt = -1;
long count = 0;

bool NextFails() { return count++ == failAt; }

}  // namespace

void FailNothrowAllocation(long n) {
  failAt = n;
  count = 0;
}

long NothrowAllocations() { return count; }

}  // namespace morvotest

// The memory comes from the throwing forms, so each pairs with the usual delete.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (morvotest::NextFails()) return nullptr;
  try {
    return ::operator new(size);
  } catch (...) {
    return nullptr;
  }
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  if (morvotest::NextFails()) return nullptr;
  try {
    return ::operator new[](size);
  } catch (...) {
    return nullptr;
  }
}
