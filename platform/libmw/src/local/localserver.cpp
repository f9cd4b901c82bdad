#include "../remote/linkparts.h"
#include "../remote/sessionservice.h"
#include "../runtime/linelimit.h"
#include "../runtime/processend.h"
#include "fileserver.h"
#include "socketchannel.h"
#include "socketfolder.h"

#include <hxerror/mutex.h>
#include <libmw/eventloop.h>
#include <libmw/local.h>
#include <libmw/log.h>
#include <libmw/session.h>

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <map>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace mw {
namespace {

const char* const kServerCategory = "mw.link";
/// In heartbeats: nothing that is looked at is in a hurry, and each look wakes a broker at rest.
constexpr int kLookEvery = 3;
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
    lockId_ = local::idOf(files_.lock);
  }

  void listen() {
    fileServer_->listen();
    File socket = local::listenOn(files_.socket, SOCK_STREAM);
    ::fcntl(socket.number(), F_SETFL, O_NONBLOCK);
    socketId_ = local::idOf(files_.socket);
    socket_ = std::move(socket);
    number_ = local::Poller::instance().add(socket_.number(), weak_from_this());
    watch(kOneNewcomer);
    look();
  }

  void stop() {
    if (detail::isForkedChild()) return;  // Files and connections are the parent's.
    if (number_ != 0) local::Poller::instance().remove(number_, socket_.number());
    std::map<std::uint64_t, std::shared_ptr<remote::Link>> links;
    {
      const HX::MutexLock lock(mutex_);
      stopped_ = true;
      links.swap(links_);
    }
    fileServer_->stop();
    removeFiles();
    lock_ = File();
    for (const auto& [number, link] : links) link->end(kShutDown);
    for (const auto& [number, link] : links) link->gone().wait();
  }

  void onReady(std::uint32_t /*events*/, std::vector<remote::Work>& /*works*/) override { acceptOne(); }

  std::size_t connectionCount() const {
    const HX::MutexLock lock(mutex_);
    return links_.size();
  }

 private:
  /// Whoever removed them may have let a successor in, whose files these are then.
  void removeFiles() {
    if (!lockId_ || local::idOf(files_.lock) != lockId_) return;
    if (socketId_ && local::idOf(files_.socket) == socketId_) ::unlink(files_.socket.c_str());
    ::unlink(files_.files.c_str());
    ::unlink(files_.lock.c_str());
  }

  /// What is to be looked at now and then: the files on which newcomers depend, of whose end it says so once; and what
  /// was left out of the log and is still to be told.
  void look() {
    log::LineLimit::instance().tellWhatWasLeftOut();
    const bool isWhole = local::idOf(files_.lock) == lockId_ && local::idOf(files_.socket) == socketId_;
    if (std::exchange(isWhole_, isWhole) && !isWhole) {
      log::error(
          kServerCategory, "look",
          fmt::format("broker {} cannot be joined any more: somebody has removed {} or the lock beside it; who is "
                      "connected is served on",
                      name_, files_.socket));
    }
    defaultLoop().post(
        [weak = weak_from_this()] {
          if (const auto self = weak.lock(); self && !self->isStopped()) self->look();
        },
        kLookEvery * options_.heartbeat);
  }

  bool isStopped() const {
    const HX::MutexLock lock(mutex_);
    return stopped_;
  }

  void watch(std::uint32_t events) { local::Poller::instance().watch(number_, socket_.number(), events); }

  /// One, because the next is told of as soon as the socket is watched again. To try until nobody waits would, with the
  /// last file, fail for want of a file that nobody needs.
  void acceptOne() {
    File accepted(::accept4(socket_.number(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
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

  void welcome(File socket) {
    if (!local::isOwnPeer(socket)) {
      return log::warning(kServerCategory, "accept", fmt::format("broker {} refused a process of another user", name_));
    }
    const pid_t process = local::processOf(socket);
    std::uint64_t number = 0;
    if (const std::string reason = takePlace(process, number); !reason.empty()) return refuse(socket, process, reason);
    try {
      // Each in memory of its own, which goes with it: timers hold on to the counters, and connections that are made
      // and ended faster than those run out would pile up.
      const std::shared_ptr channel = std::make_unique<local::SocketChannel>(std::move(socket), options_);
      const std::shared_ptr link = std::make_unique<remote::Link>(channel, &session_, local::withReserve(options_));
      if (!add(number, link)) return;
      link->start(std::make_shared<remote::SessionService>(session_, name_, link, remote::SessionService::Role::Broker),
                  [weak = weak_from_this(), number, peer = link->peer()](const std::string& reason) {
                    const bool isUsual = reason == remote::kPeerClosed || reason == kShutDown;
                    log::write(isUsual ? LogLevel::Verbose : LogLevel::Warning, kServerCategory, "end",
                               fmt::format("{} has left: {}", peer, reason));
                    if (const auto self = weak.lock()) self->remove(number);
                  });
    } catch (const std::exception& error) {
      remove(number);
      log::error(kServerCategory, "accept", fmt::format("broker {} cannot take a connection: {}", name_, error.what()));
    }
  }

  /// Several newcomers may be welcomed at once.
  /// @return Why there is no place for a process; empty when it has the place `number` now.
  std::string takePlace(pid_t process, std::uint64_t& number) {
    const auto isKept = [this]() HX_REQUIRES(mutex_) {
      return processes_.size() + options_.connectionsKept >= options_.connectionLimit;
    };
    HX::MutexLock lock(mutex_);
    if (isKept()) {
      lock.unlock();
      const bool isOwn = local::isOfThisProgram(process);
      lock.lock();
      if (processes_.size() >= options_.connectionLimit || (isKept() && !isOwn)) {
        return fmt::format("{} are connected, which is the limit", processes_.size());
      }
    }
    const auto own = counts_.find(process);
    if (own != counts_.end() && own->second >= options_.connectionsOfAProcess) {
      return fmt::format("it has {} connections, which is the limit for one process", own->second);
    }
    number = ++lastNumber_;
    processes_.emplace(number, process);
    ++counts_[process];
    return {};
  }

  /// The newcomer is told, as a message that the system takes without waiting: nothing else waits on this socket.
  void refuse(const File& socket, pid_t process, const std::string& reason) const {
    log::warning(kServerCategory, "accept", fmt::format("broker {} refused process {}: {}", name_, process, reason));
    remote::Bytes message;
    remote::Writer out(message);
    out.list(3);
    out.number(static_cast<std::uint32_t>(remote::MessageType::Notification));
    out.text(remote::kRefused);
    out.list(1);
    out.text(reason);
    static_cast<void>(::send(socket.number(), message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
  }

  bool add(std::uint64_t number, const std::shared_ptr<remote::Link>& link) {
    const HX::MutexLock lock(mutex_);
    if (!stopped_) links_.emplace(number, link);
    return !stopped_;
  }

  void remove(std::uint64_t number) {
    std::shared_ptr<remote::Link> last;
    const HX::MutexLock lock(mutex_);
    if (const auto place = processes_.extract(number)) {
      const auto own = counts_.find(place.mapped());
      if (--own->second == 0) counts_.erase(own);
    }
    if (auto found = links_.extract(number)) last = std::move(found.mapped());
  }

  Session& session_;
  const std::string name_;
  const LinkOptions options_;
  const local::BrokerFiles files_;
  File lock_;
  const std::shared_ptr<local::FileServer> fileServer_ = std::make_shared<local::FileServer>(files_.files);
  std::optional<local::FileId> lockId_;
  File socket_;
  std::optional<local::FileId> socketId_;
  bool isWhole_ = true;  // both files were there when it was looked at last
  /// At the poller, whose threads read it once it watches the socket; 0 until it listens.
  std::atomic<std::uint64_t> number_{0};
  std::atomic<bool> isShort_{false};  // the last attempt to accept failed, and was told

  mutable HX::Mutex mutex_;
  bool stopped_ HX_GUARDED_BY(mutex_) = false;
  std::uint64_t lastNumber_ HX_GUARDED_BY(mutex_) = 0;
  std::map<std::uint64_t, std::shared_ptr<remote::Link>> links_ HX_GUARDED_BY(mutex_);
  std::map<std::uint64_t, pid_t> processes_
      HX_GUARDED_BY(mutex_);  // at the other ends: of links, and of those that are being made
  std::map<pid_t, std::size_t> counts_ HX_GUARDED_BY(mutex_);  // how many of those each process has
};

LocalServer::LocalServer(Session& session, const std::string& name, const LinkOptions& options, Listening listening)
    : impl_(std::make_shared<Impl>(session, name, options)) {
  if (listening == Listening::Now) impl_->listen();
}

LocalServer::~LocalServer() { impl_->stop(); }

void LocalServer::listen() { impl_->listen(); }

std::size_t LocalServer::connectionCount() const { return impl_->connectionCount(); }

}  // namespace mw
