#include "archive/tarzip.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "archive/factory_compress.h"
#include "support/file_tree.h"
#include "support/gzip_text.h"
#include "support/planted.h"
#include "support/temp_root.h"

namespace {

using morvotest::Entries;
using morvotest::ReadFile;
using morvotest::WriteFile;

constexpr size_t kBlock = 512;

std::set<std::string> TarNames(const std::string& archive) {
  std::string out = morvotest::TarListing(archive);
  EXPECT_NE("<tar failed>", out);
  std::vector<std::string> names = morvotest::Lines(out);
  return std::set<std::string>(names.begin(), names.end());
}

struct Header {
  std::string name;
  unsigned long size;
};

// Walks the stream by its headers; fails the test on a malformed one.
std::vector<Header> Members(const std::string& tar) {
  std::vector<Header> members;
  size_t pos = 0;
  while (pos + kBlock <= tar.size() && tar.compare(pos, kBlock, std::string(kBlock, '\0')) != 0) {
    const char* h = tar.data() + pos;
    Header m{std::string(h, strnlen(h, 100)), strtoul(h + 124, nullptr, 8)};
    unsigned long sum = 0;
    for (size_t i = 0; i < kBlock; i++) {
      sum += (i >= 148 && i < 156) ? ' ' : static_cast<unsigned char>(h[i]);
    }
    EXPECT_EQ(sum, strtoul(h + 148, nullptr, 8)) << m.name;
    members.push_back(m);
    pos += kBlock * (1 + (m.size + kBlock - 1) / kBlock);
  }
  EXPECT_EQ(tar.size(), pos + kBlock);
  return members;
}

class TarzipTest : public morvotest::LogFolderTest {
 protected:
  TarzipTest() : LogFolderTest("/data/log/factory", "kmsg") {}
  std::string Path(const std::string& name) { return root_.path() + "/" + name; }
  std::string MakeFile(const std::string& name, size_t size, char fill = 'a') {
    size_t slash = name.rfind('/');
    if (slash != std::string::npos) root_.MakeDirs("/" + name.substr(0, slash));
    std::string content;
    for (size_t i = 0; i < size; i++) content += static_cast<char>(fill + i % 23);
    WriteFile(Path(name), content);
    return content;
  }
  bool Pack(const std::vector<std::string>& paths, int dirMode = 0) {
    std::vector<const char*> p;
    for (const std::string& s : paths) p.push_back(s.empty() ? nullptr : s.c_str());
    return TarzipFilesComplete(static_cast<int>(p.size()), p.data(), archive_.c_str(), dirMode);
  }
  std::string Extracted() {
    std::string dest = Path("extract");
    mkdir(dest.c_str(), 0775);
    EXPECT_EQ("", morvotest::Tar("-xzf '" + archive_ + "' -C '" + dest + "'"));
    return dest;
  }
  std::string archive_ = root_.path() + "/out.tar.gz";
};

// The C entry points: an empty list is one zero block; a walk takes a prefix.
TEST_F(TarzipTest, TheCEntryPoints) {
  const char* none[] = {nullptr};
  TarzipFiles(0, none, archive_.c_str(), 0);
  EXPECT_EQ(std::string(kBlock, '\0'), morvotest::Gunzip(archive_));
  MakeFile("d/one", 2);
  gzFile gz = gzopen(archive_.c_str(), "w");
  ASSERT_NE(nullptr, gz);
  TarzipDirRecursive(gz, Path("d").c_str(), "pre");
  gzwrite(gz, std::string(kBlock, '\0').data(), kBlock);
  gzclose(gz);
  EXPECT_EQ(std::set<std::string>{"pre/one"}, TarNames(archive_));
}

TEST_F(TarzipTest, HeaderFieldsAreByteExact) {
  const std::string full(100, 'n');
  MakeFile("a.log.1", 0);
  MakeFile(full, 0);
  ASSERT_TRUE(Pack({Path("a.log.1"), Path(full)}));
  std::string tar = morvotest::Gunzip(archive_);
  ASSERT_EQ(3 * kBlock, tar.size());
  std::string expected(kBlock, '\0');
  expected.replace(0, 7, "a.log.1");
  expected.replace(100, 24, std::string("100666 \0     0 \0     0 \0", 24));  // mode, uid, gid
  expected.replace(124, 2, std::string("0\0", 2));
  // 819 + 256 + the name's bytes (560) + the digit 0 (48) = 1683 = 03223.
  expected.replace(148, 5, std::string("3223\0", 5));
  EXPECT_EQ(expected, tar.substr(0, kBlock));
  EXPECT_EQ(full + "1", tar.substr(kBlock, 101));
}

TEST_F(TarzipTest, ContentTakesWholeBlocksPaddedWithZerosAndStockTarExtractsIt) {
  const std::vector<std::string> names = {"a0", "b512", "c513", "d70000", "e300001"};
  std::vector<std::string> paths, contents;
  for (const std::string& name : names) {
    size_t size = std::stoul(name.substr(1));
    contents.push_back(MakeFile(name, size, static_cast<char>('A' + size % 7)));
    paths.push_back(Path(name));
  }
  ASSERT_TRUE(Pack(paths));
  std::string tar = morvotest::Gunzip(archive_);
  std::vector<Header> m = Members(tar);
  ASSERT_EQ(5u, m.size());
  for (size_t i = 0; i < m.size(); i++) EXPECT_EQ(contents[i].size(), m[i].size) << names[i];
  EXPECT_EQ(contents[1], tar.substr(2 * kBlock, 512));
  EXPECT_EQ(contents[2] + std::string(511, '\0'), tar.substr(4 * kBlock, 1024));
  EXPECT_EQ("1001", std::string(tar.data() + 4 * kBlock - 512 + 124));  // 513 in octal
  std::string dest = Extracted();
  for (size_t i = 0; i < names.size(); i++) {
    EXPECT_TRUE(contents[i] == ReadFile(dest + "/" + names[i])) << names[i];
  }
}

// Names cut to their fields; links, missing files and null entries left out.
TEST_F(TarzipTest, EachListIsNamedAsStockTarListsIt) {
  const std::string d60(60, 'd'), f60(60, 'f'), b60(60, 'b'), n100(100, 'n'), m140(140, 'm');
  std::vector<std::string> leaves;
  for (const std::string& file : std::vector<std::string>{
           "real", "x/f1", "x/sub/f2", d60 + "/" + f60, b60 + "/" + b60 + "/f", n100, m140}) {
    leaves.push_back(file.substr(file.rfind('/') + 1));
    MakeFile(file, 0);
    WriteFile(Path(file), leaves.back() + "\n");
  }
  ASSERT_EQ(0, symlink(Path("real").c_str(), Path("link").c_str()));
  ASSERT_EQ(0, symlink(Path("x/f1").c_str(), Path("x/link").c_str()));
  // clang-format off
  const struct { std::vector<std::string> packed; int dirMode; std::set<std::string> names;
                 std::string err; } kCases[] = {
      {{"link", "", "gone", "real"}, 0, {"real"}, ""},
      {{n100, m140}, 0, {n100, m140.substr(0, 100)}, ""},
      {{"x/"}, 1, {"x/f1", "x/sub/f2"}, ""},
      {{"x"}, 0, {"f1", "f2"}, ""},
      {{d60}, 1, {(d60 + "/" + f60).substr(0, 99)}, "filepath write failed\n"},
      {{b60}, 1, {(b60 + "/" + b60).substr(0, 99)}, "path write failed\nfilepath write failed\n"},
  };
  // clang-format on
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.packed[0].substr(0, 8) + " " + std::to_string(c.dirMode));
    std::vector<std::string> paths;
    for (const std::string& p : c.packed) paths.push_back(p.empty() ? "" : Path(p));
    testing::internal::CaptureStderr();
    EXPECT_TRUE(Pack(paths, c.dirMode));
    EXPECT_EQ(c.err, testing::internal::GetCapturedStderr());
    EXPECT_EQ(c.names, TarNames(archive_));
    std::string dest = Extracted();
    for (const std::string& name : c.names) {
      std::string leaf = name.substr(name.rfind('/') + 1);
      if (std::find(leaves.begin(), leaves.end(), leaf) == leaves.end()) continue;
      EXPECT_EQ(leaf + "\n", ReadFile(dest + "/" + name)) << name;
    }
    ASSERT_EQ(0, system(("rm -rf " + dest).c_str()));
  }
}

