#ifndef MORVOCAT_COLLECTOR_COMMAND_CHILD_H_
#define MORVOCAT_COLLECTOR_COMMAND_CHILD_H_

// A program the collector runs for its output ("dumpsys"). The collector is
// root, so the program is looked up only in fixed system folders, never
// through PATH, and run without a shell. The child leads its own process
// group and is killed when the thread that started it ends; the group is
// killed as the object goes, also when a cancelled thread unwinds, so no
// child outlives the collector.

#include <stddef.h>
#include <sys/types.h>

class CommandChild {
 public:
  // The folders searched, in order, each under the root prefix.
  static constexpr const char kSearchDirs[] = "/system/bin:/system/xbin:/vendor/bin:/usr/bin:/bin";

  CommandChild() = default;
  // Kills the child's process group and reaps the child.
  ~CommandChild();
  CommandChild(const CommandChild&) = delete;
  CommandChild& operator=(const CommandChild&) = delete;

  // The first regular, executable file called name in kSearchDirs, as a
  // host path in out. False when there is none.
  static bool Find(const char* name, char* out, size_t size);
  // Runs program (an absolute path) with argv, its standard output on the
  // pipe Output() reads. False when the pipe or the child cannot be made.
  bool Start(const char* program, char* const argv[]);
  int Output() const { return output_; }
  // Waits for the child to end (a cancellation point), then kills what is
  // left of its process group and reaps it.
  void Finish();

 private:
  void KillAndReap();

  pid_t pid_ = -1;
  int output_ = -1;
};

#endif  // MORVOCAT_COLLECTOR_COMMAND_CHILD_H_
