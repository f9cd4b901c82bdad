#pragma once

#include <hxerror/api.h>
#include <hxerror/mutex.h>
#include <hxjournal/change.h>
#include <hxjournal/follow.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace HX::journal {

/// A copy of what a follower is told: the keys of its filter with their latest values. Equal to the table at each
/// `complete`, and whenever nothing is written and all is told.
///
/// @par Threads  Any. Its functions may be the callbacks of a follower, or be fed with what came from elsewhere.
class HX_API Replica {
 public:
  struct Item {
    HXValue value;
    TimePoint time{};
    std::uint64_t revision = 0;
    std::uint32_t nth = 0;
    std::uint8_t kind = 0;
    bool byAddress = false;
    bool named = true;  ///< By the snapshot that is under way; otherwise gone when that is complete.
  };
  /// How many changes were told, and how many were left out of those of the keys it held.
  struct Counts {
    std::uint64_t told = 0;
    std::uint64_t leftOut = 0;
    bool atLeast = false;  ///< A full snapshot after a gap was among it: a key may have been removed and made again.
  };

  void change(const Change& change);
  void gap(const Gap& gap);
  void unchanged(std::string_view key, Position at);
  void complete(Position at);

  /// `options` with its callbacks for gaps, completion and unchanged keys set to this replica, which must outlive the
  /// follower. Asked for anew by each follower that goes on for another one.
  FollowOptions following(FollowOptions options = {});
  /// The callback for changes.
  std::function<void(const Change&)> listener();

  std::optional<Item> find(std::string_view key) const;
  std::map<std::string, Item, std::less<>> items() const;
  Counts counts() const;
  /// Empty until the first snapshot is complete.
  std::optional<Position> completeAt() const;

 private:
  mutable Mutex mutex_;
  std::map<std::string, Item, std::less<>> items_ HX_GUARDED_BY(mutex_);
  Counts counts_ HX_GUARDED_BY(mutex_);
  std::optional<Position> completeAt_ HX_GUARDED_BY(mutex_);
};

}  // namespace HX::journal
