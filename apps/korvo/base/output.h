#pragma once

#include <functional>
#include <iosfwd>
#include <mutex>
#include <string>
#include <string_view>

namespace korvo {

/// Where commands print: values on one stream, errors on the other, a line each, flushed at once.
///
/// @par Threads  Any thread may print; lines stay whole.
class Output {
 public:
  /// The streams must outlive the output.
  Output(std::ostream& values, std::ostream& errors);

  /// @param text  One line, printed as it is.
  void line(std::string_view text);
  /// Prints bytes as they are, and no line end.
  void bytes(std::string_view text);
  /// Prints `error: MESSAGE`, with line ends and control characters escaped.
  void error(std::string_view message);
  /// Prints on the error stream what is no error.
  void note(std::string_view message);

  /// Shows how far something has come, on a line of the error stream that the next one overwrites; an empty one clears
  /// it. Nothing unless `showStatus` was called.
  void status(std::string_view text);
  /// Has `status` show something: the error stream is a terminal.
  void showStatus() { showsStatus_ = true; }

  /// False once a value could not be written, because the reader of the pipe has gone or the disk is full.
  bool works() const;

  /// Keeps lines back from now on, so that they do not run into what a person is typing.
  /// @param arrived  Called for each line kept back, on the thread that prints it, under this object's lock: it must
  /// not
  ///                 wait for anything, and must not print.
  void hold(std::function<void()> arrived);
  /// Writes the lines kept back, each on a cleared line of the terminal. Goes on keeping lines back.
  /// @return Whether there were any.
  bool writeHeld();
  /// Writes the lines kept back, and lines pass again.
  void release();

 private:
  void print(std::ostream& stream, const std::string& text);

  std::ostream& values_;
  std::ostream& errors_;
  mutable std::mutex mutex_;  // Guards the streams and all below.
  bool works_ = true;
  bool showsStatus_ = false;
  std::function<void()> arrived_;
  std::string held_;
};

}  // namespace korvo
