#include "socketchannel.h"

#include <hxerror/mutex.h>
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

/// One turn of reading ends after so much, so that what came is not kept waiting by what comes.
constexpr std::size_t kTurn = std::size_t{64} << 10;
/// A text or binary at the end of a message is received to where it will lie, if it is as long.
constexpr std::size_t kLongTail = std::size_t{32} << 10;
/// Who reads a long message on waits for so long for the next piece of it,
constexpr std::chrono::milliseconds kNextPiece{2};
/// and so many do at once: a peer may send slowly.
constexpr int kMostReadOn = 4;
std::atomic<int> readOnCount{0};
/// What a socket may hold that its peer has not read: the more, the fewer wake-ups a long message takes, and the less
/// it costs who does not read. The system doubles it.
constexpr int kSocketBuffer = 256 << 10;
/// How long a caller that reads may leave the socket unwatched: once for each such time a thread is woken.
constexpr std::chrono::milliseconds kParkedFor{100};
/// How long a message waits for others where whoever holds it back does not come to send it.
constexpr std::chrono::milliseconds kHeldFor{2};
/// What waits for others leaves when it is as much.
constexpr std::size_t kHeldBytes = std::size_t{256} << 10;
/// How long a thread that waits for an answer looks again and again before it sleeps, where answers come fast.
constexpr std::chrono::microseconds kSpin{10};
/// Messages up to this size are copied, so that many of them wait in one piece of memory.
constexpr std::size_t kShort = std::size_t{1} << 10;
constexpr std::size_t kPiece = std::size_t{8} << 10;
/// How many pieces one call of the system sends.
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

void prepare(int socket) {
  const int flags = ::fcntl(socket, F_GETFL);
  ::fcntl(socket, F_SETFL, flags | O_NONBLOCK);
  ::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof kSocketBuffer);
}

}  // namespace

SocketChannel::SocketChannel(File socket, const LinkOptions& options)
    : options_(options),
      poller_(Poller::instance()),
      socket_(std::move(socket)),
      peer_(describePeer(socket_.number())),
      lastReceived_(Clock::now().time_since_epoch().count()),
      splitter_(options.frameLimit, options.depthLimit, options.valueLimit),
      unfinished_(remote::Budget::input(), options.inputOfAll),
      unread_(remote::Budget::output(), options.outputOfAll) {
  prepare(socket_.number());
}

SocketChannel::~SocketChannel() { end("nobody uses it"); }

void SocketChannel::start(const std::shared_ptr<remote::ChannelSink>& sink) {
  unfinished_.join(peer_, weak_from_this());
  unread_.join(peer_, weak_from_this());
  bool isOver = false;
  {
    const HX::MutexLock lock(watchMutex_);
    sink_ = sink;
    isOver = ended_;  // Asked before the poller knows of it: whoever ends it afterwards tells the sink.
    if (!isOver) number_ = poller_.add(socket_.number(), weak_from_this());
  }
  if (isOver && !toldEnd_.exchange(true)) return sink->onEnd("it ended before it began");
  watch();
}

/// Watches for what is of interest now. After each marked step of the turn: what is read of it here is at least as new.
void SocketChannel::watch() {
  const HX::MutexLock lock(watchMutex_);
  if (number_ == 0) return;
  std::uint32_t events = EPOLLET;
  if (turn_.isTold()) events |= EPOLLIN | EPOLLRDHUP;
  if (hasOutput_) events |= EPOLLOUT;
  poller_.watch(number_, socket_.number(), events);
}

bool SocketChannel::take(Turn::Step step) {
  if (step == Turn::Step::TakenAndMarked) watch();
  return step != Turn::Step::Refused;
}

/// Has `what` done by the event loop, if nobody is to do it already.
/// @return False when nobody will, because the process ends.
bool SocketChannel::remindIn(Clock::duration time, std::atomic<bool>& isReminded, void (SocketChannel::*what)()) {
  if (isReminded.exchange(true)) return true;
  return defaultLoop().post(
      [weak = weak_from_this(), &isReminded, what] {
        const auto self = weak.lock();
        if (!self) return;
        isReminded = false;  // Before it looks at what is to be done: it sees what was said before this.
        (self.get()->*what)();
      },
      time);
}

