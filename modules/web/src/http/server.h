#pragma once

#include "request.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace HX::web {

/// What strangers may cost.
struct ServerLimits {
  std::size_t header = 16 << 10;              ///< Bytes of a request before its body.
  std::size_t body = 4 << 10;                 ///< Bytes of a request's body: nothing larger than a token is ever sent.
  std::size_t message = 1 << 20;              ///< Bytes of a message that comes in by WebSocket.
  std::size_t unread = 32 << 20;              ///< Bytes that a WebSocket's peer may leave unread before it is cut off.
  std::size_t messagesATick = 64;             ///< So many of one WebSocket are read, the rest at the next tick.
  std::size_t connections = 1024;             ///< At once. Beyond it the one that is silent for longest makes room.
  std::chrono::milliseconds request{10'000};  ///< For a request to come in whole.
  std::chrono::milliseconds idle{30'000};     ///< Between requests of a connection; WebSockets are asked by a ping.
};

struct ServerOptions {
  std::string address = "127.0.0.1";
  std::uint16_t port = 0;   ///< 0: any that is free.
  std::string certificate;  ///< File in PEM, with its chain. Empty: no TLS.
  std::string key;          ///< File in PEM.
  std::chrono::milliseconds tick{33};
  ServerLimits limits;
};

/// HTTP and WebSocket, on one thread of its own. Knows nothing of what it serves, nor of who may have it.
///
/// @par Threads  Made and ended by one thread.
class Server {
 public:
  /// Takes the address; who comes waits until it serves.
  /// @throws std::runtime_error when the address cannot be had, or the certificate not be read; it says which.
  explicit Server(ServerOptions options);
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  /// Ends all connections. No function of a handler runs afterwards.
  ~Server();

  /// Answers from now on.
  /// @param handler  Must outlive the server.
  void serve(Handler& handler);
  /// The port that it has.
  std::uint16_t port() const noexcept;
  /// Tells how many connections there are at a moment, WebSockets included; on any thread, and when the server has
  /// gone.
  std::function<std::size_t()> connectionCount() const;

 private:
  class Engine;
  const std::unique_ptr<Engine> engine_;
};

}  // namespace HX::web
