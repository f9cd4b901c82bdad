#pragma once

#include "model/tree.h"

#include <hxvalue/hxvalue.h>

#include <cstdint>
#include <string>
#include <vector>

namespace HX::web {

/// What a page is sent at once, as it draws it: numbers in columns that a browser reads without decoding them, all else
/// as JSON behind them.
///
/// Little endian: six u32 (mark, number, rows, series, points, bytes of JSON); f64 columns: the rows' values and times,
/// the points' times and values; u32 columns: the rows' ids, counts of changes and facts, the series' ids and numbers
/// of points; JSON.
class Batch {
 public:
  static constexpr std::uint32_t kMark = 0x3142574B;  // "KWB1"

  /// A row of a key or a group. What is no number is sent as text.
  void addRow(const Node& node);
  void addPoints(std::uint32_t series, const std::vector<Tap::Point>& points);
  /// What is sent beside the columns: an entry of the JSON object.
  void add(std::string name, HXValue value) { rest_.mapSet(std::move(name), std::move(value)); }
  bool isEmpty() const { return ids_.empty() && series_.empty() && rest_.getSize() == 0; }

  std::string bytes(std::uint32_t number);

  /// A node's type, kind, last change, author, and whether it is a key, has others below, and is changed by address.
  static std::uint32_t factsOf(const Node& node);
  /// [id, name, facts, number of keys here and below], as it is told of what a group has.
  static HXValue childOf(const Node& node, std::string_view name);

 private:
  std::vector<double> values_, times_, pointTimes_, pointValues_;
  std::vector<std::uint32_t> ids_, counts_, facts_, series_, lengths_;
  HXValue::List texts_;  // [place among the rows, text]
  HXValue rest_ = HXValue::map();
};

}  // namespace HX::web
