#pragma once

#include "connection.h"
#include "hxfleet.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

namespace HX {

/// The life of a connection, or rather of the two of it.
struct HXFleet::Session {
  /// What the library's threads tell. They do not hold the connections, which must not end on them.
  struct Heard {
    std::atomic<bool> isNudged{true};
    std::atomic<bool> isTaken{false};   // Another robot has our name.
    std::string holder;                 // Of the name; written before `isTaken`.
    std::atomic<bool> isBarred{false};  // A subscription was taken from us, which only a new connection can have again.
  };

  const std::shared_ptr<Heard> heard = std::make_shared<Heard>();
  std::shared_ptr<fleet::Connection> control;
  std::shared_ptr<fleet::Connection> bulk;
  bool isReturn = false;  // It is not the first.
  std::chrono::steady_clock::time_point nextStatus{};
  std::chrono::steady_clock::time_point nextStored{};
  std::chrono::steady_clock::time_point nextWhole{};
  std::chrono::steady_clock::time_point nextDesired{};
};

}  // namespace HX
