#include "publisher.h"

#include <algorithm>
#include <array>
#include <exception>
#include <utility>

#include <fmt/format.h>

namespace telemetry {
namespace {

using HX::HXValue;

constexpr std::string_view kDataPrefix = "Host/";

constexpr auto kSubjects = std::to_array<std::pair<std::string_view, std::string_view>>({
    {"Processor/", "Share of the processor's time that was spent busy since the sample before"},
    {"Memory/Used", "Share of the main memory that is in use"},
    {"Memory/", "Main memory"},
    {"Temperature/", "Temperature"},
    {"Network/", "Traffic of a network interface"},
    {"Disk/", "Traffic of a disk"},
    {"Uptime", "Time since the machine was started"},
    {"LoadAverage/", "Processes that ran or waited to run, on average"},
});

std::string dataKey(const Reading& reading) { return fmt::format("{}{}", kDataPrefix, reading.name); }

std::string eventName(const Reading& reading) { return fmt::format("{}{}", Publisher::kEventPrefix, reading.name); }

/// Whether somebody may want to be told of each sample. The others hardly change, or change as the clock does.
bool isEvent(const Reading& reading) {
  const std::string_view unit = reading.unit;
  return unit == "ratio" || unit == "bytes/s" || unit == "°C";
}

std::string description(const Reading& reading) {
  const auto subject =
      std::ranges::find_if(kSubjects, [&](const auto& one) { return reading.name.starts_with(one.first); });
  const std::string_view text = subject == kSubjects.end() ? "Measured on this machine" : subject->second;
  const std::string_view unit = reading.unit;
  if (unit.empty()) return std::string(text);
  return fmt::format("{}, {}", text, unit == "ratio" ? "0 to 1" : unit);
}

}  // namespace

Publisher::Publisher(HX::HXMemoryProxy memory, HX::Subscribers& subscribers)
    : memory_(std::move(memory)), subscribers_(subscribers) {}

void Publisher::publish(const std::vector<Reading>& readings) {
  HXValue data = HXValue::list();
  for (const Reading& reading : readings) data.arrayPush(HXValue::list({dataKey(reading), reading.value}));
  memory_.insertListData(data);
  for (const Reading& reading : readings) introduce(reading);
  raise(readings);
}

void Publisher::introduce(const Reading& reading) {
  if (introduced_.contains(reading.name)) return;
  memory_.setDescription(dataKey(reading), description(reading));
  if (isEvent(reading)) {
    const std::string event = eventName(reading);
    subscribers_.declare(event);
    memory_.setDescription(event, description(reading));
  }
  introduced_.insert(reading.name);
}

void Publisher::raise(const std::vector<Reading>& readings) {
  std::exception_ptr failure;
  for (const Reading& reading : readings) {
    const std::string event = eventName(reading);
    if (!isEvent(reading) || !subscribers_.want(event)) continue;
    try {
      memory_.raiseEvent(event, reading.value);
    } catch (...) {
      if (!failure) failure = std::current_exception();
    }
  }
  if (failure) std::rethrow_exception(failure);
}

}  // namespace telemetry
