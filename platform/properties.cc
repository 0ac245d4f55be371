#include "platform/properties.h"

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "platform/root_path.h"
#include "platform/safe_file.h"
#include "platform/safe_string.h"
#include "platform/write_fully.h"

namespace {

// Room for every key and value the store can hold: a line is at most
// key, "=", value, "\n".
constexpr size_t kLineMax = PROPERTY_KEY_MAX + PROPERTY_VALUE_MAX + 2;
constexpr size_t kStoreMax = 64 * 1024;

platform::DevicePath StorePath() {
  return platform::ResolveOverridable(MORVO_PROPERTY_FILE_ENV, MORVO_PROPERTY_FILE);
}

// Reads the whole store; a missing file is an empty store.
bool ReadStore(const platform::DevicePath& path, std::string* text) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return true;
  char buf[4096];
  ssize_t n;
  while ((n = read(fd, buf, sizeof(buf))) > 0) {
    if (text->size() + n > kStoreMax) break;
    text->append(buf, n);
  }
  close(fd);
  return n >= 0;
}

// Finds "key=" at the start of a line; returns the offset of the line or npos.
size_t FindKey(const std::string& text, const char* key) {
  size_t keyLen = strlen(key);
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    if (end - pos > keyLen && text.compare(pos, keyLen, key) == 0 && text[pos + keyLen] == '=') {
      return pos;
    }
    pos = end + 1;
  }
  return std::string::npos;
}

bool ValidText(const char* s, size_t max) {
  return s != nullptr && strnlen(s, max) < max && strchr(s, '\n') == nullptr;
}

bool MakeParentDir(const char* path) {
  char dir[PATH_MAX];
  if (strcpy_s(dir, sizeof(dir), path) != 0) return false;
  for (char* p = dir + 1; *p != '\0'; ++p) {
    if (*p != '/') continue;
    *p = '\0';
    if (mkdir(dir, 0775) != 0 && access(dir, F_OK) != 0) return false;
    *p = '/';
  }
  return true;
}

}  // namespace

extern "C" {

int property_get(const char* key, char* value, const char* default_value) {
  if (value == nullptr) return 0;
  value[0] = '\0';
  std::string text;
  if (ValidText(key, PROPERTY_KEY_MAX) && ReadStore(StorePath(), &text)) {
    size_t pos = FindKey(text, key);
    if (pos != std::string::npos) {
      size_t start = pos + strlen(key) + 1;
      size_t end = text.find('\n', start);
      if (end == std::string::npos) end = text.size();
      if (strncpy_s(value, PROPERTY_VALUE_MAX, text.data() + start, end - start) == 0) {
        return static_cast<int>(strlen(value));
      }
    }
  }
  if (default_value == nullptr) return 0;
  if (strncpy_s(value, PROPERTY_VALUE_MAX, default_value, PROPERTY_VALUE_MAX - 1) != 0) return 0;
  return static_cast<int>(strlen(value));
}

int property_set(const char* key, const char* value) {
  if (!ValidText(key, PROPERTY_KEY_MAX) || key[0] == '\0' || strchr(key, '=') != nullptr ||
      !ValidText(value, PROPERTY_VALUE_MAX)) {
    return -1;
  }
  platform::DevicePath store = StorePath();
  const char* path = store.c_str();
  char lockPath[PATH_MAX], tmpPath[PATH_MAX];
  if (!store.ok() ||
      snprintf_s(lockPath, sizeof(lockPath), sizeof(lockPath) - 1, "%s.lock", path) < 0 ||
      snprintf_s(tmpPath, sizeof(tmpPath), sizeof(tmpPath) - 1, "%s.%d", path, getpid()) < 0 ||
      !MakeParentDir(path)) {
    return -1;
  }
  int lockFd = platform::OpenFile(lockPath, O_RDWR | O_CREAT, 0664);
  if (lockFd < 0) return -1;
  int result = -1;
  std::string text;
  if (flock(lockFd, LOCK_EX) == 0 && ReadStore(store, &text)) {
    size_t pos = FindKey(text, key);
    if (pos != std::string::npos) {
      size_t end = text.find('\n', pos);
      text.erase(pos, end == std::string::npos ? std::string::npos : end - pos + 1);
    }
    char line[kLineMax + 1];
    if (snprintf_s(line, sizeof(line), sizeof(line) - 1, "%s=%s\n", key, value) > 0 &&
        text.size() + strlen(line) <= kStoreMax) {
      text.append(line);
      int fd = platform::OpenFile(tmpPath, O_WRONLY | O_CREAT | O_TRUNC, 0664);
      if (fd >= 0) {
        bool ok = platform::WriteFully(fd, text.data(), text.size()) >= 0 && fsync(fd) == 0;
        close(fd);
        if (ok && rename(tmpPath, path) == 0)
          result = 0;
        else
          unlink(tmpPath);
      }
    }
  }
  close(lockFd);
  return result;
}

}  // extern "C"
