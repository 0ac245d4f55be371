#include "filesets/morvocat_utils.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>
#include <utility>

#include "platform/tavo.h"

namespace {

constexpr mode_t kLogFileMode = 0664;

SetScheme SchemeOf(int writeMode) {
  return writeMode == MorvocatUtils::kMMapWriteMode ? SetScheme::INDEXED : SetScheme::NONE;
}

}  // namespace

MorvocatUtils::MorvocatUtils(std::string path, int writeMode, uint64_t maxFiles)
    : FileSet(std::move(path), maxFiles, kReaderSetRules, SchemeOf(writeMode)),
      writeMode(writeMode) {
  if (outputFilePath.empty() || writeMode != kMMapWriteMode) return;
  tavoWriter = new (std::nothrow) Tavo();
  if (tavoWriter != nullptr) tavoWriter->InitTavo();
}

MorvocatUtils::~MorvocatUtils() {
  delete tavoWriter;
  tavoWriter = nullptr;
}

void MorvocatUtils::Write(const char* data, uint64_t maxLength) {
  if (tavoWriter == nullptr || data == nullptr) return;
  tavoWriter->Write(data, strnlen(data, maxLength));
}

void MorvocatUtils::Flush() {
  if (tavoWriter != nullptr) tavoWriter->Flush();
}

bool MorvocatUtils::IsMMapWriteMode() const { return writeMode == kMMapWriteMode; }

bool MorvocatUtils::IsLogFileAccess() const {
  return !logFilePath.empty() && IsOwnFileThere(logFilePath);
}

void MorvocatUtils::InitLogFiles() {
  DeleteOldStyleFiles();
  FormFileVectors();
}

void MorvocatUtils::GetNewLog() {
  GetNewLogFileName();
  RemoveRedundancy();
}

int MorvocatUtils::GetNewLogFileName() {
  if (tavoWriter == nullptr) return 1;
  uint32_t index = GetNewLogFileIndex();
  if (index == filesets::kContinueNewest) {
    // The newest file is empty: go on in it as it is.
    logFilePath = fileVec.back();
    return tavoWriter->SetOutputPath(logFilePath.c_str()) ? 0 : 1;
  }
  if (!AddNewFile(index, &logFilePath)) return 1;
  // Made here first, so that the writer opens a file of our own and never
  // what someone put at the name.
  std::string name;
  int dirFd = OpenFolderOf(logFilePath, &name);
  int fd = OpenOwnFileAt(dirFd, name, O_WRONLY, kLogFileMode);
  if (dirFd >= 0) close(dirFd);
  if (fd < 0) return 1;
  if (!tavoWriter->SetOutputPath(logFilePath.c_str())) {
    close(fd);
    return 1;
  }
  if (fchmod(fd, kLogFileMode) != 0) {
    fprintf(stderr, "chmod file[%s] err %s:\n", logFilePath.c_str(), strerror(errno));
  }
  close(fd);
  return 0;
}

uint64_t MorvocatUtils::GetFileSize(const std::string& name) {
  struct stat st;
  if (stat(name.c_str(), &st) != 0) return UINT64_MAX;
  return static_cast<uint64_t>(st.st_size);
}
