#include "arguments.h"

#include "format.h"

#include <hxvalue/json.h>

#include <algorithm>

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

HXValue parse(std::string_view json, const char* what) {
  try {
    return HX::fromJson(json);
  } catch (const std::exception& error) {
    throw InputError(fmt::format("{} {}: {}", what, excerpt(json), error.what()));
  }
}

}  // namespace

std::size_t jsonExtent(std::string_view text) {
  if (text.empty()) return 0;
  if (text[0] == '"') return stringExtent(text);
  if (text[0] == '[' || text[0] == '{') return bracketExtent(text);
  return wordExtent(text);
}

void Arguments::skipBlanks() {
  const auto begin = std::min(rest_.find_first_not_of(kBlanks), rest_.size());
  rest_.remove_prefix(begin);
}

std::string_view Arguments::takeJson(const char* what) {
  if (atEnd()) throw InputError(fmt::format("{} is missing", what));
  const std::string_view json = rest_.substr(0, jsonExtent(rest_));
  rest_.remove_prefix(json.size());
  if (!atEnd() && kBlanks.find(rest_[0]) == std::string_view::npos) {
    throw InputError(fmt::format("{} {}: a blank is missing before {}", what, excerpt(json), excerpt(rest_)));
  }
  skipBlanks();
  return json;
}

std::string Arguments::takeShellWord(const char* what) {
  if (atEnd()) throw InputError(fmt::format("{} is missing", what));
  requireText(words_[next_], what);
  return words_[next_++];
}

std::string Arguments::word(const char* what) {
  if (isSplit_) return takeShellWord(what);
  if (!atEnd() && rest_[0] == '"') return parse(takeJson(what), what).asString();
  if (atEnd()) throw InputError(fmt::format("{} is missing", what));
  std::string bare(rest_.substr(0, wordExtent(rest_)));
  rest_.remove_prefix(bare.size());
  skipBlanks();
  return bare;
}

HXValue Arguments::json(const char* what) {
  return isSplit_ ? parse(takeShellWord(what), what) : parse(takeJson(what), what);
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

bool Arguments::takeFlag(std::string_view flag) {
  return isSplit_ ? std::ranges::count(flags_, flag) > 0 : takeBare(flag);
}

bool Arguments::takeBare(std::string_view word) {
  if (atEnd()) return false;
  if (isSplit_) {
    if (words_[next_] != word) return false;
    ++next_;
    return true;
  }
  if (rest_.substr(0, wordExtent(rest_)) != word) return false;
  rest_.remove_prefix(word.size());
  skipBlanks();
  return true;
}

void Arguments::end() const {
  if (atEnd()) return;
  throw InputError(fmt::format("unexpected text: {}", excerpt(isSplit_ ? words_[next_] : rest_)));
}

void requireText(std::string_view text, const char* what) {
  if (const auto at = text.find('\0'); at != std::string_view::npos) {
    throw InputError(fmt::format("{} has a NUL character at byte {}", what, at + 1));
  }
  if (HX::toJsonText(text).replaced) throw InputError(fmt::format("{} is not UTF-8 text", what));
}

}  // namespace korvo
