#ifndef MORVOCAT_PLATFORM_LOG_STORE_DIR_H_
#define MORVOCAT_PLATFORM_LOG_STORE_DIR_H_

// The folder of the log store and the shared files in it. Who may use the
// store is decided by the folder and file checks here (README: "The log
// store's trust model"): the folder belongs to root or the caller and
// nobody else may add, remove or swap names in it; a file in it is a
// regular file with one name, owned by root or the caller, that others
// cannot write. A shared file is always published whole: it is built under
// a temporary name and renamed into place, so no process ever maps a
// half-made file. Everything after the folder is opened works relative to
// its descriptor, without following links.

#include <stddef.h>
#include <sys/types.h>

#include "platform/root_path.h"

namespace platform {

// Modes of what the store makes: its folder, a ring, the signal page (the
// group's readers ask for wake-ups in it; it holds no record).
constexpr mode_t kStoreDirMode = 0750;
constexpr mode_t kRingFileMode = 0640;
constexpr mode_t kSignalFileMode = 0660;

// The store folder: $MORVOCAT_LOG_STORE when set and not empty, else the
// root-prefixed MORVO_LOG_STORE_DIR.
DevicePath LogStoreDir();

// Opens the store folder dir, making it (kStoreDirMode) and its missing
// parents (0755) when absent. A folder that is a link, is owned by another
// user than root or the caller, or is writable by group or others is
// refused with one line on standard error. A descriptor or a negated errno
// (-EPERM for a refused folder).
//
// Opening also removes what resizers and writers killed midway left: a
// temporary "morvo_NAME.tmp.PID.N" whose PID is no live process, when it is
// a regular file of the folder's owner with no other name.
int OpenStoreDir(const char* dir);

struct SharedMapping {
  void* addr = nullptr;
  size_t size = 0;
  // The file mapped, to tell whether its name still leads to it.
  dev_t dev = 0;
  ino_t ino = 0;
};

void UnmapShared(SharedMapping* mapping);

// Maps the whole file name of the store folder dirFd shared: read-only
// unless writable. Refused, with one line on standard error: a link
// (-ELOOP), a file that is not regular, is foreign-owned or world-writable
// (-EPERM), a file with another name too (-EMLINK). Its size must lie
// within [minSize, maxSize] (else -EINVAL). 0 or a negated errno.
int MapStoreFile(int dirFd, const char* name, bool writable, size_t minSize, size_t maxSize,
                 SharedMapping* out);

// True when name in dirFd is, at this moment, the file mapping maps.
bool NameHolds(int dirFd, const char* name, const SharedMapping& mapping);

// True for the results of MapStoreFile that no writer may repair by
// publishing a new file: the name is not the store's to reuse silently.
bool RefusedStoreFile(int rc);

// Fills a freshly made mapping; arg is passed through.
typedef void (*InitMapping)(void* addr, size_t size, const void* arg);

// Makes a file of size bytes with mode beside name in dirFd, fills it with
// init and renames it to name: with replace it takes the place of what is
// there, without it an existing file wins (-EEXIST). On success out maps
// the new file read-write. 0 or a negated errno.
int PublishSharedFile(int dirFd, const char* name, size_t size, mode_t mode, bool replace,
                      InitMapping init, const void* arg, SharedMapping* out);

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_LOG_STORE_DIR_H_
