#ifndef MORVOCAT_TESTS_SUPPORT_SMALL_FS_H_
#define MORVOCAT_TESTS_SUPPORT_SMALL_FS_H_

// A small tmpfs mounted over a folder, and a filler that takes what space is left.

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <string>

namespace morvotest {

// A mount namespace of this thread's own, so that a SmallFs never shows on the host.
inline bool EnterPrivateMounts() {
  return unshare(CLONE_NEWNS) == 0 &&
         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

class SmallFs {
 public:
  SmallFs(const std::string& dir, size_t kbytes) : dir_(dir), filler_(dir + "/filler") {
    std::string options = "size=" + std::to_string(kbytes) + "k";
    mounted_ = mount("tmpfs", dir.c_str(), "tmpfs", 0, options.c_str()) == 0;
  }
  ~SmallFs() {
    if (mounted_) umount2(dir_.c_str(), MNT_DETACH);
  }
  SmallFs(const SmallFs&) = delete;
  SmallFs& operator=(const SmallFs&) = delete;

  bool mounted() const { return mounted_; }

  void Fill() const {
    int fd = open(filler_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (fd < 0) return;
    static const char kZeros[4096] = {};
    while (write(fd, kZeros, sizeof(kZeros)) > 0) {
    }
    while (write(fd, kZeros, 1) > 0) {
    }
    close(fd);
  }
  void Free() const { unlink(filler_.c_str()); }

 private:
  std::string dir_;
  std::string filler_;
  bool mounted_ = false;
};

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_SMALL_FS_H_
