#include "batch.h"

#include <hxvalue/json.h>

#include <bit>
#include <cstring>
#include <limits>

namespace HX::web {
namespace {

static_assert(std::endian::native == std::endian::little, "the columns are sent as they lie in memory");

constexpr std::size_t kShortValue = 240;
/// Beyond it a browser's numbers have gaps.
constexpr std::int64_t kExact = std::int64_t{1} << 53U;

bool isColumnNumber(const HXValue& value) {
  if (value.isInt64()) return value.asInt64() >= -kExact && value.asInt64() <= kExact;
  return value.isScalar();
}

template <class T>
void append(std::string& bytes, const std::vector<T>& column) {
  bytes.append(reinterpret_cast<const char*>(column.data()), column.size() * sizeof(T));
}

}  // namespace

std::uint32_t Batch::factsOf(const Node& node) {
  std::uint32_t facts = static_cast<std::uint32_t>(node.value.getType());
  facts |= (node.kind & 7U) << 4U;
  facts |= static_cast<std::uint32_t>(node.what) << 7U;
  facts |= static_cast<std::uint32_t>(node.byAddress) << 10U;
  facts |= static_cast<std::uint32_t>(node.isKey) << 11U;
  facts |= static_cast<std::uint32_t>(!node.children.empty()) << 12U;
  return facts | static_cast<std::uint32_t>(node.author) << 16U;
}

HXValue Batch::childOf(const Node& node, std::string_view name) {
  return HXValue::list({node.id, name, factsOf(node), node.keys});
}

void Batch::addRow(const Node& node) {
  const bool isNumber = node.isKey && isColumnNumber(node.value);
  if (!isNumber && node.isKey) {
    texts_.push_back(HXValue::list({static_cast<std::int64_t>(ids_.size()), brief(node.value, kShortValue)}));
  }
  ids_.push_back(node.id);
  counts_.push_back(node.changes);
  facts_.push_back(factsOf(node));
  times_.push_back(node.time);
  values_.push_back(isNumber ? *numberAt(node.value, {}) : node.keys);
}

void Batch::addPoints(std::uint32_t series, const std::vector<Tap::Point>& points) {
  if (points.empty()) return;
  series_.push_back(series);
  lengths_.push_back(static_cast<std::uint32_t>(points.size()));
  for (const Tap::Point& point : points) {
    pointTimes_.push_back(point.time);
    pointValues_.push_back(point.value);
  }
}

std::string Batch::bytes(std::uint32_t number) {
  if (!texts_.empty()) rest_.mapSet("texts", std::move(texts_));
  const std::string json = rest_.getSize() == 0 ? std::string() : toJson(rest_);
  const std::vector<std::uint32_t> head{kMark,
                                        number,
                                        static_cast<std::uint32_t>(ids_.size()),
                                        static_cast<std::uint32_t>(series_.size()),
                                        static_cast<std::uint32_t>(pointTimes_.size()),
                                        static_cast<std::uint32_t>(json.size())};
  std::string bytes;
  append(bytes, head);
  for (const auto* column : {&values_, &times_, &pointTimes_, &pointValues_}) append(bytes, *column);
  for (const auto* column : {&ids_, &counts_, &facts_, &series_, &lengths_}) append(bytes, *column);
  return bytes + json;
}

}  // namespace HX::web
