#pragma once

#include "server.h"

// Asio 1.74 uses std::exchange without including it.
#include <libmw/log.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <list>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include <boost/asio/dispatch.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <fmt/format.h>

// All that includes Beast: a file of it takes most of a minute to compile.

/// The connections of a server, of plain and of encrypted streams. Only its own source includes them.
namespace HX::web::detail {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using boost::system::error_code;
using tcp = asio::ip::tcp;

inline constexpr const char* kCategory = "web";
inline constexpr std::size_t kLongestReason = 120;  // A frame of control has 125 bytes.

inline std::string textOf(boost::string_view text) { return {text.data(), text.size()}; }

/// What is between commas, without blanks around it.
inline std::vector<std::string> listOf(boost::string_view header) {
  std::vector<std::string> parts;
  for (const auto& part : http::token_list(header)) parts.push_back(textOf(part));
  return parts;
}

/// @return None for a request that means two things, or nothing.
inline std::optional<Request> requestOf(const http::request<http::string_body>& message, const std::string& remote) {
  if (message.count(http::field::host) != 1 || message.count(http::field::origin) > 1) return std::nullopt;
  if (message.target().empty() || message.target().front() != '/') return std::nullopt;
  Request request;
  request.method = textOf(message.method_string());
  const auto mark = message.target().find('?');
  request.path = textOf(message.target().substr(0, mark));
  if (mark != boost::string_view::npos) request.query = textOf(message.target().substr(mark + 1));
  request.host = textOf(message[http::field::host]);
  if (const auto origin = message.find(http::field::origin); origin != message.end()) {
    request.origin = textOf(origin->value());
  }
  request.cookie = textOf(message[http::field::cookie]);
  request.authorization = textOf(message[http::field::authorization]);
  request.ifNoneMatch = textOf(message[http::field::if_none_match]);
  for (const std::string& coding : listOf(message[http::field::accept_encoding])) {
    if (coding == "gzip") request.takesGzip = true;
  }
  request.body = message.body();
  request.remote = remote;
  request.isUpgrade = websocket::is_upgrade(message);
  request.subprotocols = listOf(message[http::field::sec_websocket_protocol]);
  return request;
}

using Reply = http::response<http::span_body<const char>>;

/// A response as it is sent, with the body that it refers to.
struct Outgoing {
  Outgoing(const Response& response, const http::request<http::string_body>& request) : body(response.body) {
    message.version(request.version());
    message.result(response.status);
    message.keep_alive(request.keep_alive());
    if (!response.contentType.empty()) message.set(http::field::content_type, response.contentType);
    for (const auto& [name, value] : response.headers) message.set(name, value);
    const std::size_t size = body ? body->size() : 0;
    const bool bodiless = request.method() == http::verb::head || response.status == 304;
    if (!bodiless && body) message.body() = {body->data(), body->size()};
    if (response.status != 304) message.content_length(size);
  }

  std::shared_ptr<const std::string> body;
  Reply message;
};

/// One peer, as the server ends it.
class Connection {
 public:
  virtual ~Connection() = default;
  virtual void end() = 0;
};

/// What connections know of their server. All of it belongs to the server's thread, but for the count.
struct Shared {
  /// Those that were silent for longest first.
  using Connections = std::list<std::weak_ptr<Connection>>;

  explicit Shared(ServerOptions itsOptions) : options(std::move(itsOptions)) {}

  Handler* handler = nullptr;
  const ServerOptions options;
  asio::io_context io{1};
  std::optional<asio::ssl::context> tls;
  Connections requests;  ///< In which requests come, or may come.
  Connections sockets;
  std::atomic<std::size_t> count{0};
};

/// Where a connection stands among those of its server.
class Place {
 public:
  explicit Place(Shared& shared) : shared_(shared) { ++shared_.count; }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;
  ~Place() {
    leave();
    --shared_.count;
  }
  void take(Shared::Connections& list, const std::weak_ptr<Connection>& connection) {
    leave();
    list_ = &list;
    place_ = list.insert(list.end(), connection);
  }

 private:
  void leave() {
    if (list_) list_->erase(place_);
    list_ = nullptr;
  }

  Shared& shared_;
  Shared::Connections* list_ = nullptr;
  Shared::Connections::iterator place_;
};

template <class Stream>
class Line;

template <class Stream>
class WebSocket final : public Connection, public std::enable_shared_from_this<WebSocket<Stream>> {
 public:
  WebSocket(std::shared_ptr<Shared> shared, Stream&& stream, std::shared_ptr<SocketHandler> handler)
      : shared_(std::move(shared)),
        place_(*shared_),
        stream_(std::move(stream)),
        handler_(std::move(handler)),
        timer_(shared_->io) {}

