#pragma once

#include "../remote/budget.h"
#include "../remote/channel.h"
#include "../remote/framesplitter.h"
#include "receivebuffer.h"
#include "receivedtail.h"

#include <libmw/local.h>

#include <cstddef>
#include <span>
#include <vector>

namespace mw::local {

/// Makes messages of what comes by a socket.
///
/// @par Threads  For the one that has the turn to read.
class SocketInput {
 public:
  explicit SocketInput(const LinkOptions& options)
      : splitter_(options.frameLimit, options.depthLimit, options.valueLimit),
        share_(remote::Budget::input(), options.inputOfAll) {}

  /// Where to receive.
  std::span<std::byte> room() {
    return tail_.isOpen() ? tail_.room() : buffer_.room(splitter_.missing(buffer_.bytes().size()));
  }
  /// So much has been received there. Hands the messages that are whole to the sink.
  /// @throws remote::ProtocolError
  void received(std::size_t size, remote::ChannelSink& sink, std::vector<remote::Work>& works);

  /// Whether a long text or binary has come in part.
  bool isInTail() const { return tail_.isOpen(); }
  /// Of all connections: what is here and is no whole message. The sink keeps the limit.
  remote::Budget::Share& share() { return share_; }

 private:
  void deliver(remote::ChannelSink& sink, std::vector<remote::Work>& works);
  void beginTail(std::span<const std::byte> message);

  remote::FrameSplitter splitter_;
  ReceiveBuffer buffer_;
  remote::Bytes head_;  // of the message whose tail is being received
  ReceivedTail tail_;
  remote::Budget::Share share_;
};

}  // namespace mw::local
