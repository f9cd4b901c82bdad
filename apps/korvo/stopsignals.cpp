#include "stopsignals.h"

#include <cerrno>
#include <csignal>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

namespace korvo {
namespace {

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

ImpatientExit::ImpatientExit(StopSignals& signals)
    : thread_([this, &signals] {
        while (waitReadable({ended_.file(), signals.file()}) == 1) {
          if (signals.take() == SIGINT) _exit(kInterrupted);
        }
      }) {}

ImpatientExit::~ImpatientExit() {
  ended_.set();
  thread_.join();
}

}  // namespace korvo
