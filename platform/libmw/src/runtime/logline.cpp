#include "logline.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <iterator>

#include <fmt/format.h>
#include <spdlog/sinks/stdout_sinks.h>

namespace mw::log {
namespace {

void appendEscaped(std::string& line, std::string_view text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\n') {
      line += "\\n";
    } else if (c == '\r') {
      line += "\\r";
    } else if (c == '\t') {
      line += "\\t";
    } else if (byte < 0x20 || byte == 0x7f) {
      fmt::format_to(std::back_inserter(line), "\\x{:02x}", byte);
    } else {
      line += c;
    }
  }
}

/// Keeps a write to a pipe without a reader from ending the process, without touching the process's handlers: the
/// signal is raised for the writing thread, which holds it back and then takes it out.
class PipeSignalGuard {
 public:
  PipeSignalGuard() noexcept {
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    // One that is pending already is somebody else's.
    isHeld_ = !sigismember(&pending, SIGPIPE) && pthread_sigmask(SIG_BLOCK, &pipe_, &before_) == 0;
  }
  PipeSignalGuard(const PipeSignalGuard&) = delete;
  PipeSignalGuard& operator=(const PipeSignalGuard&) = delete;
  ~PipeSignalGuard() {
    if (!isHeld_) return;
    const timespec now{};
    while (sigtimedwait(&pipe_, nullptr, &now) == -1 && errno == EINTR) {
    }
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }

 private:
  sigset_t pipe_{};
  sigset_t before_{};
  bool isHeld_ = false;
};

/// Never destroyed, because records are written until the process has ended.
spdlog::sinks::stderr_sink_mt& stderrSink() {
  static auto* sink = [] {
    auto* made = new spdlog::sinks::stderr_sink_mt;
    made->set_pattern("%v");
    return made;
  }();
  return *sink;
}

}  // namespace

std::string formatLine(const LogRecord& record) {
  std::string line = fmt::format("[{}] ", toString(record.level));
  appendEscaped(line, record.category);
  line += ' ';
  appendEscaped(line, record.function);
  line += ": ";
  appendEscaped(line, record.text);
  return line;
}

void writeStderr(const std::string& line) noexcept {
  const PipeSignalGuard guard;
  try {
    stderrSink().log(spdlog::details::log_msg("", spdlog::level::info, line));
  } catch (...) {
    // There is nowhere left to tell it.
  }
}

}  // namespace mw::log
