#include "logline.h"

#include <libmw/text.h>

#include <cerrno>
#include <csignal>
#include <ctime>

#include <fmt/format.h>
#include <spdlog/sinks/stdout_sinks.h>

namespace mw::log {
namespace {

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
  constexpr std::size_t kReadable = 2000;
  return fmt::format("[{}] {} {}: {}", toString(record.level), escapeControls(record.category),
                     escapeControls(record.function), escapeControls(shorten(record.text, kReadable)));
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