void SocketChannel::onReady(std::uint32_t events, std::vector<remote::Work>& works) {
  if ((events & EPOLLOUT) != 0) flush();
  if ((events & ~static_cast<std::uint32_t>(EPOLLOUT)) == 0) return;
  // The end of the peer is told also of a socket that is not watched; and with the last of what it sent, in one:
  // whoever has read that goes on to the end, of which nothing more will be told.
  const bool isLast = (events & (EPOLLHUP | EPOLLERR | EPOLLRDHUP)) != 0;
  if (isLast) expectMore();
  if (!turn_.beginPoller()) return;
  do {
    const auto received = receive(works);
    if (received == Received::End) return turn_.leavePoller();
    if (received == Received::All && tail_.isOpen() && works.empty()) return readOn(works);
    if (received == Received::All && !isLast && turn_.endPoller()) return;
  } while (works.empty());
  // There is more, or may be: whoever is told of it reads on, while this thread does what has come.
  turn_.leavePoller();
  watch();
}

/// A long message is on its way. To be told of each piece of it would wake a thread for each.
void SocketChannel::readOn(std::vector<remote::Work>& works) {
  const bool mayWait = readOnCount.fetch_add(1) < kMostReadOn;
  if (mayWait) {
    turn_.hold();
    watch();
    pollfd file{socket_.number(), POLLIN, 0};
    while (tail_.isOpen() && ::poll(&file, 1, static_cast<int>(kNextPiece.count())) > 0) {
      if (receive(works) == Received::End) break;
    }
  }
  --readOnCount;
  turn_.leavePoller();
  watch();
}

bool SocketChannel::beginReading() { return !ended_ && take(turn_.begin()); }

void SocketChannel::endReading() {
  // Parked first, asked then: who expects something meanwhile asks for what is parked after having said so.
  turn_.park();
  const auto sink = sink_.lock();
  if (ended_ || !sink || !sink->isIdle()) return expectMore();
  if (!remindIn(kParkedFor, willWatch_, &SocketChannel::expectMore)) expectMore();
}

bool SocketChannel::readSoon() {
  if (!answersFast_) return false;
  // An answer that comes within microseconds is there sooner than a thread that sleeps could be woken up.
  std::vector<remote::Work> works;
  const auto before = lastReceived_.load();
  Clock::time_point limit;
  do {
    receive(works);
    if (lastReceived_.load() != before || ended_) {
      poller_.post(works);
      return ended_ || !tail_.isOpen();
    }
    if (limit == Clock::time_point()) limit = Clock::now() + kSpin;
    ::sched_yield();
  } while (Clock::now() < limit);
  return false;
}

void SocketChannel::read(int wakeFile, std::chrono::milliseconds timeout) {
  std::vector<remote::Work> works;
  const auto begin = Clock::now();
  std::array<pollfd, 2> files{pollfd{socket_.number(), POLLIN, 0}, pollfd{wakeFile, POLLIN, 0}};
  for (auto left = timeout;;
       left = timeout - std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin)) {
    const int count = ::poll(files.data(), files.size(), static_cast<int>(std::max(left, left.zero()).count()));
    answersFast_ = Clock::now() - begin < kSpin;
    if (count <= 0 || files[0].revents == 0) return;
    const auto received = receive(works);
    poller_.post(works);
    if (received == Received::End || !tail_.isOpen() || files[1].revents != 0) return;
  }
}

/// Reads what is there, for one turn.
SocketChannel::Received SocketChannel::receive(std::vector<remote::Work>& works) {
  const auto sink = sink_.lock();
  if (!sink) return Received::End;
  try {
    return receive(*sink, works);
  } catch (const std::exception& error) {
    end(error.what());
    return Received::End;
  }
}

