#ifndef MORVOCAT_FUZZ_FUZZ_SUPPORT_H_
#define MORVOCAT_FUZZ_FUZZ_SUPPORT_H_

// Helpers shared by the fuzz targets.

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "support/temp_root.h"

namespace morvofuzz {

// Ends the run as a finding: libFuzzer saves the input that broke the rule.
[[noreturn]] inline void Fail(const char* what) {
  fprintf(stderr, "fuzz check failed: %s\n", what);
  abort();
}

inline void Check(bool ok, const char* what) {
  if (!ok) Fail(what);
}

// The input cut at each NUL byte; the pieces carry no NUL.
inline std::vector<std::string> SplitAtNul(const uint8_t* data, size_t size) {
  std::vector<std::string> pieces(1);
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      pieces.emplace_back();
    } else {
      pieces.back().push_back(static_cast<char>(data[i]));
    }
  }
  return pieces;
}

// The temporary root of this fuzzing process, made on first use and removed
// when the process exits normally.
inline morvotest::TempRoot& Root() {
  static morvotest::TempRoot root;
  return root;
}

}  // namespace morvofuzz

#endif  // MORVOCAT_FUZZ_FUZZ_SUPPORT_H_
