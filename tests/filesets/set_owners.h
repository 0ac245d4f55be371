#ifndef MORVOCAT_TESTS_FILESETS_SET_OWNERS_H_
#define MORVOCAT_TESTS_FILESETS_SET_OWNERS_H_

// The owners of a file set as the tests see them: each opens up the set's
// fields. The shared tests run once per owner listed in SetOwners.

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <zlib.h>

#include <string>
#include <vector>

#include "collector/tavobase.h"
#include "config/tavo_common.h"
#include "filesets/file_set.h"
#include "filesets/morvocat_utils.h"
#include "support/file_tree.h"
#include "support/shell_file.h"
#include "support/temp_root.h"

namespace settest {

// The reader's writer, in memory-mapped mode.
class ReaderOwner : public MorvocatUtils {
 public:
  ReaderOwner(const std::string& base, uint64_t limit)
      : MorvocatUtils(base, MorvocatUtils::kMMapWriteMode, limit) {}
  using FileSet::AddNewFile;
  using FileSet::fileVec;
  using FileSet::maxFiles;
  using FileSet::oldStyleCheck;
  using MorvocatUtils::logFilePath;
};

// A set under the collector's rules, as its group sink holds it.
class CollectorOwner : public FileSet {
 public:
  CollectorOwner(const std::string& base, uint64_t limit, SetScheme scheme = SetScheme::INDEXED)
      : FileSet(base, limit, kCollectorSetRules, scheme) {}
  using FileSet::AddNewFile;
  using FileSet::fileVec;
  using FileSet::MakeLogFileName;
  using FileSet::maxFiles;
  using FileSet::oldStyleCheck;
};

// The collector's group sink itself, in memory-mapped mode, configured with
// limit files.
class TavobaseOwner : public Tavobase {
 public:
  TavobaseOwner(const std::string& base, uint64_t limit)
      : Tavobase(Config(base, limit).Group(), TavoCommon::MMAP_WRITE) {}
  using FileSet::AddNewFile;
  using FileSet::fileVec;
  using FileSet::MakeLogFileName;
  using FileSet::maxFiles;
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

// base.Innn.stamp.gz
inline std::string SetName(const std::string& base, int index, const std::string& stamp) {
  char tag[16];
  snprintf(tag, sizeof(tag), ".I%03d.", index);
  return base + tag + stamp + ".gz";
}

// A set file with some content (an empty newest file is continued by the
// reader, so files that stand for written ones are never empty).
inline std::string MakeSetFile(const std::string& base, int index,
                               const std::string& stamp = "20240105-081502") {
  std::string name = SetName(base, index, stamp);
  morvotest::WriteFile(name, "data\n");
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
  time_t at = 1704442502 + seconds;  // 2024-01-05 08:15:02 UTC
  struct tm utc;
  gmtime_r(&at, &utc);
  char stamp[32];
  strftime(stamp, sizeof(stamp), "%Y%m%d-%H%M%S", &utc);
  return stamp;
}

// The text of a file made of one or more whole gzip members and nothing
// else, as "gzip -t" wants it; false for anything else (an empty file, a
// member cut short, bytes after the last member).
inline bool WholeGzip(const std::string& path, std::string* text) {
  std::string raw = morvotest::ReadFile(path);
  char buf[65536];
  text->clear();
  if (raw.empty()) return false;
  z_stream zs{};
  if (inflateInit2(&zs, 16 + MAX_WBITS) != Z_OK) return false;
  zs.next_in = reinterpret_cast<Bytef*>(&raw[0]);
  zs.avail_in = static_cast<uInt>(raw.size());
  int rc = Z_OK;
  while (rc == Z_OK || (rc == Z_STREAM_END && zs.avail_in > 0)) {
    if (rc == Z_STREAM_END) inflateReset(&zs);  // the next member
    zs.next_out = reinterpret_cast<Bytef*>(buf);
    zs.avail_out = sizeof(buf);
    rc = inflate(&zs, Z_NO_FLUSH);
    text->append(buf, sizeof(buf) - zs.avail_out);
    if (rc == Z_BUF_ERROR && zs.avail_in == 0) break;  // cut short
  }
  inflateEnd(&zs);
  return rc == Z_STREAM_END && zs.avail_in == 0;
}

// The set files in folder whose names begin with prefix (the base name), in
// no particular order.
inline std::vector<std::string> SetFilesIn(const std::string& folder, const std::string& prefix) {
  std::vector<std::string> out;
  for (const std::string& name : morvotest::Entries(folder)) {
    if (name.compare(0, prefix.size() + 2, prefix + ".I") == 0) out.push_back(folder + "/" + name);
  }
  return out;
}

using morvotest::ModeOf;

// A log folder under a fresh root, with the base path applog in it.
class SetDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // The group sink's directory monitor watches ksv_log too; without it the
    // monitor would report on standard error while tests capture it.
    root_.MakeDirs("/data/log/ksv_log");
    dir_ = root_.Under("/data/log");
    base_ = dir_ + "/applog";
  }

  morvotest::TempRoot root_;
  std::string dir_;
  std::string base_;
};

}  // namespace settest

#endif  // MORVOCAT_TESTS_FILESETS_SET_OWNERS_H_
