#ifndef MORVOCAT_TOOLS_VIEW_SET_FINDER_H_
#define MORVOCAT_TOOLS_VIEW_SET_FINDER_H_

// Finds the file sets under the folders and files it is given, by their
// names alone, and puts each set's files in writing order:
//   indexed   B.Innn.YYYYMMDD-HHMMSS.gz, ordered as the writers order them
//             (across the wrap from 999 to 000 and gaps);
//   numbered  B-j.tar.gz (largest j oldest), then B.n (largest n oldest,
//             "B.01" is B.1), then B itself, the file being written.
// Links are not followed inside folders (a group's B and B.1 point at set
// files), a file met twice under two names is read once, and hidden files
// (the writers' recovery caches) are left alone.

#include <stdint.h>

#include <string>
#include <vector>

namespace view {

struct ViewFile {
  std::string path;
  bool archive = false;  // a tar.gz of rotated files; else text, gzip or not
  // Indexed files: the time in the name, when the file was opened. Others:
  // the modification time, when it was last written.
  int64_t anchorMs = 0;
  bool anchorIsStart = false;
  uint64_t bytes = 0;
};

enum class SetKind { kIndexed, kNumbered };

struct ViewSet {
  std::string name;  // the base path
  SetKind kind = SetKind::kIndexed;
  std::vector<ViewFile> files;  // in writing order
  uint64_t bytes = 0;
};

const char* SetKindName(SetKind kind);

// What a file's name says: its set's base name, the kind of member, and
// its number (index, n of B.n, j of B-j.tar.gz).
struct NameParts {
  enum Kind { kIndexed, kArchive, kNumbered, kPlain } kind = kPlain;
  std::string base;
  long number = 0;
  int64_t stampMs = 0;
};
NameParts ClassifyName(const std::string& name);

// The sets found, sorted by name. Folders and files that cannot be read
// are reported (one line each) and skipped.
std::vector<ViewSet> FindSets(const std::vector<std::string>& paths);

}  // namespace view

#endif  // MORVOCAT_TOOLS_VIEW_SET_FINDER_H_
