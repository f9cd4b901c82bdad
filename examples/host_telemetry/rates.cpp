#include "rates.h"

#include <utility>

namespace telemetry {

std::map<std::string, double> Rates::advance(Counters counters, Clock::time_point now) {
  std::map<std::string, double> rates;
  const double seconds = std::chrono::duration<double>(now - previousTime_).count();
  if (seconds > 0) {
    for (const auto& [name, count] : counters) {
      const auto before = previous_.find(name);
      if (before == previous_.end() || count < before->second) continue;
      rates[name] = static_cast<double>(count - before->second) / seconds;
    }
  }
  previous_ = std::move(counters);
  previousTime_ = now;
  return rates;
}

std::map<std::string, double> Loads::advance(ProcessorTimes times) {
  std::map<std::string, double> loads;
  for (const auto& [name, time] : times) {
    const auto before = previous_.find(name);
    if (before == previous_.end()) continue;
    if (time.busy < before->second.busy || time.idle < before->second.idle) continue;
    const auto busy = static_cast<double>(time.busy - before->second.busy);
    const auto idle = static_cast<double>(time.idle - before->second.idle);
    if (busy + idle > 0) loads[name] = busy / (busy + idle);
  }
  previous_ = std::move(times);
  return loads;
}

}  // namespace telemetry
