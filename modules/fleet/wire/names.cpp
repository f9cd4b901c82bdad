#include "names.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace HX::fleet {
namespace {

constexpr std::size_t kLongestName = 64;
constexpr std::string_view kDigits = "0123456789ABCDEF";

bool isPlain(char c) noexcept {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
}

void appendEscaped(std::string& out, char c) {
  const auto byte = static_cast<unsigned char>(c);
  out += '=';
  out += kDigits[byte >> 4U];
  out += kDigits[byte & 15U];
}

void appendPart(std::string& out, std::string_view part) {
  if (part.empty()) out += '=';
  for (const char c : part) {
    if (isPlain(c)) {
      out += c;
    } else {
      appendEscaped(out, c);
    }
  }
}

/// The byte that "HH" stands for.
char unescaped(std::string_view digits, std::string_view subject) {
  const auto high = kDigits.find(digits.empty() ? ' ' : digits[0]);
  const auto low = kDigits.find(digits.size() < 2 ? ' ' : digits[1]);
  const bool areDigits = high != std::string_view::npos && low != std::string_view::npos;
  const char byte = areDigits ? static_cast<char>((high << 4U) | low) : 'a';
  // What stands for itself, and what parts a key, has one spelling only.
  if (isPlain(byte) || byte == '/') throw std::runtime_error(fmt::format("{} is the subject of no key", subject));
  return byte;
}

void appendUnescaped(std::string& key, std::string_view part, std::string_view subject) {
  if (part == "=") return;
  if (part.empty()) throw std::runtime_error(fmt::format("{} is the subject of no key", subject));
  for (std::size_t i = 0; i < part.size(); ++i) {
    if (part[i] == '=') {
      key += unescaped(part.substr(i + 1, 2), subject);
      i += 2;
    } else if (isPlain(part[i])) {
      key += part[i];
    } else {
      throw std::runtime_error(fmt::format("{} is the subject of no key", subject));
    }
  }
}

/// Calls `use(part, isFirst)` for each part of a text.
template <class Use>
void forEachPart(std::string_view text, char separator, const Use& use) {
  for (bool isFirst = true;; isFirst = false) {
    const std::size_t end = std::min(text.find(separator), text.size());
    use(text.substr(0, end), isFirst);
    if (end == text.size()) return;
    text.remove_prefix(end + 1);
  }
}

}  // namespace

bool isName(std::string_view name) noexcept {
  return !name.empty() && name.size() <= kLongestName && std::ranges::all_of(name, isPlain);
}

std::string toSubject(std::string_view key) {
  std::string subject;
  subject.reserve(key.size());
  forEachPart(key, '/', [&](std::string_view part, bool isFirst) {
    if (!isFirst) subject += '.';
    appendPart(subject, part);
  });
  return subject;
}

std::string toKey(std::string_view subject) {
  std::string key;
  forEachPart(subject, '.', [&](std::string_view part, bool isFirst) {
    if (!isFirst) key += '/';
    appendUnescaped(key, part, subject);
  });
  return key;
}

std::string toToken(std::string_view name) {
  std::string token;
  appendPart(token, name);
  return token;
}

FleetSubjects::FleetSubjects(std::string fleet, std::string domain)
    : fleet_(std::move(fleet)), domain_(std::move(domain)) {
  if (!isName(fleet_)) throw std::runtime_error(fmt::format("\"{}\" is no name of a fleet", fleet_));
  if (!isName(domain_)) throw std::runtime_error(fmt::format("\"{}\" is no name of a domain", domain_));
}

std::string FleetSubjects::eventStream() const {
  std::string name = fleet_;
  std::ranges::transform(name, name.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return name + "_EVENTS";
}

std::string FleetSubjects::of(std::string_view robot, std::string_view what) const {
  return fmt::format("{}.{}.{}", fleet_, robot, what);
}

std::string FleetSubjects::put(std::string_view bucket, std::string_view key) const {
  return interface(stored(bucket, key));
}

std::string FleetSubjects::stored(std::string_view bucket, std::string_view key) {
  return fmt::format("$KV.{}.{}", bucket, key);
}

std::string FleetSubjects::interface(std::string_view request) const {
  return fmt::format("$JS.{}.API.{}", domain_, request);
}

std::string FleetSubjects::lastOf(std::string_view bucket, std::string_view key) const {
  return interface(fmt::format("DIRECT.GET.KV_{}.{}", bucket, stored(bucket, key)));
}

}  // namespace HX::fleet
