#ifndef MORVOCAT_CONFIG_CONFIG_PARSER_H_
#define MORVOCAT_CONFIG_CONFIG_PARSER_H_

// The configuration file: finding the instance's tavocat entry for this
// platform and reading its root-level settings. Results are 0 for success
// and 1 for failure; a null argument fails (or does nothing) at once.

#include <libxml/tree.h>
#include <stddef.h>

#include "config/tavo_common.h"

namespace TavoConfig {

// Fills info (zero-filled by the caller) for the instance name from the
// configuration file under the root prefix, or from the built-in instances
// when that file is absent. On failure the caller frees what was built with
// FreeConfigFile.
int ParseConfigFile(const char* name, TavoCommon::TavocatInfoT* info);
// The same from the configuration file at path (a host path).
int ParseConfigFileAt(const char* path, const char* name, TavoCommon::TavocatInfoT* info);

// Hands the first tavocat element among first and its siblings whose name is
// exactly name and whose platform matches to ParseTavocat; 1 when none does.
int ParseTavocatConfigs(const xmlNode* first, const char* name, TavoCommon::TavocatInfoT* info);
// Reads one tavocat element; the result is that of ValidateTavocatInfo,
// which also dumps the tree.
int ParseTavocat(const xmlNode* element, const char* name, TavoCommon::TavocatInfoT* info);
// The write-mode rule: factory and chipset vendor builds always write
// FACTORY_WRITE; elsewhere only "mmap" gives MMAP_WRITE.
void ParseXmlNodeWriteMode(const xmlNode* element, TavoCommon::TavocatInfoT* info);

// Copies the "value" attribute into *field (replacing it); an element
// without one leaves the field untouched.
void ParseXmlNodeStr(const xmlNode* element, char** field);
// Stores the "value" attribute by the number rule (StoreNumber).
void ParseXmlNodeSize(const xmlNode* element, size_t* field);
// Appends one entry holding the "value" attribute; an element without one,
// or an entry that cannot be made, adds nothing.
void ParseXmlNodeStrList(const xmlNode* element, TavoCommon::TavocatStrListT** head);

// The number rule: text is read as atoi reads it (leading blanks and a sign,
// up to the first non-digit; no digits give 0); a negative result leaves
// *field as it was. Null text does nothing.
void StoreNumber(const char* text, size_t* field);

}  // namespace TavoConfig

#endif  // MORVOCAT_CONFIG_CONFIG_PARSER_H_
