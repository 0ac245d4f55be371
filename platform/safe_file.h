#ifndef MORVOCAT_PLATFORM_SAFE_FILE_H_
#define MORVOCAT_PLATFORM_SAFE_FILE_H_

// Files and folders of a log tree, opened so that nobody who can write into
// the tree can make a root process act on something outside it: the last
// component of a path is never followed when it is a link, a FIFO or device
// put where an output file should be is refused without blocking, and every
// later mode, owner, rename or unlink works on the descriptor or relative to
// the folder's descriptor. Results are descriptors or 0, or a negated errno.
//
// Thread-safe: no state but the group id looked up once.

#include <sys/types.h>

#include <string>

namespace platform {

// The last "/" splits path into folder and name. 0, or -EINVAL when path
// holds no "/" or ends in one.
int SplitPath(const char* path, std::string* folder, std::string* name);

// Opens a folder for *at calls; a link at its last component is refused
// (-ELOOP or -ENOTDIR), a non-folder gives -ENOTDIR.
int OpenFolder(const char* folder);

// Makes folder with mode when absent and opens it as OpenFolder does;
// *created tells whether this call made it. The caller decides mode and
// owner of a folder it did not make.
int MakeFolder(const char* folder, mode_t mode, bool* created);

// Opens name in the folder dirFd for writing (flags: O_WRONLY or O_RDWR with
// any of O_CREAT, O_EXCL, O_APPEND, O_TRUNC). A link there gives -ELOOP; a
// file that is not regular gives -EINVAL; a regular file with more than one
// name gives -EMLINK (a hard link planted at an output name would write into
// its other name). The descriptor is blocking and close-on-exec.
int OpenFileAt(int dirFd, const char* name, int flags, mode_t mode);

// OpenFileAt on the folder of path.
int OpenFile(const char* path, int flags, mode_t mode);

// The host's own ">" target, opened as a shell redirection would (links
// followed, devices such as "/dev/null" taken, a file truncated): the host
// wrote the path and the run has the host's rights. Never blocks: a FIFO
// nobody reads gives -ENXIO instead of hanging the host. Mode 0666 less the
// umask; the descriptor is blocking and close-on-exec.
int OpenHostTarget(const char* path);

// Gives fd to owner root and group "system". The group is looked up once per
// process; where it does not exist one line says so on standard error and
// files keep their group. Returns 0 or a negated errno.
int GiveToRootSystem(int fd);

// Gives fd to the user "system" and that user's group (archives). Where the
// user does not exist the file keeps its owner. Returns 0 or a negated errno.
int GiveToSystemUser(int fd);

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_SAFE_FILE_H_
