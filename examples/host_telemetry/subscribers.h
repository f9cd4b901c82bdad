#pragma once

#include <mutex>
#include <set>
#include <string>
#include <string_view>

namespace telemetry {

/// Who wants which events of an extractor.
///
/// The memory names a subscription by an identifier: the subscriber's name with the event's name behind it. The same
/// identifier counts once however often it comes, because a module that subscribes again replaces its subscription, and
/// one unsubscription ends it.
///
/// @par Threads  Any.
class Subscribers {
 public:
  void add(const std::string& identifier);
  /// Unknown ones are ignored: the memory may know of a subscription that was made before this extractor came.
  void remove(const std::string& identifier);
  /// Forgets a module that left without unsubscribing.
  /// @param eventPrefix  What the names of the extractor's events begin with, by which the two halves of an identifier
  ///                     are told apart.
  void removeModule(const std::string& module, std::string_view eventPrefix);
  void clear();

  /// Whether anybody is subscribed to `event`.
  bool want(std::string_view event) const;

 private:
  mutable std::mutex mutex_;  // Guards `identifiers_`.
  std::set<std::string> identifiers_;
};

}  // namespace telemetry
