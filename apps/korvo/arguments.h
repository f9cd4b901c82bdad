#pragma once

#include <hxvalue/hxvalue.h>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace korvo {

/// The line is at fault, and nothing was done.
class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Where the JSON text at the beginning of `text` ends: after its closing quote or bracket, or for a number or a word
/// at the next blank. Looks no closer: what is no JSON text has an extent too, and the end of `text` ends everything.
std::size_t jsonExtent(std::string_view text);

/// What follows the name of a command on its line, read from left to right. Blanks (spaces, tabs) separate arguments.
///
/// Every function that finds something wrong throws InputError, naming what it was to read.
class Arguments {
 public:
  /// @param text  Must outlive this object.
  explicit Arguments(std::string_view text) : rest_(text) { skipBlanks(); }

  bool atEnd() const { return rest_.empty(); }

  /// A bare word, or a JSON string where it has blanks.
  /// @param what  Its name in the synopsis, for errors.
  std::string word(const char* what);
  /// One JSON text, blanks inside included.
  HX::HXValue json(const char* what);

  /// All that remain, of one kind.
  std::vector<std::string> words(const char* what);
  std::vector<HX::HXValue> jsons(const char* what);

  /// Takes the next argument if it is the bare word `flag`.
  bool takeFlag(std::string_view flag);

  /// The line must be at its end. Called before a command does anything.
  void end() const;

 private:
  void skipBlanks();
  std::string_view takeJson(const char* what);

  std::string_view rest_;
};

}  // namespace korvo
