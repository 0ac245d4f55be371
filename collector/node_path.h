#ifndef MORVOCAT_COLLECTOR_NODE_PATH_H_
#define MORVOCAT_COLLECTOR_NODE_PATH_H_

// Paths of the configuration as the collector opens them: an absolute path
// names a device node and is taken under the root prefix; a relative one is
// opened as written, from the working directory.

#include <stddef.h>

#include "platform/root_path.h"
#include "platform/safe_string.h"

inline bool ResolveNodePath(const char* path, char* out, size_t size) {
  if (path[0] == '/') return platform::ResolvePath(path, out, size);
  return strcpy_s(out, size, path) == 0;
}

#endif  // MORVOCAT_COLLECTOR_NODE_PATH_H_
