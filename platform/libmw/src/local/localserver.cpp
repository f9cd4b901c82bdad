#include "../remote/sessionservice.h"
#include "socketchannel.h"
#include "socketfolder.h"

#include <libmw/eventloop.h>
#include <libmw/local.h>
#include <libmw/log.h>
#include <libmw/session.h>

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace mw {
namespace {

const char* const kServerCategory = "mw.link";
const char* const kShutDown = "the broker shuts down";
/// Out of files, or out of memory: trying again at once would only burn time.
constexpr std::chrono::milliseconds kPauseAfterFailure{100};
/// Told once, to one thread, which asks to be told of the next.
constexpr std::uint32_t kOneNewcomer = EPOLLIN | EPOLLONESHOT;

}  // namespace

class LocalServer::Impl : public local::Pollable, public std::enable_shared_from_this<Impl> {
 public:
  Impl(Session& session, const std::string& name, const LinkOptions& options)
      : session_(session),
        name_(name),
        options_(options),
        files_(local::filesOf(name)),
        lock_(local::lockBroker(files_)) {
    if (!lock_) throw std::runtime_error(fmt::format("a broker named {} is running already", name));
    local::File socket = local::listenOn(files_.socket);
    ::fcntl(socket.number(), F_SETFL, O_NONBLOCK);
    socket_ = std::move(socket);
  }

  void start() {
    number_ = local::Poller::instance().add(socket_.number(), weak_from_this());
    watch(kOneNewcomer);
  }

  void stop() {
    local::Poller::instance().remove(number_, socket_.number());
    std::map<std::uint64_t, std::shared_ptr<remote::Link>> links;
    {
      const std::lock_guard lock(mutex_);
      stopped_ = true;
      links.swap(links_);
    }
    ::unlink(files_.socket.c_str());
    ::unlink(files_.lock.c_str());
    lock_ = local::File();
    for (const auto& [number, link] : links) link->end(kShutDown);
    for (const auto& [number, link] : links) link->gone().wait();
  }

  void onReady(std::uint32_t /*events*/, std::vector<remote::Work>& /*works*/) override { acceptOne(); }

  std::size_t connectionCount() const {
    const std::lock_guard lock(mutex_);
    return links_.size();
  }

 private:
  void watch(std::uint32_t events) { local::Poller::instance().watch(number_, socket_.number(), events); }

  /// One, because the next is told of as soon as the socket is watched again. To try until nobody waits would, with the
  /// last file, fail for want of a file that nobody needs.
  void acceptOne() {
    local::File accepted(::accept4(socket_.number(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (accepted) {
      isShort_ = false;
      watch(kOneNewcomer);
      welcome(std::move(accepted));
    } else if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
      waitForMore(errno);
    } else {
      watch(kOneNewcomer);
    }
  }

  void waitForMore(int error) {
    if (!isShort_.exchange(true)) {
      log::error(kServerCategory, "accept",
                 fmt::format("broker {} cannot take a connection: {}; newcomers wait until it can", name_,
                             std::generic_category().message(error)));
    }
    defaultLoop().post([self = shared_from_this()] { self->watch(kOneNewcomer); }, kPauseAfterFailure);
  }

  void welcome(local::File socket) {
    if (!local::isOwnPeer(socket)) {
      return log::warning(kServerCategory, "accept", fmt::format("broker {} refused a process of another user", name_));
    }
    try {
      const auto channel = std::make_shared<local::SocketChannel>(std::move(socket), options_);
      const auto link = std::make_shared<remote::Link>(channel, &session_, options_);
      if (const auto number = add(link)) {
        link->start(
            std::make_shared<remote::SessionService>(session_, name_, link, remote::SessionService::Role::Broker),
            [weak = weak_from_this(), number = *number, peer = link->peer()](const std::string& reason) {
              const bool isUsual = reason == remote::kPeerClosed || reason == kShutDown;
              log::write(isUsual ? LogLevel::Verbose : LogLevel::Warning, kServerCategory, "end",
                         fmt::format("{} has left: {}", peer, reason));
              if (const auto self = weak.lock()) self->remove(number);
            });
      }
    } catch (const std::exception& error) {
      log::error(kServerCategory, "accept", fmt::format("broker {} cannot take a connection: {}", name_, error.what()));
    }
  }

  std::optional<std::uint64_t> add(const std::shared_ptr<remote::Link>& link) {
    {
      const std::lock_guard lock(mutex_);
      if (stopped_) return std::nullopt;
      if (links_.size() < options_.connectionLimit) {
        links_.emplace(++lastNumber_, link);
        return lastNumber_;
      }
    }
    log::warning(kServerCategory, "accept",
                 fmt::format("broker {} refused {}: {} are connected, which is the limit", name_, link->peer(),
                             options_.connectionLimit));
    return std::nullopt;
  }

  void remove(std::uint64_t number) {
    std::shared_ptr<remote::Link> last;
    const std::lock_guard lock(mutex_);
    if (auto found = links_.extract(number)) last = std::move(found.mapped());
  }

  Session& session_;
  const std::string name_;
  const LinkOptions options_;
  const local::BrokerFiles files_;
  local::File lock_;
  local::File socket_;
  std::atomic<std::uint64_t> number_{0};  // at the poller, whose threads read it once it watches the socket
  std::atomic<bool> isShort_{false};      // the last attempt to accept failed, and was told

  mutable std::mutex mutex_;  // Guards everything below.
  bool stopped_ = false;
  std::uint64_t lastNumber_ = 0;
  std::map<std::uint64_t, std::shared_ptr<remote::Link>> links_;
};

LocalServer::LocalServer(Session& session, const std::string& name, const LinkOptions& options)
    : impl_(std::make_shared<Impl>(session, name, options)) {
  impl_->start();
}

LocalServer::~LocalServer() { impl_->stop(); }

std::size_t LocalServer::connectionCount() const { return impl_->connectionCount(); }

}  // namespace mw
