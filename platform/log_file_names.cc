#include "platform/log_file_names.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "platform/safe_string.h"

namespace platform {

namespace {

constexpr char kSetTag[] = ".I";
constexpr char kSetSuffix[] = ".gz";
constexpr char kArchiveSuffix[] = ".tar.gz";
constexpr size_t kArchiveSuffixLength = sizeof(kArchiveSuffix) - 1;
constexpr char kWorkSuffix[] = "_tmp";
// Numbers in numbered and archive names: nine digits always fit.
constexpr size_t kMaxNumberDigits = 9;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// count digits at text, as a number; false when any is not a digit.
bool ReadDigits(const char* text, size_t count, int* value) {
  int v = 0;
  for (size_t i = 0; i < count; ++i) {
    if (!IsDigit(text[i])) return false;
    v = v * 10 + (text[i] - '0');
  }
  *value = v;
  return true;
}

// The formatted name, or empty when it does not fit a path.
std::string Fitting(int rc, const char* text) { return rc < 0 ? std::string() : text; }

// base + separator + n (at least width digits, one for 0) + suffix.
std::string NumberName(const std::string& base, char separator, uint64_t n, int width,
                       const char* suffix) {
  if (width < 1) width = 1;
  char name[PATH_MAX];
  return Fitting(snprintf_s(name, sizeof(name), sizeof(name) - 1, "%s%c%.*llu%s", base.c_str(),
                            separator, width, static_cast<unsigned long long>(n), suffix),
                 name);
}

// name is a non-empty base, separator, 1 to 9 digits and suffix.
bool ParseNumber(const std::string& name, char separator, const char* suffix, size_t* baseLength,
                 uint64_t* n) {
  size_t suffixLength = strlen(suffix);
  if (name.size() <= suffixLength ||
      name.compare(name.size() - suffixLength, suffixLength, suffix) != 0) {
    return false;
  }
  size_t end = name.size() - suffixLength;
  size_t at = name.rfind(separator, end - 1);
  if (at == std::string::npos || at == 0) return false;
  size_t digits = end - at - 1;
  int value = 0;
  if (digits == 0 || digits > kMaxNumberDigits || !ReadDigits(&name[at + 1], digits, &value)) {
    return false;
  }
  if (baseLength != nullptr) *baseLength = at;
  if (n != nullptr) *n = static_cast<uint64_t>(value);
  return true;
}

}  // namespace

std::string LocalStamp() {
  time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) == nullptr) {
    memset(&local, 0, sizeof(local));  // reads kUnknownStamp
  }
  char stamp[32];
  return Fitting(snprintf_s(stamp, sizeof(stamp), sizeof(stamp) - 1, "%d%02d%02d-%02d%02d%02d",
                            local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                            local.tm_min, local.tm_sec),
                 stamp);
}

bool ParseStamp(const char* s, size_t length, StampFields* t) {
  if (length != kSetStampWidth || s[8] != '-' || !ReadDigits(s, 4, &t->year) ||
      !ReadDigits(s + 4, 2, &t->month) || !ReadDigits(s + 6, 2, &t->day) ||
      !ReadDigits(s + 9, 2, &t->hour) || !ReadDigits(s + 11, 2, &t->minute) ||
      !ReadDigits(s + 13, 2, &t->second)) {
    return false;
  }
  if (memcmp(s, kUnknownStamp, kSetStampWidth) == 0) return true;
  return t->month >= 1 && t->month <= 12 && t->day >= 1 && t->day <= 31 && t->hour < 24 &&
         t->minute < 60 && t->second <= 60;
}

std::string SetFileName(const std::string& base, uint32_t index, const std::string& stamp) {
  char name[PATH_MAX];
  return Fitting(snprintf_s(name, sizeof(name), sizeof(name) - 1, "%s%s%03u.%s%s", base.c_str(),
                            kSetTag, index, stamp.c_str(), kSetSuffix),
                 name);
}

