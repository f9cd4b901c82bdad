#pragma once

#include <hxvalue/hxvalue.h>

#include <chrono>
#include <cstdint>
#include <string_view>

namespace HX::journal {

/// Wall-clock time in nanoseconds since the epoch.
using TimePoint = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;

/// What happened to a key. The numbers are part of the interface between processes.
enum class What : std::uint8_t {
  Stored = 0,       ///< Written as data.
  Raised = 1,       ///< Raised as an event.
  RaisedMicro = 2,  ///< Raised as a micro-event.
  Declared = 3,     ///< Made without being written (by a subscription, for its address), or declared as an event.
  Described = 4,    ///< Given a description: the value of the change is the text.
  Removed = 5,
};
constexpr std::uint8_t kWhats = 6;

/// A place in the feed. Revisions rise with every change; they mean something under their epoch only, which is another
/// one each time the memory is made.
struct Position {
  std::uint64_t epoch = 0;
  std::uint64_t revision = 0;

  friend bool operator==(const Position&, const Position&) = default;
};

/// One change of one key, or, in a snapshot, the state of one key.
struct Change {
  std::string_view key;       ///< Good during the callback.
  HXValue value;              ///< Invalid for a removal.
  TimePoint time{};           ///< The item's own.
  Position at;                ///< Of a state: of the last change of its key; revision 0 when that was not recorded.
  std::uint32_t nth = 0;      ///< The how-manieth change of this key since it was made; begins anew past 2^32.
  std::uint32_t leftOut = 0;  ///< Changes of this key that a rate has left out since the one told before.
  What what = What::Stored;   ///< Stored for a state.
  std::uint8_t kind = 0;      ///< What the key is kept as, by the memory's numbers.
  bool isState = false;       ///< Told by a snapshot, or at the end of a period of a rate.
  bool changedKind = false;   ///< The key was kept as another kind before.
  bool byAddress = false;     ///< The value may be changed through its address, of which no change tells.
  bool withheld = false;      ///< The value is too large for a message to another process, and invalid here.
  std::string_view
      author;  ///< Who changed it; empty for the process itself, and for a state. Good during the callback.
};

/// What a follower missed: it fell behind, came back too late, or knows another epoch. A snapshot follows.
struct Gap {
  Position from;  ///< The last place told before.
  Position to;    ///< Whatever comes after it is told as usual.
  /// Every key is told anew. Otherwise those that did not change since `from` are only named as unchanged, and the
  /// counts of changes (`Change::nth`) go on; in a full snapshot keys may have been removed and made again.
  bool full = true;
};

}  // namespace HX::journal
