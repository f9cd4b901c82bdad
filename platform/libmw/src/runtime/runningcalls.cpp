#include "runningcalls.h"

#include <hxerror/mutex.h>

#include <algorithm>
#include <set>

namespace mw::detail {
namespace {

/// Never destroyed: threads may end with the last statics of the process.
struct All {
  HX::Mutex mutex;  // Inner to all.
  std::vector<const RunningCalls*> threads HX_GUARDED_BY(mutex);

  static All& instance() {
    static auto* const the = new All;
    return *the;
  }
};

}  // namespace

RunningCalls::RunningCalls() {
  auto& all = All::instance();
  const HX::MutexLock lock(all.mutex);
  all.threads.push_back(this);
}

RunningCalls::~RunningCalls() {
  auto& all = All::instance();
  const HX::MutexLock lock(all.mutex);
  std::erase(all.threads, this);
}

std::vector<unsigned> RunningCalls::of(const void* object) {
  std::set<unsigned> members;
  auto& all = All::instance();
  const HX::MutexLock lock(all.mutex);
  for (const RunningCalls* thread : all.threads) {
    const std::size_t depth = std::min(thread->depth_.load(std::memory_order_acquire), kDepth);
    for (std::size_t i = 0; i < depth; ++i) {
      const Call& call = thread->calls_[i];
      if (call.object.load(std::memory_order_relaxed) == object) members.insert(call.member);
    }
  }
  return {members.begin(), members.end()};
}

}  // namespace mw::detail
