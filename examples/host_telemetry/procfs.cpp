#include "procfs.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <system_error>

namespace telemetry {
namespace {

using Words = std::vector<std::string_view>;

constexpr std::string_view kBlanks = " \t\r\n";
// The kernel counts in these whatever the sectors of the disk.
constexpr std::uint64_t kSectorBytes = 512;

std::vector<std::string_view> split(std::string_view text, std::string_view separators) {
  std::vector<std::string_view> parts;
  for (auto begin = text.find_first_not_of(separators); begin != std::string_view::npos;) {
    const auto end = text.find_first_of(separators, begin);
    parts.push_back(text.substr(begin, end == std::string_view::npos ? end : end - begin));
    begin = text.find_first_not_of(separators, end);
  }
  return parts;
}

template <typename Number>
std::optional<Number> number(std::string_view word) {
  Number value{};
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
  if (error != std::errc{} || end != word.data() + word.size()) return std::nullopt;
  return value;
}

/// A count of units that are `scale` large each; empty when the product does not fit.
std::optional<std::uint64_t> scaled(std::string_view word, std::uint64_t scale) {
  const auto count = number<std::uint64_t>(word);
  if (!count || *count > std::numeric_limits<std::uint64_t>::max() / scale) return std::nullopt;
  return *count * scale;
}

bool allDigits(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

/// "cpu" or "cpu<core>", then user nice system idle iowait irq softirq steal …; user time holds the guests' already.
std::optional<ProcessorTime> processorTime(const Words& words) {
  constexpr std::size_t kFields = 8, kIdle = 3, kIoWait = 4;
  if (words.size() <= kFields) return std::nullopt;
  ProcessorTime time{};
  for (std::size_t field = 0; field < kFields; ++field) {
    const auto ticks = number<std::uint64_t>(words[field + 1]);
    if (!ticks) return std::nullopt;
    (field == kIdle || field == kIoWait ? time.idle : time.busy) += *ticks;
  }
  return time;
}

/// Partitions are called after their disk: a number follows, with a "p" between when the disk's name ends in a digit.
bool isPartitionOf(std::string_view name, std::string_view disk) {
  if (name.size() <= disk.size() || !name.starts_with(disk)) return false;
  auto rest = name.substr(disk.size());
  if (allDigits(disk.substr(disk.size() - 1))) {
    if (rest.front() != 'p') return false;
    rest.remove_prefix(1);
  }
  return allDigits(rest);
}

bool isBackedByDevice(std::string_view disk) {
  return std::ranges::none_of(Words{"loop", "ram", "zram"},
                              [&](std::string_view prefix) { return disk.starts_with(prefix); });
}

}  // namespace

ProcessorTimes parseProcessorTimes(std::string_view stat) {
  ProcessorTimes times;
  for (const auto line : split(stat, "\n")) {
    const auto words = split(line, kBlanks);
    if (words.empty() || !words[0].starts_with("cpu")) continue;
    const auto core = words[0].substr(3);
    if (!core.empty() && !allDigits(core)) continue;
    const auto time = processorTime(words);
    if (!time) continue;
    times[core.empty() ? "Processor/Load" : "Processor/Core" + std::string(core) + "/Load"] = *time;
  }
  return times;
}

Memory parseMemory(std::string_view meminfo) {
  Memory memory;
  for (const auto line : split(meminfo, "\n")) {
    const auto words = split(line, kBlanks);
    if (words.size() != 3 || words[2] != "kB") continue;
    if (words[0] == "MemTotal:") memory.total = scaled(words[1], 1024);
    if (words[0] == "MemAvailable:") memory.available = scaled(words[1], 1024);
  }
  return memory;
}

Counters parseNetwork(std::string_view dev) {
  constexpr std::size_t kFields = 16, kReceived = 0, kSent = 8;
  Counters counters;
  for (const auto line : split(dev, "\n")) {
    // A large first number touches the colon.
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    const auto name = parseLabel(line.substr(0, colon));
    const auto words = split(line.substr(colon + 1), kBlanks);
    if (name.empty() || words.size() < kFields) continue;
    const auto received = number<std::uint64_t>(words[kReceived]);
    const auto sent = number<std::uint64_t>(words[kSent]);
    if (!received || !sent) continue;
    counters["Network/" + name + "/Received"] = *received;
    counters["Network/" + name + "/Sent"] = *sent;
  }
  return counters;
}

Counters parseDisks(std::string_view diskstats) {
  constexpr std::size_t kFields = 14, kName = 2, kSectorsRead = 5, kSectorsWritten = 9;
  std::vector<Words> lines;
  for (const auto line : split(diskstats, "\n")) {
    auto words = split(line, kBlanks);
    if (words.size() >= kFields && isBackedByDevice(words[kName])) lines.push_back(std::move(words));
  }

  Counters counters;
  for (const auto& words : lines) {
    const auto isPartition = [&](const Words& disk) { return isPartitionOf(words[kName], disk[kName]); };
    if (std::ranges::any_of(lines, isPartition)) continue;
    const auto name = parseLabel(words[kName]);
    const auto read = scaled(words[kSectorsRead], kSectorBytes);
    const auto written = scaled(words[kSectorsWritten], kSectorBytes);
    if (name.empty() || !read || !written) continue;
    counters["Disk/" + name + "/Read"] = *read;
    counters["Disk/" + name + "/Written"] = *written;
  }
  return counters;
}

std::vector<double> parseNumbers(std::string_view text, std::size_t atMost) {
  std::vector<double> numbers;
  for (const auto word : split(text, kBlanks)) {
    if (numbers.size() == atMost) break;
    const auto value = number<double>(word);
    if (!value || !std::isfinite(*value) || *value < 0) break;
    numbers.push_back(*value);
  }
  return numbers;
}

std::optional<double> parseTemperature(std::string_view milli) {
  const auto words = split(milli, kBlanks);
  const auto value = words.size() == 1 ? number<std::int64_t>(words[0]) : std::nullopt;
  if (!value) return std::nullopt;
  return static_cast<double>(*value) / 1000;
}

std::string parseLabel(std::string_view text) {
  const auto begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  const auto label = text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
  const auto spoilsAName = [](char c) { return c == '/' || c < ' ' || c > '~'; };
  return std::ranges::any_of(label, spoilsAName) ? std::string{} : std::string(label);
}

}  // namespace telemetry
