#pragma once

#include "model/model.h"

#include <hxerror/mutex.h>
#include <hxjournal/follow.h>
#include <libmw/eventloop.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace HX::web {

/// Every change of some keys, for one viewer that takes them when it has time.
///
/// Which keys is changed at any time; a key that is added is told with its state first. What is not taken in time is
/// dropped from its old end, and counted.
///
/// @par Threads  Any.
class KeyFeed : public std::enable_shared_from_this<KeyFeed> {
 public:
  static constexpr std::size_t kMost = 16'384;  ///< Changes that wait to be taken.

  struct Entry {
    std::string key;
    HXValue value;
    journal::TimePoint time{};
    std::uint64_t revision = 0;
    bool isState = false;
    bool isRemoved = false;
    bool isTooLarge = false;
  };

  /// @param model  Outlives it, as does the loop, on which followers begin and end.
  KeyFeed(std::shared_ptr<Model> model, mw::EventLoop& loop);

  /// Tells of these keys from soon on, and of no others.
  void want(std::set<std::string> keys);
  /// What has come, in the order of its coming.
  /// @param dropped  Is increased by the number of those that were not taken in time.
  std::vector<Entry> take(std::uint64_t& dropped);
  /// Tells nothing any more.
  void end();

 private:
  void renew();
  void renewLater(std::chrono::nanoseconds delay);
  void add(const journal::Change& change);

  const std::shared_ptr<Model> model_;
  mw::EventLoop& loop_;

  Mutex mutex_;  // A leaf.
  std::set<std::string> wanted_ HX_GUARDED_BY(mutex_);
  std::deque<Entry> entries_ HX_GUARDED_BY(mutex_);
  std::uint64_t dropped_ HX_GUARDED_BY(mutex_) = 0;
  std::uint64_t wishes_ HX_GUARDED_BY(mutex_) = 0;    // How often something else was wanted,
  std::uint64_t followed_ HX_GUARDED_BY(mutex_) = 0;  // and which of these wishes is followed.
  bool isRenewing_ HX_GUARDED_BY(mutex_) = false;
  bool isOver_ HX_GUARDED_BY(mutex_) = false;
  journal::Follow follow_ HX_GUARDED_BY(mutex_);
};

}  // namespace HX::web
