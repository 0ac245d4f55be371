#ifndef MORVOCAT_TOOLS_VIEW_RECORD_FILTER_H_
#define MORVOCAT_TOOLS_VIEW_RECORD_FILTER_H_

// Which records are printed, as the reader decides: tag:priority rules
// (with -s every tag not named is silent), one process id, a regular
// expression over the message, and a time window. Lines without a tag and
// priority of their own (the collector's) are filtered as priority I under
// their set's base name, so "kmsg" or "kmsg:I" names a collector set.

#include <regex.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "platform/log_filter.h"
#include "tools/view/set_cursor.h"

namespace view {

struct FilterOptions {
  std::vector<std::string> specs;
  bool silent = false;  // -s
  bool hasPid = false;
  int32_t pid = 0;
  bool hasRegex = false;
  std::string regex;
  bool hasSince = false;
  int64_t since = 0;  // the first millisecond shown
  bool hasUntil = false;
  int64_t until = 0;  // the last millisecond shown
};

class RecordFilter {
 public:
  RecordFilter() = default;
  ~RecordFilter();
  RecordFilter(const RecordFilter&) = delete;
  RecordFilter& operator=(const RecordFilter&) = delete;

  // False with *error set when a rule or the expression is malformed.
  bool Init(const FilterOptions& options, std::string* error);
  bool Pass(const Record& record);

 private:
  bool PassTag(const Record& record);

  FilterOptions options_;
  bool any_ = false;
  bool tagRules_ = false;
  platform::LogFilter tags_;
  regex_t regex_;
  bool regexReady_ = false;
  std::string scratch_;
};

}  // namespace view

#endif  // MORVOCAT_TOOLS_VIEW_RECORD_FILTER_H_
