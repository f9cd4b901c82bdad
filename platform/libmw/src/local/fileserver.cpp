#include "fileserver.h"

#include "../runtime/filedesk.h"
#include "filemessage.h"
#include "socketfolder.h"

#include <libmw/eventloop.h>
#include <libmw/log.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace mw::local {
namespace {

constexpr std::uint32_t kOnce = EPOLLIN | EPOLLONESHOT;
/// So many may be connected that have not said what they want.
constexpr std::size_t kGuests = 32;
/// Out of files: trying again at once would only burn time.
constexpr std::chrono::milliseconds kPauseAfterFailure{100};

}  // namespace

/// Somebody who has connected, until he is served.
class FileServer::Guest : public Pollable, public std::enable_shared_from_this<Guest> {
 public:
  Guest(File socket, std::weak_ptr<FileServer> server) : socket_(std::move(socket)), server_(std::move(server)) {}
  Guest(const Guest&) = delete;
  Guest& operator=(const Guest&) = delete;
  ~Guest() override {
    if (number_ != 0) Poller::instance().remove(number_, socket_.number());
  }

  void begin() {
    number_ = Poller::instance().add(socket_.number(), weak_from_this());
    Poller::instance().watch(number_, socket_.number(), kOnce);
  }

  void onReady(std::uint32_t /*events*/, std::vector<remote::Work>& /*works*/) override {
    serve();
    if (const auto server = server_.lock()) server->forget(*this);
  }

 private:
  void serve() {
    FileMessage message = receive(socket_);
    if (message.size != static_cast<ssize_t>(sizeof(Ticket))) return;
    Ticket ticket{};
    std::copy_n(message.bytes.begin(), ticket.size(), ticket.begin());
    if (message.file) {
      const bool isTaken = FileDesk::instance().keep(ticket, std::move(message.file), processOf(socket_));
      answer(isTaken, nullptr);
    } else {
      const File file = FileDesk::instance().take(ticket);
      answer(static_cast<bool>(file), file ? &file : nullptr);
    }
  }

  void answer(bool isDone, const File* file) { send(socket_, std::array{isDone ? kDone : kRefused}, file); }

  const File socket_;
  const std::weak_ptr<FileServer> server_;
  std::uint64_t number_ = 0;
};

FileServer::FileServer(std::string path) : path_(std::move(path)) {}

void FileServer::listen() {
  socket_ = listenOn(path_, SOCK_SEQPACKET);
  ::fcntl(socket_.number(), F_SETFL, O_NONBLOCK);
  number_ = Poller::instance().add(socket_.number(), weak_from_this());
  Poller::instance().watch(number_, socket_.number(), kOnce);
}

void FileServer::stop() {
  if (number_ != 0) Poller::instance().remove(number_, socket_.number());
  std::deque<std::shared_ptr<Guest>> left;  // Go after the lock.
  const HX::MutexLock lock(mutex_);
  left.swap(guests_);
}

void FileServer::onReady(std::uint32_t /*events*/, std::vector<remote::Work>& /*works*/) {
  File accepted(::accept4(socket_.number(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  const bool isShort = !accepted && errno != EAGAIN && errno != EINTR && errno != ECONNABORTED;
  if (isShort) {
    defaultLoop().post(
        [weak = weak_from_this()] {
          if (const auto self = weak.lock()) Poller::instance().watch(self->number_, self->socket_.number(), kOnce);
        },
        kPauseAfterFailure);
    return;
  }
  Poller::instance().watch(number_, socket_.number(), kOnce);
  if (accepted) welcome(std::move(accepted));
}

void FileServer::welcome(File socket) {
  if (!isOwnPeer(socket)) {
    return log::warning("mw.link", "accept", "a process of another user was refused at " + path_);
  }
  const auto guest = std::make_shared<Guest>(std::move(socket), weak_from_this());
  std::shared_ptr<Guest> oldest;  // Goes after the lock.
  {
    const HX::MutexLock lock(mutex_);
    guests_.push_back(guest);
    if (guests_.size() > kGuests) {
      oldest = std::move(guests_.front());
      guests_.pop_front();
    }
  }
  guest->begin();
}

void FileServer::forget(const Guest& guest) {
  std::shared_ptr<Guest> served;  // Goes after the lock.
  const HX::MutexLock lock(mutex_);
  const auto found = std::ranges::find(guests_, &guest, &std::shared_ptr<Guest>::get);
  if (found == guests_.end()) return;
  served = std::move(*found);
  guests_.erase(found);
}

}  // namespace mw::local
