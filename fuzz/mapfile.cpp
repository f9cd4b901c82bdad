#include "harness.h"

#include <cstdio>
#include <memory>
#include <signalmapline.h>

namespace fuzz {
namespace {

void checkLine(const std::string& text) {
  using Verdict = HX::SignalMapLine::Verdict;
  const HX::SignalMapLine line = HX::parseSignalMapLine(text);
  require((line.verdict == Verdict::Rejected) == !line.reason.empty(), "a line is rejected with a reason");
  if (line.verdict != Verdict::Accepted) return;
  require(line.parts == 3 && !line.service.empty() && !line.signal.empty() && !line.event.empty(),
          "an accepted line has all parts");
  require(line.service.find_first_of(" \t#.") == std::string::npos, "a service's name ends at the dot");
}

}  // namespace

void mapfile(Input input) {
  if (input.empty()) return;
  std::string content(textOf(input));
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(::fmemopen(content.data(), content.size(), "r"),
                                                             &std::fclose);
  std::size_t pieces = 0;
  while (const auto piece = HX::readSignalMapPiece(file.get())) {
    require(piece->text.size() <= 511, "a piece is no longer than the reader of old");
    require(++pieces <= content.size(), "each piece takes something of the file");
    checkLine(piece->text);
  }
  checkLine(content);
}

}  // namespace fuzz
