#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace HX::fleet {

/// Subjects beyond this are not used: servers and stores keep one for each key.
constexpr std::size_t kLongestSubject = 400;

/// Whether a robot or a fleet can be called that: 1 to 64 letters, digits, `_` and `-`.
bool isName(std::string_view name) noexcept;

/// A key of the memory as a subject, and as a key of a bucket: `/` becomes `.`, letters, digits, `_` and `-` stay, any
/// other byte is `=HH`, an empty part is `=`. "Left arm/ä" is "Left=20arm.=C3=A4".
std::string toSubject(std::string_view key);
/// The inverse.
/// @param subject  As `toSubject` gives it.
/// @throws std::runtime_error for what `toSubject` never gives.
std::string toKey(std::string_view subject);
/// The same for a name that is to be one part, whatever is in it: of a service, of a method.
std::string toToken(std::string_view name);

/// The subjects, buckets and streams of one fleet.
class FleetSubjects {
 public:
  /// @param fleet   As `isName` allows.
  /// @param domain  Of the hub's store, which its interface is asked under.
  explicit FleetSubjects(std::string fleet, std::string domain = "hub");

  const std::string& fleet() const { return fleet_; }
  std::string valueBucket() const { return fleet_; }
  std::string statusBucket() const { return fleet_ + "_status"; }
  std::string desiredBucket() const { return fleet_ + "_desired"; }
  /// Where kept events are stored: "FLEET_EVENTS".
  std::string eventStream() const;

  /// What is sent for a robot, or, with "*", for all of them: "fleet.robot7.status".
  std::string of(std::string_view robot, std::string_view what) const;
  /// @param tail  As `toSubject` gives it, or a pattern.
  std::string event(std::string_view robot, std::string_view tail) const { return of(robot, "event.") += tail; }
  /// Where a key of a bucket is written, through the interface of the hub's store.
  std::string put(std::string_view bucket, std::string_view key) const;
  /// Where a stored key is seen by those who listen.
  static std::string stored(std::string_view bucket, std::string_view key);
  /// "$JS.hub.API.STREAM.INFO.KV_fleet" for "STREAM.INFO.KV_fleet".
  std::string interface(std::string_view request) const;
  /// Where the last message of a key of a bucket is asked for.
  std::string lastOf(std::string_view bucket, std::string_view key) const;

 private:
  std::string fleet_;
  std::string domain_;
};

}  // namespace HX::fleet
