#ifndef MORVOCAT_COLLECTOR_INOTIFY_RECORDS_H_
#define MORVOCAT_COLLECTOR_INOTIFY_RECORDS_H_

// The records of one read from an inotify descriptor.

#include <stddef.h>
#include <string.h>
#include <sys/inotify.h>

// Calls visit(header, name) for each whole record among the n bytes of
// events; name is the record's name field (header.len bytes, may be none).
// Headers are copied out: the buffer need not be aligned for them.
template <typename Visit>
void ForEachInotifyRecord(const char* events, size_t n, Visit visit) {
  for (size_t at = 0; n - at >= sizeof(inotify_event);) {
    inotify_event header;
    memcpy(&header, events + at, sizeof(header));
    at += sizeof(header);
    if (header.len > n - at) return;
    visit(header, events + at);
    at += header.len;
  }
}

#endif  // MORVOCAT_COLLECTOR_INOTIFY_RECORDS_H_
