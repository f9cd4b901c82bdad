#include <hxjournal/filter.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace HX::journal {
namespace {

bool isGlob(std::string_view pattern) { return pattern.find_first_of("*?") != std::string_view::npos; }

bool anyBegins(const std::vector<std::string>& prefixes, std::string_view key) noexcept {
  return std::ranges::any_of(prefixes, [&](const std::string& prefix) { return key.starts_with(prefix); });
}

bool anyMatches(const std::vector<std::string>& globs, std::string_view key) noexcept {
  return std::ranges::any_of(globs, [&](const std::string& glob) { return Filter::globMatches(glob, key); });
}

void add(std::uint32_t& set, std::uint8_t number) {
  if (number >= 32) throw std::runtime_error("no such kind: " + std::to_string(number));
  set |= std::uint32_t{1} << number;
}

}  // namespace

Filter::Filter(const std::vector<std::string>& patterns) {
  for (const std::string& pattern : patterns) add(pattern);
}

Filter& Filter::add(std::string pattern) {
  if (isGlob(pattern)) return addGlob(std::move(pattern));
  return pattern.ends_with('/') ? addPrefix(std::move(pattern)) : addKey(std::move(pattern));
}

Filter& Filter::addKey(std::string key) {
  const auto place = std::ranges::lower_bound(parts_.keys, key);
  if (place == parts_.keys.end() || *place != key) parts_.keys.insert(place, std::move(key));
  return *this;
}

Filter& Filter::addPrefix(std::string prefix) {
  parts_.prefixes.push_back(std::move(prefix));
  return *this;
}

Filter& Filter::addGlob(std::string glob) {
  parts_.globs.push_back(std::move(glob));
  return *this;
}

Filter& Filter::exclude(std::string pattern) {
  // A key without a glob's signs is a glob of itself.
  auto& list = !isGlob(pattern) && pattern.ends_with('/') ? parts_.excludedPrefixes : parts_.excludedGlobs;
  list.push_back(std::move(pattern));
  return *this;
}

Filter& Filter::addWhat(What what) {
  journal::add(parts_.whats, static_cast<std::uint8_t>(what));
  return *this;
}

Filter& Filter::addKind(std::uint8_t kind) {
  journal::add(parts_.kinds, kind);
  return *this;
}

Filter& Filter::addAuthor(std::string author) {
  parts_.authors.push_back(std::move(author));
  return *this;
}

bool Filter::wantsKey(std::string_view key) const noexcept {
  if (std::ranges::binary_search(parts_.keys, key, std::less<>())) return true;
  return names(key) && !anyBegins(parts_.excludedPrefixes, key) && !anyMatches(parts_.excludedGlobs, key);
}

bool Filter::names(std::string_view key) const noexcept {
  if (parts_.prefixes.empty() && parts_.globs.empty()) return parts_.keys.empty();
  return anyBegins(parts_.prefixes, key) || anyMatches(parts_.globs, key);
}

bool Filter::has(std::uint32_t set, std::uint8_t number) noexcept {
  return set == 0 || (number < 32 && (set >> number & 1U) != 0);
}

bool Filter::wantsKind(std::uint8_t kind) const noexcept { return has(parts_.kinds, kind); }

bool Filter::wantsChange(What what, std::uint8_t kind, bool changedKind) const noexcept {
  return has(parts_.whats, static_cast<std::uint8_t>(what)) && (changedKind || wantsKind(kind));
}

bool Filter::wantsAuthor(std::string_view author) const noexcept {
  return parts_.authors.empty() || std::ranges::find(parts_.authors, author) != parts_.authors.end();
}

// Where a text fails behind a star, only the last star can take more: what an earlier one could take, it can as well.
bool Filter::globMatches(std::string_view glob, std::string_view text) noexcept {
  std::size_t at = 0;
  std::size_t star = std::string_view::npos;
  std::size_t taken = 0;  // How far the last star reaches.
  for (std::size_t i = 0; i < text.size();) {
    if (at < glob.size() && glob[at] == '*') {
      star = at++;
      taken = i;
    } else if (at < glob.size() && (glob[at] == '?' || glob[at] == text[i])) {
      ++at;
      ++i;
    } else if (star != std::string_view::npos) {
      at = star + 1;
      i = ++taken;
    } else {
      return false;
    }
  }
  return glob.find_first_not_of('*', at) == std::string_view::npos;
}

}  // namespace HX::journal
