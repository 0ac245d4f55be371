#ifndef MORVOCAT_CONFIG_CONFIG_WIRE_H_
#define MORVOCAT_CONFIG_CONFIG_WIRE_H_

// The configuration tree as bytes, so that a tree built in one process is
// rebuilt in another: the collector parses its file in a child process.
// Both ends are the same program, so numbers are native 64-bit words and a
// string is a length word and its bytes (an all-ones length for null).

#include <stddef.h>

#include "config/tavo_common.h"

namespace TavoConfig {

// A growable byte buffer; `failed` once a growth could not be had.
struct WireBuffer {
  unsigned char* data = nullptr;
  size_t size = 0;
  size_t capacity = 0;
  bool failed = false;

  WireBuffer() = default;
  ~WireBuffer();
  WireBuffer(const WireBuffer&) = delete;
  WireBuffer& operator=(const WireBuffer&) = delete;

  void Append(const void* bytes, size_t length);
};

// Appends the encoded tree to out; false when memory ran out.
bool EncodeTavocatInfo(const TavoCommon::TavocatInfoT& info, WireBuffer* out);

// Rebuilds into info (zero-filled by the caller) the tree that bytes hold,
// which must be exactly one encoding. 0, or 1 on a malformed or truncated
// encoding or a failed allocation, with info then freed.
int DecodeTavocatInfo(const unsigned char* bytes, size_t size, TavoCommon::TavocatInfoT* info);

}  // namespace TavoConfig

#endif  // MORVOCAT_CONFIG_CONFIG_WIRE_H_