TEST_F(TarzipTest, ContentFollowsTheSizeGivenWhateverTheFileHolds) {
  WriteFile(Path("f"), "0123456789");
  gzFile gz = gzopen(archive_.c_str(), "w");
  ASSERT_NE(nullptr, gz);
  WriteZipContent(gz, Path("f").c_str(), 4);       // grew since: cut
  WriteZipContent(gz, Path("f").c_str(), 600);     // shrank since: filled out
  WriteZipContent(gz, Path("gone").c_str(), 600);  // unopenable: nothing
  ASSERT_EQ(0, symlink(Path("f").c_str(), Path("link").c_str()));
  WriteZipContent(gz, Path("link").c_str(), 600);  // a link is not read through
  gzclose(gz);
  std::string tar = morvotest::Gunzip(archive_);
  ASSERT_EQ(3 * kBlock, tar.size());
  EXPECT_EQ("0123", tar.substr(0, 4));
  EXPECT_EQ(std::string(508, '\0'), tar.substr(4, 508));
  EXPECT_EQ("0123456789" + std::string(1014, '\0'), tar.substr(kBlock));
}

// A cut-short archive is reported incomplete and never takes the name.
TEST_F(TarzipTest, AnArchiveCutShortIsReportedIncomplete) {
  WriteFile(Path("noise"), morvotest::RandomBytes(400000, 5));
  std::string wanted = archive_;
  archive_ = Path("no/such/dir/out.tar.gz");
  EXPECT_FALSE(Pack({Path("noise")}));
  EXPECT_FALSE(morvotest::Exists(archive_));
  archive_ = wanted;
  struct rlimit saved;
  ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &saved));
  struct rlimit small = {64 << 10, saved.rlim_max};
  sighandler_t old = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &small));
  bool complete = Pack({Path("noise")});
  setrlimit(RLIMIT_FSIZE, &saved);
  signal(SIGXFSZ, old);
  EXPECT_FALSE(complete);
  EXPECT_EQ((std::vector<std::string>{"data", "noise"}), Entries(root_.path()));
  EXPECT_TRUE(Pack({Path("noise")}));
}

