#ifndef MORVOCAT_PLATFORM_TAVO_H_
#define MORVOCAT_PLATFORM_TAVO_H_

// The memory-mapped log writer. Write appends to a memory-mapped cache;
// Flush, a full cache and SetOutputPath compress what is cached into the
// current output file as one complete gzip member, so every output file is a
// valid gzip stream after every flush. Flush may be called from one thread
// while another is inside Write. Once it has an output, a writer is also
// flushed on the process's flusher thread when its oldest cached byte nears
// the bound of MORVOCAT_FLUSH_SECONDS (platform/tavo_flusher.h).

#include <stddef.h>

#include "platform/export.h"

class Tavo {
 public:
  Tavo();
  ~Tavo();
  Tavo(const Tavo&) = delete;
  Tavo& operator=(const Tavo&) = delete;

  // Prepares the writer; called once after construction.
  int InitTavo();
  // Later output goes to path, which exists when this returns true.
  bool SetOutputPath(const char* path);
  // Accepted also before the first SetOutputPath.
  bool Write(const char* data, size_t length);
  // Everything written so far is in the current output file afterwards.
  bool Flush();

 private:
  struct Impl;
  Impl* impl_;
};

#endif  // MORVOCAT_PLATFORM_TAVO_H_
