#ifndef MORVOCAT_FILESETS_FILE_NAME_H_
#define MORVOCAT_FILESETS_FILE_NAME_H_

// What a file set adds to the names of platform/log_file_names.h, which
// makes and reads every name: the order of names, their place in a folder,
// and the set's own limits.

#include <stdint.h>

#include <string>

#include "platform/log_file_names.h"

namespace filesets {

// One file per index value at most.
constexpr uint64_t kIndexCount = platform::kSetIndexCount;
// The answer of the next-index choice that means: go on in the newest file.
constexpr uint32_t kContinueNewest = 0xFFFFFFFF;
// B.0 to B.4 and B-0.tar.gz to B-4.tar.gz are the recognised old names.
constexpr int kOldStyleCount = 5;

// Byte-wise order; a proper prefix sorts first.
bool ByteOrderBefore(const std::string& a, const std::string& b);

// The part of path after its last "/" (all of it when there is none), for
// calls relative to the folder's descriptor.
const char* NameInFolder(const std::string& path);

}  // namespace filesets

#endif  // MORVOCAT_FILESETS_FILE_NAME_H_
