// The core of the group sink, under the file layer (group_rotation.cc) and
// the write paths (tavobase_write.cc): construction, the modes, closing, the
// clocks and the fault reports. It calls neither of them.

#include "collector/tavobase.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "archive/factory_compress.h"
#include "collector/monitor_dir.h"
#include "filesets/file_name.h"
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
  prevLinkPath = platform::NumberedName(outputFilePath, 1);
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

void Tavobase::WallClock(struct timeval* now) const { gettimeofday(now, nullptr); }

int64_t Tavobase::MonotonicMillis() const {
  // Read at every record: the coarse clock is a memory read where the fine
  // one may have to ask the processor (a trap under some hypervisors), and
  // its tick of a few milliseconds is fine enough for checks and retries.
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void Tavobase::BeginFault(int error) {
  if (failing_) return;
  failing_ = true;
  retryAtMillis_ = MonotonicMillis() + kRetryMillis;
  // A retry that fails is the same fault.
  if (resuming_) return;
  char buffer[128];
  const std::string& file = logFilePath.empty() ? outputFilePath : logFilePath;
  Say("group %s: cannot write %s: %s\n", outputFilePath.c_str(), file.c_str(),
      strerror_r(error != 0 ? error : EIO, buffer, sizeof(buffer)));
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
