#include "socketchannel.h"

#include "socketfolder.h"

#include <hxerror/mutex.h>
#include <libmw/eventloop.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

#include <fmt/format.h>

namespace mw::local {
namespace {

/// One turn of reading ends after so much, so that what came is not kept waiting by what comes.
constexpr std::size_t kTurn = std::size_t{64} << 10;
/// What a socket may hold that its peer has not read: the more, the fewer wake-ups a long message takes, and the less
/// it costs who does not read. The system doubles it.
constexpr int kSocketBuffer = 256 << 10;
/// How long a caller that reads may leave the socket unwatched: once for each such time a thread is woken.
constexpr std::chrono::milliseconds kParkedFor{100};
/// How long a message waits for others where whoever holds it back does not come to send it.
constexpr std::chrono::milliseconds kHeldFor{2};
/// How long a thread that waits for an answer looks again and again before it sleeps, where answers come fast.
constexpr std::chrono::microseconds kSpin{10};
/// What poll(2) can be told.
constexpr std::chrono::milliseconds kLongestPoll{60'000};

std::string describePeer(const File& socket) {
  const pid_t process = processOf(socket);
  return process == 0 ? "a process" : fmt::format("process {}", process);
}

/// Of an end that the system reports.
std::string reasonOf(int error) {
  // A socket that is closed before all was read is reset.
  if (error == ECONNRESET || error == EPIPE) return std::string(remote::kPeerClosed);
  return std::generic_category().message(error);
}

}  // namespace

SocketChannel::SocketChannel(File socket, const LinkOptions& options)
    : options_(options),
      poller_(Poller::instance()),
      socket_(std::move(socket)),
      peer_(describePeer(socket_)),
      lastReceived_(Clock::now().time_since_epoch().count()),
      input_(options),
      output_(socket_.number(), options) {
  ::setsockopt(socket_.number(), SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof kSocketBuffer);
}

SocketChannel::~SocketChannel() { end("nobody uses it"); }

void SocketChannel::start(const std::shared_ptr<remote::ChannelSink>& sink) {
  input_.share().join(peer_, weak_from_this());
  output_.share().join(peer_, weak_from_this());
  bool isOver = false;
  {
    const HX::MutexLock lock(watchMutex_);
    isOver = ended_;  // Whoever ends it afterwards finds the sink, and tells it.
    if (!isOver) {
      sink_ = sink;
      number_ = poller_.add(socket_.number(), weak_from_this());
    }
  }
  if (isOver) return sink->onEnd("it ended before it began");
  watch();
}

/// Watches for what is of interest now. After each marked step of the turn: what is read of it here is at least as new.
void SocketChannel::watch() {
  const HX::MutexLock lock(watchMutex_);
  if (number_ == 0) return;
  std::uint32_t events = EPOLLET;
  if (turn_.isTold()) events |= EPOLLIN | EPOLLRDHUP;
  if (output_.isBlocked()) events |= EPOLLOUT;
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
  if ((events & EPOLLOUT) != 0) follow(output_.flush());
  if ((events & ~static_cast<std::uint32_t>(EPOLLOUT)) == 0) return;
  // The end of the peer is told also of a socket that is not watched; and with the last of what it sent, in one:
  // whoever has read that goes on to the end, of which nothing more will be told.
  const bool isLast = (events & (EPOLLHUP | EPOLLERR | EPOLLRDHUP)) != 0;
  if (isLast) expectMore();
  if (!turn_.beginPoller()) return;
  do {
    const auto received = receive(works);
    if (received == Received::End) return turn_.leavePoller();
    if (received == Received::All && !isLast && turn_.endPoller()) return;
  } while (works.empty());
  // There is more, or may be: whoever is told of it reads on, while this thread does what has come.
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

/// @return Whether something has come, or the end.
bool SocketChannel::readSoon(std::vector<remote::Work>& works) {
  const auto before = lastReceived_.load();
  Clock::time_point limit;
  do {
    receive(works);
    if (lastReceived_.load() != before || ended_) return true;
    if (limit == Clock::time_point()) limit = Clock::now() + kSpin;
    ::sched_yield();
  } while (Clock::now() < limit);
  return false;
}

void SocketChannel::read(int wakeFile, Clock::time_point deadline) {
  std::vector<remote::Work> works;
  if (answersFast_ && readSoon(works)) {
    poller_.post(works);
    if (ended_ || !input_.isInTail()) return;
  }
  const auto begin = Clock::now();
  std::array<pollfd, 2> files{pollfd{socket_.number(), POLLIN, 0}, pollfd{wakeFile, POLLIN, 0}};
  do {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    const auto time = std::clamp(left, left.zero(), kLongestPoll);
    const int count = ::poll(files.data(), files.size(), static_cast<int>(time.count()));
    answersFast_ = Clock::now() - begin < kSpin;
    if (count <= 0 || files[0].revents == 0 || receive(works) == Received::End) break;
    poller_.post(works);
  } while (input_.isInTail() && files[1].revents == 0);
  poller_.post(works);
}

/// Reads what is there, for one turn.
SocketChannel::Received SocketChannel::receive(std::vector<remote::Work>& works) {
  const auto sink = sink_.lock();
  if (!sink) return Received::End;
  try {
    for (std::size_t turn = 0; turn < kTurn;) {
      if (ended_) return Received::End;
      const auto room = input_.room();
      const ssize_t result = ::recv(socket_.number(), room.data(), room.size(), MSG_DONTWAIT);
      if (result < 0 && errno == EINTR) continue;
      if (result < 0 && errno == EAGAIN) return Received::All;
      if (result <= 0) {
        end(result == 0 ? std::string(remote::kPeerClosed) : reasonOf(errno));
        return Received::End;
      }
      const auto received = static_cast<std::size_t>(result);
      turn += received;
      lastReceived_ = Clock::now().time_since_epoch().count();
      input_.received(received, *sink, works);
      if (received < room.size()) return Received::All;
    }
    return Received::Part;
  } catch (const std::exception& error) {
    end(error.what());
    return Received::End;
  }
}

void SocketChannel::send(remote::Message& message, remote::Sending when) {
  const auto outcome = output_.send(message, when);
  follow(outcome);
  output_.share().keepLimit();
  if (outcome.holds && !remindIn(kHeldFor, willFlush_, &SocketChannel::flush)) flush();
}

void SocketChannel::flush() { follow(output_.flush()); }

void SocketChannel::follow(const SocketOutput::Outcome& outcome) {
  if (outcome.isMarked) watch();
  if (outcome.isTooMuch) {
    end(fmt::format("it does not read: more than {} bytes wait for it", options_.outputLimit));
  } else if (outcome.error != 0) {
    end(reasonOf(outcome.error));
  }
}

void SocketChannel::post(remote::Work work) {
  std::vector<remote::Work> works;
  works.push_back(std::move(work));
  poller_.post(works);
}

void SocketChannel::end(const std::string& reason) {
  if (ended_.exchange(true)) return;
  output_.end();
  ::shutdown(socket_.number(), SHUT_RDWR);
  std::shared_ptr<remote::ChannelSink> sink;
  {
    const HX::MutexLock lock(watchMutex_);
    if (number_ != 0) poller_.remove(std::exchange(number_, 0), socket_.number());
    sink = sink_.lock();
  }
  if (sink) sink->onEnd(reason);
}

std::chrono::milliseconds SocketChannel::silence() const {
  int unread = 0;
  // Bytes that wait to be read say that the peer is there and this process is slow.
  if (::ioctl(socket_.number(), FIONREAD, &unread) == 0 && unread > 0) return {};
  const Clock::time_point last{Clock::duration(lastReceived_.load())};
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - last);
}

}  // namespace mw::local
