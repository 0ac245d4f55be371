#include "filesets/file_name.h"

#include <string.h>

namespace filesets {

bool ByteOrderBefore(const std::string& a, const std::string& b) {
  size_t common = a.size() < b.size() ? a.size() : b.size();
  int order = memcmp(a.data(), b.data(), common);
  if (order != 0) return order < 0;
  return a.size() < b.size();
}

const char* NameInFolder(const std::string& path) {
  size_t slash = path.rfind('/');
  return path.c_str() + (slash == std::string::npos ? 0 : slash + 1);
}

}  // namespace filesets
