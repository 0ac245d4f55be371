#include "collector/tavobase.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "archive/factory_compress.h"
#include "collector/monitor_dir.h"
#include "filesets/file_name.h"
#include "platform/safe_file.h"
#include "platform/tavo.h"

using TavoCommon::FACTORY_WRITE;
using TavoCommon::MMAP_WRITE;

namespace {

constexpr size_t kDefaultMaxFiles = 10;
constexpr size_t kMaxFilesCap = filesets::kIndexCount;
constexpr size_t kFilesPerArchive = archive::kFactoryArchiveMembers;

std::string PathOf(const TavoCommon::TavocatGroupT* group) {
  return group != nullptr && group->outputFilePath != nullptr ? group->outputFilePath : "";
}

size_t MaxFilesOf(const TavoCommon::TavocatGroupT* group, TavoCommon::TypeWrite mode) {
  size_t files = kDefaultMaxFiles;
  if (group == nullptr) return files;
  if (group->info != nullptr) files = std::min(group->info->maxCompressdFiles, kMaxFilesCap);
  // Factory mode counts archives of five files each.
  if (mode != MMAP_WRITE) files = (files + kFilesPerArchive - 1) / kFilesPerArchive;
  return files;
}

SetScheme SchemeOf(TavoCommon::TypeWrite mode) {
  return mode == FACTORY_WRITE ? SetScheme::NUMBERED : SetScheme::INDEXED;
}

}  // namespace

Tavobase::Tavobase(const TavoCommon::TavocatGroupT* group, TavoCommon::TypeWrite mode)
    : FileSet(PathOf(group), MaxFilesOf(group, mode), kCollectorSetRules, SchemeOf(mode)),
      writeMode(mode) {
  if (group == nullptr) return;
  prevLinkPath = outputFilePath + ".1";
  failureRetry = group->failureRetry;
  if (group->info != nullptr) rotateSizeKbytes = group->info->rotateSizeKbytes;
  if (writeMode != MMAP_WRITE) return;
  tavoWriter = new (std::nothrow) Tavo();
  if (tavoWriter != nullptr) tavoWriter->InitTavo();
  dirMonitor = new (std::nothrow) MonitorDir(outputFilePath.c_str());
  if (dirMonitor != nullptr) dirMonitor->SetupLogBase(this);
}

Tavobase::~Tavobase() {
  // The runner that could open the output again is gone by now.
  if (failing_ && held_.Lost() + held_.Pending() > 0) {
    Say("group %s: stopped, %zu lines lost\n", outputFilePath.c_str(),
        held_.Lost() + held_.Pending());
  }
  // The monitor flushes the writer: it must be gone first.
  delete dirMonitor;
  dirMonitor = nullptr;
  delete tavoWriter;
  tavoWriter = nullptr;
  FactoryClose();
}

bool Tavobase::IsMMapWrite() const { return writeMode == MMAP_WRITE; }

bool Tavobase::IsFactoryWrite() const { return writeMode == FACTORY_WRITE; }

void Tavobase::LogcatClose() {
  if (IsFactoryWrite()) {
    FactoryClose();
  } else {
    MmapClose();
  }
}

void Tavobase::MmapClose() {
  if (tavoWriter != nullptr) tavoWriter->Flush();
}

void Tavobase::FactoryClose() {
  // Standard output stands in for a group without a path; it is not ours.
  if (logFd >= 0 && logFd != STDOUT_FILENO) close(logFd);
  logFd = -1;
}

void Tavobase::ReleaseFD(int* holder) {
  if (holder == nullptr) return;
  if (*holder >= 0) close(*holder);
  delete holder;
}

int Tavobase::SetupOutput() {
  if (outputFilePath.empty()) {
    logFd = STDOUT_FILENO;
    return 0;
  }
  if (CreateBugreportsDir(outputFilePath.c_str()) == 1) {
    Say("create bugreports dir error!!\n");
    return 1;
  }
  // The monitor starts once the folder it watches exists: on a fresh device
  // a watch added before would fail and end the monitor for good.
  if (dirMonitor != nullptr) dirMonitor->Start();
  FormFileVectors();
  OpenLogFile();
  if (IsMMapWrite()) return 0;
  if (logFd < 0) {
    Say("couldn't open output file!!\n");
    return 1;
  }
  struct stat st;
  if (fstat(logFd, &st) != 0) {
    Say("fstat file %s err\n", logFilePath.c_str());
  } else {
    curFileSize = static_cast<size_t>(st.st_size);
  }
  return 0;
}

int Tavobase::CreateBugreportsDir(const char* path) const {
  if (path == nullptr || path[0] == '\0') {
    Say("bugreport dir is invalide.\n");
    return 1;
  }
  const char* slash = strrchr(path, '/');
  if (slash == nullptr) {
    Say("pend is invalide.\n");
    return 1;
  }
  std::string dir(path, static_cast<size_t>(slash - path));
  CreateDir(dir.c_str());
  // On the folder itself, in this process: no program found through PATH
  // runs as root, and a link put in place of the folder is not followed.
  int dirFd = platform::OpenFolder(dir.c_str());
  if (dirFd < 0 || platform::GiveToRootSystem(dirFd) != 0) {
    Say("chown [%s] err\n", dir.c_str());
  }
  if (dirFd >= 0) close(dirFd);
  return 0;
}

void Tavobase::OpenLogFile() {
  if (outputFilePath.empty()) return;
  if (IsFactoryWrite()) {
    FactoryClose();
    OpenLogFileFactory();
    return;
  }
  MmapClose();
  if (ChooseFileName() != 0) return;
  std::string name;
  int dirFd = OpenFolderOf(logFilePath, &name);
  if (tavoWriter != nullptr) {
    // Made before the writer opens it, so that the writer finds our own
    // file at the name and never what someone put there.
    logFd = OpenOwnFileAt(dirFd, name, O_WRONLY, kLogFileMode);
    if (logFd >= 0 && !tavoWriter->SetOutputPath(logFilePath.c_str())) {
      Say("error while set mmap output path\n");
    }
  }
  curFileSize = 0;
  if (logFd < 0) {
    lastError_ = dirFd < 0 ? -dirFd : -logFd;
    logFd = -1;
    if (dirFd >= 0) close(dirFd);
    Say("open or mmap file[%s] err \n", logFilePath.c_str());
    BeginFault(lastError_);
    return;
  }
  if (fchmod(logFd, kLogFileMode) != 0) Say("fchmod file[%s] err\n", logFilePath.c_str());
  if (platform::GiveToRootSystem(logFd) != 0) {
    Say("chown [%s] err\n", logFilePath.c_str());
  }
  RefreshSymlinkAt(dirFd);
  close(dirFd);
  close(logFd);
  logFd = -1;
  openLogFilePost();
}

void Tavobase::Say(const char* format, ...) const {
  if (resuming_) return;
  va_list args;
  va_start(args, format);
  vfprintf(stderr, format, args);
  va_end(args);
}

void Tavobase::SayError(const char* text) const {
  int error = errno;
  char buffer[128];
  Say("%s: %s\n", text, strerror_r(error, buffer, sizeof(buffer)));
}
