#include "table.h"

#include "celltext.h"

#include <algorithm>
#include <array>

#include <fmt/format.h>

namespace korvo {
namespace {

using namespace std::chrono_literals;
using HX::HXValue;

constexpr std::size_t kGap = 2;
/// Room for the mark before a row, where there is a terminal.
constexpr std::size_t kMark = 2;
constexpr std::size_t kKind = 10;
constexpr std::size_t kType = 7;
constexpr std::size_t kAge = 6;
constexpr std::size_t kRate = 8;
constexpr std::size_t kSubscribers = 5;
/// Below that another column goes before the value has less.
constexpr std::size_t kLeastValue = 16;

Style styleOfKind(std::string_view kind) {
  if (kind == "Event") return Style::Event;
  return kind == "MicroEvent" ? Style::MicroEvent : Style::Plain;
}

/// What stands in a row, and how.
struct Cells {
  std::string kind, type, age, rate, subscribers, value;
  Style style = Style::Plain;  ///< Of age and value.
};

Cells cellsOf(const LiveRow& row, std::size_t valueColumns, mw::SystemTimePoint now) {
  if (!row.facts) return {};
  const LiveFacts& facts = *row.facts;
  const auto age = now - facts.time;
  Cells cells{facts.kind,
              HXValue::TypeToString(facts.value.getType()),
              formatAge(age),
              formatRate(row.rate),
              facts.subscribers ? fmt::format("{}", *facts.subscribers) : "",
              briefText(facts.value, valueColumns)};
  if (age < 600ms) cells.style = Style::Fresh;
  if (age > 1min) cells.style = Style::Stale;
  if (row.isOverdue) {
    cells.style = Style::Trouble;
    cells.age = "!" + cells.age;
  }
  if (facts.kind == "Event" && !facts.value.isValid()) {
    // Its module may produce it only for those who ask.
    cells.type.clear();
    cells.value = facts.subscribers == 0 ? "nobody asks" : "not raised yet";
    cells.style = Style::Silent;
  }
  return cells;
}

class TableDrawer {
 public:
  TableDrawer(const Layout& layout, const Painter& paint) : layout_(layout), paint_(paint) {}

  std::string line(std::string_view mark, std::string_view key, const Cells& cells, const Painter& paint) const {
    std::string text = padded(mark, layout_.width > 0 ? kMark : 0) + padded(key, layout_.key);
    const auto add = [&](bool isShown, Style style, const std::string& cell) {
      if (isShown) text += std::string(kGap, ' ') + paint(style, cell);
    };
    add(layout_.kind, styleOfKind(cells.kind), padded(cells.kind, kKind));
    add(layout_.type, Style::Plain, padded(cells.type, kType));
    add(layout_.age, cells.style, rightAligned(cells.age, kAge));
    add(layout_.rate, Style::Plain, rightAligned(cells.rate, kRate));
    add(layout_.subscribers, Style::Plain, rightAligned(cells.subscribers, kSubscribers));
    add(layout_.value > 0, cells.style, fit(cells.value, layout_.value));
    return text;
  }

  std::string head() const {
    const Cells cells{"KIND", "TYPE", "AGE", "RATE", "SUBS", "VALUE"};
    return paint_(Style::Head, line("", "KEY", cells, Painter(false)));
  }

  std::string row(const LiveRow& row, mw::SystemTimePoint now) const {
    const Cells cells = cellsOf(row, layout_.value, now);
    if (row.isChosen && paint_.isOn()) {
      return paint_(Style::Title, padded(line(">", row.key, cells, Painter(false)), layout_.width));
    }
    const std::string_view mark = row.isChosen ? ">" : cells.style == Style::Fresh && !paint_.isOn() ? "*" : "";
    return line(mark, row.key, cells, paint_);
  }

 private:
  const Layout& layout_;
  const Painter& paint_;
};

}  // namespace

std::string formatAge(std::chrono::nanoseconds age) {
  using namespace std::chrono;
  const double sec = std::max(0.0, duration<double>(age).count());
  if (sec < 10) return fmt::format("{:.1f}s", sec);
  if (sec < 120) return fmt::format("{:.0f}s", sec);
  if (sec < 120 * 60) return fmt::format("{:.0f}m", sec / 60);
  if (sec < 48 * 3600) return fmt::format("{:.0f}h", sec / 3600);
  return fmt::format("{:.0f}d", sec / 86400);
}

std::string formatRate(std::optional<double> rate) {
  if (!rate) return {};
  if (*rate <= 0) return "-";
  return *rate < 10 ? fmt::format("{:.1f}/s", *rate) : fmt::format("{:.0f}/s", *rate);
}

Layout layOut(std::size_t width, std::size_t keyColumns) {
  constexpr std::size_t kHead = 3;
  Layout layout{.width = width, .key = std::max(keyColumns, kHead), .value = std::string::npos};
  if (width == 0) return layout;
  layout.key = std::min(layout.key, std::max(width / 2, kHead));
  const auto used = [&] {
    std::size_t columns = kMark + layout.key + kGap;
    if (layout.kind) columns += kGap + kKind;
    if (layout.type) columns += kGap + kType;
    if (layout.age) columns += kGap + kAge;
    if (layout.rate) columns += kGap + kRate;
    if (layout.subscribers) columns += kGap + kSubscribers;
    return columns;
  };
  for (bool* column : {&layout.kind, &layout.subscribers, &layout.type, &layout.rate, &layout.age}) {
    if (used() + kLeastValue > width) *column = false;
  }
  layout.value = width > used() ? width - used() : 0;
  return layout;
}

std::vector<std::string> drawTable(std::span<const LiveRow> rows, const Layout& layout, const Painter& paint,
                                   mw::SystemTimePoint now) {
  const TableDrawer drawer(layout, paint);
  std::vector<std::string> lines{drawer.head()};
  for (const LiveRow& row : rows) lines.push_back(drawer.row(row, now));
  return lines;
}

}  // namespace korvo
