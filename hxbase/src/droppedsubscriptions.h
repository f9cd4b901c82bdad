#pragma once

#include <hxcommon/memoryinsight.h>
#include <hxerror/mutex.h>

#include <deque>
#include <string>
#include <vector>

namespace HX {

/// The latest subscriptions that ended although nobody unsubscribed: of the process, which has one memory.
///
/// @par Threads  Any. The lock is a leaf: who adds holds the item's.
class DroppedSubscriptions {
 public:
  static DroppedSubscriptions& instance();

  /// Does without where there is no memory.
  void add(const std::string& event, const std::string& module, const std::string& why) noexcept;
  /// Oldest first.
  std::vector<MemoryInsight::Dropped> all() const;
  void clear();

 private:
  static constexpr std::size_t kKept = 100;

  mutable Mutex mutex_;
  std::deque<MemoryInsight::Dropped> latest_ HX_GUARDED_BY(mutex_);
};

}  // namespace HX
