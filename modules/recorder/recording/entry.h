#pragma once

#include <hxjournal/change.h>
#include <hxvalue/hxvalue.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace HX::recording {

using journal::TimePoint;
using journal::What;

/// The event whose raises mark moments: `korvo note`.
inline constexpr std::string_view kNoteKey = "HXRecorder/Note";

// Channels with names of our own; a key of such a name gets a channel all the same.
inline constexpr std::string_view kLogTopic = "korvo/log";          ///< For people, as viewers show a log.
inline constexpr std::string_view kChangesTopic = "korvo/changes";  ///< The same for programs.
inline constexpr std::string_view kMoreTopic = "korvo/more";        ///< Keys beyond those that can have a channel.

/// What a key is kept as, by the memory's numbers.
inline constexpr std::uint8_t kData = 1;
inline constexpr std::uint8_t kEvent = 3;
inline constexpr std::uint8_t kMicroEvent = 4;

/// One thing that a recording tells.
struct Entry {
  enum class Kind : std::uint8_t {
    State,   ///< What a key held when the file, or what follows a gap, began.
    Change,  ///< `what` happened to a key.
    Gap,     ///< Changes were missed; states follow.
  };
  Kind kind = Kind::Change;
  What what = What::Stored;
  std::string key;
  HXValue value;               ///< Of a description its text; invalid for a removal and a gap.
  TimePoint time{};            ///< When it happened; of a state, when the value was written.
  TimePoint logged{};          ///< Where it stands in time; of a state, when that was taken.
  std::uint64_t revision = 0;  ///< 0 for a state.
  std::uint64_t missed = 0;    ///< Of a gap: changes; 0 where they cannot be counted.
  std::string author;          ///< Empty where it is not known, or the broker's process itself.
  bool isWithheld = false;     ///< The value was too large for the recorder to be told.
};

inline std::uint64_t nanoseconds(TimePoint time) {
  return static_cast<std::uint64_t>(std::max<std::int64_t>(0, time.time_since_epoch().count()));
}
inline TimePoint timePoint(std::uint64_t nanoseconds) {
  return TimePoint(std::chrono::nanoseconds(static_cast<std::int64_t>(nanoseconds)));
}

}  // namespace HX::recording
