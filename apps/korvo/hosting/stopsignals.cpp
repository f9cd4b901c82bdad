#include "stopsignals.h"

#include "line/commandline.h"

#include <libmw/log.h>
#include <libmw/step.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <optional>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

#include <fmt/format.h>

namespace korvo {
namespace {

using namespace std::chrono_literals;

constexpr int kInterrupted = 128 + SIGINT;

sigset_t stopSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

}  // namespace

StopSignals::StopSignals() {
  sigset_t set = stopSet();
  // A terminal that closes ends the program in order, unless it was told to outlive it (nohup).
  if (std::signal(SIGHUP, SIG_DFL) == SIG_IGN) {
    std::signal(SIGHUP, SIG_IGN);
  } else {
    sigaddset(&set, SIGHUP);
  }
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  // A shell starts background commands with SIGINT ignored, and what is ignored never arrives.
  std::signal(SIGINT, SIG_DFL);
  std::signal(SIGPIPE, SIG_IGN);
  file_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (file_ < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
}

StopSignals::~StopSignals() { ::close(file_); }

int StopSignals::take() {
  signalfd_siginfo info{};
  return read(file_, &info, sizeof(info)) == sizeof(info) ? static_cast<int>(info.ssi_signo) : 0;
}

Ending::Ending(StopSignals& signals, std::chrono::milliseconds limit)
    : signals_(signals), limit_(limit), thread_([this] { watch(); }) {}

Ending::~Ending() {
  over_.set();
  thread_.join();
}

void Ending::watch() {
  using Clock = std::chrono::steady_clock;
  constexpr int kNoFile = -1;  // Is not waited for.
  std::optional<Clock::time_point> began;
  while (true) {
    std::chrono::milliseconds left{-1};
    if (began && limit_.count() > 0) {
      left = std::max(std::chrono::ceil<std::chrono::milliseconds>(*began + limit_ - Clock::now()), 0ms);
    }
    switch (waitReadable({over_.file(), signals_.file(), began ? kNoFile : begun_.file()}, left)) {
      case 0:
        return;
      case 1:
        if (signals_.take() == SIGINT && began) _exit(kInterrupted);
        asked_.set();
        [[fallthrough]];
      case 2:
        if (!began) began = Clock::now();
        break;
      default:
        giveUp();
    }
  }
}

void Ending::giveUp() const {
  mw::log::error("korvo", "stop",
                 fmt::format("not over {} s after it began: {}; ending without",
                             std::chrono::duration<double>(limit_).count(), fmt::join(mw::Step::underWay(), ", ")));
  _exit(kFailed);
}

}  // namespace korvo
