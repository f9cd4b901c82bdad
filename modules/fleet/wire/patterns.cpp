#include "patterns.h"

#include "names.h"

#include <algorithm>
#include <stdexcept>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace HX::fleet {
namespace {

constexpr std::string_view kRest = "**";

std::vector<std::string> partsOf(std::string_view text) {
  std::vector<std::string> parts;
  for (;;) {
    const std::size_t end = std::min(text.find('/'), text.size());
    parts.emplace_back(text.substr(0, end));
    if (end == text.size()) return parts;
    text.remove_prefix(end + 1);
  }
}

/// `*` stands for any bytes. In time proportional to the product of both at worst.
bool partMatches(std::string_view glob, std::string_view part) {
  std::size_t inGlob = 0;
  std::size_t inPart = 0;
  std::size_t star = std::string_view::npos;  // The last one met, and what it has swallowed up to.
  std::size_t swallowed = 0;
  while (inPart < part.size()) {
    if (inGlob < glob.size() && glob[inGlob] == '*') {
      star = inGlob++;
      swallowed = inPart;
    } else if (inGlob < glob.size() && glob[inGlob] == part[inPart]) {
      ++inGlob;
      ++inPart;
    } else if (star != std::string_view::npos) {
      inGlob = star + 1;
      inPart = ++swallowed;
    } else {
      return false;
    }
  }
  return glob.find_first_not_of('*', inGlob) == std::string_view::npos;
}

}  // namespace

Pattern::Pattern(std::string_view text) : parts_(partsOf(text)), hasRest_(parts_.back() == kRest) {
  if (hasRest_) parts_.pop_back();
  if (std::ranges::count(parts_, kRest) > 0) {
    throw std::runtime_error(fmt::format("{}: ** stands at the end of a pattern only", text));
  }
}

bool Pattern::matches(std::string_view key) const {
  for (std::size_t i = 0; i < parts_.size(); ++i) {
    const std::size_t end = std::min(key.find('/'), key.size());
    if (!partMatches(parts_[i], key.substr(0, end))) return false;
    if (end == key.size()) return i + 1 == parts_.size() && !hasRest_;
    key.remove_prefix(end + 1);
  }
  return hasRest_;
}

std::string Pattern::filter() const {
  std::vector<std::string> tokens;
  for (const std::string& part : parts_) {
    tokens.push_back(part.find('*') == std::string::npos ? toToken(part) : "*");
  }
  if (hasRest_) tokens.emplace_back(">");
  return fmt::format("{}", fmt::join(tokens, "."));
}

Patterns::Patterns(const std::vector<std::string>& texts) : patterns_(texts.begin(), texts.end()) {}

bool Patterns::match(std::string_view key) const {
  return std::ranges::any_of(patterns_, [&](const Pattern& pattern) { return pattern.matches(key); });
}

}  // namespace HX::fleet
