#pragma once

#include <hxvalue/hxvalue.h>
#include <libmw/clock.h>

#include <chrono>
#include <utility>

namespace HX {

/// [value, seconds, microseconds]: how callers are told when something happened. Both numbers are 32-bit ints.
inline HXValue withTime(HXValue value, mw::SystemTimePoint time) {
  using std::chrono::duration_cast;
  const auto sinceEpoch = time.time_since_epoch();
  const auto seconds = duration_cast<std::chrono::seconds>(sinceEpoch);
  const auto microseconds = duration_cast<std::chrono::microseconds>(sinceEpoch - seconds);
  return HXValue::list({std::move(value), static_cast<int>(seconds.count()), static_cast<int>(microseconds.count())});
}

}  // namespace HX
