#include "socketinput.h"

namespace mw::local {
namespace {

/// A text or binary at the end of a message is received to where it will lie, if it is as long.
constexpr std::size_t kLongTail = std::size_t{32} << 10;

}  // namespace

void SocketInput::received(std::size_t size, remote::ChannelSink& sink, std::vector<remote::Work>& works) {
  try {
    if (!tail_.isOpen()) {
      buffer_.received(size);
      deliver(sink, works);
    } else if (tail_.received(size); !tail_.isOpen()) {
      sink.onFrame({head_, splitter_.values(), tail_.take()}, works);
      head_.clear();
    }
  } catch (...) {
    sink.onPause(works);  // What came before stays.
    throw;
  }
  share_.set(buffer_.bytes().size() + head_.size() + tail_.size());
  sink.onPause(works);
}

void SocketInput::deliver(remote::ChannelSink& sink, std::vector<remote::Work>& works) {
  auto bytes = buffer_.bytes();
  while (!bytes.empty() && !tail_.isOpen()) {
    const std::size_t size = splitter_.advance(bytes);
    if (size > 0) {
      sink.onFrame({bytes.first(size), splitter_.values()}, works);
      bytes = bytes.subspan(size);
    } else if (splitter_.tail().size >= kLongTail) {
      beginTail(bytes);
      bytes = {};
    } else {
      break;  // The beginning of a message.
    }
  }
  buffer_.drop(buffer_.bytes().size() - bytes.size());
}

void SocketInput::beginTail(std::span<const std::byte> message) {
  const auto tail = splitter_.tail();
  const auto head = message.first(tail.begin);
  head_.assign(head.begin(), head.end());
  tail_.begin(tail.isText, tail.size, message.subspan(tail.begin));
  splitter_.endAtTail();
}

}  // namespace mw::local
