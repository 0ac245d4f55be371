#ifndef MORVOCAT_CONFIG_XML_LIBRARY_H_
#define MORVOCAT_CONFIG_XML_LIBRARY_H_

// libxml2 is loaded only while a configuration is read. Linked for good, it
// and the ICU libraries it pulls in stayed mapped for the whole life of a
// resident collector and were a third of its memory.

#include <libxml/parser.h>
#include <libxml/tree.h>

namespace TavoConfig {

// The libxml2 calls the configuration reader makes.
struct XmlCalls {
  decltype(&::xmlInitParser) initParser;
  decltype(&::xmlNewParserCtxt) newParserCtxt;
  decltype(&::xmlCtxtReadMemory) ctxtReadMemory;
  decltype(&::xmlFreeParserCtxt) freeParserCtxt;
  decltype(&::xmlDocGetRootElement) docGetRootElement;
  decltype(&::xmlFreeDoc) freeDoc;
  decltype(&::xmlGetProp) getProp;
  xmlFreeFunc* freeMemory;  // libxml2's own deallocator, a variable there
  decltype(&::xmlCleanupParser) cleanupParser;
};

// Keeps libxml2 loaded while alive: the first holder loads it, the last one
// unloads it. Holders may live on several threads.
class XmlLibrary {
 public:
  XmlLibrary();
  ~XmlLibrary();
  XmlLibrary(const XmlLibrary&) = delete;
  XmlLibrary& operator=(const XmlLibrary&) = delete;

  // libxml2 could be loaded; the failure was reported on standard error.
  bool loaded() const { return loaded_; }

 private:
  bool loaded_;
};

// The calls of the loaded library; use only while a loaded XmlLibrary lives.
const XmlCalls& Xml();

}  // namespace TavoConfig

#endif  // MORVOCAT_CONFIG_XML_LIBRARY_H_
