#pragma once

// What the sources of a Link share: link.cpp calls; link_receiving.cpp reads what comes, link_scheduling.cpp says when
// calls of the peer run, link_serving.cpp runs them; link_signals.cpp emits and delivers.

#include "../runtime/threadkept.h"
#include "link.h"
#include "outputbatch.h"

#include <libmw/eventloop.h>
#include <libmw/log.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace mw::remote {

using mw::detail::ofThisThread;

inline constexpr const char* kCategory = "mw.link";
/// Bytes to begin a message with.
inline constexpr std::size_t kUsualFrame = 128;
inline constexpr std::size_t kReusedFrame = std::size_t{64} << 10;
inline constexpr std::string_view kAlive = "korvo.alive";
inline constexpr std::string_view kEmit = "korvo.emit";
inline constexpr std::string_view kAuthor = "korvo.author";
inline constexpr std::string_view kCancel = "korvo.cancel";
/// By which a broker says why it takes no connection; the end follows.
inline constexpr std::string_view kRefused = "korvo.refused";

/// Where a message is written. Memory comes from the thread's last one, so that it is not asked for with every message.
class FrameBuffer {
 public:
  FrameBuffer() {
    if (auto* const last = ofThisThread<Bytes>()) message_.bytes.swap(*last);
    message_.bytes.reserve(kUsualFrame);
  }
  FrameBuffer(const FrameBuffer&) = delete;
  FrameBuffer& operator=(const FrameBuffer&) = delete;
  ~FrameBuffer() {
    message_.bytes.clear();
    auto* const last = ofThisThread<Bytes>();
    if (last && message_.bytes.capacity() <= kReusedFrame) message_.bytes.swap(*last);
  }
  Message& message() { return message_; }

 private:
  Message message_;
};

/// A message while it is written, and the objects that it mentions.
struct Draft {
  Draft(ObjectTable& objects, MessageType kind) : mention(objects), type(kind) { writeHead(); }

  void beginAnew() {
    message.clear();
    mention.takeBack();
    writeHead();
  }
  void writeHead() {
    out.list(type == MessageType::Notification ? 3 : 4);
    out.number(static_cast<std::uint32_t>(type));
  }

  FrameBuffer buffer;
  Message& message = buffer.message();
  ObjectTable::Mention mention;
  Writer out{message};
  const MessageType type;
};

/// Sends a notification.
/// @param write  Appends the target and the arguments.
template <class Write>
void Link::notify(const Write& write) {
  Draft draft(objects_, MessageType::Notification);
  write(draft.out, draft.mention);
  requireSendable(draft.message, "the message");
  OutputBatch::send(channel_, draft.message);
  draft.mention.sent();
}

/// Done here and now where the event loop has ended with the process.
inline void postOrRun(const std::function<void()>& task) {
  if (!defaultLoop().post(task)) task();
}

}  // namespace mw::remote
