#ifndef MORVOCAT_TESTS_SUPPORT_GZIP_TEXT_H_
#define MORVOCAT_TESTS_SUPPORT_GZIP_TEXT_H_

// What the system compressed, read back through zlib, zcat and tar; "<bad>" unless whole gzip.

#include <stdio.h>
#include <sys/wait.h>
#include <zlib.h>

#include <string>

namespace morvotest {

// What a shell command prints; *status gets its exit status (-1: it did not exit).
inline std::string CommandOutput(const std::string& command, int* status = nullptr) {
  std::string out;
  if (status != nullptr) *status = -1;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return out;
  char buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), pipe)) > 0) out.append(buf, n);
  int rc = pclose(pipe);
  if (status != nullptr && rc != -1 && WIFEXITED(rc)) *status = WEXITSTATUS(rc);
  return out;
}

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

// What tar prints, or "<tar failed>" so that a listing cut short never passes for a whole one.
inline std::string Tar(const std::string& arguments) {
  int status;
  std::string out = CommandOutput("tar " + arguments + " 2>/dev/null", &status);
  return status == 0 ? out : "<tar failed>";
}

// The member names, one a line, as tar -t lists them.
inline std::string TarListing(const std::string& archive) { return Tar("-tzf '" + archive + "'"); }

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_GZIP_TEXT_H_
