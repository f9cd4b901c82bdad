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
  std::shared_ptr<fleet::Connection> control;
  std::shared_ptr<fleet::Connection> bulk;
  std::atomic<bool> isNudged{true};
  std::atomic<bool> isTaken{false};  // Another robot has our name.
  std::string holder;                // Of the name; written before `isTaken`.
  std::chrono::steady_clock::time_point nextStatus{};
  std::chrono::steady_clock::time_point nextStored{};
  std::chrono::steady_clock::time_point nextDesired{};
};

}  // namespace HX