SocketChannel::Received SocketChannel::receive(remote::ChannelSink& sink, std::vector<remote::Work>& works) {
  for (std::size_t turn = 0; turn < kTurn;) {
    if (ended_) return Received::End;
    const auto room = this->room();
    const ssize_t received = ::recv(socket_.number(), room.data(), room.size(), 0);
    if (received < 0 && errno == EINTR) continue;
    if (received < 0 && (errno == EAGAIN)) return Received::All;
    if (received <= 0) {
      end(received == 0 ? std::string(remote::kPeerClosed) : reasonOf(errno));
      return Received::End;
    }
    turn += static_cast<std::size_t>(received);
    if (tail_.isOpen()) {
      tail_.received(static_cast<std::size_t>(received));
    } else {
      buffer_.received(static_cast<std::size_t>(received));
    }
    lastReceived_ = Clock::now().time_since_epoch().count();
    deliver(sink, works);
    if (static_cast<std::size_t>(received) < room.size()) return Received::All;
  }
  return Received::Part;
}

std::span<std::byte> SocketChannel::room() {
  return tail_.isOpen() ? tail_.room() : buffer_.room(splitter_.missing(buffer_.bytes().size()));
}

/// Hands the messages that are whole to the sink.
void SocketChannel::deliver(remote::ChannelSink& sink, std::vector<remote::Work>& works) {
  try {
    if (!head_.empty()) {
      if (!tail_.isOpen()) {
        sink.onFrame({head_, splitter_.values(), tail_.take()}, works);
        head_.clear();
      }
    } else {
      const auto rest = deliver(sink, buffer_.bytes(), works);
      buffer_.drop(buffer_.bytes().size() - rest.size());
    }
  } catch (...) {
    sink.onPause(works);  // What came before stays.
    throw;
  }
  unfinished_.set(buffer_.bytes().size() + head_.size() + tail_.size());
  sink.onPause(works);
}

/// @return What is left: the beginning of a message.
std::span<const std::byte> SocketChannel::deliver(remote::ChannelSink& sink, std::span<const std::byte> bytes,
                                                  std::vector<remote::Work>& works) {
  while (!bytes.empty()) {
    const std::size_t size = splitter_.advance(bytes);
    if (size == 0 && splitter_.tail().size < kLongTail) break;
    if (size == 0) {
      beginTail(bytes);
      return {};
    }
    sink.onFrame({bytes.first(size), splitter_.values()}, works);
    bytes = bytes.subspan(size);
  }
  return bytes;
}

void SocketChannel::beginTail(std::span<const std::byte> message) {
  const auto tail = splitter_.tail();
  const auto head = message.first(tail.begin);
  head_.assign(head.begin(), head.end());
  tail_.begin(tail.isText, tail.size, message.subspan(tail.begin));
  splitter_.endAtTail();
}

bool SocketChannel::send(remote::Message& message, remote::Sending when) {
  const bool isFirst = sendOrQueue(message, when);
  unread_.keepLimit();
  return isFirst;
}

