#include "detail.h"

#include "celltext.h"
#include "table.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

namespace korvo {
namespace {

using HX::HXValue;

std::optional<double> numberOf(const HXValue& value) {
  if (value.isBool()) return value.asBool() ? 1 : 0;
  const bool isNumber = value.isScalar();
  return isNumber ? std::optional(value.toDouble()) : std::nullopt;
}

/// The latest ones for which there is room, where all of them are numbers.
std::vector<double> numbersOf(const std::vector<Stamped>& history, std::size_t most) {
  std::vector<double> numbers;
  for (const Stamped& raise : history) {
    const auto number = numberOf(raise.value);
    if (!number) return {};
    numbers.push_back(*number);
  }
  if (numbers.size() > most) numbers.erase(numbers.begin(), numbers.end() - static_cast<std::ptrdiff_t>(most));
  return numbers;
}

/// A text on as many lines as it takes, at most so many.
std::vector<std::string> wrapped(std::string_view text, std::size_t width, std::size_t most) {
  std::vector<std::string> lines;
  while (lines.size() + 1 < most && columnsOf(text) > width) {
    const auto line = beginning(text, width);
    if (line.empty()) break;
    lines.push_back(fit(line, width));
    text.remove_prefix(line.size());
  }
  lines.push_back(fit(text, width));
  return lines;
}

class Page {
 public:
  Page(std::size_t width, std::size_t rows) : width_(width), rows_(rows) {}

  void add(std::string_view name, const std::string& text, std::size_t most = 1) {
    constexpr std::size_t kName = 15;
    const std::size_t room = width_ > kName ? width_ - kName : 0;
    for (const std::string& line : wrapped(text, room, most)) {
      lines_.push_back(padded(std::exchange(name, {}), std::min(kName, width_)) + line);
    }
  }

  std::size_t left() const { return rows_ > lines_.size() ? rows_ - lines_.size() : 0; }
  std::vector<std::string> lines() && {
    lines_.resize(std::min(lines_.size(), rows_));
    return std::move(lines_);
  }

 private:
  const std::size_t width_;
  const std::size_t rows_;
  std::vector<std::string> lines_;
};

void addHistory(Page& page, const LiveDetail& detail, std::size_t width) {
  if (detail.history.empty()) return page.add("history", "no raise is remembered");
  page.add("history", detail.history.size() == 1 ? "1 raise is remembered"
                                                 : fmt::format("{} raises are remembered", detail.history.size()));
  if (const auto numbers = numbersOf(detail.history, width > 16 ? width - 16 : 1); !numbers.empty()) {
    const auto [least, greatest] = std::ranges::minmax(numbers);
    page.add("", sparkline(numbers));
    page.add("", fmt::format("from {:.6g} to {:.6g}", least, greatest));
  }
  std::string_view name = "latest";
  for (auto raise = detail.history.rbegin(); raise != detail.history.rend() && page.left() > 0; ++raise) {
    page.add(std::exchange(name, {}),
             fmt::format("{}  {}", formatTime(raise->time).substr(11, 12), briefText(raise->value, width)));
  }
}

}  // namespace

LiveDetail toDetail(const std::string& key, KeyAnswers& answers) {
  LiveDetail detail;
  detail.key = key;
  LiveFacts& facts = detail.facts;
  facts.kind = std::move(answers[0]).take<std::string>();
  Stamped stamped = toStamped(std::move(answers[1]).take<HXValue>());
  facts.value = std::move(stamped.value);
  facts.time = stamped.time;
  detail.subscribers = std::move(answers[2]).take<std::vector<std::string>>();
  detail.description = textOfDescription(std::move(answers[3]).take<HXValue>());
  const HXValue raises = std::move(answers[4]).take<HXValue>();
  detail.history.reserve(raises.getSize());
  for (std::size_t i = 0; i < raises.getSize(); ++i) detail.history.push_back(toStamped(raises[i]));
  return detail;
}

std::vector<std::string> drawDetail(const LiveDetail& detail, std::optional<double> rate, std::size_t width,
                                    std::size_t rows, const Painter& paint, mw::SystemTimePoint now) {
  constexpr std::size_t kMostOfAText = 6;
  const LiveFacts& facts = detail.facts;
  Page page(width, rows);
  page.add("kind", facts.kind);
  page.add("type", HXValue::TypeToString(facts.value.getType()));
  page.add("value", briefText(facts.value, width * kMostOfAText), kMostOfAText);
  page.add("set", fmt::format("{}, {} ago", formatTime(facts.time), formatAge(now - facts.time)));
  page.add("rate", formatRate(rate));
  page.add("subscribers",
           fmt::format("{}{}{}", detail.subscribers.size(), detail.subscribers.empty() ? "" : ": ",
                       fmt::join(detail.subscribers, ", ")),
           kMostOfAText);
  if (!detail.extractor.empty()) page.add("extractor", detail.extractor);
  page.add("description", detail.description, kMostOfAText);
  addHistory(page, detail, width);
  auto lines = std::move(page).lines();
  if (!lines.empty()) lines.insert(lines.begin(), paint(Style::Head, fit(detail.key, width)));
  lines.resize(std::min(lines.size(), rows));
  return lines;
}

}  // namespace korvo
