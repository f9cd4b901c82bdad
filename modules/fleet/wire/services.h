#pragma once

#include "payload.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace HX::fleet {

/// What a robot says of itself, as bare JSON.
struct Status {
  std::string robot;
  std::string run;      ///< Names the start of its memory.
  std::string host;     ///< Of the machine.
  std::string version;  ///< Of the software.
  mw::SystemTimePoint since{};
  std::uint64_t raised = 0;
  std::uint64_t confirmed = 0;
  std::uint64_t queued = 0;  ///< Those in flight among them.
  std::uint64_t dropped = 0;
  std::uint64_t missed = 0;
  std::uint64_t keys = 0;        ///< Mirrored.
  std::uint64_t turnedAway = 0;  ///< Changes of keys that are not, because there are too many.
  std::uint64_t desired = 0;     ///< The number of what it was last told to have; 0 for nothing.
  mw::SystemTimePoint time{};    ///< When it said so.
};
/// @param isWhole  With what stays the same for the whole run, too: host, version, since.
std::string toPayload(const Status& status, bool isWhole = true);
/// One that is not whole has an empty host and version.
/// @throws std::runtime_error saying what is wrong with it.
Status toStatus(std::string_view payload);

/// What clients of the NATS Services protocol are told of a robot.
class ServiceFace {
 public:
  static constexpr std::string_view kName = "korvo";
  struct Endpoint {
    std::string name;
    std::string subject;
  };

  /// @param endpoints  In the order in which they are listed.
  ServiceFace(Status status, std::vector<Endpoint> endpoints);

  /// What of a subject behind "$SRV." is answered with: "PING", "INFO.korvo", "STATS.korvo.robot7". Empty: nothing.
  std::string answer(std::string_view asked) const;
  /// Counts a request that was answered.
  /// @param endpoint  By its name.
  /// @param failure   Empty when it succeeded.
  void count(std::string_view endpoint, std::chrono::nanoseconds took, const std::string& failure);

 private:
  struct Statistics {
    std::uint64_t requests = 0;
    std::uint64_t errors = 0;
    std::string lastError;
    std::chrono::nanoseconds took{};
  };
  HXValue::Map head(std::string_view type) const;
  HXValue listed(bool withStatistics) const;

  const Status status_;
  const std::vector<Endpoint> endpoints_;
  std::map<std::string, Statistics, std::less<>> statistics_;
};

}  // namespace HX::fleet
