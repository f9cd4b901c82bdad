#include "socketchannel.h"

#include <libmw/eventloop.h>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <system_error>
#include <unistd.h>

#include <fmt/format.h>

namespace mw::local {
namespace {

constexpr std::size_t kBufferSize = std::size_t{16} << 10;
/// A buffer that a long message has made larger is given back.
constexpr std::size_t kKeptBuffer = std::size_t{1} << 20;
/// One turn of reading ends after so much, so that what came is not kept waiting by what comes.
constexpr std::size_t kTurn = std::size_t{256} << 10;
/// How long a thread that waits for an answer looks again and again before it sleeps, where answers come fast.
constexpr std::chrono::microseconds kSpin{10};
/// How long a message waits for others to leave with.
constexpr std::chrono::microseconds kSoon{100};
/// How many messages one call of the system sends.
constexpr std::size_t kGathered = 64;

std::string describePeer(int socket) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return "a process";
  return fmt::format("process {}", credentials.pid);
}

/// Of an end that the system reports.
std::string reasonOf(int error) {
  // A socket that is closed before all was read is reset.
  if (error == ECONNRESET || error == EPIPE) return std::string(remote::kPeerClosed);
  return std::generic_category().message(error);
}

void makeNonBlocking(int socket) {
  const int flags = ::fcntl(socket, F_GETFL);
  ::fcntl(socket, F_SETFL, flags | O_NONBLOCK);
}

}  // namespace

SocketChannel::SocketChannel(File socket, const LinkOptions& options)
    : options_(options),
      poller_(Poller::instance()),
      socket_(std::move(socket)),
      peer_(describePeer(socket_.number())),
      lastReceived_(Clock::now().time_since_epoch().count()),
      splitter_(options.frameLimit, options.depthLimit) {
  makeNonBlocking(socket_.number());
}

SocketChannel::~SocketChannel() { end("nobody uses it"); }

void SocketChannel::start(const std::shared_ptr<remote::ChannelSink>& sink) {
  {
    const std::lock_guard lock(watchMutex_);
    sink_ = sink;
    if (!ended_) number_ = poller_.add(socket_.number(), weak_from_this());
  }
  if (ended_ && !toldEnd_.exchange(true)) return sink->onEnd("it ended before it began");
  watch();
}

/// Watches for what is of interest now.
void SocketChannel::watch() {
  const std::lock_guard lock(watchMutex_);
  if (number_ == 0) return;
  std::uint32_t events = 0;
  if (!borrowed_) events |= EPOLLIN;
  if (hasOutput_) events |= EPOLLOUT;
  poller_.watch(number_, socket_.number(), events);
}

void SocketChannel::onReady(std::uint32_t events, std::vector<remote::Work>& works) {
  if ((events & EPOLLOUT) != 0) flush();
  if ((events & ~static_cast<std::uint32_t>(EPOLLOUT)) == 0 || reading_.exchange(true)) return;
  receive(works);
  reading_ = false;
}

bool SocketChannel::beginReading() {
  if (ended_ || reading_.exchange(true)) return false;
  borrowed_ = true;
  watch();
  return true;
}

void SocketChannel::endReading() {
  borrowed_ = false;
  reading_ = false;
  watch();
}

void SocketChannel::read(int wakeFile, std::chrono::milliseconds timeout) {
  std::vector<remote::Work> works;
  const auto before = lastReceived_.load();
  if (answersFast_) {
    // An answer that comes within microseconds is there sooner than a thread that sleeps could be woken up.
    const auto limit = Clock::now() + kSpin;
    do {
      receive(works);
      if (lastReceived_.load() != before || ended_) return postAll(works);
      ::sched_yield();
    } while (Clock::now() < limit);
  }
  const auto begin = Clock::now();
  std::array<pollfd, 2> files{pollfd{socket_.number(), POLLIN, 0}, pollfd{wakeFile, POLLIN, 0}};
  const int count = ::poll(files.data(), files.size(), static_cast<int>(timeout.count()));
  answersFast_ = Clock::now() - begin < kSpin;
  if (count <= 0 || files[0].revents == 0) return;
  receive(works);
  postAll(works);
}

void SocketChannel::postAll(std::vector<remote::Work>& works) {
  for (auto& work : works) defaultLoop().post(std::move(work));
}

/// Reads what is there, for one turn.
/// @return False when the channel has ended.
bool SocketChannel::receive(std::vector<remote::Work>& works) {
  const auto sink = sink_.lock();
  if (!sink) return false;
  for (std::size_t turn = 0; turn < kTurn && !ended_;) {
    if (buffer_.size() - filled_ < kBufferSize / 2) buffer_.resize(std::max(kBufferSize, 2 * buffer_.size()));
    const std::size_t room = buffer_.size() - filled_;
    const ssize_t received = ::recv(socket_.number(), buffer_.data() + filled_, room, 0);
    if (received < 0 && errno == EINTR) continue;
    if (received < 0 && (errno == EAGAIN)) return true;
    if (received <= 0) {
      end(received == 0 ? std::string(remote::kPeerClosed) : reasonOf(errno));
      return false;
    }
    turn += static_cast<std::size_t>(received);
    filled_ += static_cast<std::size_t>(received);
    lastReceived_ = Clock::now().time_since_epoch().count();
    try {
      deliver(*sink, works);
    } catch (const std::exception& error) {
      end(error.what());
      return false;
    }
    if (static_cast<std::size_t>(received) < room) return true;
  }
  return !ended_;
}

