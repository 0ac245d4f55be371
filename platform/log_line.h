#ifndef MORVOCAT_PLATFORM_LOG_LINE_H_
#define MORVOCAT_PLATFORM_LOG_LINE_H_

// The "threadtime" line format: one line per line of the message, each
// "MM-DD HH:MM:SS.mmm   pid   tid P tag     : text\n" in local time.

#include <stddef.h>
#include <time.h>

#include "platform/log_format.h"

namespace platform {

class ThreadTimeLine {
 public:
  // Formats entry into buffer when the text and its NUL fit in size bytes,
  // else into a block from malloc. Returns the text or null on failure; its
  // length (without the NUL) goes to length.
  char* Format(const QdLogEntry& entry, char* buffer, size_t size, size_t* length);

 private:
  bool StampSecond(time_t sec);
  void CacheIds(const QdLogEntry& entry);
  void WritePrefix(const QdLogEntry& entry, char* out) const;

  // "MM-DD HH:MM:SS" of stampSec_: consecutive records mostly share their
  // second, and the local-time conversion costs more than the whole line.
  bool stampValid_ = false;
  time_t stampSec_ = 0;
  char stamp_[16] = {};
  // " pid   tid" of idsPid_ and idsTid_: consecutive records mostly come
  // from one thread.
  bool idsValid_ = false;
  int32_t idsPid_ = 0;
  int32_t idsTid_ = 0;
  size_t idsLen_ = 0;
  char ids_[32] = {};
};

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_LOG_LINE_H_
