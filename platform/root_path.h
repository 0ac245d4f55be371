#ifndef MORVOCAT_PLATFORM_ROOT_PATH_H_
#define MORVOCAT_PLATFORM_ROOT_PATH_H_

#include <stddef.h>

namespace platform {

// Environment variable whose value prefixes every fixed device path
// ("/data/log/...", "/proc/reboot_watchdog", ...). Empty or unset means the
// device paths are used as written; tests point it at a temporary folder.
constexpr const char kRootEnv[] = "MORVOCAT_ROOT";

// Writes root prefix + devicePath into out (NUL-terminated). Returns false,
// with out empty, when the result does not fit in size bytes.
bool ResolvePath(const char* devicePath, char* out, size_t size);

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_ROOT_PATH_H_
