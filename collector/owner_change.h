#ifndef MORVOCAT_COLLECTOR_OWNER_CHANGE_H_
#define MORVOCAT_COLLECTOR_OWNER_CHANGE_H_

// Gives path to owner root, group system by running the "chown" program in
// a child and waiting for that child. When the program cannot be started
// the child writes failFormat (one %s, the path) to standard error and
// exits with status 255. A chown that runs but fails speaks for itself.
void ChownRootSystem(const char* path, const char* failFormat);

#endif  // MORVOCAT_COLLECTOR_OWNER_CHANGE_H_
