#pragma once

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace mw {

/// A process that keeps to no protocol: bytes out, bytes in.
class RawPeer {
 public:
  explicit RawPeer(const std::string& socket) : file_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socket.copy(address.sun_path, sizeof address.sun_path - 1);
    if (::connect(file_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("cannot connect to " + socket);
    }
  }
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;
  ~RawPeer() { ::close(file_); }

  /// @return False when the other side has ended the connection.
  bool send(std::string_view bytes) const {
    while (!bytes.empty()) {
      const ssize_t sent = ::send(file_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent < 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
  }

  /// Whether more bytes, or the end, come within some time.
  bool hasMore(std::chrono::milliseconds limit) const {
    pollfd file{file_, POLLIN, 0};
    return ::poll(&file, 1, static_cast<int>(limit.count())) > 0;
  }

  /// Waits for more bytes. @return Empty when the connection has ended.
  std::string receive() const {
    if (!hasMore(std::chrono::seconds(30))) throw std::runtime_error("nothing comes");
    std::string bytes(65536, '\0');
    const ssize_t count = ::recv(file_, bytes.data(), bytes.size(), 0);
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return bytes;
  }

  /// Reads up to `text`, for heartbeats come between, and says meanwhile that it is alive itself.
  /// @return What was read; empty when the connection has ended.
  std::string awaitText(std::string_view text) const {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    std::string received;
    while (std::chrono::steady_clock::now() < end) {
      if (!hasMore(std::chrono::seconds(1))) {
        send("\x93\x02\xabkorvo.alive\x90");
        continue;
      }
      const std::string more = receive();
      if (more.empty()) return {};
      if ((received += more).find(text) != std::string::npos) return received;
    }
    throw std::runtime_error("what is awaited does not come");
  }

  /// Reads until the other side ends the connection.
  void waitForEnd() const {
    while (!receive().empty()) {
    }
  }

 private:
  const int file_;
};

}  // namespace mw
