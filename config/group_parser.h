#ifndef MORVOCAT_CONFIG_GROUP_PARSER_H_
#define MORVOCAT_CONFIG_GROUP_PARSER_H_

// One tavocatGroup element and its sources. A source element is taken only
// when the group's logStyle, met earlier in document order, matches it.

#include <libxml/tree.h>

#include "config/tavo_common.h"

namespace TavoConfig {

// Appends a new group to info's groups and fills it from the element.
void ParseXmlNodeTavocatGroup(const xmlNode* element, TavoCommon::TavocatInfoT* info);
// Sets the style from "value" (unless sources of another style are already
// held), then reads the numeric attributes.
void ParseXmlNodeLogStyle(const xmlNode* element, TavoCommon::TavocatGroupT* group);
// Reads "interval", "cond_index" and "failureRetry", each when present.
void InitTavocatGroup(TavoCommon::TavocatGroupT* group, const xmlNode* element);
void ParseXmlNodeInputNodeSet(const xmlNode* element, TavoCommon::TavocatGroupT& group);
void ParseXmlNodeInputDirSet(const xmlNode* element, TavoCommon::TavocatGroupT* group);
void ParseXmlNodeInputCmdSet(const xmlNode* element, TavoCommon::TavocatGroupT* group);

}  // namespace TavoConfig

#endif  // MORVOCAT_CONFIG_GROUP_PARSER_H_
