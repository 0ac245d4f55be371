#ifndef MORVOCAT_TESTS_SUPPORT_TAR_LISTING_H_
#define MORVOCAT_TESTS_SUPPORT_TAR_LISTING_H_

// Archives read back through the stock tar a user would run.

#include <string>

#include "support/command_output.h"

namespace morvotest {

// What tar prints for the command, or "<tar failed>" when it exits with
// anything but 0, so that a listing cut short never passes for a whole one.
inline std::string Tar(const std::string& arguments) {
  int status;
  std::string out = CommandOutput("tar " + arguments + " 2>/dev/null", &status);
  return status == 0 ? out : "<tar failed>";
}

// The member names, one a line, as tar -t lists them.
inline std::string TarListing(const std::string& archive) { return Tar("-tzf '" + archive + "'"); }

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_TAR_LISTING_H_
