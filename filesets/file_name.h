#ifndef MORVOCAT_FILESETS_FILE_NAME_H_
#define MORVOCAT_FILESETS_FILE_NAME_H_

// The names of a rotating file set. For a base path B a set file is
// B.Innn.YYYYMMDD-HHMMSS.gz: a three-digit index (000 to 999, wrapping) and
// the local time the file was opened. The plain rotation schemes used other
// names (B.n and B-n.tar.gz), which the set recognises and removes.

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace filesets {

// A set name is the base path followed by this many bytes.
constexpr uint32_t kNameTail = 24;
// Offsets from the end of the base path, and field widths.
constexpr uint32_t kIndexOffset = 2;
constexpr uint32_t kIndexWidth = 3;
constexpr uint32_t kStampOffset = 6;
constexpr uint32_t kStampWidth = 15;
// One file per index value at most.
constexpr uint64_t kIndexCount = 1000;
// The answer of the next-index choice that means: go on in the newest file.
constexpr uint32_t kContinueNewest = 0xFFFFFFFF;
// B.0 to B.4 and B-0.tar.gz to B-4.tar.gz are the recognised old names.
constexpr int kOldStyleCount = 5;

// Byte-wise order; a proper prefix sorts first.
bool ByteOrderBefore(const std::string& a, const std::string& b);

// The index after the three ASCII digits of text (999 is followed by 0);
// 0 for any other text.
uint32_t IndexAfter(const std::string& text);

// The local time now as YYYYMMDD-HHMMSS; empty when it cannot be formatted.
std::string LocalTimeStamp();

// Writes ".Innn." for index into out; false when it does not fit.
bool FormatIndexTag(uint32_t index, char* out, size_t size);

// base + "." + n, and base + "-" + n + ".tar.gz".
std::string NumberedName(const std::string& base, int n);
std::string ArchiveName(const std::string& base, int n);

// The part of path after its last "/" (all of it when there is none), for
// calls relative to the folder's descriptor.
const char* NameInFolder(const std::string& path);

// path is B.n or B-n.tar.gz for a base path B and n from 0 to 4.
bool IsOldStyleName(const std::string& path, const std::string& base);

// A folder entry's own name (never its folder) read against the base name
// B: B.I... holding ".gz" is a set file's name (right length or not), and
// B-n.tar.gz for any decimal n an archive of the plain schemes. Other
// groups' files in the same folder match neither.
bool IsSetEntryName(const char* name, const std::string& baseName);
bool IsArchiveEntryName(const char* name, const std::string& baseName);

}  // namespace filesets

#endif  // MORVOCAT_FILESETS_FILE_NAME_H_
