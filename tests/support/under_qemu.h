#ifndef MORVOCAT_TESTS_SUPPORT_UNDER_QEMU_H_
#define MORVOCAT_TESTS_SUPPORT_UNDER_QEMU_H_

// scripts/cross-test runs the AArch64 tests under qemu-user and marks them
// with MORVO_UNDER_QEMU. There /proc shows qemu's own name and arguments for
// an emulated process, and an emulated program cannot exec another AArch64
// one (qemu leaves exec to the kernel, which has no handler for it here).

#include <stdio.h>
#include <stdlib.h>

namespace morvotest {

inline bool UnderQemu() {
  const char* value = getenv("MORVO_UNDER_QEMU");
  return value != nullptr && value[0] != '\0';
}

// True, after saying so, where qemu hides what a check looks at.
inline bool QemuHides(const char* what) {
  if (!UnderQemu()) return false;
  printf("[ QEMU     ] not checked under qemu-user: %s\n", what);
  return true;
}

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_UNDER_QEMU_H_
