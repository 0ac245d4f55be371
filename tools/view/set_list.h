#ifndef MORVOCAT_TOOLS_VIEW_SET_LIST_H_
#define MORVOCAT_TOOLS_VIEW_SET_LIST_H_

// --list: one tab-separated line per set after a header line: its name,
// kind, number of files, the times of its first and last record ("-" when
// it holds none), and its size on disk in bytes.

#include <stdio.h>

#include <vector>

#include "tools/view/set_finder.h"

namespace view {

void ListSets(const std::vector<ViewSet>& sets, FILE* out);

}  // namespace view

#endif  // MORVOCAT_TOOLS_VIEW_SET_LIST_H_
