#ifndef MORVOCAT_CONFIG_PLATFORM_CHECK_H_
#define MORVOCAT_CONFIG_PLATFORM_CHECK_H_

// Probes of the running system, read from system properties. An unset or
// unreadable property reads as "", which makes every probe false and the
// platform unknown.

#include <libxml/tree.h>

#include <string>

namespace TavoConfig {

// "ro.runmode" is exactly "factory".
bool IsFactoryVer();
// "ro.build.type" is exactly "eng" and "ro.build.version.ovra" is empty: a
// chipset vendor's own build.
bool IsChipsetVendorVer();
// "init.svc.recovery" is exactly "running".
bool IsRecoveryMode();

// "Zeru", "Qcom" or "Mtk" from "ro.hardware"; "" when unknown.
std::string GetPlatformInfo();
// Whether a tavocat element is meant for this platform: it needs a
// "platform" attribute that names the platform somewhere in its text; on an
// unknown platform any such attribute will do.
bool IsRightPlatform(const xmlNode* element);

}  // namespace TavoConfig

#endif  // MORVOCAT_CONFIG_PLATFORM_CHECK_H_
