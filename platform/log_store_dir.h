#ifndef MORVOCAT_PLATFORM_LOG_STORE_DIR_H_
#define MORVOCAT_PLATFORM_LOG_STORE_DIR_H_

// The folder of the log store and the shared files in it. A shared file is
// always published whole: it is built under a temporary name and then
// linked or renamed into place, so no process ever maps a half-made file.

#include <stddef.h>

namespace platform {

// Writes the store folder into out: $MORVOCAT_LOG_STORE when set and not
// empty, else the root-prefixed MORVO_LOG_STORE_DIR. False when it does not
// fit.
bool LogStoreDir(char* out, size_t size);

// Creates dir and its missing parents (mode 0775). False when dir cannot be
// made a folder.
bool MakeStoreDir(const char* dir);

struct SharedMapping {
  void* addr = nullptr;
  size_t size = 0;
};

void UnmapShared(SharedMapping* mapping);

// Maps the whole existing file at path read-write and shared. Its size must
// lie within [minSize, maxSize]. 0 or a negated errno (-EINVAL for a size
// out of range).
int MapExistingFile(const char* path, size_t minSize, size_t maxSize, SharedMapping* out);

// Fills a freshly made mapping; arg is passed through.
typedef void (*InitMapping)(void* addr, size_t size, const void* arg);

// Makes a file of size bytes (mode 0664) beside path, fills it with init and
// publishes it at path: with replace it takes the place of what is there,
// without it an existing file wins (-EEXIST). On success out maps the new
// file. 0 or a negated errno.
int PublishSharedFile(const char* path, size_t size, bool replace, InitMapping init,
                      const void* arg, SharedMapping* out);

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_LOG_STORE_DIR_H_
