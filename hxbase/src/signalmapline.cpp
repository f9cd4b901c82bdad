#include "signalmapline.h"

#include <algorithm>
#include <utility>

namespace HX {
namespace {

SignalMapLine reject(SignalMapLine line, std::string reason) {
  line.verdict = SignalMapLine::Verdict::Rejected;
  line.reason = std::move(reason);
  return line;
}

constexpr std::size_t kLongestPiece = 511;

}  // namespace

std::optional<SignalMapPiece> readSignalMapPiece(std::FILE* file) {
  SignalMapPiece piece;
  for (int next = 0; !piece.endsLine && piece.text.size() < kLongestPiece && (next = std::getc(file)) != EOF;) {
    piece.text.push_back(static_cast<char>(next));
    piece.endsLine = next == '\n';
  }
  if (piece.text.empty()) return std::nullopt;
  piece.text.erase(std::min(piece.text.find('\0'), piece.text.size()));
  return piece;
}

SignalMapLine parseSignalMapLine(std::string line) {
  std::erase(line, ' ');
  std::erase(line, '\t');
  line.erase(std::min(line.find('#'), line.size()));

  SignalMapLine parsed;
  if (line.find_first_not_of("\r\n") == std::string::npos) return parsed;

  const std::size_t dot = line.find('.');
  if (dot == std::string::npos) return reject(parsed, "there is no \".\"; write SERVICE.SIGNAL : EVENT");
  parsed.service = line.substr(0, dot);
  parsed.parts = 1;
  if (parsed.service.empty()) return reject(parsed, "no service stands before the \".\"; write SERVICE.SIGNAL : EVENT");

  line.erase(0, dot + 1);
  const std::size_t colon = line.find(':');
  if (colon == std::string::npos) {
    return reject(parsed, "there is no \":\" after the signal; write SERVICE.SIGNAL : EVENT");
  }
  // Installed map files were written for a reader that compares these two positions, and lines that it skips must stay
  // without effect.
  if (colon < dot) {
    return reject(parsed,
                  "the name of the signal is shorter than that of the service, which this file cannot express; "
                  "use addMapping(service, signal, event) instead");
  }
  parsed.signal = line.substr(0, colon);
  parsed.parts = 2;
  if (parsed.signal.empty()) return reject(parsed, "no signal stands before the \":\"; write SERVICE.SIGNAL : EVENT");

  std::size_t end = line.find("\r\n");
  if (end == std::string::npos) end = line.find('\n');
  // A line end before the colon leaves, by unsigned arithmetic, everything behind the colon.
  parsed.event = line.substr(colon + 1, end == std::string::npos ? end : end - colon - 1);
  parsed.parts = 3;
  if (parsed.event.empty()) return reject(parsed, "no event stands after the \":\"; write SERVICE.SIGNAL : EVENT");
  parsed.verdict = SignalMapLine::Verdict::Accepted;
  return parsed;
}

}  // namespace HX
