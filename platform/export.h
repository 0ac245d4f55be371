#ifndef MORVOCAT_PLATFORM_EXPORT_H_
#define MORVOCAT_PLATFORM_EXPORT_H_

// Everything is built with hidden visibility; this marks the functions of
// the embedding interface declared outside include/morvocat/morvocat.h (the
// option parser). The platform layer is never exported: tools link it.
#define MORVO_EXPORT __attribute__((visibility("default")))

#endif  // MORVOCAT_PLATFORM_EXPORT_H_
