#ifndef MORVOCAT_CONFIG_CONFIG_CHECK_H_
#define MORVOCAT_CONFIG_CONFIG_CHECK_H_

// Validation of a finished tree and its dump on standard error.

#include "config/tavo_common.h"

namespace TavoConfig {

// Dumps the tree, then checks it: a name, at least one group, and for each
// group an output path, a style from 1 to 5 and valid sources of that style.
// 0 when valid, 1 otherwise.
int ValidateTavocatInfo(const TavoCommon::TavocatInfoT& info);
// True when set is not null and every node has a dataPath or alterDataPath.
bool IsValidNodeSet(const TavoCommon::TavocatInputNodeSetT* set);
// True when set is not null and has an inputDirPath.
bool IsValidDirSet(const TavoCommon::TavocatInputDirSetT* set);
// True when set is not null and every command node has a command.
bool IsValidCmdSet(const TavoCommon::TavocatInputCmdSetT* set);

// What the collector asks of a valid tree before it starts its groups:
// trigger groups share the process-wide charger wait, so one at most. On
// refusal says so on standard error. The checker asks the same.
bool IsRunnableConfig(const TavoCommon::TavocatInfoT& info);

// The dump; a missing string shows as "nullptr".
void PrintTavocatInfo(const TavoCommon::TavocatInfoT& info);
void PrintTavocatInfoNodeAndTrigger(const TavoCommon::TavocatInputNodeSetT* nodes);
void PrintTavocatInfoDir(const TavoCommon::TavocatInputDirSetT* dirSet);
void PrintTavocatInfoCmd(const TavoCommon::TavocatInputCmdSetT* cmds);

}  // namespace TavoConfig

#endif  // MORVOCAT_CONFIG_CONFIG_CHECK_H_
