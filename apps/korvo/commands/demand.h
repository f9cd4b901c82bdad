#pragma once

#include <hxjournal/filter.h>
#include <libmw/trackable.h>

#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace korvo {

class Asker;
class Target;

/// Has the extractors of the watched events run: an extractor produces its events only while a module is subscribed to
/// them, and a follower is none. So a module of this process subscribes to them, and does nothing with what it is told.
///
/// @par Threads  Any. It asks on the event loop; its end waits for that.
class Demand {
 public:
  /// @param target  Outlives it.
  /// @param filter  Which keys are watched.
  Demand(Target& target, HX::journal::Filter filter);
  Demand(const Demand&) = delete;
  Demand& operator=(const Demand&) = delete;
  ~Demand();

  /// Looks for events that have an extractor and are not asked for yet. Returns at once.
  void look();

 private:
  void ask();
  void subscribe(const std::string& event);

  Target& target_;
  const HX::journal::Filter filter_;
  std::mutex mutex_;  // Guards the two of them. Never held while anything is called.
  bool isLooking_ = false;
  bool looksAgain_ = false;
  std::shared_ptr<Asker> asker_;  // None as long as there is nothing to ask for. These two belong to the task,
  std::set<std::string> events_;  // of which there is one at a time.
  mw::Lifetime lifetime_;
};

}  // namespace korvo
