#include "server.h"

#include "connections.h"

#include <stdexcept>
#include <thread>

namespace HX::web {
namespace {

using namespace detail;

std::string remoteOf(const tcp::socket& socket) {
  error_code failed;
  const auto end = socket.remote_endpoint(failed);
  return failed ? std::string() : end.address().to_string();
}

[[noreturn]] void fail(const std::string& what, const error_code& error) {
  throw std::runtime_error(fmt::format("{}: {}", what, error.message()));
}

tcp::acceptor listenAt(asio::io_context& io, const ServerOptions& options) {
  const std::string what = fmt::format("the page cannot be served at {} port {}", options.address, options.port);
  error_code error;
  const auto address = asio::ip::make_address(options.address, error);
  if (error) fail(what, error);
  const tcp::endpoint end(address, options.port);
  tcp::acceptor acceptor(io);
  acceptor.open(end.protocol(), error);
  if (!error) acceptor.set_option(asio::socket_base::reuse_address(true), error);
  if (!error) acceptor.bind(end, error);
  if (!error) acceptor.listen(asio::socket_base::max_listen_connections, error);
  if (error) fail(what, error);
  return acceptor;
}

asio::ssl::context tlsOf(const ServerOptions& options) {
  asio::ssl::context context(asio::ssl::context::tls_server);
  error_code error;
  context.set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_tlsv1 |
                      asio::ssl::context::no_tlsv1_1);
  context.use_certificate_chain_file(options.certificate, error);
  if (error) fail("certificate " + options.certificate, error);
  context.use_private_key_file(options.key, asio::ssl::context::pem, error);
  if (error) fail("key " + options.key, error);
  return context;
}

}  // namespace

class Server::Engine {
 public:
  explicit Engine(ServerOptions options)
      : shared_(std::make_shared<Shared>(std::move(options))),
        acceptor_(listenAt(shared_->io, shared_->options)),
        retry_(shared_->io),
        port_(acceptor_.local_endpoint().port()) {
    if (!shared_->options.certificate.empty()) shared_->tls.emplace(tlsOf(shared_->options));
  }
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;
  ~Engine() {
    if (!thread_.joinable()) return;
    asio::post(shared_->io, [this] {
      error_code ignored;
      acceptor_.close(ignored);
      retry_.cancel();
      for (auto* list : {&shared_->requests, &shared_->sockets}) {
        for (const Shared::Connections copy = *list; const auto& each : copy) {
          if (const auto connection = each.lock()) connection->end();
        }
      }
    });
    thread_.join();
  }

  void serve(Handler& handler) {
    shared_->handler = &handler;
    accept();
    thread_ = std::thread([this] { shared_->io.run(); });
  }
  std::uint16_t port() const noexcept { return port_; }
  std::function<std::size_t()> count() const {
    return [shared = shared_] { return shared->count.load(); };
  }

 private:
  void accept() {
    acceptor_.async_accept([this](error_code error, tcp::socket socket) {
      if (error == asio::error::operation_aborted || !acceptor_.is_open()) return;
      if (error) return acceptLater();
      begin(std::move(socket));
      accept();
    });
  }

  /// For want of files, mostly: those that are silent give theirs back in time.
  void acceptLater() {
    makeRoom();
    retry_.expires_after(std::chrono::milliseconds(100));
    retry_.async_wait([this](error_code error) {
      if (!error) accept();
    });
  }

  void makeRoom() {
    if (shared_->requests.empty()) return;
    if (const auto silent = shared_->requests.front().lock()) silent->end();
  }

  void begin(tcp::socket socket) {
    if (shared_->count >= shared_->options.limits.connections) {
      if (shared_->requests.empty()) return;
      makeRoom();
    }
    const std::string remote = remoteOf(socket);
    error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    if (shared_->tls) {
      using Stream = beast::ssl_stream<beast::tcp_stream>;
      std::make_shared<HttpConnection<Stream>>(shared_, Stream(std::move(socket), *shared_->tls), remote)->run();
    } else {
      std::make_shared<HttpConnection<beast::tcp_stream>>(shared_, beast::tcp_stream(std::move(socket)), remote)->run();
    }
  }

  const std::shared_ptr<Shared> shared_;
  tcp::acceptor acceptor_;
  asio::steady_timer retry_;
  const std::uint16_t port_;
  std::thread thread_;
};

Server::Server(ServerOptions options) : engine_(std::make_unique<Engine>(std::move(options))) {}

Server::~Server() = default;

void Server::serve(Handler& handler) { engine_->serve(handler); }

std::uint16_t Server::port() const noexcept { return engine_->port(); }

std::function<std::size_t()> Server::connectionCount() const { return engine_->count(); }

}  // namespace HX::web
