#include "arguments.h"
#include "commands.h"
#include "inputvalues.h"
#include "keyquestions.h"
#include "keyrecord.h"
#include "linesource.h"
#include "output.h"
#include "target.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <unistd.h>

#include <fmt/format.h>

namespace korvo {
namespace {

using namespace std::chrono_literals;

/// What the memory raises about itself means nothing at another time or in another memory.
bool isOfTheMemoryItself(const std::string& key) {
  constexpr std::array kNames{"HXMemory/KeyAdded", "HXMemory/KeyRemoved", "HXMemory/KeyTypeChanged", "KorvoReady"};
  return std::ranges::count(kNames, key) > 0;
}

void exportKeys(Context& context, Arguments& arguments) {
  const std::string filter = arguments.atEnd() ? "" : arguments.word("FILTER");
  arguments.end();
  auto memory = context.target.memory();
  auto keys = memory.getDataList(filter);
  std::erase_if(keys, isOfTheMemoryItself);
  std::ranges::sort(keys);
  const std::vector<KeyQuestion> questions{askKind, askValue, askDescription};
  askInParts(*memory.proxy(), keys, questions, [&](const std::string& key, KeyAnswers& answers) {
    const auto kind = std::move(answers[0]).take<std::string>();
    const auto value = std::move(answers[1]).take<HX::HXValue>();
    const auto described = std::move(answers[2]).take<HX::HXValue>();
    context.output.line(toLine({key, kind, value, described[described.getSize() - 1][2].asString()}));
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

/// Stores records and tells how many, on a terminal now and then.
class Import {
 public:
  Import(HX::HXMemoryProxy memory, Output& output) : memory_(std::move(memory)), output_(output) {}
  Import(const Import&) = delete;
  Import& operator=(const Import&) = delete;
  ~Import() { output_.status(""); }

  void add(std::string_view line) {
    store(memory_, toRecord(line));
    ++count_;
    if (const auto now = Clock::now(); now >= next_) {
      output_.status(fmt::format("{} keys imported", count_));
      next_ = now + 200ms;
    }
  }

 private:
  using Clock = std::chrono::steady_clock;
  HX::HXMemoryProxy memory_;
  Output& output_;
  std::size_t count_ = 0;
  Clock::time_point next_ = Clock::now() + 200ms;
};

/// What the memory takes, with each byte escaped, fits a line.
constexpr std::size_t kLongestRecord = std::size_t{512} << 20;

void importKeys(Context& context, Arguments& arguments) {
  const bool keepsGoing = arguments.takeFlag("--keep-going");
  const std::string path = arguments.word("FILE");
  arguments.end();
  const InputFile file(path);
  FileLines lines(file.file(), -1, kLongestRecord);
  const std::string name = path == "-" ? "standard input" : path;
  Import import(context.target.memory(), context.output);
  std::size_t failed = 0;
  forEachLine(
      lines, name, [&](std::string_view line) { import.add(line); },
      [&](const std::string& error) {
        if (!keepsGoing) throw std::runtime_error(error + "; nothing after it was imported");
        context.output.error(error);
        ++failed;
      });
  if (failed > 0) throw std::runtime_error(fmt::format("{}: {} lines were not imported", name, failed));
}

constexpr Flag kImportFlags[] = {{"--keep-going", "Report a bad line and go on with the next"}};

constexpr std::array kCommands{
    Command{
        "export", "[FILTER]", "Prints the keys that contain FILTER, or all, in a form that import reads.",
        "Each as {\"key\":KEY,\"kind\":KIND,\"value\":VALUE,\"description\":TEXT}, sorted. Where JSON cannot carry a\n"
        "value as it is, a 32-bit float or bytes, \"msgpack\" has it too, in hexadecimal digits. The memory's own\n"
        "events are left out.",
        "export Arm/ > arm.jsonl", exportKeys},
    Command{"import", "FILE", "Stores what export printed; - reads standard input.",
            "Data is stored, events are raised. Stops at the first bad line and reports its number; what stood above\n"
            "it is stored.",
            "import arm.jsonl", importKeys, kImportFlags},
};

}  // namespace

std::span<const Command> transferCommands() { return kCommands; }

}  // namespace korvo
