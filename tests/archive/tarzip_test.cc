#include "archive/tarzip.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "support/file_tree.h"
#include "support/gzip_text.h"
#include "support/random_bytes.h"
#include "support/tar_listing.h"
#include "support/temp_root.h"

namespace {

using morvotest::ReadFile;
using morvotest::TempRoot;
using morvotest::WriteFile;

constexpr size_t kBlock = 512;

// Member names as stock tar lists them.
std::set<std::string> TarNames(const std::string& archive) {
  std::string out = morvotest::TarListing(archive);
  EXPECT_NE("<tar failed>", out);
  std::set<std::string> names;
  size_t pos = 0;
  for (size_t nl; (nl = out.find('\n', pos)) != std::string::npos; pos = nl + 1) {
    names.insert(out.substr(pos, nl - pos));
  }
  return names;
}

struct Header {
  std::string name;
  unsigned long size;
  unsigned long checksum;
};

// Walks the stream by its headers; fails the test on a malformed one.
std::vector<Header> Members(const std::string& tar) {
  std::vector<Header> members;
  size_t pos = 0;
  while (pos + kBlock <= tar.size() && tar.compare(pos, kBlock, std::string(kBlock, '\0')) != 0) {
    const char* h = tar.data() + pos;
    Header m{std::string(h, strnlen(h, 100)), strtoul(h + 124, nullptr, 8),
             strtoul(h + 148, nullptr, 8)};
    unsigned long sum = 0;
    for (size_t i = 0; i < kBlock; i++) {
      sum += (i >= 148 && i < 156) ? ' ' : static_cast<unsigned char>(h[i]);
    }
    EXPECT_EQ(sum, m.checksum) << m.name;
    members.push_back(m);
    pos += kBlock * (1 + (m.size + kBlock - 1) / kBlock);
  }
  // Exactly one end block closes the stream.
  EXPECT_EQ(tar.size(), pos + kBlock);
  return members;
}

class TarzipTest : public ::testing::Test {
 protected:
  std::string Path(const std::string& name) { return root_.path() + "/" + name; }
  std::string MakeFile(const std::string& name, size_t size, char fill = 'a') {
    std::string content;
    for (size_t i = 0; i < size; i++) content += static_cast<char>(fill + i % 23);
    WriteFile(Path(name), content);
    return content;
  }
  bool Pack(std::vector<std::string> paths, int dirMode = 0) {
    std::vector<const char*> p;
    for (auto& s : paths) p.push_back(s.c_str());
    return TarzipFilesComplete(static_cast<int>(p.size()), p.data(), archive_.c_str(), dirMode);
  }
  TempRoot root_;
  std::string archive_ = root_.path() + "/out.tar.gz";
};

TEST_F(TarzipTest, AnEmptyListGivesExactlyOneZeroBlock) {
  const char* none[] = {nullptr};
  TarzipFiles(0, none, archive_.c_str(), 0);
  EXPECT_EQ(std::string(kBlock, '\0'), morvotest::Gunzip(archive_));
  EXPECT_TRUE(TarNames(archive_).empty());
}

TEST_F(TarzipTest, HeaderFieldsAreByteExact) {
  MakeFile("a.log.1", 0);
  ASSERT_TRUE(Pack({Path("a.log.1")}));
  std::string tar = morvotest::Gunzip(archive_);
  ASSERT_EQ(2 * kBlock, tar.size());
  std::string expected(kBlock, '\0');
  expected.replace(0, 7, "a.log.1");
  expected.replace(100, 8, std::string("100666 \0", 8));
  expected.replace(108, 8, std::string("     0 \0", 8));
  expected.replace(116, 8, std::string("     0 \0", 8));
  expected.replace(124, 2, std::string("0\0", 2));
  // 819 + 256 + the name's bytes (560) + the digit 0 (48) = 1683 = 03223.
  expected.replace(148, 5, std::string("3223\0", 5));
  EXPECT_EQ(expected, tar.substr(0, kBlock));
}

TEST_F(TarzipTest, ContentTakesWholeBlocksPaddedWithZeros) {
  std::string c512 = MakeFile("b512", 512), c513 = MakeFile("c513", 513);
  MakeFile("a0", 0);
  ASSERT_TRUE(Pack({Path("a0"), Path("b512"), Path("c513")}));
  std::string tar = morvotest::Gunzip(archive_);
  std::vector<Header> m = Members(tar);
  ASSERT_EQ(3u, m.size());
  EXPECT_EQ(0u, m[0].size);
  EXPECT_EQ(512u, m[1].size);
  EXPECT_EQ(513u, m[2].size);
  // a0: header; b512: header + 1; c513: header + 2; end block.
  ASSERT_EQ(7 * kBlock, tar.size());
  EXPECT_EQ(c512, tar.substr(2 * kBlock, 512));
  EXPECT_EQ(c513 + std::string(511, '\0'), tar.substr(4 * kBlock, 1024));
  EXPECT_EQ("1001", std::string(tar.data() + 4 * kBlock - 512 + 124));  // 513 in octal
}

TEST_F(TarzipTest, StockTarListsAndExtractsTheSameBytes) {
  std::vector<std::string> paths, contents;
  for (size_t size : {1u, 4000u, 70000u, 300001u}) {
    std::string name = "kmsg.log." + std::to_string(size);
    contents.push_back(MakeFile(name, size, static_cast<char>('A' + size % 7)));
    paths.push_back(Path(name));
  }
  ASSERT_TRUE(Pack(paths));
  std::string dest = Path("extract");
  mkdir(dest.c_str(), 0775);
  ASSERT_EQ("", morvotest::Tar("-xzf '" + archive_ + "' -C '" + dest + "'"));
  for (size_t i = 0; i < paths.size(); i++) {
    std::string name = paths[i].substr(paths[i].rfind('/') + 1);
    EXPECT_TRUE(contents[i] == ReadFile(dest + "/" + name)) << name;
  }
  EXPECT_EQ(4u, TarNames(archive_).size());
  Members(morvotest::Gunzip(archive_));
}

TEST_F(TarzipTest, NamesFillTheFieldWithoutTerminatorAndLongerOnesAreCut) {
  std::string exact(100, 'n'), longer(140, 'm');
  MakeFile(exact, 3);
  MakeFile(longer, 3);
  ASSERT_TRUE(Pack({Path(exact), Path(longer)}));
  std::string tar = morvotest::Gunzip(archive_);
  EXPECT_EQ(exact, tar.substr(0, 100));
  EXPECT_EQ('1', tar[100]) << "the mode follows the name directly";
  EXPECT_EQ(longer.substr(0, 100), tar.substr(2 * kBlock, 100));
  EXPECT_EQ((std::set<std::string>{exact, longer.substr(0, 100)}), TarNames(archive_));
}

TEST_F(TarzipTest, DirectoriesAreWalkedWithOrWithoutTheirNameAsPrefix) {
  mkdir(Path("x").c_str(), 0775);
  mkdir(Path("x/sub").c_str(), 0775);
  MakeFile("x/f1", 10);
  std::string f2 = MakeFile("x/sub/f2", 600);
  ASSERT_EQ(0, symlink(Path("x/f1").c_str(), Path("x/link").c_str()));
  ASSERT_TRUE(Pack({Path("x/")}, 1));
  EXPECT_EQ((std::set<std::string>{"x/f1", "x/sub/f2"}), TarNames(archive_));
  std::string dest = Path("extract");
  mkdir(dest.c_str(), 0775);
  EXPECT_EQ("", morvotest::Tar("-xzf '" + archive_ + "' -C '" + dest + "'"));
  EXPECT_TRUE(f2 == ReadFile(dest + "/x/sub/f2"));
  ASSERT_TRUE(Pack({Path("x")}, 0));
  EXPECT_EQ((std::set<std::string>{"f1", "f2"}), TarNames(archive_));
}

TEST_F(TarzipTest, LinksMissingFilesAndNullEntriesAreLeftOut) {
  MakeFile("real", 5);
  ASSERT_EQ(0, symlink(Path("real").c_str(), Path("link").c_str()));
  std::string real = Path("real"), link = Path("link"), gone = Path("gone");
  const char* paths[] = {link.c_str(), nullptr, gone.c_str(), real.c_str()};
  EXPECT_TRUE(TarzipFilesComplete(4, paths, archive_.c_str(), 0));
  EXPECT_EQ((std::set<std::string>{"real"}), TarNames(archive_));
}

TEST_F(TarzipTest, PrefixedNamesAreCutAt99CharactersWithAMessage) {
  std::string dir(60, 'd'), file(60, 'f');
  mkdir(Path(dir).c_str(), 0775);
  MakeFile(dir + "/" + file, 1);
  testing::internal::CaptureStderr();
  ASSERT_TRUE(Pack({Path(dir)}, 1));
  EXPECT_EQ("filepath write failed\n", testing::internal::GetCapturedStderr());
  std::string cut = (dir + "/" + file).substr(0, 99);
  EXPECT_EQ(std::set<std::string>{cut}, TarNames(archive_));
}

TEST_F(TarzipTest, NestedPrefixesAreCutWithTheirOwnMessage) {
  std::string a(60, 'a'), b(60, 'b');
  mkdir(Path(a).c_str(), 0775);
  mkdir(Path(a + "/" + b).c_str(), 0775);
  MakeFile(a + "/" + b + "/f", 1);
  testing::internal::CaptureStderr();
  ASSERT_TRUE(Pack({Path(a)}, 1));
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ("path write failed\nfilepath write failed\n", err);
  EXPECT_EQ(std::set<std::string>{(a + "/" + b).substr(0, 99)}, TarNames(archive_));
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

TEST_F(TarzipTest, TheDirectoryWalkCanBeCalledOnItsOwn) {
  mkdir(Path("d").c_str(), 0775);
  MakeFile("d/one", 2);
  gzFile gz = gzopen(archive_.c_str(), "w");
  ASSERT_NE(nullptr, gz);
  TarzipDirRecursive(gz, Path("d").c_str(), "pre");
  gzwrite(gz, std::string(kBlock, '\0').data(), kBlock);
  gzclose(gz);
  EXPECT_EQ(std::set<std::string>{"pre/one"}, TarNames(archive_));
}

TEST_F(TarzipTest, AnArchiveThatCannotBeWrittenIsReportedIncomplete) {
  MakeFile("f", 100000, 'a');
  EXPECT_TRUE(Pack({Path("f")}));
  archive_ = Path("no/such/dir/out.tar.gz");
  EXPECT_FALSE(Pack({Path("f")}));
  EXPECT_FALSE(morvotest::Exists(archive_));
}

TEST_F(TarzipTest, AWriteFailureMakesTheArchiveIncomplete) {
  WriteFile(Path("noise"), morvotest::RandomBytes(400000, 5));
  struct rlimit saved, small;
  ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &saved));
  small = saved;
  small.rlim_cur = 64 << 10;
  sighandler_t old = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &small));
  bool complete = Pack({Path("noise")});
  setrlimit(RLIMIT_FSIZE, &saved);
  signal(SIGXFSZ, old);
  EXPECT_FALSE(complete);
  // The cut archive never took the name, and its temporary is gone.
  EXPECT_EQ(std::vector<std::string>{"noise"}, morvotest::Entries(root_.path()));
  EXPECT_TRUE(Pack({Path("noise")}));
}

