#ifndef MORVOCAT_ARCHIVE_FACTORY_COMPRESS_H_
#define MORVOCAT_ARCHIVE_FACTORY_COMPRESS_H_

// Archives of a factory-mode log P (a path with a '/', base name B): the
// five numbered copies P.1 to P.5 are moved into the work directory
// P + "_tmp" and packed as members B.1 to B.5 into P-0.tar.gz, after the
// older archives P-0 ... have each moved up one number; at most maxFiles
// archives are kept. The members are deleted only once their archive is
// known to be whole, so a failed archive loses no log.

#include <stdint.h>

#include <string>

namespace archive {

// Numbered copies that make one archive.
constexpr int kFactoryArchiveMembers = 5;

// Moves P.1 to P.5 into the work directory and packs them. Members left in
// the work directory by an interrupted or failed run are packed first; while
// they cannot be, the numbered files stay where they are.
void CompressLogsFactory(const std::string& logFilePath, int32_t maxFiles);
// Shifts the archives and packs the members in workDir into P-0.tar.gz.
void CompressRunFactory(const std::string& logFilePath, int32_t maxFiles,
                        const std::string& workDir);

}  // namespace archive

#endif  // MORVOCAT_ARCHIVE_FACTORY_COMPRESS_H_
