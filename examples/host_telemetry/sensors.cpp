#include "sensors.h"

#include <array>
#include <fstream>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

namespace telemetry {
namespace {

namespace fs = std::filesystem;

// Far above what the kernel writes into any of these files.
constexpr std::size_t kMostBytes = 4 << 20;

/// Empty when the file is not there, is larger than any of ours, or cannot be read to its end.
std::string contentOf(const fs::path& path) {
  std::error_code error;
  // A pipe would block the reader.
  if (!fs::is_regular_file(path, error)) return {};
  std::ifstream file(path, std::ios::binary);
  std::string content;
  std::array<char, 4096> chunk{};
  // read() reports a device that fails half-way (some temperature sensors do) by a flag; iterators would throw.
  while (file.read(chunk.data(), chunk.size()) || file.gcount() > 0) {
    content.append(chunk.data(), static_cast<std::size_t>(file.gcount()));
    if (content.size() > kMostBytes) return {};
  }
  return file.bad() ? std::string{} : content;
}

}  // namespace

Sensors::Sensors(fs::path proc, fs::path sys) : proc_(std::move(proc)), sys_(std::move(sys)) {}

std::vector<Reading> Sensors::sample(Clock::time_point now) {
  std::vector<Reading> readings;
  addProcessorLoads(readings);
  addMemory(readings);
  addTemperatures(readings);
  addTraffic(readings, now);
  addSystem(readings);
  return readings;
}

void Sensors::addProcessorLoads(std::vector<Reading>& readings) {
  for (const auto& [name, load] : loads_.advance(parseProcessorTimes(contentOf(proc_ / "stat")))) {
    readings.push_back({name, load, "ratio"});
  }
}

void Sensors::addMemory(std::vector<Reading>& readings) const {
  const auto [total, available] = parseMemory(contentOf(proc_ / "meminfo"));
  if (total) readings.push_back({"Memory/Total", static_cast<double>(*total), "bytes"});
  if (available) readings.push_back({"Memory/Available", static_cast<double>(*available), "bytes"});
  if (!total || !available || *total == 0 || *available > *total) return;
  readings.push_back({"Memory/Used", static_cast<double>(*total - *available) / static_cast<double>(*total), "ratio"});
}

void Sensors::addTemperatures(std::vector<Reading>& readings) const {
  constexpr std::string_view kZone = "thermal_zone";
  std::error_code error;
  fs::directory_iterator zone(sys_ / "class" / "thermal", error);
  for (; !error && zone != fs::directory_iterator{}; zone.increment(error)) {
    const auto folder = zone->path().filename().string();
    if (!folder.starts_with(kZone)) continue;
    const auto temperature = parseTemperature(contentOf(zone->path() / "temp"));
    if (!temperature) continue;
    // Types repeat on some machines; the number of the zone tells them apart.
    const auto type = parseLabel(contentOf(zone->path() / "type"));
    auto name = "Temperature/Zone" + folder.substr(kZone.size());
    if (!type.empty()) name += "/" + type;
    readings.push_back({std::move(name), *temperature, "°C"});
  }
}

void Sensors::addTraffic(std::vector<Reading>& readings, Clock::time_point now) {
  for (const auto& [name, rate] : networkRates_.advance(parseNetwork(contentOf(proc_ / "net" / "dev")), now)) {
    readings.push_back({name, rate, "bytes/s"});
  }
  for (const auto& [name, rate] : diskRates_.advance(parseDisks(contentOf(proc_ / "diskstats")), now)) {
    readings.push_back({name, rate, "bytes/s"});
  }
}

void Sensors::addSystem(std::vector<Reading>& readings) const {
  const auto uptime = parseNumbers(contentOf(proc_ / "uptime"), 1);
  if (!uptime.empty()) readings.push_back({"Uptime", uptime[0], "s"});

  constexpr std::array kLoadNames = {"LoadAverage/1min", "LoadAverage/5min", "LoadAverage/15min"};
  const auto averages = parseNumbers(contentOf(proc_ / "loadavg"), kLoadNames.size());
  for (std::size_t i = 0; i < averages.size(); ++i) readings.push_back({kLoadNames[i], averages[i], ""});
}

}  // namespace telemetry
