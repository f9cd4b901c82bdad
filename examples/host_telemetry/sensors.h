#pragma once

#include "rates.h"

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace telemetry {

/// One measurement. `name` is a path such as "Network/eth0/Received" and stays the same from sample to sample.
/// `unit` is a literal: "ratio" (0 to 1), "bytes", "bytes/s", "°C", "s" or "" for a plain number.
struct Reading {
  std::string name;
  double value;
  const char* unit;
};

/// Reads what the kernel tells of this machine: load, memory, temperatures, network and disk traffic.
///
/// What cannot be read, or does not look as the kernel writes it, gives no reading; nothing here throws for what a
/// file holds. Loads and traffic are differences between two samples, so the first sample has none, and a counter that
/// went back (it wrapped, or its device was replaced) has none for that sample.
///
/// @par Threads  Not safe: one thread at a time.
class Sensors {
 public:
  using Clock = Rates::Clock;

  /// @param proc  Where procfs is mounted.
  /// @param sys   Where sysfs is mounted.
  explicit Sensors(std::filesystem::path proc = "/proc", std::filesystem::path sys = "/sys");

  /// @param now  The time of this sample, later than that of the one before; otherwise traffic has no reading.
  /// @return Each name at most once.
  std::vector<Reading> sample(Clock::time_point now);

 private:
  void addProcessorLoads(std::vector<Reading>& readings);
  void addMemory(std::vector<Reading>& readings) const;
  void addTemperatures(std::vector<Reading>& readings) const;
  void addTraffic(std::vector<Reading>& readings, Clock::time_point now);
  void addSystem(std::vector<Reading>& readings) const;

  std::filesystem::path proc_;
  std::filesystem::path sys_;
  Loads loads_;
  Rates networkRates_;
  Rates diskRates_;
};

}  // namespace telemetry
