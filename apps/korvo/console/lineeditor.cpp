#include "lineeditor.h"

#include "base/event.h"
#include "base/output.h"

#include <libmw/os.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <histedit.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace korvo {

namespace fs = std::filesystem;

fs::path historyPath() {
  fs::path folder = mw::os::getenv("XDG_STATE_HOME");
  if (!folder.is_absolute()) {
    const fs::path home = mw::os::getenv("HOME");
    if (!home.is_absolute()) return {};
    folder = home / ".local" / "state";
  }
  return folder / "korvo" / "history";
}

namespace {

constexpr int kHistoryLines = 1000;
constexpr const char* kPrompt = "korvo> ";

std::string commonBeginning(const std::vector<std::string>& words) {
  const auto& [least, greatest] = std::pair(words.front(), words.back());
  const auto differ = std::mismatch(least.begin(), least.end(), greatest.begin(), greatest.end());
  return {least.begin(), differ.first};
}

}  // namespace

/// The handles of the editing library, and what its callbacks need.
class LineEditor::Terminal {
 public:
  Terminal(Output& output, int stop, fs::path history, Completer complete)
      : output_(output),
        stop_(stop),
        historyFile_(std::move(history)),
        complete_(std::move(complete)),
        editor_(el_init("korvo", stdin, stdout, stderr)),
        history_(history_init()) {
    if (!editor_ || !history_) throw std::system_error(errno, std::generic_category(), "terminal");
    el_set(editor_, EL_CLIENTDATA, this);
    el_set(editor_, EL_EDITOR, "emacs");
    el_set(
        editor_, EL_PROMPT, +[](EditLine*) { return const_cast<char*>(kPrompt); });
    el_set(editor_, EL_GETCFN, &readCharacter);
    el_set(editor_, EL_ADDFN, "korvo-complete", "Completes a command or a key", &completeWord);
    el_set(editor_, EL_BIND, "^I", "korvo-complete", nullptr);
    el_set(editor_, EL_BIND, "^R", "em-inc-search-prev", nullptr);
    el_set(editor_, EL_HIST, ::history, history_);
    useHistory(H_SETSIZE, kHistoryLines);
    useHistory(H_SETUNIQUE, 1);
    if (!historyFile_.empty()) useHistory(H_LOAD, historyFile_.c_str());
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  ~Terminal() {
    saveHistory();
    history_end(history_);
    el_end(editor_);
  }

  std::optional<std::string> readLine() {
    output_.hold([this] { printed_.set(); });
    int count = 0;
    const char* text = el_gets(editor_, &count);
    const bool got = text && count > 0;
    if (!got) std::fputs("\n", stdout);
    output_.release();
    if (!got) return std::nullopt;
    std::string line(text, static_cast<std::size_t>(count));
    if (line.ends_with('\n')) line.pop_back();
    if (line.find_first_not_of(" \t") != std::string::npos) useHistory(H_ENTER, line.c_str());
    return line;
  }

 private:
  template <class Argument>
  int useHistory(int operation, Argument argument) {
    HistEvent event;
    return ::history(history_, &event, operation, argument);
  }

  /// Writes it beside the old one, which it replaces when it is whole: a full disk must not cost what was there.
  void saveHistory() {
    if (historyFile_.empty()) return;
    std::error_code impossible;  // A console without a writable home works all the same.
    fs::create_directories(historyFile_.parent_path(), impossible);
    const std::string made = fmt::format("{}.{}", historyFile_.string(), getpid());
    std::FILE* const file = std::fopen(made.c_str(), "we");
    if (!file) return;
    const bool written = useHistory(H_SAVE_FP, file) >= 0 && std::ferror(file) == 0;
    if (std::fclose(file) == 0 && written) fs::rename(made, historyFile_, impossible);
    fs::remove(made, impossible);
  }

  static Terminal& of(EditLine* editor) {
    void* data = nullptr;
    el_get(editor, EL_CLIENTDATA, &data);
    return *static_cast<Terminal*>(data);
  }

  /// 1 with the next character, 0 at the end.
  static int readCharacter(EditLine* editor, wchar_t* character) {
    Terminal& self = of(editor);
    std::mbstate_t state{};
    while (true) {
      const int ready = waitReadable({self.stop_, self.printed_.file(), STDIN_FILENO});
      if (ready == 0) return 0;
      if (ready == 1) {
        self.printed_.clear();
        if (self.output_.writeHeld()) el_set(editor, EL_REFRESH);
        continue;
      }
      char byte = 0;
      if (read(STDIN_FILENO, &byte, 1) != 1) return 0;
      switch (std::mbrtowc(character, &byte, 1, &state)) {
        case static_cast<std::size_t>(-2):
          continue;  // The rest of the character follows.
        case static_cast<std::size_t>(-1):
          *character = L'?';
          return 1;
        default:
          return 1;
      }
    }
  }

  static unsigned char completeWord(EditLine* editor, int) {
    Terminal& self = of(editor);
    const LineInfo* line = el_line(editor);
    const std::string_view typed(line->buffer, static_cast<std::size_t>(line->cursor - line->buffer));
    const auto words = self.complete_(typed);
    if (words.empty()) return CC_ERROR;
    const std::size_t length = typed.size() - (typed.find_last_of(" \t") + 1);
    std::string added = commonBeginning(words).substr(length);
    if (words.size() == 1) added += ' ';
    if (!added.empty()) return el_insertstr(editor, added.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
    std::fputc('\n', stdout);
    for (const auto& word : words) std::fprintf(stdout, "%s\n", word.c_str());
    return CC_REDISPLAY;
  }

  Output& output_;
  const int stop_;
  const fs::path historyFile_;
  const Completer complete_;
  Event printed_;
  EditLine* const editor_;
  History* const history_;
};

LineEditor::LineEditor(Output& output, int stop, fs::path history, Completer complete)
    : terminal_(std::make_unique<Terminal>(output, stop, std::move(history), std::move(complete))) {}

LineEditor::~LineEditor() = default;

std::optional<std::string> LineEditor::next() { return terminal_->readLine(); }

}  // namespace korvo