TEST_F(TarzipTest, AFileTooLargeForTheSizeFieldKeepsTheArchiveConsistentButIncomplete) {
  int fd = open(Path("huge").c_str(), O_WRONLY | O_CREAT, 0644);
  ASSERT_GE(fd, 0);
  // Sparse: 4 GiB + 512 bytes, of which the field keeps the low 512.
  ASSERT_EQ(0, ftruncate(fd, (off_t{1} << 32) + 512));
  close(fd);
  EXPECT_FALSE(Pack({Path("huge")}));
  std::vector<Header> m = Members(morvotest::Gunzip(archive_));
  ASSERT_EQ(1u, m.size());
  EXPECT_EQ(512u, m[0].size);
}

// Whatever sits at the archive's name is replaced, never written through.
TEST_F(TarzipTest, ALinkAtTheArchiveNameIsReplacedAndItsTargetKept) {
  std::string content = MakeFile("member", 700);
  for (bool hard : {false, true}) {
    SCOPED_TRACE(hard ? "hard link" : "symbolic link");
    std::string victim = Path("victim");
    WriteFile(victim, "precious\n");
    ASSERT_EQ(0, hard ? link(victim.c_str(), archive_.c_str())
                      : symlink(victim.c_str(), archive_.c_str()));
    ASSERT_TRUE(Pack({Path("member")}));
    EXPECT_EQ("precious\n", ReadFile(victim));
    EXPECT_TRUE(S_ISREG(morvotest::NodeAt(archive_).mode));
    EXPECT_EQ(std::set<std::string>{"member"}, TarNames(archive_));
    EXPECT_EQ((std::vector<std::string>{"member", "out.tar.gz", "victim"}),
              morvotest::Entries(root_.path()));
    ASSERT_EQ(0, unlink(archive_.c_str()));
  }
}

}  // namespace
