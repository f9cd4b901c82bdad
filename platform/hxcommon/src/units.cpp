#include <hxcommon/units.h>

#include <charconv>
#include <cmath>
#include <limits>
#include <optional>
#include <span>
#include <stdexcept>
#include <string_view>

#include <fmt/format.h>

namespace HX {
namespace {

struct Unit {
  std::string_view name;
  double factor;
};
constexpr Unit kTimes[] = {{"ns", 1},     {"us", 1e3},   {"ms", 1e6},   {"s", 1e9},
                           {"min", 60e9}, {"h", 3600e9}, {"d", 86400e9}};
constexpr Unit kSizes[] = {{"B", 1},           {"kB", 1e3},           {"MB", 1e6},
                           {"GB", 1e9},        {"TB", 1e12},          {"KiB", 1024},
                           {"MiB", 1048576.0}, {"GiB", 1073741824.0}, {"TiB", 1099511627776.0}};

/// The number of the smallest unit; none when the text is something else.
std::optional<double> parse(std::string_view text, std::span<const Unit> units) {
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
  if (error != std::errc() || std::signbit(number) || !std::isfinite(number)) return std::nullopt;
  const std::string_view name = text.substr(static_cast<std::size_t>(end - text.data()));
  for (const Unit& unit : units) {
    if (unit.name == name) return std::round(number * unit.factor);
  }
  return std::nullopt;
}

/// @param what  "duration", and `examples` of it.
template <class Number>
Number amount(const HXValue& text, std::span<const Unit> units, const char* what, const char* examples) {
  const std::string* const written = text.stringIf();
  const auto number = written ? parse(*written, units) : std::nullopt;
  if (!number) throw std::runtime_error(fmt::format("{} is no {}: write {}", text.toString(), what, examples));
  // Both bounds are powers of two, which a double holds exactly.
  if (*number >= static_cast<double>(std::numeric_limits<std::int64_t>::max())) {
    throw std::runtime_error(fmt::format("{} is too much for a {}", text.toString(), what));
  }
  return static_cast<Number>(*number);
}

}  // namespace

std::chrono::nanoseconds toDuration(const HXValue& text) {
  const char* const examples = R"("200ms", "1.5s", "2min" or "1h")";
  return std::chrono::nanoseconds(amount<std::chrono::nanoseconds::rep>(text, kTimes, "duration", examples));
}

std::uint64_t toBytes(const HXValue& text) {
  return amount<std::uint64_t>(text, kSizes, "size", R"("512B", "64KiB" or "1GiB")");
}

}  // namespace HX
