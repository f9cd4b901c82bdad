#include "child.h"

#include <array>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace korvo::fleet {

using namespace std::chrono_literals;

Child::Child(const std::vector<std::string>& command) {
  std::array<int, 2> pipe{};
  if (::pipe2(pipe.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  std::vector<char*> words;
  for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));  // As execv has it.
  words.push_back(nullptr);
  const pid_t parent = ::getpid();
  pid_ = ::fork();
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) ::_exit(1);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    // A Ctrl-C is for this process, which ends them in turn.
    ::setpgid(0, 0);
    ::dup2(pipe[0], STDIN_FILENO);
    ::execv(words[0], words.data());
    ::_exit(127);
  }
  ::close(pipe[0]);
  input_ = pipe[1];
  ::fcntl(input_, F_SETFL, O_NONBLOCK);
  std::signal(SIGPIPE, SIG_IGN);
  if (pid_ < 0) throw std::runtime_error("cannot run " + command[0]);
}

Child::Child(Child&& other) noexcept : pid_(std::exchange(other.pid_, -1)), input_(std::exchange(other.input_, -1)) {}

Child::~Child() {
  if (pid_ < 0) return;
  ::close(input_);
  ::kill(pid_, SIGTERM);
  for (int i = 0; i < 50; ++i) {
    if (::waitpid(pid_, nullptr, WNOHANG) != 0) return;
    std::this_thread::sleep_for(100ms);
  }
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

bool Child::isRunning() const {
  siginfo_t info{};
  return pid_ > 0 && ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == 0;
}

void Child::send(int signal) const { ::kill(pid_, signal); }

void Child::write(std::string_view text) const {
  if (::write(input_, text.data(), text.size()) < 0) return;
}

}  // namespace korvo::fleet
