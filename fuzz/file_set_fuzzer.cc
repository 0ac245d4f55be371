// File-set ordering over arbitrary directory listings: the names of one
// folder as the set sees them, sorted, put into writing order, rotated and
// asked for the next index; with a flag the names are also made as files
// and the set formed from the folder, pruning included.
//
// Input: one flag byte, then names separated by line ends. A name is the
// set's base path followed by the line, unless the line starts with '/'.

#include <fcntl.h>
#include <stdint.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "filesets/file_name.h"
#include "filesets/file_set.h"
#include "fuzz/fuzz_support.h"

using morvofuzz::Check;

namespace {

constexpr size_t kMaxNames = 64;
constexpr size_t kMaxFiles = 24;

std::string gFolder;

class FuzzSet : public FileSet {
 public:
  FuzzSet(const std::string& base, uint64_t limit, FileSetRules rules)
      : FileSet(base, limit, rules, SetScheme::INDEXED) {}
  std::vector<std::string>& files() { return fileVec; }
};

bool IsSubset(std::vector<std::string> part, std::vector<std::string> whole) {
  std::sort(part.begin(), part.end());
  std::sort(whole.begin(), whole.end());
  return std::includes(whole.begin(), whole.end(), part.begin(), part.end());
}

std::vector<std::string> Names(const uint8_t* data, size_t size, const std::string& base) {
  std::vector<std::string> names;
  std::string line;
  for (size_t i = 0; i <= size && names.size() < kMaxNames; ++i) {
    if (i < size && data[i] != '\n') {
      line.push_back(static_cast<char>(data[i]));
      continue;
    }
    names.push_back(!line.empty() && line[0] == '/' ? line : base + line);
    line.clear();
  }
  return names;
}

void CheckOrdering(FuzzSet& set, const std::vector<std::string>& names, size_t pivot) {
  std::vector<std::string> sorted = names;
  std::sort(sorted.begin(), sorted.end(), FileSet::SortByEarlyTime);
  std::vector<std::string> ordered = sorted;
  set.AdjustFileVecOrder(ordered);
  Check(IsSubset(ordered, sorted), "ordering invented a name");
  std::vector<std::string> rotated = sorted;
  set.RotateVec(rotated, sorted.empty() ? std::string() : sorted[pivot % sorted.size()]);
  Check(IsSubset(rotated, sorted) && rotated.size() == sorted.size(), "rotation lost a name");
  set.GetFileByMaxTimestamp(sorted);
  uint32_t next = set.GetNewLogFileIndex(sorted);
  Check(next < filesets::kIndexCount || next == filesets::kContinueNewest, "index out of range");
}

// Makes the plain names of the folder as empty files and forms the set.
void CheckFolder(FuzzSet& set, const std::vector<std::string>& names, uint64_t limit) {
  std::vector<std::string> made;
  for (const std::string& name : names) {
    if (made.size() == kMaxFiles || name.compare(0, gFolder.size() + 1, gFolder + "/") != 0 ||
        name.find('/', gFolder.size() + 1) != std::string::npos ||
        name.find('\0') != std::string::npos) {
      continue;
    }
    int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) continue;
    close(fd);
    made.push_back(name);
  }
  set.FormFileVectors();
  Check(IsSubset(set.files(), made), "the set holds a file that was not there");
  Check(limit == 0 || set.files().size() <= limit, "the set holds more files than its limit");
  set.GetNewLogFileIndex();
  for (const std::string& name : made) unlink(name.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  morvofuzz::Root().MakeDirs("/data/log/set");
  gFolder = morvofuzz::Root().Under("/data/log/set");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > 8192) return 0;
  uint8_t flags = data[0];
  FileSetRules rules = (flags & 1) != 0 ? kCollectorSetRules : kReaderSetRules;
  uint64_t limit = (flags >> 2) & 15;
  FuzzSet set(gFolder + "/log", limit, rules);
  std::vector<std::string> names = Names(data + 1, size - 1, gFolder + "/log");
  CheckOrdering(set, names, flags >> 5);
  if ((flags & 2) != 0) CheckFolder(set, names, limit);
  return 0;
}
