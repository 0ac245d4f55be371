#ifndef MORVOCAT_TOOLS_VIEW_MERGER_H_
#define MORVOCAT_TOOLS_VIEW_MERGER_H_

// Merges sets that are each in writing order into one timeline: a k-way
// merge over one cursor per set, so memory grows with the number of sets
// and never with their size. Records of one set keep their order; records
// of equal time from different sets come in the order of the sets.

#include <vector>

#include "tools/view/set_cursor.h"

namespace view {

class RecordSink {
 public:
  virtual ~RecordSink() = default;
  // False stops the merge (the output is gone).
  virtual bool Put(const Record& record) = 0;
};

// Gives sink every record of cursors, none of them started yet.
void MergeSets(const std::vector<SetCursor*>& cursors, RecordSink* sink);

}  // namespace view

#endif  // MORVOCAT_TOOLS_VIEW_MERGER_H_
