#pragma once

#include "base/event.h"

#include <chrono>
#include <thread>

namespace korvo {

/// SIGINT, SIGTERM and, unless it was ignored, SIGHUP as something to wait for: no code runs in a signal handler.
///
/// Made by the first thread before it starts others, which then inherit that they are blocked. Writing to a pipe that
/// nobody reads becomes an error of the write instead of the end of the process.
class StopSignals {
 public:
  StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;
  ~StopSignals();

  /// Readable when one has arrived.
  int file() const { return file_; }
  /// Takes one that has arrived. @return Its number, 0 when there is none.
  int take();

 private:
  int file_;
};

/// Sees to it that the process ends when it is told to, whatever the code of modules does meanwhile.
///
/// The first signal asks for an orderly end, at any stage. From then on, or from when the end begins for another
/// reason, a SIGINT ends the process at once with status 130, for whoever does not want to wait any longer; and when
/// the limit has passed, a line says what is still running, and the process ends with status 1.
class Ending {
 public:
  /// @param limit  Zero waits without end.
  Ending(StopSignals& signals, std::chrono::milliseconds limit);
  Ending(const Ending&) = delete;
  Ending& operator=(const Ending&) = delete;
  /// The end has been orderly.
  ~Ending();

  /// Readable once a signal has asked for the end.
  int askedFile() const { return asked_.file(); }
  bool isAsked() const { return asked_.wait(std::chrono::milliseconds(0)); }
  /// The end begins, whoever has asked for it.
  void begin() { begun_.set(); }

 private:
  void watch();
  [[noreturn]] void giveUp() const;

  StopSignals& signals_;
  const std::chrono::milliseconds limit_;
  Event asked_;
  Event begun_;
  Event over_;
  std::thread thread_;
};

}  // namespace korvo
