#include "tools/view/set_list.h"

#include <inttypes.h>

#include "tools/view/set_cursor.h"
#include "tools/view/wall_time.h"

namespace view {

void ListSets(const std::vector<ViewSet>& sets, FILE* out) {
  fprintf(out, "set\tkind\tfiles\tfirst\tlast\tbytes\n");
  for (const ViewSet& set : sets) {
    SetCursor cursor(set);
    bool any = false;
    int64_t first = 0, last = 0;
    while (cursor.Next()) {
      if (!any) first = cursor.record().ms;
      last = cursor.record().ms;
      any = true;
    }
    char firstText[24] = "-", lastText[24] = "-";
    if (any) {
      FormatLong(first, firstText, false);
      FormatLong(last, lastText, false);
    }
    fprintf(out, "%s\t%s\t%zu\t%s\t%s\t%" PRIu64 "\n", set.name.c_str(), SetKindName(set.kind),
            set.files.size(), firstText, lastText, set.bytes);
  }
}

}  // namespace view
