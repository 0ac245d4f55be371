#include "config/xml_library.h"

#include <dlfcn.h>
#include <pthread.h>
#include <stdio.h>

namespace TavoConfig {

namespace {

constexpr const char kLibraryName[] = "libxml2.so.2";

pthread_mutex_t gLock = PTHREAD_MUTEX_INITIALIZER;
int gHolders = 0;
void* gHandle = nullptr;
// The process had libxml2 before us (the host uses it too): its global
// state is then not ours to clean up.
bool gWasResident = false;
XmlCalls gCalls;

template <typename Call>
bool Resolve(const char* name, Call* call) {
  *call = reinterpret_cast<Call>(dlsym(gHandle, name));
  return *call != nullptr;
}

bool ResolveAll() {
  return Resolve("xmlInitParser", &gCalls.initParser) &&
         Resolve("xmlNewParserCtxt", &gCalls.newParserCtxt) &&
         Resolve("xmlCtxtReadMemory", &gCalls.ctxtReadMemory) &&
         Resolve("xmlFreeParserCtxt", &gCalls.freeParserCtxt) &&
         Resolve("xmlDocGetRootElement", &gCalls.docGetRootElement) &&
         Resolve("xmlFreeDoc", &gCalls.freeDoc) && Resolve("xmlGetProp", &gCalls.getProp) &&
         Resolve("xmlFree", &gCalls.freeMemory) &&
         Resolve("xmlCleanupParser", &gCalls.cleanupParser);
}

bool Load() {
  gHandle = dlopen(kLibraryName, RTLD_NOW | RTLD_NOLOAD);
  gWasResident = gHandle != nullptr;
  if (!gWasResident) gHandle = dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
  if (gHandle != nullptr && ResolveAll()) return true;
  const char* why = dlerror();
  fprintf(stderr, "Cannot load %s: %s\n", kLibraryName, why != nullptr ? why : "symbol missing");
  if (gHandle != nullptr) dlclose(gHandle);
  gHandle = nullptr;
  return false;
}

void Unload() {
  if (!gWasResident) gCalls.cleanupParser();
  dlclose(gHandle);
  gHandle = nullptr;
}

}  // namespace

XmlLibrary::XmlLibrary() : loaded_(false) {
  pthread_mutex_lock(&gLock);
  if (gHolders > 0 || Load()) {
    ++gHolders;
    loaded_ = true;
  }
  pthread_mutex_unlock(&gLock);
}

XmlLibrary::~XmlLibrary() {
  if (!loaded_) return;
  pthread_mutex_lock(&gLock);
  if (--gHolders == 0) Unload();
  pthread_mutex_unlock(&gLock);
}

const XmlCalls& Xml() { return gCalls; }

}  // namespace TavoConfig
