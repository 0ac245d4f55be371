#include "tools/view/set_finder.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <utility>

#include "filesets/set_order.h"
#include "platform/log_file_names.h"
#include "tools/view/diagnostics.h"
#include "tools/view/wall_time.h"

namespace view {

namespace {

// Deeper than any log tree; stops a loop of bind mounts.
constexpr int kMaxDepth = 32;

struct Found {
  std::string path;
  NameParts parts;
  struct stat st;
};

// Collects the files met, each once, under their set's key.
class Collector {
 public:
  void Add(const std::string& folder, const std::string& name, const struct stat& st) {
    Found found{folder + "/" + name, ClassifyName(name), st};
    std::string base = folder + "/" + found.parts.base;
    auto [at, added] = files_.insert({{st.st_dev, st.st_ino}, {base, std::move(found)}});
    // A second name of a file met already: the name of a set member wins
    // over a plain name, then the first met.
    if (!added && at->second.second.parts.kind == NameParts::kPlain &&
        ClassifyName(name).kind != NameParts::kPlain) {
      at->second = {base, Found{folder + "/" + name, ClassifyName(name), st}};
    }
  }
  std::map<std::pair<std::string, SetKind>, std::vector<Found>> Groups() {
    std::map<std::pair<std::string, SetKind>, std::vector<Found>> groups;
    for (auto& [inode, file] : files_) {
      SetKind kind =
          file.second.parts.kind == NameParts::kIndexed ? SetKind::kIndexed : SetKind::kNumbered;
      groups[{file.first, kind}].push_back(std::move(file.second));
    }
    return groups;
  }

 private:
  // Each file once, by its inode, with its set's base path.
  std::map<std::pair<dev_t, ino_t>, std::pair<std::string, Found>> files_;
};

// Calls visit for each entry of folder but . and .. and hidden names.
template <typename Visit>
bool EachEntry(const std::string& folder, Visit visit) {
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) {
    Fail(folder, strerror(errno));
    return false;
  }
  while (struct dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    struct stat st;
    if (fstatat(dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      Fail(folder + "/" + entry->d_name, strerror(errno));
      continue;
    }
    visit(std::string(entry->d_name), st);
  }
  closedir(dir);
  return true;
}

void Walk(const std::string& folder, int depth, Collector* collector) {
  EachEntry(folder, [&](const std::string& name, const struct stat& st) {
    if (S_ISDIR(st.st_mode) && depth < kMaxDepth) {
      Walk(folder + "/" + name, depth + 1, collector);
    } else if (S_ISREG(st.st_mode)) {
      collector->Add(folder, name, st);
    }
  });
}

// The files of base name base in folder (a path given as the base of a set).
bool CollectBase(const std::string& folder, const std::string& base, Collector* collector) {
  bool any = false;
  EachEntry(folder, [&](const std::string& name, const struct stat& st) {
    if (S_ISREG(st.st_mode) && ClassifyName(name).base == base) {
      collector->Add(folder, name, st);
      any = true;
    }
  });
  return any;
}

void SplitFolder(const std::string& path, std::string* folder, std::string* name) {
  size_t slash = path.rfind('/');
  *folder = slash == std::string::npos ? "." : (slash == 0 ? "" : path.substr(0, slash));
  *name = slash == std::string::npos ? path : path.substr(slash + 1);
}

void AddArgument(std::string path, Collector* collector) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  struct stat st;
  if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    Walk(path, 0, collector);
    return;
  }
  std::string folder, name;
  SplitFolder(path, &folder, &name);
  bool exists = stat(path.c_str(), &st) == 0;
  int savedErrno = errno;
  struct stat folderSt;
  if (!exists &&
      (stat(folder.empty() ? "/" : folder.c_str(), &folderSt) != 0 || !S_ISDIR(folderSt.st_mode))) {
    Fail(path, strerror(savedErrno));
    return;
  }
  if (exists && !S_ISREG(st.st_mode)) {
    Fail(path, "not a regular file");
  } else if (exists && ClassifyName(name).kind != NameParts::kPlain) {
    collector->Add(folder, name, st);  // one file of a set, by itself
  } else if (!CollectBase(folder.empty() ? "/" : folder, name, collector)) {
    Fail(path, exists ? "no log files" : strerror(savedErrno));
  }
}

