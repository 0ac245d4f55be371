#include "platform/root_path.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

namespace platform {

DevicePath DevicePath::Join(const char* prefix, size_t prefixLength, const char* path) {
  DevicePath resolved;
  if (path == nullptr) {
    resolved.error_ = -EINVAL;
    return resolved;
  }
  size_t pathLength = strlen(path);
  if (prefixLength + pathLength + 1 > sizeof(resolved.path_)) {
    resolved.error_ = -ENAMETOOLONG;
    return resolved;
  }
  memcpy(resolved.path_, prefix, prefixLength);
  memcpy(resolved.path_ + prefixLength, path, pathLength + 1);
  return resolved;
}

DevicePath ResolvePath(const char* devicePath) {
  const char* root = getenv(kRootEnv);
  if (root == nullptr) root = "";
  size_t rootLength = strlen(root);
  // A trailing "/" on the root would double the slash of the device path.
  while (rootLength > 0 && root[rootLength - 1] == '/') rootLength--;
  return DevicePath::Join(root, rootLength, devicePath);
}

DevicePath ResolveNodePath(const char* path) {
  if (path != nullptr && path[0] == '/') return ResolvePath(path);
  return DevicePath::Join("", 0, path);
}

DevicePath ResolveOverridable(const char* overrideEnv, const char* devicePath) {
  const char* override = getenv(overrideEnv);
  if (override != nullptr && override[0] != '\0') return DevicePath::Join("", 0, override);
  return ResolvePath(devicePath);
}

}  // namespace platform
