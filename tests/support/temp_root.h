#ifndef MORVOCAT_TESTS_SUPPORT_TEMP_ROOT_H_
#define MORVOCAT_TESTS_SUPPORT_TEMP_ROOT_H_

// A fresh folder that stands in for the device's root for one test.

#include <ftw.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace morvotest {

// at as strftime writes it, in local time or UTC; the default is a set file's stamp.
inline std::string TimeText(time_t at, const char* format = "%Y%m%d-%H%M%S", bool utc = false) {
  struct tm tm;
  if (utc) {
    gmtime_r(&at, &tm);
  } else {
    localtime_r(&at, &tm);
  }
  char text[64];
  strftime(text, sizeof(text), format, &tm);
  return text;
}

class TempRoot {
 public:
  TempRoot() {
    char templ[] = "/tmp/morvo_test_XXXXXX";
    char* dir = mkdtemp(templ);
    path_ = dir != nullptr ? dir : "";
    setenv("MORVOCAT_ROOT", path_.c_str(), 1);
    unsetenv("MORVOCAT_LOG_STORE");
    unsetenv("MORVOCAT_PROPERTIES");
  }
  ~TempRoot() {
    unsetenv("MORVOCAT_ROOT");
    if (!path_.empty()) nftw(path_.c_str(), Remove, 16, FTW_DEPTH | FTW_PHYS);
  }
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;

  const std::string& path() const { return path_; }
  // The host path of a device path such as "/data/log/x".
  std::string Under(const std::string& devicePath) const { return path_ + devicePath; }

  // Creates every missing folder of the device path dir.
  void MakeDirs(const std::string& devicePath) const {
    std::string full = Under(devicePath);
    for (size_t pos = path_.size() + 1; pos != std::string::npos; pos = full.find('/', pos + 1)) {
      mkdir(full.substr(0, pos).c_str(), 0775);
    }
    mkdir(full.c_str(), 0775);
  }

 private:
  static int Remove(const char* path, const struct stat*, int, struct FTW*) {
    ::remove(path);
    return 0;
  }
  std::string path_;
};

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

inline void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

inline bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// Bytes that do not compress, the same for the same seed.
inline std::string RandomBytes(size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(random());
  return bytes;
}

// Case tables write argument vectors and lists of names as one space-separated string.
inline std::vector<std::string> Words(const std::string& text) {
  std::vector<std::string> words;
  std::istringstream in(text);
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

// Polls until done() or the deadline, to wait for another thread or process (never a speed test).
template <class Done>
bool Within(int seconds, Done done) {
  for (int i = 0; i < seconds * 100; i++) {
    if (done()) return true;
    usleep(10 * 1000);
  }
  return done();
}

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_TEMP_ROOT_H_
