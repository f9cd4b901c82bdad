#pragma once

#include "procfs.h"

#include <chrono>
#include <map>
#include <string>

namespace telemetry {

/// Turns counters into increases per second. A name gives a rate in a round only when it was counted in the round
/// before as well and did not go back since.
class Rates {
 public:
  using Clock = std::chrono::steady_clock;

  std::map<std::string, double> advance(Counters counters, Clock::time_point now);

 private:
  Counters previous_;
  Clock::time_point previousTime_{};
};

/// Turns processor times into the share of time spent busy, 0 to 1, by the same rule.
class Loads {
 public:
  std::map<std::string, double> advance(ProcessorTimes times);

 private:
  ProcessorTimes previous_;
};

}  // namespace telemetry
