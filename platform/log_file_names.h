#ifndef MORVOCAT_PLATFORM_LOG_FILE_NAMES_H_
#define MORVOCAT_PLATFORM_LOG_FILE_NAMES_H_

// The only encoder and decoder of log file names. For a base path B:
//   set files       B.Innn.YYYYMMDD-HHMMSS.gz  a three-digit index (000 to
//                   999, wrapping) and the local time the file was opened;
//   numbered files  B, B.1, B.2 ...            the plain rotations (the
//                   reader pads n with zeros to the digits of its count);
//   archives        B-0.tar.gz, B-1.tar.gz ... rotated files packed, 0 newest;
//   work folder     B_tmp                      while rotated files are packed.
// It lives in platform/ because the memory-mapped writer (platform/tavo.cc)
// reads set names too, and platform/ links no other library of the tree.
//
// Encoders give an empty string when the name would not fit a path
// (PATH_MAX bytes with its NUL): no call could open it. The Parse functions
// accept exactly what the encoders make and refuse anything else; the
// Field and Entry readers are the lax readers the set owners have always
// used (their comments say how lax), kept apart so that no caller mistakes
// one for the other.

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace platform {

// A set name is the base path followed by this many bytes; the offsets are
// counted from the end of the base path.
constexpr uint32_t kSetNameTail = 24;
constexpr uint32_t kSetIndexOffset = 2;
constexpr uint32_t kSetIndexWidth = 3;
constexpr uint32_t kSetStampOffset = 6;
constexpr uint32_t kSetStampWidth = 15;
// Index values 0 to kSetIndexCount - 1.
constexpr uint32_t kSetIndexCount = 1000;
// The stamp made when the local time cannot be read (day 0 of 1900).
constexpr char kUnknownStamp[] = "19000100-000000";

struct StampFields {
  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
};

// The local time now as YYYYMMDD-HHMMSS (kUnknownStamp when the time cannot
// be converted); empty when it cannot be formatted.
std::string LocalStamp();
// Exactly 15 bytes YYYYMMDD-HHMMSS of a plausible time (month 1 to 12,
// day 1 to 31, hour below 24, minute below 60, second up to a leap 60), or
// kUnknownStamp.
bool ParseStamp(const char* text, size_t length, StampFields* fields);

// base + ".I" + index in three or more digits + "." + stamp + ".gz", the
// stamp as given.
std::string SetFileName(const std::string& base, uint32_t index, const std::string& stamp);
// name is a non-empty base, ".I", three digits, ".", a stamp ParseStamp
// accepts and ".gz", and nothing else. Any output may be null.
bool ParseSetFileName(const std::string& name, size_t* baseLength, uint32_t* index,
                      std::string* stamp);

// base itself for n 0, else base + "." + n with at least width digits.
std::string NumberedName(const std::string& base, uint64_t n, int width = 0);
// base + "." + n for n from 0: the old plain scheme's names include B.0.
std::string OldStyleNumberedName(const std::string& base, uint64_t n);
// name is a non-empty base, "." and one to nine digits (zeros in front
// allowed, "B.01" is B.1).
bool ParseNumberedName(const std::string& name, size_t* baseLength, uint64_t* n);

// base + "-" + n + ".tar.gz".
std::string ArchiveName(const std::string& base, uint64_t n);
// name is a non-empty base, "-", one to nine digits and ".tar.gz".
bool ParseArchiveName(const std::string& name, size_t* baseLength, uint64_t* n);

// Where the rotated files of path are packed: path + "_tmp".
std::string WorkFolderName(const std::string& path);

// path is B.n or B-n.tar.gz for the base path B and n a single digit from
// 0 to count - 1.
bool IsOldStyleName(const std::string& path, const std::string& base, int count);

// count bytes of name from start, when name is total bytes long and
// start + count - 1 (in 32 bits) is at most total; empty otherwise. The
// bytes are not examined.
std::string NameField(const std::string& name, uint32_t total, uint32_t start, uint32_t count);
// The index and stamp fields of a name of a set name's length for base;
// empty for an empty base or another length.
std::string SetIndexField(const std::string& name, const std::string& base);
std::string SetStampField(const std::string& name, const std::string& base);
// The index field read the way atoi reads it: 0 for no digits, negative
// after a "-".
int SetIndexValue(const std::string& name, const std::string& base);
// The index after three ASCII digits (999 is followed by 0); 0 for any
// other text.
uint32_t IndexAfter(const std::string& text);

// A folder entry's own name read against the base name: a set entry is
// base + ".I" with ".gz" somewhere after it (any length, so that the owners
// purge the odd ones); an archive entry is what ParseArchiveName accepts
// for this base.
bool IsSetEntryName(const char* name, const std::string& baseName);
bool IsArchiveEntryName(const char* name, const std::string& baseName);

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_LOG_FILE_NAMES_H_
