#ifndef MORVOCAT_FILESETS_MORVOCAT_UTILS_H_
#define MORVOCAT_FILESETS_MORVOCAT_UTILS_H_

// The reader's writer for output files in memory-mapped mode: one Tavo
// writer over a rotating file set named after the output path. It removes
// the plain scheme's files when it starts, opens the next file when asked,
// goes on in an empty newest file after a restart, and prunes the oldest.
//
// Caller's order: construct; if IsMMapWriteMode(), InitLogFiles(); Write()
// each record; after each, when !IsLogFileAccess() make sure the directory
// exists and call InitLogFiles() and GetNewLog(); at the size threshold
// Flush() and GetNewLog().

#include <stdint.h>

#include <string>

#include "filesets/file_set.h"

class Tavo;

class MorvocatUtils : public FileSet {
 public:
  static constexpr int kMMapWriteMode = 1;

  // maxFiles 0 keeps only the cap of one file per index value.
  MorvocatUtils(std::string path, int writeMode, uint64_t maxFiles);
  ~MorvocatUtils() override;

  // Hands the writer data up to its first NUL or maxLength bytes.
  void Write(const char* data, uint64_t maxLength);
  void Flush();
  bool IsMMapWriteMode() const;
  // A file has been chosen and is still there as a regular file of one
  // name; a link or a second name put in its place does not count.
  bool IsLogFileAccess() const;
  // Removes the plain scheme's files and forms the set from the directory.
  void InitLogFiles();
  // Moves to the next file and prunes the oldest.
  void GetNewLog();
  // 0 when the writer's output now goes to the chosen file, 1 otherwise.
  int GetNewLogFileName();
  // All bits set when the file's status cannot be read.
  uint64_t GetFileSize(const std::string& name);

 protected:
  std::string logFilePath;
  int writeMode;
  Tavo* tavoWriter = nullptr;
};

#endif  // MORVOCAT_FILESETS_MORVOCAT_UTILS_H_
