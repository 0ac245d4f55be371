#include "archive/factory_compress.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "archive/folder.h"
#include "archive/tarzip.h"
#include "platform/log_file_names.h"
#include "platform/safe_file.h"

namespace {

using archive::Folder;
using archive::kFactoryArchiveMembers;

bool HoldsMembers(int workFd, const std::string& base) {
  for (int n = 1; n <= kFactoryArchiveMembers; ++n) {
    std::string member = platform::NumberedName(base, n);
    if (faccessat(workFd, member.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) return true;
  }
  return false;
}

void ShiftArchives(int dirFd, const std::string& base, int32_t maxFiles) {
  for (int32_t k = maxFiles - 1; k >= 1; --k) {
    std::string from = platform::ArchiveName(base, k - 1);
    if (renameat(dirFd, from.c_str(), dirFd, platform::ArchiveName(base, k).c_str()) != 0 &&
        errno != ENOENT) {
      perror("while rename compressed files");
    }
  }
}

// Packs the members in the work folder into P-0.tar.gz and deletes them
// and the folder; false when the archive failed and they were kept.
bool PackMembers(const std::string& logFilePath, int dirFd, const std::string& base,
                 const std::string& workDir) {
  std::string workName;
  Folder workParent(archive::OpenParentFolder(workDir.c_str(), &workName));
  Folder work(platform::OpenFolder(workDir.c_str()));
  std::string members[kFactoryArchiveMembers];
  const char* paths[kFactoryArchiveMembers];
  for (int n = 1; n <= kFactoryArchiveMembers; ++n) {
    members[n - 1] = platform::NumberedName(workDir + "/" + base, n);
    paths[n - 1] = members[n - 1].c_str();
  }
  const std::string archive = platform::ArchiveName(logFilePath, 0);
  if (!work.ok() || !TarzipFilesComplete(kFactoryArchiveMembers, paths, archive.c_str(), 0)) {
    // Keep the members for the next run to pack; a cut archive would only
    // hold part of them.
    fprintf(stderr, "compress [%s] failed, files kept in %s\n", archive.c_str(), workDir.c_str());
    unlinkat(dirFd, platform::ArchiveName(base, 0).c_str(), 0);
    return false;
  }
  for (int n = 1; n <= kFactoryArchiveMembers; ++n) {
    if (unlinkat(work.fd(), platform::NumberedName(base, n).c_str(), 0) != 0) {
      perror("unlink failed");
    }
  }
  if (!workParent.ok() || unlinkat(workParent.fd(), workName.c_str(), AT_REMOVEDIR) != 0) {
    if (!workParent.ok()) errno = -workParent.fd();
    perror("unlink failed");
  }
  return true;
}

// Shifts the archives and packs the members in workDir; false when they
// were kept.
bool RunFactory(const std::string& logFilePath, int32_t maxFiles, const std::string& workDir) {
  if (workDir.empty()) return false;
  std::string base;
  Folder dir(archive::OpenParentFolder(logFilePath.c_str(), &base));
  if (!dir.ok()) return false;
  ShiftArchives(dir.fd(), base, maxFiles);
  if (logFilePath.find('/') == std::string::npos) return false;
  return PackMembers(logFilePath, dir.fd(), base, workDir);
}

}  // namespace

namespace archive {

void CompressLogsFactory(const std::string& logFilePath, int32_t maxFiles) {
  std::string folder;
  std::string base;
  if (platform::SplitPath(logFilePath.c_str(), &folder, &base) != 0) return;
  Folder dir(platform::OpenFolder(folder.c_str()));
  if (!dir.ok()) {
    errno = -dir.fd();
    perror("couldn't create compress dir");
    return;
  }
  const std::string workDir = platform::WorkFolderName(logFilePath);
  int workFd = archive::MakeWorkFolder(workDir);
  if (workFd >= 0 && HoldsMembers(workFd, base)) {
    // Moving this set in would overwrite them: they go first, and while
    // they cannot be packed this set stays where it is.
    close(workFd);
    workFd = RunFactory(logFilePath, maxFiles, workDir) ? archive::MakeWorkFolder(workDir) : -1;
  }
  Folder work(workFd);
  if (!work.ok()) return;
  for (int n = kFactoryArchiveMembers; n >= 1; --n) {
    std::string name = platform::NumberedName(base, n);
    if (renameat(dir.fd(), name.c_str(), work.fd(), name.c_str()) != 0) {
      perror("while rename log files");
    }
  }
  RunFactory(logFilePath, maxFiles, workDir);
}

void CompressRunFactory(const std::string& logFilePath, int32_t maxFiles,
                        const std::string& workDir) {
  RunFactory(logFilePath, maxFiles, workDir);
}

}  // namespace archive