/// Hands the messages that are whole to the sink.
void SocketChannel::deliver(remote::ChannelSink& sink, std::vector<remote::Work>& works) {
  while (begin_ < filled_) {
    const auto bytes = std::span<const std::byte>(buffer_).subspan(begin_, filled_ - begin_);
    const std::size_t size = splitter_.advance(bytes);
    if (size == 0) break;
    begin_ += size;
    if (auto work = sink.onFrame(bytes.first(size))) works.push_back(std::move(work));
  }
  std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(begin_),
            buffer_.begin() + static_cast<std::ptrdiff_t>(filled_), buffer_.begin());
  filled_ -= std::exchange(begin_, 0);
  if (filled_ == 0 && buffer_.size() > kKeptBuffer) std::vector<std::byte>(kBufferSize).swap(buffer_);
}

void SocketChannel::send(remote::Bytes frame, remote::Sending when) {
  std::unique_lock lock(outputMutex_);
  if (ended_ || refused_) return;
  if (when == remote::Sending::Now && output_.empty()) {
    // What nothing waits before needs no queue.
    const ssize_t written = ::send(socket_.number(), frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (written == static_cast<ssize_t>(frame.size())) return;
    if (written > 0) {
      sent_ = static_cast<std::size_t>(written);
      outputBytes_ -= sent_;
    }
  }
  outputBytes_ += frame.size();
  output_.push_back(std::move(frame));
  if (outputBytes_ > options_.outputLimit) {
    lock.unlock();
    return end(fmt::format("it does not read: more than {} bytes wait for it", options_.outputLimit));
  }
  if (hasOutput_) return;  // It leaves when the peer has read.
  if (when == remote::Sending::Soon) {
    if (std::exchange(flushPosted_, true)) return;
    if (defaultLoop().post([self = shared_from_this()] { self->flushLate(); }, kSoon)) return;
  }
  const int error = writeLocked();
  lock.unlock();
  if (error != 0) onSendFailed(error);
}

void SocketChannel::onSendFailed(int error) {
  if (error != EPIPE) return end(reasonOf(error));
  // The peer takes nothing more, but what it sent before is still to be read: its end comes behind that.
  const std::lock_guard lock(outputMutex_);
  refused_ = true;
  output_.clear();
  outputBytes_ = 0;
  sent_ = 0;
  if (hasOutput_.exchange(false)) watch();
}

void SocketChannel::flushLate() {
  {
    const std::lock_guard lock(outputMutex_);
    flushPosted_ = false;
  }
  flush();
}

void SocketChannel::flush() {
  int error = 0;
  {
    const std::lock_guard lock(outputMutex_);
    if (!ended_ && !output_.empty()) error = writeLocked();
  }
  if (error != 0) onSendFailed(error);
}

/// Sends as much as the system takes now.
/// @return 0, or the system's error when the connection is broken.
int SocketChannel::writeLocked() {
  while (!output_.empty()) {
    std::array<iovec, kGathered> parts{};
    std::size_t count = 0;
    for (auto frame = output_.begin(); frame != output_.end() && count < parts.size(); ++frame, ++count) {
      const std::size_t skipped = count == 0 ? sent_ : 0;
      parts[count] = {frame->data() + skipped, frame->size() - skipped};
    }
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = count;
    const ssize_t written = ::sendmsg(socket_.number(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) {
      if (errno != EAGAIN) return errno;
      if (!hasOutput_.exchange(true)) watch();
      return 0;
    }
    outputBytes_ -= static_cast<std::size_t>(written);
    sent_ += static_cast<std::size_t>(written);
    while (!output_.empty() && sent_ >= output_.front().size()) {
      sent_ -= output_.front().size();
      output_.pop_front();
    }
  }
  if (hasOutput_.exchange(false)) watch();
  return 0;
}

void SocketChannel::end(const std::string& reason) {
  if (ended_.exchange(true)) return;
  ::shutdown(socket_.number(), SHUT_RDWR);
  {
    const std::lock_guard lock(watchMutex_);
    if (number_ != 0) poller_.remove(std::exchange(number_, 0), socket_.number());
  }
  {
    const std::lock_guard lock(outputMutex_);
    output_.clear();
    outputBytes_ = 0;
  }
  if (const auto sink = sinkNow(); sink && !toldEnd_.exchange(true)) sink->onEnd(reason);
}

std::shared_ptr<remote::ChannelSink> SocketChannel::sinkNow() {
  const std::lock_guard lock(watchMutex_);
  return sink_.lock();
}

std::chrono::milliseconds SocketChannel::silence() const {
  int unread = 0;
  // Bytes that wait to be read say that the peer is there and this process is slow.
  if (::ioctl(socket_.number(), FIONREAD, &unread) == 0 && unread > 0) return {};
  const Clock::time_point last{Clock::duration(lastReceived_.load())};
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - last);
}

}  // namespace mw::local
