#ifndef MORVOCAT_CONFIG_BUILTIN_CONFIG_H_
#define MORVOCAT_CONFIG_BUILTIN_CONFIG_H_

// The built-in instances "kmsglogcat" and "chargelogcat", used when the
// configuration file is absent. Every other name has none, and recovery
// mode has none at all.

#include "config/tavo_common.h"

namespace TavoConfig {

// Builds the one-group tree of a built-in instance into info. The tree is
// neither validated nor dumped.
int ParseDefault(const char* name, TavoCommon::TavocatInfoT& info);
// The instance's group with its nodes; null for other names or when
// something cannot be made.
TavoCommon::TavocatGroupT* GenerateTavocatGroup(const char* name);
// The instance's node list; null for other names or on failure.
TavoCommon::TavocatInputNodeSetT* GenerateTavocatInputNodeSet(const char* name);
// The instance's root settings: name, rotation size, file count, write mode.
int ParseTavocatInfo(TavoCommon::TavocatInfoT& info, const char* name);
// Push the instance's nodes at the front of head. On failure the whole list
// is freed, head is null and the result is 1.
int ParseKmsgcatNodeSet(TavoCommon::TavocatInputNodeSetT*& head);
int ParseChargelogcatNodeSet(TavoCommon::TavocatInputNodeSetT*& head);

}  // namespace TavoConfig

#endif  // MORVOCAT_CONFIG_BUILTIN_CONFIG_H_
