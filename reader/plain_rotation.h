#ifndef MORVOCAT_READER_PLAIN_ROTATION_H_
#define MORVOCAT_READER_PLAIN_ROTATION_H_

// The plain output file's rotation: P is renamed to P.1, P.1 to P.2 and so
// on; when P.N exists and archives are on, P.1 to P.N are packed into
// P-0.tar.gz, older archives moving up to P-(M-1).tar.gz.

#include <stdint.h>

#include <string>

#include "reader/logcat_context.h"

namespace qdlogging {

// Number of decimal digits of count (0 for 0): the width of rotated names.
int RotationDigits(uint64_t count);
// P itself for i = 0, else P.i with i padded to digits places; empty when the
// name cannot be formatted.
std::string RotatedName(const char* path, int digits, uint64_t i);

// Closes the plain file, shifts the rotated files, archives a full set and
// opens a fresh P.
void RotateLogs(android_logcat_context_internal* ctx);

}  // namespace qdlogging

#endif  // MORVOCAT_READER_PLAIN_ROTATION_H_
