#include "liveview.h"

#include "event.h"
#include "format.h"
#include "livetable.h"
#include "output.h"
#include "target.h"

#include <libmw/log.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <mutex>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <fmt/format.h>

namespace korvo {
namespace {

using namespace std::chrono_literals;

struct Size {
  std::size_t columns = 80;
  std::size_t rows = 24;
};

Size terminalSize() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) return {};
  return {size.ws_col, size.ws_row};
}

/// The terminal's second screen, without a cursor and without echo; the first one comes back at the end.
class FullScreen {
 public:
  FullScreen() : hasKeyboard_(tcgetattr(STDIN_FILENO, &before_) == 0) {
    if (hasKeyboard_) {
      termios raw = before_;
      raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
      tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    }
    write("\x1b[?1049h\x1b[?25l");
  }
  FullScreen(const FullScreen&) = delete;
  FullScreen& operator=(const FullScreen&) = delete;
  ~FullScreen() {
    write("\x1b[?25h\x1b[?1049l");
    if (hasKeyboard_) tcsetattr(STDIN_FILENO, TCSANOW, &before_);
  }

  bool hasKeyboard() const { return hasKeyboard_; }

  void show(const std::vector<std::string>& lines) {
    std::string frame = "\x1b[H";
    for (std::size_t i = 0; i < lines.size(); ++i) frame += (i ? "\r\n" : "") + lines[i] + "\x1b[K";
    write(frame + "\x1b[J");
  }

 private:
  static void write(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
  }

  termios before_{};
  const bool hasKeyboard_;
};

/// The latest line of the log, kept off a screen that it would spoil.
class LogLine {
 public:
  LogLine() : onScreen_(isatty(STDERR_FILENO) != 0) {
    if (!onScreen_) return;
    before_ = mw::log::setStderrSink(false);
    sink_ = mw::log::addSink([this](const mw::LogRecord& record) {
      const std::lock_guard lock(mutex_);
      text_ = fmt::format("[{}] {} {}", mw::toString(record.level), record.category, record.text);
    });
  }
  LogLine(const LogLine&) = delete;
  LogLine& operator=(const LogLine&) = delete;
  ~LogLine() {
    if (!onScreen_) return;
    mw::log::removeSink(sink_);
    mw::log::setStderrSink(before_);
  }

  std::string text() const {
    const std::lock_guard lock(mutex_);
    return text_;
  }

 private:
  const bool onScreen_;
  bool before_ = true;
  mw::log::SinkId sink_ = 0;
  mutable std::mutex mutex_;  // Guards `text_`.
  std::string text_;
};

std::vector<std::string> sortedKeys(Target& target) {
  auto keys = target.memory().getDataListName();
  std::ranges::sort(keys);
  return keys;
}

class LiveScreen {
 public:
  LiveScreen(Target& target, std::string name, int stop) : target_(target), name_(std::move(name)), stop_(stop) {}

  void run() {
    while (true) {
      screen_.show(frame());
      const int keyboard = screen_.hasKeyboard() ? STDIN_FILENO : -1;
      const int ready = waitReadable({stop_, keyboard}, 500ms);
      if (ready == 0 || (ready == 1 && !obeyKeys())) return;
    }
  }

 private:
  std::vector<std::string> frame() {
    const Size size = terminalSize();
    page_ = std::max<std::size_t>(size.rows, 5) - 3;  // Title, head and last line.
    const auto keys = sortedKeys(target_);
    first_ = std::min(first_, keys.size() > page_ ? keys.size() - page_ : 0);
    const auto now = mw::systemNow();
    const std::span visible(keys.begin() + static_cast<std::ptrdiff_t>(first_), std::min(page_, keys.size() - first_));
    std::vector<std::string> lines{
        fit(fmt::format("korvo {}  {} keys  {}  q quits, arrows scroll", name_, keys.size(), clockTime(now)),
            size.columns)};
    for (auto& line : drawTable(readRows(*target_.memory().proxy(), visible, now), size.columns)) {
      lines.push_back(std::move(line));
    }
    lines.resize(std::max<std::size_t>(size.rows, 5) - 1);
    lines.push_back(fit(log_.text(), size.columns));
    return lines;
  }

  static std::string clockTime(mw::SystemTimePoint now) { return formatTime(now).substr(11, 8); }

  /// @return False when the person wants to leave.
  bool obeyKeys() {
    std::array<char, 64> typed;
    const ssize_t count = read(STDIN_FILENO, typed.data(), typed.size());
    if (count <= 0) return false;
    const std::string_view keys(typed.data(), static_cast<std::size_t>(count));
    if (keys.find_first_of("qQ\x04") != std::string_view::npos) return false;
    if (keys == "\x1b[A" || keys == "\x1bOA" || keys == "k") first_ -= std::min<std::size_t>(first_, 1);
    if (keys == "\x1b[B" || keys == "\x1bOB" || keys == "j") ++first_;
    if (keys == "\x1b[5~") first_ -= std::min(first_, page_);
    if (keys == "\x1b[6~" || keys == " ") first_ += page_;
    return true;
  }

  Target& target_;
  const std::string name_;
  const int stop_;
  LogLine log_;
  FullScreen screen_;
  std::size_t first_ = 0;  // Of the keys, on top of the page.
  std::size_t page_ = 1;   // Keys on one.
};

void printSnapshots(Target& target, Output& output, int stop) {
  while (output.works()) {
    const auto now = mw::systemNow();
    output.line(formatTime(now));
    for (const auto& line : drawTable(readRows(*target.memory().proxy(), sortedKeys(target), now), 0)) {
      output.line(line);
    }
    output.line("");
    if (waitReadable({stop}, 1s) == 0) return;
  }
}

}  // namespace

void runLiveView(Target& target, Output& output, const std::string& name, int stop) {
  if (isatty(STDOUT_FILENO)) {
    LiveScreen(target, name, stop).run();
  } else {
    printSnapshots(target, output, stop);
  }
}

}  // namespace korvo