TEST_F(TarzipTest, AFileTooLargeForTheSizeFieldKeepsTheArchiveConsistentButIncomplete) {
  WriteFile(Path("huge"), "");
  ASSERT_EQ(0, truncate(Path("huge").c_str(), (off_t{1} << 32) + 512));
  EXPECT_FALSE(Pack({Path("huge")}));
  std::vector<Header> m = Members(morvotest::Gunzip(archive_));
  ASSERT_EQ(1u, m.size());
  EXPECT_EQ(512u, m[0].size);
}

// A link at the work folder or archive name: the target stays, no member is lost.
TEST_F(TarzipTest, AFactoryArchiveNeverWritesThroughAPlantedLink) {
  const std::string victim = root_.Under("/victim");
  const struct {
    const char* planted;  // after the base path
    bool hard;
  } kCases[] = {{"_tmp", false}, {"-0.tar.gz", false}, {"-0.tar.gz", true}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.planted) + (c.hard ? " hard" : ""));
    std::vector<std::string> numbered;
    for (int n = 1; n <= archive::kFactoryArchiveMembers; ++n) {
      numbered.push_back("kmsg." + std::to_string(n));
      WriteFile(dir_ + "/" + numbered.back(), "rotated " + std::to_string(n) + "\n");
    }
    mkdir(victim.c_str(), 0755);
    WriteFile(victim + "/kmsg.1", "precious\n");
    const bool atWork = std::string(c.planted) == "_tmp";
    std::string target = atWork ? victim : victim + "/kmsg.1";
    std::string planted = base_ + c.planted;
    ASSERT_EQ(0, c.hard ? link(target.c_str(), planted.c_str())
                        : symlink(target.c_str(), planted.c_str()));
    archive::CompressLogsFactory(base_, 1);
    EXPECT_EQ(std::vector<std::string>{"kmsg.1"}, Entries(victim));
    EXPECT_EQ("precious\n", ReadFile(victim + "/kmsg.1"));
    if (atWork) {
      numbered.push_back("kmsg_tmp");
      EXPECT_EQ(numbered, Entries(dir_));
    } else {
      EXPECT_EQ(std::vector<std::string>{"kmsg-0.tar.gz"}, Entries(dir_));
      EXPECT_EQ("kmsg.1\nkmsg.2\nkmsg.3\nkmsg.4\nkmsg.5\n", morvotest::TarListing(planted));
    }
    ASSERT_EQ(0, system(("rm -rf " + dir_ + "/* " + victim).c_str()));
  }
}

}  // namespace
