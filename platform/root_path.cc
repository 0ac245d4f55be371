#include "platform/root_path.h"

#include <stdlib.h>
#include <string.h>

namespace platform {

bool ResolvePath(const char* devicePath, char* out, size_t size) {
  if (out == nullptr || size == 0) return false;
  out[0] = '\0';
  if (devicePath == nullptr) return false;
  const char* root = getenv(kRootEnv);
  if (root == nullptr) root = "";
  size_t rootLen = strlen(root);
  // A trailing "/" on the root would double the slash of the device path.
  while (rootLen > 0 && root[rootLen - 1] == '/') rootLen--;
  size_t pathLen = strlen(devicePath);
  if (rootLen + pathLen + 1 > size) return false;
  memcpy(out, root, rootLen);
  memcpy(out + rootLen, devicePath, pathLen + 1);
  return true;
}

}  // namespace platform
