#include "archive/tarzip.h"

#include <dirent.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <limits>

#include "platform/safe_string.h"

namespace {

constexpr size_t kBlock = 512;
constexpr size_t kNameField = 100;
constexpr size_t kNameMax = kNameField - 1;  // prefixed names and prefixes
constexpr size_t kPathMax = 4096;
// The mode, owner and group fields with their NULs add up to this.
constexpr unsigned kFixedFieldsSum = 819;
constexpr unsigned kChecksumAsSpaces = 8 * ' ';

// The archive being written, and whether every part of it went in.
struct Sink {
  gzFile gz;
  bool whole;
};

bool PutBlock(Sink* sink, const void* block) {
  if (gzwrite(sink->gz, block, kBlock) == static_cast<int>(kBlock)) return true;
  sink->whole = false;
  return false;
}

// Streams ceil(size / 512) blocks of path; false when they are not the
// file's own bytes (unopenable, unreadable or not written).
bool PutContent(gzFile gz, const char* path, int64_t size) {
  char resolved[PATH_MAX];
  if (strnlen(path, kPathMax + 1) > kPathMax || realpath(path, resolved) == nullptr) return false;
  FILE* file = fopen(resolved, "r");
  if (file == nullptr) return false;
  unsigned char block[kBlock];
  memset_s(block, sizeof(block), 0, sizeof(block));
  bool whole = true;
  for (int64_t left = size; left > 0; left -= static_cast<int64_t>(kBlock)) {
    // Past the recorded size (or the end of a file that shrank) the block
    // is padded with zeros.
    size_t want = left < static_cast<int64_t>(kBlock) ? static_cast<size_t>(left) : kBlock;
    size_t got = fread(block, 1, want, file);
    if (got < kBlock) {
      memset_s(block + got, kBlock - got, 0, kBlock - got);
      if (ferror(file)) whole = false;
    }
    if (gzwrite(gz, block, kBlock) != static_cast<int>(kBlock)) {
      whole = false;
      break;
    }
  }
  fclose(file);
  return whole;
}

void AddFile(Sink* sink, const char* path, const char* name, const struct stat& st) {
  char block[kBlock];
  memset_s(block, sizeof(block), 0, sizeof(block));
  uint32_t size = static_cast<uint32_t>(st.st_size);
  if (static_cast<uint64_t>(st.st_size) > std::numeric_limits<uint32_t>::max()) {
    sink->whole = false;  // the size field cannot hold it
  }
  WriteHeader(block, name, size);
  if (!PutBlock(sink, block)) return;
  if (!PutContent(sink->gz, path, size) && size > 0) sink->whole = false;
}

// out = "first/second" cut to 99 characters; message when it was cut.
void JoinCut(char* out, const char* first, const char* second, const char* message) {
  strncpy_s(out, kNameField, first, kNameMax);
  strncat_s(out, kNameField, "/", kNameMax - strlen(out));
  strncat_s(out, kNameField, second, kNameMax - strlen(out));
  if (strlen(first) + 1 + strlen(second) > kNameMax) fputs(message, stderr);
}

void AddDir(Sink* sink, const char* dir, const char* prefix) {
  DIR* d = opendir(dir);
  if (d == nullptr) return;
  char path[kPathMax];
  size_t len = 0;
  bool ok = strcpy_s(path, sizeof(path), dir) == 0;
  if (ok) {
    len = strlen(path);
    if (len == 0 || path[len - 1] != '/') ok = strncat_s(path, sizeof(path), "/", 1) == 0;
    len = strlen(path);
  }
  if (!ok) fputs("dir write failed\n", stderr);
  while (struct dirent* entry = ok ? readdir(d) : nullptr) {
    const char* name = entry->d_name;
    if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
    if (strcpy_s(path + len, sizeof(path) - len, name) != 0) {
      fputs("dirp->d_name write failed\n", stderr);
      continue;
    }
    struct stat st;
    if (lstat(path, &st) != 0) continue;
    char joined[kNameField];
    if (S_ISDIR(st.st_mode)) {
      if (prefix != nullptr) JoinCut(joined, prefix, name, "path write failed\n");
      AddDir(sink, path, prefix != nullptr ? joined : nullptr);
    } else if (S_ISREG(st.st_mode)) {
      if (prefix != nullptr) JoinCut(joined, prefix, name, "filepath write failed\n");
      AddFile(sink, path, prefix != nullptr ? joined : name, st);
    }
  }
  closedir(d);
}

void GiveToSystem(const char* archive) {
  struct passwd pw;
  struct passwd* found = nullptr;
  char buf[1024];
  if (getpwnam_r("system", &pw, buf, sizeof(buf), &found) == 0 && found != nullptr) {
    chown(archive, found->pw_uid, found->pw_gid);
  }
}

const char* LastComponent(const char* path) {
  const char* slash = strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

}  // namespace

bool TarzipFilesComplete(int count, const char* const* paths, const char* archive, int dirMode) {
  if (paths == nullptr || archive == nullptr) return false;
  gzFile gz = gzopen(archive, "w");
  if (gz == nullptr) return false;
  GiveToSystem(archive);
  Sink sink{gz, true};
  for (int i = 0; i < count; i++) {
    const char* path = paths[i];
    struct stat st;
    if (path == nullptr || lstat(path, &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      char top[kNameField];
      const char* prefix = nullptr;
      if (dirMode != 0) {
        if (strncpy_s(top, sizeof(top), path, kNameMax) != 0) fputs("tmp write failed\n", stderr);
        size_t len = strlen(top);
        if (len > 0 && top[len - 1] == '/') top[len - 1] = '\0';
        prefix = LastComponent(top);
      }
      AddDir(&sink, path, prefix);
    } else if (S_ISREG(st.st_mode)) {
      AddFile(&sink, path, LastComponent(path), st);
    }
  }
  char end[kBlock];
  memset_s(end, sizeof(end), 0, sizeof(end));
  PutBlock(&sink, end);
  if (gzclose(gz) != Z_OK) sink.whole = false;
  return sink.whole;
}

extern "C" {

void TarzipFiles(int count, const char* const* paths, const char* archive, int dirMode) {
  TarzipFilesComplete(count, paths, archive, dirMode);
}

void TarzipDirRecursive(gzFile stream, const char* dir, const char* prefix) {
  if (stream == nullptr || dir == nullptr) return;
  Sink sink{stream, true};
  AddDir(&sink, dir, prefix);
}

void WriteHeader(char* block, const char* name, uint32_t size) {
  unsigned sum = 0;
  size_t nameLen = strnlen(name, kNameField);
  for (size_t i = 0; i < nameLen; i++) {
    block[i] = name[i];
    sum += static_cast<unsigned char>(name[i]);
  }
  memcpy(block + 100, "100666 ", 8);
  memcpy(block + 108, "     0 ", 8);
  memcpy(block + 116, "     0 ", 8);
  char sizeField[12];
  memset_s(sizeField, sizeof(sizeField), 0, sizeof(sizeField));
  if (snprintf_s(sizeField, sizeof(sizeField), sizeof(sizeField) - 1, "%o", size) < 0) {
    fputs("size write failed\n", stderr);
  }
  memcpy(block + 124, sizeField, sizeof(sizeField));
  for (char c : sizeField) sum += static_cast<unsigned char>(c);
  sum += kFixedFieldsSum + kChecksumAsSpaces;
  char sumField[8];
  memset_s(sumField, sizeof(sumField), 0, sizeof(sumField));
  if (snprintf_s(sumField, sizeof(sumField), sizeof(sumField) - 1, "%o", sum) < 0) {
    fputs("sum write failed\n", stderr);
  }
  memcpy(block + 148, sumField, sizeof(sumField));
}

void WriteZipContent(gzFile stream, const char* path, int64_t size) {
  if (stream == nullptr || path == nullptr) return;
  PutContent(stream, path, size);
}

}  // extern "C"
