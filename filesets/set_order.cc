#include "filesets/set_order.h"

#include <algorithm>
#include <utility>

#include "filesets/file_name.h"

namespace filesets {

namespace {

// The newest entry of a run that holds every index, found by the stamps.
std::string NewestOfFullRun(const std::vector<std::string>& list, const std::string& basePath) {
  // Files opened within one second share the latest stamp; the newest is
  // the last of them in the run's cyclic order.
  std::string latest;
  for (const std::string& entry : list) {
    std::string stamp = platform::SetStampField(entry, basePath);
    if (ByteOrderBefore(latest, stamp)) latest = std::move(stamp);
  }
  for (size_t i = 0; i < list.size(); ++i) {
    if (platform::SetStampField(list[i], basePath) == latest &&
        platform::SetStampField(list[(i + 1) % list.size()], basePath) != latest) {
      return list[i];
    }
  }
  return list.back();  // all of one second: nothing tells them apart
}

}  // namespace

void RotateToBack(std::vector<std::string>& list, const std::string& pivot) {
  if (pivot.empty()) return;
  const std::string key = pivot;  // pivot may be an entry of list
  auto at = std::find(list.begin(), list.end(), key);
  if (at == list.end()) return;
  auto tail = at + 1;
  auto copiesOfPivot = std::stable_partition(
      tail, list.end(), [&key](const std::string& entry) { return entry != key; });
  std::rotate(list.begin(), tail, copiesOfPivot);
}

std::string NewestByStamp(const std::vector<std::string>& list, const std::string& basePath) {
  std::string result;
  std::string best;
  for (const std::string& entry : list) {
    std::string stamp = platform::SetStampField(entry, basePath);
    if (ByteOrderBefore(best, stamp)) {
      best = std::move(stamp);
      result = entry;
    }
  }
  return result;
}

void OrderAsWritten(std::vector<std::string>& list, const std::string& basePath) {
  if (list.empty()) return;
  int previous = -1;
  size_t runs = 1;
  bool seen0 = false;
  bool seen999 = false;
  std::vector<std::string> runEnds;
  size_t kept = 0;
  for (size_t i = 0; i < list.size(); ++i) {
    // A non-numeric field reads as 0, a negative one is dropped from the
    // list (the file stays on disk).
    int index = platform::SetIndexValue(list[i], basePath);
    if (static_cast<uint32_t>(index) >= kIndexCount) continue;
    if (kept != i) list[kept] = std::move(list[i]);
    bool continuesRun = previous < 0 || index == previous + 1 ||
                        index == previous - static_cast<int>(kIndexCount - 1);
    if (!continuesRun) {
      runEnds.push_back(list[kept - 1]);
      ++runs;
    }
    seen0 = seen0 || index == 0;
    seen999 = seen999 || index == static_cast<int>(kIndexCount - 1);
    previous = index;
    ++kept;
  }
  list.resize(kept);
  if (list.empty()) return;
  runEnds.push_back(list.back());
  if (runs == 1 && list.size() == kIndexCount) {
    RotateToBack(list, NewestOfFullRun(list, basePath));  // no gap shows where writing stopped
  } else if (runs == 1) {
    return;
  } else if (runs == 2 && seen0 && seen999) {
    RotateToBack(list, runEnds.front());  // wrapped once past 999
  } else {
    RotateToBack(list, NewestByStamp(runEnds, basePath));
  }
}

void SortAsWritten(std::vector<std::string>& list, const std::string& basePath) {
  std::sort(list.begin(), list.end(), ByteOrderBefore);
  OrderAsWritten(list, basePath);
}

}  // namespace filesets
