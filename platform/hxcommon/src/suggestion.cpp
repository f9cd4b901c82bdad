#include <hxcommon/suggestion.h>

#include <algorithm>
#include <cctype>
#include <vector>

#include <fmt/format.h>

namespace HX {
namespace {

/// What is longer is no slip of a hand, and comparing it would take its time.
constexpr std::size_t kLongest = 256;
/// Shorter words are in too many names.
constexpr std::size_t kShortestPart = 3;

std::string lowered(std::string_view text) {
  std::string low(text);
  std::ranges::transform(low, low.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return low;
}

std::size_t distanceOfLowered(std::string_view a, std::string_view b) {
  // Three rows of the table of distances between beginnings: the one at work, and the two before it.
  std::vector<std::size_t> beforeLast;
  std::vector<std::size_t> last;
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    beforeLast = std::move(last);
    last = std::move(row);
    row.assign(b.size() + 1, i);
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t changed = last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, changed});
      const bool exchanged = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (exchanged) row[j] = std::min(row[j], beforeLast[j - 2] + 1);
    }
  }
  return row.back();
}

}  // namespace

std::size_t editDistance(std::string_view a, std::string_view b) { return distanceOfLowered(lowered(a), lowered(b)); }

std::string didYouMean(std::string_view typed, std::span<const std::string> names) {
  if (typed.empty() || typed.size() > kLongest || std::ranges::count(names, typed) > 0) return {};
  const std::string wanted = lowered(typed);
  const std::string* nearest = nullptr;
  const std::string* holder = nullptr;
  std::size_t least = std::max<std::size_t>(1, typed.size() / 3) + 1;
  for (const std::string& name : names) {
    if (name.size() > kLongest) continue;
    const std::string candidate = lowered(name);
    const std::size_t lengths = std::max(name.size(), typed.size()) - std::min(name.size(), typed.size());
    if (lengths < least) {
      if (const std::size_t distance = distanceOfLowered(wanted, candidate); distance < least) {
        least = distance;
        nearest = &name;
      }
    }
    const bool holds = wanted.size() >= kShortestPart && candidate.find(wanted) != std::string::npos;
    if (holds && (!holder || name.size() < holder->size())) holder = &name;
  }
  const std::string* const meant = nearest ? nearest : holder;
  return meant ? fmt::format("; did you mean {}?", *meant) : std::string();
}

}  // namespace HX
