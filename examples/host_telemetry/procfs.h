#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Reads the text formats of the kernel. Every function takes the whole content of a file and skips the lines that are
/// not well formed: a number that is cut off, too large or not finite makes its line so.
namespace telemetry {

/// Counters by the name of the reading that they make, for example "Disk/vda/Read".
using Counters = std::map<std::string, std::uint64_t>;

/// Time spent since the start, in the kernel's ticks.
struct ProcessorTime {
  std::uint64_t busy;
  std::uint64_t idle;

  bool operator==(const ProcessorTime&) const = default;
};

/// By the name of the reading: "Processor/Load" for all cores together, "Processor/Core0/Load" for one.
using ProcessorTimes = std::map<std::string, ProcessorTime>;

/// Sizes in bytes; empty where the file does not say.
struct Memory {
  std::optional<std::uint64_t> total;
  std::optional<std::uint64_t> available;
};

/// @param stat  /proc/stat
ProcessorTimes parseProcessorTimes(std::string_view stat);

/// @param meminfo  /proc/meminfo
Memory parseMemory(std::string_view meminfo);

/// Bytes received and sent by each interface.
/// @param dev  /proc/net/dev
Counters parseNetwork(std::string_view dev);

/// Bytes read from and written to each disk: neither partitions, whose traffic is their disk's too, nor disks that are
/// made of memory or of a file.
/// @param diskstats  /proc/diskstats
Counters parseDisks(std::string_view diskstats);

/// The first numbers of a text that holds numbers and blanks, as far as they are well formed, none below zero.
std::vector<double> parseNumbers(std::string_view text, std::size_t atMost);

/// A temperature of sysfs, degrees Celsius.
/// @param milli  One whole number, thousandths of a degree.
std::optional<double> parseTemperature(std::string_view milli);

/// A text of one line without the blanks around it; empty when it could not be a part of a reading's name.
std::string parseLabel(std::string_view text);

}  // namespace telemetry
