#pragma once

#include <hxjournal/change.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace HX::journal {

/// Lets each key be told of once in a period. What comes sooner only marks its key; at the end of the period the key's
/// state is told, with the count of the changes that were left out. A key that was quiet for a period is forgotten.
///
/// @par Threads  As the standard containers.
class Rates {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// @param perSecond  Above 0.
  explicit Rates(double perSecond);

  /// Whether a change, or a state that a snapshot shows, is to be told now. Fills in how many were left out before it.
  bool admits(Change& change, Time now);
  /// The marked keys whose period has ended, up to `most` of them. They stay due until `settle`.
  std::vector<std::string> due(Time now, std::size_t most);
  /// Begins another period for the first `count` due keys: their states have been told, or they are gone.
  void settle(std::size_t count, Time now);
  /// Whether the state of a due key is to be told; fills in how many changes were left out.
  bool admitsState(Change& state);
  /// Up to where everything is told, of what was read up to `revision`: who comes back later knows of no marks.
  std::uint64_t toldUpTo(std::uint64_t revision) const noexcept;
  /// When the next key is due.
  std::optional<Time> next() const;

 private:
  struct Key {
    Time due;
    std::uint64_t revision = 0;  // Told last,
    std::uint32_t nth = 0;       // with this number.
    std::uint64_t marked = 0;    // Revision of the first change that was kept back since; 0: none was.
  };
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>()(text); }
  };
  using Keys = std::unordered_map<std::string, Key, Hash, std::equal_to<>>;

  void dropQuiet(Time now);

  std::chrono::nanoseconds period_;
  Keys keys_;
  std::list<std::string> order_;  // Of their ends of period, for all periods are equally long.
};

}  // namespace HX::journal
