#pragma once

#include <cstdio>
#include <optional>
#include <string>

namespace HX {

/// What the map file is read by: a line, or a part of one that is longer than 511 bytes. Each is parsed as a line.
struct SignalMapPiece {
  std::string text;  ///< With its line end; ends before a NUL.
  bool endsLine = false;
};

/// @return Nothing at the end of the file, and when it cannot be read any more: see std::ferror.
std::optional<SignalMapPiece> readSignalMapPiece(std::FILE* file);

/// One line of the signal-to-event map: "Door.opened : Door/Opened   # comment".
struct SignalMapLine {
  enum class Verdict { Accepted, Nothing, Rejected };

  Verdict verdict = Verdict::Nothing;
  std::string service;
  std::string signal;
  std::string event;
  int parts = 0;       ///< How many of service, signal and event were found, empty ones included.
  std::string reason;  ///< Why the line was rejected, and how to mend it.
};

/// Parses one line, or one piece of a line. The parts found before a fault are filled in.
SignalMapLine parseSignalMapLine(std::string line);

}  // namespace HX
