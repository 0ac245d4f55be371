#include "tools/view/tar_reader.h"

#include <string.h>

#include <new>

namespace view {

namespace {

constexpr size_t kBlock = 512;
constexpr size_t kNameField = 100;
constexpr size_t kSizeAt = 124;
constexpr size_t kMtimeAt = 136;
constexpr size_t kSumAt = 148;
constexpr size_t kTypeAt = 156;
constexpr size_t kMagicAt = 257;
constexpr size_t kPrefixAt = 345;
constexpr size_t kPrefixField = 155;

// An octal field (blanks and NULs around it), or GNU's base-256 form.
uint64_t Octal(const unsigned char* field, size_t width) {
  uint64_t v = 0;
  if (field[0] & 0x80) {
    for (size_t i = 1; i < width; ++i) v = (v << 8) | field[i];
    return v;
  }
  size_t i = 0;
  while (i < width && field[i] == ' ') ++i;
  for (; i < width && field[i] >= '0' && field[i] <= '7'; ++i) v = v * 8 + (field[i] - '0');
  return v;
}

std::string Text(const unsigned char* field, size_t width) {
  size_t n = 0;
  while (n < width && field[n] != 0) ++n;
  return std::string(reinterpret_cast<const char*>(field), n);
}

}  // namespace

bool ParseTarHeader(const unsigned char block[512], TarHeader* header, bool* end) {
  uint64_t sum = 0;
  bool zero = true;
  for (size_t i = 0; i < kBlock; ++i) {
    zero = zero && block[i] == 0;
    sum += (i >= kSumAt && i < kSumAt + 8) ? ' ' : block[i];
  }
  *end = zero;
  if (zero) return true;
  if (Octal(block + kSumAt, 8) != sum) return false;
  header->name = Text(block, kNameField);
  if (memcmp(block + kMagicAt, "ustar", 5) == 0 && block[kPrefixAt] != 0) {
    header->name = Text(block + kPrefixAt, kPrefixField) + "/" + header->name;
  }
  header->size = Octal(block + kSizeAt, 12);
  header->mtime = static_cast<int64_t>(Octal(block + kMtimeAt, 12));
  header->regular = block[kTypeAt] == 0 || block[kTypeAt] == '0';
  return true;
}

bool TarArchive::Skip(uint64_t bytes) {
  unsigned char scratch[16384];
  while (bytes > 0) {
    size_t want = bytes < sizeof(scratch) ? static_cast<size_t>(bytes) : sizeof(scratch);
    size_t got = stream_->Read(scratch, want);
    bytes -= got;
    if (got < want) return false;
  }
  return true;
}

bool TarArchive::Scan(GzipStream* stream) {
  stream_ = stream;
  unsigned char block[kBlock];
  for (;;) {
    if (stream_->Read(block, kBlock) != kBlock) break;
    TarHeader header;
    bool end = false;
    if (!ParseTarHeader(block, &header, &end)) {
      badHeader_ = true;
      break;
    }
    if (end) break;
    if (header.regular) {
      Member member;
      member.header = header;
      member.start.reset(new (std::nothrow) GzipMark);
      if (member.start == nullptr || !stream_->Save(member.start.get())) return false;
      members_.push_back(std::move(member));
    }
    uint64_t padded = (header.size + kBlock - 1) / kBlock * kBlock;
    if (!Skip(padded)) break;
  }
  scanEnd_ = stream_->end();
  return !members_.empty() || (!badHeader_ && scanEnd_ == StreamEnd::kNone);
}

bool TarArchive::OpenMember(size_t index) {
  if (index >= members_.size() || !stream_->Restore(*members_[index].start)) return false;
  left_ = members_[index].header.size;
  return true;
}

size_t TarArchive::ReadMember(unsigned char* out, size_t size) {
  size_t want = left_ < size ? static_cast<size_t>(left_) : size;
  size_t got = want > 0 ? stream_->Read(out, want) : 0;
  left_ = got < want ? 0 : left_ - got;
  return got;
}

}  // namespace view
