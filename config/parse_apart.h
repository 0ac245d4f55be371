#ifndef MORVOCAT_CONFIG_PARSE_APART_H_
#define MORVOCAT_CONFIG_PARSE_APART_H_

// The collector's configuration parsed in a child process and rebuilt here.
// libxml2 pulls in ICU and through it the C++ runtime, which a process can
// never unload again: parsed apart, none of them enters the resident
// collector, and a parser that crashes on a damaged file takes only the
// child down. The child's messages go to our standard error.

#include "config/tavo_common.h"

namespace TavoConfig {

// ParseConfigFile(name, info), run in a child. When no child can be made
// the file is parsed here instead.
int ParseConfigFileApart(const char* name, TavoCommon::TavocatInfoT* info);

}  // namespace TavoConfig

#endif  // MORVOCAT_CONFIG_PARSE_APART_H_
