#ifndef MORVOCAT_PLATFORM_TAVO_HOOK_H_
#define MORVOCAT_PLATFORM_TAVO_HOOK_H_

// A seam for tests: Tavo calls the hook inside every flush at the two points
// where dying is most costly, so a test can kill a writer exactly there.

namespace platform {

enum class TavoFlushStage {
  kAppended,   // the gzip member is in the output, the cache not yet told
  kCommitted,  // the cache knows, its data area is not yet emptied
};

using TavoFlushHook = void (*)(TavoFlushStage stage);

// Null removes the hook. Not for production code.
void SetTavoFlushHook(TavoFlushHook hook);

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_TAVO_HOOK_H_
