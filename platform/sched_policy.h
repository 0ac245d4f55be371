#ifndef MORVOCAT_PLATFORM_SCHED_POLICY_H_
#define MORVOCAT_PLATFORM_SCHED_POLICY_H_

extern "C" {

enum SchedPolicy {
  SP_BACKGROUND = 0,
  SP_FOREGROUND = 1,
};

// Moves thread tid (0: the caller) into the scheduling group of policy.
// Here a group is an I/O priority: background threads yield the disk to the
// rest of the system. Returns 0 or a negated errno.
int set_sched_policy(int tid, SchedPolicy policy);

}  // extern "C"

#endif  // MORVOCAT_PLATFORM_SCHED_POLICY_H_
