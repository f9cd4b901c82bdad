#pragma once

#include "../runtime/threadlocal.h"
#include "../runtime/threadwait.h"
#include "channel.h"

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

namespace mw::remote {

/// While one lives, what the calling thread sends may leave in one go: when it is flushed, at its end at the latest.
/// The innermost one counts.
class OutputBatch {
 public:
  /// @param holds  Whether what is sent from now on waits for more.
  explicit OutputBatch(bool holds = false) : holds_(holds) { detail::ThreadWait::setBeforeWaiting(&flushAll); }
  OutputBatch(const OutputBatch&) = delete;
  OutputBatch& operator=(const OutputBatch&) = delete;
  ~OutputBatch() {
    leave();
    flush();
  }

  /// @param holds  Whether more follows. What is sent leaves at once otherwise.
  void hold(bool holds) { holds_ = holds; }

  void flush() {
    // What flushing ends is logged, and a sink of the log may send and wait: that is held in the place of these.
    auto leaving = std::exchange(held_, {});
    for (const auto& channel : leaving) channel->flush();
    leaving.clear();
    if (held_.empty()) held_.swap(leaving);  // Its memory serves again.
  }

  /// Whether what the calling thread sends now waits for more.
  static bool holdsHere() { return innermost_ && innermost_->holds_; }
  static void send(const std::shared_ptr<Channel>& channel, Message& message) {
    const bool holds = holdsHere();
    channel->send(message, holds ? Sending::Soon : Sending::Now);
    if (holds && std::ranges::find(innermost_->held_, channel) == innermost_->held_.end()) {
      innermost_->held_.push_back(channel);
    }
  }
  /// Before the calling thread waits: what it waits for may be the answer.
  static void flushAll() {
    for (auto* batch = innermost_; batch; batch = batch->outer_) batch->flush();
  }

 private:
  HX_THREAD_LOCAL static inline OutputBatch* innermost_ = nullptr;

  /// Mostly it is the innermost one. A scope of another language may end in another order.
  void leave() {
    OutputBatch** place = &innermost_;
    while (*place != this) place = &(*place)->outer_;
    *place = outer_;
  }

  OutputBatch* outer_ = std::exchange(innermost_, this);
  bool holds_;
  std::vector<std::shared_ptr<Channel>> held_;
};

}  // namespace mw::remote