  void run(const http::request<http::string_body>& request, const std::string& subprotocol) {
    place_.take(shared_->sockets, this->weak_from_this());
    beast::get_lowest_layer(stream_).expires_never();
    auto timeouts = websocket::stream_base::timeout::suggested(beast::role_type::server);
    timeouts.idle_timeout = shared_->options.limits.idle;
    timeouts.keep_alive_pings = true;
    stream_.set_option(timeouts);
    stream_.read_message_max(shared_->options.limits.message);
    stream_.set_option(websocket::stream_base::decorator([subprotocol](websocket::response_type& response) {
      if (!subprotocol.empty()) response.set(http::field::sec_websocket_protocol, subprotocol);
    }));
    stream_.async_accept(request, [self = this->shared_from_this()](error_code error) {
      if (error) return;
      self->isOpen_ = true;
      self->handler_->opened(std::make_shared<Line<Stream>>(self->shared_, self));
      self->read();
      self->awaitTick();
    });
  }

  void enqueue(Message message) {
    if (!isOpen_) return;
    unread_ += message.content->size();
    if (unread_ > shared_->options.limits.unread) {
      mw::log::warning(kCategory, "send", fmt::format("a WebSocket left {} bytes unread and is cut off", unread_));
      return end();
    }
    output_.push_back(std::move(message));
    if (output_.size() == 1) write();
  }

  void close(const std::string& reason) {
    if (!isOpen_) return;
    stream_.async_close({websocket::close_code::policy_error, reason.substr(0, kLongestReason)},
                        [self = this->shared_from_this()](error_code /*ignored*/) { self->finish(); });
  }

  void end() override {
    error_code ignored;
    beast::get_lowest_layer(stream_).socket().close(ignored);
    finish();
  }

  std::size_t unread() const noexcept { return unread_; }

 private:
  void read() {
    isReading_ = true;
    stream_.async_read(input_, [self = this->shared_from_this()](error_code error, std::size_t /*bytes*/) {
      self->isReading_ = false;
      if (error) return self->finish();
      const auto bytes = self->input_.data();
      self->handler_->message({static_cast<const char*>(bytes.data()), bytes.size()}, self->stream_.got_binary());
      self->input_.clear();
      // Who floods waits for the next tick, and the others do not wait for it.
      if (++self->readInTick_ < self->shared_->options.limits.messagesATick && self->isOpen_) self->read();
    });
  }

  void awaitTick() {
    timer_.expires_after(shared_->options.tick);
    timer_.async_wait([self = this->shared_from_this()](error_code error) {
      if (error || !self->isOpen_) return;
      self->readInTick_ = 0;
      if (!self->isReading_) self->read();
      self->handler_->tick();
      self->awaitTick();
    });
  }

  void write() {
    stream_.binary(output_.front().isBinary);
    stream_.async_write(asio::buffer(*output_.front().content),
                        [self = this->shared_from_this()](error_code error, std::size_t /*bytes*/) {
                          if (error) return self->finish();
                          if (self->output_.empty()) return;
                          self->unread_ -= self->output_.front().content->size();
                          self->output_.pop_front();
                          if (!self->output_.empty()) self->write();
                        });
  }

  void finish() {
    if (!std::exchange(isOpen_, false)) return;
    timer_.cancel();
    handler_->closed();
  }

  const std::shared_ptr<Shared> shared_;
  Place place_;
  websocket::stream<Stream> stream_;
  const std::shared_ptr<SocketHandler> handler_;
  asio::steady_timer timer_;
  beast::flat_buffer input_;
  std::deque<Message> output_;
  std::size_t unread_ = 0;
  std::size_t readInTick_ = 0;
  bool isReading_ = false;
  bool isOpen_ = false;
};

/// What handlers hold of a WebSocket, on any thread: it keeps none open, and may outlive the server.
template <class Stream>
class Line final : public Socket {
 public:
  Line(std::shared_ptr<Shared> shared, std::weak_ptr<WebSocket<Stream>> peer)
      : shared_(std::move(shared)), peer_(std::move(peer)) {}

  void send(Message message) override {
    asio::post(shared_->io, [peer = peer_, message = std::move(message)]() mutable {
      if (const auto socket = peer.lock()) socket->enqueue(std::move(message));
    });
  }
  std::size_t unread() const override {
    const auto socket = peer_.lock();
    return socket ? socket->unread() : 0;
  }
  void close(const std::string& reason) override {
    asio::post(shared_->io, [peer = peer_, reason] {
      if (const auto socket = peer.lock()) socket->close(reason);
    });
  }

