#pragma once

#include <hxvalue/hxvalue.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace korvo {

/// The line is at fault, and nothing was done.
class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A word that changes what a command does: "--json", or "--type" and a value behind it.
struct Option {
  std::string_view name;
  std::string_view value;  ///< What stands behind it, as in the synopsis: "TYPE"; empty for nothing.
  std::string_view summary;
};

/// The options that were given, by their names; those that take no value have an empty one.
using GivenOptions = std::map<std::string, std::string, std::less<>>;

/// Where the JSON text at the beginning of `text` ends: after its closing quote or bracket, or for a number or a word
/// at the next blank. Looks no closer: what is no JSON text has an extent too, and the end of `text` ends everything.
std::size_t jsonExtent(std::string_view text);

/// What follows the name of a command, read from left to right: on a line of the console, where blanks (spaces, tabs)
/// separate arguments, or as words that a shell has separated already. Options may stand anywhere, and are not among
/// what is read.
///
/// Every function that finds something wrong throws InputError, naming what it was to read.
class Arguments {
 public:
  /// A line of the console: the name of its command is the first word, and its options are arguments until
  /// `takeOptions`.
  explicit Arguments(std::string_view line);
  /// Words of a shell: each is one argument, whatever is in it.
  Arguments(std::vector<std::string> words, GivenOptions options)
      : isSplit_(true), words_(std::move(words)), options_(std::move(options)) {}

  /// Takes the options out of what remains of a line. A word `--` ends them; so do quotes: `"--json"` is a name.
  void takeOptions(std::span<const Option> known);

  bool atEnd() const { return next_ == words_.size(); }

  /// A name. On a line: a bare word, or a JSON string where it has blanks. A shell's word is taken as it is.
  /// @param what  Its name in the synopsis, for errors.
  std::string word(const char* what);
  /// One JSON text, blanks inside included.
  /// @param otherwise  What else makes a string of a text without quotes, for the error: ", or say --string".
  HX::HXValue json(const char* what, std::string_view otherwise = {});
  /// All that remain, of one kind.
  std::vector<std::string> words(const char* what);
  std::vector<HX::HXValue> jsons(const char* what);
  /// Takes the next argument if it is `-`, which stands for standard input.
  bool takeDash();
  /// There must be no more. Called before a command does anything.
  void end() const;

  const GivenOptions& options() const { return options_; }
  bool has(std::string_view option) const { return options_.contains(option); }
  /// The value of an option; none when it was not given.
  std::optional<std::string> option(std::string_view name) const;
  /// The value of an option as a whole number from 1 on.
  std::optional<std::size_t> count(std::string_view option) const;
  /// The value of an option as a number above zero.
  std::optional<double> number(std::string_view option) const;
  /// The value of an option as a duration above zero: "200ms".
  std::optional<std::chrono::nanoseconds> duration(std::string_view option) const;

 private:
  const std::string& take(const char* what);

  const bool isSplit_ = false;
  std::vector<std::string> words_;
  GivenOptions options_;
  std::size_t next_ = 0;
};

/// A duration above zero: "200ms", "1.5s", "2min".
/// @param what  What it is, for the error: "LIMIT".
/// @throws InputError when it is none.
std::chrono::nanoseconds toDuration(std::string_view what, const std::string& text);

/// @throws InputError when `text` has a NUL character or is not UTF-8.
/// @param what  What it is, for the error: "the line".
void requireText(std::string_view text, const char* what);

}  // namespace korvo
