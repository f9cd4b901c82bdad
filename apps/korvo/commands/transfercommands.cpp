#include "arguments.h"
#include "base/keyquestions.h"
#include "base/output.h"
#include "base/target.h"
#include "commands.h"
#include "console/linesource.h"
#include "import.h"
#include "keyrecord.h"
#include "keys.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <fmt/format.h>

namespace korvo {
namespace {

void exportKeys(Context& context, Arguments& arguments) {
  const std::string filter = arguments.atEnd() ? "" : arguments.word("FILTER");
  arguments.end();
  auto memory = context.target.memory();
  auto keys = context.target.keys(filter);
  std::erase_if(keys, isOfTheMemoryItself);
  const std::vector<KeyQuestion> questions{askKind, askValue, askDescription};
  askInParts(*memory.proxy(), keys, questions, [&](const std::string& key, KeyAnswers& answers) {
    const auto kind = std::move(answers[0]).take<std::string>();
    const auto value = std::move(answers[1]).take<HX::HXValue>();
    const auto described = std::move(answers[2]).take<HX::HXValue>();
    context.output.line(toLine({key, kind, value, textOfDescription(described)}));
  });
}

/// An open file, or standard input, which stays open.
class InputFile {
 public:
  explicit InputFile(const std::string& path)
      : file_(path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (file_ < 0) throw InputError(fmt::format("{}: {}", path, std::strerror(errno)));
  }
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;
  ~InputFile() {
    if (file_ != STDIN_FILENO) close(file_);
  }
  int file() const { return file_; }

 private:
  const int file_;
};

/// What the memory takes, with each byte escaped, fits a line.
constexpr std::size_t kLongestRecord = std::size_t{512} << 20;

void importKeys(Context& context, Arguments& arguments) {
  const bool keepsGoing = arguments.has("--keep-going");
  const std::string path = arguments.word("FILE");
  arguments.end();
  const InputFile file(path);
  FileLines lines(file.file(), -1, kLongestRecord);
  const std::string name = path == "-" ? "standard input" : path;
  Import(context.target.memory(), context.output, name, keepsGoing).run(lines);
}

constexpr Option kImportOptions[] = {{"--keep-going", "", "Report a bad line and go on with the next"}};

constexpr std::array kTransferCommands{
    Command{
        "export", "[FILTER]", "Prints the keys that contain FILTER, or all, in a form that import reads.",
        "Each as {\"key\":KEY,\"kind\":KIND,\"value\":VALUE,\"description\":TEXT}, sorted. Where JSON cannot carry a\n"
        "value as it is, a 32-bit float or bytes, \"msgpack\" has it too, in hexadecimal digits. The memory's own\n"
        "events are left out.",
        "export Arm/ > arm.jsonl", exportKeys},
    Command{
        "import", "FILE", "Stores what export printed; - reads standard input.",
        "Data is stored, events are raised. Stops at the first bad line and reports its number; what stood above\n"
        "it is stored. Where the memory does not take data, lines below may have been on their way: the error says\n"
        "which one was the last.",
        "import arm.jsonl", importKeys, kImportOptions},
};

}  // namespace

std::span<const Command> transferCommands() { return kTransferCommands; }

}  // namespace korvo
