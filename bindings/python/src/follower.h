#pragma once

#include "interpreter.h"

#include <hxcommon/feed.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korvo::python {

/// What a program wants to follow.
struct Wanted {
  std::vector<std::string> patterns;           ///< Keys, prefixes, globs; none: everything.
  double rate = 0;                             ///< At most so many changes of a key a second; 0: every one.
  bool snapshot = false;                       ///< Begin with the states of all keys.
  std::optional<HX::journal::Position> since;  ///< Go on after this place.
  std::size_t capacity = 0;                    ///< So many changes wait for the program; then the oldest go.
};

/// Changes of the memory for a program that takes them when it likes. They come by the journal, without the GIL; after
/// a lost connection it goes on where it was.
class Follower {
 public:
  /// Without the GIL.
  Follower(const std::shared_ptr<HX::HXBroker>& broker, const Wanted& wanted);
  Follower(const Follower&) = delete;
  Follower& operator=(const Follower&) = delete;
  ~Follower();

  /// Waits for how things stand, by which later changes are told from what was there before.
  /// @param longest  How long.
  /// @return Whether that is over.
  bool waitForBeginning(std::chrono::milliseconds longest);
  /// Waits until there are changes, and takes them.
  /// @param limit  Seconds; none for no limit.
  /// @return A list of changes; empty when the time is over; None when it has ended.
  py::object take(std::optional<double> limit);
  /// Readable while there are changes, or it has ended; for event loops.
  int file() const;
  /// Wakes whoever waits.
  void end();
  /// What does that when the robot is closed.
  std::shared_ptr<Endable> ending() const;

 private:
  class Queue;
  const std::shared_ptr<Queue> queue_;
  HX::journal::Follow follow_;
};

}  // namespace korvo::python
