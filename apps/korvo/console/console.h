#pragma once

#include "commands/commands.h"

#include <string>
#include <string_view>
#include <vector>

namespace korvo {

class LineSource;

/// Executes lines: one command a line, blank ones ignored. Whatever a line does or holds, the next one is executed.
class Console {
 public:
  explicit Console(Context context) : context_(context) {}

  /// Executes every line of `lines` until they end, one asks for the end, or nobody reads the output any more.
  void run(LineSource& lines);

  /// Executes one line. Errors go to the output: `error: MODULE.METHOD: MESSAGE` where a module reports it, else
  /// `error: MESSAGE`.
  /// @param line  Without its end; a carriage return at the end is ignored.
  void execute(std::string_view line) noexcept;

  /// What the last word of `line` may become: commands for the first word, keys of the memory after it.
  std::vector<std::string> complete(std::string_view line);

 private:
  void dispatch(std::string_view line);

  Context context_;
};

}  // namespace korvo
