#pragma once

#include <hxvalue/hxvalue.h>

#include <cstddef>
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

/// Where the JSON text at the beginning of `text` ends: after its closing quote or bracket, or for a number or a word
/// at the next blank. Looks no closer: what is no JSON text has an extent too, and the end of `text` ends everything.
std::size_t jsonExtent(std::string_view text);

/// What follows the name of a command, read from left to right: on a line of the console, where blanks (spaces, tabs)
/// separate arguments, or as words that a shell has separated already.
///
/// Every function that finds something wrong throws InputError, naming what it was to read.
class Arguments {
 public:
  /// A line of the console.
  /// @param text  Must outlive this object.
  explicit Arguments(std::string_view text) : rest_(text) { skipBlanks(); }
  /// Words of a shell: each is one argument, whatever is in it.
  /// @param flags  The flags that were given, which may stand anywhere among the words and are not in `words`.
  Arguments(std::vector<std::string> words, std::vector<std::string> flags)
      : isSplit_(true), words_(std::move(words)), flags_(std::move(flags)) {}

  bool atEnd() const { return isSplit_ ? next_ == words_.size() : rest_.empty(); }

  /// A name. On a line: a bare word, or a JSON string where it has blanks. A shell's word is taken as it is.
  /// @param what  Its name in the synopsis, for errors.
  std::string word(const char* what);
  /// One JSON text, blanks inside included.
  HX::HXValue json(const char* what);

  /// All that remain, of one kind.
  std::vector<std::string> words(const char* what);
  std::vector<HX::HXValue> jsons(const char* what);

  /// Whether a flag was given. On a line it is the next argument, and taken.
  /// @param flag  "--json"
  bool takeFlag(std::string_view flag);
  /// Takes the next argument if it is `-`, which stands for standard input.
  bool takeDash() { return takeBare("-"); }

  /// There must be no more. Called before a command does anything.
  void end() const;

 private:
  void skipBlanks();
  bool takeBare(std::string_view word);
  std::string takeShellWord(const char* what);
  std::string_view takeJson(const char* what);

  const bool isSplit_ = false;
  std::string_view rest_;  // Of the line.
  std::vector<std::string> words_;
  std::vector<std::string> flags_;
  std::size_t next_ = 0;  // Of the words.
};

/// @throws InputError when `text` has a NUL character or is not UTF-8.
/// @param what  What it is, for the error: "the line".
void requireText(std::string_view text, const char* what);

}  // namespace korvo
