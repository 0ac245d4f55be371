#ifndef MORVOCAT_CONFIG_PARSE_APART_H_
#define MORVOCAT_CONFIG_PARSE_APART_H_

// The collector's configuration parsed in a child process and rebuilt here.
// libxml2 pulls in ICU and through it the C++ runtime, which a process can
// never unload again: parsed apart, none of them enters the resident
// collector, and a parser that crashes on a damaged file takes only the
// child down. The child's messages go to our standard error.

#include <stddef.h>

#include "config/tavo_common.h"

namespace TavoConfig {

// How far a child may go before its parse counts as failed.
struct ApartLimits {
  // The whole tree must have arrived by then, or the child is killed.
  int deadlineMs;
  // Address space the child may add to what it had when it was made; its
  // tree's encoding is refused past this size too.
  size_t memoryGrowth;
};

constexpr ApartLimits kParseLimits = {10 * 1000, size_t{256} << 20};

// Builds a tree into info (zero-filled); 0, or 1 on failure.
using TreeBuilder = int (*)(const void* arg, TavoCommon::TavocatInfoT* info);

// build(arg, ...) run in a child within limits, its tree rebuilt into info
// (zero-filled by the caller). The child dies with the thread that made it.
// When no child can be made, build runs here.
int BuildTreeApart(TreeBuilder build, const void* arg, const ApartLimits& limits,
                   TavoCommon::TavocatInfoT* info);

// ParseConfigFile(name, info) and ParseConfigFileAt(path, name, info), run
// in a child within kParseLimits.
int ParseConfigFileApart(const char* name, TavoCommon::TavocatInfoT* info);
int ParseConfigFileApartAt(const char* path, const char* name, TavoCommon::TavocatInfoT* info);

}  // namespace TavoConfig

#endif  // MORVOCAT_CONFIG_PARSE_APART_H_
