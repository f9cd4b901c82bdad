#include "checkmap.h"

#include "base/format.h"

#include <libmw/os.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <ostream>
#include <signalmapline.h>

#include <fmt/format.h>

namespace korvo {
namespace {

using HX::SignalMapLine;

std::string verdictOn(const SignalMapLine& line) {
  switch (line.verdict) {
    case SignalMapLine::Verdict::Accepted:
      return fmt::format("accepted {} {} {}", line.service, line.signal, line.event);
    case SignalMapLine::Verdict::Rejected:
      return "rejected: " + line.reason;
    case SignalMapLine::Verdict::Nothing:
      break;
  }
  return "nothing";
}

/// Numbers lines, and the pieces of those that are read in several.
class Numbering {
 public:
  std::string next(bool endsLine) {
    if (atLineStart_) {
      ++line_;
      piece_ = 0;
    }
    ++piece_;
    const bool whole = piece_ == 1 && endsLine;
    atLineStart_ = endsLine;
    return whole ? fmt::format("{}", line_) : fmt::format("{}.{}", line_, piece_);
  }

 private:
  bool atLineStart_ = true;
  int line_ = 0;
  int piece_ = 0;
};

}  // namespace

int checkMap(const std::string& path, std::ostream& verdicts, std::ostream& errors) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(mw::os::fopen(path, "r"), &std::fclose);
  int status = 0;
  Numbering numbers;
  errno = file ? 0 : errno;
  for (auto piece = file ? HX::readSignalMapPiece(file.get()) : std::nullopt; piece;) {
    auto following = HX::readSignalMapPiece(file.get());
    const SignalMapLine line = HX::parseSignalMapLine(piece->text);
    if (line.verdict == SignalMapLine::Verdict::Rejected) status = 1;
    // The last line of a file may lack its end.
    verdicts << escapeControls(numbers.next(piece->endsLine || !following) + ": " + verdictOn(line)) << '\n';
    piece = std::move(following);
  }
  if (file && !std::ferror(file.get())) return status;
  errors << escapeControls(fmt::format("error: {}: {}", path, std::strerror(errno))) << '\n';
  return 2;
}

}  // namespace korvo
