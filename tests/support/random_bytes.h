#ifndef MORVOCAT_TESTS_SUPPORT_RANDOM_BYTES_H_
#define MORVOCAT_TESTS_SUPPORT_RANDOM_BYTES_H_

// Bytes that do not compress, the same for the same seed.

#include <stddef.h>

#include <random>
#include <string>

namespace morvotest {

inline std::string RandomBytes(size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(random());
  return bytes;
}

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_RANDOM_BYTES_H_
