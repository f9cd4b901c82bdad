#pragma once

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <mutex>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace kit {

/// A server of NATS that lets everybody in, answers signs of life and nothing else, and does what no real one does when
/// it is asked to.
///
/// Threads: safe from any.
class FakeHub {
 public:
  FakeHub() : listening_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    // What clients write is to fill their side soon; connections have it from here.
    const int little = 4096;
    ::setsockopt(listening_, SOL_SOCKET, SO_RCVBUF, &little, sizeof(little));
    auto* const raw = reinterpret_cast<sockaddr*>(&address);
    if (::bind(listening_, raw, size) != 0 || ::listen(listening_, 8) != 0 ||
        ::getsockname(listening_, raw, &size) != 0) {
      throw std::runtime_error("no port for a hub");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
  }
  FakeHub(const FakeHub&) = delete;
  FakeHub& operator=(const FakeHub&) = delete;
  ~FakeHub() {
    hasEnded_ = true;
    thread_.join();
    for (const Client& client : clients_) ::close(client.socket);
    ::close(listening_);
  }

  std::string url() const { return "nats://127.0.0.1:" + std::to_string(port_); }
  /// Reads nothing any more once this returns.
  void freeze() {
    const std::lock_guard lock(mutex_);
    isFrozen_ = true;
  }
  /// Tells all clients whose connections have this name.
  void tell(const std::string& name, const std::string& line) {
    const std::lock_guard lock(mutex_);
    for (const Client& client : clients_) {
      if (client.name == name) say(client, line);
    }
  }
  /// Ends their connections without a word.
  void hangUp(const std::string& name) {
    const std::lock_guard lock(mutex_);
    for (const Client& client : clients_) {
      if (client.name == name) ::shutdown(client.socket, SHUT_RDWR);
    }
  }

 private:
  struct Client {
    int socket;
    std::string name;
    std::string unread;  // The begin of a line.
  };

  void run() {
    constexpr int kLook = 20;  // Milliseconds, between two looks at what is wanted.
    while (!hasEnded_) {
      std::vector<pollfd> files{{listening_, POLLIN, 0}};
      for (const Client& client : clients_) files.push_back({client.socket, POLLIN, 0});
      const bool isAsked = ::poll(files.data(), files.size(), kLook) > 0;
      const std::lock_guard lock(mutex_);
      if (isFrozen_) return;
      if (!isAsked) continue;
      for (std::size_t i = files.size(); i-- > 1;) {
        if (files[i].revents != 0 && !read(clients_[i - 1])) forget(i - 1);
      }
      if (files[0].revents != 0) accept();
    }
  }
  void accept() {
    clients_.push_back({::accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC), {}, {}});
    say(clients_.back(),
        R"(INFO {"server_id":"fake","version":"2.9.10","proto":1,"headers":true,"max_payload":1048576})");
  }
  void forget(std::size_t i) {
    ::close(clients_[i].socket);
    clients_.erase(clients_.begin() + static_cast<std::ptrdiff_t>(i));
  }
  bool read(Client& client) {
    char part[4096];
    const ssize_t size = ::recv(client.socket, part, sizeof(part), 0);
    if (size <= 0) return false;
    client.unread.append(part, static_cast<std::size_t>(size));
    for (auto end = client.unread.find("\r\n"); end != std::string::npos; end = client.unread.find("\r\n")) {
      hear(client, client.unread.substr(0, end));
      client.unread.erase(0, end + 2);
    }
    return true;
  }
  static void hear(Client& client, const std::string& line) {
    if (line == "PING") say(client, "PONG");
    constexpr std::string_view kName = R"("name":")";
    const auto begin = line.starts_with("CONNECT ") ? line.find(kName) : std::string::npos;
    if (begin == std::string::npos) return;
    client.name = line.substr(begin + kName.size(), line.find('"', begin + kName.size()) - begin - kName.size());
  }
  static void say(const Client& client, const std::string& line) {
    const std::string text = line + "\r\n";
    static_cast<void>(::send(client.socket, text.data(), text.size(), MSG_NOSIGNAL));
  }

  const int listening_;
  int port_ = 0;
  std::atomic<bool> hasEnded_{false};
  std::mutex mutex_;  // Guards all below; the hub's thread alone changes which clients there are.
  bool isFrozen_ = false;
  std::vector<Client> clients_;
  std::thread thread_;
};

}  // namespace kit
