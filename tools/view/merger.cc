#include "tools/view/merger.h"

#include <stdint.h>

#include <functional>
#include <queue>
#include <utility>

namespace view {

void MergeSets(const std::vector<SetCursor*>& cursors, RecordSink* sink) {
  // (time, set number): the smallest on top.
  using Head = std::pair<int64_t, size_t>;
  std::priority_queue<Head, std::vector<Head>, std::greater<Head>> heads;
  for (size_t i = 0; i < cursors.size(); ++i) {
    if (cursors[i]->Next()) heads.push({cursors[i]->record().ms, i});
  }
  while (!heads.empty()) {
    size_t i = heads.top().second;
    heads.pop();
    SetCursor* cursor = cursors[i];
    // A set goes on without the queue while it stays first.
    for (;;) {
      if (!sink->Put(cursor->record())) return;
      if (!cursor->Next()) break;
      Head next{cursor->record().ms, i};
      if (!heads.empty() && heads.top() < next) {
        heads.push(next);
        break;
      }
    }
  }
}

}  // namespace view
