#pragma once

#include "model.h"
#include "paint.h"

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace korvo {

/// "0.3s", "42s", "5m", "3h", "2d"; a time to come is "0.0s".
std::string formatAge(std::chrono::nanoseconds age);

/// "0.2/s", "48/s"; "-" for what does not change, nothing for what is not known.
std::string formatRate(std::optional<double> rate);

/// How a table is laid out: which columns there is room for, and how wide they are. It depends on the terminal and on
/// the keys there are, not on the rows that are seen, so that columns stay where they are while these change.
struct Layout {
  std::size_t width = 0;  ///< Of a line, in columns; 0 for as long as need be.
  std::size_t key = 0;
  std::size_t value = 0;
  bool kind = true;
  bool type = true;
  bool age = true;
  bool rate = true;
  bool subscribers = true;
};
/// A key may take half the line. Of the other columns the value is the last to go, and so is its place.
/// @param keyColumns  Of the longest key.
Layout layOut(std::size_t width, std::size_t keyColumns);

/// Aligned columns KEY, KIND, TYPE, AGE, RATE, SUBS, VALUE, a head first. What has just changed and the
/// row that is chosen stand out, with a mark before them where there are no colours.
std::vector<std::string> drawTable(std::span<const LiveRow> rows, const Layout& layout, const Painter& paint,
                                   mw::SystemTimePoint now);

}  // namespace korvo