bool SocketChannel::sendOrQueue(remote::Message& message, remote::Sending when) {
  HX::MutexLock lock(outputMutex_);
  if (ended_ || refused_) return false;
  const auto& bytes = message.bytes;
  if (when == remote::Sending::Now && output_.empty() && message.shared().empty()) {
    // What nothing waits before needs no queue.
    const ssize_t written = ::send(socket_.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (written == static_cast<ssize_t>(bytes.size())) return false;
    if (written > 0) {
      sent_ = static_cast<std::size_t>(written);
      outputBytes_ -= sent_;
    }
  }
  queueLocked(message);
  if (outputBytes_ > options_.outputLimit) {
    lock.unlock();
    end(fmt::format("it does not read: more than {} bytes wait for it", options_.outputLimit));
    return false;
  }
  if (when == remote::Sending::Soon && outputBytes_ < kHeldBytes) {
    if (holdsBack_.exchange(true)) return false;
    if (remindIn(kHeldFor, willFlush_, &SocketChannel::flushHeld)) return true;
  }
  if (hasOutput_) return false;  // It leaves when the peer has read.
  const int error = writeLocked();
  lock.unlock();
  if (error != 0) onSendFailed(error);
  return false;
}

void SocketChannel::queueLocked(remote::Message& message) {
  const std::size_t size = message.size();
  setOutputLocked(outputBytes_ + size);
  if (size > kShort) return output_.push_back(std::move(message));
  const auto hasRoom = [size](const remote::Message& last) {
    return last.shared().empty() && last.bytes.capacity() - last.bytes.size() >= size;
  };
  if (output_.empty() || !hasRoom(output_.back())) {
    output_.push_back({std::exchange(spare_, {}), {}});
    output_.back().bytes.clear();
    output_.back().bytes.reserve(kPiece);
  }
  auto& bytes = output_.back().bytes;
  bytes.insert(bytes.end(), message.bytes.begin(), message.bytes.end());
}

void SocketChannel::setOutputLocked(std::size_t bytes) {
  outputBytes_ = bytes;
  unread_.set(bytes);
}

void SocketChannel::onSendFailed(int error) {
  if (error != EPIPE) return end(reasonOf(error));
  // The peer takes nothing more, but what it sent before is still to be read: its end comes behind that.
  const HX::MutexLock lock(outputMutex_);
  refused_ = true;
  output_.clear();
  setOutputLocked(0);
  sent_ = 0;
  if (hasOutput_.exchange(false)) watch();
}

void SocketChannel::flushHeld() {
  if (holdsBack_) flush();
}

void SocketChannel::flush() {
  int error = 0;
  {
    const HX::MutexLock lock(outputMutex_);
    if (!ended_ && !output_.empty()) error = writeLocked();
  }
  if (error != 0) onSendFailed(error);
}

/// Sends as much as the system takes now.
/// @return 0, or the system's error when the connection is broken.
int SocketChannel::writeLocked() {
  // Answers may come that no thread waits for by reading.
  if (holdsBack_.exchange(false)) expectMore();
  while (!output_.empty()) {
    std::array<iovec, kGathered> parts;  // NOLINT(cppcoreguidelines-pro-type-member-init): read as far as it is filled.
    std::size_t count = 0;
    std::size_t skipped = sent_;
    for (auto next = output_.begin(); next != output_.end() && count + 2 <= parts.size(); ++next) {
      for (const auto part : {std::span<const std::byte>(next->bytes), next->shared()}) {
        const std::size_t from = std::min(skipped, part.size());
        skipped -= from;
        if (from < part.size()) parts[count++] = {const_cast<std::byte*>(part.data()) + from, part.size() - from};
      }
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
    setOutputLocked(outputBytes_ - static_cast<std::size_t>(written));
    sent_ += static_cast<std::size_t>(written);
    while (!output_.empty() && sent_ >= output_.front().size()) {
      sent_ -= output_.front().size();
      if (output_.front().bytes.capacity() <= 2 * kPiece) spare_ = std::move(output_.front().bytes);
      output_.pop_front();
    }
  }
  if (hasOutput_.exchange(false)) watch();
  return 0;
}

void SocketChannel::post(remote::Work work) {
  std::vector<remote::Work> works;
  works.push_back(std::move(work));
  poller_.post(works);
}

void SocketChannel::end(const std::string& reason) {
  if (ended_.exchange(true)) return;
  {
    const HX::MutexLock lock(outputMutex_);
    if (holdsBack_) static_cast<void>(writeLocked());  // It was sent before the end.
  }
  ::shutdown(socket_.number(), SHUT_RDWR);
  {
    const HX::MutexLock lock(watchMutex_);
    if (number_ != 0) poller_.remove(std::exchange(number_, 0), socket_.number());
  }
  {
    const HX::MutexLock lock(outputMutex_);
    output_.clear();
    setOutputLocked(0);
  }
  if (const auto sink = sinkNow(); sink && !toldEnd_.exchange(true)) sink->onEnd(reason);
}

std::shared_ptr<remote::ChannelSink> SocketChannel::sinkNow() {
  const HX::MutexLock lock(watchMutex_);
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