 private:
  const std::shared_ptr<Shared> shared_;
  const std::weak_ptr<WebSocket<Stream>> peer_;
};

/// A connection until it has become a WebSocket, or has ended.
template <class Stream>
class HttpConnection final : public Connection, public std::enable_shared_from_this<HttpConnection<Stream>> {
 public:
  HttpConnection(std::shared_ptr<Shared> shared, Stream&& stream, std::string remote)
      : shared_(std::move(shared)), place_(*shared_), stream_(std::move(stream)), remote_(std::move(remote)) {}

  void run() {
    place_.take(shared_->requests, this->weak_from_this());
    if constexpr (std::is_same_v<Stream, beast::tcp_stream>) {
      read(shared_->options.limits.request);
    } else {
      beast::get_lowest_layer(stream_).expires_after(shared_->options.limits.request);
      stream_.async_handshake(asio::ssl::stream_base::server, [self = this->shared_from_this()](error_code error) {
        if (!error) self->read(self->shared_->options.limits.request);
      });
    }
  }

  void end() override {
    beast::get_lowest_layer(stream_).close();
    awaiting_.reset();
  }

 private:
  void read(std::chrono::milliseconds limit) {
    parser_.emplace();
    parser_->header_limit(static_cast<std::uint32_t>(shared_->options.limits.header));
    parser_->body_limit(shared_->options.limits.body);
    beast::get_lowest_layer(stream_).expires_after(limit);
    http::async_read(stream_, input_, *parser_,
                     [self = this->shared_from_this()](error_code error, std::size_t /*bytes*/) {
                       if (!error) return self->serve();
                       if (error == http::error::header_limit) return self->refuse(431, "the header is too long");
                       if (error == http::error::body_limit) return self->refuse(413, "the body is too long");
                       if (isMalformed(error)) return self->refuse(400, "this is no request");
                     });
  }

  static bool isMalformed(error_code error) {
    return error.category() == http::make_error_code(http::error::bad_method).category() &&
           error != http::error::end_of_stream && error != http::error::partial_message;
  }

  void refuse(unsigned status, const char* text) {
    parser_.emplace();
    parser_->get().version(11);
    parser_->get().keep_alive(false);
    write(Response::text(status, std::string(text) + "\n"));
  }

  void serve() {
    place_.take(shared_->requests, this->weak_from_this());  // Behind those that were silent for longer.
    const auto request = requestOf(parser_->get(), remote_);
    if (!request) return refuse(400, "a request has one Host, at most one Origin, and a path");
    if (!request->isUpgrade) return ask(*request);
    Upgrade upgrade = shared_->handler->upgrade(*request);
    if (!upgrade.handler) return write(upgrade.refusal);
    std::make_shared<WebSocket<Stream>>(shared_, std::move(stream_), std::move(upgrade.handler))
        ->run(parser_->get(), upgrade.subprotocol);
  }

  /// Nothing is read or written meanwhile, so the connection holds itself.
  void ask(const Request& request) {
    awaiting_ = this->shared_from_this();
    shared_->handler->answer(request, [shared = shared_, weak = this->weak_from_this()](Response response) {
      asio::dispatch(shared->io, [weak, response = std::move(response)] {
        const auto self = weak.lock();
        if (self && std::exchange(self->awaiting_, nullptr)) self->write(response);
      });
    });
  }

  void write(const Response& response) {
    beast::get_lowest_layer(stream_).expires_after(shared_->options.limits.request);
    outgoing_ = std::make_unique<Outgoing>(response, parser_->get());
    http::async_write(stream_, outgoing_->message,
                      [self = this->shared_from_this()](error_code error, std::size_t /*bytes*/) {
                        if (error || self->outgoing_->message.need_eof()) return self->hangUp();
                        self->read(self->shared_->options.limits.idle);
                      });
  }

  void hangUp() {
    error_code ignored;
    beast::get_lowest_layer(stream_).socket().shutdown(tcp::socket::shutdown_both, ignored);
  }

  const std::shared_ptr<Shared> shared_;
  Place place_;
  Stream stream_;
  const std::string remote_;
  beast::flat_buffer input_{64 << 10};
  std::optional<http::request_parser<http::string_body>> parser_;
  std::unique_ptr<Outgoing> outgoing_;
  std::shared_ptr<HttpConnection> awaiting_;  ///< This one, while its request is being answered.
};

}  // namespace HX::web::detail
