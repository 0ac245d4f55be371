#ifndef MORVOCAT_COLLECTOR_TAVOCAT_MAIN_H_
#define MORVOCAT_COLLECTOR_TAVOCAT_MAIN_H_

// Turns the reader's process into a resident collector. Returns -1 when the
// start is refused; a started collector does not return.
int TavocatMain(unsigned long kind, const char* name, int argc, char** argv);

#endif  // MORVOCAT_COLLECTOR_TAVOCAT_MAIN_H_
