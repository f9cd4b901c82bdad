#include "paint.h"

#include <libmw/os.h>

#include <array>
#include <unistd.h>

#include <fmt/format.h>

namespace korvo {

Painter Painter::ofOutput() {
  const std::string terminal = mw::os::getenv("TERM");
  const bool knowsColours = isatty(STDOUT_FILENO) != 0 && !terminal.empty() && terminal != "dumb";
  return Painter(knowsColours && mw::os::getenv("NO_COLOR").empty());
}

std::string Painter::operator()(Style style, std::string_view text) const {
  // In the order of `Style`.
  constexpr std::array<std::string_view, 9> kCodes{"", "7", "1", "1;32", "2", "36", "35", "33", "31"};
  if (!isOn_ || style == Style::Plain) return std::string(text);
  return fmt::format("\x1b[{}m{}\x1b[0m", kCodes[static_cast<std::size_t>(style)], text);
}

}  // namespace korvo