bool ParseSetFileName(const std::string& name, size_t* baseLength, uint32_t* index,
                      std::string* stamp) {
  if (name.size() <= kSetNameTail) return false;
  size_t base = name.size() - kSetNameTail;
  const char* tail = name.c_str() + base;
  int value = 0;
  StampFields fields;
  if (memcmp(tail, kSetTag, 2) != 0 ||
      !ReadDigits(tail + kSetIndexOffset, kSetIndexWidth, &value) || tail[5] != '.' ||
      !ParseStamp(tail + kSetStampOffset, kSetStampWidth, &fields) ||
      strcmp(tail + kSetStampOffset + kSetStampWidth, kSetSuffix) != 0) {
    return false;
  }
  if (baseLength != nullptr) *baseLength = base;
  if (index != nullptr) *index = static_cast<uint32_t>(value);
  if (stamp != nullptr) stamp->assign(tail + kSetStampOffset, kSetStampWidth);
  return true;
}

std::string NumberedName(const std::string& base, uint64_t n, int width) {
  return n == 0 ? base : NumberName(base, '.', n, width, "");
}

std::string OldStyleNumberedName(const std::string& base, uint64_t n) {
  return NumberName(base, '.', n, 0, "");
}

bool ParseNumberedName(const std::string& name, size_t* baseLength, uint64_t* n) {
  return ParseNumber(name, '.', "", baseLength, n);
}

std::string ArchiveName(const std::string& base, uint64_t n) {
  return NumberName(base, '-', n, 0, kArchiveSuffix);
}

bool ParseArchiveName(const std::string& name, size_t* baseLength, uint64_t* n) {
  return ParseNumber(name, '-', kArchiveSuffix, baseLength, n);
}

std::string WorkFolderName(const std::string& path) { return path + kWorkSuffix; }

bool IsOldStyleName(const std::string& path, const std::string& base, int count) {
  size_t length = 0;
  uint64_t n = 0;
  bool numbered = path.size() == base.size() + 2 && ParseNumberedName(path, &length, &n);
  bool archive =
      path.size() == base.size() + 2 + kArchiveSuffixLength && ParseArchiveName(path, &length, &n);
  return (numbered || archive) && length == base.size() && path.compare(0, length, base) == 0 &&
         n < static_cast<uint64_t>(count);
}

std::string NameField(const std::string& name, uint32_t total, uint32_t start, uint32_t count) {
  if (name.size() != total || start + count - 1 > total || start > name.size()) {
    return std::string();
  }
  return name.substr(start, count);
}

std::string SetIndexField(const std::string& name, const std::string& base) {
  if (base.empty()) return std::string();
  uint32_t length = static_cast<uint32_t>(base.size());
  return NameField(name, length + kSetNameTail, length + kSetIndexOffset, kSetIndexWidth);
}

std::string SetStampField(const std::string& name, const std::string& base) {
  if (base.empty()) return std::string();
  uint32_t length = static_cast<uint32_t>(base.size());
  return NameField(name, length + kSetNameTail, length + kSetStampOffset, kSetStampWidth);
}

int SetIndexValue(const std::string& name, const std::string& base) {
  return atoi(SetIndexField(name, base).c_str());
}

uint32_t IndexAfter(const std::string& text) {
  int value = 0;
  if (text.size() != kSetIndexWidth || !ReadDigits(text.c_str(), kSetIndexWidth, &value)) return 0;
  return static_cast<uint32_t>(value) + 1 < kSetIndexCount ? static_cast<uint32_t>(value) + 1 : 0;
}

bool IsSetEntryName(const char* name, const std::string& baseName) {
  size_t length = baseName.size();
  return strncmp(name, baseName.c_str(), length) == 0 && strncmp(name + length, kSetTag, 2) == 0 &&
         strstr(name + length, kSetSuffix) != nullptr;
}

bool IsArchiveEntryName(const char* name, const std::string& baseName) {
  size_t length = 0;
  return ParseArchiveName(name, &length, nullptr) && length == baseName.size() &&
         strncmp(name, baseName.c_str(), length) == 0;
}

}  // namespace platform
