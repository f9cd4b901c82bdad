#include "fullscreen.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <sys/ioctl.h>
#include <unistd.h>

#include <fmt/format.h>

namespace korvo {
namespace {

void write(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

/// What a signal handler may touch: the event of the one screen that there is.
std::atomic<Event*> resizedEvent = nullptr;

void noteResize(int /*signal*/) {
  const int error = errno;
  if (Event* const event = resizedEvent.load()) event->set();
  errno = error;
}

}  // namespace

Size terminalSize() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) return {};
  return {size.ws_col, size.ws_row};
}

FullScreen::FullScreen() : hasKeyboard_(tcgetattr(STDIN_FILENO, &before_) == 0) {
  if (hasKeyboard_) {
    termios raw = before_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cc[VSUSP] = raw.c_cc[VQUIT] = _POSIX_VDISABLE;
    tcsetattr(STDIN_FILENO, TCSANOW, &raw);
  }
  resizedEvent = &resized_;
  struct sigaction action {};
  action.sa_handler = noteResize;
  action.sa_flags = SA_RESTART;
  sigaction(SIGWINCH, &action, &formerResize_);
  write("\x1b[?1049h\x1b[?25l");
}

FullScreen::~FullScreen() {
  sigaction(SIGWINCH, &formerResize_, nullptr);
  resizedEvent = nullptr;
  write("\x1b[?25h\x1b[?1049l");
  if (hasKeyboard_) tcsetattr(STDIN_FILENO, TCSANOW, &before_);
}

void FullScreen::show(const std::vector<std::string>& lines) {
  std::string frame = "\x1b[H";
  for (std::size_t i = 0; i < lines.size(); ++i) frame += (i ? "\r\n" : "") + lines[i] + "\x1b[K";
  write(frame + "\x1b[J");
}

LogLine::LogLine() : onScreen_(isatty(STDERR_FILENO) != 0) {
  if (!onScreen_) return;
  before_ = mw::log::setStderrSink(false);
  sink_ = mw::log::addSink([this](const mw::LogRecord& record) {
    const std::lock_guard lock(mutex_);
    text_ = fmt::format("[{}] {} {}", mw::toString(record.level), record.category, record.text);
  });
}

LogLine::~LogLine() {
  if (!onScreen_) return;
  mw::log::removeSink(sink_);
  mw::log::setStderrSink(before_);
}

std::string LogLine::text() const {
  const std::lock_guard lock(mutex_);
  return text_;
}

}  // namespace korvo
