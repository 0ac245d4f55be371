#ifndef MORVOCAT_TESTS_FILESETS_SET_OWNERS_H_
#define MORVOCAT_TESTS_FILESETS_SET_OWNERS_H_

// The owners of a file set as the tests see them, each opening up the set's fields.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "collector/tavobase.h"
#include "config/tavo_common.h"
#include "filesets/file_set.h"
#include "filesets/morvocat_utils.h"
#include "platform/log_file_names.h"
#include "support/file_tree.h"
#include "support/gzip_text.h"
#include "support/log_set.h"
#include "support/planted.h"
#include "support/temp_root.h"

namespace settest {

// The reader's writer, in memory-mapped mode.
class ReaderOwner : public MorvocatUtils {
 public:
  ReaderOwner(const std::string& base, uint64_t limit)
      : MorvocatUtils(base, MorvocatUtils::kMMapWriteMode, limit) {}
  using FileSet::AddNewFile;
  using FileSet::fileVec;
  using MorvocatUtils::logFilePath;
};

// A set under the collector's rules, as its group sink holds it.
class CollectorOwner : public FileSet {
 public:
  CollectorOwner(const std::string& base, uint64_t limit, SetScheme scheme = SetScheme::INDEXED)
      : FileSet(base, limit, kCollectorSetRules, scheme) {}
  using FileSet::AddNewFile;
  using FileSet::fileVec;
  using FileSet::oldStyleCheck;
};

// The collector's group sink itself, in memory-mapped mode, keeping limit files.
class TavobaseOwner : public Tavobase {
 public:
  TavobaseOwner(const std::string& base, uint64_t limit)
      : Tavobase(Config(base, limit).Group(), TavoCommon::MMAP_WRITE) {}
  using FileSet::AddNewFile;
  using FileSet::fileVec;
  using FileSet::oldStyleCheck;

 protected:
  void openLogFilePost() override {}

 private:
  // Lives for the constructor call only: the sink copies what it keeps.
  struct Config {
    Config(const std::string& base, uint64_t limit) : path(base) {
      info.maxCompressdFiles = limit;
      info.rotateSizeKbytes = 4096;
    }
    TavoCommon::TavocatGroupT* Group() {
      group.info = &info;
      group.outputFilePath = &path[0];
      return &group;
    }
    std::string path;
    TavoCommon::TavocatInfoT info{};
    TavoCommon::TavocatGroupT group{};
  };
};

using SetOwners = ::testing::Types<ReaderOwner, CollectorOwner, TavobaseOwner>;

inline std::string SetName(const std::string& base, int index, const std::string& stamp) {
  return platform::SetFileName(base, static_cast<uint32_t>(index), stamp);
}

// Set names short: "7" is index 007, "abc"/"-12" the field as given, "7@L" with the later stamp
// 20240301-000000 (else 20240101-000000); a code holding "." is a suffix of the base.
inline std::string Coded(const std::string& base, const std::string& code) {
  if (code.find('.') != std::string::npos) return base + code;
  size_t at = code.find('@');
  std::string index = code.substr(0, at);
  if (index.find_first_not_of("0123456789") == std::string::npos) {
    index = std::string(3 - std::min<size_t>(3, index.size()), '0') + index;
  }
  const char* stamp = at == std::string::npos ? "20240101-000000" : "20240301-000000";
  return base + ".I" + index + "." + stamp + ".gz";
}
inline std::vector<std::string> Coded(const std::string& base,
                                      const std::vector<std::string>& codes) {
  std::vector<std::string> out;
  for (const std::string& code : codes) out.push_back(Coded(base, code));
  return out;
}
// Writes the file of code holding a record, or an empty one when code ends in "e"; its name.
inline std::string MakeSetFile(const std::string& base, std::string code) {
  bool empty = code.back() == 'e';
  if (empty) code.pop_back();
  std::string name = Coded(base, code);
  morvotest::WriteFile(name, empty ? "" : "data\n");
  return name;
}

// The index fields of list as numbers (-1 for a field that is not).
inline std::vector<int> Indices(const FileSet& set, const std::vector<std::string>& list) {
  std::vector<int> out;
  for (const std::string& name : list) {
    std::string field = set.GetIndex(name);
    out.push_back(field.empty() ? -1 : atoi(field.c_str()));
  }
  return out;
}

// A stamp some seconds after a fixed moment, as a set name carries it.
inline std::string StampAfter(long seconds) {
  return morvotest::TimeText(1704442502 + seconds, "%Y%m%d-%H%M%S", true);  // from 2024-01-05
}

// The 1000 names of a full set in writing order; perSecond files share a stamp.
inline std::vector<std::string> FullSet(const std::string& base, int newest, int perSecond = 1) {
  std::vector<std::string> names;
  for (int k = 0; k < 1000; ++k) {
    names.push_back(SetName(base, (newest + 1 + k) % 1000, StampAfter(k / perSecond)));
  }
  return names;
}

using morvotest::ModeOf;

using SetDirTest = morvotest::LogFolderTest;

}  // namespace settest

#endif  // MORVOCAT_TESTS_FILESETS_SET_OWNERS_H_
