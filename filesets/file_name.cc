#include "filesets/file_name.h"

#include <string.h>
#include <time.h>

#include "platform/safe_string.h"

namespace filesets {

namespace {

constexpr char kArchiveSuffix[] = ".tar.gz";
constexpr size_t kArchiveSuffixLength = sizeof(kArchiveSuffix) - 1;

bool IsOldNumber(char c) { return c >= '0' && c < '0' + kOldStyleCount; }

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

bool ByteOrderBefore(const std::string& a, const std::string& b) {
  size_t common = a.size() < b.size() ? a.size() : b.size();
  int order = memcmp(a.data(), b.data(), common);
  if (order != 0) return order < 0;
  return a.size() < b.size();
}

uint32_t IndexAfter(const std::string& text) {
  if (text.size() != kIndexWidth) return 0;
  uint32_t value = 0;
  for (char c : text) {
    if (!IsDigit(c)) return 0;
    value = value * 10 + static_cast<uint32_t>(c - '0');
  }
  return value + 1 < kIndexCount ? value + 1 : 0;
}

std::string LocalTimeStamp() {
  time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) == nullptr) {
    memset(&local, 0, sizeof(local));  // reads 19000100-000000
  }
  char stamp[32];
  if (snprintf_s(stamp, sizeof(stamp), sizeof(stamp) - 1, "%d%02d%02d-%02d%02d%02d",
                 local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                 local.tm_sec) < 0) {
    return std::string();
  }
  return stamp;
}

bool FormatIndexTag(uint32_t index, char* out, size_t size) {
  return snprintf_s(out, size, size - 1, ".I%03u.", index) >= 0;
}

std::string NumberedName(const std::string& base, int n) { return base + "." + std::to_string(n); }

std::string ArchiveName(const std::string& base, int n) {
  return base + "-" + std::to_string(n) + kArchiveSuffix;
}

bool IsOldStyleName(const std::string& path, const std::string& base) {
  size_t length = base.size();
  if (path.compare(0, length, base) != 0) return false;
  if (path.size() == length + 2) return path[length] == '.' && IsOldNumber(path[length + 1]);
  if (path.size() == length + 2 + kArchiveSuffixLength) {
    return path[length] == '-' && IsOldNumber(path[length + 1]) &&
           path.compare(length + 2, kArchiveSuffixLength, kArchiveSuffix) == 0;
  }
  return false;
}

bool IsSetEntryName(const char* name, const std::string& baseName) {
  size_t length = baseName.size();
  return strncmp(name, baseName.c_str(), length) == 0 && strncmp(name + length, ".I", 2) == 0 &&
         strstr(name + length, ".gz") != nullptr;
}

bool IsArchiveEntryName(const char* name, const std::string& baseName) {
  size_t length = baseName.size();
  if (strncmp(name, baseName.c_str(), length) != 0 || name[length] != '-') return false;
  const char* digits = name + length + 1;
  const char* end = digits;
  while (IsDigit(*end)) ++end;
  return end != digits && strcmp(end, kArchiveSuffix) == 0;
}

const char* NameInFolder(const std::string& path) {
  size_t slash = path.rfind('/');
  return path.c_str() + (slash == std::string::npos ? 0 : slash + 1);
}

}  // namespace filesets
