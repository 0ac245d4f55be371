#include "platform/thread_cancel.h"

namespace platform {
namespace {

thread_local const std::atomic<bool>* tWatched = nullptr;

}  // namespace

void WatchCancelFlag(const std::atomic<bool>* flag) { tWatched = flag; }

bool CancelRequested() { return tWatched != nullptr && tWatched->load(std::memory_order_acquire); }

}  // namespace platform
