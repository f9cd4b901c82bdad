#pragma once

// What Redis says, read as it is meant: for those of the peers that do more than compare it.

#include "socket_peer.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

namespace bench {

/// A request in the protocol of Redis.
inline std::string redisRequest(const std::vector<std::string_view>& parts) {
  std::string request = fmt::format("*{}\r\n", parts.size());
  for (const auto part : parts) request += fmt::format("${}\r\n{}\r\n", part.size(), part);
  return request;
}

/// The name of the key that the i-th write of a stream is to.
inline const std::string& streamedKey(int i) {
  static const auto* const keys = [] {
    auto* const all = new std::vector<std::string>;  // Never destroyed: calls may run at the very end.
    for (int number = 0; number < 100; ++number) all->push_back(fmt::format("Stream/Sensor/{:02}/Value", number));
    return all;
  }();
  return (*keys)[static_cast<std::size_t>(i) % keys->size()];
}

/// Asks, and reads answer by answer.
class RedisReader {
 public:
  struct Answer {
    std::string text;  ///< Of a text, a number or an error.
    std::vector<Answer> parts;
  };

  explicit RedisReader(const std::string& path) : socket_(path) {}

  /// @param requests  As many as are to be under way at once.
  void send(std::string_view requests) { socket_.send(requests); }

  Answer read() {
    const std::string head = line();
    const long long size = std::atoll(head.c_str() + 1);
    Answer answer;
    if (head.front() == '*') {
      for (long long i = 0; i < size; ++i) answer.parts.push_back(read());
    } else if (head.front() == '$') {
      answer.text = size < 0 ? "" : take(static_cast<std::size_t>(size));
      if (size >= 0) take(2);
    } else {
      answer.text = head.substr(1);
    }
    return answer;
  }

 private:
  std::string line() {
    std::size_t end = 0;
    while ((end = buffer_.find("\r\n", at_)) == std::string::npos) receive();
    std::string found = buffer_.substr(at_, end - at_);
    at_ = end + 2;
    return found;
  }
  std::string take(std::size_t size) {
    while (buffer_.size() - at_ < size) receive();
    std::string taken = buffer_.substr(at_, size);
    at_ += size;
    return taken;
  }
  void receive() {
    buffer_.erase(0, at_);
    at_ = 0;
    constexpr std::size_t kPiece = std::size_t{1} << 16;
    const std::size_t before = buffer_.size();
    buffer_.resize(before + kPiece);
    buffer_.resize(before + socket_.receiveSome(buffer_.data() + before, kPiece));
  }

  PlainSocket socket_;
  std::string buffer_;
  std::size_t at_ = 0;
};

}  // namespace bench
