#pragma once

#include "base/event.h"

#include <libmw/log.h>

#include <csignal>
#include <cstddef>
#include <mutex>
#include <string>
#include <termios.h>
#include <vector>

namespace korvo {

/// Of a terminal, in characters.
struct Size {
  std::size_t columns = 80;
  std::size_t rows = 24;

  bool operator==(const Size&) const = default;
};

/// The size of standard output's terminal at the moment, the usual one where it does not tell.
Size terminalSize();

/// The terminal's second screen, without a cursor and without echo; the first one comes back at the end.
///
/// While it lives the terminal's keys for suspending and aborting are off: nobody would restore the screen then.
class FullScreen {
 public:
  FullScreen();
  FullScreen(const FullScreen&) = delete;
  FullScreen& operator=(const FullScreen&) = delete;
  ~FullScreen();

  /// Whether standard input is a terminal, which sends each key as it is pressed.
  bool hasKeyboard() const { return hasKeyboard_; }

  /// Readable once the terminal has another size.
  int resizedFile() const { return resized_.file(); }
  void takeResize() { resized_.clear(); }

  /// Replaces what is on the screen. No line may be wider than it is.
  void show(const std::vector<std::string>& lines);

 private:
  termios before_{};
  const bool hasKeyboard_;
  Event resized_;
  struct sigaction formerResize_ {};
};

/// The latest line of the log, kept off a screen that it would spoil.
///
/// @par Threads  Any may log.
class LogLine {
 public:
  LogLine();
  LogLine(const LogLine&) = delete;
  LogLine& operator=(const LogLine&) = delete;
  ~LogLine();

  /// Empty as long as nothing was logged, and where the log goes elsewhere than to a terminal.
  std::string text() const;

 private:
  const bool onScreen_;
  bool before_ = true;
  mw::log::SinkId sink_ = 0;
  mutable std::mutex mutex_;  // Guards `text_`.
  std::string text_;
};

}  // namespace korvo
