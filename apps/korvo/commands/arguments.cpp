#include "arguments.h"

#include "base/format.h"
#include "base/suggestion.h"

#include <hxcommon/units.h>
#include <hxvalue/json.h>

#include <algorithm>
#include <charconv>
#include <cmath>

#include <fmt/format.h>

namespace korvo {

using HX::HXValue;

namespace {

constexpr std::string_view kBlanks = " \t";

std::size_t wordExtent(std::string_view text) { return std::min(text.find_first_of(kBlanks), text.size()); }

std::size_t stringExtent(std::string_view text) {
  for (std::size_t i = 1; i < text.size(); ++i) {
    if (text[i] == '\\') {
      ++i;
    } else if (text[i] == '"') {
      return i + 1;
    }
  }
  return text.size();
}

/// Which bracket closes which is the parser's business.
std::size_t bracketExtent(std::string_view text) {
  std::size_t depth = 0;
  for (std::size_t i = 0; i < text.size();) {
    if (text[i] == '"') {
      i += stringExtent(text.substr(i));
      continue;
    }
    if (text[i] == '[' || text[i] == '{') ++depth;
    if (text[i] == ']' || text[i] == '}') --depth;
    ++i;
    if (depth == 0) return i;
  }
  return text.size();
}

/// How far the first argument of `text` goes: to the end of its JSON text, and on to the next blank.
std::size_t argumentExtent(std::string_view text) {
  const std::size_t end = jsonExtent(text);
  return end + wordExtent(text.substr(end));
}

/// Whether somebody may have meant a string: no number, no bracket, no quote.
bool looksLikeText(std::string_view json) {
  return !json.empty() && std::string_view("\"[{-0123456789").find(json[0]) == std::string_view::npos;
}

}  // namespace

Arguments::Arguments(std::string_view line) {
  while (true) {
    line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
    if (line.empty()) return;
    const std::size_t end = argumentExtent(line);
    words_.emplace_back(line.substr(0, end));
    line.remove_prefix(end);
  }
}

void Arguments::takeOptions(std::span<const Option> known) {
  std::vector<std::string> others(words_.begin(), words_.begin() + static_cast<std::ptrdiff_t>(next_));
  for (std::size_t i = next_; i < words_.size(); ++i) {
    const std::string& word = words_[i];
    if (word == "--") {
      others.insert(others.end(), words_.begin() + static_cast<std::ptrdiff_t>(i) + 1, words_.end());
      break;
    }
    if (!word.starts_with("--")) {
      others.push_back(word);
      continue;
    }
    const auto option = std::ranges::find(known, word, &Option::name);
    if (option == known.end()) {
      std::vector<std::string> names;
      for (const Option& one : known) names.emplace_back(one.name);
      throw InputError(fmt::format("no option {}{}", excerpt(word), didYouMean(word, names)));
    }
    const bool takesValue = !option->value.empty();
    if (takesValue && i + 1 == words_.size()) throw InputError(fmt::format("{} {} is missing", word, option->value));
    options_.insert_or_assign(word, takesValue ? words_[++i] : std::string());
  }
  words_ = std::move(others);
}

const std::string& Arguments::take(const char* what) {
  if (atEnd()) throw InputError(fmt::format("{} is missing", what));
  if (isSplit_) requireText(words_[next_], what);
  return words_[next_++];
}

std::string Arguments::word(const char* what) {
  const std::string& word = take(what);
  if (isSplit_ || !word.starts_with('"')) return word;
  try {
    return HX::fromJson(word).asString();
  } catch (const std::exception& error) {
    throw InputError(fmt::format("{} {}: {}", what, excerpt(word), error.what()));
  }
}

HXValue Arguments::json(const char* what, std::string_view otherwise) {
  const std::string& json = take(what);
  try {
    return HX::fromJson(json);
  } catch (const std::exception& error) {
    const std::string shown = excerpt(json);
    std::string hint;
    if (looksLikeText(json)) {
      const std::string_view shellQuote = isSplit_ ? "'" : "";
      hint = fmt::format("; a string needs quotes: {0}{1}{0}{2}", shellQuote, HX::toJson(HXValue(shown)), otherwise);
    }
    throw InputError(fmt::format("{} {}: {}{}", what, shown, error.what(), hint));
  }
}

bool Arguments::takeDash() {
  if (atEnd() || words_[next_] != "-") return false;
  ++next_;
  return true;
}

std::optional<std::string> Arguments::option(std::string_view name) const {
  const auto found = options_.find(name);
  return found == options_.end() ? std::nullopt : std::optional(found->second);
}

namespace {

/// An option's value as a T that is not negative and not zero.
template <class T>
std::optional<T> positive(std::string_view option, const std::optional<std::string>& text, const char* what) {
  if (!text) return std::nullopt;
  T number{};
  const char* const end = text->data() + text->size();
  const auto [stop, error] = std::from_chars(text->data(), end, number);
  if (error == std::errc() && stop == end && number > T{} && std::isfinite(static_cast<double>(number))) return number;
  throw InputError(fmt::format("{}: {} is no {}", option, excerpt(*text), what));
}

}  // namespace

std::optional<std::size_t> Arguments::count(std::string_view name) const {
  return positive<std::size_t>(name, option(name), "whole number from 1 on");
}

std::optional<double> Arguments::number(std::string_view name) const {
  return positive<double>(name, option(name), "number above zero");
}

std::optional<std::chrono::nanoseconds> Arguments::duration(std::string_view name) const {
  const auto text = option(name);
  return text ? std::optional(toDuration(name, *text)) : std::nullopt;
}

std::chrono::nanoseconds toDuration(std::string_view what, const std::string& text) {
  try {
    const auto duration = HX::toDuration(text);
    if (duration.count() > 0) return duration;
  } catch (const std::runtime_error& error) {
    throw InputError(fmt::format("{}: {}", what, error.what()));
  }
  throw InputError(fmt::format("{}: {} is not above zero", what, excerpt(text)));
}

std::size_t jsonExtent(std::string_view text) {
  if (text.empty()) return 0;
  if (text[0] == '"') return stringExtent(text);
  if (text[0] == '[' || text[0] == '{') return bracketExtent(text);
  return wordExtent(text);
}

std::vector<std::string> Arguments::words(const char* what) {
  std::vector<std::string> all;
  while (!atEnd()) all.push_back(word(what));
  return all;
}

std::vector<HXValue> Arguments::jsons(const char* what) {
  std::vector<HXValue> all;
  while (!atEnd()) all.push_back(json(what));
  return all;
}

void Arguments::end() const {
  if (atEnd()) return;
  throw InputError(fmt::format("unexpected text: {}", excerpt(words_[next_])));
}

void requireText(std::string_view text, const char* what) {
  if (const auto at = text.find('\0'); at != std::string_view::npos) {
    throw InputError(fmt::format("{} has a NUL character at byte {}", what, at + 1));
  }
  if (HX::toJsonText(text).replaced) throw InputError(fmt::format("{} is not UTF-8 text", what));
}

}  // namespace korvo
