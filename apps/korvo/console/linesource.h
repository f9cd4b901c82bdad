#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace korvo {

/// Lines, one after another.
class LineSource {
 public:
  virtual ~LineSource() = default;
  /// Waits for the next line.
  /// @return Without its line feed; none when there will be no more.
  /// @throws InputError when a line cannot be had; the one after it may be asked for.
  virtual std::optional<std::string> next() = 0;
};

/// The lines of a file or a pipe. The last one needs no line feed.
class FileLines final : public LineSource {
 public:
  static constexpr std::size_t kLongestLine = std::size_t{16} << 20;

  /// @param file     Not closed.
  /// @param stop     Lines end as soon as this file is readable.
  /// @param longest  Longer lines, in bytes, are an error, so that memory has a bound.
  FileLines(int file, int stop, std::size_t longest = kLongestLine) : file_(file), stop_(stop), longest_(longest) {}

  std::optional<std::string> next() override;

 private:
  std::optional<std::string> takeLine();
  bool readMore();

  const int file_;
  const int stop_;
  const std::size_t longest_;
  std::string buffer_;
  std::size_t begin_ = 0;     // Of the next line, in `buffer_`.
  std::size_t searched_ = 0;  // No line feed between `begin_` and here.
  bool tooLong_ = false;      // The line at `begin_` has lost its beginning.
  bool ended_ = false;
};

}  // namespace korvo
