#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace HX::web {

/// What somebody asks for: a request, or the beginning of a WebSocket. Everything in it is a stranger's.
struct Request {
  std::string method;
  std::string path;  ///< Without the query; not decoded.
  std::string query;
  std::string host;                   ///< As in the header; a request without one, or with two, gets no further.
  std::optional<std::string> origin;  ///< What browsers say of the page that asks; other programs say nothing.
  std::string cookie;
  std::string authorization;
  std::string ifNoneMatch;
  bool takesGzip = false;
  std::string body;
  std::string remote;  ///< The address that it comes from, without the port.
  bool isUpgrade = false;
  std::vector<std::string> subprotocols;  ///< Offered for a WebSocket.
};

struct Response {
  unsigned status = 200;
  std::string contentType = "text/plain; charset=utf-8";
  std::vector<std::pair<std::string, std::string>> headers;
  /// Shared, since assets are sent to many.
  std::shared_ptr<const std::string> body;

  static Response text(unsigned status, std::string text) {
    Response response;
    response.status = status;
    response.body = std::make_shared<const std::string>(std::move(text));
    return response;
  }
};

/// One frame's content, shared by all who get it.
struct Message {
  std::shared_ptr<const std::string> content;
  bool isBinary = false;

  static Message text(std::string text) { return {std::make_shared<const std::string>(std::move(text)), false}; }
  static Message binary(std::string bytes) { return {std::make_shared<const std::string>(std::move(bytes)), true}; }
};

/// The far end of a WebSocket.
///
/// @par Threads  Any.
class Socket {
 public:
  virtual ~Socket() = default;
  /// Queues a message. A peer that leaves too much of it unread is cut off.
  virtual void send(Message message) = 0;
  virtual void close(const std::string& reason) = 0;
  /// Bytes that were sent, and that the peer has not taken yet. On the server's thread only.
  virtual std::size_t unread() const = 0;
};

/// What answers a WebSocket. Its functions run on the server's thread and must not wait.
class SocketHandler {
 public:
  virtual ~SocketHandler() = default;
  virtual void opened(std::shared_ptr<Socket> socket) = 0;
  virtual void message(std::string_view content, bool isBinary) = 0;
  /// Some thirty times a second.
  virtual void tick() = 0;
  virtual void closed() = 0;
};

/// How a wish for a WebSocket is answered: by a handler, or with a refusal.
struct Upgrade {
  std::shared_ptr<SocketHandler> handler;
  std::string subprotocol;  ///< Empty for none.
  Response refusal;         ///< When there is no handler.
};

/// What answers requests. Its functions run on the server's thread and must not wait.
class Handler {
 public:
  using Reply = std::function<void(Response)>;

  virtual ~Handler() = default;
  /// @param reply  To be called once, on any thread; also later, and when the server has gone.
  virtual void answer(const Request& request, Reply reply) = 0;
  virtual Upgrade upgrade(const Request& request) = 0;
};

}  // namespace HX::web
