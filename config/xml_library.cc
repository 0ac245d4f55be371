#include "config/xml_library.h"

#include <dlfcn.h>
#include <pthread.h>
#include <stdio.h>

namespace TavoConfig {

namespace {

constexpr const char kLibraryName[] = "libxml2.so.2";

pthread_once_t gOnce = PTHREAD_ONCE_INIT;
XmlCalls gCalls;
const XmlCalls* gLoaded = nullptr;

template <typename Call>
bool Resolve(void* handle, const char* name, Call* call) {
  *call = reinterpret_cast<Call>(dlsym(handle, name));
  return *call != nullptr;
}

void Load() {
  void* handle = dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
  bool ok = handle != nullptr && Resolve(handle, "xmlInitParser", &gCalls.initParser) &&
            Resolve(handle, "xmlNewParserCtxt", &gCalls.newParserCtxt) &&
            Resolve(handle, "xmlCtxtReadMemory", &gCalls.ctxtReadMemory) &&
            Resolve(handle, "xmlFreeParserCtxt", &gCalls.freeParserCtxt) &&
            Resolve(handle, "xmlStopParser", &gCalls.stopParser) &&
            Resolve(handle, "xmlDocGetRootElement", &gCalls.docGetRootElement) &&
            Resolve(handle, "xmlFreeDoc", &gCalls.freeDoc) &&
            Resolve(handle, "xmlGetProp", &gCalls.getProp) &&
            Resolve(handle, "xmlFree", &gCalls.freeMemory);
  if (ok) {
    gCalls.initParser();
    gLoaded = &gCalls;
    return;
  }
  const char* why = dlerror();
  fprintf(stderr, "Cannot load %s: %s\n", kLibraryName, why != nullptr ? why : "symbol missing");
  if (handle != nullptr) dlclose(handle);
}

}  // namespace

const XmlCalls* XmlLibrary() {
  pthread_once(&gOnce, Load);
  return gLoaded;
}

}  // namespace TavoConfig
