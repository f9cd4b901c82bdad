#include "knocking.h"

#include "server.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <poll.h>
#include <unistd.h>

namespace HX::fleet {
namespace {

using namespace std::chrono_literals;

constexpr auto kAnswerPatience = 3s;  // For an answer over the slowest line.
constexpr auto kStale = 60s;          // Servers seldom move.
constexpr auto kSlice = 100ms;        // Between two looks at whether it is enough.
constexpr std::size_t kMostKnocks = 64;

}  // namespace

void Knocking::resolve(const std::vector<std::string>& servers) {
  first_ = servers.empty() ? std::string() : servers.front();
  std::vector<Address> all;
  for (const std::string& server : servers) {
    const Server parts(server);
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* raw = nullptr;
    if (::getaddrinfo(parts.host.c_str(), parts.port.c_str(), &hints, &raw) != 0) {
      std::ranges::copy_if(addresses_, std::back_inserter(all),
                           [&](const auto& each) { return each.server == server; });
      continue;
    }
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> found(raw, &::freeaddrinfo);
    for (const addrinfo* each = raw; each; each = each->ai_next) {
      Address& address = all.emplace_back(Address{server, {}, each->ai_addrlen});
      std::memcpy(&address.storage, each->ai_addr, each->ai_addrlen);
    }
  }
  addresses_ = std::move(all);
  resolved_ = Clock::now();
}

bool Knocking::isStale() const { return addresses_.empty() || !resolved_ || Clock::now() - *resolved_ > kStale; }

void Knocking::knock() {
  const auto now = Clock::now();
  const auto isOver = [&] {
    return !knocks_.empty() && (now - knocks_.front().when > kAnswerPatience || knocks_.size() > kMostKnocks);
  };
  while (isOver()) {
    leave(knocks_.front());
    knocks_.pop_front();
  }
  for (const Address& address : addresses_) {
    const int socket = ::socket(address.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (socket < 0) continue;
    knocks_.push_back({socket, address.server, now});
    // What came of it is asked of the socket. One whose way is known to be none keeps nobody busy.
    const auto* const where = reinterpret_cast<const sockaddr*>(&address.storage);
    if (::connect(socket, where, address.size) != 0 && errno != EINPROGRESS && errno != ECONNREFUSED) {
      leave(knocks_.back());
      knocks_.pop_back();
    }
  }
}

std::optional<std::string> Knocking::await(std::chrono::milliseconds limit, const std::function<bool()>& isEnough) {
  if (addresses_.empty()) return first_;
  const auto end = Clock::now() + limit;
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    if (left <= 0ms || isEnough()) return std::nullopt;
    if (auto server = look(std::min<std::chrono::milliseconds>(left, kSlice))) return server;
  }
}

std::optional<std::string> Knocking::look(std::chrono::milliseconds limit) {
  std::vector<pollfd> polled;
  polled.reserve(knocks_.size());
  for (const Knock& knock : knocks_) polled.push_back({knock.socket, POLLOUT, 0});
  if (::poll(polled.data(), polled.size(), static_cast<int>(limit.count())) <= 0) return std::nullopt;
  std::optional<std::string> answered;
  std::deque<Knock> open;
  for (std::size_t i = 0; i < polled.size(); ++i) {
    if (polled[i].revents == 0) {
      open.push_back(std::move(knocks_[i]));
      continue;
    }
    int error = 0;
    socklen_t size = sizeof(error);
    ::getsockopt(knocks_[i].socket, SOL_SOCKET, SO_ERROR, &error, &size);
    if (error == 0 || error == ECONNREFUSED) answered = knocks_[i].server;
    leave(knocks_[i]);
  }
  knocks_ = std::move(open);
  return answered;
}

void Knocking::leave(Knock& knock) { ::close(knock.socket); }

void Knocking::forget() {
  for (Knock& knock : knocks_) leave(knock);
  knocks_.clear();
}

}  // namespace HX::fleet
