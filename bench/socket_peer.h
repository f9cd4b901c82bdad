#pragma once

// The other processes of the transport's benchmarks: they are started beside this one and end with it.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace bench {

/// A program that runs until this object goes.
class Child {
 public:
  /// @param input  What its standard input is to be; that of this process where it is -1.
  explicit Child(std::vector<std::string> arguments, int input = -1) {
    std::vector<char*> raw;
    raw.reserve(arguments.size() + 1);
    for (auto& argument : arguments) raw.push_back(argument.data());
    raw.push_back(nullptr);
    ::posix_spawn_file_actions_t files;
    ::posix_spawn_file_actions_init(&files);
    if (input >= 0) ::posix_spawn_file_actions_adddup2(&files, input, STDIN_FILENO);
    if (::posix_spawnp(&pid_, raw.front(), &files, nullptr, raw.data(), environ) != 0) pid_ = -1;
    ::posix_spawn_file_actions_destroy(&files);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (pid_ < 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  bool isRunning() const { return pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == 0; }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

/// A folder for the sockets of one run. It stands for XDG_RUNTIME_DIR.
inline const std::string& socketFolder() {
  static const struct Folder {
    Folder() {
      std::string pattern = "/tmp/korvo_bench.XXXXXX";
      path = ::mkdtemp(pattern.data());
      ::setenv("XDG_RUNTIME_DIR", path.c_str(), 1);
    }
    ~Folder() { std::filesystem::remove_all(path); }
    std::string path;
  } folder;
  return folder.path;
}

/// Bytes to and from a Unix-domain socket, waiting for each.
class PlainSocket {
 public:
  /// Waits up to some seconds for somebody to listen there.
  explicit PlainSocket(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    for (int i = 0; ::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0; ++i) {
      if (i == 500) throw std::runtime_error("nobody listens on " + path);
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  /// @param socket  Connected; closed at the end.
  explicit PlainSocket(int socket) : socket_(socket) {}
  PlainSocket(const PlainSocket&) = delete;
  PlainSocket& operator=(const PlainSocket&) = delete;
  ~PlainSocket() { ::close(socket_); }

  void send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t written = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (written <= 0) throw std::runtime_error("the peer has gone");
      bytes.remove_prefix(static_cast<std::size_t>(written));
    }
  }
  /// As many bytes.
  void receive(std::string& bytes) {
    for (std::size_t filled = 0; filled < bytes.size();)
      filled += receiveSome(bytes.data() + filled, bytes.size() - filled);
  }
  std::size_t receiveSome(char* at, std::size_t size) {
    const ssize_t received = ::recv(socket_, at, size, 0);
    if (received <= 0) throw std::runtime_error("the peer has gone");
    return static_cast<std::size_t>(received);
  }

 private:
  const int socket_;
};

}  // namespace bench
