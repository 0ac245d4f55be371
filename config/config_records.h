#ifndef MORVOCAT_CONFIG_CONFIG_RECORDS_H_
#define MORVOCAT_CONFIG_CONFIG_RECORDS_H_

// The records of the configuration tree under the short names the
// configuration code uses; constants stay named per file.

#include "config/tavo_common.h"

namespace TavoConfig {

using TavoCommon::IsNodeStyle;
using TavoCommon::TavocatGroupT;
using TavoCommon::TavocatInfoT;
using TavoCommon::TavocatInputCmdSetT;
using TavoCommon::TavocatInputDirSetT;
using TavoCommon::TavocatInputNodeSetT;
using TavoCommon::TavocatStrListT;

}  // namespace TavoConfig

#endif  // MORVOCAT_CONFIG_CONFIG_RECORDS_H_
