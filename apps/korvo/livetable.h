#pragma once

#include <hxvalue/hxvalue.h>
#include <libmw/clock.h>

#include <chrono>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace HX {
class HXProxy;
}

namespace korvo {

/// What the live view shows of one key.
struct LiveRow {
  std::string key;
  std::string kind;
  std::string value;
  std::chrono::nanoseconds age{};
};

/// Reads `keys` from the memory: every question is asked before the first answer is waited for. A key that was removed
/// meanwhile has no row.
std::vector<LiveRow> readRows(const HX::HXProxy& memory, std::span<const std::string> keys, mw::SystemTimePoint now);

/// "0.3s", "42s", "5m", "3h", "2d"; a time to come is "0.0s".
std::string formatAge(std::chrono::nanoseconds age);

/// `text` in at most `width` characters, with an ellipsis in place of what does not fit. Control characters, those that
/// would steer a terminal, become question marks.
std::string fit(std::string_view text, std::size_t width);

/// Aligned columns KEY, KIND, AGE, VALUE, a head first; no line longer than `width` characters (0: as long as need be).
std::vector<std::string> drawTable(std::span<const LiveRow> rows, std::size_t width);

}  // namespace korvo
