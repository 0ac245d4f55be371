#ifndef MORVOCAT_CONFIG_XML_LIBRARY_H_
#define MORVOCAT_CONFIG_XML_LIBRARY_H_

// libxml2 is loaded when a configuration is first read rather than linked:
// linked, it would be mapped into every host of the library, every log
// reader included, with the ICU libraries and the shared C++ runtime it
// pulls in. Once loaded it stays: unloading it lost track of state that
// libxml2 and ICU make lazily and their cleanup leaves (a leak check found
// it), and the host may use libxml2 itself.

#include <libxml/parser.h>
#include <libxml/tree.h>

namespace TavoConfig {

// The libxml2 calls the configuration reader makes.
struct XmlCalls {
  decltype(&::xmlInitParser) initParser;
  decltype(&::xmlNewParserCtxt) newParserCtxt;
  decltype(&::xmlCtxtReadMemory) ctxtReadMemory;
  decltype(&::xmlFreeParserCtxt) freeParserCtxt;
  decltype(&::xmlStopParser) stopParser;
  decltype(&::xmlDocGetRootElement) docGetRootElement;
  decltype(&::xmlFreeDoc) freeDoc;
  decltype(&::xmlGetProp) getProp;
  xmlFreeFunc* freeMemory;  // libxml2's own deallocator, a variable there
};

// The calls, libxml2 being loaded on the first call from any thread; null
// when it cannot be loaded, which is reported once on standard error.
const XmlCalls* XmlLibrary();

}  // namespace TavoConfig

#endif  // MORVOCAT_CONFIG_XML_LIBRARY_H_
