#ifndef MORVOCAT_CONFIG_XML_DOCUMENT_H_
#define MORVOCAT_CONFIG_XML_DOCUMENT_H_

// Reading the configuration document and looking at its elements. The
// document comes from one regular file of bounded size. The format has no
// use for a DOCTYPE, and through one a small file can declare entities that
// expand without bound or name files and hosts to read, so a document that
// declares one is refused at the declaration. The parser never reaches the
// network, and each libxml2 diagnostic becomes one line on standard error.

#include <libxml/tree.h>
#include <stddef.h>

#include "config/xml_library.h"

namespace TavoConfig {

// Larger configuration files are refused rather than parsed.
constexpr size_t kConfigFileMax = 1024 * 1024;

// The configuration file's parsed document.
class ConfigDocument {
 public:
  explicit ConfigDocument(const char* path);
  ~ConfigDocument();
  ConfigDocument(const ConfigDocument&) = delete;
  ConfigDocument& operator=(const ConfigDocument&) = delete;

  // The root element; null when the file cannot be read, is too large, is
  // not well-formed or declares a DOCTYPE.
  const xmlNode* root() const;

 private:
  const XmlCalls* xml_;
  xmlDoc* doc_;
};

// An attribute's text, freed with the object; null when absent.
class XmlAttr {
 public:
  XmlAttr(const xmlNode* node, const char* name);
  ~XmlAttr();
  XmlAttr(const XmlAttr&) = delete;
  XmlAttr& operator=(const XmlAttr&) = delete;

  const char* get() const { return reinterpret_cast<const char*>(value_); }
  // The attribute is present and exactly text.
  bool Is(const char* text) const;

 private:
  const XmlCalls* xml_;
  xmlChar* value_;
};

// An element node named exactly name (case-sensitive).
bool IsElementNamed(const xmlNode* node, const char* name);

// Calls visit on each element node from first on through its siblings, in
// document order; text, comments and other nodes are skipped.
template <typename Visit>
void ForEachElement(const xmlNode* first, Visit visit) {
  for (const xmlNode* node = first; node != nullptr; node = node->next) {
    if (node->type == XML_ELEMENT_NODE) visit(node);
  }
}

}  // namespace TavoConfig

#endif  // MORVOCAT_CONFIG_XML_DOCUMENT_H_
