// morvo-view: prints the log files of a pulled log folder (or of single
// sets and files) as one timeline. See view/view_options.cc for the
// command line and the README for the output fields.

#include <stdio.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <string>
#include <vector>

#include "tools/view/diagnostics.h"
#include "tools/view/merger.h"
#include "tools/view/output.h"
#include "tools/view/record_filter.h"
#include "tools/view/set_cursor.h"
#include "tools/view/set_finder.h"
#include "tools/view/set_list.h"
#include "tools/view/view_options.h"

namespace {

constexpr int kUsageStatus = 2;

int PrintTimeline(const std::vector<view::ViewSet>& sets, const view::ViewOptions& options) {
  view::RecordFilter filter;
  std::string error;
  if (!filter.Init(options.filter, &error)) {
    fprintf(stderr, "morvo-view: %s\n", error.c_str());
    return kUsageStatus;
  }
  std::vector<std::unique_ptr<view::SetCursor>> owned;
  std::vector<view::SetCursor*> cursors;
  for (const view::ViewSet& set : sets) {
    owned.emplace_back(new (std::nothrow) view::SetCursor(set));
    if (owned.back() == nullptr) {
      fprintf(stderr, "morvo-view: out of memory\n");
      return 1;
    }
    cursors.push_back(owned.back().get());
  }
  view::Output output(STDOUT_FILENO, options.format, &filter);
  view::MergeSets(cursors, &output);
  if (!output.Flush()) return 1;
  return view::AnyFailed() ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  view::ViewOptions options;
  std::string error;
  if (!view::ParseViewOptions(argc, argv, &options, &error)) {
    fprintf(stderr, "morvo-view: %s\n%s", error.c_str(), view::kUsage);
    return kUsageStatus;
  }
  if (options.help) {
    fputs(view::kUsage, stdout);
    return 0;
  }
  std::vector<view::ViewSet> sets = view::FindSets(options.paths);
  if (sets.empty()) {
    fprintf(stderr, "morvo-view: no log files found\n");
    return 1;
  }
  if (options.list) {
    view::ListSets(sets, stdout);
    return view::AnyFailed() ? 1 : 0;
  }
  return PrintTimeline(sets, options);
}
