#include "config/xml_document.h"

#include <errno.h>
#include <fcntl.h>
#include <libxml/xmlerror.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>

namespace TavoConfig {

namespace {

// Longest message text printed for one diagnostic.
constexpr int kDiagnosticMax = 400;

const char* LevelName(xmlErrorLevel level) {
  switch (level) {
    case XML_ERR_WARNING:
      return "warning";
    case XML_ERR_FATAL:
      return "fatal error";
    default:
      return "error";
  }
}

// libxml2's own output spreads one diagnostic over several lines (message,
// context, caret); keep it to one line each.
void PrintDiagnostic(void*, xmlErrorPtr error) {
  if (error == nullptr) return;
  const char* message = error->message != nullptr ? error->message : "";
  size_t length = strcspn(message, "\r\n");
  if (length > static_cast<size_t>(kDiagnosticMax)) length = kDiagnosticMax;
  fprintf(stderr, "%s:%d: %s: %.*s\n", error->file != nullptr ? error->file : "(config)",
          error->line, LevelName(error->level), static_cast<int>(length), message);
}

struct ParseState {
  const XmlCalls* xml;
  bool sawDoctype;
};

// Called at "<!DOCTYPE name ...", before its internal subset is read.
void RefuseDoctype(void* context, const xmlChar*, const xmlChar*, const xmlChar*) {
  auto* ctxt = static_cast<xmlParserCtxt*>(context);
  auto* state = static_cast<ParseState*>(ctxt->_private);
  state->sawDoctype = true;
  state->xml->stopParser(ctxt);
}

// Reads up to want bytes; fewer when the file ends first.
bool ReadAll(int fd, char* buf, size_t want, size_t* got) {
  size_t done = 0;
  while (done < want) {
    ssize_t n = read(fd, buf + done, want - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  *got = done;
  return true;
}

// Reads the whole file at path when it is a regular file of at most
// kConfigFileMax bytes; O_NONBLOCK keeps a FIFO put there from blocking us.
char* ReadSmallFile(const char* path, size_t* size) {
  int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    fprintf(stderr, "Config file [%s] cannot be opened!\n", path);
    return nullptr;
  }
  struct stat st;
  char* text = nullptr;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    fprintf(stderr, "Config file [%s] is not a regular file!\n", path);
  } else if (static_cast<unsigned long long>(st.st_size) > kConfigFileMax) {
    fprintf(stderr, "Config file [%s] is larger than %zu bytes!\n", path, kConfigFileMax);
  } else {
    text = new (std::nothrow) char[st.st_size + 1];
    if (text != nullptr && !ReadAll(fd, text, static_cast<size_t>(st.st_size), size)) {
      delete[] text;
      text = nullptr;
    }
  }
  close(fd);
  return text;
}

}  // namespace

ConfigDocument::ConfigDocument(const char* path) : xml_(nullptr), doc_(nullptr) {
  if (path == nullptr) return;
  size_t size = 0;
  char* text = ReadSmallFile(path, &size);
  if (text == nullptr) return;
  xml_ = XmlLibrary();
  xmlParserCtxt* ctxt = xml_ != nullptr ? xml_->newParserCtxt() : nullptr;
  if (ctxt != nullptr) {
    ParseState state = {xml_, false};
    ctxt->_private = &state;
    ctxt->sax->serror = PrintDiagnostic;
    ctxt->sax->internalSubset = RefuseDoctype;
    // No XML_PARSE_NOENT, DTDLOAD, DTDATTR, XINCLUDE or HUGE: only what the
    // file itself says is read, within libxml2's default depth and size limits.
    doc_ = xml_->ctxtReadMemory(ctxt, text, static_cast<int>(size), path, nullptr, XML_PARSE_NONET);
    xml_->freeParserCtxt(ctxt);
    if (state.sawDoctype) {
      fprintf(stderr, "Config file [%s]: DOCTYPE is not allowed!\n", path);
      if (doc_ != nullptr) xml_->freeDoc(doc_);
      doc_ = nullptr;
    }
  }
  delete[] text;
}

ConfigDocument::~ConfigDocument() {
  if (doc_ != nullptr) xml_->freeDoc(doc_);
}

const xmlNode* ConfigDocument::root() const {
  return doc_ != nullptr ? xml_->docGetRootElement(doc_) : nullptr;
}

XmlAttr::XmlAttr(const xmlNode* node, const char* name)
    : xml_(XmlLibrary()),
      value_(node != nullptr && xml_ != nullptr
                 ? xml_->getProp(node, reinterpret_cast<const xmlChar*>(name))
                 : nullptr) {}

XmlAttr::~XmlAttr() {
  if (value_ != nullptr) (*xml_->freeMemory)(value_);
}

bool XmlAttr::Is(const char* text) const { return value_ != nullptr && strcmp(get(), text) == 0; }

bool IsElementNamed(const xmlNode* node, const char* name) {
  return node != nullptr && node->type == XML_ELEMENT_NODE &&
         strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

}  // namespace TavoConfig
