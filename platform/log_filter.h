#ifndef MORVOCAT_PLATFORM_LOG_FILTER_H_
#define MORVOCAT_PLATFORM_LOG_FILTER_H_

// The tag:priority rules of one log-format object.

#include "platform/logger.h"

namespace platform {

class LogFilter {
 public:
  LogFilter() = default;
  ~LogFilter();
  LogFilter(const LogFilter&) = delete;
  LogFilter& operator=(const LogFilter&) = delete;

  // Applies the rules of text, separated by white space, all or none: a
  // malformed rule or a failed allocation leaves the rules as they were.
  // With single set, text must hold exactly one rule. Returns 0 or -1.
  int Add(const char* text, bool single);

  // The lowest priority that prints for tag (NUL-terminated).
  qd_LogPriority LevelFor(const char* tag) const;

 private:
  struct Rule;
  static void FreeRules(Rule* rule);
  void Merge(Rule* pending);

  Rule* rules_ = nullptr;  // one per tag
  // Before any "*" rule every priority prints.
  qd_LogPriority defaultLevel_ = QD_LOG_UNKNOWN;
};

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_LOG_FILTER_H_
