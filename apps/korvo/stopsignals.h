#pragma once

#include "event.h"

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

/// While it lives, a SIGINT ends the process at once with status 130: for whoever does not want to wait for an orderly
/// end any longer.
class ImpatientExit {
 public:
  explicit ImpatientExit(StopSignals& signals);
  ImpatientExit(const ImpatientExit&) = delete;
  ImpatientExit& operator=(const ImpatientExit&) = delete;
  ~ImpatientExit();

 private:
  Event ended_;
  std::thread thread_;
};

}  // namespace korvo
