#pragma once

#include <hxjournal/change.h>

#include <cstdint>
#include <optional>
#include <string>

namespace korvo {

/// How `korvo watch` prints what happens, a line each: for people, or as objects of JSON.
///
///     2026-03-29T12:00:00.000250+02:00  stored    Arm/Speed  0.5  by process 4711, korvo set
///     -- gap: 12 changes were missed; what they left follows
class WatchLines {
 public:
  /// @param asObjects  JSON instead of text.
  explicit WatchLines(bool asObjects) : asObjects_(asObjects) {}

  std::string of(const HX::journal::Change& change) const;
  std::string of(const HX::journal::Gap& gap) const;

 private:
  const bool asObjects_;
};

/// "EPOCH:REVISION", to go on from.
std::string formatPosition(HX::journal::Position position);
/// The inverse. @return None for another text.
std::optional<HX::journal::Position> toPosition(const std::string& text);

}  // namespace korvo
