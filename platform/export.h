#ifndef MORVOCAT_PLATFORM_EXPORT_H_
#define MORVOCAT_PLATFORM_EXPORT_H_

// Everything is built with hidden visibility; this marks the few symbols
// that hosts and tools may call.
#define MORVO_EXPORT __attribute__((visibility("default")))

#endif  // MORVOCAT_PLATFORM_EXPORT_H_
