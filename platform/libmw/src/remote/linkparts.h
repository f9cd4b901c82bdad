#pragma once

// What the sources of a Link share: link.cpp calls, link_serving.cpp is called, link_signals.cpp emits and delivers.

#include "../runtime/threadlocal.h"
#include "link.h"

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

inline constexpr const char* kCategory = "mw.link";
/// Bytes to begin a message with.
inline constexpr std::size_t kUsualFrame = 128;
inline constexpr std::size_t kKeptFrame = std::size_t{64} << 10;
inline constexpr std::string_view kAlive = "korvo.alive";
inline constexpr std::string_view kEmit = "korvo.emit";

/// The T of the calling thread. Null when that has gone: objects that go when the thread ends may still send.
template <class T>
T* keptByThread() {
  HX_THREAD_LOCAL static T* now = nullptr;
  HX_THREAD_LOCAL static bool isOver = false;
  struct Kept {
    Kept() { now = &value; }
    Kept(const Kept&) = delete;
    Kept& operator=(const Kept&) = delete;
    ~Kept() {
      now = nullptr;
      isOver = true;
    }
    T value;
  };
  if (now || isOver) return now;
  static thread_local Kept kept;
  return &kept.value;
}

/// Where a message is written. Memory comes from the thread's last one, so that it is not asked for with every message.
class FrameBuffer {
 public:
  FrameBuffer() {
    if (auto* const kept = keptByThread<Bytes>()) bytes_.swap(*kept);
    bytes_.reserve(kUsualFrame);
  }
  FrameBuffer(const FrameBuffer&) = delete;
  FrameBuffer& operator=(const FrameBuffer&) = delete;
  ~FrameBuffer() {
    bytes_.clear();
    auto* const kept = keptByThread<Bytes>();
    if (kept && bytes_.capacity() <= kKeptFrame) bytes_.swap(*kept);
  }
  Bytes& bytes() { return bytes_; }

 private:
  Bytes bytes_;
};

/// While one lives, what the calling thread sends may leave together: when it is flushed, at its end at the latest.
class Together {
 public:
  Together() = default;
  Together(const Together&) = delete;
  Together& operator=(const Together&) = delete;
  ~Together() {
    present_ = outer_;
    flush();
  }

  /// @param holds  Whether more follows. What is sent leaves at once otherwise.
  void hold(bool holds) { present_ = holds ? this : nullptr; }

  void flush() {
    for (const auto& channel : held_) channel->flush();
    held_.clear();
  }

  static void send(const std::shared_ptr<Channel>& channel, Bytes& frame) {
    const bool isFirst = channel->send(frame, present_ ? Sending::Soon : Sending::Now);
    if (isFirst) present_->held_.push_back(channel);
  }

 private:
  HX_THREAD_LOCAL static inline Together* present_ = nullptr;

  Together* const outer_ = std::exchange(present_, nullptr);
  std::vector<std::shared_ptr<Channel>> held_;
};

/// A message while it is written, and the objects that it mentions.
struct Draft {
  Draft(ObjectTable& objects, MessageType kind) : mention(objects), type(kind) { writeHead(); }

  void beginAnew() {
    frame.clear();
    mention.takeBack();
    writeHead();
  }
  void writeHead() {
    out.list(type == MessageType::Notification ? 3 : 4);
    out.number(static_cast<std::uint32_t>(type));
  }

  FrameBuffer buffer;
  Bytes& frame = buffer.bytes();
  ObjectTable::Mention mention;
  Writer out{frame};
  const MessageType type;
};

/// Sends a notification.
/// @param write  Appends the target and the arguments.
template <class Write>
void Link::notify(const Write& write) {
  Draft draft(objects_, MessageType::Notification);
  write(draft.out, draft.mention);
  requireSendable(draft.frame, "the message");
  Together::send(channel_, draft.frame);
  draft.mention.sent();
}

/// Done here and now where the event loop has ended with the process.
inline void postOrRun(const std::function<void()>& task) {
  if (!defaultLoop().post(task)) task();
}

}  // namespace mw::remote
