#ifndef MORVOCAT_TOOLS_VIEW_DIAGNOSTICS_H_
#define MORVOCAT_TOOLS_VIEW_DIAGNOSTICS_H_

// One line on standard error per problem, naming the file; the run goes on.
// A failure (a file that could not be read) makes the exit status 1; a
// warning (a last member cut short) does not.

#include <string>

namespace view {

void Warn(const std::string& path, const std::string& what);
void Fail(const std::string& path, const std::string& what);
bool AnyFailed();

}  // namespace view

#endif  // MORVOCAT_TOOLS_VIEW_DIAGNOSTICS_H_
