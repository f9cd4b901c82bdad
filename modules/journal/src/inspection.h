#pragma once

// How the answers of the inspector are written as values: what its sources share.

#include <hxcommon/memoryinsight.h>
#include <hxvalue/hxvalue.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace HX::inspection {

/// In place of what only the journal knows.
inline constexpr const char* kUnknown = "unknown: the journal does not record (korvo run --journal keep)";

/// A subscriber that takes longer keeps its raisers from their work.
inline constexpr std::chrono::milliseconds kSlow{100};

/// In microseconds since 1970.
inline HXValue timeOf(MemoryInsight::TimePoint time) {
  return std::int64_t{std::chrono::floor<std::chrono::microseconds>(time.time_since_epoch()).count()};
}
inline HXValue secondsOf(std::chrono::nanoseconds duration) { return std::chrono::duration<double>(duration).count(); }
inline HXValue countOf(std::uint64_t number) { return static_cast<std::int64_t>(number); }

/// A subscriber of a key, as a map.
HXValue toValue(const MemoryInsight::Subscriber& subscriber);
HXValue toValue(const MemoryInsight::Wait& wait);

/// "1 time", "3 times".
std::string times(std::uint64_t count);
/// "1.5 s", "5 min", "2.0 h".
std::string span(std::chrono::nanoseconds duration);

}  // namespace HX::inspection
