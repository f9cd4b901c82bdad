#include "walk.h"

#include <hxvalue/hxvalue.h>

#include <cmath>

namespace HX {

namespace {

// Not std::weak_order: it puts a NaN whose sign bit is set before all numbers, and that bit is an accident.
template <typename Decimal>
std::weak_ordering compareDecimals(Decimal a, Decimal b) {
  if (std::isnan(a) || std::isnan(b)) return std::isnan(a) <=> std::isnan(b);
  if (a < b) return std::weak_ordering::less;
  return a > b ? std::weak_ordering::greater : std::weak_ordering::equivalent;
}

// Types, and contents other than what containers hold.
std::weak_ordering compareLeaves(const HXValue& a, const HXValue& b) {
  using Type = HXValue::Type;
  if (a.getType() != b.getType()) return a.getType() <=> b.getType();
  switch (a.getType()) {
    case Type::Bool:
      return a.asBool() <=> b.asBool();
    case Type::Int:
      return a.asInt() <=> b.asInt();
    case Type::Int64:
      return a.asInt64() <=> b.asInt64();
    case Type::Float:
      return compareDecimals(a.asFloat(), b.asFloat());
    case Type::Double:
      return compareDecimals(a.asDouble(), b.asDouble());
    case Type::String:
      return a.asString() <=> b.asString();
    case Type::Binary:
      return a.asBinary() <=> b.asBinary();
    default:
      return std::weak_ordering::equivalent;
  }
}

struct Pair {
  Children left;
  Children right;
};

}  // namespace

std::weak_ordering HXValue::compare(const HXValue& a, const HXValue& b) {
  std::vector<Pair> open;
  const HXValue* left = &a;
  const HXValue* right = &b;
  while (true) {
    const bool shared =
        hasPayload(left->type_) && left->type_ == right->type_ && left->slot_.payload == right->slot_.payload;
    if (!shared) {
      if (const auto order = compareLeaves(*left, *right); order != 0) return order;
      if (isContainer(*left)) open.push_back({Children(*left), Children(*right)});
    }

    while (!open.empty() && open.back().left.done() && open.back().right.done()) open.pop_back();
    if (open.empty()) return std::weak_ordering::equivalent;

    Pair& children = open.back();
    if (children.left.done()) return std::weak_ordering::less;
    if (children.right.done()) return std::weak_ordering::greater;
    if (const std::string* key = children.left.key()) {
      if (const auto order = *key <=> *children.right.key(); order != 0) return order;
    }
    left = &children.left.value();
    right = &children.right.value();
    children.left.advance();
    children.right.advance();
  }
}

}  // namespace HX
