#pragma once

#include <cstddef>
#include <string>

namespace HX {

/// How much of the map file is read at once, the closing NUL included. A longer line is taken in pieces, each of which
/// is a line of its own.
inline constexpr std::size_t kSignalMapPiece = 512;

/// One line of the signal-to-event map: "Door.opened : Door/Opened   # comment".
struct SignalMapLine {
  enum class Verdict { Accepted, Nothing, Rejected };

  Verdict verdict = Verdict::Nothing;
  std::string service;
  std::string signal;
  std::string event;
  std::string reason;  ///< Why the line was rejected, and how to mend it.
};

/// Parses one line, or one piece of a line. The parts found before a fault are filled in.
SignalMapLine parseSignalMapLine(std::string line);

}  // namespace HX