// Numbered sets: archives before numbered files before the file itself,
// larger numbers older.
bool NumberedBefore(const Found& a, const Found& b) {
  bool aArchive = a.parts.kind == NameParts::kArchive;
  bool bArchive = b.parts.kind == NameParts::kArchive;
  if (aArchive != bArchive) return aArchive;
  return a.parts.number > b.parts.number;
}

// A pulled copy of a link (B or B.1 of an indexed group) holds what one of
// the set files holds.
bool SameBytes(const std::string& a, const std::string& b) {
  int fa = open(a.c_str(), O_RDONLY | O_CLOEXEC);
  int fb = open(b.c_str(), O_RDONLY | O_CLOEXEC);
  bool same = fa >= 0 && fb >= 0;
  char ba[16384], bb[16384];
  while (same) {
    ssize_t na = read(fa, ba, sizeof(ba));
    ssize_t nb = read(fb, bb, sizeof(bb));
    same = na == nb && na >= 0 && memcmp(ba, bb, static_cast<size_t>(na < 0 ? 0 : na)) == 0;
    if (na <= 0) break;
  }
  if (fa >= 0) close(fa);
  if (fb >= 0) close(fb);
  return same;
}

bool CopyOfSetFile(const Found& file, const std::vector<Found>* indexed) {
  if (indexed == nullptr || file.parts.kind == NameParts::kArchive || file.parts.number > 1) {
    return false;
  }
  for (const Found& other : *indexed) {
    if (other.st.st_size == file.st.st_size && SameBytes(other.path, file.path)) return true;
  }
  return false;
}

ViewFile MakeFile(const Found& found) {
  ViewFile file;
  file.path = found.path;
  file.archive = found.parts.kind == NameParts::kArchive;
  file.anchorIsStart = found.parts.kind == NameParts::kIndexed;
  file.anchorMs = file.anchorIsStart ? found.parts.stampMs : WallMsOfSystemTime(found.st.st_mtime);
  file.bytes = static_cast<uint64_t>(found.st.st_size);
  return file;
}

}  // namespace

const char* SetKindName(SetKind kind) { return kind == SetKind::kIndexed ? "indexed" : "numbered"; }

NameParts ClassifyName(const std::string& name) {
  NameParts parts;
  size_t baseLength = 0;
  uint32_t index = 0;
  uint64_t n = 0;
  std::string stamp;
  if (platform::ParseSetFileName(name, &baseLength, &index, &stamp) &&
      ParseCompactStamp(stamp.c_str(), stamp.size(), &parts.stampMs)) {
    parts.kind = NameParts::kIndexed;
    parts.number = static_cast<long>(index);
  } else if (platform::ParseArchiveName(name, &baseLength, &n)) {
    parts.kind = NameParts::kArchive;
    parts.number = static_cast<long>(n);
  } else if (platform::ParseNumberedName(name, &baseLength, &n)) {
    parts.kind = NameParts::kNumbered;
    parts.number = static_cast<long>(n);
  } else {
    baseLength = name.size();
  }
  parts.base = name.substr(0, baseLength);
  return parts;
}

std::vector<ViewSet> FindSets(const std::vector<std::string>& paths) {
  Collector collector;
  for (const std::string& path : paths) AddArgument(path, &collector);
  std::vector<ViewSet> sets;
  auto groups = collector.Groups();
  for (auto& [key, found] : groups) {
    ViewSet set;
    set.name = key.first;
    set.kind = key.second;
    const std::vector<Found>* indexed = nullptr;
    if (set.kind == SetKind::kIndexed) {
      std::vector<std::string> order;
      for (const Found& f : found) order.push_back(f.path);
      filesets::SortAsWritten(order, set.name);
      for (const std::string& path : order) {
        auto it = std::find_if(found.begin(), found.end(),
                               [&path](const Found& f) { return f.path == path; });
        set.files.push_back(MakeFile(*it));
      }
    } else {
      auto other = groups.find({set.name, SetKind::kIndexed});
      if (other != groups.end()) indexed = &other->second;
      std::stable_sort(found.begin(), found.end(), NumberedBefore);
      for (const Found& f : found) {
        if (!CopyOfSetFile(f, indexed)) set.files.push_back(MakeFile(f));
      }
    }
    for (const ViewFile& f : set.files) set.bytes += f.bytes;
    if (!set.files.empty()) sets.push_back(std::move(set));
  }
  return sets;
}

}  // namespace view
