#ifndef MORVOCAT_PLATFORM_ROOT_PATH_H_
#define MORVOCAT_PLATFORM_ROOT_PATH_H_

// Every fixed device path ("/data/log/...", "/proc/reboot_watchdog", a
// configured node or output path) is opened through a DevicePath, and only
// the resolvers below make one: no code can reach the device's own "/data"
// by forgetting to apply the root prefix, and a path that does not resolve
// opens nothing. Resolve where the user is built (a group's output path with
// the group, the watchdog and configuration paths with the run) and keep it.

#include <limits.h>
#include <stddef.h>

namespace platform {

// Environment variable whose value prefixes every fixed device path. Empty
// or unset means the device paths are used as written; tests point it at a
// temporary folder.
constexpr const char kRootEnv[] = "MORVOCAT_ROOT";

class DevicePath {
 public:
  // 0, or why the path could not be resolved: -ENAMETOOLONG when it does
  // not fit PATH_MAX, -EINVAL for no path.
  int error() const { return error_; }
  bool ok() const { return error_ == 0; }
  // The host path; "" for a path that could not be resolved, which opens
  // nothing.
  const char* c_str() const { return path_; }

 private:
  friend DevicePath ResolvePath(const char* devicePath);
  friend DevicePath ResolveNodePath(const char* path);
  friend DevicePath ResolveOverridable(const char* overrideEnv, const char* devicePath);
  DevicePath() = default;
  static DevicePath Join(const char* prefix, size_t prefixLength, const char* path);

  int error_ = 0;
  char path_[PATH_MAX] = "";
};

// Root prefix + devicePath, one "/" between them whatever the root ends in.
DevicePath ResolvePath(const char* devicePath);

// A path of the configuration: an absolute one names a device node and is
// taken under the root prefix; a relative one is used as written, from the
// working directory.
DevicePath ResolveNodePath(const char* path);

// The value of the environment variable overrideEnv when it is set and not
// empty, a whole host path; else ResolvePath(devicePath).
DevicePath ResolveOverridable(const char* overrideEnv, const char* devicePath);

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_ROOT_PATH_H_
