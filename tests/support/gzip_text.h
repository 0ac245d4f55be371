#ifndef MORVOCAT_TESTS_SUPPORT_GZIP_TEXT_H_
#define MORVOCAT_TESTS_SUPPORT_GZIP_TEXT_H_

// Reading back what the system compressed, through zlib and through the
// stock zcat a user would run. Both answer "<bad>" when the file is not a
// whole gzip stream.

#include <zlib.h>

#include <string>

#include "support/command_output.h"

namespace morvotest {

constexpr char kBadGzip[] = "<bad>";

inline std::string Gunzip(const std::string& path) {
  gzFile gz = gzopen(path.c_str(), "rb");
  if (gz == nullptr) return kBadGzip;
  std::string text;
  char buf[65536];
  int n;
  while ((n = gzread(gz, buf, sizeof(buf))) > 0) text.append(buf, static_cast<size_t>(n));
  int err = Z_OK;
  gzerror(gz, &err);
  gzclose(gz);
  return n < 0 || err != Z_OK ? kBadGzip : text;
}

inline std::string Zcat(const std::string& path) {
  int status;
  std::string text = CommandOutput("zcat -- '" + path + "' 2>/dev/null", &status);
  return status == 0 ? text : kBadGzip;
}

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_GZIP_TEXT_H_
