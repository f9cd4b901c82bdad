#include "watchlines.h"

#include "base/format.h"

#include <hxvalue/json.h>

#include <array>
#include <charconv>
#include <string_view>

#include <fmt/format.h>

namespace korvo {
namespace {

using HX::journal::Change;
using HX::journal::Gap;
using HX::journal::Position;

std::string_view wordFor(const Change& change) {
  // In the order of `What`.
  constexpr std::array<std::string_view, HX::journal::kWhats> kWords{"stored",   "raised",    "micro",
                                                                     "declared", "described", "removed"};
  if (change.isState) return "state";
  const auto index = static_cast<std::size_t>(change.what);
  return index < kWords.size() ? kWords[index] : "changed";
}

bool hasValue(const Change& change) { return change.what != HX::journal::What::Removed && !change.withheld; }

/// None where the changes cannot be counted: revisions of different epochs have nothing to do with each other.
std::optional<std::uint64_t> missedIn(const Gap& gap) {
  const bool isOne = gap.from.epoch == gap.to.epoch && gap.from.revision > 0 && gap.to.revision >= gap.from.revision;
  return isOne ? std::optional(gap.to.revision - gap.from.revision) : std::nullopt;
}

std::string asObject(const Change& change) {
  JsonObject line;
  line.add("key", change.key).add("what", wordFor(change));
  if (change.withheld) line.add("withheld", true);
  if (hasValue(change)) line.addValue(change.value);
  line.add("time", formatTime(change.time)).add("at", formatPosition(change.at));
  line.add("nth", static_cast<std::int64_t>(change.nth));
  if (change.leftOut > 0) line.add("leftOut", static_cast<std::int64_t>(change.leftOut));
  if (!change.author.empty()) line.add("author", change.author);
  return line.text();
}

std::string asText(const Change& change) {
  std::string line =
      fmt::format("{}  {:<9} {}", formatTime(change.time), wordFor(change), formatName(change.key, NameReader::Shell));
  if (change.withheld) line += "  (too large to be told)";
  if (hasValue(change)) line += "  " + HX::toJson(change.value);
  if (change.leftOut > 0) line += fmt::format("  and {} before it left out", change.leftOut);
  if (!change.author.empty()) line += fmt::format("  by {}", escapeControls(change.author));
  return line;
}

}  // namespace

std::string WatchLines::of(const Change& change) const { return asObjects_ ? asObject(change) : asText(change); }

std::string WatchLines::of(const Gap& gap) const {
  const auto missed = missedIn(gap);
  if (asObjects_) {
    JsonObject range;
    range.add("from", formatPosition(gap.from)).add("to", formatPosition(gap.to));
    if (missed) range.add("changes", static_cast<std::int64_t>(*missed));
    return JsonObject().addText("gap", range.text()).text();
  }
  const std::string what = !missed ? "an unknown number of changes was" : fmt::format("{} changes were", *missed);
  return fmt::format("-- gap: {} missed; what they left follows", missed == 1U ? "1 change was" : what);
}

std::string formatPosition(Position position) { return fmt::format("{}:{}", position.epoch, position.revision); }

std::optional<Position> toPosition(const std::string& text) {
  Position position;
  const char* const end = text.data() + text.size();
  const auto epoch = std::from_chars(text.data(), end, position.epoch);
  if (epoch.ec != std::errc() || epoch.ptr == end || *epoch.ptr != ':') return std::nullopt;
  const auto revision = std::from_chars(epoch.ptr + 1, end, position.revision);
  const bool isWhole = revision.ec == std::errc() && revision.ptr == end;
  return isWhole ? std::optional(position) : std::nullopt;
}

}  // namespace korvo
