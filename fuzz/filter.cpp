#include "harness.h"

#include <hxjournal/filter.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {
namespace {

constexpr std::size_t kMost = 4096;  // A glob takes the product of its length and the text's.

/// What a glob stands for, found in another way: where in the text each sign of it can end.
bool globStandsFor(std::string_view glob, std::string_view text) {
  std::vector<bool> reached(text.size() + 1, false);
  reached[0] = true;
  for (const char sign : glob) {
    std::vector<bool> next(text.size() + 1, false);
    bool isBehindStar = false;
    for (std::size_t i = 0; i <= text.size(); ++i) {
      isBehindStar = sign == '*' && (isBehindStar || reached[i]);
      const bool takesOne = i > 0 && reached[i - 1] && (sign == '?' || sign == text[i - 1]);
      next[i] = sign == '*' ? isBehindStar : takesOne;
    }
    reached = std::move(next);
  }
  return reached.back();
}

bool isGlob(std::string_view pattern) { return pattern.find_first_of("*?") != std::string_view::npos; }

bool standsFor(std::string_view pattern, std::string_view key) {
  if (isGlob(pattern)) return globStandsFor(pattern, key);
  return pattern.ends_with('/') ? key.starts_with(pattern) : key == pattern;
}

/// Lines of what is wanted, with + before them, of what is not, with -, and of keys.
struct Lines {
  std::vector<std::string_view> wanted, excluded, keys;

  explicit Lines(std::string_view text) {
    while (!text.empty()) {
      const std::string_view line = text.substr(0, text.find('\n'));
      text.remove_prefix(std::min(text.size(), line.size() + 1));
      if (line.starts_with('+')) {
        wanted.push_back(line.substr(1));
      } else if (line.starts_with('-')) {
        excluded.push_back(line.substr(1));
      } else {
        keys.push_back(line);
      }
    }
  }

  bool wants(std::string_view key) const {
    const auto isMeant = [&](std::string_view pattern) { return standsFor(pattern, key); };
    const auto isNamed = [&](std::string_view pattern) {
      return !isGlob(pattern) && !pattern.ends_with('/') && key == pattern;
    };
    if (std::ranges::any_of(wanted, isNamed)) return true;
    return (wanted.empty() || std::ranges::any_of(wanted, isMeant)) && std::ranges::none_of(excluded, isMeant);
  }
};

}  // namespace

void filter(Input input) {
  const Lines lines(textOf(input.first(std::min(input.size(), kMost))));
  HX::journal::Filter filter;
  for (const auto pattern : lines.wanted) filter.add(std::string(pattern));
  for (const auto pattern : lines.excluded) filter.exclude(std::string(pattern));
  for (const auto key : lines.keys) {
    require(filter.wantsKey(key) == lines.wants(key), "a filter wants what its patterns say");
  }
  if (!filter.isExact()) return;
  require(std::ranges::is_sorted(filter.keys()), "keys are in order");
  require(std::ranges::all_of(filter.keys(), [&](const auto& key) { return filter.wantsKey(key); }),
          "keys that are named are wanted");
}

}  // namespace fuzz
