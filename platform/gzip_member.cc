#include "platform/gzip_member.h"

#include <sys/mman.h>
#include <zlib.h>

#include "platform/write_fully.h"

namespace platform {

namespace {

constexpr size_t kOutChunk = 128 << 10;
// Room for deflate's allocations; pages it never touches cost nothing.
constexpr size_t kStateRoom = 1 << 20;
constexpr size_t kAlign = 16;

// deflate's allocations are carved one after another out of one mapping
// that is released as a whole when the member is done.
struct Workspace {
  unsigned char* base;
  size_t size;
  size_t used;
};

voidpf Carve(voidpf opaque, uInt items, uInt size) {
  auto* ws = static_cast<Workspace*>(opaque);
  size_t want = (static_cast<size_t>(items) * size + kAlign - 1) & ~(kAlign - 1);
  if (want > ws->size - ws->used) return Z_NULL;
  unsigned char* block = ws->base + ws->used;
  ws->used += want;
  return block;
}

void ReleaseNothing(voidpf, voidpf) {}

bool Deflate(z_stream* zs, int fd, unsigned char* out) {
  int rc = Z_OK;
  while (rc != Z_STREAM_END) {
    zs->next_out = out;
    zs->avail_out = kOutChunk;
    rc = deflate(zs, Z_FINISH);
    if (rc != Z_OK && rc != Z_STREAM_END && rc != Z_BUF_ERROR) return false;
    size_t produced = kOutChunk - zs->avail_out;
    if (WriteFully(fd, out, produced) != produced) return false;
  }
  return true;
}

}  // namespace

bool AppendGzipMember(int fd, const unsigned char* data, size_t length, int level) {
  size_t mapped = kOutChunk + kStateRoom;
  void* base = mmap(nullptr, mapped, PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (base == MAP_FAILED) return false;
  unsigned char* out = static_cast<unsigned char*>(base);
  Workspace ws{out + kOutChunk, kStateRoom, 0};
  z_stream zs = {};
  zs.zalloc = Carve;
  zs.zfree = ReleaseNothing;
  zs.opaque = &ws;
  // Window bits 15 + 16: a gzip header and trailer around the member.
  bool ok = deflateInit2(&zs, level, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) == Z_OK;
  if (ok) {
    zs.next_in = const_cast<unsigned char*>(data);
    zs.avail_in = static_cast<uInt>(length);
    ok = Deflate(&zs, fd, out);
    deflateEnd(&zs);
  }
  munmap(base, mapped);
  return ok;
}

}  // namespace platform
