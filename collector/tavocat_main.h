#ifndef MORVOCAT_COLLECTOR_TAVOCAT_MAIN_H_
#define MORVOCAT_COLLECTOR_TAVOCAT_MAIN_H_

// The collector's entry and supervision.

#include "config/tavo_common.h"

// Turns the reader's process into a resident collector: one thread per
// configured group, the process named after the collector, its pid told to
// the reboot watchdog. Returns -1 when the start is refused; a started
// collector does not return.
int TavocatMain(unsigned long kind, const char* name, int argc, char** argv);

// Ends the collector on SIGUSR2: its groups (threads stopped at their next
// wait, input text and writers flushed), then its configuration, then the
// process with the signal number as status. Runs on the collector's signal
// thread, never in signal context.
void CloseTavocats(int signo);
// With the group-thread lock held: stops every listed group's thread at its
// next wait, flushes and destroys the group; the list is left empty.
void ListLogBaseFree();
void TavocatInfoDeinit(TavoCommon::TavocatInfoT* info);

#endif  // MORVOCAT_COLLECTOR_TAVOCAT_MAIN_H_
