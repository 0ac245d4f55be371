#include "archive/factory_compress.h"

#include <errno.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "archive/tarzip.h"
#include "filesets/file_name.h"

namespace {

using archive::kFactoryArchiveMembers;

constexpr mode_t kWorkDirMode = 0775;

std::string MemberName(const std::string& dir, const std::string& base, int n) {
  return filesets::NumberedName(dir + "/" + base, n);
}

std::string BaseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

bool HoldsMembers(const std::string& workDir, const std::string& base) {
  for (int n = 1; n <= kFactoryArchiveMembers; ++n) {
    if (access(MemberName(workDir, base, n).c_str(), F_OK) == 0) return true;
  }
  return false;
}

void MakeWorkDir(const std::string& workDir) {
  if (mkdir(workDir.c_str(), kWorkDirMode) != 0) perror("couldn't create compress dir");
}

}  // namespace

namespace archive {

void CompressLogsFactory(const std::string& logFilePath, int32_t maxFiles) {
  if (logFilePath.find('/') == std::string::npos) return;
  const std::string base = BaseName(logFilePath);
  const std::string workDir = logFilePath + "_tmp";
  MakeWorkDir(workDir);
  if (HoldsMembers(workDir, base)) {
    // Moving this set in would overwrite them.
    CompressRunFactory(logFilePath, maxFiles, workDir);
    if (HoldsMembers(workDir, base)) return;
    MakeWorkDir(workDir);
  }
  for (int n = kFactoryArchiveMembers; n >= 1; --n) {
    std::string from = filesets::NumberedName(logFilePath, n);
    if (rename(from.c_str(), MemberName(workDir, base, n).c_str()) != 0) {
      perror("while rename log files");
    }
  }
  CompressRunFactory(logFilePath, maxFiles, workDir);
}

void CompressRunFactory(const std::string& logFilePath, int32_t maxFiles,
                        const std::string& workDir) {
  if (workDir.empty()) return;
  for (int32_t k = maxFiles - 1; k >= 1; --k) {
    std::string from = filesets::ArchiveName(logFilePath, k - 1);
    if (rename(from.c_str(), filesets::ArchiveName(logFilePath, k).c_str()) != 0 &&
        errno != ENOENT) {
      perror("while rename compressed files");
    }
  }
  if (logFilePath.find('/') == std::string::npos) return;
  const std::string base = BaseName(logFilePath);
  std::string members[kFactoryArchiveMembers];
  const char* paths[kFactoryArchiveMembers];
  for (int n = 1; n <= kFactoryArchiveMembers; ++n) {
    members[n - 1] = MemberName(workDir, base, n);
    paths[n - 1] = members[n - 1].c_str();
  }
  const std::string archive = filesets::ArchiveName(logFilePath, 0);
  if (!TarzipFilesComplete(kFactoryArchiveMembers, paths, archive.c_str(), 0)) {
    // Keep the members for the next run to pack; a cut archive would only
    // hold part of them.
    fprintf(stderr, "compress [%s] failed, files kept in %s\n", archive.c_str(), workDir.c_str());
    unlink(archive.c_str());
    return;
  }
  for (const std::string& member : members) {
    if (unlink(member.c_str()) != 0) perror("unlink failed");
  }
  if (rmdir(workDir.c_str()) != 0) perror("unlink failed");
}

}  // namespace archive
