#pragma once

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

extern char** environ;  // NOLINT(readability-redundant-declaration)

namespace kit {

/// A program that runs beside the test, its three standard streams connected to this object.
///
/// It is killed when the object goes, or when it outlives a limit, so that a failing test ends too.
///
/// Threads: one at a time.
class Process {
 public:
  using Clock = std::chrono::steady_clock;

  struct Result {
    int status = -1;  ///< Exit status; 128 plus its number for one that a signal ended.
    std::string out;
    std::string err;
  };

  /// @param command      The program's path and its arguments.
  /// @param environment  Variables to be set for it, as NAME=VALUE.
  explicit Process(std::vector<std::string> command, const std::vector<std::string>& environment = {}) {
    const Pipe in;
    const Pipe out;
    const Pipe err;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in.ends[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out.ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err.ends[1], STDERR_FILENO);
    std::vector<std::string> variables = environment;
    for (char** variable = environ; *variable; ++variable) variables.emplace_back(*variable);
    // A program that ends without reading its input must not end the test; the program itself gets the usual signals.
    std::signal(SIGPIPE, SIG_IGN);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t usual;
    sigemptyset(&usual);
    for (const int signal : {SIGPIPE, SIGINT, SIGTERM}) sigaddset(&usual, signal);
    posix_spawnattr_setsigdefault(&attributes, &usual);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    const int failure = posix_spawn(&pid_, command[0].c_str(), &actions, &attributes, pointers(command).data(),
                                    pointers(variables).data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    in_ = in.keep(1);
    fcntl(in_, F_SETFL, O_NONBLOCK);
    streams_[0].file = out.keep(0);
    streams_[1].file = err.keep(0);
    if (failure != 0) throw std::runtime_error("cannot run " + command[0]);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process() {
    if (pid_ > 0) {
      send(SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (in_ >= 0) close(in_);
    for (const Stream& stream : streams_) close(stream.file);
  }

  /// Appends to what its standard input gets while this object waits for it.
  void write(std::string_view text) { pending_ += text; }
  void send(int signal) const { kill(pid_, signal); }
  /// @return The process's id, until `finish` returns.
  pid_t id() const { return pid_; }

  /// Waits until `text` has been printed on its standard output or error.
  /// @return False when it ended, or the limit passed, without.
  bool waitFor(std::string_view text, std::chrono::seconds limit = std::chrono::seconds(30)) {
    const auto deadline = Clock::now() + limit;
    const auto isThere = [&](const Stream& stream) { return stream.text.find(text) != std::string::npos; };
    while (!isThere(streams_[0]) && !isThere(streams_[1])) {
      if (!readSome(deadline)) return false;
    }
    return true;
  }

  /// Ends its input once that is written, reads to the end and waits for it.
  /// @throws std::runtime_error when it does not end in time.
  Result finish(std::chrono::seconds limit = std::chrono::seconds(30)) {
    const auto deadline = Clock::now() + limit;
    inputEnds_ = true;
    while (readSome(deadline)) {
    }
    if (isOpen(0) || isOpen(1)) throw std::runtime_error("the program did not end; it printed " + streams_[0].text);
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return {code, streams_[0].text, streams_[1].text};
  }

 private:
  struct Stream {
    int file = -1;
    bool open = true;
    std::string text;
  };

  struct Pipe {
    Pipe() {
      if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    }
    /// Closes the other end.
    int keep(std::size_t end) const {
      close(ends[1 - end]);
      return ends[end];
    }
    std::array<int, 2> ends{};
  };

  static std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> all;
    for (auto& text : texts) all.push_back(text.data());
    all.push_back(nullptr);
    return all;
  }

  bool isOpen(std::size_t stream) const { return streams_[stream].open; }

  /// @return False when both streams have ended, or `deadline` has passed.
  bool readSome(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    feed();
    std::array<pollfd, 3> polled{};
    for (std::size_t i = 0; i < 2; ++i) polled[i] = {isOpen(i) ? streams_[i].file : -1, POLLIN, 0};
    if (left <= 0 || (!isOpen(0) && !isOpen(1))) return false;
    polled[2] = {pending_.empty() ? -1 : in_, POLLOUT, 0};
    if (poll(polled.data(), polled.size(), static_cast<int>(left)) <= 0) return false;
    for (std::size_t i = 0; i < 2; ++i) {
      if (polled[i].revents == 0) continue;
      std::array<char, 65536> chunk{};
      const ssize_t count = read(streams_[i].file, chunk.data(), chunk.size());
      if (count > 0) {
        streams_[i].text.append(chunk.data(), static_cast<std::size_t>(count));
      } else {
        streams_[i].open = false;
      }
    }
    return true;
  }

  void feed() {
    if (in_ < 0) return;
    const ssize_t count = ::write(in_, pending_.data() + written_, pending_.size() - written_);
    if (count > 0) written_ += static_cast<std::size_t>(count);
    // All is written, or it reads no more. What remains is not moved to the front each time: it may be much.
    if (written_ == pending_.size() || (count < 0 && errno != EAGAIN)) {
      pending_.clear();
      written_ = 0;
    }
    if (inputEnds_ && pending_.empty()) close(std::exchange(in_, -1));
  }

  pid_t pid_ = -1;
  int in_ = -1;
  std::string pending_;  // Input, of which `written_` bytes are written.
  std::size_t written_ = 0;
  bool inputEnds_ = false;
  std::array<Stream, 2> streams_;
};

/// Runs a program to its end.
inline Process::Result runProcess(std::vector<std::string> command, std::string_view input = {},
                                  const std::vector<std::string>& environment = {}) {
  Process process(std::move(command), environment);
  process.write(input);
  return process.finish();
}

}  // namespace kit
