#pragma once

#include "linesource.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace korvo {

class Output;

/// Where the console keeps its history: `$XDG_STATE_HOME/korvo/history`, `~/.local/state` when that is not set; empty
/// when there is no home either.
std::filesystem::path historyPath();

/// Lines that a person types on the terminal, with editing, completion and a history that outlasts the process.
///
/// While a line is being typed, what other threads print on the output appears above it.
class LineEditor final : public LineSource {
 public:
  /// What the last word of a line may become, sorted.
  using Completer = std::function<std::vector<std::string>(std::string_view line)>;

  /// @param output   Prints on this terminal. Must outlive the editor.
  /// @param stop     Lines end as soon as this file is readable.
  /// @param history  Read now and written at the end; empty for none. A file that cannot be used is done without.
  LineEditor(Output& output, int stop, std::filesystem::path history, Completer complete);
  ~LineEditor() override;

  std::optional<std::string> next() override;

 private:
  class Terminal;
  std::unique_ptr<Terminal> terminal_;
};

}  // namespace korvo
