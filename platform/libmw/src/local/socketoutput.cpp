#include "socketoutput.h"

#include <array>
#include <cerrno>
#include <sys/socket.h>
#include <sys/uio.h>
#include <utility>

namespace mw::local {
namespace {

/// What waits for others leaves when it is as much.
constexpr std::size_t kHeldBytes = std::size_t{256} << 10;
/// Messages up to this size are copied, so that many of them wait in one piece of memory.
constexpr std::size_t kShort = std::size_t{1} << 10;
constexpr std::size_t kPiece = std::size_t{8} << 10;
/// How many pieces one call of the system sends.
constexpr std::size_t kGathered = 64;

}  // namespace

SocketOutput::SocketOutput(int socket, const LinkOptions& options)
    : socket_(socket), limit_(options.outputLimit), share_(remote::Budget::output(), options.outputOfAll) {}

SocketOutput::Outcome SocketOutput::send(remote::Message& message, remote::Sending when) {
  const HX::MutexLock lock(mutex_);
  if (isClosed_) return {};
  const auto& bytes = message.bytes;
  std::size_t written = 0;
  if (when == remote::Sending::Now && messages_.empty() && message.shared().empty()) {
    // What nothing waits before needs no queue.
    const ssize_t taken = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (taken == static_cast<ssize_t>(bytes.size())) return {};
    if (taken > 0) written = static_cast<std::size_t>(taken);
  }
  queue(message);
  sent_ += written;
  setSize(size_ - written);
  if (size_ > limit_) return {.isTooMuch = true};
  if (when == remote::Sending::Soon && size_ < kHeldBytes) return {.holds = !std::exchange(holds_, true)};
  if (isBlocked_) return {};  // It leaves when the peer has read.
  return write();
}

void SocketOutput::queue(remote::Message& message) {
  const std::size_t size = message.size();
  setSize(size_ + size);
  if (size > kShort) return messages_.push_back(std::move(message));
  const auto hasRoom = [size](const remote::Message& last) {
    return last.shared().empty() && last.bytes.capacity() - last.bytes.size() >= size;
  };
  if (messages_.empty() || !hasRoom(messages_.back())) {
    messages_.push_back({std::exchange(spare_, {}), {}});
    messages_.back().bytes.clear();
    messages_.back().bytes.reserve(kPiece);
  }
  auto& bytes = messages_.back().bytes;
  bytes.insert(bytes.end(), message.bytes.begin(), message.bytes.end());
}

void SocketOutput::setSize(std::size_t bytes) {
  size_ = bytes;
  share_.set(bytes);
}

SocketOutput::Outcome SocketOutput::flush() {
  const HX::MutexLock lock(mutex_);
  return messages_.empty() ? Outcome{} : write();
}

SocketOutput::Outcome SocketOutput::write() {
  Outcome outcome;
  holds_ = false;
  const bool wasBlocked = isBlocked_;
  isBlocked_ = !writeSome(outcome.error);
  outcome.isMarked = isBlocked_ != wasBlocked;
  return outcome;
}

/// @return Whether nothing is left. The peer that takes nothing more may have sent what is still to be read: its end
///         comes behind that, and is no error.
bool SocketOutput::writeSome(int& error) {
  while (!messages_.empty()) {
    std::array<iovec, kGathered> parts;  // NOLINT(cppcoreguidelines-pro-type-member-init): read as far as it is filled.
    std::size_t count = 0;
    std::size_t skipped = sent_;
    for (auto next = messages_.begin(); next != messages_.end() && count + 2 <= parts.size(); ++next) {
      for (const auto part : {std::span<const std::byte>(next->bytes), next->shared()}) {
        const std::size_t from = std::min(skipped, part.size());
        skipped -= from;
        if (from < part.size()) parts[count++] = {const_cast<std::byte*>(part.data()) + from, part.size() - from};
      }
    }
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = count;
    const ssize_t written = ::sendmsg(socket_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0 && errno == EAGAIN) return false;
    if (written < 0) {
      if (errno != EPIPE) error = errno;
      close();
      break;
    }
    setSize(size_ - static_cast<std::size_t>(written));
    sent_ += static_cast<std::size_t>(written);
    while (!messages_.empty() && sent_ >= messages_.front().size()) {
      sent_ -= messages_.front().size();
      if (messages_.front().bytes.capacity() <= 2 * kPiece) spare_ = std::move(messages_.front().bytes);
      messages_.pop_front();
    }
  }
  return true;
}

void SocketOutput::close() {
  isClosed_ = true;
  messages_.clear();
  sent_ = 0;
  setSize(0);
}

void SocketOutput::end() {
  const HX::MutexLock lock(mutex_);
  if (holds_) static_cast<void>(write());  // It was sent before the end.
  close();
}

}  // namespace mw::local
